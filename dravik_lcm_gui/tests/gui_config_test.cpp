#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "GuiConfig.h"
#include "ScreenExpectations.h"
#include "dravik_logger/log_capture.h"
#include "dravik_test_support/temp_dir.h"
#include "dravik_utils/utils.h"

using namespace dravik::lcmgui;
using namespace dravik::lcmgui::testsupport;
using dravik::logger::LogCapture;
using dravik::testsupport::TempDir;

namespace {

// The screens files of one test, each under a new name in a temporary
// directory that goes when the test ends.
class ScreensFiles {
public:
    const std::string& path() const { return dir_.path(); }

    // Writes `content` to a new file and returns its path.
    std::string write(const std::string& content) {
        return dir_.write("screens" + std::to_string(count_++) + ".json", content);
    }

private:
    TempDir dir_{"gui_config_test."};
    int count_ = 0;
};

// The records written by the configuration loader itself (the Variant library
// may add its own debug lines about a file it refuses).
std::vector<dravik::logger::Record> loaderRecords(const LogCapture& capture) {
    std::vector<dravik::logger::Record> out;
    for (const auto& r : capture.records) {
        if (r.sourceFile.find("dravik_lcm_gui/src/LcmGuiConfig") != std::string::npos) {
            out.push_back(r);
        }
    }
    return out;
}

void expectRecord(const dravik::logger::Record& r, int level, const std::string& message) {
    EXPECT_EQ(r.level, level);
    EXPECT_EQ(r.message, message);
    EXPECT_EQ(r.function, "fromJSONFile");
    EXPECT_EQ(r.errnum, 0);
    EXPECT_EQ(r.tag, "dravik_lcm_gui");
}

// The loader wrote exactly this one record.
void expectOnlyRecord(const LogCapture& capture, int level, const std::string& message) {
    const auto records = loaderRecords(capture);
    ASSERT_EQ(records.size(), 1u);
    expectRecord(records[0], level, message);
}

// The loader wrote the "Looking file" record and then exactly this one, for
// failures found after the file was read.
void expectLookingThen(const LogCapture& capture, const std::string& file, int level,
                       const std::string& message) {
    const auto records = loaderRecords(capture);
    ASSERT_EQ(records.size(), 2u);
    expectRecord(records[0], 7, "Looking file '" + file + "'...");
    expectRecord(records[1], level, message);
}

void expectDefaultText(const GuiTextConf& t) {
    expectTextConf(t, {"", 0, 0, 0, kAlignLeft, kAlignTop});
}

void expectDefaultImg(const GuiImgConf& i) {
    expectImgConf(i, {"", 0, 0, kAlignLeft, kAlignTop, kAnimStatic, 0, 0});
}

// The alignment and animation words of both elements kept their defaults.
void expectDefaultWords(const GuiScreenDesc& desc) {
    EXPECT_EQ(desc.text.alignHor, kAlignLeft);
    EXPECT_EQ(desc.text.alignVert, kAlignTop);
    EXPECT_EQ(desc.img.alignHor, kAlignLeft);
    EXPECT_EQ(desc.img.alignVert, kAlignTop);
    EXPECT_EQ(desc.img.animation, kAnimStatic);
}

// A screens file with one screen "s" whose "text" and "img" members are given.
std::string oneScreen(const std::string& members) {
    return R"({"imgPath": "/usr/etc/gui/img", "screens": [{"name": "s")" +
           (members.empty() ? std::string() : ", " + members) + "}]}";
}

// A screens file with one screen "a" and "rotation" given as the JSON text `value`.
std::string withRotation(const std::string& value) {
    return R"({"imgPath": "/img", "rotation": )" + value + R"(, "screens": [{"name": "a"}]})";
}

class GuiConfigTest : public ::testing::Test {
protected:
    // Loads `content`, expecting success, and returns screen "s".
    GuiScreenDesc loadScreen(const std::string& members) {
        const std::string file = dir.write(oneScreen(members));
        EXPECT_TRUE(config.fromJSONFile(file)) << oneScreen(members);
        bool found = false;
        GuiScreenDesc desc = config.getScreenDesc("s", found);
        EXPECT_TRUE(found);
        return desc;
    }

