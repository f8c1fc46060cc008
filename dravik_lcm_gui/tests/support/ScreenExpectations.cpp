#include "ScreenExpectations.h"

#include <gtest/gtest.h>

namespace dravik::lcmgui::testsupport {

namespace {

// The position and alignment, which both elements have.
template <typename Conf>
void expectPlacement(const Conf& actual, const Conf& expected) {
    EXPECT_EQ(actual.x, expected.x);
    EXPECT_EQ(actual.y, expected.y);
    EXPECT_EQ(actual.alignHor, expected.alignHor);
    EXPECT_EQ(actual.alignVert, expected.alignVert);
}

}  // namespace

void expectTextConf(const GuiTextConf& actual, const GuiTextConf& expected) {
    EXPECT_EQ(actual.text, expected.text);
    EXPECT_EQ(actual.size, expected.size);
    expectPlacement(actual, expected);
}

void expectImgConf(const GuiImgConf& actual, const GuiImgConf& expected) {
    EXPECT_EQ(actual.file, expected.file);
    expectPlacement(actual, expected);
    EXPECT_EQ(actual.animation, expected.animation);
    EXPECT_EQ(actual.duration, expected.duration);
    EXPECT_EQ(actual.count, expected.count);
}

}  // namespace dravik::lcmgui::testsupport
