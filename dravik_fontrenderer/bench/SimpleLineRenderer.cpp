#include "SimpleLineRenderer.h"

#include <ft2build.h>
#include FT_FREETYPE_H

#include <algorithm>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "Utf8.h"
#include "dravik_logger/logger.h"

namespace {

// No panel is anywhere near this tall; the limit keeps a wild size from making
// FreeType rasterise glyphs of gigabytes.
constexpr unsigned kMaxSize = 1000;

// Glyphs are laid out until the pen is this many font sizes past the clip edge:
// no glyph's ink starts further left of its pen position than that, so nothing
// after it can reach the visible columns.
constexpr long kLookBehindSizes = 2;

struct LibraryDeleter {
    void operator()(FT_Library library) const { (void)FT_Done_FreeType(library); }
};
struct FaceDeleter {
    void operator()(FT_Face face) const { (void)FT_Done_Face(face); }
};
using LibraryPtr = std::unique_ptr<FT_LibraryRec_, LibraryDeleter>;
using FacePtr = std::unique_ptr<FT_FaceRec_, FaceDeleter>;

long ceilPixels(FT_Pos v) {
    return (v + 63) >> 6;
}
long floorPixels(FT_Pos v) {
    return v >> 6;
}
long roundPixels(FT_Pos v) {
    return (v + 32) >> 6;
}

// Vertical metrics of one pixel size: the baseline lies `ascender` rows below
// the top of the line.
struct LineMetrics {
    long ascender = 0;
    unsigned height = 0;
};

// One rendered glyph as placed on the line: column and row of its bitmap's
// top-left sample (either may be negative).
struct PlacedGlyph {
    const FT_Bitmap* bitmap;
    long left;
    long top;
};

// Where a pass over the line stops: glyphs whose pen position is beyond
// `clipWidth` by the look-behind margin are not laid out any more.
struct LayoutLimit {
    unsigned clipWidth;
    unsigned size;
    bool reached(FT_Pos pen) const {
        return floorPixels(pen) >= static_cast<long>(clipWidth) + kLookBehindSizes * long(size);
    }
};

}  // namespace

struct SimpleLineRenderer::Impl {
    // Declared before the face so that the face is released first.
    LibraryPtr library;
    FacePtr face;
    // Pixel size the face is set to; 0 before the first size is set.
    mutable unsigned currentSize = 0;

    void release() {
        currentSize = 0;
        face.reset();
        library.reset();
    }
    bool initLibrary();
    bool loadFace(const std::string& file, std::string& reason);
    bool loadFirstFace(const std::vector<std::string>& files);
    bool setSize(unsigned size, LineMetrics& metrics) const;
    bool loadRenderedGlyph(FT_UInt glyph) const;
    template <typename Visit>
    unsigned layoutLine(const std::string& text, const LineMetrics& metrics, LayoutLimit limit,
                        Visit visit) const;
};

bool SimpleLineRenderer::Impl::initLibrary() {
    FT_Library raw = nullptr;
    const FT_Error error = FT_Init_FreeType(&raw);
    if (error != 0) {
        DRAVIK_LOG(dravik::logger::kError, 0, "FT_Init_FreeType failed with FreeType error %d",
                   error);
        return false;
    }
    library.reset(raw);
    return true;
}

bool SimpleLineRenderer::Impl::loadFace(const std::string& file, std::string& reason) {
    FT_Face raw = nullptr;
    const FT_Error error = FT_New_Face(library.get(), file.c_str(), 0, &raw);
    if (error != 0) {
        reason = "FreeType error " + std::to_string(error);
        return false;
    }
    FacePtr loaded(raw);
    if (!FT_IS_SCALABLE(loaded.get())) {
        reason = "not scalable";
        return false;
    }
    face = std::move(loaded);
    return true;
}

