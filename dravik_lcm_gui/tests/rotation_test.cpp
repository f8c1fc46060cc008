// A turned panel shows exactly what an unturned one shows of the drawing
// buffer turned by the image library: the turn happens inside the line
// conversion, for every layout and depth (the 8-bit dither included), every
// turn, every screen width from 1 to 70, whole screens and rectangles.
#include <gtest/gtest.h>
#include <linux/fb.h>

#include <functional>
#include <opencv2/core.hpp>
#include <random>
#include <vector>

#include "LcmGui.h"
#include "LcmGuiTestAccess.h"
#include "PanelLayout.h"

using dravik::lcmgui::GuiConfig;
using dravik::lcmgui::LcmGui;
using dravik::lcmgui::PanelRect;
using Access = dravik::lcmgui::LcmGuiTestAccess;
using Layout = dravik::lcmgui::testsupport::PanelLayout;

namespace {

const Layout kLayouts[] = {
    {"RGB565", 16, {11, 5, 0}, {5, 6, 0}, {0, 5, 0}},
    {"RGB555", 15, {10, 5, 0}, {5, 5, 0}, {0, 5, 0}},
    {"BGR565 (tables)", 16, {0, 5, 0}, {5, 6, 0}, {11, 5, 0}},
    {"XRGB8888", 32, {16, 8, 0}, {8, 8, 0}, {0, 8, 0}},
    {"XBGR8888 (tables)", 32, {0, 8, 0}, {8, 8, 0}, {16, 8, 0}},
    {"24 bits", 24, {16, 8, 0}, {8, 8, 0}, {0, 8, 0}},
    {"8 bits (dither)", 8, {}, {}, {}},
};

struct Turn {
    unsigned degrees;
    cv::RotateFlags flag;
};

const Turn kTurns[] = {
    {90, cv::ROTATE_90_CLOCKWISE},
    {180, cv::ROTATE_180},
    {270, cv::ROTATE_90_COUNTERCLOCKWISE},
};

const unsigned kHeights[] = {1, 2, 9, 33};

// An engine on a panel of `width` x `height` in memory the test owns, with
// the colour path of `layout`, turned by `degrees`.
class Engine {
public:
    Engine(GuiConfig& config, const Layout& layout, unsigned width, unsigned height,
           unsigned degrees)
        : gui(config) {
        Access::fbVar(gui).xres = width;
        Access::fbVar(gui).yres = height;
        dravik::lcmgui::testsupport::setPanelLayout(gui, layout);
        const unsigned line = width * ((layout.depth + 7) / 8) + 5;  // padded lines
        memory.assign(size_t{line} * height, 0xA5);
        Access::setPanelMemory(gui, memory.data(), line);
        Access::setRotation(gui, degrees);
        ok = Access::prepareColourPath(gui);
    }
    ~Engine() { Access::setPanelMemory(gui, nullptr, 0); }
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    LcmGui gui;
    std::vector<unsigned char> memory;
    bool ok = false;
};

cv::Mat randomPicture(unsigned width, unsigned height, std::mt19937& random) {
    cv::Mat picture(static_cast<int>(height), static_cast<int>(width), CV_8UC3);
    for (auto it = picture.begin<cv::Vec3b>(); it != picture.end<cv::Vec3b>(); ++it) {
        *it = cv::Vec3b(static_cast<uchar>(random()), static_cast<uchar>(random()),
                        static_cast<uchar>(random()));
    }
    return picture;
}

// Shows `rect` of the screen on a turned engine and the matching panel
// rectangle of the turned picture on an unturned one; the two panels must hold
// the same bytes, padding and untouched pixels included.
void expectSamePanel(GuiConfig& config, const Layout& layout, const Turn& turn,
                     const cv::Mat& screen, const PanelRect& rect) {
    const auto width = static_cast<unsigned>(screen.cols);
    const auto height = static_cast<unsigned>(screen.rows);
    const bool quarter = turn.degrees % 180 != 0;
    const unsigned panelWidth = quarter ? height : width;
    const unsigned panelHeight = quarter ? width : height;

    LcmGui::resetDitherMatrix();
    Engine turned(config, layout, panelWidth, panelHeight, turn.degrees);
    ASSERT_TRUE(turned.ok);
    ASSERT_EQ(turned.gui.screenWidth(), width);
    ASSERT_EQ(turned.gui.screenHeight(), height);
    Access::displayBuf(turned.gui) = screen.clone();
    ASSERT_TRUE(turned.gui.showBuf(rect.x, rect.y, rect.w, rect.h));

    LcmGui::resetDitherMatrix();
    Engine reference(config, layout, panelWidth, panelHeight, 0);
    ASSERT_TRUE(reference.ok);
    cv::rotate(screen, Access::displayBuf(reference.gui), turn.flag);
    // Where the screen's rectangle lands on the panel, worked out here from
    // the turn (x to the right and y down on both).
    PanelRect expected = rect;
    if (rect.w == 0) {
        expected = {0, 0, panelWidth, panelHeight};
    } else if (turn.degrees == 90) {
        expected = {height - rect.y - rect.h, rect.x, rect.h, rect.w};
    } else if (turn.degrees == 180) {
        expected = {width - rect.x - rect.w, height - rect.y - rect.h, rect.w, rect.h};
    } else {
        expected = {rect.y, width - rect.x - rect.w, rect.h, rect.w};
    }
    const bool whole =
        expected.x == 0 && expected.y == 0 && expected.w == panelWidth && expected.h == panelHeight;
    ASSERT_TRUE(whole ? reference.gui.showBuf()
                      : reference.gui.showBuf(expected.x, expected.y, expected.w, expected.h));
    ASSERT_EQ(turned.memory, reference.memory)
        << layout.name << ", " << turn.degrees << " degrees, screen " << width << "x" << height
        << ", rectangle " << rect.w << "x" << rect.h << " at (" << rect.x << ", " << rect.y << ")";
}

class Rotation : public ::testing::Test {
protected:
    void TearDown() override { LcmGui::resetDitherMatrix(); }

