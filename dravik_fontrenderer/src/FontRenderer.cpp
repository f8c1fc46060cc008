#include "dravik_fontrenderer/FontRenderer.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <string>
#include <vector>

#include "FaceSet.h"
#include "FontFiles.h"
#include "LineShaper.h"
#include "Utf8.h"
#include "dravik_logger/logger.h"

using dravik::fontrenderer::FaceSet;
using dravik::fontrenderer::LineShaper;
using dravik::fontrenderer::ShapedGlyph;
using dravik::fontrenderer::ShapedLine;
using dravik::fontrenderer::VerticalMetrics;

namespace {

// No panel is anywhere near this tall; the limit keeps a wild size from making
// FreeType rasterise glyphs of gigabytes.
constexpr unsigned kMaxSize = 1000;

// No panel shows more characters on one line; the rest of a longer text is
// not laid out, which bounds the work a text from outside can cause.
constexpr std::size_t kMaxCodePoints = 4096;

// A glyph's ink lies within this many font sizes of its origin and of the end
// of its advance: glyphs further from the columns of interest are not loaded.
constexpr long kInkReachSizes = 2;

long ceilPixels(FT_Pos v) {
    return (v + 63) >> 6;
}
long roundPixels(FT_Pos v) {
    return (v + 32) >> 6;
}

// Where a line's glyphs land: `shift` moves ink that starts left of the
// line's origin into view; the baseline lies `ascender` rows below the top.
struct LineBox {
    long ascender = 0;
    unsigned height = 0;
    long shift = 0;
    unsigned extent = 0;
};

// Start of row `row` of a glyph bitmap, whichever way its rows flow.
const unsigned char* bitmapRow(const FT_Bitmap& bitmap, unsigned row) {
    if (bitmap.pitch >= 0) {
        return bitmap.buffer + std::size_t(row) * std::size_t(bitmap.pitch);
    }
    return bitmap.buffer + std::size_t(bitmap.rows - 1 - row) * std::size_t(-bitmap.pitch);
}

// The part of the line that is drawn: `width` columns from column `left`.
struct Window {
    long left;
    unsigned width;
};

// Adds a glyph's coverage into the target (max of the two, so overlapping
// glyphs do not brighten each other), keeping to `width` x `height` samples.
void blendGlyph(const FT_Bitmap& bitmap, long left, long top, unsigned char* target,
                unsigned stride, unsigned width, unsigned height) {
    for (unsigned r = 0; r < bitmap.rows; ++r) {
        const long y = top + long(r);
        if (y < 0 || y >= long(height)) {
            continue;
        }
        const unsigned char* src = bitmapRow(bitmap, r);
        unsigned char* dst = target + std::size_t(y) * stride;
        for (unsigned c = 0; c < bitmap.width; ++c) {
            const long x = left + long(c);
            if (x >= 0 && x < long(width)) {
                dst[x] = std::max(dst[x], src[c]);
            }
        }
    }
}

}  // namespace

struct FontRenderer::Impl {
    FaceSet faces;
    LineShaper shaper;
    ShapedLine line;
    // What `line` holds: a measure and the draw that follows it shape the
    // same text at the same size, so the second one takes the first's line.
    std::string shapedText;
    unsigned shapedSize = 0;
    bool shaped = false;

    bool start(const std::vector<std::string>& candidates) {
        shaped = false;
        return faces.open(candidates, dravik::fontrenderer::fallbackFaces());
    }
    bool checkSize(unsigned size) const;
    unsigned maxLineHeight(unsigned size) const;
    bool shape(const std::string& text, unsigned size);
    bool frame(unsigned size, LineBox& box);
    const FT_GlyphSlotRec_* loadGlyph(const ShapedGlyph& glyph, unsigned size, bool render);
    void draw(const LineBox& box, Window window, unsigned size, unsigned char* buffer,
              unsigned stride);
};

bool FontRenderer::Impl::checkSize(unsigned size) const {
    if (faces.empty()) {
        DRAVIK_LOG(dravik::logger::kError, 0, "No font loaded");
        return false;
    }
    if (size == 0 || size > kMaxSize) {
        DRAVIK_LOG(dravik::logger::kError, 0, "Font size %u is out of range [1..%u]", size,
                   kMaxSize);
        return false;
    }
    return true;
}

// The height of a line that draws from every face of the set.
unsigned FontRenderer::Impl::maxLineHeight(unsigned size) const {
    long ascender = 0;
    long descender = 0;
    for (std::size_t face = 0; face < faces.size(); ++face) {
        const VerticalMetrics m = faces.metrics(face, size);
        ascender = std::max(ascender, m.ascender);
        descender = std::max(descender, m.descender);
    }
    return static_cast<unsigned>(std::max(0L, ascender + descender));
}

bool FontRenderer::Impl::shape(const std::string& text, unsigned size) {
    if (shaped && size == shapedSize && text == shapedText) {
        return true;
    }
    shaped = false;
    if (!shaper.shape(faces, dravik::fontrenderer::decodeLine(text, kMaxCodePoints), size, line)) {
        return false;
    }
    shapedText = text;
    shapedSize = size;
    shaped = true;
    return true;
}

const FT_GlyphSlotRec_* FontRenderer::Impl::loadGlyph(const ShapedGlyph& glyph, unsigned size,
                                                      bool render) {
    FT_Face face = faces.sizedFace(glyph.face, size);
    if (face == nullptr) {
        return nullptr;
    }
    // Without rendering, FreeType still gives the bitmap's future place and
    // size, which is all that measuring needs.
    const FT_Int32 flags = faces.loadFlags(glyph.face) | (render ? FT_LOAD_RENDER : 0);
    if (FT_Load_Glyph(face, glyph.glyph, flags) != 0 ||
        face->glyph->bitmap.pixel_mode != FT_PIXEL_MODE_GRAY) {
        return nullptr;  // a glyph FreeType cannot render is left out
    }
    return face->glyph;
}

