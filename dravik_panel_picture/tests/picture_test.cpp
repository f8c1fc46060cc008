#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "dravik_panel_picture/layout.h"
#include "dravik_panel_picture/picture.h"

namespace {

namespace panel = dravik::panel;
using panel::layoutForDepth;
using panel::panelPicture;

// A panel of the usual layout of `bpp`, without padding.
panel::PanelMemoryFormat formatOf(uint32_t bpp, uint32_t width, uint32_t height) {
    const auto* layout = layoutForDepth(bpp);
    return {width,
            height,
            bpp,
            layout->red,
            layout->green,
            layout->blue,
            width * ((bpp + 7) / 8),
            layout->palette ? panel::PixelLookup::palette : panel::PixelLookup::direct};
}

TEST(layoutForDepth, knows_the_five_depths_and_no_other) {
    for (const uint32_t bpp : {8U, 15U, 16U, 24U, 32U}) {
        SCOPED_TRACE(bpp);
        ASSERT_NE(layoutForDepth(bpp), nullptr);
        EXPECT_EQ(layoutForDepth(bpp)->palette, bpp == 8);
    }
    EXPECT_EQ(layoutForDepth(12), nullptr);
    EXPECT_EQ(layoutForDepth(16)->green.length, 6U);
    EXPECT_EQ(layoutForDepth(15)->red.offset, 10U);
}

TEST(placeInChannel, keeps_the_top_bits_of_a_colour_value) {
    const auto* rgb565 = layoutForDepth(16);
    EXPECT_EQ(dravik::panel::placeInChannel(0xFF, rgb565->red), 0xF800U);
    EXPECT_EQ(dravik::panel::placeInChannel(0xFF, rgb565->green), 0x07E0U);
    EXPECT_EQ(dravik::panel::placeInChannel(0x87, rgb565->blue), 0x10U);
}

TEST(panelPicture, scales_each_channel_to_8_bits_rounded) {
    // RGB565: full red; green 0x20 of 0x3F; blue 1 of 0x1F; padded lines.
    panel::PanelMemoryFormat format = formatOf(16, 1, 2);
    format.lineLength = 4;
    const uint16_t pixel = 0xF800 | (0x20 << 5) | 0x01;
    const unsigned char memory[] = {pixel & 0xFF, pixel >> 8, 0xAA, 0xAA, 0, 0, 0xAA, 0xAA};
    const cv::Mat picture = panelPicture(format, memory);
    ASSERT_EQ(picture.type(), CV_8UC3);
    EXPECT_EQ(picture.at<cv::Vec3b>(0, 0), cv::Vec3b(8, 130, 255));
    EXPECT_EQ(picture.at<cv::Vec3b>(1, 0), cv::Vec3b(0, 0, 0));
}

TEST(panelPicture, reads_24_bit_pixels_as_three_bytes) {
    const panel::PanelMemoryFormat format = formatOf(24, 2, 1);
    const unsigned char memory[] = {1, 2, 3, 4, 5, 6};  // B, G, R per pixel
    const cv::Mat picture = panelPicture(format, memory);
    EXPECT_EQ(picture.at<cv::Vec3b>(0, 0), cv::Vec3b(1, 2, 3));
    EXPECT_EQ(picture.at<cv::Vec3b>(0, 1), cv::Vec3b(4, 5, 6));
}

TEST(panelPicture, looks_palette_indices_up_in_the_colour_map) {
    const panel::PanelMemoryFormat format = formatOf(8, 3, 1);
    const uint16_t red[] = {0x1234, 0xFF00};
    const uint16_t green[] = {0x5678, 0x0100};
    const uint16_t blue[] = {0x9ABC, 0x8000};
    const panel::ColourMap map{red, green, blue, 2};
    const unsigned char memory[] = {0, 1, 2};
    const cv::Mat picture = panelPicture(format, memory, &map);
    EXPECT_EQ(picture.at<cv::Vec3b>(0, 0), cv::Vec3b(0x9A, 0x56, 0x12));
    EXPECT_EQ(picture.at<cv::Vec3b>(0, 1), cv::Vec3b(0x80, 0x01, 0xFF));
    EXPECT_EQ(picture.at<cv::Vec3b>(0, 2), cv::Vec3b(0, 0, 0));  // beyond the map
}

TEST(panelPicture, looks_each_channel_up_in_its_column_of_the_map) {
    panel::PanelMemoryFormat format = formatOf(16, 1, 1);
    format.lookup = panel::PixelLookup::channels;
    std::vector<uint16_t> red(64), green(64), blue(64);
    red[3] = 0x4100;
    green[5] = 0x4200;
    blue[7] = 0x4300;
    const panel::ColourMap map{red.data(), green.data(), blue.data(), 64};
    const uint16_t pixel = (3 << 11) | (5 << 5) | 7;
    const unsigned char memory[] = {pixel & 0xFF, pixel >> 8};
    EXPECT_EQ(panelPicture(format, memory, &map).at<cv::Vec3b>(0, 0), cv::Vec3b(0x43, 0x42, 0x41));
    EXPECT_EQ(panelPicture(format, memory).at<cv::Vec3b>(0, 0),
              cv::Vec3b(58, 20, 25));  // without a map: scaled
}

}  // namespace
