#include "panel_files.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "dravik_panel_picture/layout.h"
#include "dravik_utils/decimal.h"

namespace fakefb {
namespace {

struct VisualNameEntry {
    const char* name;
    Visual visual;
};

constexpr VisualNameEntry kVisualNames[] = {
    {"truecolor", Visual::truecolor},
    {"pseudocolor", Visual::pseudocolor},
    {"directcolor", Visual::directcolor},
};

// Connector types as the kernel numbers (DRM_MODE_CONNECTOR_* in drm_mode.h) and
// names them (drm_connector_enum_list), with the type of encoder that drives each.
// The numbers are written out so that the tools need no DRM headers.
struct ConnectorTypeEntry {
    const char* name;
    uint32_t type;
    uint32_t encoderType;  // DRM_MODE_ENCODER_*
};

constexpr uint32_t kEncoderNone = 0;
constexpr uint32_t kEncoderDac = 1;
constexpr uint32_t kEncoderTmds = 2;
constexpr uint32_t kEncoderLvds = 3;
constexpr uint32_t kEncoderTvDac = 4;
constexpr uint32_t kEncoderVirtual = 5;
constexpr uint32_t kEncoderDsi = 6;
constexpr uint32_t kEncoderDpi = 8;

constexpr ConnectorTypeEntry kConnectorTypes[] = {
    {"Unknown", 0, kEncoderNone},     {"VGA", 1, kEncoderDac},   {"DVI-I", 2, kEncoderTmds},
    {"DVI-D", 3, kEncoderTmds},       {"DVI-A", 4, kEncoderDac}, {"Composite", 5, kEncoderTvDac},
    {"SVIDEO", 6, kEncoderTvDac},     {"LVDS", 7, kEncoderLvds}, {"Component", 8, kEncoderTvDac},
    {"DIN", 9, kEncoderTvDac},        {"DP", 10, kEncoderTmds},  {"HDMI-A", 11, kEncoderTmds},
    {"HDMI-B", 12, kEncoderTmds},     {"TV", 13, kEncoderTvDac}, {"eDP", 14, kEncoderTmds},
    {"Virtual", 15, kEncoderVirtual}, {"DSI", 16, kEncoderDsi},  {"DPI", 17, kEncoderDpi},
    {"SPI", 19, kEncoderNone},        {"USB", 20, kEncoderNone},
};

constexpr uint32_t kVirtualConnector = 15;

struct OrientationEntry {
    const char* name;
    Orientation orientation;
};

constexpr OrientationEntry kOrientations[] = {
    {"normal", Orientation::normal},
    {"upside_down", Orientation::upsideDown},
    {"left_up", Orientation::leftUp},
    {"right_up", Orientation::rightUp},
};

constexpr uint32_t fourcc(char a, char b, char c, char d) {
    return static_cast<uint32_t>(a) | static_cast<uint32_t>(b) << 8 |
           static_cast<uint32_t>(c) << 16 | static_cast<uint32_t>(d) << 24;
}

constexpr uint32_t kMaxDimension = 16384;
constexpr uint64_t kMaxFrameSize = 256ull * 1024 * 1024;

void setError(char* error, std::size_t errorLen, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));

void setError(char* error, std::size_t errorLen, const char* fmt, ...) {
    if (error == nullptr || errorLen == 0) {
        return;
    }
    va_list ap;
    va_start(ap, fmt);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): started just above
    (void)vsnprintf(error, errorLen, fmt, ap);  // a cut message is still a message
    va_end(ap);
}

// Exactly count unsigned numbers separated by single spaces.
bool parseNumberList(char* line, uint32_t* values, std::size_t count) {
    char* pos = line;
    for (std::size_t i = 0; i < count; ++i) {
        char* space = strchr(pos, ' ');
        if ((space == nullptr) != (i + 1 == count)) {
            return false;
        }
        if (space != nullptr) {
            *space = '\0';
        }
        if (!parseUnsigned(pos, values[i])) {
            return false;
        }
        pos = space + 1;
    }
    return true;
}

