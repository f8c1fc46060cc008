// Colour conversion of the display engine: colour maps, lookup tables, line
// conversion per depth and the ordered dither of 8-bit panels.
#include <gtest/gtest.h>

#include <cstring>
#include <initializer_list>
#include <vector>

#include "LcmGui.h"
#include "LcmGuiTestAccess.h"

using dravik::lcmgui::GuiConfig;
using dravik::lcmgui::LcmGui;
using Access = dravik::lcmgui::LcmGuiTestAccess;

namespace {

class Colour : public ::testing::Test {
protected:
    void SetUp() override { LcmGui::resetDitherMatrix(); }
    void TearDown() override { LcmGui::resetDitherMatrix(); }

    // Reports the panel's channels as offset and length of red, green and blue.
    void setChannels(fb_bitfield red, fb_bitfield green, fb_bitfield blue) {
        fb_var_screeninfo& var = Access::fbVar(gui);
        var.red = red;
        var.green = green;
        var.blue = blue;
    }

    GuiConfig config;
    LcmGui gui{config};
};

uint16_t load16(const unsigned char* p) {
    return static_cast<uint16_t>(p[0] | (p[1] << 8));
}
uint32_t load32(const unsigned char* p) {
    return uint32_t{p[0]} | (uint32_t{p[1]} << 8) | (uint32_t{p[2]} << 16) | (uint32_t{p[3]} << 24);
}

// The pixel of one display-buffer pixel (B, G, R) on a panel of `depth`.
std::vector<unsigned char> convertPixel(LcmGui& gui, unsigned depth, unsigned char b,
                                        unsigned char g, unsigned char r) {
    unsigned char src[3] = {b, g, r};
    std::vector<unsigned char> dst(4, 0xEE);
    unsigned char* end = gui.convertLine(depth, 0, 1, dst.data(), src);
    EXPECT_EQ(end, dst.data() + (depth + 7) / 8);
    return dst;
}

// A display-buffer pixel (B, G, R) and the 16-bit panel pixel it becomes.
struct Pixel16 {
    unsigned char b, g, r;
    uint16_t expected;
};

// Expects each of `pixels` to become its panel pixel on a 16-bit panel.
void expectPixels16(LcmGui& gui, std::initializer_list<Pixel16> pixels) {
    for (const Pixel16& pixel : pixels) {
        SCOPED_TRACE(::testing::Message()
                     << int(pixel.b) << "," << int(pixel.g) << "," << int(pixel.r));
        EXPECT_EQ(load16(convertPixel(gui, 16, pixel.b, pixel.g, pixel.r).data()), pixel.expected);
    }
}

}  // namespace

TEST_F(Colour, construction_clears_tables_and_points_colour_map_at_palette) {
    for (int i = 0; i < 256; ++i) {
        SCOPED_TRACE(i);
        ASSERT_EQ(Access::lutRed(gui)[i] | Access::lutGreen(gui)[i] | Access::lutBlue(gui)[i], 0U);
        ASSERT_EQ(Access::palRed(gui)[i] | Access::palGreen(gui)[i] | Access::palBlue(gui)[i], 0);
        ASSERT_EQ(Access::redDither(gui)[i] | Access::greenDither(gui)[i] |
                      Access::blueDither(gui)[i] | Access::grayDither(gui)[i],
                  0);
    }
    const fb_cmap& cmap = Access::cmap(gui);
    EXPECT_EQ(cmap.start, 0U);
    EXPECT_EQ(cmap.len, 256U);
    EXPECT_EQ(cmap.red, Access::palRed(gui));
    EXPECT_EQ(cmap.green, Access::palGreen(gui));
    EXPECT_EQ(cmap.blue, Access::palBlue(gui));
    EXPECT_EQ(cmap.transp, nullptr);
    EXPECT_EQ(Access::gamma(gui), 1.0F);
    EXPECT_EQ(Access::devicePath(gui), "/dev/fb2");
    EXPECT_EQ(Access::fbFd(gui), -1);
    EXPECT_EQ(Access::fbMem(gui), nullptr);
    EXPECT_EQ(Access::fbSize(gui), 0U);
    EXPECT_EQ(Access::redMult(gui), 0);
    EXPECT_EQ(Access::greenMult(gui), 0);
    EXPECT_TRUE(Access::displayBuf(gui).empty());
}

