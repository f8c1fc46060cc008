// The display engine's start-up on simulated panels: per depth, and the devices,
// depths and backlights it refuses; the start-up screen and brightness.
#include <gtest/gtest.h>
#include <linux/fb.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "FramebufferFixture.h"
#include "LcmGui.h"
#include "dravik_test_support/temp_dir.h"

using dravik::testsupport::TempDir;
using namespace dravik::lcmgui;
using namespace dravik::lcmgui::testsupport;

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
