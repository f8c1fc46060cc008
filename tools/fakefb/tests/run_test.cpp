// fakefb-run, seen from outside: its options, and what a program it starts sees.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "dravik_test_support/temp_dir.h"
#include "tool_runner.h"

namespace {

namespace fs = std::filesystem;
using dravik::testsupport::TempDir;
using fakefb::testsupport::readAll;
using fakefb::testsupport::runProgram;
using fakefb::testsupport::ToolResult;

constexpr const char* kDevice = "/dev/fakefb-run-test";

// Runs fakefb-run with the given options, then `command` after "--".
ToolResult runUnder(const std::vector<std::string>& options,
                    const std::vector<std::string>& command,
                    const std::vector<std::pair<std::string, std::string>>& env = {}) {
    std::vector<std::string> args = {FAKEFB_RUN};
    args.insert(args.end(), options.begin(), options.end());
    args.push_back("--");
    args.insert(args.end(), command.begin(), command.end());
    return runProgram(args, env);
}

// Runs the probe on the given devices under fakefb-run with the given panel options.
ToolResult runProbe(const std::vector<std::string>& options,
                    const std::vector<std::string>& probeArgs,
                    const std::vector<std::pair<std::string, std::string>>& env = {}) {
    std::vector<std::string> command = {FAKEFB_PROBE};
    command.insert(command.end(), probeArgs.begin(), probeArgs.end());
    return runUnder(options, command, env);
}

// A command line that fakefb-run refuses, and the message it gives for it.
struct Refusal {
    std::vector<std::string> args;
    const char* message;
};

// fakefb-run with row.args, refused with status 2 and row.message on standard
// error.
ToolResult expectRefused(const Refusal& row) {
    SCOPED_TRACE(row.message);
    std::vector<std::string> all = {FAKEFB_RUN};
    all.insert(all.end(), row.args.begin(), row.args.end());
    ToolResult result = runProgram(all);
    EXPECT_EQ(result.status, 2);
    EXPECT_NE(result.err.find(row.message), std::string::npos) << result.err;
    return result;
}

TEST(FakefbRun, help_lists_every_option) {
    const ToolResult result = runProgram({FAKEFB_RUN, "--help"});
    EXPECT_EQ(result.status, 0);
    for (const char* option : {"--device", "--size", "--bpp", "--rgb", "--transp", "--line-length",
                               "--visual", "--file", "--panel", "--help"}) {
        EXPECT_NE(result.out.find(option), std::string::npos) << option;
    }
    EXPECT_TRUE(result.err.empty()) << result.err;
}

TEST(FakefbRun, bad_options_are_reported_with_status_2) {
    const Refusal rows[] = {
        {{"--bogus", "--", "true"}, "unrecognized option '--bogus'"},
        {{"--bpp", "12", "--", "true"}, "bad --bpp 12: expected 8, 15, 16, 24 or 32"},
        {{"--size", "240", "--", "true"}, "bad --size \"240\""},
        {{"--rgb", "11/5,5/6", "--", "true"}, "bad --rgb \"11/5,5/6\""},
        {{"--visual", "grey", "--", "true"}, "bad --visual \"grey\""},
        {{"--size", "10x10", "--line-length", "19", "--", "true"}, "line_length 19"},
        {{"--bpp", "16", "--rgb", "11/5,5/6,12/5", "--", "true"}, "outside the 16-bit pixel"},
        {{"--file", "a.raw"}, "no command given"},
        {{"--panel", "--", "true"}, "two panels share the device or file of /dev/fb2"},
    };
    for (const Refusal& row : rows) {
        const ToolResult result = expectRefused(row);
        EXPECT_NE(result.err.find("Try 'fakefb-run --help'"), std::string::npos) << row.message;
    }
}

TEST(FakefbRun, command_sees_the_usual_layout_of_every_depth) {
    struct Row {
        const char* bpp;
        const char* expected;
    } rows[] = {
        {"8",
         "bpp=8 line_length=20 smem_len=200 visual=3 red=0/8 green=0/8 blue=0/8 "
         "transp=0/0 putcmap=0"},
        {"15",
         "bpp=15 line_length=40 smem_len=400 visual=2 red=10/5 green=5/5 blue=0/5 "
         "transp=0/0 putcmap=22"},
        {"16",
         "bpp=16 line_length=40 smem_len=400 visual=2 red=11/5 green=5/6 blue=0/5 "
         "transp=0/0 putcmap=22"},
        {"24",
         "bpp=24 line_length=60 smem_len=600 visual=2 red=16/8 green=8/8 blue=0/8 "
         "transp=0/0 putcmap=22"},
        {"32",
         "bpp=32 line_length=80 smem_len=800 visual=2 red=16/8 green=8/8 blue=0/8 "
         "transp=0/0 putcmap=22"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.bpp);
        const TempDir dir;
        const std::string file = dir.path() + "/panel.raw";
        const ToolResult result = runProbe(
            {"--device", kDevice, "--size", "20x10", "--bpp", row.bpp, "--file", file}, {kDevice});
        ASSERT_EQ(result.status, 0) << result.out << result.err;
        EXPECT_EQ(result.out,
                  std::string(kDevice) + " id=fakefb xres=20 yres=10 " + row.expected + "\n");
        const std::string pixels = readAll(file);
        ASSERT_EQ(
            pixels.size(),
            std::stoul(
                std::string(row.expected).substr(std::string(row.expected).find("smem_len=") + 9)));
        EXPECT_EQ(static_cast<uint8_t>(pixels.front()), 0x5A);
        EXPECT_EQ(static_cast<uint8_t>(pixels.back()), 0xA5);
        EXPECT_NE(readAll(file + ".geom").find("bpp=" + std::string(row.bpp) + "\n"),
                  std::string::npos);
    }
}

TEST(FakefbRun, layout_line_length_and_visual_options_reach_the_command) {
    const TempDir dir;
    const std::string file = dir.path() + "/panel.raw";
    const ToolResult result =
        runProbe({"-d", kDevice, "-s", "10x4", "-b", "32", "-r", "0/8,8/8,16/8", "-t", "24/8", "-l",
                  "48", "-v", "directcolor", "-f", file},
                 {kDevice});
    ASSERT_EQ(result.status, 0) << result.out << result.err;
    EXPECT_EQ(result.out, std::string(kDevice) +
                              " id=fakefb xres=10 yres=4 bpp=32 line_length=48 smem_len=192 "
                              "visual=4 red=0/8 green=8/8 blue=16/8 transp=24/8 putcmap=0\n");
    EXPECT_NE(readAll(file + ".cmap").find("writes=1\n"), std::string::npos);
}

TEST(FakefbRun, two_panels_run_at_once) {
    const TempDir dir;
    const ToolResult result =
        runProbe({"--device", "/dev/fakefb-run-a", "--size", "8x8", "--bpp", "16", "--file",
                  dir.path() + "/a.raw", "--panel", "--device", "/dev/fakefb-run-b", "--size",
                  "4x2", "--bpp", "24", "--file", dir.path() + "/b.raw"},
                 {"/dev/fakefb-run-a", "/dev/fakefb-run-b"});
    ASSERT_EQ(result.status, 0) << result.out << result.err;
    EXPECT_NE(result.out.find("/dev/fakefb-run-a id=fakefb xres=8 yres=8 bpp=16"),
              std::string::npos)
        << result.out;
    EXPECT_NE(result.out.find("/dev/fakefb-run-b id=fakefb xres=4 yres=2 bpp=24"),
              std::string::npos)
        << result.out;
    EXPECT_EQ(readAll(dir.path() + "/a.raw").size(), 128u);
    EXPECT_EQ(readAll(dir.path() + "/b.raw").size(), 24u);
}

TEST(FakefbRun, default_backing_file_is_named_after_the_device) {
    const TempDir dir;
    const std::string device = "/dev/fakefb-run-default";
    std::error_code ec;
    const fs::path old = fs::current_path(ec);
    fs::current_path(dir.path());
    const ToolResult result = runProbe({"--device", device}, {device});
    fs::current_path(old);
    ASSERT_EQ(result.status, 0) << result.out << result.err;
    EXPECT_NE(result.out.find("xres=240 yres=240 bpp=16 line_length=480"), std::string::npos);
    EXPECT_EQ(readAll(dir.path() + "/fakefb-run-default.raw").size(), 240u * 480u);
}

TEST(FakefbRun, environment_is_extended_not_replaced) {
    const TempDir dir;
    const std::string file = dir.path() + "/panel.raw";
    const ToolResult result =
        runProbe({"--device", kDevice, "--file", file}, {"--env"},
                 {{"LD_PRELOAD", "libearlier.so"}, {"ASAN_OPTIONS", "detect_leaks=1"}});
    ASSERT_EQ(result.status, 0) << result.out << result.err;
    const std::string library = fs::canonical(FAKEFB_LIBRARY).string();
    EXPECT_NE(result.out.find("LD_PRELOAD=" + library + ":libearlier.so\n"), std::string::npos)
        << result.out;
    EXPECT_NE(result.out.find("ASAN_OPTIONS=detect_leaks=1:verify_asan_link_order=0\n"),
              std::string::npos)
        << result.out;
    EXPECT_NE(result.out.find("FAKEFB_CONFIG=" + file + ".geom\n"), std::string::npos)
        << result.out;
}

TEST(FakefbRun, stale_colour_map_is_forgotten_at_start) {
    const TempDir dir;
    const std::string file = dir.path() + "/panel.raw";
    const std::vector<std::string> options = {"--device", kDevice, "--bpp", "8", "--file", file};
    ASSERT_EQ(runProbe(options, {kDevice}).status, 0);
    ASSERT_EQ(runProbe(options, {kDevice}).status, 0);
    EXPECT_NE(readAll(file + ".cmap").find("writes=1\n"), std::string::npos);
}

TEST(FakefbRun, finds_its_library_in_an_installed_layout) {
    const TempDir prefix;
    fs::create_directories(prefix.path() + "/bin");
    fs::create_directories(prefix.path() + "/lib");
    fs::copy_file(FAKEFB_RUN, prefix.path() + "/bin/fakefb-run");
    fs::copy_file(FAKEFB_LIBRARY, prefix.path() + "/lib/libfakefb.so");
    const std::string file = prefix.path() + "/panel.raw";
    const ToolResult result = runProgram({prefix.path() + "/bin/fakefb-run", "--device", kDevice,
                                          "--file", file, "--", FAKEFB_PROBE, "--env", kDevice});
    ASSERT_EQ(result.status, 0) << result.out << result.err;
    EXPECT_NE(result.out.find("LD_PRELOAD=" + fs::canonical(prefix.path()).string() +
                              "/lib/libfakefb.so"),
              std::string::npos)
        << result.out;
    EXPECT_NE(result.out.find("id=fakefb xres=240"), std::string::npos);
}

// Runs the DRM probe on device under fakefb-run with the given panel options.
ToolResult runDrmProbe(const std::vector<std::string>& options, const std::string& device,
                       const std::vector<std::string>& probeArgs = {}) {
    std::vector<std::string> command = {FAKEFB_DRM_PROBE, device};
    command.insert(command.end(), probeArgs.begin(), probeArgs.end());
    return runUnder(options, command);
}

std::vector<std::string> damageKinds(const std::string& file) {
    std::vector<std::string> kinds;
    std::istringstream lines(readAll(file));
    for (std::string line; std::getline(lines, line);) {
        kinds.push_back(line.substr(0, line.find(' ')));
    }
    return kinds;
}

TEST(FakefbRun, help_lists_the_drm_options) {
    const ToolResult result = runProgram({FAKEFB_RUN, "--help"});
    EXPECT_EQ(result.status, 0);
    for (const char* option : {"--drm", "--connectors", "--vblank", "--flip", "--no-master",
                               "--no-dumb", "--no-closefb", "--orientation", "FILE.damage"}) {
        EXPECT_NE(result.out.find(option), std::string::npos) << option;
    }
}

TEST(FakefbRun, bad_drm_options_are_reported_with_status_2) {
    const Refusal rows[] = {
        {{"--vblank", "--", "true"}, "--vblank describes a DRM panel: add --drm"},
        {{"--no-closefb", "--drm", "--bpp", "24", "--", "true"}, "16 bpp (RGB565) or 32 bpp"},
        {{"--drm", "--connectors", "HDMI-A-1", "--", "true"}, "bad --connectors \"HDMI-A-1\""},
        {{"--drm", "--connectors", "Telex-1:connected", "--", "true"}, "bad --connectors"},
        {{"--drm", "--connectors", "DSI-1:connected,DSI-1:disconnected", "--", "true"},
         "two connectors have the same name"},
        {{"--drm", "--flip", "sometimes", "--", "true"}, "bad --flip \"sometimes\""},
        {{"--drm", "--orientation", "sideways", "--", "true"}, "bad --orientation"},
        {{"--drm", "--line-length", "1000", "--", "true"}, "no padding"},
    };
    for (const Refusal& row : rows) {
        (void)expectRefused(row);  // status and message are the whole check
    }
}

TEST(FakefbRun, command_sees_the_described_drm_panel) {
    const TempDir dir;
    const std::string file = dir.path() + "/panel.raw";
    const ToolResult result =
        runDrmProbe({"--drm", "--device", "/dev/dri/card1", "--size", "20x10", "--bpp", "16",
                     "--connectors", "HDMI-A-1:disconnected,DSI-1:connected", "--vblank",
                     "--orientation", "left_up", "--file", file},
                    "/dev/dri/card1");
    ASSERT_EQ(result.status, 0) << result.out << result.err;
    EXPECT_EQ(result.out,
              "/dev/dri/card1 chr=1 rdev=226:1 driver=fakefb master=1 dumb=1 depth=16\n"
              "connector HDMI-A-1 disconnected modes=0 orientation=Left Side Up\n"
              "connector DSI-1 connected modes=1 20x10@60 orientation=Left Side Up\n"
              "shown=1 vblank=1\n");
    // Without the hand-over the panel goes dark when the program ends.
    EXPECT_EQ(readAll(file), std::string(20 * 10 * 2, '\0'));
    EXPECT_EQ(damageKinds(file + ".damage"), (std::vector<std::string>{"setcrtc", "close", "off"}));
    const std::string geom = readAll(file + ".geom");
    for (const char* line : {"kind=drm\n", "connectors=HDMI-A-1:disconnected,DSI-1:connected\n",
                             "vblank=yes\n", "flip=complete\n", "master=yes\n", "dumb=yes\n",
                             "closefb=yes\n", "orientation=left_up\n"}) {
        EXPECT_NE(geom.find(line), std::string::npos) << line << geom;
    }
}

TEST(FakefbRun, handed_over_frame_stays_on_the_drm_panel_and_snapshots) {
    const TempDir dir;
    const std::string file = dir.path() + "/panel.raw";
    const ToolResult result = runDrmProbe({"--drm", "--size", "8x4", "--bpp", "32", "--file", file},
                                          "/dev/dri/card0", {"--closefb"});
    ASSERT_EQ(result.status, 0) << result.out << result.err;
    EXPECT_NE(result.out.find("/dev/dri/card0 chr=1 rdev=226:0 driver=fakefb master=1 dumb=1 "
                              "depth=24\n"),
              std::string::npos)
        << result.out;
    EXPECT_NE(result.out.find("shown=1 vblank=0\nclosefb=ok\n"), std::string::npos) << result.out;
    EXPECT_EQ(readAll(file), std::string(8 * 4 * 4, '\x5A'));
    EXPECT_EQ(damageKinds(file + ".damage"),
              (std::vector<std::string>{"setcrtc", "closefb", "close"}));
    const ToolResult shot = runProgram({FAKEFB_SNAPSHOT, file, dir.path() + "/shot.png"});
    EXPECT_EQ(shot.status, 0) << shot.err;
    // A new run starts with a fresh damage record.
    ASSERT_EQ(
        runDrmProbe({"--drm", "--size", "8x4", "--bpp", "32", "--file", file}, "/dev/dri/card0")
            .status,
        0);
    EXPECT_EQ(damageKinds(file + ".damage"), (std::vector<std::string>{"setcrtc", "close", "off"}));
}

TEST(FakefbRun, drm_switches_take_away_what_they_name) {
    struct Row {
        std::vector<std::string> options;
        std::vector<std::string> probeArgs;
        const char* expected;
    } rows[] = {
        {{"--no-master"}, {}, "master=0 dumb=1"},
        {{"--no-master"}, {}, "shown=0"},
        {{"--no-dumb"}, {}, "master=1 dumb=0"},
        {{"--no-closefb"}, {"--closefb"}, "closefb=Invalid argument\n"},
        {{"--flip", "never", "--vblank"}, {}, "shown=1 vblank=1\n"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.expected);
        const TempDir dir;
        std::vector<std::string> options = {"--drm", "--file", dir.path() + "/p.raw"};
        options.insert(options.end(), row.options.begin(), row.options.end());
        const ToolResult result = runDrmProbe(options, "/dev/dri/card0", row.probeArgs);
        EXPECT_NE(result.out.find(row.expected), std::string::npos) << result.out << result.err;
        EXPECT_EQ(result.status, std::string(row.expected).find("shown=1") == 0 ? 0 : 1);
    }
}

TEST(FakefbRun, drm_panel_defaults_to_card0_named_after_it) {
    const TempDir dir;
    std::error_code ec;
    const fs::path old = fs::current_path(ec);
    fs::current_path(dir.path());
    const ToolResult result = runDrmProbe({"--drm"}, "/dev/dri/card0");
    fs::current_path(old);
    ASSERT_EQ(result.status, 0) << result.out << result.err;
    EXPECT_NE(result.out.find("connector Virtual-1 connected modes=1 240x240@60 orientation=none"),
              std::string::npos)
        << result.out;
    EXPECT_EQ(readAll(dir.path() + "/card0.raw").size(), 240u * 240u * 2u);
    EXPECT_EQ(readAll(dir.path() + "/card0.raw.geom").find("device=/dev/dri/card0\n"),
              std::string("# fakefb panel\n").size());
}

TEST(FakefbRun, missing_command_exits_127) {
    const TempDir dir;
    const ToolResult result = runProgram(
        {FAKEFB_RUN, "--file", dir.path() + "/p.raw", "--", dir.path() + "/no-such-command"});
    EXPECT_EQ(result.status, 127);
    EXPECT_NE(result.err.find("cannot run " + dir.path() + "/no-such-command"), std::string::npos)
        << result.err;
}

}  // namespace
