// The colour maps the display engine gives palette-based and direct-colour panels.
#include <gtest/gtest.h>
#include <linux/fb.h>

#include <cstdint>
#include <vector>

#include "FramebufferFixture.h"
#include "LcmGui.h"

using namespace dravik::lcmgui;
using namespace dravik::lcmgui::testsupport;

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
