// Text elements: font geometry and drawing one line of text into the drawing
// buffer, clipped at the right edge and placed by alignment.
#include <gtest/gtest.h>

#include <opencv2/imgproc.hpp>
#include <string>
#include <vector>

#include "LcmGui.h"
#include "LcmGuiTestAccess.h"
#include "TestImages.h"
#include "dravik_logger/log_capture.h"

using dravik::logger::LogCapture;
using namespace dravik::lcmgui;
using Access = LcmGuiTestAccess;

namespace {

constexpr uint8_t kSentinel = 0x5A;

GuiTextConf textConf(std::string text, uint16_t x, uint16_t y, AlignHor hor = kAlignLeft,
                     AlignVert vert = kAlignTop) {
    GuiTextConf conf;
    conf.text = std::move(text);
    conf.x = x;
    conf.y = y;
    conf.alignHor = hor;
    conf.alignVert = vert;
    return conf;
}

// Bounding box of the non-black pixels of `buf` (empty when all black).
cv::Rect inkBox(const cv::Mat& buf) {
    cv::Mat grey;
    cv::cvtColor(buf, grey, cv::COLOR_BGR2GRAY);
    std::vector<cv::Point> points;
    cv::findNonZero(grey, points);
    return points.empty() ? cv::Rect() : cv::boundingRect(points);
}

class Text : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(Access::setMemoryPanel(gui, 128, 64));
        ASSERT_TRUE(Access::initFonts(gui));
        ASSERT_TRUE(measurer.init());
    }

    cv::Mat& buf() { return Access::displayBuf(gui); }

    // The extent of `text` as the font renderer measures it on its own.
    cv::Size measure(const std::string& text, unsigned size, unsigned maxWidth) {
        unsigned lh = 0;
        EXPECT_TRUE(measurer.maxLineHeight(size, lh));
        unsigned w = 0;
        unsigned h = 0;
        EXPECT_TRUE(measurer.lineRender(text, size, nullptr, maxWidth, lh, maxWidth, true, w, h));
        return {static_cast<int>(w), static_cast<int>(h)};
    }

    GuiConfig config;
    LcmGui gui{config};
    FontRenderer measurer;
};

}  // namespace

TEST_F(Text, font_sizes_3_and_100_are_accepted) {
    LcmGui tall{config};
    ASSERT_TRUE(Access::setMemoryPanel(tall, 400, 400));
    ASSERT_TRUE(Access::initFonts(tall));
    EXPECT_TRUE(tall.setFontGeometry(3));
    EXPECT_EQ(Access::fontSize(tall), 3U);
    EXPECT_TRUE(tall.setFontGeometry(100));
    EXPECT_EQ(Access::fontSize(tall), 100U);
}

TEST_F(Text, font_sizes_outside_range_keep_previous_geometry) {
    ASSERT_TRUE(gui.setFontGeometry(12));
    const uint32_t lineHeight = Access::lineHeight(gui);
    for (const unsigned size : {2U, 101U, 0U, 4294967295U}) {
        SCOPED_TRACE(size);
        LogCapture capture;
        EXPECT_FALSE(gui.setFontGeometry(size));
        EXPECT_TRUE(capture.has(3, "Font size " + std::to_string(static_cast<int>(size)) +
                                       " if out of range [3..100]"));
        EXPECT_EQ(capture.records.at(0).function, "setFontGeometry");
        EXPECT_EQ(Access::fontSize(gui), 12U);
        EXPECT_EQ(Access::lineHeight(gui), lineHeight);
    }
}

TEST_F(Text, line_gap_is_an_eighth_of_line_height_at_least_one) {
    LcmGui tall{config};
    ASSERT_TRUE(Access::setMemoryPanel(tall, 400, 400));
    ASSERT_TRUE(Access::initFonts(tall));
    bool seen[3] = {false, false, false};  // line heights 7, 16 and 23
    for (unsigned size = 3; size <= 100; ++size) {
        SCOPED_TRACE(size);
        ASSERT_TRUE(tall.setFontGeometry(size));
        const uint32_t lh = Access::lineHeight(tall);
        unsigned expectedLh = 0;
        ASSERT_TRUE(measurer.maxLineHeight(size, expectedLh));
        EXPECT_EQ(lh, expectedLh);
        EXPECT_EQ(Access::lineGap(tall), lh < 8 ? 1U : lh / 8);
        seen[0] |= lh == 7;
        seen[1] |= lh == 16;
        seen[2] |= lh == 23;
        if (lh == 7) {
            EXPECT_EQ(Access::lineGap(tall), 1U);
        } else if (lh == 16 || lh == 23) {
            EXPECT_EQ(Access::lineGap(tall), 2U);
        }
    }
    EXPECT_TRUE(seen[0] || seen[1] || seen[2]) << "the face gives none of the sample heights";
}

