#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace dravik::fontrenderer::testing {

// One line of text in one writing system, as a device would show it.
struct ScriptLine {
    std::string name;
    std::string text;
    // Whether the line is meant to draw with no .notdef box.
    bool everyGlyphInSomeFace;
};

// Test names and failure messages show the line by its name.
inline void PrintTo(const ScriptLine& line, std::ostream* os) {
    *os << line.name;
}

inline const std::vector<ScriptLine>& scriptLines() {
    static const std::vector<ScriptLine> lines = {
        {"latin", "Recording 00:12:34 — Café", true},
        {"arabic", "مرحبا بالعالم", true},
        {"hebrew", "עדכון תוכנה", true},
        {"mixed", "Firmware 2.1 تحديث", true},
        {"devanagari", "नमस्ते", true},
        {"thai", "กำลังอัปเดต", true},
        {"chinese", "正在更新固件", true},
        {"japanese", "ファームウェア更新中", true},
        {"korean", "펌웨어 업데이트", true},
        // There is no colour emoji face: DejaVu Sans draws the few emoji it
        // has (the grinning face) in outline like any glyph; the party popper
        // is in no face and comes out as the .notdef box.
        {"emoji", "Done ✓ 😀 🎉", false},
    };
    return lines;
}

}  // namespace dravik::fontrenderer::testing
