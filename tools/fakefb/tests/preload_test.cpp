// Runs with libfakefb.so preloaded into this very process (see preloaded_main.cpp).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fb.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "dravik_utils/file_descriptor.h"
#include "failed_call.h"
#include "fakefb/fakefb.h"

// glibc's fortified entry points; declared by its headers only under _FORTIFY_SOURCE.
extern "C" int __open_2(const char* path, int flags);    // NOLINT(bugprone-reserved-identifier)
extern "C" int __open64_2(const char* path, int flags);  // NOLINT(bugprone-reserved-identifier)
extern "C" int __openat_2(int dirfd, const char* path,   // NOLINT(bugprone-reserved-identifier)
                          int flags);
extern "C" int __openat64_2(int dirfd,  // NOLINT(bugprone-reserved-identifier)
                            const char* path, int flags);

namespace {

using dravik::utils::FileDescriptor;
using fakefb::Channel;
using fakefb::Geometry;
using fakefb::Panel;
using fakefb::Visual;

constexpr const char* kDevice = "/dev/fakefb-test-fb2";

// A panel at kDevice, made the only one the process simulates.
struct AppliedPanel : Panel {
    explicit AppliedPanel(const Geometry& geometry) : Panel(kDevice, geometry) { apply(); }
};

class Mapping {
public:
    Mapping(int fd, std::size_t size)
        : size_(size), mem_(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0)) {}
    Mapping(const Mapping&) = delete;
    Mapping& operator=(const Mapping&) = delete;
    ~Mapping() {
        if (mem_ != MAP_FAILED) {
            munmap(mem_, size_);
        }
    }
    bool ok() const { return mem_ != MAP_FAILED; }
    uint8_t* bytes() const { return static_cast<uint8_t*>(mem_); }

private:
    std::size_t size_;
    void* mem_;
};

struct ScreenInfo {
    int fixResult = -1;
    int varResult = -1;
    fb_fix_screeninfo fix{};
    fb_var_screeninfo var{};
};

ScreenInfo query(int fd) {
    ScreenInfo info;
    info.fixResult = ioctl(fd, FBIOGET_FSCREENINFO, &info.fix);
    info.varResult = ioctl(fd, FBIOGET_VSCREENINFO, &info.var);
    return info;
}

void expectChannel(const fb_bitfield& field, Channel expected, const char* name) {
    SCOPED_TRACE(name);
    EXPECT_EQ(field.offset, expected.offset);
    EXPECT_EQ(field.length, expected.length);
}

void expectGeometry(int fd, const Geometry& g) {
    const ScreenInfo info = query(fd);
    ASSERT_EQ(info.fixResult, 0);
    ASSERT_EQ(info.varResult, 0);
    EXPECT_STREQ(info.fix.id, "fakefb");
    EXPECT_EQ(info.fix.smem_len, g.frameSize());
    EXPECT_EQ(info.fix.line_length, g.lineLength);
    EXPECT_EQ(info.fix.visual, static_cast<uint32_t>(g.visual));
    EXPECT_EQ(info.fix.type, static_cast<uint32_t>(FB_TYPE_PACKED_PIXELS));
    EXPECT_EQ(info.var.xres, g.width);
    EXPECT_EQ(info.var.yres, g.height);
    EXPECT_EQ(info.var.xres_virtual, g.width);
    EXPECT_EQ(info.var.yres_virtual, g.height);
    EXPECT_EQ(info.var.bits_per_pixel, g.bpp);
    expectChannel(info.var.red, g.red, "red");
    expectChannel(info.var.green, g.green, "green");
    expectChannel(info.var.blue, g.blue, "blue");
    expectChannel(info.var.transp, g.transp, "transp");
}

void storePixel(uint8_t* mem, const Geometry& g, uint32_t x, uint32_t y, uint32_t value) {
    uint8_t* at = mem + static_cast<std::size_t>(y) * g.lineLength +
                  static_cast<std::size_t>(x) * g.bytesPerPixel();
    for (uint32_t i = 0; i < g.bytesPerPixel(); ++i) {
        at[i] = static_cast<uint8_t>(value >> (8 * i));
    }
}

