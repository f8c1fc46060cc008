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
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "fakefb/geometry.h"

namespace fakefb {

// The colour map the panel holds after the FBIOPUTCMAP calls so far.
struct ColourMap {
    std::vector<uint16_t> red, green, blue, transp;  // 256 entries each
    unsigned writes = 0;                             // FBIOPUTCMAP calls that succeeded
};

class Panel {
public:
    Panel(std::string device, const Geometry& geometry);
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

    // The whole backing file; empty before the panel was first opened.
    std::vector<uint8_t> bytes() const;
    // Pixel (x, y) as the little-endian word of bytesPerPixel() bytes at its place.
    uint32_t pixel(uint32_t x, uint32_t y) const;
    ColourMap colourMap() const;
    unsigned putCmapCount() const { return colourMap().writes; }

private:
    std::string dir_;
    std::string device_;
    std::string backingFile_;
    std::string geometryFile_;
    Geometry geometry_;
};

// Absolute path of the libfakefb.so built with this library.
std::string libraryPath();
// True when libfakefb.so is loaded into this process.
bool isPreloaded();
// See the top of this file. Returns true when preloaded; false (with a message on
// stderr) when the re-execution did not load the library.
bool ensurePreloaded(int argc, char** argv);

}  // namespace fakefb