bool copyPath(const char* value, const char* baseDir, char* out) {
    int n = 0;
    if (value[0] == '/' || baseDir == nullptr || baseDir[0] == '\0') {
        n = snprintf(out, kPathMax, "%s", value);
    } else {
        n = snprintf(out, kPathMax, "%s/%s", baseDir, value);
    }
    return n > 0 && static_cast<std::size_t>(n) < kPathMax;
}

// Parsing state of one geometry file.
struct DescParse {
    PanelDesc& panelDesc;
    const char* baseDir;
    unsigned given = kGivenNone;
    unsigned channelsSeen = 0;
    const char* drmKey = nullptr;  // a key that only a DRM panel takes, if any
};

using KeyParser = bool (*)(DescParse& parse, const char* value);

bool parseDevice(DescParse& p, const char* v) {
    return copyPath(v, nullptr, p.panelDesc.device);
}
bool parseFile(DescParse& p, const char* v) {
    return copyPath(v, p.baseDir, p.panelDesc.file);
}
bool parseWidth(DescParse& p, const char* v) {
    return parseUnsigned(v, p.panelDesc.geometry.width);
}
bool parseHeight(DescParse& p, const char* v) {
    return parseUnsigned(v, p.panelDesc.geometry.height);
}
bool parseBpp(DescParse& p, const char* v) {
    return parseUnsigned(v, p.panelDesc.geometry.bpp);
}
bool parseRed(DescParse& p, const char* v) {
    p.channelsSeen |= 1;
    return parseChannel(v, p.panelDesc.geometry.red);
}
bool parseGreen(DescParse& p, const char* v) {
    p.channelsSeen |= 2;
    return parseChannel(v, p.panelDesc.geometry.green);
}
bool parseBlue(DescParse& p, const char* v) {
    p.channelsSeen |= 4;
    return parseChannel(v, p.panelDesc.geometry.blue);
}
bool parseTransp(DescParse& p, const char* v) {
    p.given |= kGivenTransp;
    return parseChannel(v, p.panelDesc.geometry.transp);
}
bool parseLineLength(DescParse& p, const char* v) {
    p.given |= kGivenLineLength;
    return parseUnsigned(v, p.panelDesc.geometry.lineLength);
}
bool parseVisualKey(DescParse& p, const char* v) {
    p.given |= kGivenVisual;
    return parseVisual(v, p.panelDesc.geometry.visual);
}
// Only packed pixels exist on this kind of panel.
bool parseType(DescParse& /*parse*/, const char* v) {
    return strcmp(v, "packed_pixels") == 0;
}

bool parseYesNo(const char* v, bool& value) {
    if (strcmp(v, "yes") == 0 || strcmp(v, "no") == 0) {
        value = v[0] == 'y';
        return true;
    }
    return false;
}

bool parseKind(DescParse& p, const char* v) {
    if (strcmp(v, "fb") == 0 || strcmp(v, "drm") == 0) {
        p.panelDesc.kind = v[0] == 'd' ? PanelKind::drm : PanelKind::fb;
        return true;
    }
    return false;
}
bool parseConnectorsKey(DescParse& p, const char* v) {
    p.drmKey = "connectors";
    return parseConnectors(v, p.panelDesc.drm);
}
bool parseVblank(DescParse& p, const char* v) {
    p.drmKey = "vblank";
    return parseYesNo(v, p.panelDesc.drm.vblank);
}
bool parseFlip(DescParse& p, const char* v) {
    p.drmKey = "flip";
    if (strcmp(v, "complete") == 0 || strcmp(v, "never") == 0) {
        p.panelDesc.drm.flipCompletes = v[0] == 'c';
        return true;
    }
    return false;
}
bool parseMaster(DescParse& p, const char* v) {
    p.drmKey = "master";
    return parseYesNo(v, p.panelDesc.drm.master);
}
bool parseDumb(DescParse& p, const char* v) {
    p.drmKey = "dumb";
    return parseYesNo(v, p.panelDesc.drm.dumbBuffers);
}
bool parseCloseFb(DescParse& p, const char* v) {
    p.drmKey = "closefb";
    return parseYesNo(v, p.panelDesc.drm.closeFb);
}
bool parseOrientationKey(DescParse& p, const char* v) {
    p.drmKey = "orientation";
    return parseOrientation(v, p.panelDesc.drm.orientation);
}

