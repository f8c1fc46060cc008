#include "preview/Checker.h"

#include "MistakesRoot.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <memory>
#include <string>
#include <vector>

namespace dravik::preview {
namespace {

// A device's image directory below a temporary root, with one picture for each
// kind of image problem.
class CheckerTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        root_ = testsupport::makeMistakesRoot();
        ASSERT_NE(root_, nullptr);
    }
    static void TearDownTestSuite() { root_.reset(); }

    // The findings of the file `path` on `panel`, images looked up below `root`.
    static std::vector<Finding> checkPath(const std::string& path, const std::string& panel,
                                          const std::string& root) {
        CheckOptions options;
        std::string error;
        EXPECT_TRUE(parsePanel(panel, options.panel, error)) << error;
        options.root = root;
        return checkScreensFile(path, options);
    }
    // The same for a file of tests/data, with the mistakes' images.
    static std::vector<Finding> check(const std::string& file, const std::string& panel) {
        return checkPath(std::string(PREVIEW_TESTS_DIR) + "/data/" + file, panel, root_->path());
    }

    static std::unique_ptr<dravik::testsupport::TempDir> root_;
};

std::unique_ptr<dravik::testsupport::TempDir> CheckerTest::root_;

struct Expected {
    size_t line;
    size_t column;
    bool error;
    const char* message;  // a part of the message
};

// Every kind of problem, each where the file has it (the panel is 240x100 so
// that a line of size 100 is taller than the panel).
const Expected kMistakes[] = {
    {1, 1, false, "there is no \"backLightPath\": the daemon manages no backlight"},
    {3, 3, false, "key \"backlightPath\" of the file; did you mean \"backLightPath\"?"},
    {5, 22, false, "key \"txt\" of a screen; did you mean \"text\"?"},
    {6, 43, false, "key \"horizonal\" of a text element; did you mean \"horizontal\"?"},
    {6, 78, false,
     "\"Middle\" is not one of \"top\", \"middle\" or \"bottom\": the daemon uses "
     "\"top\"; did you mean \"middle\"?"},
    {7, 6, false, "the text (62x29 at (0, 0)) and the image (120x80 at (0, 0)) overlap"},
    {7, 47, false,
     "\"slideShow\" is not one of \"static\", \"slideshow\", \"breathing\" or "
     "\"progressbar\": the daemon uses \"static\"; did you mean \"slideshow\"?"},
    {7, 60, false, "\"duration\" is ignored: a static image does not animate"},
    {7, 77, false, "\"count\" is ignored: only a slideshow uses it"},
    {8, 39, false, "\"str\" is an integer, which counts as missing: no text"},
    {8, 43, false, "\"size\" is ignored: the text element has no \"str\""},
    {9, 39, false, "\"x\" is a string, which counts as missing: the position x is 0"},
    {9, 45, false, "\"duration\" is ignored: the image element has no \"animation\""},
    {10, 14, false, "screen name \"typo\" is taken already (line 5): the daemon skips this screen"},
    {11, 34, false, "\"size\" is ignored: the text element has no \"str\""},
    {11, 46, false, "\"x\" is ignored: the text element has no \"str\""},
    {11, 63, false, "\"x\" is ignored: the image element has no \"file\""},
    {11, 71, false, "\"animation\" is ignored: the image element has no \"file\""},
    {12, 35, false, "\"text\" is a string, which counts as missing: no text"},
    {13, 39, false, "\"x\" 70000 is outside 0..65535: the daemon takes it as 65535"},
    {13, 39, false, "the image (120x80) at (65535, 0) reaches off the panel 240x100"},
    {13, 51, false, "\"y\" is a number with a fraction, which counts as missing"},
    {13, 68, false, "\"vertical\" is an integer: the daemon uses \"top\""},
    {13, 84, false, "\"animation\" is an integer: the daemon uses \"static\""},
    {14, 31, false, "key \"file\" is given again further on"},
    {15, 41, false, "image \"/etc/gui/images/nothere.png\" is not found"},
    {16, 41, false,
     "image \"/etc/gui/images/../../../tmp/x.png\" lies outside /usr/etc/gui/ and "
     "/etc/gui/"},
    {17, 40, false, "image \"/etc/gui/images/broken.png\" cannot be decoded"},
    {18, 38, false, "image \"/etc/gui/images/deep.png\" is not 8 bits per channel"},
    {19, 39, false, "image \"/etc/gui/images/alpha.png\" has an alpha channel"},
    {20, 38, false,
     "image \"/etc/gui/images/wide.png\" shows 300x50, more than the panel's 240x100"},
    {22, 58, false, "slideshow count 8 is larger than the image's width of 4 pixels"},
    {23, 90, false,
     "breathing duration 50 ms is outside 100..30000 ms: the daemon refuses this "
     "screen"},
    {25, 42, false, "slideshow duration 40000 ms is outside 100..30000 ms"},
    {25, 58, false, "slideshow count 101 is outside 1..100"},
    {26, 89, false, "progressbar duration 700000 ms is outside 100..600000 ms"},
    {28, 33, false,
     "\"count\" is ignored: only a slideshow uses it, this animation is "
     "\"breathing\""},
    {29, 52, false, "font size 2 is outside 3..100: the daemon leaves the text out"},
    {30, 52, false, "a line of font size 100 is 137 pixels tall, more than the panel's 100"},
    {31, 60, false, "a line 48 pixels tall does not fit below y = 80 (20 pixels are left)"},
    {32, 41, false, "the text is 187 pixels wide, but only 140 fit right of x = 100: it is cut"},
    {33, 65, false, "the text position (240, 0) is off the panel 240x100"},
    {34, 58, false, "the image (120x80) at (150, 0) reaches off the panel 240x100"},
    {36, 6, false, "the text (49x24 at (0, 0)) and the image (120x80 at (0, 0)) overlap"},
    {37, 14, true, "the name of screen 24 is empty"},
    {38, 5, true, "screen 25 has no \"name\""},
};

