// Screen state and animation: taking a new screen, the full redraw at the next
// tick, and the animation levels derived from the clock (driven by the test).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "EngineTest.h"
#include "LcmGui.h"
#include "PrivateGuiPaths.h"
#include "TestImages.h"
#include "dravik_logger/log_capture.h"
#include "dravik_test_support/clock_guard.h"
#include "dravik_test_support/temp_dir.h"

using dravik::logger::LogCapture;
using dravik::testsupport::ClockGuard;
using dravik::testsupport::TempDir;
using namespace dravik::lcmgui;
using namespace dravik::lcmgui::testsupport;

namespace {

auto* const gPaths = PrivateGuiPaths::registerEnvironment();

constexpr uint64_t kStart = 5'000'000;

const cv::Scalar kSlideColours[] = {
    {10, 20, 30}, {40, 50, 60}, {70, 80, 90}, {100, 110, 120}, {130, 140, 150}};

// `count` solid slides of 10 x 10 side by side.
cv::Mat slides(int count) {
    cv::Mat img(10, 10 * count, CV_8UC3);
    for (int i = 0; i < count; ++i) {
        img.colRange(i * 10, i * 10 + 10).setTo(kSlideColours[i]);
    }
    return img;
}

GuiScreenDesc screen(const std::string& file, AnimType type, uint32_t duration, uint16_t count,
                     uint16_t x = 0, uint16_t y = 0) {
    GuiScreenDesc desc;
    desc.img.file = file;
    desc.img.animation = type;
    desc.img.duration = duration;
    desc.img.count = count;
    desc.img.x = x;
    desc.img.y = y;
    return desc;
}

bool loadConfig(GuiConfig& config, const std::string& imgPath, const std::string& backLight = "") {
    const TempDir dir("lcm_gui_animation_");
    return config.fromJSONFile(
        dir.write("screens.json", R"({"imgPath": ")" + imgPath + R"(", "backLightPath": ")" +
                                      backLight + R"(", "screens": [{"name": "any"}]})"));
}

class Animation : public ::testing::Test {
protected:
    void SetUp() override {
        gNow = kStart;
        ASSERT_TRUE(loadConfig(config, "/usr/etc/gui"));
        ASSERT_TRUE(Access::setMemoryPanel(gui, kPanelWidth, kPanelHeight));
        ASSERT_TRUE(Access::initFonts(gui));
    }

    GuiAnimStateDesc& state() { return Access::state(gui); }

    // Runs one tick at `ms` after the start.
    void tickAt(uint64_t ms) {
        gNow = kStart + ms;
        EXPECT_TRUE(gui.service());
    }

    cv::Vec3b panelPixel(int x, int y) {
        const std::vector<uint8_t> bytes = Access::panelBytes(gui);
        const size_t at = (static_cast<size_t>(y) * kPanelWidth + x) * 3;
        return {bytes[at], bytes[at + 1], bytes[at + 2]};
    }

    bool panelIsSentinel() {
        for (const uint8_t byte : Access::panelBytes(gui)) {
            if (byte != kSentinel) {
                return false;
            }
        }
        return true;
    }

    // Sets a screen and runs its full redraw at the start time.
    void show(const GuiScreenDesc& desc) {
        ASSERT_TRUE(gui.setState(desc, kStart));
        tickAt(0);
        ASSERT_FALSE(state().stateChanged);
    }

    ClockGuard clock{testClock};
    GuiConfig config;
    LcmGui gui{config};
};

cv::Vec3b colour(const cv::Scalar& s) {
    return {static_cast<uint8_t>(s[0]), static_cast<uint8_t>(s[1]), static_cast<uint8_t>(s[2])};
}

}  // namespace

