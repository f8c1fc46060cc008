#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <iterator>

#include "GuiLimits.h"
#include "LcmGui.h"
#include "PixelKernels.h"
#include "TileTranspose.h"
#include "dravik_image/image_file.h"
#include "dravik_ipc_messages/messages.h"
#include "dravik_logger/logger.h"
#include "dravik_panel_picture/layout.h"
#include "dravik_utils/utils.h"

namespace dravik::lcmgui {

using ipc::messages::kBrightnessKeep;
using ipc::messages::kBrightnessMax;
using ipc::messages::ShowGui;

namespace {

constexpr unsigned kCmapEntries = 256;

// The depths whose panels may report no channel lengths: they get the usual
// layout of the depth (24 serves 32-bit panels). The same layouts are the ones
// real panels report, so each has a dedicated line conversion for pixels of
// `bytes` bytes.
struct FixedLayout {
    unsigned depth;
    unsigned bytes;
    pixels::LineKernel convert;
    pixels::TurnedKernel convertTurned;  // null: a turned panel's lines go by bands
};

constexpr FixedLayout kFixedLayouts[] = {
    {15, 2, pixels::toRgb555, nullptr},
    {16, 2, pixels::toRgb565, nullptr},
    {24, 4, pixels::toXrgb8888, pixels::toXrgb8888Turned},
};

constexpr bool everyFixedLayoutIsUsual() {
    for (const auto& layout : kFixedLayouts) {
        if (!panel::hasUsualLayout(layout.depth)) {
            return false;
        }
    }
    return true;
}
static_assert(everyFixedLayoutIsUsual(), "a fixed layout is the usual one of its depth");

const panel::DepthLayout& usualLayout(const FixedLayout& layout) {
    return *panel::layoutForDepth(layout.depth);
}

// Depths whose lines go through the lookup tables.
constexpr unsigned kTableDepths[] = {15, 16, 32};

bool tablesHold(const FixedLayout& layout, const uint32_t* red, const uint32_t* green,
                const uint32_t* blue) {
    const panel::DepthLayout& usual = usualLayout(layout);
    for (uint32_t v = 0; v < 256; ++v) {
        if (red[v] != panel::placeInChannel(v, usual.red) ||
            green[v] != panel::placeInChannel(v, usual.green) ||
            blue[v] != panel::placeInChannel(v, usual.blue)) {
            return false;
        }
    }
    return true;
}

// Whether position + size ends beyond the limit. Summed without wrapping: a
// rectangle whose 32-bit sum would wrap around lies off the screen.
bool endsBeyond(unsigned position, unsigned size, unsigned limit) {
    return uint64_t{position} + size > limit;
}

}  // namespace

LcmGui::LcmGui(GuiConfig& config) : devicePath(kDefaultDevice), config(config) {
    cmap.start = 0;
    cmap.len = kCmapEntries;
    cmap.red = palRed;
    cmap.green = palGreen;
    cmap.blue = palBlue;
    cmap.transp = nullptr;
}

LcmGui::~LcmGui() {
    if (fbMem != nullptr && !drm) {
        munmap(fbMem, fbSize);
    }
    if (fbFd >= 0) {
        close(fbFd);
    }
}

bool LcmGui::init(const std::string& device, const std::string& guiId, signed char brightness) {
    if (!device.empty()) {
        devicePath = device;
    }
    if (!backLight.init(config.getBackLightPath())) {
        DRAVIK_LOG(logger::kError, 0, "Unable to init backlight");
        return false;
    }
    if (!openDevice()) {
        DRAVIK_LOG(logger::kError, 0, "Unable to open %s", devicePath.c_str());
        return false;
    }
    if (DrmPanel::isDrmDevice(fbFd)) {
        return startDrm() && startDrawing() &&
               ((guiId.empty() && brightness < 0) || showStartupScreen(guiId, brightness));
    }
    if (!readFixedInfo()) {
        DRAVIK_LOG(logger::kError, 0, "Get fixed screen info failed");
        return false;
    }
    if (!readVariableInfo()) {
        DRAVIK_LOG(logger::kError, 0, "Unable to retrieve variable screen info");
        return false;
    }
    chooseRotation();
    fbSize = static_cast<uint64_t>(fbVar.yres) * fbFix.line_length;
    DRAVIK_LOG(logger::kInfo, 0, "FB: %dx%d, bits_per_pixel %d, fbSize: %d", fbVar.xres, fbVar.yres,
               fbVar.bits_per_pixel, static_cast<int>(fbSize));
    boundImageSize();
    if (!mapMemory()) {
        DRAVIK_LOG(logger::kError, 0, "mmap failed");
        return false;
    }
    if (!prepareColourPath()) {
        DRAVIK_LOG(logger::kError, 0, "Oops: %i bit/pixel ???", fbVar.bits_per_pixel);
        return false;
    }
    if (needsColourMap()) {
        if (!putColourMap()) {
            DRAVIK_LOG(logger::kError, 0, "ioctl FBIOPUTCMAP");
        }
        // A palette-based panel ends start-up here even when its colour map was
        // loaded: such panels are not driven beyond their colour map.
        return false;
    }
    if (!startDrawing()) {
        return false;
    }
    if (guiId.empty() && brightness < 0) {
        return true;
    }
    return showStartupScreen(guiId, brightness);
}

bool LcmGui::initInMemory(const fb_var_screeninfo& format) {
    fbVar = format;
    chooseRotation();
    fbFix = {};
    fbFix.visual = FB_VISUAL_TRUECOLOR;
    fbFix.line_length = fbVar.xres * ((fbVar.bits_per_pixel + 7) / 8);
    fbSize = static_cast<uint64_t>(fbVar.yres) * fbFix.line_length;
    if (fbSize == 0 || fbMem != nullptr) {
        DRAVIK_LOG(logger::kError, 0,
                   "A panel of %ux%u at %u bits per pixel cannot be held in memory", fbVar.xres,
                   fbVar.yres, fbVar.bits_per_pixel);
        return false;
    }
    boundImageSize();
    void* mem = mmap(nullptr, fbSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mem == MAP_FAILED) {
        DRAVIK_LOG(logger::kError, 0, "mmap failed");
        return false;
    }
    fbMem = static_cast<unsigned char*>(mem);
    if (!prepareColourPath()) {
        DRAVIK_LOG(logger::kError, 0, "Oops: %i bit/pixel ???", fbVar.bits_per_pixel);
        return false;
    }
    if (needsColourMap()) {
        return false;  // as init: palette panels are not driven beyond their colour map
    }
    return startDrawing();
}

// The end of start-up shared by a device and a panel in memory: the drawing
// buffer, a black panel and the fonts.
bool LcmGui::startDrawing() {
    if (!createDisplayBuffer()) {
        DRAVIK_LOG(logger::kError, 0, "Failed to create display buffer");
        return false;
    }
    (void)showBuf();  // blanks the panel; the whole-screen copy cannot be refused
    if (!fontRenderer.init()) {
        DRAVIK_LOG(logger::kError, 0, "Failed to load fonts");
        return false;
    }
    return true;
}

void LcmGui::chooseRotation() {
    if (rotationOverride != kRotationUnset) {
        rotation = static_cast<unsigned>(rotationOverride);
    } else if (config.getRotation() != kRotationUnset) {
        rotation = static_cast<unsigned>(config.getRotation());
    } else {
        rotation =
            drm && drmPanel.orientation() >= 0 ? static_cast<unsigned>(drmPanel.orientation()) : 0;
    }
    if (rotation != 0) {
        DRAVIK_LOG(logger::kInfo, 0, "Screen: %ux%u, the panel turned %u degrees", screenWidth(),
                   screenHeight(), rotation);
    }
}

// The largest image a screen on this panel can use is a strip of the most
// slides, each as wide as the panel, or a progress bar of two panel heights
// and an odd row. A file that declares more pixels is refused from its header,
// so a small file cannot make the daemon allocate far more than the panel.
void LcmGui::boundImageSize() {
    const uint64_t area = uint64_t{screenWidth()} * screenHeight();
    const uint64_t maxPixels =
        std::max(area * kMaxSlides, uint64_t{screenWidth()} * (2 * uint64_t{screenHeight()} + 1));
    // False only where the process links the image library's codecs itself (a
    // test program): their own bound then stays, the PNG and JPEG decoders take
    // this one all the same.
    (void)image::setPixelLimit(maxPixels);
}

bool LcmGui::openDevice() {
    fbFd = open(devicePath.c_str(), O_RDWR);
    if (fbFd >= 0) {
        return true;
    }
    // "/dev/dri/card0:DSI-1": a DRM device and the connector to drive.
    const auto separator = devicePath.rfind(kConnectorSeparator);
    if (errno != ENOENT || separator == std::string::npos) {
        return false;
    }
    const std::string path = devicePath.substr(0, separator);
    fbFd = open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fbFd >= 0 && !DrmPanel::isDrmDevice(fbFd)) {
        close(fbFd);
        fbFd = -1;
        errno = ENODEV;
    }
    if (fbFd < 0) {
        return false;
    }
    connector = devicePath.substr(separator + 1);
    devicePath = path;
    return true;
}