struct KeyEntry {
    const char* key;
    KeyParser parse;
};

constexpr KeyEntry kKeys[] = {
    {"device", parseDevice},    {"file", parseFile},
    {"width", parseWidth},      {"height", parseHeight},
    {"bpp", parseBpp},          {"red", parseRed},
    {"green", parseGreen},      {"blue", parseBlue},
    {"transp", parseTransp},    {"line_length", parseLineLength},
    {"visual", parseVisualKey}, {"type", parseType},
    {"kind", parseKind},        {"connectors", parseConnectorsKey},
    {"vblank", parseVblank},    {"flip", parseFlip},
    {"master", parseMaster},    {"dumb", parseDumb},
    {"closefb", parseCloseFb},  {"orientation", parseOrientationKey},
};

const KeyEntry* findKey(const char* key) {
    for (const auto& entry : kKeys) {
        if (strcmp(entry.key, key) == 0) {
            return &entry;
        }
    }
    return nullptr;
}

// Copies one line into buf with surrounding blanks removed; returns the start of
// the next line.
const char* takeLine(const char* pos, const char* end, char* buf, std::size_t bufLen,
                     bool& tooLong) {
    const char* eol = static_cast<const char*>(memchr(pos, '\n', end - pos));
    const char* lineEnd = eol != nullptr ? eol : end;
    const char* next = eol != nullptr ? eol + 1 : end;
    while (pos < lineEnd && (*pos == ' ' || *pos == '\t')) {
        ++pos;
    }
    while (lineEnd > pos && (lineEnd[-1] == ' ' || lineEnd[-1] == '\t' || lineEnd[-1] == '\r')) {
        --lineEnd;
    }
    const std::size_t n = lineEnd - pos;
    tooLong = n >= bufLen;
    if (!tooLong) {
        memcpy(buf, pos, n);
        buf[n] = '\0';
    }
    return next;
}

bool parseDescLine(DescParse& parse, char* line, int lineNo, char* error, std::size_t errorLen) {
    char* eq = strchr(line, '=');
    if (eq == nullptr) {
        setError(error, errorLen, "line %d: expected key=value, got \"%s\"", lineNo, line);
        return false;
    }
    *eq = '\0';
    const KeyEntry* entry = findKey(line);
    if (entry == nullptr) {
        setError(error, errorLen, "line %d: unknown key \"%s\"", lineNo, line);
        return false;
    }
    if (!entry->parse(parse, eq + 1)) {
        setError(error, errorLen, "line %d: bad value \"%s\" for %s", lineNo, eq + 1, line);
        return false;
    }
    return true;
}

bool channelFits(const Channel& channel, uint32_t bpp) {
    return channel.length <= 32 && channel.offset + channel.length <= bpp;
}