TEST_F(Animation, invalid_animation_parameters_keep_the_previous_screen) {
    GuiScreenDesc old = screen("old.png", kAnimSlideshow, 1000, 4);
    old.text.text = "old";
    ASSERT_TRUE(gui.setState(old, 77));
    state().stateChanged = false;
    state().lastLevel = 3;
    const struct {
        AnimType type;
        uint32_t duration;
        uint16_t count;
        const char* message;
    } rows[] = {
        {kAnimBreathing, 99, 0, "Invalid breathe period (99)"},
        {kAnimBreathing, 30001, 0, "Invalid breathe period (30001)"},
        {kAnimSlideshow, 99, 3, "Invalid slideshow duration (99)"},
        {kAnimSlideshow, 30001, 3, "Invalid slideshow duration (30001)"},
        {kAnimSlideshow, 1000, 0, "Invalid slideshow count (0)"},
        {kAnimSlideshow, 1000, 101, "Invalid slideshow count (101)"},
        {kAnimSlideshow, 1000, 65535, "Invalid slideshow count (65535)"},
        {kAnimProgressbar, 99, 0, "Invalid progressbar duration (99)"},
        {kAnimProgressbar, 600001, 0, "Invalid progressbar duration (600001)"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.message);
        LogCapture capture;
        GuiScreenDesc desc = screen("new.png", row.type, row.duration, row.count);
        desc.text.text = "new";
        EXPECT_FALSE(gui.setState(desc, 999));
        EXPECT_TRUE(capture.has(3, row.message));
        EXPECT_EQ(capture.records.at(0).function, "setState");
        EXPECT_EQ(state().textConf.text, "old");
        EXPECT_EQ(state().imgConf.file, "old.png");
        EXPECT_EQ(state().imgConf.duration, 1000U);
        EXPECT_FALSE(state().stateChanged);
        EXPECT_EQ(state().lastLevel, 3U);
        EXPECT_EQ(state().animStart, 77U);
    }
}

TEST_F(Animation, limits_of_animation_parameters_are_accepted) {
    const struct {
        AnimType type;
        uint32_t duration;
        uint16_t count;
    } rows[] = {
        {kAnimBreathing, 100, 0},
        {kAnimBreathing, 30000, 0},
        {kAnimSlideshow, 100, 1},
        {kAnimSlideshow, 30000, 100},
        {kAnimProgressbar, 100, 0},
        {kAnimProgressbar, 600000, 0},
        {kAnimStatic, 0, 0},
        {kAnimStatic, 4000000000U, 0},
        {static_cast<AnimType>(9), 1, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(::testing::Message()
                     << int(row.type) << " " << row.duration << " " << row.count);
        LogCapture capture;
        EXPECT_TRUE(gui.setState(screen("x.png", row.type, row.duration, row.count), 1234));
        EXPECT_TRUE(capture.records.empty());
    }
}

TEST_F(Animation, set_state_stores_the_screen_without_drawing) {
    state().guiId = "kept";
    state().lastLevel = 9;
    Access::fillPanel(gui, kSentinel);
    GuiScreenDesc desc = screen("a.png", kAnimBreathing, 2000, 0, 3, 4);
    desc.text.text = "T";
    desc.text.size = 12;
    EXPECT_TRUE(gui.setState(desc, 4321));
    EXPECT_TRUE(state().stateChanged);
    EXPECT_EQ(state().guiId, "kept");
    EXPECT_EQ(state().lastLevel, 0U);
    EXPECT_EQ(state().animStart, 4321U);
    EXPECT_EQ(state().textConf.text, "T");
    EXPECT_EQ(state().textConf.size, 12);
    EXPECT_EQ(state().imgConf.file, "a.png");
    EXPECT_EQ(state().imgConf.x, 3);
    EXPECT_EQ(state().imgConf.y, 4);
    EXPECT_TRUE(panelIsSentinel());
    EXPECT_TRUE(gui.setState(screen("b.png", kAnimStatic, 2000, 0), 4400));
    EXPECT_EQ(state().animStart, 0U);  // static: nothing to animate
}

TEST_F(Animation, slideshow_levels_share_the_cycle) {
    ASSERT_TRUE(gui.setState(screen("s.png", kAnimSlideshow, 1000, 4), kStart));
    const struct {
        uint64_t ms;
        uint32_t level;
    } rows[] = {{0, 0},   {249, 0}, {250, 1},  {499, 1},  {500, 2},  {749, 2},
                {750, 3}, {999, 3}, {1000, 0}, {1249, 0}, {1250, 1}, {123456, 1}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.ms);
        EXPECT_EQ(Access::animationLevel(gui, kStart + row.ms), row.level);
    }
}

