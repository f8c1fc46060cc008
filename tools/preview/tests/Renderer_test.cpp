#include "preview/Renderer.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <opencv2/core.hpp>
#include <set>
#include "dravik_image/image_file.h"

#include "MistakesRoot.h"
#include "preview/Checker.h"

namespace dravik::preview {
namespace {

namespace fs = std::filesystem;
using lcmgui::GuiScreenDesc;
using panel::imageScreen;

class RendererTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        root_ = std::make_unique<dravik::testsupport::TempDir>("preview-render-");
        const fs::path images = fs::path(root_->path()) / "etc/gui/images";
        fs::create_directories(images);
        // Four slides of 10x10, each a different grey; a progress bar 20 wide.
        cv::Mat strip(10, 40, CV_8UC3);
        for (int i = 0; i < 4; ++i) {
            strip(cv::Rect(i * 10, 0, 10, 10)).setTo(cv::Scalar::all(60 * (i + 1)));
        }
        ASSERT_TRUE(dravik::image::writePng((images / "strip.png").string(), strip));
        cv::Mat bar(8, 20, CV_8UC3, cv::Scalar(0, 0, 0));
        bar(cv::Rect(0, 0, 20, 4)).setTo(cv::Scalar(0, 200, 255));
        ASSERT_TRUE(dravik::image::writePng((images / "bar.png").string(), bar));
        ASSERT_TRUE(dravik::image::writePng((images / "grey.png").string(),
                                            cv::Mat(10, 10, CV_8UC3, cv::Scalar(100, 150, 200))));
    }
    static void TearDownTestSuite() { root_.reset(); }

    void SetUp() override {
        std::ofstream(path_) << R"({"imgPath": "/etc/gui/images", "screens": [{"name": "x"}]})";
        ASSERT_TRUE(config_.fromJSONFile(path_));
        std::string error;
        ASSERT_TRUE(parsePanel("64x32x16", format_, error));
        ASSERT_TRUE(renderer_.start(format_, root_->path(), error)) << error;
    }
    void TearDown() override { fs::remove(path_); }

    cv::Mat at(const GuiScreenDesc& desc, uint64_t ms) {
        cv::Mat picture;
        std::vector<std::string> messages;
        EXPECT_TRUE(renderer_.render(desc, ms, picture, messages));
        EXPECT_TRUE(messages.empty()) << messages.front();
        return picture;
    }

    static std::unique_ptr<dravik::testsupport::TempDir> root_;
    std::string path_ = fs::temp_directory_path() / ("preview-render-" + std::to_string(getpid()));
    lcmgui::GuiConfig config_;
    PanelFormat format_;
    Renderer renderer_{config_};
};

std::unique_ptr<dravik::testsupport::TempDir> RendererTest::root_;

bool same(const cv::Mat& a, const cv::Mat& b) {
    return a.size() == b.size() && cv::norm(a, b, cv::NORM_INF) == 0;
}

TEST_F(RendererTest, a_slideshow_shows_the_slide_of_the_time) {
    const GuiScreenDesc desc = imageScreen("strip.png", lcmgui::kAnimSlideshow, 400, 4);
    for (int slide = 0; slide < 4; ++slide) {
        SCOPED_TRACE(slide);
        const cv::Mat picture = at(desc, 100 * slide + 50);
        // 16-bit panel: grey 60 * (slide + 1) quantised to 5 and 6 bits, scaled back.
        const int grey = 60 * (slide + 1);
        const auto red = static_cast<uint8_t>(((grey >> 3) * 255 + 15) / 31);
        const auto green = static_cast<uint8_t>(((grey >> 2) * 255 + 31) / 63);
        EXPECT_EQ(picture.at<cv::Vec3b>(5, 5), cv::Vec3b(red, green, red));
    }
    EXPECT_TRUE(same(at(desc, 450), at(desc, 50)));  // the cycle repeats
}

TEST_F(RendererTest, a_progress_bar_fills_once_and_stays_full) {
    const GuiScreenDesc desc = imageScreen("bar.png", lcmgui::kAnimProgressbar, 1000, 0);
    const cv::Mat empty = at(desc, 0);
    const cv::Mat half = at(desc, 500);
    const cv::Mat full = at(desc, 1000);
    EXPECT_EQ(cv::countNonZero(cv::Mat(empty.reshape(1))), 0);
    EXPECT_GT(cv::countNonZero(half.reshape(1)), 0);
    EXPECT_LT(cv::countNonZero(half.reshape(1)), cv::countNonZero(full.reshape(1)));
    EXPECT_TRUE(same(at(desc, 60000), full));
}

TEST_F(RendererTest, breathing_starts_black_and_peaks_a_quarter_period_later) {
    const GuiScreenDesc desc = imageScreen("grey.png", lcmgui::kAnimBreathing, 2000, 0);
    EXPECT_EQ(at(desc, 0).at<cv::Vec3b>(5, 5), cv::Vec3b(0, 0, 0));  // the full redraw: level 0
    const cv::Vec3b peak = at(desc, 500).at<cv::Vec3b>(5, 5);        // level 99
    const cv::Vec3b low = at(desc, 1500).at<cv::Vec3b>(5, 5);        // level 0
    EXPECT_GT(peak[2], 190);
    EXPECT_EQ(low, cv::Vec3b(0, 0, 0));
}

TEST_F(RendererTest, a_still_screen_does_not_change_with_time) {
    const GuiScreenDesc desc = imageScreen("grey.png", lcmgui::kAnimStatic, 0, 0);
    EXPECT_TRUE(same(at(desc, 0), at(desc, 12345)));
}

