#include "Utf8.h"

#include <algorithm>
#include <cstddef>

#include "dravik_utils/utf8.h"

namespace dravik::fontrenderer {

namespace {

constexpr uint32_t kReplacement = 0xFFFD;

}  // namespace

uint32_t nextCodePoint(const std::string& text, std::size_t& pos) {
    uint32_t cp = 0;
    return utils::decodeUtf8(text, pos, cp) ? cp : kReplacement;
}

// C0 and C1 controls, DEL and the Unicode line and paragraph separators take
// no room in a single line: they are dropped.
bool isControl(uint32_t cp) {
    return cp < 0x20 || (cp >= 0x7F && cp <= 0x9F) || cp == 0x2028 || cp == 0x2029;
}

std::vector<uint32_t> decodeLine(const std::string& text, std::size_t limit) {
    std::vector<uint32_t> out;
    out.reserve(std::min(text.size(), limit));
    std::size_t pos = 0;
    while (pos < text.size() && out.size() < limit) {
        const uint32_t cp = nextCodePoint(text, pos);
        if (!isControl(cp)) {
            out.push_back(cp);
        }
    }
    return out;
}

}  // namespace dravik::fontrenderer
