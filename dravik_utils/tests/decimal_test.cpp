#include "dravik_utils/decimal.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

#include "dravik_test_support/command_line.h"

namespace {

using dravik::testsupport::TextCase;
using dravik::utils::DecimalProblem;
using dravik::utils::isDecimal;
using dravik::utils::parseDecimal;

TEST(ParseDecimal, signed_types_take_one_sign) {
    long value = 0;
    ASSERT_EQ(parseDecimal("250", value), DecimalProblem::kNone);
    EXPECT_EQ(value, 250);
    ASSERT_EQ(parseDecimal("-1", value), DecimalProblem::kNone);
    EXPECT_EQ(value, -1);
    ASSERT_EQ(parseDecimal("+7", value), DecimalProblem::kNone);
    EXPECT_EQ(value, 7);
    ASSERT_EQ(parseDecimal("-0", value), DecimalProblem::kNone);
    EXPECT_EQ(value, 0);
    long long least = 0;
    ASSERT_EQ(parseDecimal("-9223372036854775808", least), DecimalProblem::kNone);
    EXPECT_EQ(least, std::numeric_limits<long long>::min());
}

TEST(ParseDecimal, unsigned_types_take_digits_only) {
    uint32_t value = 0;
    ASSERT_EQ(parseDecimal("4294967295", value), DecimalProblem::kNone);
    EXPECT_EQ(value, 4294967295U);
    ASSERT_EQ(parseDecimal("007", value), DecimalProblem::kNone);
    EXPECT_EQ(value, 7U);
    for (const char* text : {"-1", "+1", "-0"}) {
        EXPECT_EQ(parseDecimal(text, value), DecimalProblem::kNotDecimal) << text;
    }
}

TEST(ParseDecimal, anything_but_one_whole_integer_is_refused_and_leaves_the_value) {
    const TextCase rows[] = {
        {"", "not decimal"},
        {" 5", "not decimal"},
        {"5 ", "not decimal"},
        {"12x", "not decimal"},
        {"0x10", "not decimal"},
        {"1.5", "not decimal"},
        {"-", "not decimal"},
        {"+", "not decimal"},
        {"+-5", "not decimal"},
        {"--5", "not decimal"},
        {"ten", "not decimal"},
        {"99999999999999999999x", "not decimal"},
        {"99999999999999999999", "out of range"},
        {"-99999999999999999999", "out of range"},
    };
    dravik::testsupport::forEachCase(rows, [](const char* text, const char* expected) {
        long long value = 42;
        const DecimalProblem problem = parseDecimal(text, value);
        EXPECT_EQ(problem, std::string(expected) == "out of range" ? DecimalProblem::kOutOfRange
                                                                   : DecimalProblem::kNotDecimal);
        EXPECT_EQ(value, 42);
    });
}

TEST(ParseDecimal, the_type_sets_the_range) {
    uint32_t small = 0;
    EXPECT_EQ(parseDecimal("4294967296", small), DecimalProblem::kOutOfRange);
    int8_t tiny = 0;
    EXPECT_EQ(parseDecimal("-129", tiny), DecimalProblem::kOutOfRange);
    EXPECT_TRUE(isDecimal("-128", tiny));
    EXPECT_EQ(tiny, -128);
    unsigned long wide = 0;
    EXPECT_TRUE(isDecimal("86400000", wide));
    EXPECT_FALSE(isDecimal("86400000.0", wide));
}

}  // namespace
