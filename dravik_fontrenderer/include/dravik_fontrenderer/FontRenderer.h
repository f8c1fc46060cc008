#pragma once

#include <memory>
#include <string>

// Rasterises one line of UTF-8 text at a pixel size into an 8-bit coverage
// buffer (0 = no ink, 255 = full ink). The line is shaped (joining, ligatures,
// marks, kerning) and laid out in the visual order of the bidirectional
// algorithm; characters the first face lacks come from fallback faces, each
// opened the first time a line needs it.
class FontRenderer {
public:
    FontRenderer();
    ~FontRenderer();
    FontRenderer(const FontRenderer&) = delete;
    FontRenderer& operator=(const FontRenderer&) = delete;

    // Loads the first face: the build's configured font file, or DejaVu Sans
    // when that is unset or cannot be loaded. The fallback faces follow it.
    [[nodiscard]] bool init();
    // Loads `fontFile` as the first face (false if it cannot be loaded); the
    // fallback faces follow it.
    [[nodiscard]] bool init(const std::string& fontFile);

    // Height in pixels that holds any line of text of `size` pixels, whichever
    // faces it draws from; false if the size cannot be served (no face loaded,
    // size 0).
    bool maxLineHeight(unsigned size, unsigned& height) const;

    // Measures (`measureOnly`, `buffer` may be null) or draws `text` as one line.
    // `width` and `height` receive the extent of the line, at most `maxWidth` and
    // never more than the measurement for the same text and size. A draw writes
    // only within `stride` columns and the measured number of rows of `buffer`,
    // and clips the line at `maxWidth` (and at `stride`).
    //
    // `text` is UTF-8; each malformed sequence is drawn as U+FFFD. Control
    // characters and line breaks are left out. A character that no face has
    // is drawn as the first face's placeholder (.notdef) glyph. The height
    // covers the first face and every face the line draws from, and is at
    // most maxLineHeight() (an empty text measures 0 x the first face's line
    // height); a line taller than `maxHeight` is refused (false) rather than
    // cut. The baseline lies at the tallest ascender of those faces; ink
    // above or below the line is clipped. The base direction is that of the
    // first strong character; a right-to-left line too wide for `maxWidth`
    // keeps its right end (where its text begins) and loses its left. Only
    // the first 4096 characters of `text` are laid out.
    bool lineRender(const std::string& text, unsigned size, unsigned char* buffer,
                    unsigned maxWidth, unsigned maxHeight, unsigned stride, bool measureOnly,
                    unsigned& width, unsigned& height);

private:
    struct Impl;
    std::unique_ptr<Impl> impl;
};
