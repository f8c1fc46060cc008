#include "Utf8.h"

#include <algorithm>
#include <cstddef>

namespace dravik::fontrenderer {

namespace {

constexpr uint32_t kReplacement = 0xFFFD;

// Well-formed UTF-8 by lead byte: the sequence length and the range allowed for
// the second byte (which excludes overlong forms, surrogates and code points
// above U+10FFFF); later bytes are always 0x80 .. 0xBF.
struct LeadRule {
    unsigned char first;
    unsigned char last;
    unsigned length;
    unsigned char secondLow;
    unsigned char secondHigh;
};
constexpr LeadRule kLeadRules[] = {
    {0x00, 0x7F, 1, 0x00, 0x00}, {0xC2, 0xDF, 2, 0x80, 0xBF}, {0xE0, 0xE0, 3, 0xA0, 0xBF},
    {0xE1, 0xEC, 3, 0x80, 0xBF}, {0xED, 0xED, 3, 0x80, 0x9F}, {0xEE, 0xEF, 3, 0x80, 0xBF},
    {0xF0, 0xF0, 4, 0x90, 0xBF}, {0xF1, 0xF3, 4, 0x80, 0xBF}, {0xF4, 0xF4, 4, 0x80, 0x8F},
};

const LeadRule* findLeadRule(unsigned char lead) {
    for (const auto& rule : kLeadRules) {
        if (lead >= rule.first && lead <= rule.last) {
            return &rule;
        }
    }
    return nullptr;
}

}  // namespace

// Decodes the code point at `pos` and moves `pos` past it. A malformed sequence
// gives U+FFFD and is skipped up to the first byte that cannot continue it
// (always at least one byte), so decoding never reads past the string.
uint32_t nextCodePoint(const std::string& text, std::size_t& pos) {
    const auto lead = static_cast<unsigned char>(text[pos++]);
    const LeadRule* rule = findLeadRule(lead);
    if (rule == nullptr) {
        return kReplacement;
    }
    if (rule->length == 1) {
        return lead;
    }
    uint32_t cp = lead & (0x7F >> rule->length);
    for (unsigned i = 1; i < rule->length; ++i) {
        if (pos >= text.size()) {
            return kReplacement;
        }
        const auto byte = static_cast<unsigned char>(text[pos]);
        const unsigned char low = i == 1 ? rule->secondLow : 0x80;
        const unsigned char high = i == 1 ? rule->secondHigh : 0xBF;
        if (byte < low || byte > high) {
            return kReplacement;
        }
        cp = (cp << 6) | (byte & 0x3F);
        ++pos;
    }
    return cp;
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
