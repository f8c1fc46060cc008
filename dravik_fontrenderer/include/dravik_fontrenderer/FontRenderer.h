#pragma once

#include <memory>
#include <string>

// Rasterises one line of UTF-8 text at a pixel size into an 8-bit coverage
// buffer (0 = no ink, 255 = full ink). One face is loaded by init().
class FontRenderer {
public:
    FontRenderer();
    ~FontRenderer();
    FontRenderer(const FontRenderer&) = delete;
    FontRenderer& operator=(const FontRenderer&) = delete;

    // Loads the face: the build's configured font file first, then DejaVu Sans.
    [[nodiscard]] bool init();
    // Loads the face from `fontFile` only.
    [[nodiscard]] bool init(const std::string& fontFile);

    // Height in pixels of one line of text of `size` pixels; false if the size
    // cannot be served (no face loaded, size 0).
    bool maxLineHeight(unsigned size, unsigned& height) const;

    // Measures (`measureOnly`, `buffer` may be null) or draws `text` as one line.
    // `width` and `height` receive the extent of the line, at most `maxWidth` and
    // never more than the measurement for the same text and size. A draw writes
    // only within `stride` columns and the measured number of rows of `buffer`,
    // and clips the line at `maxWidth` (and at `stride`).
    //
    // `text` is UTF-8; each malformed sequence is drawn as U+FFFD. Control
    // characters and line breaks are left out. Characters the font lacks are
    // drawn as its placeholder (.notdef) glyph. The height is always the line
    // height of `size` (an empty text measures 0 x line height); a line taller
    // than `maxHeight` is refused (false) rather than cut. The baseline lies at
    // the font's ascender; ink above or below the line is clipped.
    bool lineRender(const std::string& text, unsigned size, unsigned char* buffer,
                    unsigned maxWidth, unsigned maxHeight, unsigned stride, bool measureOnly,
                    unsigned& width, unsigned& height);

private:
    struct Impl;
    std::unique_ptr<Impl> impl;
};
