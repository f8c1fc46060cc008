#include "FramebufferFixture.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <fstream>
#include <string>
#include <utility>

#include "LcmGui.h"

namespace {

// The patch of the PatchGuard in force; returns false to make the request fail.
std::function<bool(unsigned long request, void* arg)> gIoctlPatch;

}  // namespace

// Every ioctl of this program passes here first; the simulator's (next in the
// lookup order) answers it.
extern "C" int ioctl(int fd, unsigned long request, ...) {
    va_list ap;
    va_start(ap, request);
    void* arg = va_arg(ap, void*);
    va_end(ap);
    using IoctlFn = int (*)(int, unsigned long, ...);
    static auto next = reinterpret_cast<IoctlFn>(dlsym(RTLD_NEXT, "ioctl"));
    const int result = next(fd, request, arg);
    if (result >= 0 && gIoctlPatch && !gIoctlPatch(request, arg)) {
        errno = EINVAL;
        return -1;
    }
    return result;
}

namespace dravik::lcmgui::testsupport {

namespace {

cv::Vec3b patternPixel(int x, int y) {
    return {static_cast<uint8_t>(x * 7 + y * 3), static_cast<uint8_t>(x * 3 + y * 11 + 17),
            static_cast<uint8_t>(255 - x * 5 - y)};
}

uint32_t placeChannel(uint8_t value, const fakefb::Channel& channel) {
    return channel.length >= 8 ? uint32_t{value} << (channel.offset + channel.length - 8)
                               : uint32_t{value} >> (8 - channel.length) << channel.offset;
}

// The bytes that one pixel (B, G, R) must occupy on a panel, by the rules of
// the panel's depth and reported channels.
std::vector<uint8_t> expectedPixel(const fakefb::Geometry& g, cv::Vec3b p) {
    const uint8_t b = p[0], gr = p[1], r = p[2];
    uint32_t word = 0;
    const bool reported = g.red.length != 0 && g.green.length != 0 && g.blue.length != 0;
    switch (g.bpp) {
        case 24:
            return {b, gr, r};
        case 32:
            word = reported ? placeChannel(r, g.red) | placeChannel(gr, g.green) |
                                  placeChannel(b, g.blue)
                            : uint32_t{r} << 16 | uint32_t{gr} << 8 | b;
            return {static_cast<uint8_t>(word), static_cast<uint8_t>(word >> 8),
                    static_cast<uint8_t>(word >> 16), static_cast<uint8_t>(word >> 24)};
        case 15:
        case 16:
            if (reported) {
                word = placeChannel(r, g.red) | placeChannel(gr, g.green) | placeChannel(b, g.blue);
            } else if (g.green.length == 5) {  // 1:5:5:5
                word = (r >> 3) << 10 | (gr >> 3) << 5 | b >> 3;
            } else {  // 5:6:5
                word = (r >> 3) << 11 | (gr >> 2) << 5 | b >> 3;
            }
            return {static_cast<uint8_t>(word), static_cast<uint8_t>(word >> 8)};
        default:
            ADD_FAILURE() << "no rule for depth " << g.bpp;
            return {};
    }
}

void fillFile(const std::string& path, uint64_t size, uint8_t value) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    const std::vector<char> bytes(size, static_cast<char>(value));
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

fakefb::Geometry withoutChannels(fakefb::Geometry g) {
    g.red = {};
    g.green = {};
    g.blue = {};
    return g;
}

fakefb::Geometry padded(fakefb::Geometry g, uint32_t extra) {
    g.lineLength += extra;
    return g;
}

fakefb::Geometry bgr32(uint32_t w, uint32_t h) {
    fakefb::Geometry g = fakefb::Geometry::forDepth(32, w, h);
    g.red = {0, 8};
    g.blue = {16, 8};
    return g;
}

fakefb::Geometry greenOnly5(uint32_t w, uint32_t h) {
    fakefb::Geometry g = fakefb::Geometry::forDepth(16, w, h);
    g.red = {};
    g.green = {5, 5};
    return g;
}

}  // namespace

PatchGuard::PatchGuard(std::function<bool(unsigned long request, void* arg)> patch) {
    gIoctlPatch = std::move(patch);
}

PatchGuard::~PatchGuard() {
    gIoctlPatch = nullptr;
}

void paintPattern(cv::Mat& buf) {
    for (int y = 0; y < buf.rows; ++y) {
        for (int x = 0; x < buf.cols; ++x) {
            buf.at<cv::Vec3b>(y, x) = patternPixel(x, y);
        }
    }
}

void fillPanel(const fakefb::Panel& panel, uint8_t value) {
    const int fd = open(panel.backingFile().c_str(), O_WRONLY);
    ASSERT_GE(fd, 0);
    const std::vector<uint8_t> bytes(panel.geometry().frameSize(), value);
    ASSERT_EQ(pwrite(fd, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    close(fd);
}

void expectPanel(const fakefb::Panel& panel, const cv::Mat& buf, cv::Rect rect) {
    const fakefb::Geometry& g = panel.geometry();
    const std::vector<uint8_t> bytes = panel.bytes();
    ASSERT_EQ(bytes.size(), g.frameSize());
    const uint32_t bpp = g.bytesPerPixel();
    for (uint32_t y = 0; y < g.height; ++y) {
        for (uint32_t at = 0; at < g.lineLength; ++at) {
            const uint32_t x = at / bpp;
            const size_t offset = size_t{y} * g.lineLength + at;
            const bool inside =
                x < g.width && rect.contains(cv::Point(static_cast<int>(x), static_cast<int>(y)));
            const uint8_t expected =
                inside ? expectedPixel(g, buf.at<cv::Vec3b>(static_cast<int>(y),
                                                            static_cast<int>(x)))[at % bpp]
                       : kSentinel;
            ASSERT_EQ(bytes[offset], expected)
                << "byte " << at << " of line " << y << " (x " << x << ", inside " << inside << ")";
        }
    }
}

std::unique_ptr<fakefb::Panel> Framebuffer::makePanel(const fakefb::Geometry& geometry) {
    auto panel = std::make_unique<fakefb::Panel>(kDevice, geometry);
    fillFile(panel->backingFile(), geometry.frameSize(), kSentinel);
    panel->apply();
    return panel;
}

std::vector<DepthCase> depthCases() {
    return {
        {"15 reported 555", fakefb::Geometry::forDepth(15, 23, 9)},
        {"15 without channels (5:6:5 applies)",
         withoutChannels(fakefb::Geometry::forDepth(15, 23, 9))},
        {"16 reported 565", fakefb::Geometry::forDepth(16, 23, 9)},
        {"16 without channels", withoutChannels(fakefb::Geometry::forDepth(16, 23, 9))},
        {"16 green length 5 only (1:5:5:5 applies)", greenOnly5(23, 9)},
        {"24", fakefb::Geometry::forDepth(24, 23, 9)},
        {"32 reported xrgb", fakefb::Geometry::forDepth(32, 23, 9)},
        {"32 without channels", withoutChannels(fakefb::Geometry::forDepth(32, 23, 9))},
        {"32 reported xbgr", bgr32(23, 9)},
        {"16 padded lines", padded(fakefb::Geometry::forDepth(16, 23, 9), 10)},
        {"24 padded lines", padded(fakefb::Geometry::forDepth(24, 23, 9), 7)},
        {"32 padded lines", padded(fakefb::Geometry::forDepth(32, 23, 9), 12)},
    };
}

}  // namespace dravik::lcmgui::testsupport

int main(int argc, char** argv) {
    if (!fakefb::ensurePreloaded(argc, argv)) {
        return 1;
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
