#pragma once

#include <memory>
#include <string>

// The font renderer's layout before shaping, kept as the benchmarks' point of
// comparison: one glyph per code point from a single face, with the face's
// kerning, in logical order. Same interface and contract as FontRenderer.
class SimpleLineRenderer {
public:
    SimpleLineRenderer();
    ~SimpleLineRenderer();
    SimpleLineRenderer(const SimpleLineRenderer&) = delete;
    SimpleLineRenderer& operator=(const SimpleLineRenderer&) = delete;

    [[nodiscard]] bool init(const std::string& fontFile);
    bool maxLineHeight(unsigned size, unsigned& height) const;
    bool lineRender(const std::string& text, unsigned size, unsigned char* buffer,
                    unsigned maxWidth, unsigned maxHeight, unsigned stride, bool measureOnly,
                    unsigned& width, unsigned& height);

private:
    struct Impl;
    std::unique_ptr<Impl> impl;
};
