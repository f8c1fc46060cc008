#pragma once

#include <ft2build.h>
#include FT_FREETYPE_H
#include <hb.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace dravik::fontrenderer {

// How a face's glyphs are hinted.
enum class Hinting {
    // The face's own instructions (FreeType's default).
    Own,
    // Vertically only, by FreeType's auto-hinter.
    Light,
};

// A font file, the scripts it is meant for (none: any script) and how its
// glyphs are hinted when it serves as a fallback face.
struct FaceSource {
    std::string path;
    std::vector<hb_script_t> scripts;
    Hinting hinting = Hinting::Own;
};

// Vertical extent of a face at one pixel size, in whole pixels: the baseline
// lies `ascender` rows below the top of the line and `descender` rows above
// its bottom.
struct VerticalMetrics {
    long ascender = 0;
    long descender = 0;
};

struct LibraryDeleter {
    void operator()(FT_Library library) const { (void)FT_Done_FreeType(library); }
};
struct FaceDeleter {
    void operator()(FT_Face face) const { (void)FT_Done_Face(face); }
};
struct HbFontDeleter {
    void operator()(hb_font_t* font) const { hb_font_destroy(font); }
};
using LibraryPtr = std::unique_ptr<FT_LibraryRec_, LibraryDeleter>;
using FacePtr = std::unique_ptr<FT_FaceRec_, FaceDeleter>;
using HbFontPtr = std::unique_ptr<hb_font_t, HbFontDeleter>;

// The chain of faces a line may draw from, in the order they are tried: the
// first face is opened by open() and always kept; the others are only probed
// there (opened for their vertical metrics and closed again) and opened for
// good the first time a character needs them, so that a device pays for a
// fallback face only once it draws a script that needs it.
class FaceSet {
public:
    // Opens the first of `candidates` that loads as the first face, meant for
    // any script, and probes `fallbacks` (those of another file); a fallback
    // that cannot be read is left out with a debug record. False, with one
    // error record naming every candidate, when none of them loads.
    [[nodiscard]] bool open(const std::vector<std::string>& candidates,
                            const std::vector<FaceSource>& fallbacks);
    void close();

    bool empty() const { return slots.empty(); }
    std::size_t size() const { return slots.size(); }
    const std::string& path(std::size_t face) const { return slots[face].path; }
    bool isOpen(std::size_t face) const { return slots[face].face != nullptr; }

    // Whether the face is meant for `script` (faces meant for any script are).
    bool serves(std::size_t face, hb_script_t script) const;
    // Whether the face has a glyph for `cp`; opens the face on first use.
    bool hasGlyph(std::size_t face, uint32_t cp);
    // The face, set to `size` pixels, or null when it cannot be opened or sized.
    FT_Face sizedFace(std::size_t face, unsigned size);
    // The face's shaping font at `size` pixels, or null.
    hb_font_t* sizedFont(std::size_t face, unsigned size);
    // The face's vertical metrics at `size` pixels: the ascender rounded up and
    // the descender rounded down, as FreeType scales them for a pixel size.
    VerticalMetrics metrics(std::size_t face, unsigned size) const;
    // FT_Load_Glyph flags for the face's glyphs, drawn or measured; shaping
    // uses the same, so that advances match the glyphs drawn.
    FT_Int32 loadFlags(std::size_t face) const { return slots[face].loadFlags; }

private:
    struct Slot {
        std::string path;
        std::vector<hb_script_t> scripts;
        FT_UShort unitsPerEm = 0;
        FT_Short ascender = 0;
        FT_Short descender = 0;
        FT_Int32 loadFlags = 0;
        // The shaping font holds a reference to the face and goes first.
        FacePtr face;
        HbFontPtr font;
        unsigned currentSize = 0;
        bool unusable = false;
    };

    bool openFace(const std::string& file, FacePtr& face, std::string& reason) const;
    bool openFirst(const std::vector<std::string>& candidates);
    bool probe(const FaceSource& source);
    bool ensureOpen(Slot& slot);
    bool ensureSize(Slot& slot, unsigned size);

    // Declared before the slots so that the faces are released first.
    LibraryPtr library;
    std::vector<Slot> slots;
};

}  // namespace dravik::fontrenderer