// The panel's size, format and line length come from the mode and the buffer
// format chosen; from there on it is a truecolor framebuffer to the engine.
bool LcmGui::startDrm() {
    const int fd = fbFd;
    fbFd = -1;  // drmPanel owns the descriptor from here on
    if (!drmPanel.start(fd, devicePath, connector)) {
        return false;
    }
    drm = true;
    fbVar = drmPanel.panelFormat();
    fbFix = {};
    fbFix.visual = FB_VISUAL_TRUECOLOR;
    fbFix.line_length = drmPanel.lineLength();
    fbSize = drmPanel.bufferSize();
    chooseRotation();
    DRAVIK_LOG(logger::kInfo, 0, "FB: %dx%d, bits_per_pixel %d, fbSize: %d", fbVar.xres, fbVar.yres,
               fbVar.bits_per_pixel, static_cast<int>(fbSize));
    boundImageSize();
    fbMem = drmPanel.beginFrame();
    if (!prepareColourPath()) {
        DRAVIK_LOG(logger::kError, 0, "Oops: %i bit/pixel ???", fbVar.bits_per_pixel);
        return false;
    }
    return true;
}

bool LcmGui::readFixedInfo() {
    return ioctl(fbFd, FBIOGET_FSCREENINFO, &fbFix) >= 0;
}

