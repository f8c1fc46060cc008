#pragma once

#include <hb.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "FaceSet.h"

namespace dravik::fontrenderer {

// One glyph of a shaped line. Positions are in 1/64 pixel from the line's
// origin; `y` is the glyph's offset up from the baseline.
struct ShapedGlyph {
    std::size_t face = 0;
    unsigned glyph = 0;
    FT_Pos x = 0;
    FT_Pos y = 0;
    FT_Pos advance = 0;
};

// A line of text as glyphs in visual order, left to right.
struct ShapedLine {
    std::vector<ShapedGlyph> glyphs;
    // Which faces of the set the line draws from.
    std::vector<bool> facesUsed;
    // The pen position after the last glyph, in 1/64 pixel.
    FT_Pos advance = 0;
    // The paragraph's base direction, from its first strong character.
    bool rightToLeft = false;
};

struct HbBufferDeleter {
    void operator()(hb_buffer_t* buffer) const { hb_buffer_destroy(buffer); }
};
using HbBufferPtr = std::unique_ptr<hb_buffer_t, HbBufferDeleter>;

// Turns code points into positioned glyphs: the bidirectional algorithm gives
// the levels and the visual order of the runs, runs are split by script and
// by the face that holds their characters, and each run is shaped on its own
// with the whole line as context.
class LineShaper {
public:
    LineShaper();

    // False, with one error record, when the line cannot be shaped.
    [[nodiscard]] bool shape(FaceSet& faces, const std::vector<uint32_t>& text, unsigned size,
                             ShapedLine& line);

private:
    HbBufferPtr buffer;
};

}  // namespace dravik::fontrenderer
