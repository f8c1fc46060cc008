// The display engine's per-frame work on simulated 240 x 240 panels: copying
// the drawing buffer to the panel (whole screen and a small rectangle) at every
// depth, and one tick of a breathing animation. Each is paired with the plain
// operation it is compared with (scripts/bench prints the ratios): a memcpy of
// the same output bytes, line by line, and one saturating add of the same
// picture.
//
// The panel's memory is an ordinary file mapping here (see docs/fakefb.md), so
// the figures are those of the conversion into cached memory; a real panel's
// memory may be slower to write.
#include <benchmark/benchmark.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <opencv2/core.hpp>
#include <string>
#include <vector>
#include "dravik_image/image_file.h"

#include "GuiConfig.h"
#include "LcmGui.h"
#include "dravik_logger/logger.h"
#include "dravik_test_support/temp_dir.h"
#include "fakefb/fakefb.h"

#if DRAVIK_BENCH_HAVE_TEST_SUPPORT
#include "LcmGuiTestAccess.h"
#include "PrivateGuiPaths.h"
#include "dravik_test_support/clock_guard.h"
#endif

using dravik::lcmgui::GuiConfig;
using dravik::lcmgui::GuiImgConf;
using dravik::lcmgui::GuiScreenDesc;
using dravik::lcmgui::LcmGui;

namespace {

constexpr char kDevice[] = "/dev/fb-bench";
constexpr unsigned kWidth = 240;
constexpr unsigned kHeight = 240;
// A small update: about one line of 18-pixel text.
constexpr unsigned kRectX = 88;
constexpr unsigned kRectY = 108;
constexpr unsigned kRectW = 64;
constexpr unsigned kRectH = 24;
// Where the breathing picture lives while the program runs.
constexpr char kImageDir[] = "/etc/gui/dravik_bench";
constexpr char kBreathingFile[] = "breathing.png";

// A picture in which neighbouring pixels differ in every channel.
cv::Mat pattern(int width, int height) {
    cv::Mat img(height, width, CV_8UC3);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            img.at<cv::Vec3b>(y, x) = {static_cast<uint8_t>(x * 7 + y * 3),
                                       static_cast<uint8_t>(x * 3 + y * 11 + 17),
                                       static_cast<uint8_t>(255 - x * 5 - y)};
        }
    }
    return img;
}

// The screens file every engine here is made with: no backlight, the
// benchmark's own image directory, one screen.
const GuiConfig& config() {
    static const GuiConfig loaded = [] {
        const dravik::testsupport::TempDir dir("dravik_lcm_gui_bench_");
        const std::string path = dir.write(
            "screens.json", std::string(R"({"imgPath": ")") + kImageDir +
                                R"(", "backLightPath": "", "screens": [{"name": "any"}]})");
        GuiConfig c;
        if (!c.fromJSONFile(path)) {
            std::fprintf(stderr, "the benchmark's screens file was refused\n");
        }
        return c;
    }();
    return loaded;
}

// Counts the warnings and errors the engine logs while it lives: several
// drawing steps report a failure only in the log.
class FailureCounter {
public:
    FailureCounter() {
        dravik::logger::setHook([this](const dravik::logger::Record& record) {
            if (record.level <= dravik::logger::kWarning) {
                ++failures;
            }
        });
    }
    ~FailureCounter() { dravik::logger::setHook(nullptr); }
    FailureCounter(const FailureCounter&) = delete;
    FailureCounter& operator=(const FailureCounter&) = delete;

    unsigned failures = 0;
};

// An engine started on a simulated panel of the given depth. The engine keeps
// a reference to its configuration, hence the copy held here.
class PanelEngine {
public:
    explicit PanelEngine(unsigned depth, unsigned rotation = 0)
        : panel(kDevice, fakefb::Geometry::forDepth(depth, kWidth, kHeight)), gui(guiConfig) {
        panel.apply();
        gui.overrideRotation(rotation);
        // Every start-up on an 8-bit panel scales the shared dither matrix once more.
        LcmGui::resetDitherMatrix();
        started = gui.init(kDevice, "", -1);
    }
    ~PanelEngine() { fakefb::Panel::clearAll(); }
    PanelEngine(const PanelEngine&) = delete;
    PanelEngine& operator=(const PanelEngine&) = delete;

    // Fills the drawing buffer with the pattern through the engine's own
    // drawing path, without showing it.
    bool paint() {
        GuiImgConf conf;
        conf.file = "pattern";
        return gui.renderImage(pattern(kWidth, kHeight), conf, 0, true, false);
    }