bool LcmGui::readVariableInfo() {
    return ioctl(fbFd, FBIOGET_VSCREENINFO, &fbVar) >= 0;
}

bool LcmGui::mapMemory() {
    void* mem = mmap(nullptr, fbSize, PROT_READ | PROT_WRITE, MAP_SHARED, fbFd, 0);
    if (mem == MAP_FAILED) {
        fbMem = nullptr;  // so that the destructor has nothing to unmap
        return false;
    }
    fbMem = static_cast<unsigned char*>(mem);
    return true;
}

bool LcmGui::prepareColourPath() {
    struct DepthSetup {
        unsigned depth;
        void (LcmGui::*prepare)(bool directColour);
    };
    static const DepthSetup setups[] = {
        {8, &LcmGui::prepareDepth8},   {15, &LcmGui::prepareDepth16}, {16, &LcmGui::prepareDepth16},
        {24, &LcmGui::prepareDepth24}, {32, &LcmGui::prepareDepth32},
    };
    const bool directColour = fbFix.visual == FB_VISUAL_DIRECTCOLOR;
    for (const auto& setup : setups) {
        if (setup.depth == fbVar.bits_per_pixel) {
            (this->*setup.prepare)(directColour);
            chooseFastLine();
            return true;
        }
    }
    return false;
}

void LcmGui::forgetFastLine() {
    fastLine = nullptr;
    fastTurned = nullptr;
}

void LcmGui::chooseFastLine() {
    forgetFastLine();
    const unsigned depth = fbVar.bits_per_pixel;
    if (depth == 8) {
        if (ditherTakesLowShades() && lowShadesArePaletteIndex884()) {
            fastLine = pixels::toPaletteIndex884;
            fastDepth = depth;
            fastLineMatrixVersion = ditherMatrixVersion;
        }
        return;
    }
    if (std::find(std::begin(kTableDepths), std::end(kTableDepths), depth) ==
        std::end(kTableDepths)) {
        return;
    }
    for (const auto& layout : kFixedLayouts) {
        if (layout.bytes == (depth + 7) / 8 && tablesHold(layout, lutRed, lutGreen, lutBlue)) {
            fastLine = layout.convert;
            fastTurned = layout.convertTurned;
            fastDepth = depth;
            return;
        }
    }
}

bool LcmGui::fastLineHolds(unsigned depth) const {
    return fastLine != nullptr && depth == fastDepth &&
           (depth != 8 || fastLineMatrixVersion == ditherMatrixVersion);
}

void LcmGui::prepareDepth8(bool /*directColour*/) {
    ditherPalette(8, 8, 4);
    initDither(8, 8, 4, 2);
}

void LcmGui::prepareDepth16(bool directColour) {
    if (directColour) {
        linearPalette(5);
    }
    lutInit(fbVar.green.length == 5 ? 15 : 16);
}

void LcmGui::prepareDepth24(bool directColour) {
    if (directColour) {
        linearPalette(8);
    }
}

void LcmGui::prepareDepth32(bool directColour) {
    if (directColour) {
        linearPalette(8);
    }
    lutInit(24);
}

bool LcmGui::needsColourMap() const {
    return fbFix.visual == FB_VISUAL_DIRECTCOLOR || fbVar.bits_per_pixel == 8;
}