struct CmapArrays {
    std::vector<uint16_t> red, green, blue, transp;
    fb_cmap cmap{};

    CmapArrays(uint32_t start, uint32_t len, bool withTransp)
        : red(len), green(len), blue(len), transp(len) {
        for (uint32_t i = 0; i < len; ++i) {
            red[i] = static_cast<uint16_t>((start + i) * 257);
            green[i] = static_cast<uint16_t>(65535 - (start + i) * 3);
            blue[i] = static_cast<uint16_t>((start + i) * 101 + 7);
            transp[i] = static_cast<uint16_t>(start + i + 1000);
        }
        cmap.start = start;
        cmap.len = len;
        cmap.red = red.data();
        cmap.green = green.data();
        cmap.blue = blue.data();
        cmap.transp = withTransp ? transp.data() : nullptr;
    }
};

struct DepthRow {
    uint32_t bpp;
    Channel red, green, blue;
    Visual visual;
    uint32_t pixel;  // a value that uses every bit of the pixel's width
};

const DepthRow kDepths[] = {
    {8, {0, 8}, {0, 8}, {0, 8}, Visual::pseudocolor, 0xC5},
    {15, {10, 5}, {5, 5}, {0, 5}, Visual::truecolor, 0x7ABC},
    {16, {11, 5}, {5, 6}, {0, 5}, Visual::truecolor, 0xF81F},
    {24, {16, 8}, {8, 8}, {0, 8}, Visual::truecolor, 0x123456},
    {32, {16, 8}, {8, 8}, {0, 8}, Visual::truecolor, 0x89ABCDEF},
};

TEST(FakefbPreload, library_is_loaded_into_the_test_program) {
    EXPECT_TRUE(fakefb::isPreloaded());
}

TEST(FakefbPreload, reports_the_usual_layout_of_every_depth) {
    for (const auto& row : kDepths) {
        SCOPED_TRACE(row.bpp);
        const Geometry g = Geometry::forDepth(row.bpp, 40, 30);
        EXPECT_EQ(g.lineLength, 40 * ((row.bpp + 7) / 8));
        EXPECT_EQ(g.visual, row.visual);
        const AppliedPanel panel(g);
        const FileDescriptor fd(open(kDevice, O_RDWR));
        ASSERT_GE(fd.get(), 0) << strerror(errno);
        expectGeometry(fd.get(), g);
        expectChannel(query(fd.get()).var.red, row.red, "usual red");
        expectChannel(query(fd.get()).var.green, row.green, "usual green");
        expectChannel(query(fd.get()).var.blue, row.blue, "usual blue");
    }
}

TEST(FakefbPreload, mapped_pixels_reach_the_backing_file_at_every_depth) {
    for (const auto& row : kDepths) {
        SCOPED_TRACE(row.bpp);
        const Geometry g = Geometry::forDepth(row.bpp, 17, 9);
        const AppliedPanel panel(g);
        const FileDescriptor fd(open(kDevice, O_RDWR));
        ASSERT_GE(fd.get(), 0) << strerror(errno);
        struct stat st {};
        ASSERT_EQ(fstat(fd.get(), &st), 0);
        EXPECT_EQ(static_cast<uint64_t>(st.st_size), g.frameSize());
        const Mapping map(fd.get(), g.frameSize());
        ASSERT_TRUE(map.ok());
        storePixel(map.bytes(), g, 0, 0, row.pixel);
        storePixel(map.bytes(), g, 16, 8, row.pixel);  // last pixel: no SIGBUS
        storePixel(map.bytes(), g, 3, 5, row.pixel ^ 0x55);
        EXPECT_EQ(panel.pixel(0, 0), row.pixel);
        EXPECT_EQ(panel.pixel(16, 8), row.pixel);
        EXPECT_EQ(panel.pixel(3, 5), row.pixel ^ 0x55);
        EXPECT_EQ(panel.pixel(4, 5), 0u);
    }
}