void expectFindings(const std::vector<Finding>& findings, const Expected* expected, size_t count) {
    ASSERT_EQ(findings.size(), count) << formatFindings(findings);
    for (size_t i = 0; i < count; ++i) {
        SCOPED_TRACE(formatFindings({findings[i]}));
        EXPECT_EQ(findings[i].line, expected[i].line);
        EXPECT_EQ(findings[i].column, expected[i].column);
        EXPECT_EQ(findings[i].error, expected[i].error);
        EXPECT_NE(findings[i].message.find(expected[i].message), std::string::npos)
            << "expected: " << expected[i].message;
        EXPECT_FALSE(findings[i].hint.empty());
    }
}

TEST_F(CheckerTest, finds_every_kind_of_problem_at_its_line_and_column) {
    expectFindings(check("mistakes.json", "240x100x16"), kMistakes, std::size(kMistakes));
}

TEST_F(CheckerTest, a_file_with_a_nameless_screen_is_an_error) {
    EXPECT_EQ(checkStatus(check("mistakes.json", "240x100x16")), 2);
}

TEST_F(CheckerTest, reports_json_syntax_where_the_daemon_reader_stops) {
    const auto findings = check("syntax.json", "240x240x16");
    ASSERT_EQ(findings.size(), 1u) << formatFindings(findings);
    EXPECT_EQ(findings[0].line, 5u);
    EXPECT_EQ(findings[0].column, 5u);
    EXPECT_TRUE(findings[0].error);
    EXPECT_EQ(findings[0].message.rfind("JSON syntax: ", 0), 0u) << findings[0].message;
    EXPECT_EQ(checkStatus(findings), 2);
}

TEST_F(CheckerTest, reports_missing_required_keys) {
    const Expected expected[] = {
        {1, 1, true, "required key \"imgPath\" is missing"},
        {3, 14, true, "\"screens\" is an object, not an array"},
    };
    expectFindings(check("missing_keys.json", "240x240x16"), expected, std::size(expected));
}

TEST_F(CheckerTest, an_unreadable_file_is_an_error_without_a_position) {
    const auto findings = check("no-such-file.json", "240x240x16");
    ASSERT_EQ(findings.size(), 1u);
    EXPECT_TRUE(findings[0].error);
    EXPECT_EQ(findings[0].line, 0u);
    EXPECT_EQ(checkStatus(findings), 2);
}

TEST_F(CheckerTest, a_directory_is_an_error_without_a_position) {
    const auto findings = checkPath(PREVIEW_TESTS_DIR, "240x240x16", "");
    ASSERT_EQ(findings.size(), 1u);
    EXPECT_TRUE(findings[0].error);
    EXPECT_EQ(findings[0].message, "not a regular file");
    EXPECT_EQ(formatFindings(findings).rfind(std::string(PREVIEW_TESTS_DIR) + ": error: ", 0), 0u);
}

TEST(CheckerOutput, prints_file_line_column_severity_message_and_hint) {
    const std::vector<Finding> findings = {{"a.json", 3, 7, false, "something", "do this"},
                                           {"a.json", 9, 1, true, "worse", "do that"}};
    EXPECT_EQ(formatFindings(findings),
              "a.json:3:7: warning: something\n    hint: do this\n"
              "a.json:9:1: error: worse\n    hint: do that\n");
    EXPECT_EQ(checkStatus(findings), 2);
    EXPECT_EQ(checkStatus({findings[0]}), 1);
    EXPECT_EQ(checkStatus({}), 0);
}

TEST(CheckerOutput, json_holds_the_same_problems) {
    const std::vector<Finding> findings = {{"a.json", 3, 7, false, "something", "do this"}};
    const auto list = nlohmann::json::parse(formatFindingsJson(findings));
    ASSERT_TRUE(list.is_array());
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0]["file"], "a.json");
    EXPECT_EQ(list[0]["line"], 3);
    EXPECT_EQ(list[0]["column"], 7);
    EXPECT_EQ(list[0]["severity"], "warning");
    EXPECT_EQ(list[0]["message"], "something");
    EXPECT_EQ(list[0]["hint"], "do this");
}

TEST_F(CheckerTest, a_wrong_rotation_is_a_warning_at_its_value) {
    // Unturned, the 240x320 panel's screen is 240 wide: x 280 is off it.
    const Expected expected[] = {
        {4, 15, false, "\"rotation\" is 45: the daemon leaves the panel unturned"},
        {5, 68, false, "the text position (280, 0) is off the panel 240x320"},
    };
    expectFindings(check("wrong_rotation.json", "240x320x16"), expected, std::size(expected));
}

TEST_F(CheckerTest, a_turned_panel_is_checked_at_its_turned_size) {
    EXPECT_TRUE(check("turned.json", "240x320x16").empty());  // x 280 of 320
}

}  // namespace
}  // namespace dravik::preview