bool LcmGui::putColourMap() {
    return ioctl(fbFd, FBIOPUTCMAP, &cmap) >= 0;
}

bool LcmGui::createDisplayBuffer() {
    displayBuf =
        cv::Mat::zeros(static_cast<int>(screenHeight()), static_cast<int>(screenWidth()), CV_8UC3);
    return displayBuf.data != nullptr && displayBuf.total() != 0;
}

bool LcmGui::showStartupScreen(const std::string& guiId, signed char brightness) {
    ShowGui request;
    (void)request.NormalizeFields();  // fills the envelope; an empty object cannot fail
    request.guiId(guiId);
    request.brightness(std::clamp(brightness, kBrightnessKeep, kBrightnessMax));
    return showGui(request, nullptr);
}

void LcmGui::clearBuf() {
    displayBuf.setTo(cv::Scalar::all(0));
}

bool LcmGui::showBuf() {
    return showBuf(0, 0, 0, 0);
}

bool LcmGui::showBuf(unsigned x, unsigned y, unsigned w, unsigned h) {
    if ((w == 0 || h == 0) && (x != 0 || y != 0)) {
        DRAVIK_LOG(logger::kError, 0, "show buffer parameters are not correct: %dx%d at (%d, %d)",
                   w, h, x, y);
        return false;
    }
    if (endsBeyond(x, w, screenWidth()) || endsBeyond(y, h, screenHeight())) {
        DRAVIK_LOG(logger::kError, 0,
                   "show buffer parameters are out of screen: %dx%d at (%d, %d) -> %dx%d", w, h, x,
                   y, screenWidth(), screenHeight());
        return false;
    }
    const auto columns = static_cast<unsigned>(displayBuf.cols);
    const auto rows = static_cast<unsigned>(displayBuf.rows);
    if (w == 0 || h == 0) {
        w = columns;
        h = rows;
    }
    if (static_cast<uint64_t>(std::min(h, rows)) * columns * 3 == 0) {
        return true;
    }
    const PanelRect rect = panelRectOf({x, y, w, std::min(h, rows)});
    if (!drm) {
        convertPanelRect(rect);
        return true;
    }
    // The buffer drawn into may have missed rectangles drawn into the other
    // one; a frame that did not reach the display is drawn once more.
    for (int round = 0; round < 2; ++round) {
        fbMem = drmPanel.beginFrame();
        for (const auto& stale : drmPanel.staleRects()) {
            convertPanelRect(stale);
        }
        convertPanelRect(rect);
        if (drmPanel.present(rect)) {
            break;
        }
    }
    return true;
}

PanelRect LcmGui::panelRectOf(const PanelRect& r) const {
    const unsigned width = screenWidth();
    const unsigned height = screenHeight();
    switch (rotation) {
        case 90:
            return {height - r.y - r.h, r.x, r.h, r.w};
        case 180:
            return {width - r.x - r.w, height - r.y - r.h, r.w, r.h};
        case 270:
            return {r.y, width - r.x - r.w, r.h, r.w};
        default:
            return r;
    }
}

