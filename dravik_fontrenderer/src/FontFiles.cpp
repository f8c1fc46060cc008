#include "FontFiles.h"

#include <string>
#include <vector>

namespace dravik::fontrenderer {

namespace {

// Faces for the characters that the first face lacks, tried in this order:
// each is meant for the scripts given (none: any script) and is tried for
// other scripts only when no face meant for a character's script has it.
// Files that are missing are left out (docs/fonts.md lists the packages).
//
// The Noto faces are hinted lightly: their own instructions cost about ten
// times as much per glyph (a line of Thai: 435 us of CPU against 56 us).
// WenQuanYi Micro Hei keeps its own, which are cheaper than the auto-hinter
// on its 49,000 glyphs and spare the auto-hinter's tables of the face.
struct FallbackFile {
    const char* path;
    Hinting hinting;
    hb_script_t scripts[6];  // ends at the first HB_SCRIPT_INVALID
};
constexpr Hinting kOwn = Hinting::Own;
constexpr Hinting kLight = Hinting::Light;
constexpr FallbackFile kFallbackFiles[] = {
    {DRAVIK_DEFAULT_FONT_FILE, kOwn, {}},
    // fonts-noto-ui-core
    {"/usr/share/fonts/truetype/noto/NotoSansArabicUI-Regular.ttf", kLight, {HB_SCRIPT_ARABIC}},
    {"/usr/share/fonts/truetype/noto/NotoSansDevanagariUI-Regular.ttf",
     kLight,
     {HB_SCRIPT_DEVANAGARI}},
    {"/usr/share/fonts/truetype/noto/NotoSansBengaliUI-Regular.ttf", kLight, {HB_SCRIPT_BENGALI}},
    {"/usr/share/fonts/truetype/noto/NotoSansGurmukhiUI-Regular.ttf", kLight, {HB_SCRIPT_GURMUKHI}},
    {"/usr/share/fonts/truetype/noto/NotoSansGujaratiUI-Regular.ttf", kLight, {HB_SCRIPT_GUJARATI}},
    {"/usr/share/fonts/truetype/noto/NotoSansOriyaUI-Regular.ttf", kLight, {HB_SCRIPT_ORIYA}},
    {"/usr/share/fonts/truetype/noto/NotoSansTamilUI-Regular.ttf", kLight, {HB_SCRIPT_TAMIL}},
    {"/usr/share/fonts/truetype/noto/NotoSansTeluguUI-Regular.ttf", kLight, {HB_SCRIPT_TELUGU}},
    {"/usr/share/fonts/truetype/noto/NotoSansKannadaUI-Regular.ttf", kLight, {HB_SCRIPT_KANNADA}},
    {"/usr/share/fonts/truetype/noto/NotoSansMalayalamUI-Regular.ttf",
     kLight,
     {HB_SCRIPT_MALAYALAM}},
    {"/usr/share/fonts/truetype/noto/NotoSansSinhalaUI-Regular.ttf", kLight, {HB_SCRIPT_SINHALA}},
    {"/usr/share/fonts/truetype/noto/NotoSansThaiUI-Regular.ttf", kLight, {HB_SCRIPT_THAI}},
    {"/usr/share/fonts/truetype/noto/NotoSansLaoUI-Regular.ttf", kLight, {HB_SCRIPT_LAO}},
    {"/usr/share/fonts/truetype/noto/NotoSansMyanmarUI-Regular.ttf", kLight, {HB_SCRIPT_MYANMAR}},
    {"/usr/share/fonts/truetype/noto/NotoSansKhmerUI-Regular.ttf", kLight, {HB_SCRIPT_KHMER}},
    // fonts-wqy-microhei
    {"/usr/share/fonts/truetype/wqy/wqy-microhei.ttc",
     kOwn,
     {HB_SCRIPT_HAN, HB_SCRIPT_HIRAGANA, HB_SCRIPT_KATAKANA, HB_SCRIPT_HANGUL, HB_SCRIPT_BOPOMOFO}},
};

}  // namespace

std::vector<FaceSource> fallbackFaces() {
    std::vector<FaceSource> sources;
    for (const auto& file : kFallbackFiles) {
        FaceSource source{file.path, {}, file.hinting};
        for (const hb_script_t script : file.scripts) {
            if (script == HB_SCRIPT_INVALID) {
                break;
            }
            source.scripts.push_back(script);
        }
        sources.push_back(source);
    }
    return sources;
}

std::vector<std::string> firstFaceCandidates() {
    std::vector<std::string> files;
    const char* configured = DRAVIK_FONT_FILE;
    if (configured[0] != '\0') {
        files.emplace_back(configured);
    }
    files.emplace_back(DRAVIK_DEFAULT_FONT_FILE);
    return files;
}
}  // namespace dravik::fontrenderer
