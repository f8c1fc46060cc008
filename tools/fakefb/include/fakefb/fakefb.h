// Test support for programs that drive a framebuffer: simulated panels in-process.
//
// Link the static library `fakefb_control` and start main() with
//
//     int main(int argc, char** argv) {
//         if (!fakefb::ensurePreloaded(argc, argv)) return 1;
//         testing::InitGoogleTest(&argc, argv);
//         return RUN_ALL_TESTS();
//     }
//
// ensurePreloaded() re-executes the program (/proc/self/exe, same arguments) with
// libfakefb.so prepended to LD_PRELOAD and verify_asan_link_order=0 appended to
// ASAN_OPTIONS, unless the library is loaded already; the library's path is the
// one built alongside this library. Then, in a test:
//
//     fakefb::Panel panel("/dev/fb2", fakefb::Geometry::forDepth(16, 240, 240));
//     panel.apply();                 // the next open("/dev/fb2") sees this panel
//     ... code under test opens /dev/fb2, ioctls, mmaps and draws ...
//     EXPECT_EQ(panel.pixel(0, 0), 0xF800u);
//     EXPECT_EQ(panel.putCmapCount(), 0u);
//
// Each Panel owns a fresh temporary directory holding its backing file
// ("panel.raw", one frame, created at the first open), its description
// ("panel.raw.geom", which is also what fakefb-snapshot reads) and, after
// FBIOPUTCMAP, the recorded colour map ("panel.raw.cmap"); the directory is removed
// with the Panel. apply() replaces the whole configuration of the process (the
// FAKEFB_CONFIG variable); Panel::applyAll() configures several panels at once.
// Descriptors opened before a new apply() keep answering with their old geometry.
// Failures to set up (no temporary directory, unwritable file) throw
// std::runtime_error with the reason.
//
// A DRM panel is described with DrmOptions as well:
//
//     fakefb::DrmOptions drm;
//     drm.connectors = {{"HDMI-A-1", false}, {"DSI-1", true}};
//     drm.vblank = true;
//     fakefb::Panel panel("/dev/dri/card0", fakefb::Geometry::forDepth(32, 240, 240), drm);
//     panel.apply();
//     ... code under test drives /dev/dri/card0 through libdrm ...
//     EXPECT_EQ(panel.pixel(0, 0), 0x00FF0000u);    // what the display was given
//     EXPECT_EQ(panel.damage().back().kind, "dirty");
//
// Its mode is the geometry's size at 60 Hz and its format RGB565 (16 bpp) or
// XRGB8888 (32 bpp), the only depths a DRM panel takes. "panel.raw" then holds
// only what the display received: a SETCRTC or a completed page flip shows the
// whole framebuffer, a DIRTYFB of the framebuffer on show its rectangles, and the
// panel turns black when the CRTC goes off (the client removed the framebuffer on
// show, or ended without handing it over with DRM_IOCTL_MODE_CLOSEFB). Dumb
// buffers live in "panel.raw.vram".
//
// Every display operation is appended to "panel.raw.damage", one line each:
//
//     setcrtc fb=N crtc=C conn=K[,K...] X1,Y1,X2,Y2   a mode set; the viewport shown
//     setcrtc fb=0 crtc=C                             the CRTC switched off
//     flip fb=N crtc=C [pending]                      a page flip; "pending": it
//                                                     never completes (flip=never)
//     dirty fb=N [X1,Y1,X2,Y2 ...]                    DIRTYFB with its clips as
//                                                     passed; none: the whole fb
//     rmfb fb=N                                       RMFB
//     closefb fb=N                                    DRM_IOCTL_MODE_CLOSEFB
//     close                                           the client went away (last
//                                                     descriptor closed, or exit)
//     off crtc=C                                      the panel went dark
//
// Rectangles are framebuffer coordinates as in struct drm_clip_rect: X2 and Y2
// are exclusive. Only calls that succeed are recorded. Panel::damage() parses
// the file.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "fakefb/geometry.h"