namespace {

// Rows of the drawing buffer converted at a time for a turned panel: a band of
// them stays in the first-level cache while its pixels are put in place.
constexpr unsigned kBandRows = 16;

// Where the turn shows the band's pixels: band row k, column j is the screen's
// pixel (sx0 + j, sy0 + k).
struct Placement {
    unsigned char* panel;
    size_t lineLength;
    unsigned rotation;
    unsigned sx0, sy0, screenW, screenH;
};

// Puts the band's converted pixels of rows [k0, k1) and columns [j0, j1)
// (E bytes each, `stride` bytes a band row) where the turn shows them, one at
// a time: band row k goes to one panel column (90, 270) or, backwards, to one
// panel row (180).
template <size_t E>
void placeOneByOne(const unsigned char* band, size_t stride, unsigned k0, unsigned k1, unsigned j0,
                   unsigned j1, const Placement& p) {
    for (unsigned k = k0; k < k1; ++k) {
        const unsigned char* from = band + k * stride + size_t{j0} * E;
        const unsigned sy = p.sy0 + k;
        const unsigned sx = p.sx0 + j0;
        unsigned char* to = nullptr;
        ptrdiff_t step = 0;
        switch (p.rotation) {
            case 90:  // screen (sx, sy) -> panel (screenH - 1 - sy, sx)
                to = p.panel + size_t{sx} * p.lineLength + size_t{p.screenH - 1 - sy} * E;
                step = static_cast<ptrdiff_t>(p.lineLength);
                break;
            case 180:  // screen (sx, sy) -> panel (screenW - 1 - sx, screenH - 1 - sy)
                to = p.panel + size_t{p.screenH - 1 - sy} * p.lineLength +
                     size_t{p.screenW - 1 - sx} * E;
                step = -static_cast<ptrdiff_t>(E);
                break;
            default:  // 270: screen (sx, sy) -> panel (sy, screenW - 1 - sx)
                to = p.panel + size_t{p.screenW - 1 - sx} * p.lineLength + size_t{sy} * E;
                step = -static_cast<ptrdiff_t>(p.lineLength);
                break;
        }
        for (unsigned j = j0; j < j1; ++j, to += step, from += E) {
            std::memcpy(to, from, E);
        }
    }
}

// Sixteen bytes of pixels: eight of 16 bits or four of 32, moved in registers.
using Lanes16 = tiles::U16x8;
using Lanes32 = tiles::U32x4;

template <typename Lanes>
Lanes load(const unsigned char* at) {
    Lanes v;
    std::memcpy(&v, at, sizeof v);
    return v;
}

template <typename Lanes>
void store(unsigned char* at, Lanes v) {
    std::memcpy(at, &v, sizeof v);
}

Lanes32 reversed(Lanes32 v) {
    return __builtin_shufflevector(v, v, 3, 2, 1, 0);
}

// Eight 16-bit pixels backwards: four pairs backwards, then each pair swapped
// (shifts, which every vector unit has, where a shuffle of 16-bit lanes may
// not be one instruction).
Lanes16 reversed(Lanes16 v) {
    Lanes32 pairs;
    std::memcpy(&pairs, &v, sizeof v);
    pairs = reversed(pairs);
    pairs = (pairs << 16) | (pairs >> 16);
    std::memcpy(&v, &pairs, sizeof v);
    return v;
}

// A tile of N x N pixels whose rows start at row0 (each `step` bytes after the
// one before, or before it when `step` is negative): its columns go to N lines
// starting at `to`, `lineStep` bytes apart.
template <typename Lanes>
DRAVIK_TILE_INLINE void transposeTile(const unsigned char* row0, ptrdiff_t step, unsigned char* to,
                                      ptrdiff_t lineStep) {
    constexpr int N = sizeof(Lanes) / sizeof(Lanes{}[0]);
    Lanes rows[N];
    Lanes columns[N];
#pragma GCC unroll 8
    for (int i = 0; i < N; ++i) {
        rows[i] = load<Lanes>(row0 + i * step);
    }
    tiles::transpose(rows, columns);
#pragma GCC unroll 8
    for (int i = 0; i < N; ++i) {
        store(to + i * lineStep, columns[i]);
    }
}

// The band's pixels N x N at a time (N of them fill sixteen bytes): a half
// turn reverses each run of N pixels of a band row; a quarter turn transposes
// each tile, so that its N band rows become runs of N pixels on N panel lines
// (taken last row first at 90, where they lie backwards). What is left at the
// band's edges goes one pixel at a time.
template <typename Lanes>
void placeInTiles(const unsigned char* band, size_t stride, unsigned rows, unsigned cols,
                  const Placement& p) {
    constexpr size_t E = sizeof(Lanes{}[0]);
    constexpr unsigned N = sizeof(Lanes) / E;
    const unsigned fullCols = cols / N * N;
    const auto line = static_cast<ptrdiff_t>(p.lineLength);
    if (p.rotation == 180) {
        for (unsigned k = 0; k < rows; ++k) {
            unsigned char* to = p.panel + size_t{p.screenH - 1 - p.sy0 - k} * p.lineLength +
                                size_t{p.screenW - p.sx0} * E;
            const unsigned char* from = band + k * stride;
            for (unsigned j = 0; j < fullCols; j += N) {
                store(to - (j + N) * E, reversed(load<Lanes>(from + j * E)));
            }
        }
        placeOneByOne<E>(band, stride, 0, rows, fullCols, cols, p);
        return;
    }
    const unsigned fullRows = rows / N * N;
    const auto rowStep = static_cast<ptrdiff_t>(stride);
    for (unsigned k = 0; k < fullRows; k += N) {
        for (unsigned j = 0; j < fullCols; j += N) {
            const unsigned char* tile = band + k * stride + size_t{j} * E;
            if (p.rotation == 90) {  // column j -> panel line sx, band row k + N - 1 first
                unsigned char* to = p.panel + size_t{p.sx0 + j} * p.lineLength +
                                    size_t{p.screenH - p.sy0 - k - N} * E;
                transposeTile<Lanes>(tile + (N - 1) * stride, -rowStep, to, line);
            } else {  // 270: column j -> panel line screenW - 1 - sx, band row k first
                unsigned char* to = p.panel + size_t{p.screenW - 1 - p.sx0 - j} * p.lineLength +
                                    size_t{p.sy0 + k} * E;
                transposeTile<Lanes>(tile, rowStep, to, -line);
            }
        }
    }
    placeOneByOne<E>(band, stride, 0, fullRows, fullCols, cols, p);
    placeOneByOne<E>(band, stride, fullRows, rows, 0, cols, p);
}

// Reverses `count` pixels of E bytes in place, sixteen bytes from each end at a
// time, the middle one pixel at a time.
template <typename Lanes>
void reverseInPlace(unsigned char* row, unsigned count) {
    constexpr size_t E = sizeof(Lanes{}[0]);
    unsigned char* lo = row;
    unsigned char* hi = row + size_t{count} * E;
    while (hi - lo >= static_cast<ptrdiff_t>(2 * sizeof(Lanes))) {
        hi -= sizeof(Lanes);
        const Lanes a = load<Lanes>(lo);
        const Lanes b = load<Lanes>(hi);
        store(lo, reversed(b));
        store(hi, reversed(a));
        lo += sizeof(Lanes);
    }
    for (hi -= E; lo < hi; lo += E, hi -= E) {
        unsigned char t[E];
        std::memcpy(t, lo, E);
        std::memcpy(lo, hi, E);
        std::memcpy(hi, t, E);
    }
}

void reverseInPlace(unsigned char* row, unsigned count, unsigned bytes) {
    if (bytes == 2) {
        reverseInPlace<Lanes16>(row, count);
    } else {
        reverseInPlace<Lanes32>(row, count);
    }
}

void placeBand(const unsigned char* band, size_t stride, unsigned rows, unsigned cols,
               unsigned bytes, const Placement& p) {
    switch (bytes) {
        case 2:
            placeInTiles<Lanes16>(band, stride, rows, cols, p);
            break;
        case 4:
            placeInTiles<Lanes32>(band, stride, rows, cols, p);
            break;
        default:
            placeOneByOne<3>(band, stride, 0, rows, 0, cols, p);
            break;
    }
}

}  // namespace

