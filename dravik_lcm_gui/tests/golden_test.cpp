// Reference pictures of the display engine: each example screen and the edge
// cases of drawing (overlap, clipping, alignment, every animation at chosen
// times, the breathing plateaus), on panels of 15, 16, 24 and 32 bits per pixel
// and through the 8-bit conversion, compared pixel for pixel with the PNGs in
// tests/golden/. DRAVIK_UPDATE_GOLDEN=1 (scripts/update-golden) rewrites them.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <opencv2/core.hpp>
#include <string>
#include <vector>
#include "dravik_image/image_file.h"

#include "LcmGui.h"
#include "LcmGuiTestAccess.h"
#include "dravik_test_support/clock_guard.h"
#include "dravik_test_support/temp_dir.h"

using namespace dravik::lcmgui;
using Access = LcmGuiTestAccess;
using dravik::testsupport::ClockGuard;
using dravik::testsupport::TempDir;
namespace fs = std::filesystem;

namespace {

constexpr uint64_t kStart = 7'000'000;
constexpr uint64_t kTickMs = 30;  // the main loop's pace without requests

uint64_t gNow = kStart;
uint64_t testClock() {
    return gNow;
}

// The panel formats: a depth as its driver usually reports it; depth 8 is
// drawn on a 24-bit panel and its drawing buffer converted line by line as an
// 8-bit panel's would be.
struct Depth {
    const char* name;
    unsigned bits;
    fb_bitfield red, green, blue;
};
const Depth kDepths[] = {
    {"15", 15, {10, 5, 0}, {5, 5, 0}, {0, 5, 0}}, {"16", 16, {11, 5, 0}, {5, 6, 0}, {0, 5, 0}},
    {"24", 24, {16, 8, 0}, {8, 8, 0}, {0, 8, 0}}, {"32", 32, {16, 8, 0}, {8, 8, 0}, {0, 8, 0}},
    {"8", 24, {16, 8, 0}, {8, 8, 0}, {0, 8, 0}},
};

struct Scene {
    std::string name;
    unsigned width, height;
    GuiScreenDesc desc;
    uint64_t atMs;  // shown this long after it was set
};

uint8_t scaled(uint32_t pixel, const fb_bitfield& channel) {
    const uint64_t max = (uint64_t{1} << channel.length) - 1;
    return static_cast<uint8_t>((((pixel >> channel.offset) & max) * 255 + max / 2) / max);
}

// What the panel's memory shows, each channel scaled to 8 bits.
cv::Mat panelPicture(LcmGui& gui) {
    const fb_var_screeninfo& var = gui.panelFormat();
    const unsigned bytes = (var.bits_per_pixel + 7) / 8;
    cv::Mat picture(static_cast<int>(var.yres), static_cast<int>(var.xres), CV_8UC3);
    for (unsigned y = 0; y < var.yres; ++y) {
        const unsigned char* at = gui.panelMemory() + size_t{y} * gui.panelLineLength();
        for (unsigned x = 0; x < var.xres; ++x, at += bytes) {
            uint32_t pixel = 0;
            for (unsigned i = 0; i < bytes; ++i) {
                pixel |= uint32_t{at[i]} << (8 * i);
            }
            picture.at<cv::Vec3b>(static_cast<int>(y), static_cast<int>(x)) = {
                scaled(pixel, var.blue), scaled(pixel, var.green), scaled(pixel, var.red)};
        }
    }
    return picture;
}

// The drawing buffer through the 8-bit panel's colour path: its palette and
// dither tables, each line dithered to palette indices, each index shown as
// the top 8 bits of its colour-map entry.
cv::Mat palettePicture(LcmGui& gui) {
    gui.ditherPalette(8, 8, 4);
    LcmGui::resetDitherMatrix();
    gui.initDither(8, 8, 4, 2);
    LcmGui::resetDitherMatrix();  // the matrix is shared: leave it as found
    cv::Mat& buffer = Access::displayBuf(gui);
    cv::Mat picture(buffer.rows, buffer.cols, CV_8UC3);
    std::vector<unsigned char> indices(static_cast<size_t>(buffer.cols));
    for (int y = 0; y < buffer.rows; ++y) {
        gui.convertLine(8, static_cast<unsigned>(y), static_cast<unsigned>(buffer.cols),
                        indices.data(), buffer.ptr<unsigned char>(y));
        for (int x = 0; x < buffer.cols; ++x) {
            const unsigned i = indices[static_cast<size_t>(x)];
            picture.at<cv::Vec3b>(y, x) = {static_cast<uint8_t>(Access::palBlue(gui)[i] >> 8),
                                           static_cast<uint8_t>(Access::palGreen(gui)[i] >> 8),
                                           static_cast<uint8_t>(Access::palRed(gui)[i] >> 8)};
        }
    }
    return picture;
}

// The drawing buffer through an 8-bit panel's colour path as showBuf converts
// it for a turned panel (the dither taken in the panel's lines), each index
// shown as the top 8 bits of its colour-map entry. The engine is left on that
// path: it serves no more scenes.
cv::Mat turnedPalettePicture(LcmGui& gui) {
    fb_var_screeninfo& var = Access::fbVar(gui);
    var.bits_per_pixel = 8;
    LcmGui::resetDitherMatrix();
    const bool prepared = Access::prepareColourPath(gui);
    LcmGui::resetDitherMatrix();  // the matrix is shared: leave it as found
    std::vector<unsigned char> indices(size_t{var.xres} * var.yres);
    Access::setPanelMemory(gui, indices.data(), var.xres);
    const bool shown = prepared && gui.showBuf();
    Access::setPanelMemory(gui, nullptr, 0);
    if (!shown) {
        return {};
    }
    cv::Mat picture(static_cast<int>(var.yres), static_cast<int>(var.xres), CV_8UC3);
    for (int y = 0; y < picture.rows; ++y) {
        for (int x = 0; x < picture.cols; ++x) {
            const unsigned i = indices[size_t(y) * var.xres + size_t(x)];
            picture.at<cv::Vec3b>(y, x) = {static_cast<uint8_t>(Access::palBlue(gui)[i] >> 8),
                                           static_cast<uint8_t>(Access::palGreen(gui)[i] >> 8),
                                           static_cast<uint8_t>(Access::palRed(gui)[i] >> 8)};
        }
    }
    return picture;
}

// Shows the scene as the daemon would at its time: the full redraw, then a
// tick every 30 ms and one at the time itself.
bool show(LcmGui& gui, const Scene& scene) {
    gNow = kStart;
    if (!gui.setState(scene.desc, gNow)) {
        return false;
    }
    (void)gui.service();
    for (uint64_t t = kTickMs; t < scene.atMs; t += kTickMs) {
        gNow = kStart + t;
        (void)gui.service();
    }
    if (scene.atMs > 0) {
        gNow = kStart + scene.atMs;
        (void)gui.service();
    }
    return true;
}

GuiScreenDesc image(const char* file, AnimType animation = kAnimStatic, uint32_t duration = 0,
                    uint16_t count = 0) {
    GuiScreenDesc desc;
    desc.img.file = file;
    desc.img.animation = animation;
    desc.img.duration = duration;
    desc.img.count = count;
    return desc;
}

GuiScreenDesc text(const char* str, uint16_t size, uint16_t x = 0, uint16_t y = 0) {
    GuiScreenDesc desc;
    desc.text.text = str;
    desc.text.size = size;
    desc.text.x = x;
    desc.text.y = y;
    return desc;
}

// The edge cases, on a 64 x 48 panel.
std::vector<Scene> edgeScenes() {
    constexpr unsigned w = 64;
    constexpr unsigned h = 48;
    std::vector<Scene> scenes;
    GuiScreenDesc overlap = text("Hi", 20);
    overlap.img = image("block.png").img;
    scenes.push_back({"overlap_saturating", w, h, overlap, 0});
    scenes.push_back({"text_clipped_at_right_edge", w, h, text("Clipped", 16, 40, 10), 0});
    for (int hor = 0; hor < 3; ++hor) {
        for (int vert = 0; vert < 3; ++vert) {
            const std::string where =
                std::string(kAlignHorWords[hor]) + "_" + kAlignVertWords[vert];
            GuiScreenDesc img = image("tile.png");
            img.img.alignHor = static_cast<AlignHor>(hor);
            img.img.alignVert = static_cast<AlignVert>(vert);
            scenes.push_back({"image_" + where, w, h, img, 0});
            GuiScreenDesc txt = text("Ag", 12);
            txt.text.alignHor = static_cast<AlignHor>(hor);
            txt.text.alignVert = static_cast<AlignVert>(vert);
            scenes.push_back({"text_" + where, w, h, txt, 0});
        }
    }
    for (uint64_t slide = 0; slide < 4; ++slide) {
        scenes.push_back({"slideshow_slide" + std::to_string(slide), w, h,
                          image("strip.png", kAnimSlideshow, 400, 4), 100 * slide + 50});
    }
    // Breathing over 2000 ms: the black full redraw, then the second period at
    // its start (level 50), rising (85), at the top plateau (99, about 437 ..
    // 563 ms) and at the bottom plateau (0, about 1436 .. 1562 ms).
    const struct {
        const char* name;
        uint64_t at;
    } breaths[] = {{"redraw", 0},
                   {"start", 2000},
                   {"rising", 2250},
                   {"top_plateau", 2500},
                   {"bottom_plateau", 3500}};
    for (const auto& breath : breaths) {
        scenes.push_back({std::string("breathing_") + breath.name, w, h,
                          image("tile.png", kAnimBreathing, 2000), breath.at});
    }
    // A bar 40 wide filled over 1000 ms: empty, 7 pixels, half, full.
    const uint64_t bars[] = {0, 175, 500, 1000};
    for (const uint64_t at : bars) {
        scenes.push_back({"progressbar_" + std::to_string(at * 40 / 1000) + "px", w, h,
                          image("bar.png", kAnimProgressbar, 1000), at});
    }
    return scenes;
}

// The example screens, animations at a chosen time: the spinner's fourth
// slide, the heart at its brightest, the progress bar half full.
const struct {
    const char* name;
    uint64_t at;
} kExamples[] = {{"hello", 0},     {"logo", 0},      {"boot", 0},
                 {"spinner", 350}, {"standby", 500}, {"update", 5000}};

class GoldenTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        root_ = std::make_unique<TempDir>("golden-");
        const fs::path images = fs::path(root_->path()) / "etc/gui/images";
        fs::create_directories(images);
        // A cross build's programs run under its emulator (DRAVIK_EMULATOR).
        const char* emulator = getenv("DRAVIK_EMULATOR");
        const std::string make = (emulator != nullptr ? std::string(emulator) + " " : "") +
                                 EXAMPLE_IMAGES_PROGRAM + " " + images.string() + " > /dev/null";
        ASSERT_EQ(std::system(make.c_str()), 0);
        // The edge cases' pictures: a tile with a gradient, four slides, a bar.
        cv::Mat tile(12, 20, CV_8UC3);
        for (int x = 0; x < tile.cols; ++x) {
            tile.col(x).setTo(cv::Scalar(40 + 10 * x, 200 - 8 * x, 90));
        }
        cv::Mat strip(8, 64, CV_8UC3, cv::Scalar(0, 0, 0));
        const cv::Scalar slideColours[] = {{255, 0, 0}, {0, 255, 0}, {0, 0, 255}, {0, 255, 255}};
        for (int i = 0; i < 4; ++i) {
            strip(cv::Rect(i * 16 + 2 * i, 0, 12 - 2 * i, 8)).setTo(slideColours[i]);
        }
        cv::Mat bar(6, 40, CV_8UC3, cv::Scalar(0, 0, 0));
        bar(cv::Rect(0, 0, 40, 3)).setTo(cv::Scalar(0, 180, 255));
        bar(cv::Rect(0, 0, 1, 3)).setTo(cv::Scalar(255, 255, 255));
        bar(cv::Rect(39, 0, 1, 3)).setTo(cv::Scalar(255, 255, 255));
        bar(cv::Rect(0, 3, 40, 3)).setTo(cv::Scalar(60, 60, 60));
        ASSERT_TRUE(dravik::image::writePng((images / "tile.png").string(), tile));
        ASSERT_TRUE(dravik::image::writePng((images / "strip.png").string(), strip));
        ASSERT_TRUE(dravik::image::writePng((images / "bar.png").string(), bar));
        ASSERT_TRUE(dravik::image::writePng((images / "block.png").string(),
                                            cv::Mat(30, 40, CV_8UC3, cv::Scalar(200, 200, 200))));
        clock_ = std::make_unique<ClockGuard>(testClock);
        fs::remove_all(GOLDEN_FAILURE_DIR);  // only this run's differences stay there
    }
    static void TearDownTestSuite() {
        clock_.reset();
        root_.reset();
    }

    // An engine on a panel of `depth` in memory, images below the test's root.
    static std::unique_ptr<LcmGui> engine(GuiConfig& config, const Depth& depth, unsigned width,
                                          unsigned height, unsigned rotation = 0) {
        auto gui = std::make_unique<LcmGui>(config);
        gui->setGuiRoot(root_->path());
        gui->overrideRotation(rotation);
        fb_var_screeninfo format = {};
        format.xres = width;
        format.yres = height;
        format.bits_per_pixel = depth.bits;
        format.red = depth.red;
        format.green = depth.green;
        format.blue = depth.blue;
        if (!gui->initInMemory(format)) {
            return nullptr;
        }
        return gui;
    }

    static void expectGolden(const std::string& name, const cv::Mat& actual);
    static void runScenes(GuiConfig& config, const std::vector<Scene>& scenes);

    static std::unique_ptr<TempDir> root_;
    static std::unique_ptr<ClockGuard> clock_;
};

