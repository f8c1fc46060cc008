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

}  // namespace dravik::fontrenderer
