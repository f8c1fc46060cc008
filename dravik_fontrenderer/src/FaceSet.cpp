#include "FaceSet.h"

#include <hb-ft.h>

#include <algorithm>
#include <string>
#include <utility>

#include "dravik_logger/logger.h"

namespace dravik::fontrenderer {

namespace {

// Embedded bitmaps are left out so every glyph comes as an outline, rendered
// to 8-bit grey. The first face is hinted by its own instructions.
FT_Int32 loadFlagsFor(Hinting hinting) {
    return (hinting == Hinting::Light ? FT_LOAD_TARGET_LIGHT : FT_LOAD_DEFAULT) | FT_LOAD_NO_BITMAP;
}

long ceilPixels(FT_Pos v) {
    return (v + 63) >> 6;
}
long floorPixels(FT_Pos v) {
    return v >> 6;
}

}  // namespace

bool FaceSet::openFace(const std::string& file, FacePtr& face, std::string& reason) const {
    FT_Face raw = nullptr;
    const FT_Error error = FT_New_Face(library.get(), file.c_str(), 0, &raw);
    if (error != 0) {
        reason = "FreeType error " + std::to_string(error);
        return false;
    }
    FacePtr opened(raw);
    if (!FT_IS_SCALABLE(opened.get()) || opened->units_per_EM == 0) {
        reason = "not scalable";
        return false;
    }
    face = std::move(opened);
    return true;
}

bool FaceSet::probe(const FaceSource& source) {
    FacePtr face;
    std::string reason;
    if (!openFace(source.path, face, reason)) {
        DRAVIK_LOG(logger::kDebug, 0, "Fallback font %s left out: %s", source.path.c_str(),
                   reason.c_str());
        return false;
    }
    Slot slot;
    slot.path = source.path;
    slot.scripts = source.scripts;
    slot.loadFlags = loadFlagsFor(source.hinting);
    slot.unitsPerEm = face->units_per_EM;
    slot.ascender = face->ascender;
    slot.descender = face->descender;
    slots.push_back(std::move(slot));
    return true;
}

bool FaceSet::openFirst(const std::vector<std::string>& candidates) {
    std::string tried;
    for (const auto& file : candidates) {
        Slot slot;
        std::string reason;
        if (openFace(file, slot.face, reason)) {
            slot.path = file;
            slot.loadFlags = loadFlagsFor(Hinting::Own);
            slot.unitsPerEm = slot.face->units_per_EM;
            slot.ascender = slot.face->ascender;
            slot.descender = slot.face->descender;
            slots.push_back(std::move(slot));
            return true;
        }
        tried.append(tried.empty() ? "" : ", ")
            .append(file)
            .append(" (")
            .append(reason)
            .append(")");
    }
    DRAVIK_LOG(logger::kError, 0, "No scalable font could be loaded; tried %s", tried.c_str());
    return false;
}

bool FaceSet::open(const std::vector<std::string>& candidates,
                   const std::vector<FaceSource>& fallbacks) {
    close();
    FT_Library raw = nullptr;
    const FT_Error error = FT_Init_FreeType(&raw);
    if (error != 0) {
        DRAVIK_LOG(logger::kError, 0, "FT_Init_FreeType failed with FreeType error %d", error);
        return false;
    }
    library.reset(raw);
    if (!openFirst(candidates)) {
        close();
        return false;
    }
    for (const auto& source : fallbacks) {
        if (source.path != slots.front().path) {
            (void)probe(source);  // a device need not carry every fallback face
        }
    }
    return true;
}

void FaceSet::close() {
    slots.clear();
    library.reset();
}

bool FaceSet::serves(std::size_t face, hb_script_t script) const {
    const auto& scripts = slots[face].scripts;
    return scripts.empty() || std::find(scripts.begin(), scripts.end(), script) != scripts.end();
}

bool FaceSet::ensureOpen(Slot& slot) {
    if (slot.face) {
        return true;
    }
    if (slot.unusable) {
        return false;
    }
    std::string reason;
    if (!openFace(slot.path, slot.face, reason)) {
        // It was readable when probed; the file has gone or changed since.
        DRAVIK_LOG(logger::kWarning, 0, "Fallback font %s could not be loaded: %s",
                   slot.path.c_str(), reason.c_str());
        slot.unusable = true;
        return false;
    }
    DRAVIK_LOG(logger::kDebug, 0, "Fallback font %s loaded", slot.path.c_str());
    return true;
}

bool FaceSet::hasGlyph(std::size_t face, uint32_t cp) {
    Slot& slot = slots[face];
    return ensureOpen(slot) && FT_Get_Char_Index(slot.face.get(), cp) != 0;
}

bool FaceSet::ensureSize(Slot& slot, unsigned size) {
    if (!ensureOpen(slot)) {
        return false;
    }
    // Setting a size runs the font's hinting set-up, which costs more than
    // rendering a short line: it is done only when the size changes.
    if (size == slot.currentSize) {
        return true;
    }
    slot.currentSize = 0;
    const FT_Error error = FT_Set_Pixel_Sizes(slot.face.get(), 0, size);
    if (error != 0) {
        DRAVIK_LOG(logger::kError, 0, "FT_Set_Pixel_Sizes(%u) of %s failed with FreeType error %d",
                   size, slot.path.c_str(), error);
        return false;
    }
    if (!slot.font) {
        slot.font.reset(hb_ft_font_create_referenced(slot.face.get()));
        hb_ft_font_set_load_flags(slot.font.get(), slot.loadFlags);
    } else {
        hb_ft_font_changed(slot.font.get());
    }
    slot.currentSize = size;
    return true;
}

FT_Face FaceSet::sizedFace(std::size_t face, unsigned size) {
    Slot& slot = slots[face];
    return ensureSize(slot, size) ? slot.face.get() : nullptr;
}

hb_font_t* FaceSet::sizedFont(std::size_t face, unsigned size) {
    Slot& slot = slots[face];
    return ensureSize(slot, size) ? slot.font.get() : nullptr;
}

VerticalMetrics FaceSet::metrics(std::size_t face, unsigned size) const {
    const Slot& slot = slots[face];
    const FT_Fixed scale = FT_DivFix(FT_Long(size) * 64, slot.unitsPerEm);
    VerticalMetrics m;
    m.ascender = ceilPixels(FT_MulFix(slot.ascender, scale));
    m.descender = -floorPixels(FT_MulFix(slot.descender, scale));
    return m;
}

}  // namespace dravik::fontrenderer