std::unique_ptr<TempDir> GoldenTest::root_;
std::unique_ptr<ClockGuard> GoldenTest::clock_;

// A picture of where two pictures differ: the reference dimmed, differing
// pixels in red.
cv::Mat difference(const cv::Mat& expected, const cv::Mat& actual) {
    cv::Mat diff = expected * 0.3;
    for (int y = 0; y < expected.rows; ++y) {
        for (int x = 0; x < expected.cols; ++x) {
            if (expected.at<cv::Vec3b>(y, x) != actual.at<cv::Vec3b>(y, x)) {
                diff.at<cv::Vec3b>(y, x) = {0, 0, 255};
            }
        }
    }
    return diff;
}

void GoldenTest::expectGolden(const std::string& name, const cv::Mat& actual) {
    const std::string reference = std::string(GOLDEN_DIR) + "/" + name + ".png";
    const char* update = getenv("DRAVIK_UPDATE_GOLDEN");
    if (update != nullptr && std::string(update) == "1") {
        ASSERT_TRUE(dravik::image::writePng(reference, actual)) << reference;
        std::cout << "wrote " << reference << "\n";
        return;
    }
    const cv::Mat expected = dravik::image::readImage(reference);
    const fs::path failures = fs::path(GOLDEN_FAILURE_DIR);
    const std::string actualPath = (failures / (name + "-actual.png")).string();
    const std::string diffPath = (failures / (name + "-diff.png")).string();
    const bool same = !expected.empty() && expected.size() == actual.size() &&
                      cv::norm(expected, actual, cv::NORM_INF) == 0;
    if (same) {
        return;
    }
    fs::create_directories(failures);
    (void)dravik::image::writePng(actualPath, actual);
    if (expected.empty()) {
        ADD_FAILURE() << "no reference " << reference << "; the picture drawn is " << actualPath
                      << " (scripts/update-golden writes the references)";
        return;
    }
    if (expected.size() == actual.size()) {
        (void)dravik::image::writePng(diffPath, difference(expected, actual));
    }
    ADD_FAILURE() << name << " differs from " << reference << ": drawn " << actualPath
                  << ", difference (red) " << diffPath;
}