TEST_F(Animation, breathing_follows_the_truncated_sine) {
    ASSERT_TRUE(gui.setState(screen("b.png", kAnimBreathing, 2000, 0), kStart));
    for (const uint64_t phase : {0U, 1U, 1999U, 2000U, 4000U}) {
        EXPECT_EQ(Access::animationLevel(gui, kStart + phase), 50U) << phase;
    }
    uint32_t highest = 0;
    uint32_t lowest = 100;
    int firstTop = -1, lastTop = -1, firstBottom = -1, lastBottom = -1;
    for (int phase = 0; phase < 2000; ++phase) {
        const uint32_t level = Access::animationLevel(gui, kStart + phase);
        highest = std::max(highest, level);
        lowest = std::min(lowest, level);
        if (level == 99) {
            lastTop = phase;
            firstTop = firstTop < 0 ? phase : firstTop;
        }
        if (level == 0) {
            lastBottom = phase;
            firstBottom = firstBottom < 0 ? phase : firstBottom;
        }
    }
    EXPECT_EQ(highest, 99U);  // 100 needs sinf to return exactly 1
    EXPECT_EQ(lowest, 0U);
    EXPECT_NEAR(firstTop, 437, 1);
    EXPECT_NEAR(lastTop, 563, 1);
    EXPECT_NEAR(firstBottom, 1436, 1);
    EXPECT_NEAR(lastBottom, 1562, 1);
}

TEST_F(Animation, progress_bar_fills_once_and_stays_full) {
    REQUIRE_PRIVATE_GUI_PATHS();
    ASSERT_FALSE(writeGuiImage("bar.png", solid(200, 20, cv::Scalar::all(255))).empty());
    show(screen("bar.png", kAnimProgressbar, 10000, 0));
    const struct {
        uint64_t ms;
        uint32_t level;
    } rows[] = {{0, 0},       {50, 1},      {5000, 100},  {9999, 199},
                {10000, 200}, {10001, 200}, {20000, 200}, {1000000000, 200}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.ms);
        EXPECT_EQ(Access::animationLevel(gui, kStart + row.ms), row.level);
    }
}

TEST_F(Animation, first_tick_redraws_in_full_at_level_zero) {
    REQUIRE_PRIVATE_GUI_PATHS();
    ASSERT_FALSE(writeGuiImage("s4.png", slides(4)).empty());
    Access::fillPanel(gui, kSentinel);
    ASSERT_TRUE(gui.setState(screen("s4.png", kAnimSlideshow, 1000, 4), kStart));
    tickAt(600);  // the level would be 2, but a full redraw draws level 0
    EXPECT_FALSE(state().stateChanged);
    EXPECT_EQ(panelPixel(0, 0), colour(kSlideColours[0]));
    EXPECT_EQ(panelPixel(kPanelWidth - 1, kPanelHeight - 1),
              cv::Vec3b(0, 0, 0));  // whole screen shown
    tickAt(600);
    EXPECT_EQ(panelPixel(0, 0), colour(kSlideColours[2]));
}