TEST_F(Colour, calc_gamma_is_linear_share_of_full_scale) {
    const struct {
        int n, max;
        unsigned short expected;
    } rows[] = {
        {255, 255, 65535}, {0, 255, 0},       {36, 255, 9252},   {85, 255, 21845}, {31, 32, 63487},
        {1, 32, 2047},     {255, 256, 65279}, {300, 255, 65535}, {-5, 255, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(::testing::Message() << row.n << "/" << row.max);
        EXPECT_EQ(gui.calcGamma(row.n, row.max), row.expected);
    }
}

TEST_F(Colour, linear_palette_of_5_bits_fills_32_entries_and_keeps_the_rest) {
    gui.linearPalette(8);
    std::vector<uint16_t> before(Access::palRed(gui), Access::palRed(gui) + 256);
    EXPECT_EQ(before[255], 65279);  // 8 bits: 65535 * 255 / 256, never full scale
    gui.linearPalette(5);
    for (unsigned i = 0; i < 256; ++i) {
        SCOPED_TRACE(i);
        const uint16_t expected = i < 32 ? static_cast<uint16_t>(65535U * i / 32) : before[i];
        ASSERT_EQ(Access::palRed(gui)[i], expected);
        ASSERT_EQ(Access::palGreen(gui)[i], expected);
        ASSERT_EQ(Access::palBlue(gui)[i], expected);
    }
    EXPECT_EQ(Access::palRed(gui)[1], 2047);
    EXPECT_EQ(Access::palRed(gui)[2], 4095);
    EXPECT_EQ(Access::palRed(gui)[31], 63487);
}

TEST_F(Colour, dither_palette_8_8_4_has_truncated_red_and_green_levels) {
    gui.ditherPalette(8, 8, 4);
    const struct {
        int index;
        uint16_t r, g, b;
    } rows[] = {
        {255, 64764, 64764, 65535},
        {3, 0, 0, 65535},
        {32, 9252, 0, 0},
        {0, 0, 0, 0},
        {4, 0, 9252, 0},
        {1, 0, 0, 21845},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.index);
        EXPECT_EQ(Access::palRed(gui)[row.index], row.r);
        EXPECT_EQ(Access::palGreen(gui)[row.index], row.g);
        EXPECT_EQ(Access::palBlue(gui)[row.index], row.b);
    }
    // Every entry: index = red level * 32 + green level * 4 + blue level, with
    // steps of 36, 36 and 85 out of 255.
    for (unsigned i = 0; i < 256; ++i) {
        SCOPED_TRACE(i);
        ASSERT_EQ(Access::palRed(gui)[i], 65535U * (36 * (i / 32)) / 255);
        ASSERT_EQ(Access::palGreen(gui)[i], 65535U * (36 * ((i / 4) % 8)) / 255);
        ASSERT_EQ(Access::palBlue(gui)[i], 65535U * (85 * (i % 4)) / 255);
    }
}