    ScreensFiles dir;
    GuiConfig config;
};

const char* const kFullFile = R"({
  "imgPath": "/usr/etc/gui/img",
  "backLightPath": "/sys/class/backlight/lcd",
  "ignoredKey": [1, 2, 3],
  "screens": [
    {
      "name": "boot",
      "text": {"str": "Starting", "size": 20, "x": 64, "y": 10,
               "horizontal": "center", "vertical": "middle"},
      "img": {"file": "boot.png", "x": 5, "y": 6, "horizontal": "right",
              "vertical": "bottom", "animation": "slideshow", "duration": 1200, "count": 4,
              "unknown": true}
    },
    {
      "name": "charging",
      "img": {"file": "battery.png", "animation": "progressbar", "duration": 600000}
    },
    {
      "name": "idle",
      "text": {"str": "Ready"}
    }
  ]
})";

}  // namespace

TEST_F(GuiConfigTest, starts_empty) {
    EXPECT_TRUE(config.getScreens().empty());
    EXPECT_EQ(config.getImgPath(), "");
    EXPECT_EQ(config.getBackLightPath(), "");
}

TEST_F(GuiConfigTest, loads_every_key_of_a_complete_file) {
    const std::string file = dir.write(kFullFile);
    LogCapture capture;
    ASSERT_TRUE(config.fromJSONFile(file));
    expectOnlyRecord(capture, 7, "Looking file '" + file + "'...");

    EXPECT_EQ(config.getImgPath(), "/usr/etc/gui/img");
    EXPECT_EQ(config.getBackLightPath(), "/sys/class/backlight/lcd");
    EXPECT_EQ(config.getScreens().size(), 3u);

    bool found = false;
    const GuiScreenDesc& boot = config.getScreenDesc("boot", found);
    ASSERT_TRUE(found);
    expectTextConf(boot.text, {"Starting", 64, 10, 20, kAlignCenter, kAlignMiddle});
    expectImgConf(boot.img, {"boot.png", 5, 6, kAlignRight, kAlignBottom, kAnimSlideshow, 1200, 4});

    const GuiScreenDesc& charging = config.getScreenDesc("charging", found);
    ASSERT_TRUE(found);
    expectDefaultText(charging.text);
    EXPECT_EQ(charging.img.file, "battery.png");
    EXPECT_EQ(charging.img.animation, kAnimProgressbar);
    EXPECT_EQ(charging.img.duration, 600000u);
    EXPECT_EQ(charging.img.count, 0);

    const GuiScreenDesc& idle = config.getScreenDesc("idle", found);
    ASSERT_TRUE(found);
    EXPECT_EQ(idle.text.text, "Ready");
    EXPECT_EQ(idle.text.size, 0);
    expectDefaultImg(idle.img);
}

TEST_F(GuiConfigTest, back_light_path_is_optional) {
    ASSERT_TRUE(
        config.fromJSONFile(dir.write(R"({"imgPath": "/img", "screens": [{"name": "a"}]})")));
    EXPECT_EQ(config.getBackLightPath(), "");
    EXPECT_EQ(config.getImgPath(), "/img");
    bool found = false;
    const GuiScreenDesc& a = config.getScreenDesc("a", found);
    ASSERT_TRUE(found);
    expectDefaultText(a.text);
    expectDefaultImg(a.img);
}

TEST_F(GuiConfigTest, empty_path_fails_without_a_message) {
    ASSERT_TRUE(config.fromJSONFile(dir.write(kFullFile)));
    LogCapture capture;
    EXPECT_FALSE(config.fromJSONFile(""));
    EXPECT_TRUE(capture.records.empty());
    EXPECT_TRUE(config.getScreens().empty()) << "the table is cleared first";
    EXPECT_EQ(config.getImgPath(), "/usr/etc/gui/img") << "the paths are left as they were";
}

