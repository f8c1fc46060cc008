// The program as a user runs it: options, exit statuses and the files it writes.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <opencv2/core.hpp>
#include <sstream>
#include <string>
#include <vector>
#include "dravik_image/image_file.h"

#include "dravik_test_support/command_line.h"
#include "dravik_test_support/program_run.h"

#include "MistakesRoot.h"

namespace {

namespace fs = std::filesystem;
using dravik::testsupport::TempDir;

struct Outcome {
    int status = -1;
    std::string out;  // standard output, then standard error
};

// The preview run with `arguments`, words separated by blanks.
Outcome run(const std::string& arguments) {
    std::vector<std::string> args = {PREVIEW_PROGRAM};
    std::istringstream words(arguments);
    for (std::string word; words >> word;) {
        args.push_back(word);
    }
    const dravik::testsupport::ProgramRun result = dravik::testsupport::runProgram(args);
    return {result.status, result.out + result.err};
}

std::string data(const char* name) {
    return std::string(PREVIEW_TESTS_DIR) + "/data/" + name;
}

class ProgramTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        dir_ = std::make_unique<TempDir>("preview-program-");
        ASSERT_EQ(dravik::testsupport::writeExampleImages(EXAMPLE_IMAGES_PROGRAM,
                                                          dir_->file("root/etc/gui/images"))
                      .status,
                  0);
        mistakesRoot_ = dravik::preview::testsupport::makeMistakesRoot();
        ASSERT_NE(mistakesRoot_, nullptr);
    }
    static void TearDownTestSuite() {
        dir_.reset();
        mistakesRoot_.reset();
    }

    static std::string examples() { return std::string(EXAMPLES_DIR) + "/dravik_lcm_gui.json"; }
    static std::string root() { return dir_->file("root"); }
    static std::string mistakesRoot() { return mistakesRoot_->path(); }

    static std::unique_ptr<TempDir> dir_;
    static std::unique_ptr<TempDir> mistakesRoot_;
};

std::unique_ptr<TempDir> ProgramTest::dir_;
std::unique_ptr<TempDir> ProgramTest::mistakesRoot_;

TEST_F(ProgramTest, help_reads_like_a_manual_page) {
    const Outcome r = run("--help");
    EXPECT_EQ(r.status, 0);
    for (const char* section : {"NAME", "SYNOPSIS", "DESCRIPTION", "OPTIONS", "EXIT STATUS"}) {
        EXPECT_NE(r.out.find(section), std::string::npos) << section;
    }
}

TEST_F(ProgramTest, a_bad_command_line_exits_2_with_the_reason) {
    const dravik::testsupport::TextCase cases[] = {
        {"", "expected one screens file"},
        {"a.json", "--out DIR is required"},
        {"--panel 240x240x8 --out x a.json", "ends its start-up"},
        {"--panel 240 --out x a.json", "is not WxHxBPP"},
        {"--layout 1/2 --out x a.json", "is not RO/RL,GO/GL,BO/BL"},
        {"--scale 0 --out x a.json", "bad --scale"},
        {"--at -5 --out x a.json", "bad --at"},
        {"--check --out x a.json", "--check takes no"},
        {"--json --out x a.json", "--json goes with --check"},
        {"--bogus a.json", "unrecognized option"},
    };
    dravik::testsupport::forEachCase(cases, [](const char* arguments, const char* reason) {
        const Outcome r = run(arguments);
        EXPECT_EQ(r.status, 2);
        EXPECT_NE(r.out.find(reason), std::string::npos) << r.out;
    });
}

TEST_F(ProgramTest, check_exits_0_on_the_examples) {
    const Outcome r = run("--check --root " + root() + " " + examples());
    EXPECT_EQ(r.status, 0) << r.out;
    EXPECT_NE(r.out.find("0 error(s), 0 warning(s)"), std::string::npos) << r.out;
}

TEST_F(ProgramTest, check_exits_1_with_warnings_only) {
    const Outcome r = run("--check --root " + root() + " " + data("warnings.json"));
    EXPECT_EQ(r.status, 1) << r.out;
    EXPECT_NE(r.out.find("warnings.json:5:74: warning: \"Center\" is not one of"),
              std::string::npos)
        << r.out;
}

TEST_F(ProgramTest, check_exits_2_with_errors_and_prints_json_on_request) {
    EXPECT_EQ(
        run("--check --panel 240x100x16 --root " + mistakesRoot() + " " + data("mistakes.json"))
            .status,
        2);
    const Outcome r = run("--check --json --panel 240x100x16 --root " + mistakesRoot() + " " +
                          data("mistakes.json"));
    EXPECT_EQ(r.status, 2);
    const auto list = nlohmann::json::parse(r.out);
    ASSERT_TRUE(list.is_array());
    EXPECT_EQ(list.size(), 46u);
    EXPECT_EQ(list.back()["severity"], "error");
    EXPECT_EQ(list.back()["line"], 38);
    EXPECT_EQ(list.back()["column"], 5);
}

TEST_F(ProgramTest, pictures_every_screen_of_the_examples) {
    const std::string out = dir_->file("all");
    const Outcome r = run("--root " + root() + " --out " + out + " " + examples());
    ASSERT_EQ(r.status, 0) << r.out;
    for (const char* name : {"hello", "logo", "spinner", "standby", "update", "boot"}) {
        SCOPED_TRACE(name);
        const cv::Mat picture =
            dravik::image::readImage(out + "/" + name + ".png", dravik::image::ReadMode::kAsStored);
        ASSERT_FALSE(picture.empty());
        EXPECT_GT(cv::countNonZero(picture.reshape(1)), 0);
    }
    // Still screens are one panel; animated ones a sheet of frames side by side.
    EXPECT_EQ(dravik::image::readImage(out + "/logo.png").size(), cv::Size(240, 240));
    EXPECT_GT(dravik::image::readImage(out + "/spinner.png").cols, 8 * 240);
}

TEST_F(ProgramTest, at_writes_one_picture_per_time_and_scale_enlarges_it) {
    const std::string out = dir_->file("at");
    const Outcome r =
        run("--root " + root() + " --screen spinner --at 0 --at 150 --scale 2 --out " + out + " " +
            examples());
    ASSERT_EQ(r.status, 0) << r.out;
    const cv::Mat first = dravik::image::readImage(out + "/spinner@0.png");
    const cv::Mat second = dravik::image::readImage(out + "/spinner@150.png");
    ASSERT_EQ(first.size(), cv::Size(480, 480));
    ASSERT_EQ(second.size(), cv::Size(480, 480));
    EXPECT_GT(cv::norm(first, second, cv::NORM_INF), 0) << "two slides look alike";
    EXPECT_FALSE(fs::exists(out + "/logo.png"));
}

TEST_F(ProgramTest, an_unknown_screen_or_refused_file_fails) {
    EXPECT_EQ(
        run("--root " + root() + " --screen nosuch --out " + dir_->file("x") + " " + examples())
            .status,
        1);
    const Outcome r = run("--out " + dir_->file("y") + " " + data("mistakes.json"));
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.out.find("the daemon refuses this file"), std::string::npos) << r.out;
}

}  // namespace
