#include "preview/Panel.h"

#include <cstdio>
#include <regex>

#include "dravik_panel_picture/layout.h"
#include "panel_scene.h"

namespace dravik::preview {

namespace {

// Largest side accepted: far beyond any LCD module, small enough that a frame
// always fits in memory.
constexpr unsigned kMaxSide = 4096;

bool toUnsigned(const std::string& digits, unsigned& value) {
    if (digits.empty() || digits.size() > 9) {
        return false;
    }
    value = static_cast<unsigned>(std::stoul(digits));
    return true;
}

unsigned storageBits(unsigned depth) {
    return (depth + 7) / 8 * 8;
}

}  // namespace

bool parsePanel(const std::string& text, PanelFormat& format, std::string& error) {
    static const std::regex pattern("([0-9]+)x([0-9]+)x([0-9]+)");
    std::smatch match;
    unsigned width = 0;
    unsigned height = 0;
    unsigned depth = 0;
    if (!std::regex_match(text, match, pattern) || !toUnsigned(match[1], width) ||
        !toUnsigned(match[2], height) || !toUnsigned(match[3], depth)) {
        error = "\"" + text + "\" is not WxHxBPP, such as 240x240x16";
        return false;
    }
    if (width == 0 || height == 0 || width > kMaxSide || height > kMaxSide) {
        error = "panel sides must be 1.." + std::to_string(kMaxSide) + " pixels";
        return false;
    }
    if (depth == 8) {
        error =
            "8-bit panels are not supported: the daemon loads their colour map and then ends "
            "its start-up, so it never draws a screen on them";
        return false;
    }
    const panel::DepthLayout* layout = panel::layoutForDepth(depth);
    if (layout != nullptr) {
        format.var = {};
        format.var.xres = width;
        format.var.yres = height;
        format.var.xres_virtual = width;
        format.var.yres_virtual = height;
        format.var.bits_per_pixel = depth;
        format.var.red = {layout->red.offset, layout->red.length, 0};
        format.var.green = {layout->green.offset, layout->green.length, 0};
        format.var.blue = {layout->blue.offset, layout->blue.length, 0};
        return true;
    }
    error = "the daemon draws on 15, 16, 24 and 32 bits per pixel, not " + std::to_string(depth);
    return false;
}

bool parseLayout(const std::string& text, PanelFormat& format, std::string& error) {
    static const std::regex pattern("([0-9]+)/([0-9]+),([0-9]+)/([0-9]+),([0-9]+)/([0-9]+)");
    std::smatch match;
    if (!std::regex_match(text, match, pattern)) {
        error = "\"" + text + "\" is not RO/RL,GO/GL,BO/BL, such as 11/5,5/6,0/5";
        return false;
    }
    fb_bitfield* channels[] = {&format.var.red, &format.var.green, &format.var.blue};
    const char* names[] = {"red", "green", "blue"};
    const unsigned bits = storageBits(format.var.bits_per_pixel);
    for (int i = 0; i < 3; ++i) {
        unsigned offset = 0;
        unsigned length = 0;
        if (!toUnsigned(match[2 * i + 1], offset) || !toUnsigned(match[2 * i + 2], length) ||
            length == 0 || length > 16 || offset + length > bits) {
            error = std::string("the ") + names[i] +
                    " channel must have a length of 1..16 bits and end within the pixel's " +
                    std::to_string(bits) + " bits";
            return false;
        }
        channels[i]->offset = offset;
        channels[i]->length = length;
    }
    return true;
}

std::string describe(const PanelFormat& format) {
    const fb_var_screeninfo& v = format.var;
    char text[128];
    std::snprintf(text, sizeof text, "%ux%ux%u (r %u/%u, g %u/%u, b %u/%u)", v.xres, v.yres,
                  v.bits_per_pixel, v.red.offset, v.red.length, v.green.offset, v.green.length,
                  v.blue.offset, v.blue.length);
    return text;
}

cv::Mat panelPicture(const fb_var_screeninfo& var, const unsigned char* memory,
                     unsigned lineLength) {
    return panel::panelPicture(panel::memoryFormat(var, lineLength), memory);
}

}  // namespace dravik::preview
