// What a panel shows: its pixel memory turned into an 8-bit BGR picture, as
// a viewer of the panel sees it. The simulator's snapshot tool, the preview
// and the reference-picture tests read panels through it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <opencv2/core.hpp>

#include "dravik_panel_picture/layout.h"

namespace dravik::panel {

// How a pixel value becomes a colour, as fb_fix_screeninfo.visual says.
enum class PixelLookup {
    direct,   // each channel scaled to 8 bits (truecolor)
    palette,  // the whole pixel is an index into the colour map (pseudocolor)
    channels  // each channel is an index into its own column of the map (directcolor)
};

// `height` lines of `lineLength` bytes (padding included), each of `width`
// pixels of `bpp` bits.
struct PanelMemoryFormat {
    uint32_t width, height, bpp;
    ChannelLayout red, green, blue;
    std::size_t lineLength;
    PixelLookup lookup;
};

// A colour map of 16-bit entries, as FBIOPUTCMAP takes it.
struct ColourMap {
    const uint16_t* red = nullptr;
    const uint16_t* green = nullptr;
    const uint16_t* blue = nullptr;
    std::size_t entries = 0;
};

// The picture that `memory` shows: each pixel read as a little-endian word of
// its bytes (24-bit pixels as three bytes), each channel taken by its offset
// and length and scaled to 8 bits, rounded; a channel of no bits, or one that
// starts past the word, reads 0. With a colour map (palette or channels
// lookup) an index shows the top 8 bits of its entry, and an index beyond the
// map shows 0. Without a map every lookup is direct.
cv::Mat panelPicture(const PanelMemoryFormat& format, const unsigned char* memory,
                     const ColourMap* map = nullptr);

}  // namespace dravik::panel
