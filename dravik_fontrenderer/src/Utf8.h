#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace dravik::fontrenderer {

// The code points of `text` as one line, at most `limit` of them: each
// malformed UTF-8 sequence becomes U+FFFD; control characters, line and
// paragraph separators are left out.
std::vector<uint32_t> decodeLine(const std::string& text, std::size_t limit);

// Decodes the code point at `pos` (< text.size()) and moves `pos` past it. A
// malformed sequence gives U+FFFD and is skipped up to the first byte that
// cannot continue it (always at least one byte).
uint32_t nextCodePoint(const std::string& text, std::size_t& pos);

// C0 and C1 controls, DEL and the Unicode line and paragraph separators: they
// take no room in a single line.
bool isControl(uint32_t cp);

}  // namespace dravik::fontrenderer