bool SimpleLineRenderer::Impl::loadFirstFace(const std::vector<std::string>& files) {
    std::string tried;
    for (const auto& file : files) {
        std::string reason;
        if (loadFace(file, reason)) {
            return true;
        }
        tried.append(tried.empty() ? "" : ", ")
            .append(file)
            .append(" (")
            .append(reason)
            .append(")");
    }
    DRAVIK_LOG(dravik::logger::kError, 0, "No scalable font could be loaded; tried %s",
               tried.c_str());
    return false;
}

bool SimpleLineRenderer::Impl::setSize(unsigned size, LineMetrics& metrics) const {
    if (!face) {
        DRAVIK_LOG(dravik::logger::kError, 0, "No font loaded");
        return false;
    }
    if (size == 0 || size > kMaxSize) {
        DRAVIK_LOG(dravik::logger::kError, 0, "Font size %u is out of range [1..%u]", size,
                   kMaxSize);
        return false;
    }
    // Setting a size runs the font's hinting set-up, which costs more than
    // rendering a short line: it is done only when the size changes.
    if (size != currentSize) {
        currentSize = 0;
        const FT_Error error = FT_Set_Pixel_Sizes(face.get(), 0, size);
        if (error != 0) {
            DRAVIK_LOG(dravik::logger::kError, 0,
                       "FT_Set_Pixel_Sizes(%u) failed with FreeType error %d", size, error);
            return false;
        }
        currentSize = size;
    }
    // Ascender rounded up and descender rounded down, so the line holds every
    // glyph that keeps within the face's metrics; the rare glyph that reaches
    // beyond them is clipped to the line when drawn.
    const FT_Size_Metrics& m = face->size->metrics;
    metrics.ascender = ceilPixels(m.ascender);
    const long height = metrics.ascender - floorPixels(m.descender);
    if (height <= 0) {
        DRAVIK_LOG(dravik::logger::kError, 0, "Font has no line height at size %u", size);
        return false;
    }
    metrics.height = static_cast<unsigned>(height);
    return true;
}

bool SimpleLineRenderer::Impl::loadRenderedGlyph(FT_UInt glyph) const {
    // Embedded bitmaps are left out so every glyph comes as an 8-bit grey image.
    return FT_Load_Glyph(face.get(), glyph, FT_LOAD_RENDER | FT_LOAD_NO_BITMAP) == 0 &&
           face->glyph->bitmap.pixel_mode == FT_PIXEL_MODE_GRAY;
}

// Lays out `text` on one line, hands every rendered glyph to `visit` and
// returns the line's extent in pixels: the furthest of the pen's final
// position and the right edge of the ink. Characters the face lacks come out
// as its .notdef glyph; a glyph FreeType cannot render is left out.
template <typename Visit>
unsigned SimpleLineRenderer::Impl::layoutLine(const std::string& text, const LineMetrics& metrics,
                                              LayoutLimit limit, Visit visit) const {
    const bool kerning = FT_HAS_KERNING(face.get());
    FT_Pos pen = 0;
    FT_UInt previous = 0;
    long extent = 0;
    bool first = true;
    std::size_t pos = 0;
    while (pos < text.size() && !limit.reached(pen)) {
        const char32_t cp = dravik::fontrenderer::nextCodePoint(text, pos);
        if (dravik::fontrenderer::isControl(cp)) {
            continue;
        }
        const FT_UInt glyph = FT_Get_Char_Index(face.get(), cp);
        if (kerning && previous != 0) {
            FT_Vector delta{0, 0};
            if (FT_Get_Kerning(face.get(), previous, glyph, FT_KERNING_DEFAULT, &delta) == 0) {
                pen = std::max<FT_Pos>(0, pen + delta.x);
            }
        }
        if (!loadRenderedGlyph(glyph)) {
            continue;
        }
        const FT_GlyphSlot slot = face->glyph;
        // Ink of the first glyph left of its origin would be cut off: the line
        // starts where that ink starts instead.
        if (first && slot->bitmap_left < 0) {
            pen += FT_Pos(-slot->bitmap_left) * 64;
        }
        first = false;
        previous = glyph;
        const long left = roundPixels(pen) + slot->bitmap_left;
        visit(PlacedGlyph{&slot->bitmap, left, metrics.ascender - slot->bitmap_top});
        if (slot->bitmap.width > 0) {
            extent = std::max(extent, left + static_cast<long>(slot->bitmap.width));
        }
        pen += slot->advance.x;
        extent = std::max(extent, ceilPixels(pen));
    }
    return static_cast<unsigned>(std::max(0L, extent));
}

