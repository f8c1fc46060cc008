// The image codecs, loaded on the first decode behind a pixel bound.
#include <gtest/gtest.h>
#include <unistd.h>

#include <opencv2/imgcodecs.hpp>
#include <string>

#include "ImageCodecs.h"
#include "TestImages.h"

using namespace dravik::lcmgui;
using dravik::lcmgui::testsupport::solid;

namespace {

std::string tempPath(const char* name) {
    return "/tmp/lcm_gui_codecs_" + std::to_string(getpid()) + "_" + name;
}

}  // namespace

TEST(ImageCodecs, decodes_a_picture_as_8_bit_colour) {
    const std::string path = tempPath("ok.png");
    ASSERT_TRUE(cv::imwrite(path, solid(6, 4, cv::Scalar(1, 2, 3))));
    const cv::Mat img = decodeImageFile(path);
    ASSERT_EQ(img.type(), CV_8UC3);
    EXPECT_EQ(img.size(), cv::Size(6, 4));
    EXPECT_EQ(img.at<cv::Vec3b>(3, 5), cv::Vec3b(1, 2, 3));
    unlink(path.c_str());
}

TEST(ImageCodecs, unreadable_and_missing_files_give_an_empty_image) {
    const std::string dir = "/tmp";
    const std::string name = "lcm_gui_codecs_" + std::to_string(getpid()) + "_junk.png";
    const std::string path = testsupport::writeGuiFile(name, "\x89PNG\r\n\x1a\n junk", dir);
    ASSERT_FALSE(path.empty());
    EXPECT_TRUE(decodeImageFile(path).empty());
    EXPECT_TRUE(decodeImageFile(tempPath("absent.png")).empty());
    EXPECT_TRUE(decodeImageFile(dir).empty());
    unlink(path.c_str());
}

// A program that links the codecs itself has loaded them before any bound
// could be set: it is told so, and keeps decoding.
TEST(ImageCodecs, the_bound_cannot_change_once_the_codecs_are_loaded) {
    EXPECT_FALSE(setImagePixelLimit(16));
    const std::string path = tempPath("big.png");
    ASSERT_TRUE(cv::imwrite(path, solid(10, 10, cv::Scalar::all(9))));
    EXPECT_EQ(decodeImageFile(path).size(), cv::Size(10, 10));
    unlink(path.c_str());
}
