// Image elements: loading and checking image files, the used size per
// animation, and drawing one animation level into the drawing buffer.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <opencv2/imgcodecs.hpp>
#include <string>
#include <vector>

#include "EngineTest.h"
#include "LcmGui.h"
#include "PrivateGuiPaths.h"
#include "TestImages.h"
#include "dravik_logger/log_capture.h"

using dravik::logger::LogCapture;
using namespace dravik::lcmgui;
using namespace dravik::lcmgui::testsupport;

namespace {

auto* const gPaths = PrivateGuiPaths::registerEnvironment();

// Each column x of the picture holds (x, row, 255 - x) on B, G, R.
cv::Mat columnRamp(int w, int h) {
    cv::Mat img(h, w, CV_8UC3);
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            img.at<cv::Vec3b>(y, x) = cv::Vec3b(static_cast<uint8_t>(x), static_cast<uint8_t>(y),
                                                static_cast<uint8_t>(255 - x));
        }
    }
    return img;
}

GuiImgConf imgConf(AnimType type, unsigned count = 0, uint16_t x = 0, uint16_t y = 0,
                   AlignHor hor = kAlignLeft, AlignVert vert = kAlignTop) {
    GuiImgConf conf;
    conf.file = "test.png";
    conf.animation = type;
    conf.count = static_cast<uint16_t>(count);
    conf.x = x;
    conf.y = y;
    conf.alignHor = hor;
    conf.alignVert = vert;
    return conf;
}

class Image : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(Access::setMemoryPanel(gui, 240, 64)); }

    cv::Mat& buf() { return Access::displayBuf(gui); }
    // Clears the drawing buffer to black and draws `img` at animation `level`
    // into it, without clearing its area and without showing it.
    bool renderOnBlack(const cv::Mat& img, const GuiImgConf& conf, unsigned level) {
        buf().setTo(cv::Scalar::all(0));
        return gui.renderImage(img, conf, level, false, false);
    }
    // The drawing buffer's pixels inside `rect` must equal `expected`, and
    // everything outside must still be black.
    void expectOnlyRect(cv::Rect rect, const cv::Mat& expected) {
        cv::Mat outside = buf().clone();
        outside(rect).setTo(cv::Scalar::all(0));
        EXPECT_EQ(cv::countNonZero(outside.reshape(1)), 0) << "drawn outside " << rect;
        ASSERT_EQ(expected.size(), rect.size());
        cv::Mat diff;
        cv::absdiff(buf()(rect), expected, diff);
        EXPECT_EQ(cv::countNonZero(diff.reshape(1)), 0) << "wrong pixels inside " << rect;
    }
    // Drawn on black at animation `level`, `img` shows as `expected` in `rect`
    // and nowhere else.
    void expectLevelShows(const cv::Mat& img, const GuiImgConf& conf, unsigned level, cv::Rect rect,
                          const cv::Mat& expected) {
        SCOPED_TRACE(::testing::Message() << "level " << level);
        EXPECT_TRUE(renderOnBlack(img, conf, level));
        expectOnlyRect(rect, expected);
    }

    GuiConfig config;
    LcmGui gui{config};
};

}  // namespace