bool validateGeometry(const Geometry& g, char* error, std::size_t errorLen) {
    if (dravik::panel::layoutForDepth(g.bpp) == nullptr) {
        setError(error, errorLen, "bpp %u is not one of 8, 15, 16, 24, 32", g.bpp);
        return false;
    }
    if (g.width == 0 || g.height == 0 || g.width > kMaxDimension || g.height > kMaxDimension) {
        setError(error, errorLen, "size %ux%u is out of range (1..%u)", g.width, g.height,
                 kMaxDimension);
        return false;
    }
    const uint64_t minLine = static_cast<uint64_t>(g.width) * g.bytesPerPixel();
    if (g.lineLength < minLine || g.frameSize() > kMaxFrameSize) {
        setError(error, errorLen, "line_length %u is below %llu bytes or the frame is too large",
                 g.lineLength, static_cast<unsigned long long>(minLine));
        return false;
    }
    if (visualName(g.visual) == nullptr) {
        setError(error, errorLen, "visual %u is not supported", static_cast<uint32_t>(g.visual));
        return false;
    }
    // A pseudo-colour pixel is an index; its channel fields describe the colour map.
    if (g.visual != Visual::pseudocolor &&
        !(channelFits(g.red, g.bpp) && channelFits(g.green, g.bpp) && channelFits(g.blue, g.bpp) &&
          channelFits(g.transp, g.bpp))) {
        setError(error, errorLen, "a channel lies outside the %u-bit pixel", g.bpp);
        return false;
    }
    return true;
}

bool sameChannel(const Channel& a, const Channel& b) {
    return a.offset == b.offset && a.length == b.length;
}

// A DRM panel shows its native format packed: no other layout, padding or visual.
bool validateDrm(const PanelDesc& panelDesc, char* error, std::size_t errorLen) {
    const Geometry& g = panelDesc.geometry;
    Geometry usual = g;
    if (g.bpp != 16 && g.bpp != 32) {
        setError(error, errorLen, "a DRM panel has 16 bpp (RGB565) or 32 bpp (XRGB8888), not %u",
                 g.bpp);
        return false;
    }
    (void)applyDepthDefaults(usual, kGivenNone);  // 16 and 32 are known depths
    if (!sameChannel(usual.red, g.red) || !sameChannel(usual.green, g.green) ||
        !sameChannel(usual.blue, g.blue) || !sameChannel(usual.transp, g.transp) ||
        usual.lineLength != g.lineLength || usual.visual != g.visual) {
        setError(
            error, errorLen,
            "a DRM panel has the usual layout of its depth, no padding and a truecolor visual");
        return false;
    }
    const DrmDesc& drm = panelDesc.drm;
    if (drm.connectorCount == 0 || drm.connectorCount > kMaxConnectors) {
        setError(error, errorLen, "a DRM panel has 1 to %u connectors", kMaxConnectors);
        return false;
    }
    for (unsigned i = 0; i < drm.connectorCount; ++i) {
        for (unsigned j = 0; j < i; ++j) {
            if (drm.connectors[i].type == drm.connectors[j].type &&
                drm.connectors[i].typeIndex == drm.connectors[j].typeIndex) {
                setError(error, errorLen, "two connectors have the same name");
                return false;
            }
        }
    }
    if (orientationName(drm.orientation) == nullptr && drm.orientation != Orientation::none) {
        setError(error, errorLen, "unknown orientation");
        return false;
    }
    return true;
}

}  // namespace

bool applyDepthDefaults(Geometry& geometry, unsigned given) {
    const dravik::panel::DepthLayout* layout = dravik::panel::layoutForDepth(geometry.bpp);
    if (layout == nullptr) {
        return false;
    }
    if ((given & kGivenChannels) == 0) {
        geometry.red = {layout->red.offset, layout->red.length};
        geometry.green = {layout->green.offset, layout->green.length};
        geometry.blue = {layout->blue.offset, layout->blue.length};
    }
    if ((given & kGivenTransp) == 0) {
        geometry.transp = Channel{};
    }
    if ((given & kGivenVisual) == 0) {
        // A pseudo-colour panel reports 8 significant bits per colour-map
        // channel, all at offset 0; the pixel itself is an index.
        geometry.visual = layout->palette ? Visual::pseudocolor : Visual::truecolor;
    }
    if ((given & kGivenLineLength) == 0) {
        geometry.lineLength = geometry.width * geometry.bytesPerPixel();
    }
    return true;
}

