// The display engine on simulated panels: start-up per depth, the colour map of
// palette-based panels, what reaches the panel's memory, and the placement rules.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fb.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "LcmGui.h"
#include "LcmGuiTestAccess.h"
#include "dravik_logger/log_capture.h"
#include "dravik_test_support/temp_dir.h"
#include "fakefb/fakefb.h"

using dravik::lcmgui::GuiConfig;
using dravik::lcmgui::LcmGui;
using dravik::logger::LogCapture;
using dravik::testsupport::TempDir;
using Access = dravik::lcmgui::LcmGuiTestAccess;
using namespace dravik::lcmgui;

namespace {

// Rewrites or refuses what the simulated panel answers, for the cases the
// simulator does not model (a depth it refuses, a zero line length, a failing
// request). Returns false to make the request fail.
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

namespace {

constexpr char kDevice[] = "/dev/fb-engine-test";
constexpr uint8_t kSentinel = 0xA5;

struct PatchGuard {
    explicit PatchGuard(std::function<bool(unsigned long, void*)> patch) {
        gIoctlPatch = std::move(patch);
    }
    ~PatchGuard() { gIoctlPatch = nullptr; }
};

// A known picture: every pixel different in every channel.
cv::Vec3b patternPixel(int x, int y) {
    return {static_cast<uint8_t>(x * 7 + y * 3), static_cast<uint8_t>(x * 3 + y * 11 + 17),
            static_cast<uint8_t>(255 - x * 5 - y)};
}

void paintPattern(cv::Mat& buf) {
    for (int y = 0; y < buf.rows; ++y) {
        for (int x = 0; x < buf.cols; ++x) {
            buf.at<cv::Vec3b>(y, x) = patternPixel(x, y);
        }
    }
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

// Overwrites the panel's memory in place (the engine's mapping sees it).
void fillPanel(const fakefb::Panel& panel, uint8_t value) {
    const int fd = open(panel.backingFile().c_str(), O_WRONLY);
    ASSERT_GE(fd, 0);
    const std::vector<uint8_t> bytes(panel.geometry().frameSize(), value);
    ASSERT_EQ(pwrite(fd, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    close(fd);
}

// Compares the panel with the drawing buffer inside `rect` and with the
// sentinel everywhere else (padding included); reports the first mismatch.
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

class Framebuffer : public ::testing::Test {
protected:
    void TearDown() override {
        fakefb::Panel::clearAll();
        LcmGui::resetDitherMatrix();
    }

    // A panel whose memory holds the sentinel before the engine opens it.
    std::unique_ptr<fakefb::Panel> makePanel(const fakefb::Geometry& geometry) {
        auto panel = std::make_unique<fakefb::Panel>(kDevice, geometry);
        fillFile(panel->backingFile(), geometry.frameSize(), kSentinel);
        panel->apply();
        return panel;
    }

    GuiConfig config;
};

struct DepthCase {
    const char* name;
    fakefb::Geometry geometry;
};

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

}  // namespace

TEST_F(Framebuffer, init_per_depth_blanks_the_panel_and_logs_geometry) {
    for (const auto& c : depthCases()) {
        SCOPED_TRACE(c.name);
        auto panel = makePanel(c.geometry);
        LogCapture capture;
        LcmGui gui(config);
        ASSERT_TRUE(gui.init(kDevice, "", -1));
        EXPECT_TRUE(capture.has(6, "FB: 23x9, bits_per_pixel " + std::to_string(c.geometry.bpp) +
                                       ", fbSize: " + std::to_string(c.geometry.frameSize())));
        EXPECT_EQ(Access::fbSize(gui), c.geometry.frameSize());
        EXPECT_EQ(Access::devicePath(gui), kDevice);
        cv::Mat& buf = Access::displayBuf(gui);
        ASSERT_EQ(buf.rows, 9);
        ASSERT_EQ(buf.cols, 23);
        ASSERT_EQ(buf.type(), CV_8UC3);
        ASSERT_TRUE(buf.isContinuous());
        EXPECT_EQ(cv::countNonZero(buf.reshape(1)), 0);
        // Black on every visible pixel; the padding keeps what it held.
        expectPanel(*panel, buf, cv::Rect(0, 0, 23, 9));
        EXPECT_EQ(panel->putCmapCount(), 0U);
    }
}

TEST_F(Framebuffer, drawing_buffer_reaches_panel_by_conversion_rules) {
    for (const auto& c : depthCases()) {
        SCOPED_TRACE(c.name);
        auto panel = makePanel(c.geometry);
        LcmGui gui(config);
        ASSERT_TRUE(gui.init(kDevice, "", -1));
        paintPattern(Access::displayBuf(gui));
        EXPECT_TRUE(gui.showBuf());
        expectPanel(*panel, Access::displayBuf(gui), cv::Rect(0, 0, 23, 9));
    }
}

TEST_F(Framebuffer, rectangle_update_touches_only_its_rectangle) {
    const struct {
        unsigned x, y, w, h;
    } rects[] = {{3, 2, 5, 4}, {0, 0, 1, 1}, {22, 8, 1, 1}, {10, 0, 13, 9}, {0, 5, 23, 1}};
    for (const auto& c : depthCases()) {
        for (const auto& r : rects) {
            SCOPED_TRACE(::testing::Message() << c.name << ", " << r.w << "x" << r.h << " at ("
                                              << r.x << ", " << r.y << ")");
            auto panel = makePanel(c.geometry);
            LcmGui gui(config);
            ASSERT_TRUE(gui.init(kDevice, "", -1));
            fillPanel(*panel, kSentinel);
            paintPattern(Access::displayBuf(gui));
            EXPECT_TRUE(gui.showBuf(r.x, r.y, r.w, r.h));
            expectPanel(*panel, Access::displayBuf(gui),
                        cv::Rect(static_cast<int>(r.x), static_cast<int>(r.y),
                                 static_cast<int>(r.w), static_cast<int>(r.h)));
        }
    }
}

TEST_F(Framebuffer, show_buf_checks_its_arguments) {
    auto panel = makePanel(fakefb::Geometry::forDepth(24, 23, 9));
    LcmGui gui(config);
    ASSERT_TRUE(gui.init(kDevice, "", -1));
    paintPattern(Access::displayBuf(gui));
    struct Row {
        unsigned x, y, w, h;
        bool ok;
        const char* message;
    };
    const Row rows[] = {
        {5, 0, 0, 0, false, "show buffer parameters are not correct: 0x0 at (5, 0)"},
        {0, 3, 4, 0, false, "show buffer parameters are not correct: 4x0 at (0, 3)"},
        {0, 0, 24, 1, false, "show buffer parameters are out of screen: 24x1 at (0, 0) -> 23x9"},
        {1, 0, 23, 9, false, "show buffer parameters are out of screen: 23x9 at (1, 0) -> 23x9"},
        {0, 5, 1, 5, false, "show buffer parameters are out of screen: 1x5 at (0, 5) -> 23x9"},
        {4294967295U, 0, 2, 1, false,
         "show buffer parameters are out of screen: 2x1 at (-1, 0) -> 23x9"},  // no wrapping sum
        {0, 4294967295U, 1, 2, false,
         "show buffer parameters are out of screen: 1x2 at (0, -1) -> 23x9"},
        {22, 8, 1, 1, true, nullptr},
        {0, 0, 23, 9, true, nullptr},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(::testing::Message()
                     << row.w << "x" << row.h << " at (" << row.x << ", " << row.y << ")");
        fillPanel(*panel, kSentinel);
        LogCapture capture;
        EXPECT_EQ(gui.showBuf(row.x, row.y, row.w, row.h), row.ok);
        if (row.message != nullptr) {
            EXPECT_TRUE(capture.has(3, row.message));
            ASSERT_EQ(capture.records.size(), 1U);
            EXPECT_EQ(capture.records[0].function, "showBuf");
            // Refused: nothing was written.
            expectPanel(*panel, Access::displayBuf(gui), cv::Rect());
        } else {
            EXPECT_TRUE(capture.records.empty());
        }
    }
}

TEST_F(Framebuffer, zero_size_at_origin_copies_whole_screen) {
    auto panel = makePanel(fakefb::Geometry::forDepth(16, 23, 12));
    LcmGui gui(config);
    ASSERT_TRUE(gui.init(kDevice, "", -1));
    paintPattern(Access::displayBuf(gui));
    for (const auto& [w, h] : {std::pair{0U, 0U}, std::pair{0U, 10U}, std::pair{5U, 0U}}) {
        SCOPED_TRACE(::testing::Message() << w << "x" << h);
        fillPanel(*panel, kSentinel);
        EXPECT_TRUE(gui.showBuf(0, 0, w, h));
        expectPanel(*panel, Access::displayBuf(gui), cv::Rect(0, 0, 23, 12));
    }
}

TEST_F(Framebuffer, get_offset_xy_places_by_alignment) {
    auto panel = makePanel(fakefb::Geometry::forDepth(24, 240, 120));
    LcmGui gui(config);
    ASSERT_TRUE(gui.init(kDevice, "", -1));
    struct Row {
        unsigned x, y, w, h;
        AlignHor hor;
        AlignVert vert;
        bool ok;
        unsigned ex, ey;
    };
    const Row rows[] = {
        {0, 0, 100, 20, kAlignCenter, kAlignTop, true, 70, 0},
        {20, 0, 100, 20, kAlignCenter, kAlignTop, true, 80, 0},  // half the offset
        {7, 9, 100, 20, kAlignLeft, kAlignTop, true, 7, 9},
        {30, 0, 100, 20, kAlignRight, kAlignTop, true, 140, 0},  // the offset is ignored
        {0, 0, 100, 20, kAlignLeft, kAlignMiddle, true, 0, 50},
        {0, 10, 100, 20, kAlignLeft, kAlignMiddle, true, 0, 55},
        {0, 40, 100, 20, kAlignLeft, kAlignBottom, true, 0, 100},
        {140, 100, 100, 20, kAlignRight, kAlignBottom, true, 140, 100},  // ends at the edges
        {0, 0, 240, 120, kAlignCenter, kAlignMiddle, true, 0, 0},
        {5, 0, 100, 20, static_cast<AlignHor>(7), static_cast<AlignVert>(9), true, 140, 100},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(::testing::Message()
                     << row.w << "x" << row.h << " at (" << row.x << ", " << row.y << ") align "
                     << int(row.hor) << "/" << int(row.vert));
        unsigned x = row.x;
        unsigned y = row.y;
        EXPECT_EQ(gui.getOffsetXY(x, y, row.w, row.h, row.hor, row.vert), row.ok);
        EXPECT_EQ(x, row.ex);
        EXPECT_EQ(y, row.ey);
    }
}

TEST_F(Framebuffer, get_offset_xy_checks_the_given_position_before_aligning) {
    auto panel = makePanel(fakefb::Geometry::forDepth(24, 240, 120));
    LcmGui gui(config);
    ASSERT_TRUE(gui.init(kDevice, "", -1));
    const struct {
        unsigned x, y, w, h;
        AlignHor hor;
        AlignVert vert;
        const char* message;
    } rows[] = {
        {141, 0, 100, 20, kAlignRight, kAlignTop,
         "UI image parameters are out of screen: 100x20 at (141, 0) -> 240x120"},
        {0, 101, 10, 20, kAlignLeft, kAlignBottom,
         "UI image parameters are out of screen: 10x20 at (0, 101) -> 240x120"},
        {0, 0, 241, 1, kAlignCenter, kAlignTop,
         "UI image parameters are out of screen: 241x1 at (0, 0) -> 240x120"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.message);
        LogCapture capture;
        unsigned x = row.x;
        unsigned y = row.y;
        EXPECT_FALSE(gui.getOffsetXY(x, y, row.w, row.h, row.hor, row.vert));
        EXPECT_EQ(x, row.x);
        EXPECT_EQ(y, row.y);
        EXPECT_TRUE(capture.has(3, row.message));
        ASSERT_FALSE(capture.records.empty());
        EXPECT_EQ(capture.records[0].function, "getOffsetXY");
    }
}

TEST_F(Framebuffer, palette_panel_gets_dither_colour_map_then_init_fails) {
    auto panel = makePanel(fakefb::Geometry::forDepth(8, 16, 8));
    LcmGui gui(config);
    LogCapture capture;
    EXPECT_FALSE(gui.init(kDevice, "", -1));
    const fakefb::ColourMap map = panel->colourMap();
    EXPECT_EQ(map.writes, 1U);
    ASSERT_EQ(map.red.size(), 256U);
    for (unsigned i = 0; i < 256; ++i) {
        SCOPED_TRACE(i);
        // Levels 36 apart for red and green (to 252), 85 apart for blue; 65535 = 255 * 257.
        ASSERT_EQ(map.red[i], 36 * (i / 32) * 257);
        ASSERT_EQ(map.green[i], 36 * ((i / 4) % 8) * 257);
        ASSERT_EQ(map.blue[i], 85 * (i % 4) * 257);
    }
    // Start-up ends after the colour map: no drawing buffer, the panel untouched.
    EXPECT_TRUE(Access::displayBuf(gui).empty());
    expectPanel(*panel, cv::Mat(), cv::Rect());
    for (const auto& record : capture.records) {
        EXPECT_NE(record.level, 3) << record.message;  // no failure message
    }
}

TEST_F(Framebuffer, palette_panel_dithers_lines_to_palette_indices) {
    // The path a palette panel would take had start-up gone on.
    auto panel = makePanel(fakefb::Geometry::forDepth(8, 16, 8));
    LcmGui gui(config);
    EXPECT_FALSE(gui.init(kDevice, "", -1));
    Access::displayBuf(gui) = cv::Mat(8, 16, CV_8UC3, cv::Scalar(255, 255, 255));
    EXPECT_TRUE(gui.showBuf(0, 0, 16, 8));
    const std::vector<uint8_t> bytes = panel->bytes();
    for (size_t i = 0; i < bytes.size(); ++i) {
        ASSERT_EQ(bytes[i], 218) << i;
    }
}

TEST_F(Framebuffer, direct_colour_panels_get_linear_colour_map_then_init_fails) {
    const struct {
        uint32_t bpp;
        unsigned entries;
    } rows[] = {{15, 32}, {16, 32}, {24, 256}, {32, 256}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.bpp);
        fakefb::Geometry g = fakefb::Geometry::forDepth(row.bpp, 16, 8);
        g.visual = fakefb::Visual::directcolor;
        auto panel = makePanel(g);
        LcmGui gui(config);
        EXPECT_FALSE(gui.init(kDevice, "", -1));
        const fakefb::ColourMap map = panel->colourMap();
        EXPECT_EQ(map.writes, 1U);
        ASSERT_EQ(map.red.size(), 256U);
        for (unsigned i = 0; i < 256; ++i) {
            const unsigned expected = i < row.entries ? 65535U * i / row.entries : 0U;
            ASSERT_EQ(map.red[i], expected) << i;
            ASSERT_EQ(map.green[i], expected) << i;
            ASSERT_EQ(map.blue[i], expected) << i;
        }
        EXPECT_TRUE(Access::displayBuf(gui).empty());
    }
}

TEST_F(Framebuffer, refused_colour_map_is_reported) {
    fakefb::Geometry g = fakefb::Geometry::forDepth(8, 16, 8);
    g.visual = fakefb::Visual::truecolor;  // the kernel refuses a map on truecolor
    auto panel = makePanel(g);
    LogCapture capture;
    LcmGui gui(config);
    EXPECT_FALSE(gui.init(kDevice, "", -1));
    EXPECT_TRUE(capture.has(3, "ioctl FBIOPUTCMAP"));
    EXPECT_EQ(panel->putCmapCount(), 0U);
}

TEST_F(Framebuffer, unsupported_depth_is_refused) {
    auto panel = makePanel(fakefb::Geometry::forDepth(16, 16, 8));
    PatchGuard patch([](unsigned long request, void* arg) {
        if (request == FBIOGET_VSCREENINFO) {
            static_cast<fb_var_screeninfo*>(arg)->bits_per_pixel = 12;
        }
        return true;
    });
    LogCapture capture;
    LcmGui gui(config);
    EXPECT_FALSE(gui.init(kDevice, "", -1));
    EXPECT_TRUE(capture.has(3, "Oops: 12 bit/pixel ???"));
    EXPECT_TRUE(Access::displayBuf(gui).empty());
}

TEST_F(Framebuffer, failed_mapping_leaves_nothing_to_unmap) {
    auto panel = makePanel(fakefb::Geometry::forDepth(16, 16, 8));
    PatchGuard patch([](unsigned long request, void* arg) {
        if (request == FBIOGET_FSCREENINFO) {
            static_cast<fb_fix_screeninfo*>(arg)->line_length = 0;  // a mapping of 0 bytes
        }
        return true;
    });
    LogCapture capture;
    auto gui = std::make_unique<LcmGui>(config);
    EXPECT_FALSE(gui->init(kDevice, "", -1));
    EXPECT_TRUE(capture.has(3, "mmap failed"));
    EXPECT_EQ(Access::fbMem(*gui), nullptr);
    gui.reset();  // must not unmap anything
}

TEST_F(Framebuffer, missing_device_is_reported) {
    LogCapture capture;
    LcmGui gui(config);
    EXPECT_FALSE(gui.init("/nonexistent/fb7", "", -1));
    EXPECT_TRUE(capture.has(3, "Unable to open /nonexistent/fb7"));
    ASSERT_EQ(capture.records.size(), 2U);  // the backlight's debug line, then this
    EXPECT_EQ(capture.records[1].function, "init");
    EXPECT_EQ(Access::fbFd(gui), -1);
}

TEST_F(Framebuffer, device_that_is_no_framebuffer_is_reported) {
    char path[] = "/tmp/not_a_framebuffer_XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    LogCapture capture;
    {
        LcmGui gui(config);
        EXPECT_FALSE(gui.init(path, "", -1));
    }
    unlink(path);
    EXPECT_TRUE(capture.has(3, "Get fixed screen info failed"));
}

TEST_F(Framebuffer, failing_variable_info_is_reported) {
    auto panel = makePanel(fakefb::Geometry::forDepth(16, 16, 8));
    PatchGuard patch([](unsigned long request, void*) { return request != FBIOGET_VSCREENINFO; });
    LogCapture capture;
    LcmGui gui(config);
    EXPECT_FALSE(gui.init(kDevice, "", -1));
    EXPECT_TRUE(capture.has(3, "Unable to retrieve variable screen info"));
    EXPECT_FALSE(capture.has(3, "Get fixed screen info failed"));
}

TEST_F(Framebuffer, empty_device_keeps_default_path) {
    fakefb::Panel panel("/dev/fb2", fakefb::Geometry::forDepth(16, 16, 8));
    panel.apply();  // the simulated /dev/fb2: no real device is opened
    LcmGui gui(config);
    ASSERT_TRUE(gui.init("", "", -1));
    EXPECT_EQ(Access::devicePath(gui), "/dev/fb2");
    EXPECT_EQ(panel.bytes().size(), panel.geometry().frameSize());
}

TEST_F(Framebuffer, backlight_failure_stops_start_up_before_the_device) {
    const TempDir dir("backlight_");  // holds no max_brightness
    const std::string json =
        dir.write("screens.json", R"({"imgPath": "/usr/etc/gui", "backLightPath": ")" + dir.path() +
                                      R"(", "screens": [{"name": "a"}]})");
    GuiConfig withBacklight;
    ASSERT_TRUE(withBacklight.fromJSONFile(json));
    auto panel = makePanel(fakefb::Geometry::forDepth(16, 16, 8));
    LogCapture capture;
    {
        LcmGui gui(withBacklight);
        EXPECT_FALSE(gui.init(kDevice, "", -1));
        EXPECT_TRUE(capture.has(3, "Unable to init backlight"));
        EXPECT_EQ(Access::fbFd(gui), -1);
    }
}

TEST_F(Framebuffer, start_up_screen_and_brightness_go_through_show_gui) {
    // A backlight directory with a maximum of 255 and a text-only "boot" screen.
    const TempDir dir("startup_backlight_");
    dir.write("max_brightness", "255\n");
    const auto loadScreens = [&](GuiConfig& conf, const std::string& backLightPath) {
        return conf.fromJSONFile(dir.write(
            "screens.json", R"({"imgPath": "/usr/etc/gui", "backLightPath": ")" + backLightPath +
                                R"(", "screens": [{"name": "boot", "text": )"
                                R"({"str": "BOOT", "size": 12, "x": 2, "y": 3}}]})"));
    };
    GuiConfig withBacklight;
    GuiConfig withoutBacklight;
    ASSERT_TRUE(loadScreens(withBacklight, dir.path()));
    ASSERT_TRUE(loadScreens(withoutBacklight, ""));
    const auto written = [&] { return dir.read("brightness"); };

    const auto raw = [](const char* digits) { return std::string(digits) + '\0'; };
    const struct {
        const char* name;
        bool backlight;
        signed char brightness;
        bool ok;
        const char* shown;    // guiId after init
        std::string written;  // the backlight file after the first tick
        const char* warning;  // level 4 message, if any
    } rows[] = {
        {"boot", true, 80, true, "boot", raw("204"), nullptr},
        // A device without backlight fails every show command; the screen is still shown.
        {"boot", false, 80, false, "boot", "", nullptr},
        {"boot", false, -1, false, "boot", "", nullptr},
        {"nosuch", true, 40, false, "", raw("102"), "Could not find gui id 'nosuch'"},
        {"", true, 40, true, "", raw("102"), nullptr},
        {"", true, 120, true, "", raw("255"), nullptr},  // at most 100 %
        {"boot", true, -5, true, "boot", "", nullptr},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(::testing::Message() << "'" << row.name << "' brightness "
                                          << int(row.brightness) << " backlight " << row.backlight);
        auto panel = makePanel(fakefb::Geometry::forDepth(24, 64, 24));
        LogCapture capture;
        LcmGui gui(row.backlight ? withBacklight : withoutBacklight);
        EXPECT_EQ(gui.init(kDevice, row.name, row.brightness), row.ok);
        EXPECT_EQ(Access::state(gui).guiId, row.shown);
        EXPECT_EQ(Access::state(gui).stateChanged, std::string(row.shown) == "boot");
        if (row.warning != nullptr) {
            EXPECT_TRUE(capture.has(4, row.warning));
        }
        EXPECT_TRUE(gui.service());
        EXPECT_EQ(written(), row.written);

        // On the panel: the screen's text and nothing else, or black.
        const cv::Mat shown = Access::displayBuf(gui).clone();
        gui.clearBuf();
        if (std::string(row.shown) == "boot") {
            EXPECT_GT(cv::countNonZero(shown.reshape(1)), 0);
            ASSERT_TRUE(gui.setFontGeometry(12));
            bool found = false;
            const GuiScreenDesc& boot = withBacklight.getScreenDesc("boot", found);
            ASSERT_TRUE(found);
            ASSERT_TRUE(gui.renderText(boot.text, false, false));
        }
        const cv::Mat differs = Access::displayBuf(gui) != shown;
        EXPECT_EQ(cv::countNonZero(differs.reshape(1)), 0);
        expectPanel(*panel, shown, cv::Rect(0, 0, 64, 24));
        (void)unlink(dir.file("brightness").c_str());  // each row starts without one
    }
}

TEST_F(Framebuffer, destructor_leaves_pixels_and_closes_device) {
    auto panel = makePanel(fakefb::Geometry::forDepth(32, 16, 8));
    int fd = -1;
    {
        LcmGui gui(config);
        ASSERT_TRUE(gui.init(kDevice, "", -1));
        fd = Access::fbFd(gui);
        ASSERT_GE(fd, 0);
        paintPattern(Access::displayBuf(gui));
        ASSERT_TRUE(gui.showBuf());
    }
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    cv::Mat expected(8, 16, CV_8UC3);
    paintPattern(expected);
    expectPanel(*panel, expected, cv::Rect(0, 0, 16, 8));
}

int main(int argc, char** argv) {
    if (!fakefb::ensurePreloaded(argc, argv)) {
        return 1;
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
