#include "dravik_panel_picture/picture.h"

namespace dravik::panel {

namespace {

uint32_t readPixel(const unsigned char* at, uint32_t bytes) {
    uint32_t value = 0;
    for (uint32_t i = 0; i < bytes; ++i) {
        value |= static_cast<uint32_t>(at[i]) << (8 * i);
    }
    return value;
}

// The channel's bits of `pixel`; 0 for a channel that holds none of the word.
uint32_t channelBits(uint32_t pixel, const ChannelLayout& channel) {
    if (channel.length == 0 || channel.offset >= 32) {
        return 0;
    }
    const uint64_t mask = (uint64_t{1} << channel.length) - 1;
    return static_cast<uint32_t>((pixel >> channel.offset) & mask);
}

uint8_t scaledTo8Bits(uint32_t value, uint32_t length) {
    if (length == 0) {
        return 0;
    }
    const uint64_t max = (uint64_t{1} << length) - 1;
    return static_cast<uint8_t>((value * uint64_t{255} + max / 2) / max);
}

// A colour-map entry is 16 bits; the picture keeps its top 8.
uint8_t mapEntry(const uint16_t* column, std::size_t entries, uint32_t index) {
    return index < entries ? static_cast<uint8_t>(column[index] >> 8) : 0;
}

cv::Vec3b pixelColour(const PanelMemoryFormat& format, uint32_t pixel, const ColourMap* map) {
    if (map != nullptr && format.lookup == PixelLookup::palette) {
        return {mapEntry(map->blue, map->entries, pixel), mapEntry(map->green, map->entries, pixel),
                mapEntry(map->red, map->entries, pixel)};
    }
    const uint32_t r = channelBits(pixel, format.red);
    const uint32_t g = channelBits(pixel, format.green);
    const uint32_t b = channelBits(pixel, format.blue);
    if (map != nullptr && format.lookup == PixelLookup::channels) {
        return {mapEntry(map->blue, map->entries, b), mapEntry(map->green, map->entries, g),
                mapEntry(map->red, map->entries, r)};
    }
    return {scaledTo8Bits(b, format.blue.length), scaledTo8Bits(g, format.green.length),
            scaledTo8Bits(r, format.red.length)};
}

}  // namespace

cv::Mat panelPicture(const PanelMemoryFormat& format, const unsigned char* memory,
                     const ColourMap* map) {
    cv::Mat picture(static_cast<int>(format.height), static_cast<int>(format.width), CV_8UC3);
    const uint32_t bytes = (format.bpp + 7) / 8;
    for (uint32_t y = 0; y < format.height; ++y) {
        const unsigned char* at = memory + static_cast<std::size_t>(y) * format.lineLength;
        auto* out = picture.ptr<cv::Vec3b>(static_cast<int>(y));
        for (uint32_t x = 0; x < format.width; ++x, at += bytes) {
            out[x] = pixelColour(format, readPixel(at, bytes), map);
        }
    }
    return picture;
}

}  // namespace dravik::panel