TEST_F(GuiConfigTest, unreadable_or_invalid_files_fail_with_the_read_message) {
    const struct {
        const char* what;
        std::string path;
    } rows[] = {
        {"missing file", dir.path() + "/none.json"},
        {"directory", dir.path()},
        {"not JSON", dir.write("imgPath = /img\nscreens = boot\n")},
        {"truncated", dir.write(R"({"imgPath": "/img", "screens": [{"name": "bo)")},
        {"empty file", dir.write("")},
        {"trailing garbage", dir.write(R"({"imgPath": "/img", "screens": [{"name": "a"}]} x)")},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        GuiConfig cfg;
        LogCapture capture;
        EXPECT_FALSE(cfg.fromJSONFile(row.path));
        expectOnlyRecord(capture, 3, "Could not read configuration from file '" + row.path + "'");
        EXPECT_TRUE(cfg.getScreens().empty());
    }
}

TEST_F(GuiConfigTest, failed_read_leaves_the_paths_from_the_previous_load) {
    ASSERT_TRUE(config.fromJSONFile(dir.write(kFullFile)));
    EXPECT_FALSE(config.fromJSONFile(dir.write("{")));
    EXPECT_TRUE(config.getScreens().empty());
    EXPECT_EQ(config.getImgPath(), "/usr/etc/gui/img");
    EXPECT_EQ(config.getBackLightPath(), "/sys/class/backlight/lcd");
}

TEST_F(GuiConfigTest, missing_or_unusable_img_path_fails) {
    const char* const files[] = {
        R"({"screens": [{"name": "a"}]})",
        R"({"imgPath": "", "screens": [{"name": "a"}]})",
        R"({"imgPath": 5, "screens": [{"name": "a"}]})",
        R"({"imgPath": null, "screens": [{"name": "a"}]})",
        R"({"imgPath": ["/img"], "screens": [{"name": "a"}]})",
        R"({"ImgPath": "/img", "screens": [{"name": "a"}]})",
        R"({"imgpath": "/img", "screens": [{"name": "a"}]})",
        R"([{"imgPath": "/img"}])",
        R"("/img")",
    };
    for (const char* content : files) {
        SCOPED_TRACE(content);
        const std::string file = dir.write(content);
        GuiConfig cfg;
        LogCapture capture;
        EXPECT_FALSE(cfg.fromJSONFile(file));
        expectLookingThen(capture, file, 3, "Could not find key 'imgPath' in JSON file");
        EXPECT_EQ(cfg.getImgPath(), "");
    }
}

TEST_F(GuiConfigTest, img_path_failure_clears_the_previous_img_path_but_keeps_back_light_path) {
    ASSERT_TRUE(config.fromJSONFile(dir.write(kFullFile)));
    EXPECT_FALSE(config.fromJSONFile(dir.write(R"({"backLightPath": "/bl", "screens": []})")));
    EXPECT_EQ(config.getImgPath(), "");
    EXPECT_EQ(config.getBackLightPath(), "/sys/class/backlight/lcd");
}

TEST_F(GuiConfigTest, screens_failures_keep_the_paths_read_before) {
    const struct {
        const char* screens;
        const char* message;
    } rows[] = {
        {"", "Could not find key 'screens'"},
        {R"(, "screens": null)", "Could not find key 'screens'"},
        {R"(, "Screens": [{"name": "a"}])", "Could not find key 'screens'"},
        // Looked up as a container: a value of another type counts as missing.
        {R"(, "screens": "boot")", "Could not find key 'screens'"},
        {R"(, "screens": 3)", "Could not find key 'screens'"},
        {R"(, "screens": {})", "'screens' key should be defined as array in JSON file"},
        {R"(, "screens": {"name": "a"})", "'screens' key should be defined as array in JSON file"},
        {R"(, "screens": [])", "Could not find items 'screens' in JSON file"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.screens);
        const std::string file = dir.write(
            std::string(R"({"imgPath": "/img", "backLightPath": "/bl")") + row.screens + "}");
        GuiConfig cfg;
        LogCapture capture;
        EXPECT_FALSE(cfg.fromJSONFile(file));
        expectLookingThen(capture, file, 3, row.message);
        EXPECT_TRUE(cfg.getScreens().empty());
        EXPECT_EQ(cfg.getImgPath(), "/img");
        EXPECT_EQ(cfg.getBackLightPath(), "/bl");
    }
}

TEST_F(GuiConfigTest, screen_without_a_usable_name_fails) {
    const char* const elements[] = {
        R"({})",  R"({"name": ""})", R"({"name": 7})",     R"({"name": null})", R"({"Name": "a"})",
        R"("a")", R"(null)",         R"([{"name": "a"}])",
    };
    for (const char* element : elements) {
        SCOPED_TRACE(element);
        const std::string file =
            dir.write(std::string(R"({"imgPath": "/img", "screens": [)") + element + "]}");
        GuiConfig cfg;
        LogCapture capture;
        EXPECT_FALSE(cfg.fromJSONFile(file));
        expectLookingThen(capture, file, 3, "Screen[0]: could not find key 'name'");
        EXPECT_TRUE(cfg.getScreens().empty());
    }
}

TEST_F(GuiConfigTest, nameless_screen_at_index_2_fails_but_keeps_the_two_before) {
    const std::string file = dir.write(R"({"imgPath": "/img", "screens": [
        {"name": "a", "text": {"str": "A"}},
        {"name": "b", "text": {"str": "B"}},
        {"text": {"str": "C"}},
        {"name": "d"}]})");
    LogCapture capture;
    EXPECT_FALSE(config.fromJSONFile(file));
    expectLookingThen(capture, file, 3, "Screen[2]: could not find key 'name'");
    EXPECT_EQ(config.getScreens().size(), 2u);
    bool found = false;
    EXPECT_EQ(config.getScreenDesc("a", found).text.text, "A");
    EXPECT_TRUE(found);
    EXPECT_EQ(config.getScreenDesc("b", found).text.text, "B");
    EXPECT_TRUE(found);
    config.getScreenDesc("d", found);
    EXPECT_FALSE(found) << "elements after the nameless one are not read";
}

