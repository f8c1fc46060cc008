#include "LineShaper.h"

#include <fribidi.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

#include "dravik_logger/logger.h"

namespace dravik::fontrenderer {

namespace {

// Default-ignorable code points (joiners, variation selectors, bidirectional
// controls, ...): fonts need not have glyphs for them, and shaping drops them
// after using them as context.
struct Range {
    uint32_t first;
    uint32_t last;
};
constexpr Range kDefaultIgnorable[] = {
    {0x00AD, 0x00AD},   {0x034F, 0x034F},   {0x061C, 0x061C}, {0x115F, 0x1160}, {0x17B4, 0x17B5},
    {0x180B, 0x180F},   {0x200B, 0x200F},   {0x202A, 0x202E}, {0x2060, 0x206F}, {0x3164, 0x3164},
    {0xFE00, 0xFE0F},   {0xFEFF, 0xFEFF},   {0xFFA0, 0xFFA0}, {0xFFF0, 0xFFF8}, {0x1BCA0, 0x1BCA3},
    {0x1D173, 0x1D17A}, {0xE0000, 0xE0FFF},
};

bool isDefaultIgnorable(uint32_t cp) {
    for (const auto& range : kDefaultIgnorable) {
        if (cp >= range.first && cp <= range.last) {
            return true;
        }
    }
    return false;
}

bool isNeutralScript(hb_script_t script) {
    return script == HB_SCRIPT_COMMON || script == HB_SCRIPT_INHERITED ||
           script == HB_SCRIPT_UNKNOWN;
}

hb_script_t scriptOf(uint32_t cp) {
    return hb_unicode_script(hb_unicode_funcs_get_default(), cp);
}

// A run of characters shaped together: one level, one script, one face.
struct Item {
    std::size_t start;
    std::size_t end;
    FriBidiLevel level;
    hb_script_t script;
    std::size_t face;
};

// Embedding levels by the bidirectional algorithm, with the paragraph's base
// direction taken from its first strong character (left to right when it has
// none). The levels are those of one line: trailing white space goes back to
// the paragraph's level.
bool resolveLevels(const std::vector<uint32_t>& text, std::vector<FriBidiLevel>& levels,
                   bool& rightToLeft) {
    const auto n = static_cast<FriBidiStrIndex>(text.size());
    std::vector<FriBidiCharType> types(text.size());
    std::vector<FriBidiBracketType> brackets(text.size());
    levels.assign(text.size(), 0);
    fribidi_get_bidi_types(text.data(), n, types.data());
    fribidi_get_bracket_types(text.data(), n, types.data(), brackets.data());
    FriBidiParType base = FRIBIDI_PAR_ON;
    if (fribidi_get_par_embedding_levels_ex(types.data(), brackets.data(), n, &base,
                                            levels.data()) == 0 ||
        fribidi_reorder_line(0, types.data(), n, 0, base, levels.data(), nullptr, nullptr) == 0) {
        DRAVIK_LOG(logger::kError, 0,
                   "FriBidi could not resolve the levels of a line of %zu characters", text.size());
        return false;
    }
    rightToLeft = FRIBIDI_IS_RTL(base);
    return true;
}

// The script of each character, with characters shared by scripts (spaces,
// digits, punctuation, combining marks) given the script of the text before
// them, or after them at the start of the line.
std::vector<hb_script_t> resolveScripts(const std::vector<uint32_t>& text) {
    std::vector<hb_script_t> scripts(text.size(), HB_SCRIPT_COMMON);
    hb_script_t current = HB_SCRIPT_INVALID;
    std::size_t firstReal = text.size();
    for (std::size_t i = 0; i < text.size(); ++i) {
        const hb_script_t script = scriptOf(text[i]);
        if (!isNeutralScript(script)) {
            current = script;
            firstReal = std::min(firstReal, i);
        }
        if (current != HB_SCRIPT_INVALID) {
            scripts[i] = current;
        }
    }
    if (firstReal < text.size()) {
        std::fill_n(scripts.begin(), firstReal, scripts[firstReal]);
    }
    return scripts;
}

// Picks faces for the characters of one script run, [start, end).
class FacePicker {
public:
    FacePicker(FaceSet& faces, const std::vector<uint32_t>& text, std::vector<std::size_t>& faceOf)
        : faces(faces), text(text), faceOf(faceOf) {}

    // The first face meant for the script that holds the whole run draws it
    // all, so that letters that join or combine stay in one face. Otherwise
    // each character goes to the first face that has it.
    void pick(std::size_t start, std::size_t end, hb_script_t script) {
        for (std::size_t face = 0; face < faces.size(); ++face) {
            if (faces.serves(face, script) && covers(face, start, end)) {
                std::fill(faceOf.begin() + long(start), faceOf.begin() + long(end), face);
                return;
            }
        }
        pickEach(start, end, script);
    }

private:
    static constexpr std::size_t kFollow = static_cast<std::size_t>(-1);

    bool covers(std::size_t face, std::size_t start, std::size_t end) {
        for (std::size_t i = start; i < end; ++i) {
            if (!isDefaultIgnorable(text[i]) && !faces.hasGlyph(face, text[i])) {
                return false;
            }
        }
        return true;
    }

    // Faces meant for the script first, then any other; the first face's
    // .notdef glyph when none has the character.
    std::size_t firstFaceWith(uint32_t cp, hb_script_t script) {
        for (const bool meant : {true, false}) {
            for (std::size_t face = 0; face < faces.size(); ++face) {
                if (faces.serves(face, script) == meant && faces.hasGlyph(face, cp)) {
                    return face;
                }
            }
        }
        return 0;
    }

