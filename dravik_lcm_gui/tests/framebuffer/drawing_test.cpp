// What the display engine's drawing leaves in a simulated panel's memory, and where
// it places what it draws.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <utility>

#include "FramebufferFixture.h"
#include "LcmGui.h"

using namespace dravik::lcmgui;
using namespace dravik::lcmgui::testsupport;

namespace {

// Where getOffsetXY is asked to place a w x h box: the given position and the
// alignment.
struct Placement {
    unsigned x, y, w, h;
    AlignHor hor;
    AlignVert vert;
};

// Asks `gui` to place `p`; `x` and `y` get the position it leaves.
bool place(LcmGui& gui, const Placement& p, unsigned& x, unsigned& y) {
    x = p.x;
    y = p.y;
    return gui.getOffsetXY(x, y, p.w, p.h, p.hor, p.vert);
}

}  // namespace

TEST_F(Framebuffer, drawing_buffer_reaches_panel_by_conversion_rules) {
    for (const auto& c : depthCases()) {
        SCOPED_TRACE(c.name);
        auto panel = makePanel(c.geometry);
        LcmGui gui(config);
        ASSERT_TRUE(gui.init(kDevice, "", -1));
        paintPattern(Access::displayBuf(gui));
        EXPECT_TRUE(gui.showBuf());
        expectPanel(*panel, Access::displayBuf(gui), cv::Rect(0, 0, 23, 9));
    }
}

TEST_F(Framebuffer, rectangle_update_touches_only_its_rectangle) {
    const struct {
        unsigned x, y, w, h;
    } rects[] = {{3, 2, 5, 4}, {0, 0, 1, 1}, {22, 8, 1, 1}, {10, 0, 13, 9}, {0, 5, 23, 1}};
    for (const auto& c : depthCases()) {
        for (const auto& r : rects) {
            SCOPED_TRACE(::testing::Message() << c.name << ", " << r.w << "x" << r.h << " at ("
                                              << r.x << ", " << r.y << ")");
            auto panel = makePanel(c.geometry);
            LcmGui gui(config);
            ASSERT_TRUE(gui.init(kDevice, "", -1));
            fillPanel(*panel, kSentinel);
            paintPattern(Access::displayBuf(gui));
            EXPECT_TRUE(gui.showBuf(r.x, r.y, r.w, r.h));
            expectPanel(*panel, Access::displayBuf(gui),
                        cv::Rect(static_cast<int>(r.x), static_cast<int>(r.y),
                                 static_cast<int>(r.w), static_cast<int>(r.h)));
        }
    }
}

TEST_F(Framebuffer, show_buf_checks_its_arguments) {
    auto panel = makePanel(fakefb::Geometry::forDepth(24, 23, 9));
    LcmGui gui(config);
    ASSERT_TRUE(gui.init(kDevice, "", -1));
    paintPattern(Access::displayBuf(gui));
    struct Row {
        unsigned x, y, w, h;
        bool ok;
        const char* message;
    };
    const Row rows[] = {
        {5, 0, 0, 0, false, "show buffer parameters are not correct: 0x0 at (5, 0)"},
        {0, 3, 4, 0, false, "show buffer parameters are not correct: 4x0 at (0, 3)"},
        {0, 0, 24, 1, false, "show buffer parameters are out of screen: 24x1 at (0, 0) -> 23x9"},
        {1, 0, 23, 9, false, "show buffer parameters are out of screen: 23x9 at (1, 0) -> 23x9"},
        {0, 5, 1, 5, false, "show buffer parameters are out of screen: 1x5 at (0, 5) -> 23x9"},
        {4294967295U, 0, 2, 1, false,
         "show buffer parameters are out of screen: 2x1 at (-1, 0) -> 23x9"},  // no wrapping sum
        {0, 4294967295U, 1, 2, false,
         "show buffer parameters are out of screen: 1x2 at (0, -1) -> 23x9"},
        {22, 8, 1, 1, true, nullptr},
        {0, 0, 23, 9, true, nullptr},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(::testing::Message()
                     << row.w << "x" << row.h << " at (" << row.x << ", " << row.y << ")");
        fillPanel(*panel, kSentinel);
        LogCapture capture;
        EXPECT_EQ(gui.showBuf(row.x, row.y, row.w, row.h), row.ok);
        if (row.message != nullptr) {
            EXPECT_TRUE(capture.has(3, row.message));
            ASSERT_EQ(capture.records.size(), 1U);
            EXPECT_EQ(capture.records[0].function, "showBuf");
            // Refused: nothing was written.
            expectPanel(*panel, Access::displayBuf(gui), cv::Rect());
        } else {
            EXPECT_TRUE(capture.records.empty());
        }
    }
}