bool validateDesc(const PanelDesc& panelDesc, char* error, std::size_t errorLen) {
    if (panelDesc.device[0] == '\0' || panelDesc.file[0] == '\0') {
        setError(error, errorLen, "device and file are both required");
        return false;
    }
    if (!validateGeometry(panelDesc.geometry, error, errorLen)) {
        return false;
    }
    return panelDesc.kind != PanelKind::drm || validateDrm(panelDesc, error, errorLen);
}

bool parseDesc(const char* text, std::size_t len, const char* baseDir, PanelDesc& panelDesc,
               char* error, std::size_t errorLen) {
    panelDesc = PanelDesc{};
    DescParse parse{panelDesc, baseDir};
    const char* pos = text;
    const char* end = text + len;
    char line[kPathMax + 32];
    for (int lineNo = 1; pos < end; ++lineNo) {
        bool tooLong = false;
        pos = takeLine(pos, end, line, sizeof line, tooLong);
        if (tooLong) {
            setError(error, errorLen, "line %d is too long", lineNo);
            return false;
        }
        if (line[0] == '\0' || line[0] == '#') {
            continue;
        }
        if (!parseDescLine(parse, line, lineNo, error, errorLen)) {
            return false;
        }
    }
    if (parse.channelsSeen != 0 && parse.channelsSeen != 7) {
        setError(error, errorLen, "red, green and blue go together: give all three or none");
        return false;
    }
    if (parse.channelsSeen == 7) {
        parse.given |= kGivenChannels;
    }
    if (!applyDepthDefaults(panelDesc.geometry, parse.given)) {
        setError(error, errorLen, "bpp %u is not one of 8, 15, 16, 24, 32", panelDesc.geometry.bpp);
        return false;
    }
    if (parse.drmKey != nullptr && panelDesc.kind != PanelKind::drm) {
        setError(error, errorLen, "%s describes a DRM panel: add kind=drm", parse.drmKey);
        return false;
    }
    if (panelDesc.kind == PanelKind::drm) {
        applyDrmDefaults(panelDesc);
    }
    return validateDesc(panelDesc, error, errorLen);
}

namespace {

// Appends to buf (used bytes so far); the new length, or -1 when it does not fit.
int append(char* buf, std::size_t bufLen, int used, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));

int append(char* buf, std::size_t bufLen, int used, const char* fmt, ...) {
    if (used < 0 || static_cast<std::size_t>(used) >= bufLen) {
        return -1;
    }
    va_list ap;
    va_start(ap, fmt);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): started just above
    const int n = vsnprintf(buf + used, bufLen - used, fmt, ap);
    va_end(ap);
    return n < 0 || static_cast<std::size_t>(n) >= bufLen - used ? -1 : used + n;
}

int formatDrm(const DrmDesc& drm, char* buf, std::size_t bufLen, int used) {
    used = append(buf, bufLen, used, "kind=drm\nconnectors=");
    for (unsigned i = 0; i < drm.connectorCount; ++i) {
        char name[48];
        if (!connectorName(drm.connectors[i], name, sizeof name)) {
            return -1;
        }
        used = append(buf, bufLen, used, "%s%s:%s", i == 0 ? "" : ",", name,
                      drm.connectors[i].connected ? "connected" : "disconnected");
    }
    used = append(buf, bufLen, used, "\nvblank=%s\nflip=%s\nmaster=%s\ndumb=%s\nclosefb=%s\n",
                  drm.vblank ? "yes" : "no", drm.flipCompletes ? "complete" : "never",
                  drm.master ? "yes" : "no", drm.dumbBuffers ? "yes" : "no",
                  drm.closeFb ? "yes" : "no");
    if (drm.orientation != Orientation::none) {
        used = append(buf, bufLen, used, "orientation=%s\n", orientationName(drm.orientation));
    }
    return used;
}

}  // namespace