TEST_F(Colour, init_dither_packs_index_high_and_low_shade) {
    gui.initDither(8, 8, 4, 2);
    EXPECT_EQ(Access::redMult(gui), 32);
    EXPECT_EQ(Access::greenMult(gui), 4);
    const struct {
        const char* table;
        int32_t* values;
        int i;
        int32_t expected;
    } rows[] = {
        // (index << 16) + (highShade << 8) + lowShade
        {"red", Access::redDither(gui), 0, (0 << 16) + (32 << 8) + 0},
        {"red", Access::redDither(gui), 255, (63 << 16) + (224 << 8) + 192},
        {"red", Access::redDither(gui), 37, (0 << 16) + (64 << 8) + 32},
        {"red", Access::redDither(gui), 73, (64 << 16) + (64 << 8) + 32},
        {"green", Access::greenDither(gui), 255, (63 << 16) + (28 << 8) + 24},
        {"green", Access::greenDither(gui), 128, (32 << 16) + (16 << 8) + 12},
        {"blue", Access::blueDither(gui), 255, (64 << 16) + (3 << 8) + 2},
        {"blue", Access::blueDither(gui), 86, (0 << 16) + (2 << 8) + 1},
        {"gray", Access::grayDither(gui), 255, (64 << 16) + (1 << 8) + 0},
        {"gray", Access::grayDither(gui), 128, (32 << 16) + (1 << 8) + 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(::testing::Message() << row.table << "[" << row.i << "]");
        EXPECT_EQ(row.values[row.i], row.expected);
    }
}

TEST_F(Colour, init_dither_scales_the_shared_matrix_on_every_call) {
    const auto original = Access::ditherMatrix();
    EXPECT_EQ(original[1], 32);
    EXPECT_EQ(original[63], 21);
    gui.initDither(8, 8, 4, 2);
    for (int i = 0; i < 64; ++i) {
        ASSERT_EQ(Access::ditherMatrix()[i], original[i] * 65536) << i;
    }
    LcmGui other{config};
    other.initDither(8, 8, 4, 2);  // the second scaling leaves no bits in 32 bits
    for (int i = 0; i < 64; ++i) {
        ASSERT_EQ(Access::ditherMatrix()[i], 0) << i;
    }
    LcmGui::resetDitherMatrix();
    EXPECT_EQ(Access::ditherMatrix(), original);
}

TEST_F(Colour, dither_line_on_white_takes_low_shades_everywhere) {
    gui.initDither(8, 8, 4, 2);
    // 8 x 8 white pixels: every row and column of the matrix, including the
    // last row's columns 4 .. 7 whose threshold would lie past its end.
    std::vector<unsigned char> src(8 * 3, 255);
    for (unsigned line = 0; line < 8; ++line) {
        SCOPED_TRACE(line);
        std::vector<unsigned char> dst(8, 0);
        gui.ditherLine(src.data(), dst.data(), line, 8);
        for (unsigned k = 0; k < 8; ++k) {
            ASSERT_EQ(dst[k], 218) << "pixel " << k;  // 6 * 32 + 6 * 4 + 2
        }
    }
}

TEST_F(Colour, dither_line_gives_truncated_levels_with_blue_in_red_levels) {
    gui.initDither(8, 8, 4, 2);
    const struct {
        unsigned char b, g, r;
        unsigned char expected;
    } rows[] = {
        {0, 0, 0, 0},    {255, 0, 0, 192},  // the buffer's blue lands in the palette's red levels
        {0, 255, 0, 24}, {0, 0, 255, 2},   {37, 37, 86, 32 + 4 + 1},
        {36, 35, 85, 0},  // just below the first step of every channel
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(::testing::Message() << int(row.b) << "," << int(row.g) << "," << int(row.r));
        std::vector<unsigned char> src;
        for (int k = 0; k < 16; ++k) {
            src.insert(src.end(), {row.b, row.g, row.r});
        }
        for (unsigned line = 0; line < 9; ++line) {
            std::vector<unsigned char> dst(16, 0xAA);
            gui.ditherLine(src.data(), dst.data(), line, 16);
            for (unsigned k = 0; k < 16; ++k) {
                ASSERT_EQ(dst[k], row.expected) << "line " << line << " pixel " << k;
            }
        }
    }
}

TEST_F(Colour, dither_threshold_pairs_two_entries_and_counts_columns_from_the_right) {
    // After a second scaling every threshold is 0, so every non-zero table value
    // is above it and takes its high shade: the comparison is made per pixel.
    gui.initDither(8, 8, 4, 2);
    gui.initDither(8, 8, 4, 2);
    std::vector<unsigned char> src = {255, 255, 255, 0, 0, 0};
    std::vector<unsigned char> dst(2, 0);
    gui.ditherLine(src.data(), dst.data(), 3, 2);
    const int32_t red = Access::redDither(gui)[255];
    const int32_t green = Access::greenDither(gui)[255];
    const int32_t blue = Access::blueDither(gui)[255];
    EXPECT_EQ(dst[0], ((red >> 8) + (green >> 8) + (blue >> 8)) & 0xFF);
    const int32_t black = (Access::redDither(gui)[0] >> 8) + (Access::greenDither(gui)[0] >> 8) +
                          (Access::blueDither(gui)[0] >> 8);
    EXPECT_EQ(dst[1], black & 0xFF);
    EXPECT_EQ(dst[0], (224 + 28 + 3) & 0xFF);
    EXPECT_EQ(dst[1], 32 + 4 + 1);

    std::vector<unsigned char> grey = {0, 255, 128};
    std::vector<unsigned char> out(3, 0xAA);
    gui.ditherLineGray(grey.data(), out.data(), 5, 3);
    EXPECT_EQ(out[0], 1);  // (0 << 16) + (1 << 8) + 0, shifted: high shade 1
    EXPECT_EQ(out[1], 1);
    EXPECT_EQ(out[2], 1);
}

TEST_F(Colour, dither_line_gray_takes_low_shade_with_fresh_matrix) {
    gui.initDither(8, 8, 4, 2);
    std::vector<unsigned char> grey(16);
    for (unsigned k = 0; k < grey.size(); ++k) {
        grey[k] = static_cast<unsigned char>(k * 17);
    }
    for (unsigned line = 0; line < 8; ++line) {
        std::vector<unsigned char> out(16, 0xAA);
        gui.ditherLineGray(grey.data(), out.data(), line, 16);
        for (unsigned k = 0; k < 16; ++k) {
            ASSERT_EQ(out[k], 0) << "line " << line << " pixel " << k;  // two shades: level 0
        }
    }
}

TEST_F(Colour, panel_reporting_565_channels_gets_its_own_layout) {
    setChannels({11, 5, 0}, {5, 6, 0}, {0, 5, 0});
    gui.lutInit(16);
    expectPixels16(gui, {{255, 255, 255, 0xFFFF},
                         {0, 0, 255, 0xF800},
                         {0, 255, 0, 0x07E0},
                         {255, 0, 0, 0x001F},
                         {0x07, 0x03, 0x07, 0x0000}});
}

TEST_F(Colour, reported_channels_win_over_the_depth) {
    // A BGR 555 panel asked for a 16-bit table.
    setChannels({0, 5, 0}, {5, 5, 0}, {10, 5, 0});
    gui.lutInit(16);
    expectPixels16(gui, {{0, 0, 255, 0x001F}, {255, 0, 0, 0x7C00}, {0, 255, 0, 0x03E0}});
}

TEST_F(Colour, fixed_layouts_apply_when_a_channel_length_is_zero) {
    // One length missing: the depth decides.
    setChannels({11, 5, 0}, {5, 6, 0}, {0, 0, 0});
    const struct {
        unsigned depth;
        unsigned char b, g, r;
        uint16_t expected;
    } rows[] = {
        {15, 255, 255, 255, 0x7FFF}, {15, 0, 0, 255, 0x7C00},     {15, 0, 255, 0, 0x03E0},
        {15, 255, 0, 0, 0x001F},     {16, 255, 255, 255, 0xFFFF}, {16, 0, 0, 255, 0xF800},
        {16, 0, 255, 0, 0x07E0},     {16, 255, 0, 0, 0x001F},     {16, 0, 4, 0, 0x0020},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(::testing::Message() << "depth " << row.depth << " " << int(row.b) << ","
                                          << int(row.g) << "," << int(row.r));
        gui.lutInit(row.depth);
        EXPECT_EQ(load16(convertPixel(gui, row.depth, row.b, row.g, row.r).data()), row.expected);
    }
}

TEST_F(Colour, lut_init_of_other_depth_leaves_tables_unchanged) {
    gui.lutInit(16);
    const uint32_t red = Access::lutRed(gui)[255];
    gui.lutInit(12);
    EXPECT_EQ(Access::lutRed(gui)[255], red);
    EXPECT_EQ(red, 0xF800U);
}

TEST_F(Colour, panel_of_32_bits_without_channels_stores_little_endian_xrgb) {
    gui.lutInit(24);
    const auto pixel = convertPixel(gui, 32, 0x11, 0x22, 0x33);
    EXPECT_EQ(load32(pixel.data()), 0x00332211U);
    EXPECT_EQ(pixel[0], 0x11);
    EXPECT_EQ(pixel[1], 0x22);
    EXPECT_EQ(pixel[2], 0x33);
    EXPECT_EQ(pixel[3], 0x00);
}

TEST_F(Colour, panel_of_32_bits_with_bgr_channels) {
    setChannels({0, 8, 0}, {8, 8, 0}, {16, 8, 0});
    gui.lutInit(24);
    EXPECT_EQ(load32(convertPixel(gui, 32, 0x11, 0x22, 0x33).data()), 0x00112233U);
}

TEST_F(Colour, channel_wider_than_8_bits_keeps_top_bits_zero) {
    uint32_t table[256] = {};
    gui.initOne(table, 10, 20);
    EXPECT_EQ(table[1], 1U << 22);
    EXPECT_EQ(table[255], 255U << 22);
    gui.initOne(table, 3, 5);
    EXPECT_EQ(table[255], 7U << 5);
    EXPECT_EQ(table[31], 0U);
    EXPECT_EQ(table[32], 1U << 5);
}

TEST_F(Colour, panel_of_24_bits_copies_bytes_unchanged) {
    unsigned char src[6] = {1, 2, 3, 250, 251, 252};
    unsigned char dst[8];
    std::memset(dst, 0xEE, sizeof dst);
    EXPECT_EQ(gui.convertLine(24, 5, 2, dst, src), dst + 6);
    EXPECT_EQ(std::memcmp(dst, src, 6), 0);
    EXPECT_EQ(dst[6], 0xEE);
}

TEST_F(Colour, convert_line_writes_exactly_its_width) {
    gui.lutInit(24);
    gui.initDither(8, 8, 4, 2);
    const struct { unsigned depth, bytes; } rows[] = {{32, 4}, {24, 3}, {16, 2}, {15, 2}, {8, 1}};
    std::vector<unsigned char> src(5 * 3, 0xFF);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.depth);
        std::vector<unsigned char> dst(5 * 4 + 4, 0xEE);
        unsigned char* end = gui.convertLine(row.depth, 0, 5, dst.data(), src.data());
        EXPECT_EQ(end, dst.data() + 5 * row.bytes);
        for (size_t i = 5 * row.bytes; i < dst.size(); ++i) {
            ASSERT_EQ(dst[i], 0xEE) << i;
        }
    }
}

TEST_F(Colour, depth_12_writes_nothing) {
    gui.lutInit(24);
    std::vector<unsigned char> src(4 * 3, 0x5A);
    std::vector<unsigned char> dst(32, 0xEE);
    EXPECT_EQ(gui.convertLine(12, 0, 4, dst.data(), src.data()), nullptr);
    for (size_t i = 0; i < dst.size(); ++i) {
        ASSERT_EQ(dst[i], 0xEE) << i;
    }
}