TEST_F(GuiConfigTest, duplicate_name_is_skipped_and_the_first_wins) {
    const std::string file = dir.write(R"({"imgPath": "/img", "screens": [
        {"name": "boot", "text": {"str": "first"}},
        {"name": "boot", "text": {"str": "second"}},
        {"name": "idle"},
        {"name": "boot", "text": {"str": "third"}}]})");
    LogCapture capture;
    ASSERT_TRUE(config.fromJSONFile(file));
    const auto records = loaderRecords(capture);
    ASSERT_EQ(records.size(), 3u);
    expectRecord(records[0], 7, "Looking file '" + file + "'...");
    expectRecord(records[1], 4, "Screen[1] with name 'boot' already present, skipping");
    expectRecord(records[2], 4, "Screen[3] with name 'boot' already present, skipping");

    EXPECT_EQ(config.getScreens().size(), 2u);
    bool found = false;
    EXPECT_EQ(config.getScreenDesc("boot", found).text.text, "first");
    EXPECT_TRUE(found);
}

TEST_F(GuiConfigTest, names_are_case_sensitive) {
    ASSERT_TRUE(config.fromJSONFile(dir.write(R"({"imgPath": "/img", "screens": [
        {"name": "Boot", "text": {"str": "upper"}},
        {"name": "boot", "text": {"str": "lower"}}]})")));
    EXPECT_EQ(config.getScreens().size(), 2u);
    bool found = false;
    EXPECT_EQ(config.getScreenDesc("Boot", found).text.text, "upper");
    EXPECT_EQ(config.getScreenDesc("boot", found).text.text, "lower");
    config.getScreenDesc("BOOT", found);
    EXPECT_FALSE(found);
}

TEST_F(GuiConfigTest, second_load_starts_from_an_empty_table) {
    ASSERT_TRUE(config.fromJSONFile(dir.write(kFullFile)));
    ASSERT_TRUE(
        config.fromJSONFile(dir.write(R"({"imgPath": "/other", "screens": [{"name": "only"}]})")));
    EXPECT_EQ(config.getScreens().size(), 1u);
    bool found = false;
    config.getScreenDesc("boot", found);
    EXPECT_FALSE(found);
    config.getScreenDesc("only", found);
    EXPECT_TRUE(found);
    EXPECT_EQ(config.getImgPath(), "/other");
    EXPECT_EQ(config.getBackLightPath(), "") << "a missing backLightPath is read as empty";
}

TEST_F(GuiConfigTest, unknown_screen_gives_one_shared_default) {
    ASSERT_TRUE(config.fromJSONFile(dir.write(kFullFile)));
    bool found = true;
    const GuiScreenDesc& first = config.getScreenDesc("nope", found);
    EXPECT_FALSE(found);
    expectDefaultText(first.text);
    expectDefaultImg(first.img);

    found = true;
    const GuiScreenDesc& second = config.getScreenDesc("", found);
    EXPECT_FALSE(found);
    EXPECT_EQ(&first, &second);

    const GuiConfig other;
    found = true;
    EXPECT_EQ(&other.getScreenDesc("boot", found), &first);
    EXPECT_FALSE(found);
}