void GoldenTest::runScenes(GuiConfig& config, const std::vector<Scene>& scenes) {
    for (const Depth& depth : kDepths) {
        std::unique_ptr<LcmGui> gui;
        unsigned width = 0;
        unsigned height = 0;
        for (const Scene& scene : scenes) {
            SCOPED_TRACE(scene.name + " at depth " + depth.name);
            if (!gui || scene.width != width || scene.height != height) {
                gui = engine(config, depth, scene.width, scene.height);
                width = scene.width;
                height = scene.height;
                ASSERT_NE(gui, nullptr);
            }
            ASSERT_TRUE(show(*gui, scene));
            const bool palette = std::string(depth.name) == "8";
            expectGolden(scene.name + "-" + depth.name,
                         palette ? palettePicture(*gui) : panelPicture(*gui));
        }
    }
}

TEST_F(GoldenTest, every_example_screen_matches_its_reference_at_every_depth) {
    GuiConfig config;
    ASSERT_TRUE(config.fromJSONFile(std::string(EXAMPLES_DIR) + "/dravik_lcm_gui.json"));
    std::vector<Scene> scenes;
    for (const auto& example : kExamples) {
        bool found = false;
        const GuiScreenDesc& desc = config.getScreenDesc(example.name, found);
        ASSERT_TRUE(found) << example.name;
        scenes.push_back({std::string("example_") + example.name, 240, 240, desc, example.at});
    }
    runScenes(config, scenes);
}