    // Calls `check` on each layout and turn with a random screen of every
    // width from 1 to 70 and every height of kHeights; the first fatal failure
    // ends the walk.
    void forEachScreen(
        const std::function<void(const Layout&, const Turn&, const cv::Mat&)>& check) {
        for (const auto& layout : kLayouts) {
            for (const auto& turn : kTurns) {
                for (unsigned width = 1; width <= 70; ++width) {
                    for (unsigned height : kHeights) {
                        check(layout, turn, randomPicture(width, height, random));
                        if (HasFatalFailure()) {
                            return;
                        }
                    }
                }
            }
        }
    }

    GuiConfig config;
    std::mt19937 random{0x70727};
};

}  // namespace

TEST_F(Rotation, a_turned_whole_screen_equals_the_turned_picture_converted) {
    forEachScreen([&](const Layout& layout, const Turn& turn, const cv::Mat& screen) {
        ASSERT_NO_FATAL_FAILURE(expectSamePanel(config, layout, turn, screen, {0, 0, 0, 0}));
    });
}

TEST_F(Rotation, a_turned_rectangle_lands_where_the_turn_puts_it) {
    forEachScreen([&](const Layout& layout, const Turn& turn, const cv::Mat& screen) {
        const auto width = static_cast<unsigned>(screen.cols);
        const auto height = static_cast<unsigned>(screen.rows);
        const unsigned x = random() % width;
        const unsigned y = random() % height;
        const unsigned w = 1 + random() % (width - x);
        const unsigned h = 1 + random() % (height - y);
        ASSERT_NO_FATAL_FAILURE(expectSamePanel(config, layout, turn, screen, {x, y, w, h}));
    });
}

TEST_F(Rotation, a_rectangle_beyond_the_turned_screen_is_refused) {
    Engine turned(config, kLayouts[0], 20, 40, 90);  // a 40x20 screen
    ASSERT_TRUE(turned.ok);
    Access::displayBuf(turned.gui) = cv::Mat::zeros(20, 40, CV_8UC3);
    const std::vector<unsigned char> before = turned.memory;
    EXPECT_TRUE(turned.gui.showBuf(30, 10, 10, 10));
    EXPECT_FALSE(turned.gui.showBuf(30, 10, 11, 10));
    EXPECT_FALSE(turned.gui.showBuf(0, 15, 10, 6));
    EXPECT_NE(turned.memory, before);  // the fitting one was drawn
}