int formatDesc(const PanelDesc& panelDesc, char* buf, std::size_t bufLen) {
    const Geometry& g = panelDesc.geometry;
    const char* visual = visualName(g.visual);
    const int n = snprintf(buf, bufLen,
                           "# fakefb panel\n"
                           "device=%s\nfile=%s\nwidth=%u\nheight=%u\nbpp=%u\n"
                           "red=%u/%u\ngreen=%u/%u\nblue=%u/%u\ntransp=%u/%u\n"
                           "line_length=%u\nvisual=%s\ntype=packed_pixels\n",
                           panelDesc.device, panelDesc.file, g.width, g.height, g.bpp, g.red.offset,
                           g.red.length, g.green.offset, g.green.length, g.blue.offset,
                           g.blue.length, g.transp.offset, g.transp.length, g.lineLength,
                           visual != nullptr ? visual : "truecolor");
    if (n < 0 || static_cast<std::size_t>(n) >= bufLen) {
        return -1;
    }
    return panelDesc.kind == PanelKind::drm ? formatDrm(panelDesc.drm, buf, bufLen, n) : n;
}

bool parseUnsigned(const char* text, uint32_t& value) {
    return dravik::utils::isDecimal(text, value);
}

bool parseVisual(const char* name, Visual& visual) {
    for (const auto& entry : kVisualNames) {
        if (strcmp(entry.name, name) == 0) {
            visual = entry.visual;
            return true;
        }
    }
    return false;
}

const char* visualName(Visual visual) {
    for (const auto& entry : kVisualNames) {
        if (entry.visual == visual) {
            return entry.name;
        }
    }
    return nullptr;
}

bool parseChannel(const char* text, Channel& channel) {
    char buf[32];
    const int n = snprintf(buf, sizeof buf, "%s", text);
    if (n <= 0 || static_cast<std::size_t>(n) >= sizeof buf) {
        return false;
    }
    char* slash = strchr(buf, '/');
    if (slash == nullptr) {
        return false;
    }
    *slash = '\0';
    Channel parsed;
    if (!parseUnsigned(buf, parsed.offset) || !parseUnsigned(slash + 1, parsed.length) ||
        parsed.offset > 32 || parsed.length > 32) {
        return false;
    }
    channel = parsed;
    return true;
}

bool parseConnectorName(const char* name, ConnectorDesc& connector) {
    const char* dash = strrchr(name, '-');
    if (dash == nullptr || dash == name) {
        return false;
    }
    const std::size_t typeLen = dash - name;
    uint32_t index = 0;
    if (!parseUnsigned(dash + 1, index) || index == 0 || index > 255) {
        return false;
    }
    for (const auto& entry : kConnectorTypes) {
        if (strlen(entry.name) == typeLen && strncmp(entry.name, name, typeLen) == 0) {
            connector.type = entry.type;
            connector.typeIndex = index;
            return true;
        }
    }
    return false;
}

bool parseConnectors(const char* text, DrmDesc& drm) {
    DrmDesc parsed = drm;
    parsed.connectorCount = 0;
    char item[64];
    for (const char* pos = text;;) {
        const char* comma = strchr(pos, ',');
        const std::size_t n =
            comma != nullptr ? static_cast<std::size_t>(comma - pos) : strlen(pos);
        if (n == 0 || n >= sizeof item || parsed.connectorCount == kMaxConnectors) {
            return false;
        }
        memcpy(item, pos, n);
        item[n] = '\0';
        char* colon = strchr(item, ':');
        if (colon == nullptr) {
            return false;
        }
        *colon = '\0';
        ConnectorDesc& connector = parsed.connectors[parsed.connectorCount++];
        if (!parseConnectorName(item, connector)) {
            return false;
        }
        if (strcmp(colon + 1, "connected") != 0 && strcmp(colon + 1, "disconnected") != 0) {
            return false;
        }
        connector.connected = colon[1] == 'c';
        if (comma == nullptr) {
            break;
        }
        pos = comma + 1;
    }
    drm = parsed;
    return true;
}