    fakefb::Panel panel;
    GuiConfig guiConfig = config();
    LcmGui gui;
    bool started = false;
};

void showBuf(benchmark::State& state, unsigned x, unsigned y, unsigned w, unsigned h,
             unsigned rotation = 0) {
    const auto depth = static_cast<unsigned>(state.range(0));
    PanelEngine engine(depth, rotation);
    if (!engine.started || !engine.paint()) {
        state.SkipWithError("the engine did not start on the simulated panel");
        return;
    }
    // The loop variable only drives the iterations.
    for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores)
        if (!engine.gui.showBuf(x, y, w, h)) {
            state.SkipWithError("showBuf refused the rectangle");
            return;
        }
        benchmark::ClobberMemory();
    }
    if (engine.panel.pixel(kRectX + 1, kRectY + 1) == 0) {
        state.SkipWithError("the pattern did not reach the panel");
        return;
    }
    const uint64_t pixels = uint64_t{w == 0 ? kWidth : w} * (h == 0 ? kHeight : h);
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * pixels));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * pixels * ((depth + 7) / 8)));
}

void BM_ShowBuf_FullScreen(benchmark::State& state) {
    showBuf(state, 0, 0, 0, 0);
}
BENCHMARK(BM_ShowBuf_FullScreen)->ArgName("bpp")->Arg(15)->Arg(16)->Arg(24)->Arg(32);

// The same on a panel turned by a quarter, a half or three quarters: the turn
// is made inside the conversion, gathering each panel line from a column (or a
// reversed row) of the drawing buffer.
void BM_ShowBuf_FullScreenTurned(benchmark::State& state) {
    showBuf(state, 0, 0, 0, 0, static_cast<unsigned>(state.range(1)));
}
BENCHMARK(BM_ShowBuf_FullScreenTurned)
    ->ArgNames({"bpp", "deg"})
    ->ArgsProduct({{15, 16, 24, 32}, {90, 180, 270}});

// The floor for a full-screen conversion: the same number of output bytes per
// line, copied line by line from one buffer to another.
void BM_Memcpy_FullScreen(benchmark::State& state) {
    const auto bytesPerPixel = static_cast<size_t>(state.range(0));
    const size_t lineBytes = kWidth * bytesPerPixel;
    std::vector<unsigned char> from(lineBytes * kHeight, 0x5A);
    std::vector<unsigned char> to(lineBytes * kHeight, 0);
    // The loop variable only drives the iterations.
    for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores)
        for (unsigned i = 0; i < kHeight; ++i) {
            std::memcpy(to.data() + i * lineBytes, from.data() + i * lineBytes, lineBytes);
        }
        benchmark::ClobberMemory();
    }
    if (to[lineBytes * kHeight - 1] != 0x5A) {
        state.SkipWithError("the copy did not arrive");
        return;
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * lineBytes * kHeight));
}
BENCHMARK(BM_Memcpy_FullScreen)->ArgName("bytes")->Arg(1)->Arg(2)->Arg(3)->Arg(4);

void BM_ShowBuf_Rect64x24(benchmark::State& state) {
    showBuf(state, kRectX, kRectY, kRectW, kRectH);
}
BENCHMARK(BM_ShowBuf_Rect64x24)->ArgName("bpp")->Arg(15)->Arg(16)->Arg(24)->Arg(32);

// 8-bit panels stop starting up after their colour map, so the conversion that
// showBuf would run for them (convertLine at depth 8, which dithers) is driven
// here line by line on a buffer, with the tables start-up prepared.
void convert8(benchmark::State& state, unsigned x, unsigned y, unsigned w, unsigned h) {
    PanelEngine engine(8);
    if (engine.started || engine.panel.putCmapCount() != 1) {
        state.SkipWithError("the 8-bit panel did not get its colour map");
        return;
    }
    cv::Mat src = pattern(kWidth, kHeight);
    std::vector<unsigned char> dst(size_t{kWidth} * kHeight);
    // The loop variable only drives the iterations.
    for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores)
        for (unsigned i = 0; i < h; ++i) {
            unsigned char* from = src.ptr<unsigned char>(static_cast<int>(y + i)) + size_t{x} * 3;
            unsigned char* to = dst.data() + size_t{y + i} * kWidth + x;
            benchmark::DoNotOptimize(engine.gui.convertLine(8, i, w, to, from));
        }
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * w * h));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * w * h));
}