namespace {

// Start of row `row` of a glyph bitmap, whichever way its rows flow.
const unsigned char* bitmapRow(const FT_Bitmap& bitmap, unsigned row) {
    if (bitmap.pitch >= 0) {
        return bitmap.buffer + std::size_t(row) * std::size_t(bitmap.pitch);
    }
    return bitmap.buffer + std::size_t(bitmap.rows - 1 - row) * std::size_t(-bitmap.pitch);
}

// Adds a glyph's coverage into the target (max of the two, so overlapping
// glyphs do not brighten each other), keeping to `width` x `height` samples.
void blendGlyph(const PlacedGlyph& g, unsigned char* target, unsigned stride, unsigned width,
                unsigned height) {
    for (unsigned r = 0; r < g.bitmap->rows; ++r) {
        const long y = g.top + long(r);
        if (y < 0 || y >= long(height)) {
            continue;
        }
        const unsigned char* src = bitmapRow(*g.bitmap, r);
        unsigned char* dst = target + std::size_t(y) * stride;
        for (unsigned c = 0; c < g.bitmap->width; ++c) {
            const long x = g.left + long(c);
            if (x >= 0 && x < long(width)) {
                dst[x] = std::max(dst[x], src[c]);
            }
        }
    }
}

}  // namespace

SimpleLineRenderer::SimpleLineRenderer() : impl(std::make_unique<Impl>()) {}

SimpleLineRenderer::~SimpleLineRenderer() = default;

bool SimpleLineRenderer::init(const std::string& fontFile) {
    impl->release();
    return impl->initLibrary() && impl->loadFirstFace({fontFile});
}

bool SimpleLineRenderer::maxLineHeight(unsigned size, unsigned& height) const {
    LineMetrics metrics;
    if (!impl->setSize(size, metrics)) {
        return false;
    }
    height = metrics.height;
    return true;
}

bool SimpleLineRenderer::lineRender(const std::string& text, unsigned size, unsigned char* buffer,
                                    unsigned maxWidth, unsigned maxHeight, unsigned stride,
                                    bool measureOnly, unsigned& width, unsigned& height) {
    width = 0;
    height = 0;
    if (!measureOnly && buffer == nullptr) {
        DRAVIK_LOG(dravik::logger::kError, 0, "No buffer to draw '%s' into", text.c_str());
        return false;
    }
    LineMetrics metrics;
    if (!impl->setSize(size, metrics)) {
        return false;
    }
    // A line is never cut vertically: where it does not fit, nothing is drawn.
    if (metrics.height > maxHeight) {
        DRAVIK_LOG(dravik::logger::kError, 0,
                   "Line height %u of size %u exceeds the available %u rows", metrics.height, size,
                   maxHeight);
        return false;
    }
    const unsigned clipWidth = measureOnly ? maxWidth : std::min(maxWidth, stride);
    const LayoutLimit limit{clipWidth, size};
    unsigned extent = 0;
    if (measureOnly) {
        extent = impl->layoutLine(text, metrics, limit, [](const PlacedGlyph&) {});
    } else {
        extent = impl->layoutLine(text, metrics, limit, [&](const PlacedGlyph& g) {
            blendGlyph(g, buffer, stride, clipWidth, metrics.height);
        });
    }
    width = std::min(extent, clipWidth);
    height = metrics.height;
    return true;
}