bool connectorName(const ConnectorDesc& connector, char* buf, std::size_t bufLen) {
    for (const auto& entry : kConnectorTypes) {
        if (entry.type == connector.type) {
            const int n = snprintf(buf, bufLen, "%s-%u", entry.name, connector.typeIndex);
            return n > 0 && static_cast<std::size_t>(n) < bufLen;
        }
    }
    return false;
}

uint32_t encoderTypeFor(uint32_t connectorType) {
    for (const auto& entry : kConnectorTypes) {
        if (entry.type == connectorType) {
            return entry.encoderType;
        }
    }
    return kEncoderNone;
}

bool parseOrientation(const char* name, Orientation& orientation) {
    for (const auto& entry : kOrientations) {
        if (strcmp(entry.name, name) == 0) {
            orientation = entry.orientation;
            return true;
        }
    }
    return false;
}

const char* orientationName(Orientation orientation) {
    for (const auto& entry : kOrientations) {
        if (entry.orientation == orientation) {
            return entry.name;
        }
    }
    return nullptr;
}

uint32_t drmFormatForDepth(uint32_t bpp) {
    return bpp == 16 ? fourcc('R', 'G', '1', '6') : fourcc('X', 'R', '2', '4');
}

void applyDrmDefaults(PanelDesc& panelDesc) {
    DrmDesc& drm = panelDesc.drm;
    if (drm.connectorCount == 0) {
        drm.connectors[0] = ConnectorDesc{kVirtualConnector, 1, true};
        drm.connectorCount = 1;
    }
}

bool parseColourMap(const char* text, std::size_t len, ColourMapRecord& map) {
    map = ColourMapRecord{};
    const char* pos = text;
    const char* end = text + len;
    char line[128];
    while (pos < end) {
        bool tooLong = false;
        pos = takeLine(pos, end, line, sizeof line, tooLong);
        if (tooLong) {
            return false;
        }
        if (line[0] == '\0' || line[0] == '#') {
            continue;
        }
        if (strncmp(line, "writes=", 7) == 0) {
            if (!parseUnsigned(line + 7, map.writes)) {
                return false;
            }
            continue;
        }
        uint32_t v[5] = {};  // index red green blue transp
        if (!parseNumberList(line, v, 5) || v[0] >= kCmapEntries || v[1] > 0xFFFF ||
            v[2] > 0xFFFF || v[3] > 0xFFFF || v[4] > 0xFFFF) {
            return false;
        }
        map.red[v[0]] = static_cast<uint16_t>(v[1]);
        map.green[v[0]] = static_cast<uint16_t>(v[2]);
        map.blue[v[0]] = static_cast<uint16_t>(v[3]);
        map.transp[v[0]] = static_cast<uint16_t>(v[4]);
    }
    return true;
}

int formatColourMap(const ColourMapRecord& map, char* buf, std::size_t bufLen) {
    std::size_t used = 0;
    int n = snprintf(buf, bufLen, "# fakefb colour map: index red green blue transp\nwrites=%u\n",
                     map.writes);
    for (unsigned i = 0; n >= 0 && used + n < bufLen && i < kCmapEntries; ++i) {
        used += n;
        n = snprintf(buf + used, bufLen - used, "%u %u %u %u %u\n", i, map.red[i], map.green[i],
                     map.blue[i], map.transp[i]);
    }
    if (n < 0 || used + n >= bufLen) {
        return -1;
    }
    return static_cast<int>(used + n);
}

bool sidePath(const char* file, const char* suffix, char* out, std::size_t outLen) {
    const int n = snprintf(out, outLen, "%s%s", file, suffix);
    return n > 0 && static_cast<std::size_t>(n) < outLen;
}

}  // namespace fakefb