void BM_ConvertLine8_FullScreen(benchmark::State& state) {
    convert8(state, 0, 0, kWidth, kHeight);
}
BENCHMARK(BM_ConvertLine8_FullScreen);

void BM_ConvertLine8_Rect64x24(benchmark::State& state) {
    convert8(state, kRectX, kRectY, kRectW, kRectH);
}
BENCHMARK(BM_ConvertLine8_Rect64x24);

#if DRAVIK_BENCH_HAVE_TEST_SUPPORT

using dravik::lcmgui::LcmGuiTestAccess;
using dravik::lcmgui::testsupport::PrivateGuiPaths;

PrivateGuiPaths& privatePaths() {
    static PrivateGuiPaths paths;
    return paths;
}

uint64_t gNow = 0;
uint64_t benchClock() {
    return gNow;
}

// The image directories must be entered while the process has one thread,
// before the benchmark library starts.
void preparePrivatePaths() {
    privatePaths().SetUp();
    if (!PrivateGuiPaths::ready()) {
        return;
    }
    const std::string dir = kImageDir;
    if (mkdir(dir.c_str(), 0755) != 0 ||
        !dravik::image::writePng(dir + "/" + kBreathingFile, pattern(120, 120))) {
        std::fprintf(stderr, "cannot write the breathing picture under %s\n", kImageDir);
    }
}

// The floor for a breathing tick: one saturating add of the same 120 x 120
// picture into the middle of a 240 x 240 drawing buffer.
void BM_Add_Breathing120(benchmark::State& state) {
    cv::Mat buffer = cv::Mat::zeros(kHeight, kWidth, CV_8UC3);
    const cv::Mat picture = pattern(120, 120);
    cv::Mat target = buffer(cv::Rect(60, 60, 120, 120));
    // The loop variable only drives the iterations.
    for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores)
        cv::add(target, picture, target);
        benchmark::ClobberMemory();
    }
    if (cv::countNonZero(target.reshape(1)) == 0) {
        state.SkipWithError("the picture was not added");
    }
}
BENCHMARK(BM_Add_Breathing120);

// One tick of a 120 x 120 breathing picture, centred on a 16-bit panel, whose
// level changes at every tick: the clock alternates between a phase of level
// 50 and one of level 99, a cycle further each time.
void BM_Service_BreathingTick(benchmark::State& state) {
    if (!PrivateGuiPaths::ready()) {
        state.SkipWithError(("no private image directories: " + PrivateGuiPaths::reason()).c_str());
        return;
    }
    constexpr uint64_t kStart = 1'000'000;
    constexpr uint32_t kDuration = 2000;
    const dravik::testsupport::ClockGuard clock(benchClock);
    gNow = kStart;
    PanelEngine engine(16);
    GuiScreenDesc screen;
    screen.img.file = kBreathingFile;
    screen.img.alignHor = dravik::lcmgui::kAlignCenter;
    screen.img.alignVert = dravik::lcmgui::kAlignMiddle;
    screen.img.animation = dravik::lcmgui::kAnimBreathing;
    screen.img.duration = kDuration;
    if (!engine.started || !engine.gui.setState(screen, gNow) || !engine.gui.service() ||
        LcmGuiTestAccess::state(engine.gui).img.empty()) {
        state.SkipWithError("the breathing screen did not come up");
        return;
    }
    const auto& anim = LcmGuiTestAccess::state(engine.gui);
    const FailureCounter counter;
    uint64_t tick = 0;
    // The loop variable only drives the iterations.
    for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores)
        ++tick;
        gNow = kStart + tick / 2 * kDuration + (tick % 2) * (kDuration / 4);
        const uint32_t before = anim.lastLevel;
        (void)engine.gui.service();  // returns true whatever it drew; checked below
        if (anim.lastLevel == before) {
            state.SkipWithError("a tick did not change the animation level");
            return;
        }
    }
    if (counter.failures != 0) {
        state.SkipWithError("the engine logged a failure while animating");
    } else if (engine.panel.pixel(kWidth / 2, kHeight / 2) == 0) {
        state.SkipWithError("the breathing picture did not reach the panel");
    }
}
BENCHMARK(BM_Service_BreathingTick);

#endif

}  // namespace

int main(int argc, char** argv) {
    if (!fakefb::ensurePreloaded(argc, argv)) {
        return 1;
    }
#if DRAVIK_BENCH_HAVE_TEST_SUPPORT
    preparePrivatePaths();
#endif
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
#if DRAVIK_BENCH_HAVE_TEST_SUPPORT
    privatePaths().TearDown();
#endif
    return 0;
}