// A turned panel of a depth whose pixels convert one by one (all but the
// 8-bit dither, which depends on the place): the screen's rectangle is
// converted a band of rows at a time, as an unturned panel's would be, and the
// band's pixels are then put where the turn shows them.
void LcmGui::convertTurnedByBands(const PanelRect& rect) {
    const PanelRect screen = screenRectOf(rect);
    const unsigned bytes = (fbVar.bits_per_pixel + 7) / 8;
    const size_t stride = size_t{screen.w} * bytes;
    if (rotation != 180 && fastTurned != nullptr && fastLineHolds(fbVar.bits_per_pixel)) {
        convertQuarterTurned(screen);
        return;
    }
    if (turnedLine.size() < stride * kBandRows) {
        turnedLine.resize(stride * kBandRows);
    }
    if (rotation == 180 && bytes != 3) {
        // A half turn keeps each line a line: converted straight into its
        // place on the panel, then reversed there while it is cached.
        for (unsigned k = 0; k < screen.h; ++k) {
            unsigned char* src = displayBuf.ptr<unsigned char>(static_cast<int>(screen.y + k)) +
                                 size_t{screen.x} * 3;
            unsigned char* dst = fbMem + size_t{rect.y + rect.h - 1 - k} * fbFix.line_length +
                                 size_t{rect.x} * bytes;
            (void)convertLine(fbVar.bits_per_pixel, k, screen.w, dst, src);
            reverseInPlace(dst, screen.w, bytes);
        }
        return;
    }
    for (unsigned y = 0; y < screen.h; y += kBandRows) {
        const unsigned rows = std::min(kBandRows, screen.h - y);
        for (unsigned k = 0; k < rows; ++k) {
            unsigned char* src = displayBuf.ptr<unsigned char>(static_cast<int>(screen.y + y + k)) +
                                 size_t{screen.x} * 3;
            (void)convertLine(fbVar.bits_per_pixel, k, screen.w, turnedLine.data() + k * stride,
                              src);
        }
        const Placement place{fbMem,        fbFix.line_length, rotation,      screen.x,
                              screen.y + y, screenWidth(),     screenHeight()};
        placeBand(turnedLine.data(), stride, rows, screen.w, bytes, place);
    }
}