TEST_F(Image, used_size_per_animation) {
    const struct {
        int w, h;
        AnimType type;
        unsigned count;
        unsigned ew, eh;
    } rows[] = {
        {300, 50, kAnimStatic, 3, 300, 50},      {300, 50, kAnimSlideshow, 3, 100, 50},
        {100, 50, kAnimSlideshow, 3, 33, 50},    {300, 50, kAnimSlideshow, 1, 300, 50},
        {300, 50, kAnimSlideshow, 0, 300, 50},   {2, 9, kAnimSlideshow, 3, 0, 9},
        {300, 50, kAnimBreathing, 3, 300, 50},   {200, 41, kAnimProgressbar, 0, 200, 20},
        {200, 40, kAnimProgressbar, 5, 200, 20}, {7, 1, kAnimProgressbar, 0, 7, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(::testing::Message() << row.w << "x" << row.h << " anim " << int(row.type)
                                          << " count " << row.count);
        unsigned w = 99;
        unsigned h = 99;
        gui.getImgUsedSize(cv::Mat(row.h, row.w, CV_8UC3), row.type, row.count, w, h);
        EXPECT_EQ(w, row.ew);
        EXPECT_EQ(h, row.eh);
    }
}

TEST_F(Image, static_image_is_added_at_its_place) {
    const cv::Mat img = columnRamp(30, 10);
    EXPECT_TRUE(gui.renderImage(img, imgConf(kAnimStatic, 0, 5, 7), 0, false, false));
    expectOnlyRect(cv::Rect(5, 7, 30, 10), img);
}

TEST_F(Image, drawing_adds_with_saturation_unless_cleared) {
    const cv::Mat img = solid(4, 4, cv::Scalar(100, 100, 100));
    buf().setTo(cv::Scalar(200, 50, 0));
    EXPECT_TRUE(gui.renderImage(img, imgConf(kAnimStatic), 0, false, false));
    EXPECT_EQ(buf().at<cv::Vec3b>(0, 0), cv::Vec3b(255, 150, 100));
    EXPECT_EQ(buf().at<cv::Vec3b>(4, 4), cv::Vec3b(200, 50, 0));  // outside: untouched
    EXPECT_TRUE(gui.renderImage(img, imgConf(kAnimStatic), 0, true, false));
    EXPECT_EQ(buf().at<cv::Vec3b>(3, 3), cv::Vec3b(100, 100, 100));
    EXPECT_EQ(buf().at<cv::Vec3b>(3, 4), cv::Vec3b(200, 50, 0));
}

TEST_F(Image, slideshow_level_selects_slide_and_wraps_to_first) {
    const cv::Mat img = columnRamp(300, 50);
    const struct {
        unsigned level;
        int firstColumn;
    } rows[] = {{0, 0}, {1, 100}, {2, 200}, {3, 0}, {57, 0}};
    for (const auto& row : rows) {
        expectLevelShows(img, imgConf(kAnimSlideshow, 3, 10, 0), row.level,
                         cv::Rect(10, 0, 100, 50), img(cv::Rect(row.firstColumn, 0, 100, 50)));
    }
}

TEST_F(Image, slideshow_leftover_columns_are_never_shown) {
    cv::Mat img = columnRamp(100, 20);
    img.col(99).setTo(cv::Scalar(1, 2, 3));  // a colour no slide column has
    for (unsigned level = 0; level < 5; ++level) {
        SCOPED_TRACE(level);
        const int first = level < 3 ? static_cast<int>(level) * 33 : 0;
        expectLevelShows(img, imgConf(kAnimSlideshow, 3), level, cv::Rect(0, 0, 33, 20),
                         img(cv::Rect(first, 0, 33, 20)));
        cv::Mat hits;
        cv::inRange(buf(), cv::Scalar(1, 2, 3), cv::Scalar(1, 2, 3), hits);
        EXPECT_EQ(cv::countNonZero(hits), 0);
    }
}

TEST_F(Image, progress_bar_combines_filled_and_empty_pictures) {
    cv::Mat img = columnRamp(200, 41);
    img.rowRange(20, 40) /= 2;               // the empty picture: darker
    img.row(40).setTo(cv::Scalar(1, 2, 3));  // the odd last row: never shown
    const cv::Mat full = img.rowRange(0, 20);
    const cv::Mat empty = img.rowRange(20, 40);
    struct Part {
        int from, width, target;
        bool upper;
    };
    const struct {
        unsigned level;
        std::vector<Part> parts;
    } rows[] = {
        {0, {{0, 200, 0, false}}},
        {200, {{0, 100, 0, true}, {100, 100, 100, true}}},
        {500, {{0, 100, 0, true}, {100, 100, 100, true}}},
        {7, {{0, 3, 0, true}, {196, 4, 3, true}, {7, 193, 7, false}}},
        {1, {{199, 1, 0, true}, {1, 199, 1, false}}},
    };
    for (const auto& row : rows) {
        cv::Mat expected(20, 200, CV_8UC3, cv::Scalar::all(0));
        for (const auto& part : row.parts) {
            const cv::Mat& source = part.upper ? full : empty;
            source.colRange(part.from, part.from + part.width)
                .copyTo(expected.colRange(part.target, part.target + part.width));
        }
        expectLevelShows(img, imgConf(kAnimProgressbar, 0, 20, 30), row.level,
                         cv::Rect(20, 30, 200, 20), expected);
    }
}

TEST_F(Image, breathing_scales_by_level_capped_at_100) {
    const cv::Mat img = columnRamp(50, 20);
    const struct {
        unsigned level;
        double factor;
    } rows[] = {{0, 0.0}, {50, 0.5}, {100, 1.0}, {150, 1.0}, {33, 0.33}};
    for (const auto& row : rows) {
        cv::Mat expected;
        img.convertTo(expected, CV_8UC3, row.factor);  // rounded, saturated
        expectLevelShows(img, imgConf(kAnimBreathing), row.level, cv::Rect(0, 0, 50, 20), expected);
    }
}

TEST_F(Image, configured_position_is_checked_before_alignment) {
    // Width 128: x 100 plus 30 leaves the screen although right alignment
    // would have placed the picture inside it.
    LcmGui narrow{config};
    ASSERT_TRUE(Access::setMemoryPanel(narrow, 128, 32));
    LogCapture capture;
    EXPECT_FALSE(narrow.renderImage(solid(30, 10, cv::Scalar::all(9)),
                                    imgConf(kAnimStatic, 0, 100, 0, kAlignRight), 0, true, true));
    EXPECT_TRUE(
        capture.has(3, "UI image parameters are out of screen: 30x10 at (100, 0) -> 128x32"));
    ASSERT_EQ(capture.records.size(), 1U);
    EXPECT_EQ(capture.records[0].function, "renderImage");
    EXPECT_EQ(cv::countNonZero(Access::displayBuf(narrow).reshape(1)), 0);
}

TEST_F(Image, alignment_places_picture) {
    const cv::Mat img = columnRamp(40, 10);
    const struct {
        uint16_t x, y;
        AlignHor hor;
        AlignVert vert;
        cv::Point at;
    } rows[] = {
        {0, 0, kAlignCenter, kAlignMiddle, {100, 27}},
        {20, 4, kAlignCenter, kAlignMiddle, {110, 29}},
        {9, 9, kAlignRight, kAlignBottom, {200, 54}},
        {9, 9, kAlignLeft, kAlignTop, {9, 9}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(::testing::Message() << row.at);
        expectLevelShows(img, imgConf(kAnimStatic, 0, row.x, row.y, row.hor, row.vert), 0,
                         cv::Rect(row.at, img.size()), img);
    }
}

TEST_F(Image, show_hands_only_the_rectangle_to_the_panel) {
    const cv::Mat img = columnRamp(30, 10);
    Access::fillPanel(gui, kSentinel);
    EXPECT_TRUE(gui.renderImage(img, imgConf(kAnimStatic, 0, 5, 7), 0, false, false));
    for (const uint8_t byte : Access::panelBytes(gui)) {
        ASSERT_EQ(byte, kSentinel);  // drawn, not shown
    }
    EXPECT_TRUE(gui.renderImage(img, imgConf(kAnimStatic, 0, 5, 7), 0, true, true));
    const std::vector<uint8_t> bytes = Access::panelBytes(gui);
    for (int y = 0; y < 64; ++y) {
        for (int x = 0; x < 240; ++x) {
            const bool inside = cv::Rect(5, 7, 30, 10).contains({x, y});
            for (int c = 0; c < 3; ++c) {
                const uint8_t expected = inside ? img.at<cv::Vec3b>(y - 7, x - 5)[c] : kSentinel;
                ASSERT_EQ(bytes[(static_cast<size_t>(y) * 240 + x) * 3 + c], expected)
                    << x << "," << y;
            }
        }
    }
}

TEST_F(Image, unknown_animation_type_draws_nothing_and_fails) {
    Access::fillPanel(gui, kSentinel);
    buf().setTo(cv::Scalar::all(7));
    GuiImgConf conf = imgConf(static_cast<AnimType>(9));
    EXPECT_FALSE(gui.renderImage(solid(4, 4, cv::Scalar::all(100)), conf, 0, true, true));
    EXPECT_EQ(buf().at<cv::Vec3b>(0, 0), cv::Vec3b(0, 0, 0));  // cleared before the type test
    EXPECT_EQ(buf().at<cv::Vec3b>(4, 4), cv::Vec3b(7, 7, 7));
    EXPECT_EQ(Access::panelBytes(gui)[0], kSentinel);
}

// Paths that climb out with ".." are outside however they are spelled: the
// test is made on the path folded as text, and the real picture they would
// reach is never read.
TEST_F(Image, path_outside_prefixes_is_refused_without_reading) {
    const std::string tmpImage = "/tmp/lcm_gui_image_test_" + std::to_string(getpid()) + ".png";
    ASSERT_TRUE(cv::imwrite(tmpImage, solid(4, 4, cv::Scalar::all(1))));
    for (const std::string& path :
         {tmpImage, std::string("/usr/etc/guix/a.png"), std::string("/etc/gui"),
          std::string("etc/gui/a.png"), std::string("/usr/etc/GUI/a.png"),
          "/usr/etc/gui/../../.." + tmpImage, "/etc/gui/images/../../../.." + tmpImage,
          "/etc/gui/./../gui/../../.." + tmpImage, "/usr/etc/gui//..//..//.." + tmpImage}) {
        SCOPED_TRACE(path);
        LogCapture capture;
        cv::Mat img = solid(2, 2, cv::Scalar::all(3));
        EXPECT_FALSE(gui.loadImage(path, img, imgConf(kAnimStatic)));
        ASSERT_EQ(capture.records.size(), 3U);
        EXPECT_EQ(capture.records[0].message, "Image path should start with next prefixes:");
        EXPECT_EQ(capture.records[1].message, "\t\t/usr/etc/gui/");
        EXPECT_EQ(capture.records[2].message, "\t\t/etc/gui/");
        for (const auto& record : capture.records) {
            EXPECT_EQ(record.level, 4);
            EXPECT_EQ(record.function, "loadImage");
        }
        EXPECT_EQ(img.at<cv::Vec3b>(1, 1), cv::Vec3b(3, 3, 3));  // no file was read into it
    }
    unlink(tmpImage.c_str());
}

TEST_F(Image, dot_dot_that_stays_inside_is_followed) {
    REQUIRE_PRIVATE_GUI_PATHS();
    ASSERT_FALSE(writeGuiImage("inside.png", columnRamp(8, 6), "/etc/gui").empty());
    for (const std::string& path : {std::string("/etc/gui/nowhere/../inside.png"),
                                    std::string("/etc/gui/a/b/../../inside.png"),
                                    std::string("/usr/etc/gui/../../../etc/gui/inside.png")}) {
        SCOPED_TRACE(path);
        LogCapture capture;
        cv::Mat img;
        EXPECT_TRUE(gui.loadImage(path, img, imgConf(kAnimStatic)));
        EXPECT_TRUE(capture.records.empty());
        EXPECT_EQ(img.size(), cv::Size(8, 6));
    }
}

TEST_F(Image, links_inside_the_image_directories_are_followed) {
    REQUIRE_PRIVATE_GUI_PATHS();
    const std::string target = "/tmp/lcm_gui_link_target_" + std::to_string(getpid()) + ".png";
    ASSERT_TRUE(cv::imwrite(target, columnRamp(5, 7)));
    const std::string link = "/usr/etc/gui/linked.png";
    unlink(link.c_str());
    ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0);
    cv::Mat img;
    EXPECT_TRUE(gui.loadImage(link, img, imgConf(kAnimStatic)));
    EXPECT_EQ(img.size(), cv::Size(5, 7));
    unlink(link.c_str());
    unlink(target.c_str());
}

TEST_F(Image, missing_file_is_not_found) {
    REQUIRE_PRIVATE_GUI_PATHS();
    LogCapture capture;
    cv::Mat img;
    EXPECT_FALSE(gui.loadImage("/usr/etc/gui/absent.png", img, imgConf(kAnimStatic)));
    EXPECT_TRUE(capture.has(4, "Image '/usr/etc/gui/absent.png' not found"));
    EXPECT_TRUE(img.empty());
}

TEST_F(Image, undecodable_files_are_refused_and_released) {
    REQUIRE_PRIVATE_GUI_PATHS();
    std::vector<uchar> png;
    ASSERT_TRUE(cv::imencode(".png", columnRamp(60, 40), png));
    const std::string whole(png.begin(), png.end());
    const struct {
        const char* name;
        std::string bytes;
    } rows[] = {
        {"empty.png", ""},
        {"text.png", "this is not a picture\n"},
        {"truncated.png", whole.substr(0, whole.size() / 2)},
        {"header_only.png", whole.substr(0, 40)},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const std::string path = writeGuiFile(row.name, row.bytes);
        ASSERT_FALSE(path.empty());
        LogCapture capture;
        cv::Mat img = solid(2, 2, cv::Scalar::all(3));
        EXPECT_FALSE(gui.loadImage(path, img, imgConf(kAnimStatic)));
        EXPECT_TRUE(capture.has(4, "Failed to read UI image from " + path));
        EXPECT_TRUE(img.empty());
    }
    LogCapture capture;
    cv::Mat img;
    EXPECT_FALSE(gui.loadImage("/usr/etc/gui", img, imgConf(kAnimStatic)));   // no trailing '/'
    EXPECT_FALSE(gui.loadImage("/usr/etc/gui/", img, imgConf(kAnimStatic)));  // a directory
    EXPECT_TRUE(capture.has(4, "Failed to read UI image from /usr/etc/gui/"));
}

TEST_F(Image, other_formats_are_read_as_8_bit_colour) {
    REQUIRE_PRIVATE_GUI_PATHS();
    cv::Mat deep(6, 5, CV_16UC3, cv::Scalar(65535, 0, 32896));
    cv::Mat grey(6, 5, CV_8UC1, cv::Scalar(77));
    cv::Mat alpha(6, 5, CV_8UC4, cv::Scalar(10, 20, 30, 0));
    const struct {
        const char* name;
        const cv::Mat* img;
        cv::Vec3b pixel;
    } rows[] = {
        {"deep.png", &deep, {255, 0, 128}},
        {"grey.png", &grey, {77, 77, 77}},
        {"alpha.png", &alpha, {10, 20, 30}},
        {"plain.bmp", nullptr, {1, 2, 3}},
    };
    const cv::Mat plain(6, 5, CV_8UC3, cv::Scalar(1, 2, 3));
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        // The BMP goes through the image library's own codecs: the engine's
        // other-formats path.
        const std::string path = row.img != nullptr ? writeGuiImage(row.name, *row.img)
                                 : cv::imwrite(std::string("/usr/etc/gui/") + row.name, plain)
                                     ? std::string("/usr/etc/gui/") + row.name
                                     : std::string();
        ASSERT_FALSE(path.empty());
        cv::Mat img;
        EXPECT_TRUE(gui.loadImage(path, img, imgConf(kAnimStatic)));
        ASSERT_EQ(img.type(), CV_8UC3);
        ASSERT_EQ(img.size(), cv::Size(5, 6));
        EXPECT_EQ(img.at<cv::Vec3b>(5, 4), row.pixel);
    }
}