TEST_F(GuiConfigTest, known_screen_is_the_table_entry) {
    ASSERT_TRUE(config.fromJSONFile(dir.write(kFullFile)));
    bool found = false;
    const GuiScreenDesc& boot = config.getScreenDesc("boot", found);
    EXPECT_TRUE(found);
    EXPECT_EQ(&boot, &config.getScreens().at("boot"));
}

TEST_F(GuiConfigTest, text_keys_are_ignored_without_str) {
    const char* const texts[] = {
        R"("text": {"size": 20, "x": 3, "y": 4, "horizontal": "right", "vertical": "bottom"})",
        R"("text": {"str": "", "size": 20, "x": 3, "y": 4, "horizontal": "center"})",
        R"("text": {"str": 12, "size": 20, "x": 3})",
        R"("text": {"Str": "hello", "size": 20})",
        R"("text": "hello")",
        R"("text": null)",
    };
    for (const char* text : texts) {
        SCOPED_TRACE(text);
        expectDefaultText(loadScreen(text).text);
    }
}

TEST_F(GuiConfigTest, image_keys_are_ignored_without_file) {
    const char* const imgs[] = {
        R"("img": {"x": 3, "y": 4, "horizontal": "right", "animation": "breathing", "duration": 900})",
        R"("img": {"file": "", "x": 3, "animation": "slideshow", "count": 3})",
        R"("img": {"file": 1, "x": 3})",
        R"("img": {"File": "a.png", "x": 3})",
        R"("img": ["a.png"])",
    };
    for (const char* img : imgs) {
        SCOPED_TRACE(img);
        expectDefaultImg(loadScreen(img).img);
    }
}

TEST_F(GuiConfigTest, duration_and_count_need_a_non_empty_animation) {
    const struct {
        const char* img;
        AnimType animation;
        uint32_t duration;
        uint16_t count;
    } rows[] = {
        {R"("img": {"file": "a.png", "duration": 900, "count": 3})", kAnimStatic, 0, 0},
        {R"("img": {"file": "a.png", "animation": "", "duration": 900, "count": 3})", kAnimStatic,
         0, 0},
        {R"("img": {"file": "a.png", "animation": 1, "duration": 900, "count": 3})", kAnimStatic, 0,
         0},
        {R"("img": {"file": "a.png", "animation": "static", "duration": 900, "count": 3})",
         kAnimStatic, 900, 3},
        // An unknown word leaves the animation static, yet the two are read.
        {R"("img": {"file": "a.png", "animation": "Slideshow", "duration": 900, "count": 3})",
         kAnimStatic, 900, 3},
        {R"("img": {"file": "a.png", "animation": "breathing", "duration": 900})", kAnimBreathing,
         900, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.img);
        const GuiImgConf img = loadScreen(row.img).img;
        EXPECT_EQ(img.file, "a.png");
        EXPECT_EQ(img.animation, row.animation);
        EXPECT_EQ(img.duration, row.duration);
        EXPECT_EQ(img.count, row.count);
    }
}

TEST_F(GuiConfigTest, size_without_str_is_zero) {
    const GuiScreenDesc desc = loadScreen(R"("text": {"size": 20})");
    EXPECT_EQ(desc.text.size, 0);
    EXPECT_EQ(desc.text.text, "");
}

TEST_F(GuiConfigTest, integers_convert_saturating_and_other_types_count_as_missing) {
    const struct {
        const char* value;
        uint16_t expected;
    } rows[] = {
        {"70000", 65535}, {"65535", 65535},
        {"65536", 65535}, {"0", 0},
        {"-5", 0},        {"\"10\"", 0},
        {"10.0", 0},      {"10.5", 0},
        {"true", 0},      {"null", 0},
        {"[10]", 0},      {"{\"v\": 10}", 0},
        {"123", 123},     {"18446744073709551615", 65535},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.value);
        const GuiScreenDesc desc = loadScreen(dravik::utils::format(
            R"("text": {"str": "t", "size": %1$s, "x": %1$s, "y": %1$s},)"
            R"( "img": {"file": "f", "x": %1$s, "y": %1$s, "animation": "slideshow", "count": %1$s})",
            row.value));
        EXPECT_EQ(desc.text.size, row.expected);
        EXPECT_EQ(desc.text.x, row.expected);
        EXPECT_EQ(desc.text.y, row.expected);
        EXPECT_EQ(desc.img.x, row.expected);
        EXPECT_EQ(desc.img.y, row.expected);
        EXPECT_EQ(desc.img.count, row.expected);
    }
}