TEST(FakefbPreload, padded_line_length_is_reported_and_honoured) {
    Geometry g = Geometry::forDepth(16, 10, 4);
    g.lineLength = 32;  // 20 bytes of pixels, 12 of padding
    const AppliedPanel panel(g);
    const FileDescriptor fd(open(kDevice, O_RDWR));
    ASSERT_GE(fd.get(), 0);
    expectGeometry(fd.get(), g);
    const Mapping map(fd.get(), g.frameSize());
    ASSERT_TRUE(map.ok());
    storePixel(map.bytes(), g, 9, 2, 0xBEEF);
    const std::vector<uint8_t> bytes = panel.bytes();
    ASSERT_EQ(bytes.size(), 128u);
    EXPECT_EQ(bytes[2 * 32 + 18], 0xEF);
    EXPECT_EQ(bytes[2 * 32 + 19], 0xBE);
    EXPECT_EQ(panel.pixel(9, 2), 0xBEEFu);
}

TEST(FakefbPreload, reports_the_configured_channel_layout) {
    struct Row {
        uint32_t bpp;
        Channel red, green, blue, transp;
    } rows[] = {
        {32, {0, 8}, {8, 8}, {16, 8}, {24, 8}},  // BGR with alpha
        {16, {0, 5}, {5, 6}, {11, 5}, {0, 0}},   // BGR565
        {24, {0, 8}, {8, 8}, {16, 8}, {0, 0}},
        {16, {0, 0}, {0, 0}, {0, 0}, {0, 0}},  // a driver that reports no lengths
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.bpp);
        Geometry g = Geometry::forDepth(row.bpp, 8, 8);
        g.red = row.red;
        g.green = row.green;
        g.blue = row.blue;
        g.transp = row.transp;
        const AppliedPanel panel(g);
        const FileDescriptor fd(open(kDevice, O_RDWR));
        ASSERT_GE(fd.get(), 0);
        expectGeometry(fd.get(), g);
    }
}

TEST(FakefbPreload, records_the_colour_map_of_an_8_bit_panel) {
    const AppliedPanel panel(Geometry::forDepth(8, 16, 16));
    const FileDescriptor fd(open(kDevice, O_RDWR));
    ASSERT_GE(fd.get(), 0);
    EXPECT_EQ(panel.putCmapCount(), 0u);
    CmapArrays full(0, 256, false);
    ASSERT_EQ(ioctl(fd.get(), FBIOPUTCMAP, &full.cmap), 0) << strerror(errno);
    fakefb::ColourMap map = panel.colourMap();
    EXPECT_EQ(map.writes, 1u);
    EXPECT_EQ(map.red, full.red);
    EXPECT_EQ(map.green, full.green);
    EXPECT_EQ(map.blue, full.blue);
    EXPECT_EQ(map.transp, std::vector<uint16_t>(256, 0));

    // A partial write changes only its range and brings its transparency.
    CmapArrays part(16, 4, true);
    part.red.assign(4, 0x1111);
    part.cmap.red = part.red.data();
    ASSERT_EQ(ioctl(fd.get(), FBIOPUTCMAP, &part.cmap), 0);
    map = panel.colourMap();
    EXPECT_EQ(map.writes, 2u);
    for (uint32_t i = 0; i < 256; ++i) {
        SCOPED_TRACE(i);
        const bool inPart = i >= 16 && i < 20;
        EXPECT_EQ(map.red[i], inPart ? 0x1111 : full.red[i]);
        EXPECT_EQ(map.green[i], full.green[i]);
        EXPECT_EQ(map.transp[i], inPart ? part.transp[i - 16] : 0);
    }
}

