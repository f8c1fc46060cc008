#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "GuiScreen.h"
#include "ScreenExpectations.h"

using namespace dravik::lcmgui;
using namespace dravik::lcmgui::testsupport;

namespace {

// The enumerations are stored as 8-bit values and the screen types are plain
// copyable values.
static_assert(sizeof(AlignHor) == 1 && sizeof(AlignVert) == 1 && sizeof(AnimType) == 1);
static_assert(std::is_copy_constructible_v<GuiScreenDesc> &&
              std::is_copy_assignable_v<GuiScreenDesc>);

// `parse` maps each row's word to its value, whichever of `defaults` it is given.
template <typename E>
void expectEachWord(E (*parse)(const std::string&, E),
                    const std::vector<std::pair<const char*, E>>& rows,
                    std::initializer_list<E> defaults) {
    for (const auto& [word, expected] : rows) {
        for (const E def : defaults) {
            SCOPED_TRACE(std::string(word) + " default " + std::to_string(def));
            EXPECT_EQ(parse(word, def), expected);
        }
    }
}

}  // namespace

TEST(ScreenModel, enumeration_values_follow_their_text_forms) {
    EXPECT_EQ(kAlignLeft, 0);
    EXPECT_EQ(kAlignCenter, 1);
    EXPECT_EQ(kAlignRight, 2);
    EXPECT_EQ(kAlignTop, 0);
    EXPECT_EQ(kAlignMiddle, 1);
    EXPECT_EQ(kAlignBottom, 2);
    EXPECT_EQ(kAnimStatic, 0);
    EXPECT_EQ(kAnimSlideshow, 1);
    EXPECT_EQ(kAnimBreathing, 2);
    EXPECT_EQ(kAnimProgressbar, 3);
}

TEST(ScreenModel, parse_align_hor_maps_each_word_whatever_the_default) {
    expectEachWord(parseAlignHor,
                   {{"left", kAlignLeft}, {"center", kAlignCenter}, {"right", kAlignRight}},
                   {kAlignLeft, kAlignCenter, kAlignRight});
}

TEST(ScreenModel, parse_align_vert_maps_each_word_whatever_the_default) {
    expectEachWord(parseAlignVert,
                   {{"top", kAlignTop}, {"middle", kAlignMiddle}, {"bottom", kAlignBottom}},
                   {kAlignTop, kAlignMiddle, kAlignBottom});
}

TEST(ScreenModel, parse_anim_type_maps_each_word_whatever_the_default) {
    expectEachWord(parseAnimType,
                   {{"static", kAnimStatic},
                    {"slideshow", kAnimSlideshow},
                    {"breathing", kAnimBreathing},
                    {"progressbar", kAnimProgressbar}},
                   {kAnimStatic, kAnimSlideshow, kAnimBreathing, kAnimProgressbar});
    EXPECT_EQ(parseAnimType("progressbar", kAnimStatic), 3);
}

TEST(ScreenModel, parse_align_hor_is_case_sensitive) {
    EXPECT_EQ(parseAlignHor("Center", kAlignRight), kAlignRight);
}

TEST(ScreenModel, parse_align_vert_of_empty_string_gives_the_default) {
    EXPECT_EQ(parseAlignVert("", kAlignTop), kAlignTop);
    EXPECT_EQ(parseAlignVert("", kAlignBottom), kAlignBottom);
}

TEST(ScreenModel, unknown_words_give_the_default) {
    // Case changes, surrounding blanks, prefixes, numbers and other kinds' words.
    const char* const words[] = {
        "",       "LEFT",      "Left",     " left",        "left ",  "lef",
        "leftx",  "0",         "1",        "Top",          "MIDDLE", "bottom\n",
        "Static", "SlideShow", "progress", "progress bar", "breath", "center\t"};
    for (const char* word : words) {
        SCOPED_TRACE(std::string("'") + word + "'");
        EXPECT_EQ(parseAlignHor(word, kAlignRight), kAlignRight);
        EXPECT_EQ(parseAlignHor(word, kAlignCenter), kAlignCenter);
        EXPECT_EQ(parseAlignVert(word, kAlignMiddle), kAlignMiddle);
        EXPECT_EQ(parseAlignVert(word, kAlignBottom), kAlignBottom);
        EXPECT_EQ(parseAnimType(word, kAnimBreathing), kAnimBreathing);
        EXPECT_EQ(parseAnimType(word, kAnimProgressbar), kAnimProgressbar);
    }
}

TEST(ScreenModel, words_of_another_enumeration_give_the_default) {
    EXPECT_EQ(parseAlignHor("top", kAlignRight), kAlignRight);
    EXPECT_EQ(parseAlignVert("center", kAlignBottom), kAlignBottom);
    EXPECT_EQ(parseAnimType("left", kAnimBreathing), kAnimBreathing);
}

TEST(ScreenModel, default_screen_description_has_every_field_at_its_default) {
    const GuiScreenDesc desc;
    expectTextConf(desc.text, {"", 0, 0, 0, kAlignLeft, kAlignTop});
    expectImgConf(desc.img, {"", 0, 0, kAlignLeft, kAlignTop, kAnimStatic, 0, 0});
}

TEST(ScreenModel, copies_own_their_strings) {
    GuiScreenDesc original;
    original.text.text = "hello";
    original.img.file = "logo.png";
    GuiScreenDesc copy = original;
    original.text.text = "changed";
    original.img.file.clear();
    EXPECT_EQ(copy.text.text, "hello");
    EXPECT_EQ(copy.img.file, "logo.png");
}
