// Where each colour sits in a panel's pixel when its driver says nothing
// else: the layout that drivers usually report for each depth. The display
// engine, the simulated panel (inside open() and ioctl() of arbitrary
// programs), the preview and the reference-picture tests all take it from
// here, so this header needs nothing but fixed-size integers.
#pragma once

#include <cstdint>

namespace dravik::panel {

// A colour channel of a pixel word: its lowest bit and its number of bits.
struct ChannelLayout {
    uint32_t offset = 0;
    uint32_t length = 0;
};

struct DepthLayout {
    uint32_t bpp;
    ChannelLayout red;
    ChannelLayout green;
    ChannelLayout blue;
    // The pixel is an index into a colour map; each channel then describes
    // the map's entries (8 significant bits, all at offset 0).
    bool palette;
};

// RGB565 for 16 bits, 10/5,5/5,0/5 for 15, 16/8,8/8,0/8 for 24 and 32 (a 24-bit
// pixel holds the bytes B, G, R), pseudo-colour for 8.
inline constexpr DepthLayout kDepthLayouts[] = {
    {8, {0, 8}, {0, 8}, {0, 8}, true},    {15, {10, 5}, {5, 5}, {0, 5}, false},
    {16, {11, 5}, {5, 6}, {0, 5}, false}, {24, {16, 8}, {8, 8}, {0, 8}, false},
    {32, {16, 8}, {8, 8}, {0, 8}, false},
};

// Whether `bpp` bits per pixel have a usual layout. Compares numbers only, so
// that it stays a constant expression in every build (a sanitised build does
// not fold a comparison of pointers into the table).
constexpr bool hasUsualLayout(uint32_t bpp) {
    for (const DepthLayout& layout : kDepthLayouts) {
        if (layout.bpp == bpp) {
            return true;
        }
    }
    return false;
}

// The usual layout of `bpp` bits per pixel; nullptr for a depth without one.
constexpr const DepthLayout* layoutForDepth(uint32_t bpp) {
    for (const DepthLayout& layout : kDepthLayouts) {
        if (layout.bpp == bpp) {
            return &layout;
        }
    }
    return nullptr;
}

// Where the top bits of an 8-bit colour value `v` land in a pixel word of
// this channel.
constexpr uint32_t placeInChannel(uint32_t v, const ChannelLayout& channel) {
    return (v >> (8 - channel.length)) << channel.offset;
}

}  // namespace dravik::panel
