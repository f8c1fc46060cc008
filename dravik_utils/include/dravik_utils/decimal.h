#pragma once

// Header-only, like getopt_table.h: the number arguments of every command line,
// including those of the simulator's tools, which link nothing of the project.
// It neither allocates nor throws, so the preload library may use it too.

#include <charconv>
#include <system_error>
#include <type_traits>

namespace dravik::utils {

enum class DecimalProblem {
    kNone,
    kNotDecimal,  // not one whole decimal integer
    kOutOfRange,  // a decimal integer that T cannot hold
};

// Reads `text` whole as a decimal integer of type T. A signed T takes one
// leading '+' or '-', an unsigned T only digits; blanks, "0x" and anything after
// the digits are refused, unlike strtol. `value` is set only without a problem.
template <typename T>
DecimalProblem parseDecimal(const char* text, T& value) {
    static_assert(std::is_integral_v<T>, "parseDecimal reads integers");
    const bool sign = std::is_signed_v<T> && (*text == '+' || *text == '-');
    const char* digits = text + (sign ? 1 : 0);
    if (*digits < '0' || *digits > '9') {
        return DecimalProblem::kNotDecimal;
    }
    const char* end = digits;
    while (*end != '\0') {
        ++end;
    }
    T parsed{};
    // from_chars takes a '-' but no '+'.
    const std::from_chars_result result =
        std::from_chars(*text == '+' ? digits : text, end, parsed);
    if (result.ptr != end) {
        return DecimalProblem::kNotDecimal;
    }
    if (result.ec == std::errc::result_out_of_range) {
        return DecimalProblem::kOutOfRange;
    }
    value = parsed;
    return DecimalProblem::kNone;
}

// parseDecimal without the reason: true when `text` is a T.
template <typename T>
bool isDecimal(const char* text, T& value) {
    return parseDecimal(text, value) == DecimalProblem::kNone;
}

}  // namespace dravik::utils
