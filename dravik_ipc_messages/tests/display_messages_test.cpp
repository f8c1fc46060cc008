// The display messages: ShowGui, ShowSimpleScreen and their element records.
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "dravik_ipc_messages/messages.h"
#include "message_expectations.h"

namespace {

using dravik::variant::BaseVariantContainer;
using namespace dravik::ipc::messages;
using namespace dravik::ipc::messages::test;

TEST(ShowGuiMessage, brightness_is_clamped_to_minus_one_to_one_hundred) {
    const std::vector<std::pair<Variant, int>> rows = {
        {Variant(-50), -1},
        {Variant(120), 100},
        {Variant("80"), -1},
        {Variant(0), 0},
        {Variant(100), 100},
        {Variant(101), 100},
        {Variant(-1), -1},
        {Variant(static_cast<signed char>(-128)), -1},
        {Variant(300), 100},
        {Variant(-300), -1},
        {Variant(std::numeric_limits<unsigned long>::max()), 100},
        {Variant(55.0), -1},
        {Variant(), -1},
    };
    ExpectEachNormalized<ShowGui>(rows, "brightness", [](ShowGui& gui, int expected) {
        EXPECT_EQ(TagOf(gui, "brightness"), kTagInt8);
        EXPECT_EQ(gui.brightness(), expected);
    });
}

TEST(ShowGuiMessage, brightness_getter_alone_returns_stored_value_sign_extended) {
    ShowGui gui;
    gui["brightness"] = 120;
    EXPECT_EQ(gui.brightness(), 120);
    gui["brightness"] = static_cast<signed char>(-5);
    EXPECT_EQ(gui.brightness(), -5);
    gui.Erase("brightness");
    EXPECT_EQ(gui.brightness(), -1);
    EXPECT_EQ(TagOf(gui, "brightness"), kTagInt8);
}

TEST(ShowGuiMessage, function_name_folds_to_show_gui) {
    const std::vector<Variant> rows = {Variant("showgui"), Variant("SHOWGUI"),
                                       Variant("ShowSimpleScreen"), Variant(5)};
    ExpectEachNormalized<ShowGui>(rows, "functionName", [](ShowGui& gui) {
        EXPECT_EQ(Child(gui, "functionName"), Variant("ShowGui"));
    });
}

TEST(ShowGuiMessage, getter_returns_stored_function_name_without_folding) {
    ShowGui gui;
    gui["functionName"] = "showgui";
    EXPECT_EQ(gui.functionName(), "showgui");
    gui.Erase("functionName");
    EXPECT_EQ(gui.functionName(), "ShowGui");
}

TEST(ShowGuiMessage, gui_id_is_kept_and_its_setter_stores_it) {
    ShowGui gui;
    gui.guiId("boot");
    gui.brightness(80);
    ASSERT_TRUE(gui.NormalizeFields());
    EXPECT_EQ(gui.guiId(), "boot");
    EXPECT_EQ(gui.brightness(), 80);
    EXPECT_EQ(gui.functionName(), "ShowGui");
}

TEST(ShowGuiMessage, normalises_by_its_own_rules_when_called_through_a_base_reference) {
    ShowGui gui;
    gui["brightness"] = 150;
    gui["functionName"] = "other";
    BaseVariantContainer& base = gui;
    ASSERT_TRUE(base.NormalizeFields());
    EXPECT_EQ(gui.brightness(), 100);
    EXPECT_EQ(gui.functionName(), "ShowGui");
}

TEST(ShowGuiMessage, request_moves_in_and_out_without_copying_its_content) {
    BaseRequestMessage request;
    request["guiId"] = std::string(1000, 'g');
    request["brightness"] = 500;
    const Variant* guiIdBefore = request.Find("guiId");

    ShowGui gui(std::move(request));
    EXPECT_EQ(gui.Find("guiId"), guiIdBefore);
    ASSERT_TRUE(gui.NormalizeFields());
    request = std::move(gui);

    EXPECT_EQ(request.Find("guiId"), guiIdBefore);
    EXPECT_EQ(Child(request, "brightness"), Variant(static_cast<signed char>(100)));
    EXPECT_EQ(Child(request, "functionName"), Variant("ShowGui"));
}

TEST(TextElement, size_is_clamped_to_three_to_one_hundred_by_normalize_only) {
    const std::vector<std::pair<Variant, unsigned>> rows = {
        {Variant(1), 3},  {Variant(500), 100},   {Variant(2), 3},
        {Variant(3), 3},  {Variant(100), 100},   {Variant(50), 50},
        {Variant(-7), 3}, {Variant(70000), 100}, {Variant("12"), 6},
    };
    ExpectEachNormalized<LcmGuiTextSettingsElement>(
        rows, "size", [](LcmGuiTextSettingsElement& text, unsigned expected) {
            EXPECT_EQ(TagOf(text, "size"), kTagUInt16);
            EXPECT_EQ(text.size(), expected);
        });
}

TEST(TextElement, size_getter_returns_stored_value_unclamped_or_six) {
    LcmGuiTextSettingsElement text;
    EXPECT_EQ(text.size(), 6);
    EXPECT_EQ(Child(text, "size"), Variant(static_cast<unsigned short>(6)));
    text["size"] = 1;
    EXPECT_EQ(text.size(), 1);
    text["size"] = 500;
    EXPECT_EQ(text.size(), 500);
}

TEST(PositionFields, alignment_words_fold_ignoring_case) {
    const std::vector<std::tuple<const char*, Variant, const char*>> rows = {
        {"alignHor", Variant("CENTER"), "center"},  {"alignHor", Variant("Right"), "right"},
        {"alignHor", Variant("middle"), "left"},    {"alignHor", Variant("centre"), "left"},
        {"alignHor", Variant("left "), "left"},     {"alignHor", Variant(1), "left"},
        {"alignVert", Variant("Bottom"), "bottom"}, {"alignVert", Variant("MIDDLE"), "middle"},
        {"alignVert", Variant("center"), "top"},    {"alignVert", Variant(""), "top"},
    };
    for (const auto& [key, stored, expected] : rows) {
        SCOPED_TRACE(std::string(key) + " " + stored.ToJSON());
        LcmGuiBasePosSettings position;
        position[key] = stored;
        ASSERT_TRUE(position.NormalizeFields());
        EXPECT_EQ(Child(position, key), Variant(expected));
    }
}

TEST(PositionFields, alignment_getter_returns_stored_word_as_it_stands) {
    LcmGuiImgSettingsElement img;
    img["alignHor"] = "CENTER";
    img["animation"] = "fade";
    EXPECT_EQ(img.alignHor(), "CENTER");
    EXPECT_EQ(img.animation(), "fade");
    img.alignVert("diagonal");
    EXPECT_EQ(Child(img, "alignVert"), Variant("diagonal"));
}

TEST(PositionFields, coordinates_are_stored_as_unsigned_16_bit) {
    LcmGuiBasePosSettings position;
    position["x"] = 320;
    position["y"] = 70000;
    ASSERT_TRUE(position.NormalizeFields());
    EXPECT_EQ(Child(position, "x"), Variant(static_cast<unsigned short>(320)));
    EXPECT_EQ(TagOf(position, "y"), kTagUInt16);
    EXPECT_EQ(position.y(), static_cast<unsigned short>(Variant(70000)));
}

TEST(ImgElement, animation_folds_to_listed_word_or_static) {
    const std::vector<std::pair<Variant, const char*>> rows = {
        {Variant("Breathing"), "breathing"}, {Variant("fade"), "static"},
        {Variant("SLIDESHOW"), "slideshow"}, {Variant("progressBar"), "progressbar"},
        {Variant("breathingx"), "static"},   {Variant(true), "static"},
    };
    ExpectEachNormalized<LcmGuiImgSettingsElement>(
        rows, "animation", [](LcmGuiImgSettingsElement& img, const char* expected) {
            EXPECT_EQ(Child(img, "animation"), Variant(expected));
        });
}

TEST(ImgElement, duration_and_count_are_stored_in_their_own_widths) {
    LcmGuiImgSettingsElement img;
    img["duration"] = static_cast<signed char>(40);
    img["count"] = 4000000000U;
    ASSERT_TRUE(img.NormalizeFields());
    EXPECT_EQ(Child(img, "duration"), Variant(40U));
    EXPECT_EQ(TagOf(img, "count"), kTagUInt16);
    EXPECT_EQ(img.count(), static_cast<unsigned short>(Variant(4000000000U)));
}

void ExpectEmptyImageRecordDefaults(ShowSimpleScreen& screen) {
    auto img = screen.img();
    EXPECT_EQ(img.file(), "");
    EXPECT_EQ(img.animation(), "static");
    EXPECT_EQ(img.duration(), 0u);
    EXPECT_EQ(img.count(), 0u);
    EXPECT_EQ(img.x(), 0u);
    EXPECT_EQ(img.y(), 0u);
    EXPECT_EQ(img.alignHor(), "left");
    EXPECT_EQ(img.alignVert(), "top");
}

TEST(ShowSimpleScreenMessage, element_that_is_not_exactly_an_object_is_replaced_by_empty_record) {
    Variant array = Variant::MakeContainer(dravik::variant::kArray);
    array[int64_t{0}] = "file.png";
    const std::vector<std::pair<const char*, Variant>> rows = {
        {"array", array},       {"string", Variant("logo.png")}, {"null", Variant()},
        {"number", Variant(3)}, {"bool", Variant(true)},
    };
    for (const auto& [what, stored] : rows) {
        SCOPED_TRACE(what);
        ShowSimpleScreen screen;
        screen["img"] = stored;
        screen["text"] = stored;
        ExpectEmptyImageRecordDefaults(screen);
        EXPECT_EQ(TagOf(screen, "img"), kTagObject);
        EXPECT_EQ(screen.text().str(), "");
        EXPECT_EQ(TagOf(screen, "text"), kTagObject);
    }
}

TEST(ShowSimpleScreenMessage, element_object_is_kept_and_read_in_place) {
    ShowSimpleScreen screen;
    screen["text"]["str"] = "Hello";
    screen["text"]["size"] = 1;
    screen["img"]["file"] = "logo.png";
    EXPECT_EQ(screen.text().str(), "Hello");
    EXPECT_EQ(screen.text().size(), 1);
    EXPECT_EQ(screen.img().file(), "logo.png");

    screen.img().count(5);
    screen.text().alignHor("right");
    EXPECT_EQ(Child(Child(screen, "img"), "count"), Variant(static_cast<unsigned short>(5)));
    EXPECT_EQ(Child(Child(screen, "text"), "alignHor"), Variant("right"));
}

TEST(ShowSimpleScreenMessage, normalize_covers_brightness_and_envelope_but_not_the_elements) {
    ShowSimpleScreen screen;
    screen["brightness"] = 250;
    screen["text"]["size"] = 1;
    screen["img"] = "not a record";
    ASSERT_TRUE(screen.NormalizeFields());
    EXPECT_EQ(screen.brightness(), 100);
    EXPECT_EQ(TagOf(screen, "id"), kTagUInt64);
    EXPECT_EQ(Child(screen, "functionName"), Variant(""));
    EXPECT_EQ(Child(Child(screen, "text"), "size"), Variant(1));
    EXPECT_EQ(StringKeys(Child(screen, "text")), std::set<std::string>{"size"});
    EXPECT_EQ(Child(screen, "img"), Variant("not a record"));
}

TEST(ShowSimpleScreenMessage, element_view_normalizes_the_stored_record) {
    ShowSimpleScreen screen;
    screen["text"]["size"] = 1;
    screen["text"]["alignVert"] = "BOTTOM";
    ASSERT_TRUE(screen.text().NormalizeFields());
    const Variant& text = Child(screen, "text");
    EXPECT_EQ(Child(text, "size"), Variant(static_cast<unsigned short>(3)));
    EXPECT_EQ(Child(text, "alignVert"), Variant("bottom"));
    EXPECT_EQ(StringKeys(text),
              (std::set<std::string>{"size", "str", "x", "y", "alignHor", "alignVert"}));
}

TEST(ShowSimpleScreenMessage, element_record_can_be_set_from_a_record_object) {
    LcmGuiImgSettingsElement img;
    img.file("anim.png");
    img.animation("slideshow");
    ShowSimpleScreen screen;
    screen.img(img);
    EXPECT_EQ(screen.img().file(), "anim.png");
    EXPECT_EQ(screen.img().animation(), "slideshow");
    EXPECT_EQ(Child(screen, "img"), static_cast<const Variant&>(img));
}

// The reads the display engine makes of a ShowSimpleScreen request.
void ReadAsShowCommandDoes(ShowSimpleScreen& request) {
    ASSERT_TRUE(request.NormalizeFields());
    auto text = request.text();
    auto img = request.img();
    (void)text.str();
    (void)text.x();
    (void)text.y();
    (void)text.size();
    (void)text.alignHor();
    (void)text.alignVert();
    (void)img.file();
    (void)img.x();
    (void)img.y();
    (void)img.alignHor();
    (void)img.alignVert();
    (void)img.animation();
    (void)img.duration();
    (void)img.count();
    (void)request.brightness();
}

TEST(ShowSimpleScreenMessage, request_without_elements_holds_default_records_after_show_reads) {
    ShowSimpleScreen request;
    ReadAsShowCommandDoes(request);

    const Variant& text = Child(request, "text");
    EXPECT_EQ(Child(text, "size"), Variant(static_cast<unsigned short>(6)));
    EXPECT_EQ(Child(text, "str"), Variant(""));
    EXPECT_EQ(Child(text, "x"), Variant(static_cast<unsigned short>(0)));
    EXPECT_EQ(Child(text, "alignHor"), Variant("left"));
    EXPECT_EQ(Child(text, "alignVert"), Variant("top"));

    const Variant& img = Child(request, "img");
    EXPECT_EQ(Child(img, "duration"), Variant(0U));
    EXPECT_EQ(Child(img, "count"), Variant(static_cast<unsigned short>(0)));
    EXPECT_EQ(Child(img, "file"), Variant(""));
    EXPECT_EQ(Child(img, "animation"), Variant("static"));
    EXPECT_EQ(Child(img, "y"), Variant(static_cast<unsigned short>(0)));
    EXPECT_EQ(Child(request, "brightness"), Variant(static_cast<signed char>(-1)));
}

TEST(ShowSimpleScreenMessage, size_given_as_string_is_replaced_by_six_before_use) {
    ShowSimpleScreen request;
    request["text"]["size"] = "big";
    request["text"]["str"] = "Hi";
    ReadAsShowCommandDoes(request);
    EXPECT_EQ(request.text().size(), 6);
    EXPECT_EQ(Child(Child(request, "text"), "size"), Variant(static_cast<unsigned short>(6)));
    EXPECT_EQ(request.text().str(), "Hi");
}

TEST(ShowSimpleScreenMessage, size_below_three_reaches_the_reader_as_sent) {
    ShowSimpleScreen request;
    request["text"]["size"] = 1;
    ReadAsShowCommandDoes(request);
    EXPECT_EQ(request.text().size(), 1);
}

}  // namespace
