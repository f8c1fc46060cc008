// Image files: the decoder chosen by content, PNG written and read back,
// special files refused without blocking, the pixel bound.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <fstream>
#include <opencv2/core.hpp>
#include <string>

#include "dravik_image/image_file.h"
#include "dravik_test_support/temp_dir.h"

using namespace dravik::image;

namespace {

cv::Mat pattern(int width, int height, int type) {
    cv::Mat img(height, width, type);
    const int channels = img.channels();
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width * channels; ++x) {
            const int value = (x * 37 + y * 101 + x * y) % 65536;
            if (img.depth() == CV_16U) {
                img.ptr<uint16_t>(y)[x] = static_cast<uint16_t>(value);
            } else {
                img.ptr<uint8_t>(y)[x] = static_cast<uint8_t>(value);
            }
        }
    }
    return img;
}

bool sameBytes(const cv::Mat& a, const cv::Mat& b) {
    return a.type() == b.type() && a.size() == b.size() &&
           (a.empty() || cv::norm(a, b, cv::NORM_INF) == 0);
}

void writeBytes(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

}  // namespace

TEST(ImageFile, png_round_trips_every_layout_it_writes) {
    dravik::testsupport::TempDir dir;
    for (int type : {CV_8UC1, CV_8UC3, CV_8UC4, CV_16UC1, CV_16UC3, CV_16UC4}) {
        SCOPED_TRACE(type);
        const cv::Mat img = pattern(13, 7, type);
        const std::string path = dir.path() + "/p.png";
        ASSERT_TRUE(writePng(path, img));
        EXPECT_TRUE(sameBytes(readImage(path, ReadMode::kAsStored), img));
    }
}

TEST(ImageFile, a_colour_read_of_a_png_drops_alpha_and_keeps_the_high_byte) {
    dravik::testsupport::TempDir dir;
    const std::string path = dir.path() + "/a.png";
    cv::Mat bgra(1, 1, CV_16UC4, cv::Scalar(0x1234, 0x5678, 0x9abc, 0x0001));
    ASSERT_TRUE(writePng(path, bgra));
    const cv::Mat colour = readImage(path);
    ASSERT_EQ(colour.type(), CV_8UC3);
    EXPECT_EQ(colour.at<cv::Vec3b>(0, 0), cv::Vec3b(0x12, 0x56, 0x9a));
}

TEST(ImageFile, the_decoder_is_chosen_by_content_not_by_name) {
    dravik::testsupport::TempDir dir;
    const std::string path = dir.path() + "/picture.jpg";
    ASSERT_TRUE(writePng(path, pattern(4, 4, CV_8UC3)));
    EXPECT_EQ(sniffFormat(path), Format::kPng);
    EXPECT_TRUE(sameBytes(readImage(path), pattern(4, 4, CV_8UC3)));
    writeBytes(dir.path() + "/image.png", std::string("\xff\xd8\xff\xe0", 4));
    EXPECT_EQ(sniffFormat(dir.path() + "/image.png"), Format::kJpeg);
    writeBytes(dir.path() + "/bitmap.png", "BM");
    EXPECT_EQ(sniffFormat(dir.path() + "/bitmap.png"), Format::kOther);
}

TEST(ImageFile, png_and_jpeg_never_load_the_other_formats_module) {
    dravik::testsupport::TempDir dir;
    const std::string path = dir.path() + "/p.png";
    ASSERT_TRUE(writePng(path, pattern(5, 5, CV_8UC3)));
    EXPECT_FALSE(readImage(path).empty());
    writeBytes(dir.path() + "/cut.png", "\x89PNG\r\n\x1a\n\0\0");
    EXPECT_TRUE(readImage(dir.path() + "/cut.png").empty());
    writeBytes(dir.path() + "/cut.jpg", "\xff\xd8\xff");
    EXPECT_TRUE(readImage(dir.path() + "/cut.jpg").empty());
    writeBytes(dir.path() + "/empty.png", "");
    EXPECT_TRUE(readImage(dir.path() + "/empty.png").empty());
    EXPECT_FALSE(otherFormatsLoaded());
}

TEST(ImageFile, special_files_and_missing_files_are_unreadable_at_once) {
    dravik::testsupport::TempDir dir;
    const std::string fifo = dir.path() + "/fifo.png";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_EQ(sniffFormat(fifo), Format::kUnreadable);  // returns: no writer is waited for
    EXPECT_TRUE(readImage(fifo).empty());
    EXPECT_EQ(sniffFormat(dir.path()), Format::kUnreadable);
    EXPECT_EQ(sniffFormat("/dev/zero"), Format::kUnreadable);
    EXPECT_EQ(sniffFormat(dir.path() + "/absent.png"), Format::kUnreadable);
    const std::string socketPath = dir.path() + "/socket.png";
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    socketPath.copy(address.sun_path, sizeof(address.sun_path) - 1);
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    EXPECT_EQ(sniffFormat(socketPath), Format::kUnreadable);
    close(fd);
    EXPECT_FALSE(otherFormatsLoaded());
}

TEST(ImageFile, a_png_over_the_pixel_bound_is_refused_from_its_header) {
    dravik::testsupport::TempDir dir;
    const std::string path = dir.path() + "/big.png";
    ASSERT_TRUE(writePng(path, pattern(20, 10, CV_8UC3)));
    const uint64_t saved = pixelLimit();
    (void)setPixelLimit(199);  // the module is not loaded in this program: true or not, the
                               // lean decoders take the bound
    EXPECT_EQ(pixelLimit(), 199U);
    EXPECT_TRUE(readImage(path).empty());
    (void)setPixelLimit(200);
    EXPECT_EQ(readImage(path).size(), cv::Size(20, 10));
    (void)setPixelLimit(saved);
}

TEST(ImageFile, writing_where_nothing_can_be_written_fails_cleanly) {
    EXPECT_FALSE(writePng("/nonexistent-dir/x.png", pattern(2, 2, CV_8UC3)));
    dravik::testsupport::TempDir dir;
    EXPECT_FALSE(writePng(dir.path() + "/two.png", cv::Mat(2, 2, CV_8UC2, cv::Scalar::all(1))));
    EXPECT_FALSE(writePng(dir.path() + "/float.png", cv::Mat(2, 2, CV_32FC3)));
    EXPECT_FALSE(writePng(dir.path() + "/empty.png", cv::Mat()));
}
