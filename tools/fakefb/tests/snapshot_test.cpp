// Pixels written through the simulated device come back out of fakefb-snapshot's PNG.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fb.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <opencv2/core.hpp>
#include <string>
#include <vector>
#include "dravik_image/image_file.h"

#include "dravik_test_support/temp_dir.h"
#include "fakefb/fakefb.h"
#include "tool_runner.h"

namespace {

using fakefb::Channel;
using fakefb::Geometry;
using fakefb::Panel;
using fakefb::Visual;
using fakefb::testsupport::runProgram;

constexpr const char* kDevice = "/dev/fakefb-snapshot-test";

struct Rgb {
    int r, g, b;
};

struct PixelCase {
    uint32_t x, y;
    uint32_t raw;  // the pixel as the panel stores it
    Rgb expected;  // what the picture must show
};

struct SnapshotRow {
    const char* name;
    uint32_t bpp;
    Visual visual;
    Channel red, green, blue;
    uint32_t padding;  // bytes added to each line
    std::vector<PixelCase> pixels;
};

// Channel scaling: v of L bits shows as round(v * 255 / (2^L - 1)).
const std::vector<SnapshotRow>& rows() {
    // clang-format off
    static const std::vector<SnapshotRow> table = {
        // name, bpp, visual, red, green, blue, padding,
        //     pixels: x, y, raw, {r, g, b} expected
        {"8 bpp through the colour map", 8, Visual::pseudocolor, {0, 8}, {0, 8}, {0, 8}, 0,
         {{1, 0, 5, {0x12, 0xAB, 0xFF}}, {2, 1, 255, {0xFF, 0x00, 0x80}}}},
        {"15 bpp", 15, Visual::truecolor, {10, 5}, {5, 5}, {0, 5}, 0,
         {{0, 0, 0x7C00, {255, 0, 0}}, {1, 0, 0x03E0, {0, 255, 0}}, {2, 0, 0x001F, {0, 0, 255}},
          {3, 1, 0x4210, {132, 132, 132}}, {4, 2, 0x7FFF, {255, 255, 255}}}},
        {"16 bpp RGB565", 16, Visual::truecolor, {11, 5}, {5, 6}, {0, 5}, 0,
         {{0, 0, 0xF800, {255, 0, 0}}, {1, 0, 0x07E0, {0, 255, 0}}, {2, 0, 0x001F, {0, 0, 255}},
          {3, 1, 0x8410, {132, 130, 132}}, {4, 2, 0xFFFF, {255, 255, 255}}}},
        {"16 bpp BGR565 with padded lines", 16, Visual::truecolor, {0, 5}, {5, 6}, {11, 5}, 6,
         {{0, 0, 0xF800, {0, 0, 255}}, {4, 2, 0x001F, {255, 0, 0}}}},
        {"24 bpp", 24, Visual::truecolor, {16, 8}, {8, 8}, {0, 8}, 0,
         {{0, 0, 0x123456, {0x12, 0x34, 0x56}}, {4, 2, 0xFF0000, {255, 0, 0}}}},
        {"32 bpp", 32, Visual::truecolor, {16, 8}, {8, 8}, {0, 8}, 0,
         {{0, 0, 0x00123456, {0x12, 0x34, 0x56}}, {4, 2, 0xFF000000, {0, 0, 0}}}},
        {"32 bpp BGR with padded lines", 32, Visual::truecolor, {0, 8}, {8, 8}, {16, 8}, 8,
         {{0, 0, 0x00123456, {0x56, 0x34, 0x12}}, {4, 2, 0x000000FF, {255, 0, 0}}}},
        {"16 bpp direct colour through the colour map", 16, Visual::directcolor, {11, 5}, {5, 6}, {0, 5}, 0,
         {{2, 1, 0xF800 | (1 << 5) | 2, {0x7C, 0x01, 0x02}}}},
    };
    // clang-format on
    return table;
}

constexpr uint32_t kWidth = 5;
constexpr uint32_t kHeight = 3;

// A grey ramp (entry i shows as i) with a few entries whose channels differ.
void putTestColourMap(int fd) {
    std::vector<uint16_t> red(256), green(256), blue(256);
    for (uint32_t i = 0; i < 256; ++i) {
        red[i] = static_cast<uint16_t>(i << 8);
        green[i] = static_cast<uint16_t>(i << 8);
        blue[i] = static_cast<uint16_t>(i << 8);
    }
    red[5] = 0x1234;
    green[5] = 0xABCD;
    blue[5] = 0xFFFF;
    red[255] = 0xFF00;
    green[255] = 0x00FF;
    blue[255] = 0x8000;
    red[31] = 0x7C00;
    fb_cmap cmap{};
    cmap.len = 256;
    cmap.red = red.data();
    cmap.green = green.data();
    cmap.blue = blue.data();
    ASSERT_EQ(ioctl(fd, FBIOPUTCMAP, &cmap), 0) << strerror(errno);
}

void writeThroughDevice(const SnapshotRow& row, const Geometry& g) {
    const int fd = open(kDevice, O_RDWR);
    ASSERT_GE(fd, 0) << strerror(errno);
    if (row.visual != Visual::truecolor) {
        putTestColourMap(fd);
    }
    void* mem = mmap(nullptr, g.frameSize(), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ASSERT_NE(mem, MAP_FAILED);
    auto* bytes = static_cast<uint8_t*>(mem);
    for (uint32_t y = 0; y < g.height; ++y) {
        // Padding full of ones must never show.
        const std::size_t pixelBytes = static_cast<std::size_t>(g.width) * g.bytesPerPixel();
        memset(bytes + static_cast<std::size_t>(y) * g.lineLength + pixelBytes, 0xFF, row.padding);
    }
    for (const auto& p : row.pixels) {
        uint8_t* at = bytes + static_cast<std::size_t>(p.y) * g.lineLength +
                      static_cast<std::size_t>(p.x) * g.bytesPerPixel();
        for (uint32_t i = 0; i < g.bytesPerPixel(); ++i) {
            at[i] = static_cast<uint8_t>(p.raw >> (8 * i));
        }
    }
    munmap(mem, g.frameSize());
    close(fd);
}

Geometry geometryOf(const SnapshotRow& row) {
    Geometry g = Geometry::forDepth(row.bpp, kWidth, kHeight);
    g.visual = row.visual;
    g.red = row.red;
    g.green = row.green;
    g.blue = row.blue;
    g.lineLength += row.padding;
    return g;
}

Rgb at(const cv::Mat& image, uint32_t x, uint32_t y) {
    const auto& px = image.at<cv::Vec3b>(static_cast<int>(y), static_cast<int>(x));
    return {px[2], px[1], px[0]};
}

void expectRgb(const Rgb& actual, const Rgb& expected) {
    EXPECT_EQ(actual.r, expected.r);
    EXPECT_EQ(actual.g, expected.g);
    EXPECT_EQ(actual.b, expected.b);
}

TEST(FakefbSnapshot, decodes_written_pixels_at_every_depth) {
    for (const auto& row : rows()) {
        SCOPED_TRACE(row.name);
        const Geometry g = geometryOf(row);
        const Panel panel(kDevice, g);
        panel.apply();
        writeThroughDevice(row, g);
        const std::string png = panel.backingFile() + ".png";
        const auto result = runProgram({FAKEFB_SNAPSHOT, panel.backingFile(), png});
        ASSERT_EQ(result.status, 0) << result.err;
        const cv::Mat image = dravik::image::readImage(png);
        ASSERT_EQ(image.cols, static_cast<int>(kWidth));
        ASSERT_EQ(image.rows, static_cast<int>(kHeight));
        for (const auto& p : row.pixels) {
            SCOPED_TRACE(p.raw);
            expectRgb(at(image, p.x, p.y), p.expected);
        }
        if (row.visual == Visual::truecolor) {
            expectRgb(at(image, 1, 2), {0, 0, 0});  // never written
        }
    }
}

TEST(FakefbSnapshot, scale_enlarges_every_pixel) {
    const SnapshotRow& row = rows()[2];  // RGB565
    const Geometry g = geometryOf(row);
    const Panel panel(kDevice, g);
    panel.apply();
    writeThroughDevice(row, g);
    const std::string png = panel.backingFile() + ".png";
    const auto result = runProgram({FAKEFB_SNAPSHOT, "--scale", "3", panel.backingFile(), png});
    ASSERT_EQ(result.status, 0) << result.err;
    const cv::Mat image = dravik::image::readImage(png);
    ASSERT_EQ(image.cols, 15);
    ASSERT_EQ(image.rows, 9);
    for (uint32_t dy = 0; dy < 3; ++dy) {
        for (uint32_t dx = 0; dx < 3; ++dx) {
            expectRgb(at(image, 3 + dx, 0 + dy), {0, 255, 0});  // pixel (1, 0)
        }
    }
    expectRgb(at(image, 6, 0), {0, 0, 255});  // pixel (2, 0)
}

TEST(FakefbSnapshot, mounted_turns_the_picture_back_as_the_panel_is_seen) {
    const SnapshotRow& row = rows()[2];  // RGB565, 5x3, green at (1, 0), blue at (2, 0)
    const Geometry g = geometryOf(row);
    const Panel panel(kDevice, g);
    panel.apply();
    writeThroughDevice(row, g);
    const std::string png = panel.backingFile() + ".png";
    struct Case {
        const char* degrees;
        int width, height;
        uint32_t greenX, greenY, blueX, blueY;
    };
    const Case cases[] = {
        {"90", 3, 5, 0, 3, 0, 2},   // the panel's top row is the screen's left column
        {"180", 5, 3, 3, 2, 2, 2},  // upside down
        {"270", 3, 5, 2, 1, 2, 2},  // the panel's top row is the screen's right column
        {"0", 5, 3, 1, 0, 2, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.degrees);
        const auto result =
            runProgram({FAKEFB_SNAPSHOT, "--mounted", c.degrees, panel.backingFile(), png});
        ASSERT_EQ(result.status, 0) << result.err;
        const cv::Mat image = dravik::image::readImage(png);
        ASSERT_EQ(image.cols, c.width);
        ASSERT_EQ(image.rows, c.height);
        expectRgb(at(image, c.greenX, c.greenY), {0, 255, 0});
        expectRgb(at(image, c.blueX, c.blueY), {0, 0, 255});
    }
    const auto bad = runProgram({FAKEFB_SNAPSHOT, "--mounted", "45", panel.backingFile(), png});
    EXPECT_EQ(bad.status, 2);
    EXPECT_NE(bad.err.find("bad --mounted \"45\": expected 0, 90, 180 or 270"), std::string::npos)
        << bad.err;
}

TEST(FakefbSnapshot, pseudocolour_panel_without_colour_map_is_an_error) {
    const Panel panel(kDevice, Geometry::forDepth(8, 4, 4));
    panel.apply();
    const int fd = open(kDevice, O_RDWR);  // creates the backing file
    ASSERT_GE(fd, 0);
    close(fd);
    const auto result =
        runProgram({FAKEFB_SNAPSHOT, panel.backingFile(), panel.backingFile() + ".png"});
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.err.find("without a colour map"), std::string::npos) << result.err;
}

TEST(FakefbSnapshot, short_backing_file_is_an_error) {
    const Panel panel(kDevice, Geometry::forDepth(16, 4, 4));
    std::ofstream(panel.backingFile()) << "short";
    const auto result =
        runProgram({FAKEFB_SNAPSHOT, panel.backingFile(), panel.backingFile() + ".png"});
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.err.find("holds 5 bytes, the frame needs 32"), std::string::npos)
        << result.err;
}

TEST(FakefbSnapshot, missing_geometry_is_an_error) {
    const dravik::testsupport::TempDir dir;
    const auto result =
        runProgram({FAKEFB_SNAPSHOT, dir.path() + "/none.raw", dir.path() + "/x.png"});
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.err.find("cannot read geometry " + dir.path() + "/none.raw.geom"),
              std::string::npos)
        << result.err;
}

TEST(FakefbSnapshot, help_and_bad_options) {
    auto result = runProgram({FAKEFB_SNAPSHOT, "--help"});
    EXPECT_EQ(result.status, 0);
    for (const char* word : {"--scale", "--geometry", "--cmap", "FILE.geom", "FILE.cmap"}) {
        EXPECT_NE(result.out.find(word), std::string::npos) << word;
    }
    result = runProgram({FAKEFB_SNAPSHOT, "--scale", "0", "a", "b.png"});
    EXPECT_EQ(result.status, 2);
    EXPECT_NE(result.err.find("bad --scale \"0\""), std::string::npos) << result.err;
    result = runProgram({FAKEFB_SNAPSHOT, "only-one-argument"});
    EXPECT_EQ(result.status, 2);
    EXPECT_NE(result.err.find("expected the backing file and the output PNG"), std::string::npos);
}

}  // namespace