TEST_F(Framebuffer, zero_size_at_origin_copies_whole_screen) {
    auto panel = makePanel(fakefb::Geometry::forDepth(16, 23, 12));
    LcmGui gui(config);
    ASSERT_TRUE(gui.init(kDevice, "", -1));
    paintPattern(Access::displayBuf(gui));
    for (const auto& [w, h] : {std::pair{0U, 0U}, std::pair{0U, 10U}, std::pair{5U, 0U}}) {
        SCOPED_TRACE(::testing::Message() << w << "x" << h);
        fillPanel(*panel, kSentinel);
        EXPECT_TRUE(gui.showBuf(0, 0, w, h));
        expectPanel(*panel, Access::displayBuf(gui), cv::Rect(0, 0, 23, 12));
    }
}

TEST_F(Framebuffer, get_offset_xy_places_by_alignment) {
    auto panel = makePanel(fakefb::Geometry::forDepth(24, 240, 120));
    LcmGui gui(config);
    ASSERT_TRUE(gui.init(kDevice, "", -1));
    struct Row : Placement {
        bool ok;
        unsigned ex, ey;
    };
    const Row rows[] = {
        {0, 0, 100, 20, kAlignCenter, kAlignTop, true, 70, 0},
        {20, 0, 100, 20, kAlignCenter, kAlignTop, true, 80, 0},  // half the offset
        {7, 9, 100, 20, kAlignLeft, kAlignTop, true, 7, 9},
        {30, 0, 100, 20, kAlignRight, kAlignTop, true, 140, 0},  // the offset is ignored
        {0, 0, 100, 20, kAlignLeft, kAlignMiddle, true, 0, 50},
        {0, 10, 100, 20, kAlignLeft, kAlignMiddle, true, 0, 55},
        {0, 40, 100, 20, kAlignLeft, kAlignBottom, true, 0, 100},
        {140, 100, 100, 20, kAlignRight, kAlignBottom, true, 140, 100},  // ends at the edges
        {0, 0, 240, 120, kAlignCenter, kAlignMiddle, true, 0, 0},
        {5, 0, 100, 20, static_cast<AlignHor>(7), static_cast<AlignVert>(9), true, 140, 100},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(::testing::Message()
                     << row.w << "x" << row.h << " at (" << row.x << ", " << row.y << ") align "
                     << int(row.hor) << "/" << int(row.vert));
        unsigned x = 0;
        unsigned y = 0;
        EXPECT_EQ(place(gui, row, x, y), row.ok);
        EXPECT_EQ(x, row.ex);
        EXPECT_EQ(y, row.ey);
    }
}

TEST_F(Framebuffer, get_offset_xy_checks_the_given_position_before_aligning) {
    auto panel = makePanel(fakefb::Geometry::forDepth(24, 240, 120));
    LcmGui gui(config);
    ASSERT_TRUE(gui.init(kDevice, "", -1));
    const struct : Placement {
        const char* message;
    } rows[] = {
        {141, 0, 100, 20, kAlignRight, kAlignTop,
         "UI image parameters are out of screen: 100x20 at (141, 0) -> 240x120"},
        {0, 101, 10, 20, kAlignLeft, kAlignBottom,
         "UI image parameters are out of screen: 10x20 at (0, 101) -> 240x120"},
        {0, 0, 241, 1, kAlignCenter, kAlignTop,
         "UI image parameters are out of screen: 241x1 at (0, 0) -> 240x120"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.message);
        LogCapture capture;
        unsigned x = 0;
        unsigned y = 0;
        EXPECT_FALSE(place(gui, row, x, y));
        EXPECT_EQ(x, row.x);
        EXPECT_EQ(y, row.y);
        EXPECT_TRUE(capture.has(3, row.message));
        ASSERT_FALSE(capture.records.empty());
        EXPECT_EQ(capture.records[0].function, "getOffsetXY");
    }
}

TEST_F(Framebuffer, destructor_leaves_pixels_and_closes_device) {
    auto panel = makePanel(fakefb::Geometry::forDepth(32, 16, 8));
    int fd = -1;
    {
        LcmGui gui(config);
        ASSERT_TRUE(gui.init(kDevice, "", -1));
        fd = Access::fbFd(gui);
        ASSERT_GE(fd, 0);
        paintPattern(Access::displayBuf(gui));
        ASSERT_TRUE(gui.showBuf());
    }
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    cv::Mat expected(8, 16, CV_8UC3);
    paintPattern(expected);
    expectPanel(*panel, expected, cv::Rect(0, 0, 16, 8));
}