TEST(FakefbPreload, records_the_colour_map_of_a_direct_colour_panel) {
    for (const uint32_t bpp : {16u, 32u}) {
        SCOPED_TRACE(bpp);
        Geometry g = Geometry::forDepth(bpp, 8, 8);
        g.visual = Visual::directcolor;
        const AppliedPanel panel(g);
        const FileDescriptor fd(open(kDevice, O_RDWR));
        ASSERT_GE(fd.get(), 0);
        EXPECT_EQ(query(fd.get()).fix.visual, static_cast<uint32_t>(FB_VISUAL_DIRECTCOLOR));
        CmapArrays full(0, 256, false);
        ASSERT_EQ(ioctl(fd.get(), FBIOPUTCMAP, &full.cmap), 0);
        const fakefb::ColourMap map = panel.colourMap();
        EXPECT_EQ(map.writes, 1u);
        EXPECT_EQ(map.blue, full.blue);
    }
}

TEST(FakefbPreload, truecolor_panel_refuses_a_colour_map_with_einval) {
    for (const uint32_t bpp : {15u, 16u, 24u, 32u}) {
        SCOPED_TRACE(bpp);
        const AppliedPanel panel(Geometry::forDepth(bpp, 8, 8));
        const FileDescriptor fd(open(kDevice, O_RDWR));
        ASSERT_GE(fd.get(), 0);
        CmapArrays full(0, 256, false);
        EXPECT_EQ(resultAndErrno([&] { return ioctl(fd.get(), FBIOPUTCMAP, &full.cmap); }),
                  failedWith(EINVAL));
        EXPECT_EQ(panel.putCmapCount(), 0u);
        EXPECT_FALSE(std::filesystem::exists(panel.backingFile() + ".cmap"));
    }
}

TEST(FakefbPreload, colour_map_past_256_entries_is_refused) {
    const AppliedPanel panel(Geometry::forDepth(8, 8, 8));
    const FileDescriptor fd(open(kDevice, O_RDWR));
    ASSERT_GE(fd.get(), 0);
    CmapArrays tooLong(200, 57, false);
    EXPECT_EQ(resultAndErrno([&] { return ioctl(fd.get(), FBIOPUTCMAP, &tooLong.cmap); }),
              failedWith(EINVAL));
    CmapArrays lastEntry(255, 1, false);
    EXPECT_EQ(ioctl(fd.get(), FBIOPUTCMAP, &lastEntry.cmap), 0);
    EXPECT_EQ(panel.putCmapCount(), 1u);
}

TEST(FakefbPreload, other_ioctls_on_a_panel_fail_with_enotty) {
    const AppliedPanel panel(Geometry::forDepth(16, 8, 8));
    const FileDescriptor fd(open(kDevice, O_RDWR));
    ASSERT_GE(fd.get(), 0);
    fb_var_screeninfo var{};
    EXPECT_EQ(resultAndErrno([&] { return ioctl(fd.get(), FBIOPUT_VSCREENINFO, &var); }),
              failedWith(ENOTTY));
    EXPECT_EQ(resultAndErrno([&] { return ioctl(fd.get(), FBIOBLANK, 0); }), failedWith(ENOTTY));
}

TEST(FakefbPreload, two_panels_answer_with_their_own_geometry) {
    const Geometry g2 = Geometry::forDepth(16, 240, 240);
    const Geometry g3 = Geometry::forDepth(32, 64, 32);
    const Panel fb2("/dev/fakefb-test-a", g2);
    const Panel fb3("/dev/fakefb-test-b", g3);
    Panel::applyAll({&fb2, &fb3});
    const FileDescriptor fd2(open(fb2.device().c_str(), O_RDWR));
    const FileDescriptor fd3(open(fb3.device().c_str(), O_RDWR));
    ASSERT_GE(fd2.get(), 0);
    ASSERT_GE(fd3.get(), 0);
    expectGeometry(fd2.get(), g2);
    expectGeometry(fd3.get(), g3);
    const Mapping map2(fd2.get(), g2.frameSize());
    const Mapping map3(fd3.get(), g3.frameSize());
    ASSERT_TRUE(map2.ok() && map3.ok());
    storePixel(map2.bytes(), g2, 1, 1, 0x1234);
    storePixel(map3.bytes(), g3, 1, 1, 0xCAFEF00D);
    EXPECT_EQ(fb2.pixel(1, 1), 0x1234u);
    EXPECT_EQ(fb3.pixel(1, 1), 0xCAFEF00Du);
    EXPECT_EQ(fb2.bytes().size(), g2.frameSize());
    EXPECT_EQ(fb3.bytes().size(), g3.frameSize());
}