namespace fakefb {

// A DRM panel's connector, named as the kernel names it ("DSI-1", "HDMI-A-1",
// "Virtual-1", "SPI-1"; types VGA, DVI-I, DVI-D, DVI-A, Composite, SVIDEO, LVDS,
// Component, DIN, DP, HDMI-A, HDMI-B, TV, eDP, Virtual, DSI, DPI, SPI, USB and
// Unknown).
struct Connector {
    std::string name;
    bool connected = true;
};

// What a DRM panel offers besides its size and depth (the Geometry's).
struct DrmOptions {
    std::vector<Connector> connectors{{"Virtual-1", true}};
    bool vblank = false;        // DRM_IOCTL_CRTC_GET_SEQUENCE and WAIT_VBLANK answer
    bool flipCompletes = true;  // false: page flips are accepted and never complete
    bool master = true;         // false: another program holds the display
    bool dumbBuffers = true;    // false: no DRM_IOCTL_MODE_CREATE_DUMB
    bool closeFb = true;        // false: a kernel before 6.8, without CLOSEFB
    std::string orientation;    // "panel orientation": "" (none), "normal",
                                // "upside_down", "left_up" or "right_up"
};

// A rectangle of a damage record; x2 and y2 are exclusive.
struct ClipRect {
    uint32_t x1 = 0;
    uint32_t y1 = 0;
    uint32_t x2 = 0;
    uint32_t y2 = 0;
    bool operator==(const ClipRect& other) const {
        return x1 == other.x1 && y1 == other.y1 && x2 == other.x2 && y2 == other.y2;
    }
};

// One line of a DRM panel's damage record (see the top of this file).
struct DamageRecord {
    std::string kind;  // setcrtc, flip, dirty, rmfb, closefb, close or off
    uint32_t fb = 0;   // 0 when the line names none
    uint32_t crtc = 0;
    std::vector<uint32_t> connectors;
    std::vector<ClipRect> rects;
    bool pending = false;
};

// The colour map the panel holds after the FBIOPUTCMAP calls so far.
struct ColourMap {
    std::vector<uint16_t> red, green, blue, transp;  // 256 entries each
    unsigned writes = 0;                             // FBIOPUTCMAP calls that succeeded
};

class Panel {
public:
    Panel(std::string device, const Geometry& geometry);
    // A DRM panel; throws std::invalid_argument for a depth other than 16 or 32,
    // an unknown connector name or orientation.
    Panel(std::string device, const Geometry& geometry, const DrmOptions& drm);
    ~Panel();
    Panel(const Panel&) = delete;
    Panel& operator=(const Panel&) = delete;

    // Makes this panel the only one the process simulates.
    void apply() const;
    static void applyAll(std::initializer_list<const Panel*> panels);
    // Simulates no panel at all: every path reaches the real system again.
    static void clearAll();

    const std::string& device() const { return device_; }
    const std::string& backingFile() const { return backingFile_; }
    const std::string& geometryFile() const { return geometryFile_; }
    const Geometry& geometry() const { return geometry_; }
    bool isDrm() const { return drm_; }
    const std::string& damageFile() const { return damageFile_; }

    // The whole backing file; empty before the panel was first opened.
    std::vector<uint8_t> bytes() const;
    // Pixel (x, y) as the little-endian word of bytesPerPixel() bytes at its place.
    uint32_t pixel(uint32_t x, uint32_t y) const;
    ColourMap colourMap() const;
    unsigned putCmapCount() const { return colourMap().writes; }
    // The damage record so far; empty before the first display operation.
    std::vector<DamageRecord> damage() const;

private:
    Panel(std::string device, const Geometry& geometry, const DrmOptions* drm);

    std::string dir_;
    std::string device_;
    std::string backingFile_;
    std::string geometryFile_;
    std::string damageFile_;
    Geometry geometry_;
    bool drm_ = false;
};

// Absolute path of the libfakefb.so built with this library.
std::string libraryPath();
// True when libfakefb.so is loaded into this process.
bool isPreloaded();
// See the top of this file. Returns true when preloaded; false (with a message on
// stderr) when the re-execution did not load the library.
bool ensurePreloaded(int argc, char** argv);

}  // namespace fakefb
