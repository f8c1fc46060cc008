#pragma once

#include <linux/fb.h>

#include <opencv2/core.hpp>
#include <string>

namespace dravik::preview {

// A panel as its driver reports it: resolution, depth and channel layout.
struct PanelFormat {
    fb_var_screeninfo var = {};
};

// Parses "WxHxBPP" (240x240x16) into `format`, with the usual layout of that
// depth. False with the reason in `error`; an 8-bit panel is refused, since
// the daemon ends its start-up on palette panels.
bool parsePanel(const std::string& text, PanelFormat& format, std::string& error);

// Parses "RO/RL,GO/GL,BO/BL" (11/5,5/6,0/5: each channel's offset and length
// in bits, as FBIOGET_VSCREENINFO reports them) into the channels of `format`,
// whose depth must already be set. False with the reason in `error`.
bool parseLayout(const std::string& text, PanelFormat& format, std::string& error);

// "240x240x16 (r 11/5, g 5/6, b 0/5)".
std::string describe(const PanelFormat& format);

// The picture that a panel's memory shows: each pixel read as a little-endian
// word of its bytes, each channel taken by its offset and length and scaled to
// 8 bits (rounded), as a viewer of the panel sees it. 24-bit panels are read
// the same way. `lineLength` is the bytes per line of `memory`.
cv::Mat panelPicture(const fb_var_screeninfo& var, const unsigned char* memory,
                     unsigned lineLength);

}  // namespace dravik::preview