    // Marks and ignorable characters stay with the character before them;
    // shared characters stay in the face before them when it has them.
    void pickEach(std::size_t start, std::size_t end, hb_script_t script) {
        std::size_t previous = kFollow;
        for (std::size_t i = start; i < end; ++i) {
            const uint32_t cp = text[i];
            const hb_script_t own = scriptOf(cp);
            if (isDefaultIgnorable(cp) || own == HB_SCRIPT_INHERITED) {
                faceOf[i] = kFollow;
                continue;
            }
            if (isNeutralScript(own) && previous != kFollow && faces.hasGlyph(previous, cp)) {
                faceOf[i] = previous;
            } else {
                faceOf[i] = firstFaceWith(cp, script);
            }
            previous = faceOf[i];
        }
        resolveFollowers(start, end);
    }

    void resolveFollowers(std::size_t start, std::size_t end) {
        std::size_t current = kFollow;
        for (std::size_t i = start; i < end && current == kFollow; ++i) {
            current = faceOf[i];
        }
        if (current == kFollow) {
            current = 0;
        }
        for (std::size_t i = start; i < end; ++i) {
            if (faceOf[i] == kFollow) {
                faceOf[i] = current;
            }
            current = faceOf[i];
        }
    }

    FaceSet& faces;
    const std::vector<uint32_t>& text;
    std::vector<std::size_t>& faceOf;
};

std::vector<std::size_t> pickFaces(FaceSet& faces, const std::vector<uint32_t>& text,
                                   const std::vector<hb_script_t>& scripts) {
    std::vector<std::size_t> faceOf(text.size(), 0);
    FacePicker picker(faces, text, faceOf);
    std::size_t start = 0;
    for (std::size_t i = 1; i <= text.size(); ++i) {
        if (i == text.size() || scripts[i] != scripts[start]) {
            picker.pick(start, i, scripts[start]);
            start = i;
        }
    }
    return faceOf;
}

std::vector<Item> itemize(const std::vector<FriBidiLevel>& levels,
                          const std::vector<hb_script_t>& scripts,
                          const std::vector<std::size_t>& faceOf) {
    std::vector<Item> items;
    for (std::size_t i = 0; i < levels.size(); ++i) {
        if (items.empty() || levels[i] != items.back().level || scripts[i] != items.back().script ||
            faceOf[i] != items.back().face) {
            items.push_back(Item{i, i + 1, levels[i], scripts[i], faceOf[i]});
        } else {
            items.back().end = i + 1;
        }
    }
    return items;
}

// Rule L2 of the bidirectional algorithm on whole runs: from the highest level
// down to the lowest odd one, every sequence of runs at that level or above is
// reversed.
void reorderVisually(std::vector<Item>& items) {
    int highest = 0;
    int lowest = std::numeric_limits<FriBidiLevel>::max();
    for (const auto& item : items) {
        highest = std::max(highest, int(item.level));
        lowest = std::min(lowest, int(item.level));
    }
    for (int level = highest; level >= (lowest | 1); --level) {
        auto it = items.begin();
        while (it != items.end()) {
            if (it->level < level) {
                ++it;
                continue;
            }
            const auto last =
                std::find_if(it, items.end(), [&](const Item& i) { return i.level < level; });
            std::reverse(it, last);
            it = last;
        }
    }
}

}  // namespace

LineShaper::LineShaper() : buffer(hb_buffer_create()) {}

bool LineShaper::shape(FaceSet& faces, const std::vector<uint32_t>& text, unsigned size,
                       ShapedLine& line) {
    line = ShapedLine();
    line.facesUsed.assign(faces.size(), false);
    if (text.empty()) {
        return true;
    }
    std::vector<FriBidiLevel> levels;
    if (!resolveLevels(text, levels, line.rightToLeft)) {
        return false;
    }
    const std::vector<hb_script_t> scripts = resolveScripts(text);
    std::vector<Item> items = itemize(levels, scripts, pickFaces(faces, text, scripts));
    reorderVisually(items);
    hb_buffer_t* buf = buffer.get();
    for (const auto& item : items) {
        hb_font_t* font = faces.sizedFont(item.face, size);
        if (font == nullptr) {
            return false;
        }
        hb_buffer_clear_contents(buf);
        hb_buffer_add_codepoints(buf, text.data(), static_cast<int>(text.size()),
                                 static_cast<unsigned>(item.start),
                                 static_cast<int>(item.end - item.start));
        hb_buffer_set_direction(buf, (item.level & 1) != 0 ? HB_DIRECTION_RTL : HB_DIRECTION_LTR);
        hb_buffer_set_script(buf, item.script);
        hb_buffer_set_flags(buf,
                            hb_buffer_flags_t(HB_BUFFER_FLAG_REMOVE_DEFAULT_IGNORABLES |
                                              (item.start == 0 ? HB_BUFFER_FLAG_BOT : 0) |
                                              (item.end == text.size() ? HB_BUFFER_FLAG_EOT : 0)));
        hb_shape(font, buf, nullptr, 0);
        if (!hb_buffer_allocation_successful(buf)) {
            DRAVIK_LOG(logger::kError, 0,
                       "HarfBuzz ran out of memory shaping a run of %zu characters",
                       item.end - item.start);
            return false;
        }
        unsigned count = 0;
        const hb_glyph_info_t* infos = hb_buffer_get_glyph_infos(buf, &count);
        const hb_glyph_position_t* positions = hb_buffer_get_glyph_positions(buf, &count);
        for (unsigned g = 0; g < count; ++g) {
            line.glyphs.push_back(ShapedGlyph{item.face, infos[g].codepoint,
                                              line.advance + positions[g].x_offset,
                                              positions[g].y_offset, positions[g].x_advance});
            line.advance += positions[g].x_advance;
        }
        line.facesUsed[item.face] = true;
    }
    return true;
}

}  // namespace dravik::fontrenderer