TEST_F(Text, line_taller_than_screen_is_refused) {
    LcmGui flat{config};
    ASSERT_TRUE(Access::setMemoryPanel(flat, 128, 10));
    ASSERT_TRUE(Access::initFonts(flat));
    unsigned lh = 0;
    ASSERT_TRUE(measurer.maxLineHeight(40, lh));
    LogCapture capture;
    EXPECT_FALSE(flat.setFontGeometry(40));
    EXPECT_TRUE(
        capture.has(3, "maxLineHeight (" + std::to_string(lh) + ") is out of screen height (10)"));
    EXPECT_EQ(Access::fontSize(flat), 40U);  // stored before the height test
}

TEST_F(Text, renderer_without_font_cannot_give_a_height) {
    LcmGui bare{config};
    ASSERT_TRUE(Access::setMemoryPanel(bare, 128, 64));
    LogCapture capture;
    EXPECT_FALSE(bare.setFontGeometry(12));
    EXPECT_TRUE(capture.has(3, "Failed to calculate font height"));
    EXPECT_EQ(Access::fontSize(bare), 12U);
}

TEST_F(Text, renderer_without_font_cannot_measure) {
    LcmGui bare{config};
    ASSERT_TRUE(Access::setMemoryPanel(bare, 128, 64));
    LogCapture capture;
    EXPECT_FALSE(bare.renderText(textConf("abc", 0, 0), false, false));
    EXPECT_TRUE(capture.has(3, "Failed to evaluate text dims"));
    EXPECT_EQ(cv::countNonZero(Access::displayBuf(bare).reshape(1)), 0);
}

TEST_F(Text, text_is_drawn_in_white_at_its_position) {
    ASSERT_TRUE(gui.setFontGeometry(16));
    EXPECT_TRUE(gui.renderText(textConf("Hello", 10, 20), false, false));
    const cv::Size size = measure("Hello", 16, 118);
    const cv::Rect box = inkBox(buf());
    ASSERT_FALSE(box.empty());
    EXPECT_TRUE((cv::Rect(10, 20, size.width, size.height) & box) == box) << box;
    // Grey levels only: the three channels are equal everywhere.
    std::vector<cv::Mat> channels;
    cv::split(buf(), channels);
    EXPECT_EQ(cv::countNonZero(channels[0] != channels[1]), 0);
    EXPECT_EQ(cv::countNonZero(channels[1] != channels[2]), 0);
    double maxValue = 0;
    cv::minMaxLoc(channels[0], nullptr, &maxValue);
    EXPECT_EQ(maxValue, 255.0);
}

TEST_F(Text, position_at_screen_width_is_refused) {
    ASSERT_TRUE(gui.setFontGeometry(12));
    LogCapture capture;
    EXPECT_FALSE(gui.renderText(textConf("x", 128, 0), false, false));
    EXPECT_FALSE(gui.renderText(textConf("x", 0, 64), false, false));
    EXPECT_TRUE(capture.has(3, "Text pos (128, 0) is out of screen 128x64"));
    EXPECT_TRUE(capture.has(3, "Text pos (0, 64) is out of screen 128x64"));
    EXPECT_EQ(capture.records.at(0).function, "renderText");
}

TEST_F(Text, last_column_gives_one_column_buffer) {
    ASSERT_TRUE(gui.setFontGeometry(20));
    // Full blocks (U+2588) have ink from their first column on.
    EXPECT_TRUE(gui.renderText(textConf("\u2588\u2588\u2588", 127, 0), false, false));
    const cv::Rect box = inkBox(buf());
    ASSERT_FALSE(box.empty());
    EXPECT_EQ(box.x, 127);
    EXPECT_EQ(box.width, 1);
}

TEST_F(Text, long_text_is_cut_at_right_edge_not_wrapped) {
    ASSERT_TRUE(gui.setFontGeometry(16));
    const std::string text(40, 'W');
    ASSERT_GT(measure(text, 16, 10000).width, 128 - 100);
    EXPECT_TRUE(gui.renderText(textConf(text, 100, 5), false, false));
    const cv::Rect box = inkBox(buf());
    ASSERT_FALSE(box.empty());
    EXPECT_GE(box.x, 100);
    EXPECT_EQ(box.x + box.width, 128);  // ink up to the last column
    EXPECT_LE(box.y + box.height, 5 + static_cast<int>(Access::lineHeight(gui)));  // one line only
}