// The line's height covers every face it draws from (the first face always);
// its extent runs from the leftmost ink or the origin, whichever is further
// left, to the furthest of the pen's end and the rightmost ink. Only glyphs
// whose ink can reach either end are loaded.
bool FontRenderer::Impl::frame(unsigned size, LineBox& box) {
    long descender = 0;
    for (std::size_t face = 0; face < faces.size(); ++face) {
        if (face == 0 || line.facesUsed[face]) {
            const VerticalMetrics m = faces.metrics(face, size);
            box.ascender = std::max(box.ascender, m.ascender);
            descender = std::max(descender, m.descender);
        }
    }
    if (box.ascender + descender <= 0) {
        DRAVIK_LOG(dravik::logger::kError, 0, "Font has no line height at size %u", size);
        return false;
    }
    box.height = static_cast<unsigned>(box.ascender + descender);
    const long end = ceilPixels(std::max<FT_Pos>(0, line.advance));
    const long reach = kInkReachSizes * long(size);
    long inkLeft = 0;
    long inkRight = end;
    for (const auto& glyph : line.glyphs) {
        const long origin = roundPixels(glyph.x);
        const long advanceEnd = origin + std::max(0L, ceilPixels(glyph.advance));
        if (origin - reach > 0 && advanceEnd + reach < end) {
            continue;
        }
        const FT_GlyphSlotRec_* slot = loadGlyph(glyph, size, false);
        if (slot == nullptr || slot->bitmap.width == 0) {
            continue;
        }
        const long left = origin + slot->bitmap_left;
        inkLeft = std::min(inkLeft, left);
        inkRight = std::max(inkRight, left + long(slot->bitmap.width));
    }
    box.shift = -inkLeft;
    box.extent = static_cast<unsigned>(inkRight + box.shift);
    return true;
}

void FontRenderer::Impl::draw(const LineBox& box, Window window, unsigned size,
                              unsigned char* buffer, unsigned stride) {
    const long reach = kInkReachSizes * long(size);
    const long windowEnd = window.left + long(window.width);
    for (const auto& glyph : line.glyphs) {
        const long origin = roundPixels(glyph.x) + box.shift;
        const long advanceEnd = origin + std::max(0L, ceilPixels(glyph.advance));
        if (advanceEnd + reach < window.left || origin - reach >= windowEnd) {
            continue;
        }
        const FT_GlyphSlotRec_* slot = loadGlyph(glyph, size, true);
        if (slot == nullptr) {
            continue;
        }
        const long left = origin + slot->bitmap_left - window.left;
        const long top = box.ascender - slot->bitmap_top - roundPixels(glyph.y);
        blendGlyph(slot->bitmap, left, top, buffer, stride, window.width, box.height);
    }
}

FontRenderer::FontRenderer() : impl(std::make_unique<Impl>()) {}

FontRenderer::~FontRenderer() = default;

bool FontRenderer::init() {
    try {
        return impl->start(dravik::fontrenderer::firstFaceCandidates());
    } catch (const std::exception& e) {
        impl->faces.close();
        DRAVIK_LOG(dravik::logger::kError, 0, "Fonts could not be loaded: %s", e.what());
        return false;
    }
}

bool FontRenderer::init(const std::string& fontFile) {
    try {
        return impl->start({fontFile});
    } catch (const std::exception& e) {
        impl->faces.close();
        DRAVIK_LOG(dravik::logger::kError, 0, "Font %s could not be loaded: %s", fontFile.c_str(),
                   e.what());
        return false;
    }
}

bool FontRenderer::maxLineHeight(unsigned size, unsigned& height) const {
    if (!impl->checkSize(size)) {
        return false;
    }
    height = impl->maxLineHeight(size);
    return true;
}

bool FontRenderer::lineRender(const std::string& text, unsigned size, unsigned char* buffer,
                              unsigned maxWidth, unsigned maxHeight, unsigned stride,
                              bool measureOnly, unsigned& width, unsigned& height) {
    width = 0;
    height = 0;
    if (!measureOnly && buffer == nullptr) {
        DRAVIK_LOG(dravik::logger::kError, 0, "No buffer to draw '%s' into", text.c_str());
        return false;
    }
    if (!impl->checkSize(size)) {
        return false;
    }
    try {
        LineBox box;
        if (!impl->shape(text, size) || !impl->frame(size, box)) {
            return false;
        }
        // A line is never cut vertically: where it does not fit, nothing is drawn.
        if (box.height > maxHeight) {
            DRAVIK_LOG(dravik::logger::kError, 0,
                       "Line height %u of size %u exceeds the available %u rows", box.height, size,
                       maxHeight);
            return false;
        }
        const unsigned clipWidth = measureOnly ? maxWidth : std::min(maxWidth, stride);
        // A line too long for its space keeps its beginning: the left end of a
        // left-to-right line, the right end of a right-to-left one.
        const Window window{
            impl->line.rightToLeft && box.extent > clipWidth ? long(box.extent - clipWidth) : 0L,
            std::min(box.extent, clipWidth)};
        if (!measureOnly) {
            impl->draw(box, window, size, buffer, stride);
        }
        width = window.width;
        height = box.height;
        return true;
    } catch (const std::exception& e) {
        DRAVIK_LOG(dravik::logger::kError, 0, "Line '%s' could not be laid out: %s", text.c_str(),
                   e.what());
        return false;
    }
}