TEST_F(Animation, slideshow_ticks_show_slides_and_redraw_only_on_change) {
    REQUIRE_PRIVATE_GUI_PATHS();
    ASSERT_FALSE(writeGuiImage("s4.png", slides(4)).empty());
    show(screen("s4.png", kAnimSlideshow, 1000, 4, 20, 10));
    const cv::Rect rect(20, 10, 10, 10);
    const struct {
        uint64_t ms;
        int slide;  // -1: the level did not change, nothing may be written
    } rows[] = {{1, -1},  {249, -1}, {250, 1},  {499, -1},  {500, 2},
                {750, 3}, {999, -1}, {1000, 0}, {1100, -1}, {1250, 1}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.ms);
        Access::fillPanel(gui, kSentinel);
        tickAt(row.ms);
        if (row.slide < 0) {
            EXPECT_TRUE(panelIsSentinel());
            continue;
        }
        // Only the image's rectangle reaches the panel, holding the slide.
        for (int y = 0; y < kPanelHeight; ++y) {
            for (int x = 0; x < kPanelWidth; ++x) {
                const cv::Vec3b expected = rect.contains({x, y})
                                               ? colour(kSlideColours[row.slide])
                                               : cv::Vec3b(kSentinel, kSentinel, kSentinel);
                ASSERT_EQ(panelPixel(x, y), expected) << x << "," << y;
            }
        }
    }
}

TEST_F(Animation, single_slide_and_static_screens_never_redraw) {
    REQUIRE_PRIVATE_GUI_PATHS();
    ASSERT_FALSE(writeGuiImage("s1.png", slides(1)).empty());
    for (const auto& desc :
         {screen("s1.png", kAnimSlideshow, 1000, 1), screen("s1.png", kAnimStatic, 1000, 0)}) {
        SCOPED_TRACE(int(desc.img.animation));
        show(desc);
        EXPECT_EQ(panelPixel(0, 0), colour(kSlideColours[0]));
        Access::fillPanel(gui, kSentinel);
        for (const uint64_t ms : {1U, 300U, 999U, 1000U, 1001U, 77777U, 100000000U}) {
            tickAt(ms);
        }
        EXPECT_TRUE(panelIsSentinel());
    }
}

TEST_F(Animation, breathing_comes_up_at_half_brightness_on_first_tick) {
    REQUIRE_PRIVATE_GUI_PATHS();
    ASSERT_FALSE(writeGuiImage("white.png", solid(8, 8, cv::Scalar::all(255))).empty());
    show(screen("white.png", kAnimBreathing, 2000, 0));
    EXPECT_EQ(panelPixel(0, 0), cv::Vec3b(0, 0, 0));  // level 0: black
    tickAt(0);
    EXPECT_EQ(panelPixel(0, 0), cv::Vec3b(128, 128, 128));  // 255 * 0.5, rounded
    tickAt(500);
    EXPECT_EQ(state().lastLevel, 99U);
    EXPECT_EQ(panelPixel(0, 0), cv::Vec3b(252, 252, 252));  // 255 * 0.99, rounded
    tickAt(1500);
    EXPECT_EQ(panelPixel(0, 0), cv::Vec3b(0, 0, 0));
}

TEST_F(Animation, several_screens_between_ticks_draw_only_the_last) {
    REQUIRE_PRIVATE_GUI_PATHS();
    ASSERT_FALSE(writeGuiImage("last.png", solid(8, 8, cv::Scalar(1, 2, 3))).empty());
    LogCapture capture;
    EXPECT_TRUE(gui.setState(screen("first_missing.png", kAnimStatic, 0, 0), kStart));
    EXPECT_TRUE(gui.setState(screen("second_missing.png", kAnimStatic, 0, 0), kStart));
    EXPECT_TRUE(gui.setState(screen("last.png", kAnimStatic, 0, 0), kStart));
    tickAt(0);
    EXPECT_EQ(panelPixel(0, 0), cv::Vec3b(1, 2, 3));
    EXPECT_EQ(capture.find("Image '/usr/etc/gui/first_missing.png' not found"), nullptr);
    EXPECT_EQ(capture.find("Image '/usr/etc/gui/second_missing.png' not found"), nullptr);
    EXPECT_TRUE(capture.records.empty());
}