TEST_F(Image, both_prefixes_are_accepted) {
    REQUIRE_PRIVATE_GUI_PATHS();
    for (const char* dir : {"/usr/etc/gui", "/etc/gui"}) {
        SCOPED_TRACE(dir);
        const std::string path = writeGuiImage("ok.png", columnRamp(20, 10), dir);
        ASSERT_FALSE(path.empty());
        cv::Mat img;
        LogCapture capture;
        EXPECT_TRUE(gui.loadImage(path, img, imgConf(kAnimStatic)));
        EXPECT_TRUE(capture.records.empty());
        EXPECT_EQ(img.size(), cv::Size(20, 10));
    }
}

TEST_F(Image, zero_used_size_is_refused) {
    REQUIRE_PRIVATE_GUI_PATHS();
    const std::string narrow = writeGuiImage("narrow.png", columnRamp(2, 9));
    const std::string flat = writeGuiImage("flat.png", columnRamp(7, 1));
    ASSERT_FALSE(narrow.empty());
    ASSERT_FALSE(flat.empty());
    LogCapture capture;
    cv::Mat img;
    EXPECT_FALSE(gui.loadImage(narrow, img, imgConf(kAnimSlideshow, 3)));
    EXPECT_TRUE(img.empty());
    EXPECT_FALSE(gui.loadImage(flat, img, imgConf(kAnimProgressbar)));
    EXPECT_TRUE(img.empty());
    EXPECT_TRUE(capture.has(4, "UI image '" + narrow + "' used size (0x9) should be non zero"));
    EXPECT_TRUE(capture.has(4, "UI image '" + flat + "' used size (7x0) should be non zero"));
}

