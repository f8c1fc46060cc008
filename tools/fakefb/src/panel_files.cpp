#include "panel_files.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace fakefb {
namespace {

struct DepthDefaults {
    uint32_t bpp;
    ChannelDesc red;
    ChannelDesc green;
    ChannelDesc blue;
    uint32_t visual;
};

// A pseudo-colour panel reports 8 significant bits per colour-map channel, all at
// offset 0; the pixel itself is an index.
constexpr DepthDefaults kDepthDefaults[] = {
    {8, {0, 8}, {0, 8}, {0, 8}, kVisualPseudocolor},
    {15, {10, 5}, {5, 5}, {0, 5}, kVisualTruecolor},
    {16, {11, 5}, {5, 6}, {0, 5}, kVisualTruecolor},
    {24, {16, 8}, {8, 8}, {0, 8}, kVisualTruecolor},
    {32, {16, 8}, {8, 8}, {0, 8}, kVisualTruecolor},
};

struct VisualNameEntry {
    const char* name;
    uint32_t visual;
};

constexpr VisualNameEntry kVisualNames[] = {
    {"truecolor", kVisualTruecolor},
    {"pseudocolor", kVisualPseudocolor},
    {"directcolor", kVisualDirectcolor},
};

constexpr uint32_t kMaxDimension = 16384;
constexpr uint64_t kMaxFrameSize = 256ull * 1024 * 1024;

const DepthDefaults* findDepth(uint32_t bpp) {
    for (const auto& entry : kDepthDefaults) {
        if (entry.bpp == bpp) {
            return &entry;
        }
    }
    return nullptr;
}

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

bool parseUnsigned(const char* text, uint32_t& value) {
    if (text[0] < '0' || text[0] > '9') {
        return false;
    }
    errno = 0;
    char* end = nullptr;
    const unsigned long parsed = strtoul(text, &end, 10);
    if (errno != 0 || *end != '\0' || parsed > 0xFFFFFFFFul) {
        return false;
    }
    value = static_cast<uint32_t>(parsed);
    return true;
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
};

using KeyParser = bool (*)(DescParse& parse, const char* value);

bool parseDevice(DescParse& p, const char* v) {
    return copyPath(v, nullptr, p.panelDesc.device);
}
bool parseFile(DescParse& p, const char* v) {
    return copyPath(v, p.baseDir, p.panelDesc.file);
}
bool parseWidth(DescParse& p, const char* v) {
    return parseUnsigned(v, p.panelDesc.width);
}
bool parseHeight(DescParse& p, const char* v) {
    return parseUnsigned(v, p.panelDesc.height);
}
bool parseBpp(DescParse& p, const char* v) {
    return parseUnsigned(v, p.panelDesc.bpp);
}
bool parseRed(DescParse& p, const char* v) {
    p.channelsSeen |= 1;
    return parseChannel(v, p.panelDesc.red);
}
bool parseGreen(DescParse& p, const char* v) {
    p.channelsSeen |= 2;
    return parseChannel(v, p.panelDesc.green);
}
bool parseBlue(DescParse& p, const char* v) {
    p.channelsSeen |= 4;
    return parseChannel(v, p.panelDesc.blue);
}
bool parseTransp(DescParse& p, const char* v) {
    p.given |= kGivenTransp;
    return parseChannel(v, p.panelDesc.transp);
}
bool parseLineLength(DescParse& p, const char* v) {
    p.given |= kGivenLineLength;
    return parseUnsigned(v, p.panelDesc.lineLength);
}
bool parseVisualKey(DescParse& p, const char* v) {
    p.given |= kGivenVisual;
    return parseVisual(v, p.panelDesc.visual);
}
bool parseType(DescParse& p, const char* v) {
    // Only packed pixels exist on this kind of panel.
    if (strcmp(v, "packed_pixels") == 0) {
        p.panelDesc.type = kTypePackedPixels;
        return true;
    }
    return false;
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

bool channelFits(const ChannelDesc& channel, uint32_t bpp) {
    return channel.length <= 32 && channel.offset + channel.length <= bpp;
}

}  // namespace

bool applyDepthDefaults(PanelDesc& panelDesc, unsigned given) {
    const DepthDefaults* defaults = findDepth(panelDesc.bpp);
    if (defaults == nullptr) {
        return false;
    }
    if ((given & kGivenChannels) == 0) {
        panelDesc.red = defaults->red;
        panelDesc.green = defaults->green;
        panelDesc.blue = defaults->blue;
    }
    if ((given & kGivenTransp) == 0) {
        panelDesc.transp = ChannelDesc{};
    }
    if ((given & kGivenVisual) == 0) {
        panelDesc.visual = defaults->visual;
    }
    if ((given & kGivenLineLength) == 0) {
        panelDesc.lineLength = panelDesc.width * bytesPerPixel(panelDesc);
    }
    return true;
}

bool validateDesc(const PanelDesc& panelDesc, char* error, std::size_t errorLen) {
    if (panelDesc.device[0] == '\0' || panelDesc.file[0] == '\0') {
        setError(error, errorLen, "device and file are both required");
        return false;
    }
    if (findDepth(panelDesc.bpp) == nullptr) {
        setError(error, errorLen, "bpp %u is not one of 8, 15, 16, 24, 32", panelDesc.bpp);
        return false;
    }
    if (panelDesc.width == 0 || panelDesc.height == 0 || panelDesc.width > kMaxDimension ||
        panelDesc.height > kMaxDimension) {
        setError(error, errorLen, "size %ux%u is out of range (1..%u)", panelDesc.width,
                 panelDesc.height, kMaxDimension);
        return false;
    }
    const uint64_t minLine = static_cast<uint64_t>(panelDesc.width) * bytesPerPixel(panelDesc);
    if (panelDesc.lineLength < minLine || frameSize(panelDesc) > kMaxFrameSize) {
        setError(error, errorLen, "line_length %u is below %llu bytes or the frame is too large",
                 panelDesc.lineLength, static_cast<unsigned long long>(minLine));
        return false;
    }
    if (visualName(panelDesc.visual) == nullptr) {
        setError(error, errorLen, "visual %u is not supported", panelDesc.visual);
        return false;
    }
    // A pseudo-colour pixel is an index; its channel fields describe the colour map.
    if (panelDesc.visual != kVisualPseudocolor && !(channelFits(panelDesc.red, panelDesc.bpp) &&
                                                    channelFits(panelDesc.green, panelDesc.bpp) &&
                                                    channelFits(panelDesc.blue, panelDesc.bpp) &&
                                                    channelFits(panelDesc.transp, panelDesc.bpp))) {
        setError(error, errorLen, "a channel lies outside the %u-bit pixel", panelDesc.bpp);
        return false;
    }
    return true;
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
    if (!applyDepthDefaults(panelDesc, parse.given)) {
        setError(error, errorLen, "bpp %u is not one of 8, 15, 16, 24, 32", panelDesc.bpp);
        return false;
    }
    return validateDesc(panelDesc, error, errorLen);
}

int formatDesc(const PanelDesc& panelDesc, char* buf, std::size_t bufLen) {
    const char* visual = visualName(panelDesc.visual);
    const int n = snprintf(buf, bufLen,
                           "# fakefb panel\n"
                           "device=%s\nfile=%s\nwidth=%u\nheight=%u\nbpp=%u\n"
                           "red=%u/%u\ngreen=%u/%u\nblue=%u/%u\ntransp=%u/%u\n"
                           "line_length=%u\nvisual=%s\ntype=packed_pixels\n",
                           panelDesc.device, panelDesc.file, panelDesc.width, panelDesc.height,
                           panelDesc.bpp, panelDesc.red.offset, panelDesc.red.length,
                           panelDesc.green.offset, panelDesc.green.length, panelDesc.blue.offset,
                           panelDesc.blue.length, panelDesc.transp.offset, panelDesc.transp.length,
                           panelDesc.lineLength, visual != nullptr ? visual : "truecolor");
    return n >= 0 && static_cast<std::size_t>(n) < bufLen ? n : -1;
}

bool parseVisual(const char* name, uint32_t& visual) {
    for (const auto& entry : kVisualNames) {
        if (strcmp(entry.name, name) == 0) {
            visual = entry.visual;
            return true;
        }
    }
    return false;
}

const char* visualName(uint32_t visual) {
    for (const auto& entry : kVisualNames) {
        if (entry.visual == visual) {
            return entry.name;
        }
    }
    return nullptr;
}

bool parseChannel(const char* text, ChannelDesc& channel) {
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
    ChannelDesc parsed;
    if (!parseUnsigned(buf, parsed.offset) || !parseUnsigned(slash + 1, parsed.length) ||
        parsed.offset > 32 || parsed.length > 32) {
        return false;
    }
    channel = parsed;
    return true;
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