TEST(FakefbPreload, duplicated_descriptors_stay_panels) {
    const Geometry g = Geometry::forDepth(24, 12, 6);
    const AppliedPanel panel(g);
    const int original = open(kDevice, O_RDWR);
    ASSERT_GE(original, 0);
    const FileDescriptor dupped(dup(original));
    const FileDescriptor high(fcntl(original, F_DUPFD_CLOEXEC, 200));
    ASSERT_GE(dupped.get(), 0);
    ASSERT_GE(high.get(), 200);
    close(original);
    expectGeometry(dupped.get(), g);
    expectGeometry(high.get(), g);
    const Mapping map(high.get(), g.frameSize());
    ASSERT_TRUE(map.ok());
    storePixel(map.bytes(), g, 11, 5, 0xABCDEF);
    EXPECT_EQ(panel.pixel(11, 5), 0xABCDEFu);
}

TEST(FakefbPreload, reused_descriptor_number_of_a_plain_file_is_not_a_panel) {
    const AppliedPanel panel(Geometry::forDepth(16, 8, 8));
    const int panelFd = open(kDevice, O_RDWR);
    ASSERT_GE(panelFd, 0);
    close(panelFd);
    const std::string plain = panel.backingFile() + ".plain";
    std::ofstream(plain) << "plain";
    const FileDescriptor fd(open(plain.c_str(), O_RDONLY));
    ASSERT_EQ(fd.get(), panelFd);  // the lowest free number comes back
    fb_var_screeninfo var{};
    EXPECT_EQ(resultAndErrno([&] { return ioctl(fd.get(), FBIOGET_VSCREENINFO, &var); }),
              failedWith(ENOTTY));
}

TEST(FakefbPreload, paths_that_are_not_panels_reach_the_system) {
    const AppliedPanel panel(Geometry::forDepth(16, 8, 8));
    const std::string plain = panel.backingFile() + ".text";
    std::ofstream(plain) << "hello";
    const FileDescriptor fd(open(plain.c_str(), O_RDONLY));
    ASSERT_GE(fd.get(), 0);
    char buf[16] = {};
    EXPECT_EQ(read(fd.get(), buf, sizeof buf), 5);
    EXPECT_STREQ(buf, "hello");
    const FileDescriptor devNull(open("/dev/null", O_RDWR));
    ASSERT_GE(devNull.get(), 0);
    fb_fix_screeninfo fix{};
    EXPECT_EQ(resultAndErrno([&] { return ioctl(devNull.get(), FBIOGET_FSCREENINFO, &fix); }),
              failedWith(ENOTTY));
    EXPECT_EQ(resultAndErrno([&] { return open("/dev/fakefb-test-not-configured", O_RDWR); }),
              failedWith(ENOENT));
    const FileDescriptor created(open((plain + ".new").c_str(), O_RDWR | O_CREAT | O_EXCL, 0600));
    EXPECT_GE(created.get(), 0);
}

TEST(FakefbPreload, device_without_configuration_reaches_the_system) {
    Panel::clearAll();
    EXPECT_EQ(resultAndErrno([&] { return open(kDevice, O_RDWR); }), failedWith(ENOENT));
}

TEST(FakefbPreload, reconfiguration_between_two_opens_takes_effect) {
    const Geometry first = Geometry::forDepth(16, 32, 16);
    const Geometry second = Geometry::forDepth(32, 20, 10);
    const Panel panelA(kDevice, first);
    const Panel panelB(kDevice, second);
    panelA.apply();
    const FileDescriptor fdA(open(kDevice, O_RDWR));
    ASSERT_GE(fdA.get(), 0);
    panelB.apply();
    const FileDescriptor fdB(open(kDevice, O_RDWR));
    ASSERT_GE(fdB.get(), 0);
    expectGeometry(fdB.get(), second);
    expectGeometry(fdA.get(), first);  // an open panel keeps its geometry
    EXPECT_EQ(panelA.bytes().size(), first.frameSize());
    EXPECT_EQ(panelB.bytes().size(), second.frameSize());
}