TEST_F(Image, used_size_must_fit_the_screen) {
    REQUIRE_PRIVATE_GUI_PATHS();
    const std::string wide = writeGuiImage("wide.png", columnRamp(300, 50));
    const std::string tall = writeGuiImage("tall.png", columnRamp(10, 65));
    ASSERT_FALSE(wide.empty());
    ASSERT_FALSE(tall.empty());
    LogCapture capture;
    cv::Mat img;
    EXPECT_FALSE(gui.loadImage(wide, img, imgConf(kAnimStatic)));
    EXPECT_TRUE(img.empty());
    EXPECT_TRUE(capture.has(
        4,
        "UI image '" + wide + "' used size 300x50 (anim 0, slides 0) larger than screen 240x64"));
    EXPECT_FALSE(gui.loadImage(tall, img, imgConf(kAnimBreathing, 4)));
    EXPECT_TRUE(capture.has(
        4, "UI image '" + tall + "' used size 10x65 (anim 2, slides 4) larger than screen 240x64"));
    // Three slides of 100 columns fit although the file is wider than the screen;
    // two rows of 65 fit as a progress bar of 32 rows.
    EXPECT_TRUE(gui.loadImage(wide, img, imgConf(kAnimSlideshow, 3)));
    EXPECT_EQ(img.size(), cv::Size(300, 50));
    EXPECT_TRUE(gui.loadImage(tall, img, imgConf(kAnimProgressbar)));
}

TEST_F(Image, written_images_stay_out_of_the_host) {
    REQUIRE_PRIVATE_GUI_PATHS();
    const std::string name = "host_check_" + std::to_string(getpid()) + ".png";
    ASSERT_FALSE(writeGuiImage(name, columnRamp(3, 3)).empty());
    ASSERT_FALSE(writeGuiImage(name, columnRamp(3, 3), "/etc/gui").empty());
    struct stat info {};
    // The writes landed in the temporary upper layers...
    const std::string& temp = PrivateGuiPaths::tempDir();
    ASSERT_FALSE(temp.empty());
    EXPECT_EQ(stat((temp + "/usr-upper/etc/gui/" + name).c_str(), &info), 0);
    EXPECT_EQ(stat((temp + "/etc-upper/gui/" + name).c_str(), &info), 0);
    // ...and the host's view (that of process 1, where this process may look at
    // it) has no such file.
    if (access("/proc/1/root/", R_OK) == 0) {
        EXPECT_NE(stat(("/proc/1/root/usr/etc/gui/" + name).c_str(), &info), 0);
        EXPECT_NE(stat(("/proc/1/root/etc/gui/" + name).c_str(), &info), 0);
    }
}