// A quarter turn whose layout has a turned conversion: the screen's lines go
// straight to the panel's columns, read bottom up at 90 degrees (the bottom
// line shows leftmost) and top down at 270, where the leftmost column of the
// screen shows on the panel's last line.
void LcmGui::convertQuarterTurned(const PanelRect& screen) {
    const auto rowBytes = static_cast<ptrdiff_t>(displayBuf.step[0]);
    const auto line = static_cast<ptrdiff_t>(fbFix.line_length);
    const unsigned bytes = (fbVar.bits_per_pixel + 7) / 8;
    const unsigned char* topLeft =
        displayBuf.ptr<unsigned char>(static_cast<int>(screen.y)) + size_t{screen.x} * 3;
    if (rotation == 90) {
        fastTurned(topLeft + ptrdiff_t{screen.h - 1} * rowBytes, -rowBytes, screen.w, screen.h,
                   fbMem + size_t{screen.x} * fbFix.line_length +
                       size_t{screenHeight() - screen.y - screen.h} * bytes,
                   line);
    } else {
        fastTurned(topLeft, rowBytes, screen.w, screen.h,
                   fbMem + size_t{screenWidth() - 1 - screen.x} * fbFix.line_length +
                       size_t{screen.y} * bytes,
                   -line);
    }
}

PanelRect LcmGui::screenRectOf(const PanelRect& r) const {
    const unsigned width = screenWidth();
    const unsigned height = screenHeight();
    switch (rotation) {
        case 90:
            return {r.y, height - r.x - r.w, r.h, r.w};
        case 180:
            return {width - r.x - r.w, height - r.y - r.h, r.w, r.h};
        case 270:
            return {width - r.y - r.h, r.x, r.h, r.w};
        default:
            return r;
    }
}

// Each line of the panel's rectangle is converted from the drawing buffer's
// pixels that the turn puts on it: a row of the buffer read forwards (0) or
// backwards (180), or a column read upwards (90) or downwards (270), gathered
// into one line first. Line numbers count from the rectangle's top, as the
// dither expects of every rectangle.
void LcmGui::convertPanelRect(const PanelRect& rect) {
    if (rotation != 0 && fbVar.bits_per_pixel != 8) {
        convertTurnedByBands(rect);
        return;
    }
    const auto rowBytes = static_cast<ptrdiff_t>(displayBuf.step[0]);
    const unsigned bytesPerPixel = (fbVar.bits_per_pixel + 7) / 8;
    const ptrdiff_t lastColumn = (static_cast<ptrdiff_t>(screenWidth()) - 1) * 3;
    const ptrdiff_t lastRow = (static_cast<ptrdiff_t>(screenHeight()) - 1) * rowBytes;
    if (rotation != 0 && turnedLine.size() < size_t{rect.w} * 3) {
        turnedLine.resize(size_t{rect.w} * 3);
    }
    for (unsigned i = 0; i < rect.h; ++i) {
        const unsigned py = rect.y + i;
        unsigned char* dst =
            fbMem + static_cast<size_t>(py) * fbFix.line_length + size_t{bytesPerPixel} * rect.x;
        const unsigned char* first = nullptr;  // the pixel shown at (rect.x, py)
        ptrdiff_t step = 3;                    // and from one to the next
        switch (rotation) {
            case 90:
                first =
                    displayBuf.data + lastRow - ptrdiff_t{rect.x} * rowBytes + ptrdiff_t{py} * 3;
                step = -rowBytes;
                break;
            case 180:
                first = displayBuf.data + lastRow - ptrdiff_t{py} * rowBytes + lastColumn -
                        ptrdiff_t{rect.x} * 3;
                step = -3;
                break;
            case 270:
                first =
                    displayBuf.data + ptrdiff_t{rect.x} * rowBytes + lastColumn - ptrdiff_t{py} * 3;
                step = rowBytes;
                break;
            default:
                first = displayBuf.data + ptrdiff_t{py} * rowBytes + ptrdiff_t{rect.x} * 3;
                break;
        }
        unsigned char* src = const_cast<unsigned char*>(first);
        if (rotation != 0) {
            src = turnedLine.data();
            for (unsigned k = 0; k < rect.w; ++k, first += step) {
                std::memcpy(src + size_t{k} * 3, first, 3);
            }
        }
        (void)convertLine(fbVar.bits_per_pixel, i, rect.w, dst, src);  // depth checked by init
    }
}

bool LcmGui::getOffsetXY(unsigned& x, unsigned& y, unsigned w, unsigned h, AlignHor alignHor,
                         AlignVert alignVert) {
    const ElementPlace place =
        placementOf(screenWidth(), screenHeight(), x, y, w, h, alignHor, alignVert);
    if (!place.fits) {
        DRAVIK_LOG(logger::kError, 0,
                   "UI image parameters are out of screen: %dx%d at (%d, %d) -> %dx%d", w, h, x, y,
                   screenWidth(), screenHeight());
        return false;
    }
    x = place.x;
    y = place.y;
    return true;
}