TEST_F(RendererTest, a_late_time_shows_what_the_same_phase_of_an_early_cycle_shows) {
    // A text over the slides: the first change of slide clears it from the
    // image's rectangle, however late the picture is taken.
    GuiScreenDesc desc = imageScreen("strip.png", lcmgui::kAnimSlideshow, 400, 4);
    desc.text.text = "Hi";
    desc.text.size = 12;
    const cv::Mat early = at(desc, 450);
    EXPECT_TRUE(same(at(desc, 400 * 1000 + 450), early));
    EXPECT_FALSE(same(at(desc, 50), early)) << "before the first change the text is whole";
}

TEST_F(RendererTest, a_refused_animation_gives_the_engine_reason) {
    cv::Mat picture;
    std::vector<std::string> messages;
    EXPECT_FALSE(renderer_.render(imageScreen("grey.png", lcmgui::kAnimBreathing, 50, 0), 0,
                                  picture, messages));
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0], "Invalid breathe period (50)");
}

TEST_F(RendererTest, a_period_has_one_frame_per_slide_eight_breaths_and_five_bar_steps) {
    std::vector<Frame> frames;
    std::vector<std::string> messages;
    ASSERT_TRUE(renderer_.renderPeriod(imageScreen("strip.png", lcmgui::kAnimSlideshow, 400, 4),
                                       frames, messages));
    EXPECT_EQ(frames.size(), 4u);
    EXPECT_EQ(frames[1].label, "slide 2/4 @150 ms");
    ASSERT_TRUE(renderer_.renderPeriod(imageScreen("grey.png", lcmgui::kAnimBreathing, 2000, 0),
                                       frames, messages));
    EXPECT_EQ(frames.size(), 8u);
    ASSERT_TRUE(renderer_.renderPeriod(imageScreen("bar.png", lcmgui::kAnimProgressbar, 1000, 0),
                                       frames, messages));
    ASSERT_EQ(frames.size(), 5u);
    EXPECT_EQ(frames[4].label, "100% @1000 ms");
    ASSERT_TRUE(renderer_.renderPeriod(imageScreen("grey.png", lcmgui::kAnimStatic, 0, 0), frames,
                                       messages));
    EXPECT_EQ(frames.size(), 1u);
    ASSERT_TRUE(renderer_.renderPeriod(imageScreen("gone.png", lcmgui::kAnimSlideshow, 400, 4),
                                       frames, messages));
    EXPECT_EQ(frames.size(), 1u) << "an image that does not load does not animate";
}

TEST_F(RendererTest, a_contact_sheet_holds_every_frame_enlarged) {
    std::vector<Frame> frames;
    std::vector<std::string> messages;
    ASSERT_TRUE(renderer_.renderPeriod(imageScreen("strip.png", lcmgui::kAnimSlideshow, 400, 4),
                                       frames, messages));
    const cv::Mat sheet = contactSheet(frames, 2);
    EXPECT_GE(sheet.cols, 4 * 64 * 2);
    EXPECT_GT(sheet.rows, 32 * 2);
    EXPECT_EQ(enlarge(frames[0].picture, 3).size(), cv::Size(192, 96));
}

// What the checker calls a refusal is exactly what makes the engine log one:
// each screen of the mistakes file, alone in a file, through both.
TEST_F(RendererTest, the_checker_reports_a_refusal_where_the_engine_logs_one) {
    std::ifstream in(std::string(PREVIEW_TESTS_DIR) + "/data/mistakes.json");
    const auto mistakes = nlohmann::json::parse(in);
    const auto root = testsupport::makeMistakesRoot();
    ASSERT_NE(root, nullptr);
    std::string error;
    ASSERT_TRUE(parsePanel("240x100x16", format_, error));
    lcmgui::GuiConfig config;
    Renderer renderer(config);
    ASSERT_TRUE(renderer.start(format_, root->path(), error));
    const char* const kRefusals[] = {"leaves the text out", "does not show", "does not draw",
                                     "does not read it",    "is not found",  "cannot be decoded",
                                     "refuses this screen"};
    size_t compared = 0;
    for (const auto& screen : mistakes["screens"]) {
        if (!screen.contains("name") || !screen["name"].is_string() ||
            screen["name"].get<std::string>().empty()) {
            continue;
        }
        const std::string name = screen["name"];
        SCOPED_TRACE(name);
        nlohmann::json one = {{"imgPath", mistakes["imgPath"]}, {"screens", {screen}}};
        std::ofstream(path_) << one.dump();
        ASSERT_TRUE(config.fromJSONFile(path_));
        bool found = false;
        const GuiScreenDesc desc = config.getScreenDesc(name, found);
        ASSERT_TRUE(found);
        cv::Mat picture;
        std::vector<std::string> messages;
        const bool shown = renderer.render(desc, 0, picture, messages);
        const bool engineRefused = !shown || !messages.empty();

        CheckOptions options{format_, root->path()};
        bool checkerRefused = false;
        for (const Finding& f : checkScreensFile(path_, options)) {
            for (const char* phrase : kRefusals) {
                checkerRefused = checkerRefused || f.message.find(phrase) != std::string::npos;
            }
        }
        EXPECT_EQ(checkerRefused, engineRefused)
            << (messages.empty() ? std::string("engine: nothing") : "engine: " + messages[0]);
        ++compared;
    }
    EXPECT_GE(compared, 20u);
}

}  // namespace
}  // namespace dravik::preview
