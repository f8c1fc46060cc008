#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace dravik::utils {

// Decodes the well-formed UTF-8 sequence at `pos` (< text.size()) into `cp`
// and moves `pos` past it. Overlong forms, surrogates and values above
// U+10FFFF are malformed: false, with `pos` moved up to the first byte that
// cannot continue the sequence (always at least one byte), so that decoding
// never reads past the string.
[[nodiscard]] bool decodeUtf8(const std::string& text, std::size_t& pos, uint32_t& cp);

}  // namespace dravik::utils
