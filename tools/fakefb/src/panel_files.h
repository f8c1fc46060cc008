// On-disk formats shared by the preload library, the launcher, the snapshot tool
// and the test-support library: the panel description ("geometry file", which is
// also what FAKEFB_CONFIG lists) and the recorded colour map.
//
// Everything here works on fixed-size buffers and never allocates, because the
// preload library calls it from inside open() and ioctl() of arbitrary programs.
#pragma once

#include <cstddef>
#include <cstdint>

#include "fakefb/geometry.h"

namespace fakefb {

constexpr std::size_t kPathMax = 512;
constexpr std::size_t kErrorMax = 256;
constexpr unsigned kCmapEntries = 256;

// As in <linux/fb.h>; the only type of panel simulated.
constexpr uint32_t kTypePackedPixels = 0;

// One simulated panel: the device path it answers to, its backing file and its
// geometry.
struct PanelDesc {
    char device[kPathMax] = {};
    char file[kPathMax] = {};
    Geometry geometry;  // lineLength is 0 until defaults are applied
};

struct ColourMapRecord {
    uint16_t red[kCmapEntries] = {};
    uint16_t green[kCmapEntries] = {};
    uint16_t blue[kCmapEntries] = {};
    uint16_t transp[kCmapEntries] = {};
    unsigned writes = 0;
};

// Which optional fields a description states itself; the rest come from the depth.
enum Given : unsigned {
    kGivenNone = 0,
    kGivenChannels = 1,  // red, green and blue
    kGivenTransp = 2,
    kGivenVisual = 4,
    kGivenLineLength = 8,
};

// Fills the fields not flagged in given with what a panel of geometry.bpp has when
// nothing else is said: RGB565 for 16 bits, 10/5,5/5,0/5 for 15, 16/8,8/8,0/8 for
// 24 and 32, pseudo-colour for 8; truecolor otherwise; a line of width * bytes.
// Returns false for a depth other than 8, 15, 16, 24 or 32.
[[nodiscard]] bool applyDepthDefaults(Geometry& geometry, unsigned given);

// Checks a complete description; on failure writes the reason into error.
[[nodiscard]] bool validateDesc(const PanelDesc& panelDesc, char* error, std::size_t errorLen);

// Parses the text of a geometry file (key=value lines, '#' comments). A relative
// "file" is taken relative to baseDir. Missing keys get the depth's defaults.
[[nodiscard]] bool parseDesc(const char* text, std::size_t len, const char* baseDir,
                             PanelDesc& panelDesc, char* error, std::size_t errorLen);

// Writes panelDesc as geometry-file text; returns the length or -1 when buf is too small.
int formatDesc(const PanelDesc& panelDesc, char* buf, std::size_t bufLen);

// A decimal number that fits in 32 bits, digits only (no sign, no blanks).
[[nodiscard]] bool parseUnsigned(const char* text, uint32_t& value);

// Visual names used in the files and on the launcher's command line.
[[nodiscard]] bool parseVisual(const char* name, Visual& visual);
const char* visualName(Visual visual);

// "O/L" -> channel.
[[nodiscard]] bool parseChannel(const char* text, Channel& channel);

// Colour map record: "writes=N" then one line "index red green blue transp" per
// entry that is part of the map.
[[nodiscard]] bool parseColourMap(const char* text, std::size_t len, ColourMapRecord& map);
int formatColourMap(const ColourMapRecord& map, char* buf, std::size_t bufLen);
constexpr std::size_t kColourMapTextMax = 128 + kCmapEntries * 32;

// "<file>.geom" and "<file>.cmap"; false when the result does not fit.
[[nodiscard]] bool sidePath(const char* file, const char* suffix, char* out, std::size_t outLen);

}  // namespace fakefb
