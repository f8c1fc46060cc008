#include "preview/Panel.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace dravik::preview {
namespace {

TEST(parsePanel, takes_width_height_and_depth_with_the_usual_layout) {
    PanelFormat format;
    std::string error;
    ASSERT_TRUE(parsePanel("320x240x16", format, error)) << error;
    EXPECT_EQ(format.var.xres, 320u);
    EXPECT_EQ(format.var.yres, 240u);
    EXPECT_EQ(format.var.bits_per_pixel, 16u);
    EXPECT_EQ(describe(format), "320x240x16 (r 11/5, g 5/6, b 0/5)");
    ASSERT_TRUE(parsePanel("64x32x15", format, error)) << error;
    EXPECT_EQ(describe(format), "64x32x15 (r 10/5, g 5/5, b 0/5)");
    ASSERT_TRUE(parsePanel("64x32x32", format, error)) << error;
    EXPECT_EQ(describe(format), "64x32x32 (r 16/8, g 8/8, b 0/8)");
}

TEST(parsePanel, refuses_8_bit_panels_with_the_reason) {
    PanelFormat format;
    std::string error;
    EXPECT_FALSE(parsePanel("240x240x8", format, error));
    EXPECT_NE(error.find("ends its start-up"), std::string::npos) << error;
}

TEST(parsePanel, refuses_malformed_and_out_of_range_panels) {
    const char* const bad[] = {"",           "240x240",     "240x240x16x1",
                               "x240x16",    "0x240x16",    "5000x240x16",
                               "240x240x12", "240 x240x16", "99999999999x1x16"};
    for (const char* text : bad) {
        SCOPED_TRACE(text);
        PanelFormat format;
        std::string error;
        EXPECT_FALSE(parsePanel(text, format, error));
        EXPECT_FALSE(error.empty());
    }
}

TEST(parseLayout, takes_offsets_and_lengths_as_a_driver_reports_them) {
    PanelFormat format;
    std::string error;
    ASSERT_TRUE(parsePanel("240x240x32", format, error));
    ASSERT_TRUE(parseLayout("0/8,8/8,16/8", format, error)) << error;
    EXPECT_EQ(describe(format), "240x240x32 (r 0/8, g 8/8, b 16/8)");
    EXPECT_FALSE(parseLayout("0/8,8/8,28/8", format, error));  // ends past 32 bits
    EXPECT_FALSE(parseLayout("0/0,8/8,16/8", format, error));  // a channel without bits
    EXPECT_FALSE(parseLayout("0/8,8/8", format, error));
}

TEST(panelPicture, scales_each_channel_to_8_bits) {
    PanelFormat format;
    std::string error;
    ASSERT_TRUE(parsePanel("2x1x16", format, error));
    const uint8_t memory[] = {0x00, 0xF8, 0xFF, 0xFF};  // pure red, white (little-endian)
    const cv::Mat picture = panelPicture(format.var, memory, 4);
    EXPECT_EQ(picture.at<cv::Vec3b>(0, 0), cv::Vec3b(0, 0, 255));
    EXPECT_EQ(picture.at<cv::Vec3b>(0, 1), cv::Vec3b(255, 255, 255));
}

TEST(panelPicture, reads_24_bit_pixels_as_three_bytes) {
    PanelFormat format;
    std::string error;
    ASSERT_TRUE(parsePanel("1x2x24", format, error));
    const uint8_t memory[] = {0x11, 0x22, 0x33, 0xAA, 0xBB, 0xCC};
    const cv::Mat picture = panelPicture(format.var, memory, 3);
    EXPECT_EQ(picture.at<cv::Vec3b>(0, 0), cv::Vec3b(0x11, 0x22, 0x33));
    EXPECT_EQ(picture.at<cv::Vec3b>(1, 0), cv::Vec3b(0xAA, 0xBB, 0xCC));
}

}  // namespace
}  // namespace dravik::preview