// ---- Colour maps, lookup tables and line conversion ----

unsigned short LcmGui::calcGamma(int n, int max) {
    const float ratio = static_cast<float>(n) / static_cast<float>(max);
    const double r = 65535.0 * std::pow(static_cast<double>(ratio), static_cast<double>(1 / gamma));
    if (!(r > 0.0)) {
        return 0;
    }
    if (r >= 65535.0) {
        return 65535;
    }
    return static_cast<unsigned short>(r);
}

void LcmGui::linearPalette(unsigned bits) {
    const unsigned size = 256U >> (8 - bits);
    for (unsigned i = 0; i < size; ++i) {
        const unsigned short value = calcGamma(static_cast<int>(i), static_cast<int>(size));
        palRed[i] = value;
        palGreen[i] = value;
        palBlue[i] = value;
    }
}

void LcmGui::ditherPalette(int r, int g, int b) {
    // Integer steps: red and green top out at 252 for eight shades.
    const int rs = 256 / (r - 1);
    const int gs = 256 / (g - 1);
    const int bs = 256 / (b - 1);
    for (int i = 0; i < 256; ++i) {
        palRed[i] = calcGamma(rs * ((i / (g * b)) % r), 255);
        palGreen[i] = calcGamma(gs * ((i / b) % g), 255);
        palBlue[i] = calcGamma(bs * (i % b), 255);
    }
}

void LcmGui::lutInit(unsigned depth) {
    forgetFastLine();  // chosen again from the new tables by init
    if (fbVar.red.length != 0 && fbVar.green.length != 0 && fbVar.blue.length != 0) {
        initOne(lutRed, fbVar.red.length, fbVar.red.offset);
        initOne(lutGreen, fbVar.green.length, fbVar.green.offset);
        initOne(lutBlue, fbVar.blue.length, fbVar.blue.offset);
        return;
    }
    for (const auto& layout : kFixedLayouts) {
        if (layout.depth != depth) {
            continue;
        }
        const panel::DepthLayout& usual = usualLayout(layout);
        for (uint32_t v = 0; v < 256; ++v) {
            lutRed[v] = panel::placeInChannel(v, usual.red);
            lutGreen[v] = panel::placeInChannel(v, usual.green);
            lutBlue[v] = panel::placeInChannel(v, usual.blue);
        }
    }
}

void LcmGui::initOne(unsigned* table, unsigned bits, unsigned shift) {
    // Offsets come from the device: a shift past the pixel word yields no bits.
    const auto shiftLeft = [](unsigned v, unsigned s) { return s < 32 ? v << s : 0U; };
    forgetFastLine();  // the table may be one a dedicated conversion was checked against
    for (unsigned v = 0; v < 256; ++v) {
        // A channel wider than 8 bits keeps its top bits zero.
        table[v] = bits <= 8 ? shiftLeft(v >> (8 - bits), shift) : shiftLeft(v, shift + bits - 8);
    }
}

unsigned char* LcmGui::convertLine(unsigned depth, unsigned line, unsigned width,
                                   unsigned char* dst, unsigned char* src) {
    if (fastLineHolds(depth)) {
        fastLine(src, dst, width);
        return dst + size_t{width} * ((depth + 7) / 8);
    }
    return convertLineByTables(depth, line, width, dst, src);
}

unsigned char* LcmGui::convertLineByTables(unsigned depth, unsigned line, unsigned width,
                                           unsigned char* dst, unsigned char* src) {
    switch (depth) {
        case 32:
            for (unsigned k = 0; k < width; ++k, src += 3, dst += 4) {
                const uint32_t pixel = lutRed[src[2]] | lutGreen[src[1]] | lutBlue[src[0]];
                std::memcpy(dst, &pixel, sizeof pixel);
            }
            return dst;
        case 24:
            std::memcpy(dst, src, size_t{width} * 3);
            return dst + size_t{width} * 3;
        case 15:
        case 16:
            for (unsigned k = 0; k < width; ++k, src += 3, dst += 2) {
                const auto pixel =
                    static_cast<uint16_t>(lutRed[src[2]] | lutGreen[src[1]] | lutBlue[src[0]]);
                std::memcpy(dst, &pixel, sizeof pixel);
            }
            return dst;
        case 8:
            ditherLine(src, dst, line, width);
            return dst + width;
        default:
            return nullptr;
    }
}

}  // namespace dravik::lcmgui