TEST(FakefbPreload, every_open_entry_point_reaches_the_panel) {
    const Geometry g = Geometry::forDepth(16, 8, 8);
    const AppliedPanel panel(g);
    const FileDescriptor root(open("/", O_RDONLY | O_DIRECTORY));
    struct Row {
        const char* name;
        int fd;
    } rows[] = {
        {"open", open(kDevice, O_RDWR)},
        {"open64", open64(kDevice, O_RDWR)},
        {"__open_2", __open_2(kDevice, O_RDWR)},
        {"__open64_2", __open64_2(kDevice, O_RDWR)},
        {"openat", openat(AT_FDCWD, kDevice, O_RDWR)},
        {"openat64", openat64(AT_FDCWD, kDevice, O_RDWR)},
        {"__openat_2", __openat_2(AT_FDCWD, kDevice, O_RDWR)},
        {"__openat64_2", __openat64_2(AT_FDCWD, kDevice, O_RDWR)},
        {"openat with a directory and an absolute path", openat(root.get(), kDevice, O_RDWR)},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const FileDescriptor fd(row.fd);
        ASSERT_GE(fd.get(), 0) << strerror(errno);
        expectGeometry(fd.get(), g);
    }
}

TEST(FakefbPreload, open_neither_truncates_nor_resizes_a_panel) {
    const Geometry g = Geometry::forDepth(32, 4, 4);
    const AppliedPanel panel(g);
    {
        const FileDescriptor fd(open(kDevice, O_RDWR));
        const Mapping map(fd.get(), g.frameSize());
        ASSERT_TRUE(map.ok());
        storePixel(map.bytes(), g, 2, 2, 0x00FF00FF);
    }
    const FileDescriptor again(open(kDevice, O_RDWR | O_TRUNC | O_CREAT, 0600));
    ASSERT_GE(again.get(), 0);
    EXPECT_EQ(panel.pixel(2, 2), 0x00FF00FFu);
    EXPECT_EQ(panel.bytes().size(), g.frameSize());
}

TEST(FakefbPreload, broken_description_refuses_its_device_with_einval) {
    const Panel panel(kDevice, Geometry::forDepth(16, 8, 8));
    const std::string broken = panel.backingFile() + ".broken";
    std::ofstream(broken) << "device=" << kDevice << "\nfile=x.raw\nwidth=8\nheight=8\nbpp=12\n";
    setenv("FAKEFB_CONFIG", broken.c_str(), 1);
    EXPECT_EQ(resultAndErrno([&] { return open(kDevice, O_RDWR); }), failedWith(EINVAL));
    EXPECT_FALSE(std::filesystem::exists(panel.backingFile()));
}

TEST(FakefbPreload, geometry_file_is_written_for_the_snapshot_tool) {
    const Panel panel(kDevice, Geometry::forDepth(15, 30, 20));
    std::ifstream in(panel.geometryFile());
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_NE(text.find("device=/dev/fakefb-test-fb2\n"), std::string::npos);
    EXPECT_NE(text.find("file=" + panel.backingFile() + "\n"), std::string::npos);
    EXPECT_NE(text.find("bpp=15\n"), std::string::npos);
    EXPECT_NE(text.find("red=10/5\n"), std::string::npos);
    EXPECT_NE(text.find("line_length=60\n"), std::string::npos);
}

TEST(FakefbPreload, unsupported_depth_is_refused_by_the_test_support) {
    EXPECT_THROW(Geometry::forDepth(12, 8, 8), std::invalid_argument);
    Geometry g = Geometry::forDepth(16, 8, 8);
    g.lineLength = 10;  // shorter than 8 pixels of 2 bytes
    EXPECT_THROW(Panel(kDevice, g), std::invalid_argument);
}

}  // namespace
