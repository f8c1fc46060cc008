#include "dravik_test_support/golden_picture.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <utility>

#include "dravik_image/image_file.h"

namespace dravik::testsupport {

namespace {

cv::Vec3b colourAt(const cv::Mat& picture, int x, int y) {
    if (picture.channels() == 1) {
        const unsigned char v = picture.at<unsigned char>(y, x);
        return {v, v, v};
    }
    return picture.at<cv::Vec3b>(y, x);
}

bool holds(const cv::Mat& picture, int x, int y) {
    return x < picture.cols && y < picture.rows;
}

// The reference dimmed where both pictures agree; red where they differ or
// only one of them has the pixel.
cv::Mat differencePicture(const cv::Mat& expected, const cv::Mat& actual) {
    const cv::Vec3b red(0, 0, 255);
    cv::Mat diff(std::max(expected.rows, actual.rows), std::max(expected.cols, actual.cols),
                 CV_8UC3);
    for (int y = 0; y < diff.rows; ++y) {
        for (int x = 0; x < diff.cols; ++x) {
            const bool inBoth = holds(expected, x, y) && holds(actual, x, y);
            const cv::Vec3b e = inBoth ? colourAt(expected, x, y) : red;
            diff.at<cv::Vec3b>(y, x) =
                inBoth && e == colourAt(actual, x, y) ? cv::Vec3b(e / 4) : red;
        }
    }
    return diff;
}

std::string failurePath(const std::string& dir, const std::string& file) {
    std::filesystem::create_directories(dir);
    return (std::filesystem::path(dir) / file).string();
}

}  // namespace

bool updatingGoldenPictures() {
    const char* value = std::getenv("DRAVIK_UPDATE_GOLDEN");
    return value != nullptr && std::strcmp(value, "1") == 0;
}

GoldenPictures::GoldenPictures(std::string referenceDir, std::string failureDir)
    : referenceDir_(std::move(referenceDir)), failureDir_(std::move(failureDir)) {}

::testing::AssertionResult GoldenPictures::matches(const std::string& name,
                                                   const cv::Mat& actual) const {
    const std::string reference = referenceDir_ + "/" + name + ".png";
    if (updatingGoldenPictures()) {
        if (!image::writePng(reference, actual)) {
            return ::testing::AssertionFailure() << "cannot write " << reference;
        }
        std::cout << "wrote " << reference << "\n";
        return ::testing::AssertionSuccess();
    }
    // A grey picture is compared with its reference as stored, a colour one
    // with its reference in colour.
    const cv::Mat expected = image::readImage(
        reference, actual.channels() == 1 ? image::ReadMode::kAsStored : image::ReadMode::kColour);
    const bool comparable = !expected.empty() && expected.type() == actual.type();
    const bool sameSize = comparable && expected.size() == actual.size();
    if (sameSize && cv::norm(expected, actual, cv::NORM_INF) == 0) {
        return ::testing::AssertionSuccess();
    }
    const std::string actualPath = failurePath(failureDir_, name + "-actual.png");
    (void)image::writePng(actualPath, actual);  // the message names it either way
    auto failure = ::testing::AssertionFailure();
    if (!comparable) {
        failure << "no reference picture " << reference << " of the drawn picture's type";
    } else {
        const std::string diffPath = failurePath(failureDir_, name + "-diff.png");
        (void)image::writePng(diffPath, differencePicture(expected, actual));
        failure << name << ": the picture differs from " << reference << " (reference "
                << expected.cols << "x" << expected.rows << ", actual " << actual.cols << "x"
                << actual.rows;
        if (sameSize) {
            failure << ", " << cv::countNonZero(expected.reshape(1) != actual.reshape(1))
                    << " samples differ";
        }
        failure << "); difference picture (red where they differ): " << diffPath;
    }
    return failure << "; actual picture: " << actualPath
                   << "; if the change is intended, run scripts/update-golden "
                      "(DRAVIK_UPDATE_GOLDEN=1)";
}

}  // namespace dravik::testsupport
