// On-disk formats shared by the preload library, the launcher, the snapshot tool
// and the test-support library: the panel description ("geometry file", which is
// also what FAKEFB_CONFIG lists) and the recorded colour map.
//
// A description names one of two kinds of device: a framebuffer (kind=fb, the
// default) or a DRM/KMS device (kind=drm) whose connectors, vertical blanking,
// page flips, display ownership, dumb buffers and DRM_IOCTL_MODE_CLOSEFB are
// described by the keys of DrmDesc. A DRM panel's "file" is still the visible
// picture, packed lines of width * bytes.
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

enum class PanelKind : uint32_t { fb, drm };

constexpr unsigned kMaxConnectors = 8;

// A connector as the kernel names it: "HDMI-A-1" is type HDMI-A
// (DRM_MODE_CONNECTOR_HDMIA), type index 1.
struct ConnectorDesc {
    uint32_t type = 0;  // DRM_MODE_CONNECTOR_*
    uint32_t typeIndex = 0;
    bool connected = false;
};

// The "panel orientation" property of the connectors; none: no such property.
enum class Orientation : uint32_t { none, normal, upsideDown, leftUp, rightUp };

// What a DRM panel offers besides its mode (width x height) and format (bpp).
struct DrmDesc {
    ConnectorDesc connectors[kMaxConnectors];
    unsigned connectorCount = 0;  // 0 until defaults are applied: Virtual-1, connected
    bool vblank = false;          // the CRTC reports vertical blanking
    bool flipCompletes = true;    // page flips complete (false: they never do)
    bool master = true;           // the client may become DRM master
    bool dumbBuffers = true;
    bool closeFb = true;  // DRM_IOCTL_MODE_CLOSEFB exists
    Orientation orientation = Orientation::none;
};

// One simulated panel: the device path it answers to, its backing file and its
// geometry.
struct PanelDesc {
    char device[kPathMax] = {};
    char file[kPathMax] = {};
    Geometry geometry;  // lineLength is 0 until defaults are applied
    PanelKind kind = PanelKind::fb;
    DrmDesc drm;  // only for kind drm
};

// Longest text formatDesc writes for any description.
constexpr std::size_t kDescTextMax = 2 * kPathMax + 1024;

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
// nothing else is said: the usual layout of the depth (dravik_panel_picture/layout.h),
// pseudo-colour for 8 bits and truecolor otherwise, a line of width * bytes.
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

// DRM panels: the connector list "NAME:STATE,..." (STATE connected or
// disconnected), one connector name ("DSI-1"), and the orientation names
// normal, upside_down, left_up and right_up.
[[nodiscard]] bool parseConnectors(const char* text, DrmDesc& drm);
[[nodiscard]] bool parseConnectorName(const char* name, ConnectorDesc& connector);
// Writes the kernel's name of the connector ("HDMI-A-1"); false when it does not fit.
[[nodiscard]] bool connectorName(const ConnectorDesc& connector, char* buf, std::size_t bufLen);
// DRM_MODE_ENCODER_* of the encoder that drives a connector of this type.
uint32_t encoderTypeFor(uint32_t connectorType);
[[nodiscard]] bool parseOrientation(const char* name, Orientation& orientation);
const char* orientationName(Orientation orientation);
// The DRM format a DRM panel shows: RGB565 for 16 bpp, XRGB8888 for 32.
uint32_t drmFormatForDepth(uint32_t bpp);
// Fills what a DRM description leaves out (the connector Virtual-1, connected).
void applyDrmDefaults(PanelDesc& panelDesc);

// Colour map record: "writes=N" then one line "index red green blue transp" per
// entry that is part of the map.
[[nodiscard]] bool parseColourMap(const char* text, std::size_t len, ColourMapRecord& map);
int formatColourMap(const ColourMapRecord& map, char* buf, std::size_t bufLen);
constexpr std::size_t kColourMapTextMax = 128 + kCmapEntries * 32;

// "<file>.geom", "<file>.cmap", "<file>.vram" (a DRM panel's buffers) and
// "<file>.damage" (a DRM panel's record of display operations); false when the
// result does not fit.
[[nodiscard]] bool sidePath(const char* file, const char* suffix, char* out, std::size_t outLen);

}  // namespace fakefb