TEST_F(GuiConfigTest, duration_is_read_as_unsigned_32_bits) {
    const struct {
        const char* value;
        uint32_t expected;
    } rows[] = {
        {"600000", 600000u},
        {"4294967295", 4294967295u},
        {"5000000000", 4294967295u},
        {"-1", 0u},
        {"\"1000\"", 0u},
        {"1000.0", 0u},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.value);
        const GuiImgConf img =
            loadScreen(
                std::string(R"("img": {"file": "f", "animation": "progressbar", "duration": )") +
                row.value + "}")
                .img;
        EXPECT_EQ(img.duration, row.expected);
    }
}

TEST_F(GuiConfigTest, alignment_and_animation_words_are_case_sensitive) {
    const GuiScreenDesc desc = loadScreen(
        R"("text": {"str": "t", "horizontal": "Center", "vertical": "MIDDLE"},
           "img": {"file": "f", "horizontal": "RIGHT", "vertical": "Bottom", "animation": "Breathing"})");
    expectDefaultWords(desc);
}

TEST_F(GuiConfigTest, non_string_words_keep_the_defaults) {
    const GuiScreenDesc desc = loadScreen(
        R"("text": {"str": "t", "horizontal": 1, "vertical": 2},
           "img": {"file": "f", "horizontal": ["right"], "vertical": null, "animation": 3})");
    expectDefaultWords(desc);
}

TEST_F(GuiConfigTest, keys_are_case_sensitive) {
    const GuiScreenDesc desc = loadScreen(
        R"("Text": {"str": "hidden"}, "IMG": {"file": "hidden.png"},
           "text": {"str": "t", "Size": 9, "X": 5, "Horizontal": "right"},
           "img": {"file": "f", "Animation": "slideshow", "Y": 5})");
    EXPECT_EQ(desc.text.text, "t");
    EXPECT_EQ(desc.text.size, 0);
    EXPECT_EQ(desc.text.x, 0);
    EXPECT_EQ(desc.text.alignHor, kAlignLeft);
    EXPECT_EQ(desc.img.file, "f");
    EXPECT_EQ(desc.img.y, 0);
    EXPECT_EQ(desc.img.animation, kAnimStatic);
}

TEST_F(GuiConfigTest, rotation_is_unset_without_the_key) {
    ASSERT_TRUE(
        config.fromJSONFile(dir.write(R"({"imgPath": "/img", "screens": [{"name": "a"}]})")));
    EXPECT_EQ(config.getRotation(), dravik::lcmgui::kRotationUnset);
}

TEST_F(GuiConfigTest, rotation_takes_each_quarter_turn) {
    for (const int degrees : {0, 90, 180, 270}) {
        const std::string file = withRotation(std::to_string(degrees));
        LogCapture capture;
        ASSERT_TRUE(config.fromJSONFile(dir.write(file)));
        EXPECT_EQ(config.getRotation(), degrees);
        EXPECT_EQ(loaderRecords(capture).size(), 1u);  // "Looking file" alone
    }
}

TEST_F(GuiConfigTest, a_wrong_rotation_counts_as_none_after_a_log_line) {
    struct Case {
        const char* value;
        const char* message;
    };
    const Case cases[] = {
        {"45", "Wrong 'rotation' 45: 0, 90, 180 or 270 expected; the panel is not turned"},
        {"-90", "Wrong 'rotation' -90: 0, 90, 180 or 270 expected; the panel is not turned"},
        {"360", "Wrong 'rotation' 360: 0, 90, 180 or 270 expected; the panel is not turned"},
        {"\"90\"",
         "Wrong 'rotation': a number 0, 90, 180 or 270 expected; the panel is not turned"},
        {"90.5", "Wrong 'rotation': a number 0, 90, 180 or 270 expected; the panel is not turned"},
        {"null", "Wrong 'rotation': a number 0, 90, 180 or 270 expected; the panel is not turned"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.value);
        const std::string file = withRotation(c.value);
        LogCapture capture;
        ASSERT_TRUE(config.fromJSONFile(dir.write(file)));  // the screens stay usable
        EXPECT_EQ(config.getRotation(), 0);
        const auto records = loaderRecords(capture);
        ASSERT_EQ(records.size(), 2u);
        EXPECT_EQ(records[1].level, 3);
        EXPECT_EQ(records[1].message, c.message);
        EXPECT_EQ(records[1].function, "readRotationKey");
    }
}