TEST_F(Animation, missing_image_leaves_text_only_and_no_animation) {
    GuiScreenDesc desc = screen("absent.png", kAnimSlideshow, 1000, 4);
    desc.text.text = "Hello";
    desc.text.size = 16;
    LogCapture capture;
    EXPECT_TRUE(gui.setState(desc, kStart));  // the request would be answered as a success
    tickAt(0);
    EXPECT_TRUE(capture.has(4, "Image '/usr/etc/gui/absent.png' not found"));
    EXPECT_EQ(state().animStart, 0U);
    EXPECT_TRUE(state().img.empty());
    const std::vector<uint8_t> bytes = Access::panelBytes(gui);
    EXPECT_NE(std::count(bytes.begin(), bytes.end(), 0), static_cast<long>(bytes.size()))
        << "the text was not shown";
    Access::fillPanel(gui, kSentinel);
    tickAt(600);
    EXPECT_TRUE(panelIsSentinel());
}

TEST_F(Animation, image_directory_and_file_are_joined_by_one_more_slash) {
    GuiConfig slashed;
    ASSERT_TRUE(loadConfig(slashed, "/usr/etc/gui/"));
    LcmGui other{slashed};
    ASSERT_TRUE(Access::setMemoryPanel(other, 32, 32));
    LogCapture capture;
    ASSERT_TRUE(other.setState(screen("nope.png", kAnimStatic, 0, 0), kStart));
    EXPECT_TRUE(other.service());
    EXPECT_TRUE(capture.has(4, "Image '/usr/etc/gui//nope.png' not found"));
}

TEST_F(Animation, misplaced_animated_image_retries_at_every_level_change) {
    REQUIRE_PRIVATE_GUI_PATHS();
    ASSERT_FALSE(writeGuiImage("s4.png", slides(4)).empty());
    LogCapture capture;
    show(screen("s4.png", kAnimSlideshow, 1000, 4, kPanelWidth - 5, 0));
    const std::string message =
        "UI image parameters are out of screen: 10x10 at (235, 0) -> 240x64";
    auto count = [&] {
        return std::count_if(capture.records.begin(), capture.records.end(),
                             [&](const auto& r) { return r.message == message; });
    };
    EXPECT_EQ(count(), 1);
    EXPECT_FALSE(state().img.empty());
    EXPECT_NE(state().animStart, 0U);
    tickAt(100);  // same level
    EXPECT_EQ(count(), 1);
    tickAt(300);
    EXPECT_EQ(count(), 2);
    EXPECT_EQ(state().lastLevel, 1U);
    tickAt(400);  // level 1 again: not retried
    EXPECT_EQ(count(), 2);
}

TEST_F(Animation, every_tick_services_the_backlight_first) {
    const TempDir dir("lcm_gui_backlight_");
    dir.write("max_brightness", "255\n");
    GuiConfig withBacklight;
    ASSERT_TRUE(loadConfig(withBacklight, "/usr/etc/gui", dir.path()));
    LcmGui other{withBacklight};
    ASSERT_TRUE(Access::setMemoryPanel(other, 32, 32));
    ASSERT_TRUE(Access::backLight(other).init(dir.path()));
    EXPECT_TRUE(Access::backLight(other).setBrightness(50));
    ASSERT_TRUE(other.setState(screen("", kAnimStatic, 0, 0), kStart));
    EXPECT_TRUE(other.service());  // a redraw tick
    EXPECT_EQ(dir.read("brightness"), std::string("127") + '\0');
    EXPECT_TRUE(Access::backLight(other).setBrightness(100));
    EXPECT_TRUE(other.service());  // a tick with nothing to draw
    EXPECT_EQ(dir.read("brightness"), std::string("255") + '\0');
}

TEST_F(Animation, service_without_screen_does_nothing) {
    Access::fillPanel(gui, kSentinel);
    for (const uint64_t ms : {0U, 1000U, 99999U}) {
        tickAt(ms);
    }
    EXPECT_TRUE(panelIsSentinel());
}
