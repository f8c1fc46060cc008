// Reference pictures of the display engine: each example screen and the edge
// cases of drawing (overlap, clipping, alignment, every animation at chosen
// times, the breathing plateaus), on panels of 15, 16, 24 and 32 bits per pixel
// and through the 8-bit conversion, compared pixel for pixel with the PNGs in
// tests/golden/. DRAVIK_UPDATE_GOLDEN=1 (scripts/update-golden) rewrites them.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <opencv2/core.hpp>
#include <string>
#include <vector>
#include "dravik_image/image_file.h"

#include "LcmGui.h"
#include "LcmGuiTestAccess.h"
#include "dravik_panel_picture/layout.h"
#include "dravik_panel_picture/picture.h"
#include "dravik_test_support/golden_picture.h"
#include "dravik_test_support/program_run.h"
#include "dravik_test_support/temp_dir.h"
#include "panel_scene.h"

using namespace dravik::lcmgui;
using Access = LcmGuiTestAccess;
namespace panel = dravik::panel;
namespace testsupport = dravik::testsupport;
namespace fs = std::filesystem;

namespace {

constexpr uint64_t kStart = 7'000'000;

// The panel formats: a depth with the layout its driver usually reports;
// depth 8 is drawn on a 24-bit panel and its drawing buffer converted line by
// line as an 8-bit panel's would be.
struct Depth {
    const char* name;
    unsigned bits;
};
const Depth kDepths[] = {{"15", 15}, {"16", 16}, {"24", 24}, {"32", 32}, {"8", 24}};

struct Scene {
    std::string name;
    unsigned width, height;
    GuiScreenDesc desc;
    uint64_t atMs;  // shown this long after it was set
};

// What 8-bit panel memory of `width` x `height` palette indices shows: each
// index as the top 8 bits of its colour-map entry.
cv::Mat indexPicture(LcmGui& gui, const unsigned char* indices, unsigned width, unsigned height) {
    const panel::PanelMemoryFormat format{width, height, 8,     {},
                                          {},    {},     width, panel::PixelLookup::palette};
    const panel::ColourMap map{Access::palRed(gui), Access::palGreen(gui), Access::palBlue(gui),
                               256};
    return panel::panelPicture(format, indices, &map);
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
    const auto width = static_cast<unsigned>(buffer.cols);
    std::vector<unsigned char> indices(size_t{width} * static_cast<size_t>(buffer.rows));
    for (int y = 0; y < buffer.rows; ++y) {
        gui.convertLine(8, static_cast<unsigned>(y), width, &indices[size_t{width} * size_t(y)],
                        buffer.ptr<unsigned char>(y));
    }
    return indexPicture(gui, indices.data(), width, static_cast<unsigned>(buffer.rows));
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
    return indexPicture(gui, indices.data(), var.xres, var.yres);
}

// The edge cases, on a 64 x 48 panel.
std::vector<Scene> edgeScenes() {
    constexpr unsigned w = 64;
    constexpr unsigned h = 48;
    std::vector<Scene> scenes;
    GuiScreenDesc overlap = panel::textScreen("Hi", 20);
    overlap.img = panel::imageScreen("block.png").img;
    scenes.push_back({"overlap_saturating", w, h, overlap, 0});
    scenes.push_back(
        {"text_clipped_at_right_edge", w, h, panel::textScreen("Clipped", 16, 40, 10), 0});
    for (int hor = 0; hor < 3; ++hor) {
        for (int vert = 0; vert < 3; ++vert) {
            const std::string where =
                std::string(kAlignHorWords[hor]) + "_" + kAlignVertWords[vert];
            GuiScreenDesc img = panel::imageScreen("tile.png");
            img.img.alignHor = static_cast<AlignHor>(hor);
            img.img.alignVert = static_cast<AlignVert>(vert);
            scenes.push_back({"image_" + where, w, h, img, 0});
            GuiScreenDesc txt = panel::textScreen("Ag", 12);
            txt.text.alignHor = static_cast<AlignHor>(hor);
            txt.text.alignVert = static_cast<AlignVert>(vert);
            scenes.push_back({"text_" + where, w, h, txt, 0});
        }
    }
    for (uint64_t slide = 0; slide < 4; ++slide) {
        scenes.push_back({"slideshow_slide" + std::to_string(slide), w, h,
                          panel::imageScreen("strip.png", kAnimSlideshow, 400, 4),
                          100 * slide + 50});
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
                          panel::imageScreen("tile.png", kAnimBreathing, 2000), breath.at});
    }
    // A bar 40 wide filled over 1000 ms: empty, 7 pixels, half, full.
    const uint64_t bars[] = {0, 175, 500, 1000};
    for (const uint64_t at : bars) {
        scenes.push_back({"progressbar_" + std::to_string(at * 40 / 1000) + "px", w, h,
                          panel::imageScreen("bar.png", kAnimProgressbar, 1000), at});
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
        root_ = std::make_unique<testsupport::TempDir>("golden-");
        const fs::path images = fs::path(root_->path()) / "etc/gui/images";
        const testsupport::ProgramRun made =
            testsupport::writeExampleImages(EXAMPLE_IMAGES_PROGRAM, images.string());
        ASSERT_EQ(made.status, 0) << made.err;
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
        clock_ = std::make_unique<panel::SceneClock>(kStart);
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
        const panel::DepthLayout& usual = *panel::layoutForDepth(depth.bits);
        format.red = {usual.red.offset, usual.red.length, 0};
        format.green = {usual.green.offset, usual.green.length, 0};
        format.blue = {usual.blue.offset, usual.blue.length, 0};
        if (!gui->initInMemory(format)) {
            return nullptr;
        }
        return gui;
    }

    static void runScenes(GuiConfig& config, const std::vector<Scene>& scenes);

    static std::unique_ptr<testsupport::TempDir> root_;
    static std::unique_ptr<panel::SceneClock> clock_;
    static const testsupport::GoldenPictures golden_;
};

std::unique_ptr<testsupport::TempDir> GoldenTest::root_;
std::unique_ptr<panel::SceneClock> GoldenTest::clock_;
const testsupport::GoldenPictures GoldenTest::golden_(GOLDEN_DIR, GOLDEN_FAILURE_DIR);

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
            ASSERT_TRUE(clock_->show(*gui, scene.desc, scene.atMs));
            const bool palette = std::string(depth.name) == "8";
            EXPECT_TRUE(
                golden_.matches(scene.name + "-" + depth.name,
                                palette ? palettePicture(*gui) : panel::enginePicture(*gui)));
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
                ASSERT_TRUE(clock_->show(*gui, desc, example.at));
                const bool palette = std::string(depth->name) == "8";
                EXPECT_TRUE(golden_.matches(
                    std::string("turned") + std::to_string(rotation) + "_" + example.name + "-" +
                        depth->name,
                    palette ? turnedPalettePicture(*gui) : panel::enginePicture(*gui)));
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