TEST_F(Text, centred_text_uses_its_clipped_width) {
    ASSERT_TRUE(gui.setFontGeometry(16));
    const std::string text(40, 'W');
    // Centred by the full width the text would not fit; by the clipped width
    // (28 columns) it is placed at (128 - 28 + 100) / 2 = 100.
    EXPECT_TRUE(gui.renderText(textConf(text, 100, 0, kAlignCenter), false, false));
    const cv::Rect box = inkBox(buf());
    ASSERT_FALSE(box.empty());
    EXPECT_GE(box.x, 100);
    EXPECT_EQ(box.x + box.width, 128);
}

TEST_F(Text, centred_short_text_is_centred_by_its_extent) {
    ASSERT_TRUE(gui.setFontGeometry(16));
    const cv::Size size = measure("Hi", 16, 128);
    EXPECT_TRUE(gui.renderText(textConf("Hi", 0, 0, kAlignCenter, kAlignBottom), false, false));
    const cv::Rect expected((128 - size.width) / 2, 64 - size.height, size.width, size.height);
    const cv::Rect box = inkBox(buf());
    ASSERT_FALSE(box.empty());
    EXPECT_TRUE((expected & box) == box) << box << " not within " << expected;
}

TEST_F(Text, line_taller_than_space_below_is_refused) {
    ASSERT_TRUE(gui.setFontGeometry(20));
    LogCapture capture;
    EXPECT_FALSE(gui.renderText(textConf("low", 0, 60), false, false));
    EXPECT_TRUE(capture.has(3, "Can not render line 'low'"));
    EXPECT_EQ(cv::countNonZero(buf().reshape(1)), 0);
}

TEST_F(Text, empty_text_gets_no_buffer) {
    ASSERT_TRUE(gui.setFontGeometry(12));
    LogCapture capture;
    EXPECT_FALSE(gui.renderText(textConf("", 0, 0), false, false));
    EXPECT_TRUE(capture.has(3, "Failed to create text buffer"));
}

TEST_F(Text, text_and_image_add_up_and_saturate) {
    ASSERT_TRUE(gui.setFontGeometry(24));
    buf().setTo(cv::Scalar(200, 100, 0));
    EXPECT_TRUE(gui.renderText(textConf("IIII", 0, 0), false, false));
    // Where the ink is full, every channel is the sum capped at 255.
    cv::Mat white;
    cv::inRange(buf(), cv::Scalar(255, 255, 255), cv::Scalar(255, 255, 255), white);
    EXPECT_GT(cv::countNonZero(white), 0);
    cv::Mat untouched;
    cv::inRange(buf(), cv::Scalar(200, 100, 0), cv::Scalar(200, 100, 0), untouched);
    EXPECT_GT(cv::countNonZero(untouched), 0);
    cv::Mat darker;  // nothing may have become darker than the background
    cv::inRange(buf(), cv::Scalar(0, 0, 0), cv::Scalar(199, 255, 255), darker);
    EXPECT_EQ(cv::countNonZero(darker), 0);
}

TEST_F(Text, clear_blanks_the_text_rectangle_and_show_writes_only_it) {
    ASSERT_TRUE(gui.setFontGeometry(16));
    buf().setTo(cv::Scalar::all(90));
    Access::fillPanel(gui, kSentinel);
    EXPECT_TRUE(gui.renderText(textConf("Hi", 30, 10), true, true));
    const cv::Size size = measure("Hi", 16, 98);
    const cv::Rect rect(30, 10, size.width, size.height);
    // Inside the rectangle: the text on black; outside: the old content.
    cv::Mat outside = buf().clone();
    outside(rect).setTo(cv::Scalar::all(90));
    EXPECT_EQ(cv::countNonZero(outside.reshape(1) != 90), 0);
    const cv::Mat inside = buf()(rect);
    EXPECT_GT(cv::countNonZero(inside.reshape(1) == 0), 0);
    // The panel got exactly that rectangle.
    const std::vector<uint8_t> bytes = Access::panelBytes(gui);
    for (int y = 0; y < 64; ++y) {
        for (int x = 0; x < 128; ++x) {
            for (int c = 0; c < 3; ++c) {
                const uint8_t expected =
                    rect.contains({x, y}) ? buf().at<cv::Vec3b>(y, x)[c] : kSentinel;
                ASSERT_EQ(bytes[(static_cast<size_t>(y) * 128 + x) * 3 + c], expected)
                    << x << "," << y;
            }
        }
    }
}