TEST_F(GoldenTest, every_example_screen_matches_its_reference_on_a_turned_panel) {
    // A 240x320 panel: a 320x240 screen at 90 and 270 degrees, 240x320 at 180;
    // the references hold the panel's memory, turned.
    GuiConfig config;
    ASSERT_TRUE(config.fromJSONFile(std::string(EXAMPLES_DIR) + "/dravik_lcm_gui.json"));
    const Depth* depths[] = {&kDepths[1], &kDepths[3], &kDepths[4]};  // 16, 32 and 8 bits
    for (const unsigned rotation : {90U, 180U, 270U}) {
        for (const Depth* depth : depths) {
            for (const auto& example : kExamples) {
                SCOPED_TRACE(std::string(example.name) + " at depth " + depth->name + ", " +
                             std::to_string(rotation) + " degrees");
                bool found = false;
                const GuiScreenDesc& desc = config.getScreenDesc(example.name, found);
                ASSERT_TRUE(found);
                auto gui = engine(config, *depth, 240, 320, rotation);
                ASSERT_NE(gui, nullptr);
                ASSERT_TRUE(show(*gui, {example.name, 240, 320, desc, example.at}));
                const bool palette = std::string(depth->name) == "8";
                expectGolden(std::string("turned") + std::to_string(rotation) + "_" + example.name +
                                 "-" + depth->name,
                             palette ? turnedPalettePicture(*gui) : panelPicture(*gui));
            }
        }
    }
}

TEST_F(GoldenTest, edge_cases_match_their_references_at_every_depth) {
    GuiConfig config;
    const std::string file = root_->write(
        "screens.json", R"({"imgPath": "/etc/gui/images", "screens": [{"name": "x"}]})");
    ASSERT_TRUE(config.fromJSONFile(file));
    runScenes(config, edgeScenes());
}

}  // namespace
