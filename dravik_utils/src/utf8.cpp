#include "dravik_utils/utf8.h"

namespace dravik::utils {

namespace {

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

bool decodeUtf8(const std::string& text, std::size_t& pos, uint32_t& cp) {
    const auto lead = static_cast<unsigned char>(text[pos++]);
    const LeadRule* rule = findLeadRule(lead);
    if (rule == nullptr) {
        return false;
    }
    uint32_t value = rule->length == 1 ? lead : lead & (0x7Fu >> rule->length);
    for (unsigned i = 1; i < rule->length; ++i) {
        if (pos >= text.size()) {
            return false;
        }
        const auto byte = static_cast<unsigned char>(text[pos]);
        const unsigned char low = i == 1 ? rule->secondLow : 0x80;
        const unsigned char high = i == 1 ? rule->secondHigh : 0xBF;
        if (byte < low || byte > high) {
            return false;
        }
        value = (value << 6) | (byte & 0x3F);
        ++pos;
    }
    cp = value;
    return true;
}

}  // namespace dravik::utils
