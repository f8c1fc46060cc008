// The geometry of a simulated panel: what its framebuffer ioctls report. The test
// support, the tools and the preload library all describe panels with it; it
// needs nothing but fixed-size integers, so the preload library can use it inside
// open() and ioctl() of arbitrary programs.
#pragma once

#include <cstdint>

namespace fakefb {

// Values as the kernel reports them in fb_fix_screeninfo.visual.
enum class Visual : uint32_t { truecolor = 2, pseudocolor = 3, directcolor = 4 };

struct Channel {
    uint32_t offset = 0;
    uint32_t length = 0;
};

struct Geometry {
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t bpp = 0;
    Channel red;
    Channel green;
    Channel blue;
    Channel transp;
    uint32_t lineLength = 0;  // bytes per line, padding included
    Visual visual = Visual::truecolor;

    // The usual layout of a depth (8, 15, 16, 24 or 32; the table is
    // dravik_panel_picture/layout.h) and no padding. Throws
    // std::invalid_argument for another depth.
    static Geometry forDepth(uint32_t bpp, uint32_t width, uint32_t height);

    uint32_t bytesPerPixel() const { return (bpp + 7) / 8; }
    uint64_t frameSize() const { return static_cast<uint64_t>(height) * lineLength; }
};

}  // namespace fakefb
