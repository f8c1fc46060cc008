// The engine's image files in a program that links the image library's codecs
// itself: PNG still goes through libpng, other formats through the codecs, and
// the pixel bound still reaches the PNG and JPEG decoders.
#include <gtest/gtest.h>
#include <unistd.h>

#include <opencv2/imgcodecs.hpp>
#include <string>

#include "TestImages.h"
#include "dravik_image/image_file.h"

using dravik::lcmgui::testsupport::solid;
namespace image = dravik::image;

namespace {

std::string tempPath(const char* name) {
    return "/tmp/lcm_gui_codecs_" + std::to_string(getpid()) + "_" + name;
}

}  // namespace

TEST(OtherFormats, a_bmp_is_decoded_as_8_bit_colour_by_the_codecs) {
    const std::string path = tempPath("ok.bmp");
    ASSERT_TRUE(cv::imwrite(path, solid(6, 4, cv::Scalar(1, 2, 3))));
    EXPECT_EQ(image::sniffFormat(path), image::Format::kOther);
    const cv::Mat img = image::readImage(path);
    ASSERT_EQ(img.type(), CV_8UC3);
    EXPECT_EQ(img.size(), cv::Size(6, 4));
    EXPECT_EQ(img.at<cv::Vec3b>(3, 5), cv::Vec3b(1, 2, 3));
    unlink(path.c_str());
}

TEST(OtherFormats, unreadable_and_missing_files_give_an_empty_image) {
    const std::string path = tempPath("junk.bmp");
    ASSERT_FALSE(
        dravik::lcmgui::testsupport::writeGuiFile(path.substr(5), "BM junk", "/tmp").empty());
    EXPECT_TRUE(image::readImage(path).empty());
    EXPECT_TRUE(image::readImage(tempPath("absent.png")).empty());
    EXPECT_TRUE(image::readImage("/tmp").empty());
    unlink(path.c_str());
}

// A program that links the codecs itself has loaded them before any bound
// could be set: it is told so; PNG and JPEG take the bound all the same.
TEST(OtherFormats, the_codecs_bound_cannot_change_once_they_are_loaded) {
    const uint64_t saved = image::pixelLimit();
    EXPECT_FALSE(image::setPixelLimit(16));
    const std::string bmp = tempPath("big.bmp");
    ASSERT_TRUE(cv::imwrite(bmp, solid(10, 10, cv::Scalar::all(9))));
    EXPECT_EQ(image::readImage(bmp).size(), cv::Size(10, 10));
    const std::string png = tempPath("big.png");
    ASSERT_TRUE(image::writePng(png, solid(10, 10, cv::Scalar::all(9))));
    EXPECT_TRUE(image::readImage(png).empty());
    (void)image::setPixelLimit(saved);
    EXPECT_EQ(image::readImage(png).size(), cv::Size(10, 10));
    unlink(bmp.c_str());
    unlink(png.c_str());
}
