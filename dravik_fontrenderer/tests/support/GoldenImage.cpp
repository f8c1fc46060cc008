#include "GoldenImage.h"

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <opencv2/core.hpp>
#include <string>
#include "dravik_image/image_file.h"

namespace dravik::fontrenderer::testing {

namespace {

bool updating() {
    const char* value = std::getenv("DRAVIK_UPDATE_GOLDEN");
    return value != nullptr && value[0] != '\0' && std::strcmp(value, "0") != 0;
}

std::string referencePath(const std::string& name) {
    return std::string(DRAVIK_GOLDEN_DIR) + "/" + name + ".png";
}

std::string failurePath(const std::string& file) {
    const std::filesystem::path dir = DRAVIK_GOLDEN_FAILURE_DIR;
    std::filesystem::create_directories(dir);
    return (dir / file).string();
}

unsigned char sampleAt(const cv::Mat& picture, int x, int y) {
    return x < picture.cols && y < picture.rows ? picture.at<unsigned char>(y, x) : 0;
}

cv::Mat differencePicture(const cv::Mat& expected, const cv::Mat& actual) {
    cv::Mat diff(std::max(expected.rows, actual.rows), std::max(expected.cols, actual.cols),
                 CV_8UC3);
    for (int y = 0; y < diff.rows; ++y) {
        for (int x = 0; x < diff.cols; ++x) {
            const unsigned char e = sampleAt(expected, x, y);
            const unsigned char a = sampleAt(actual, x, y);
            const bool inBoth =
                x < expected.cols && y < expected.rows && x < actual.cols && y < actual.rows;
            diff.at<cv::Vec3b>(y, x) = inBoth && e == a ? cv::Vec3b(e / 4, e / 4, e / 4)
                                                        : cv::Vec3b(0, a, e);  // blue, green, red
        }
    }
    return diff;
}

}  // namespace

::testing::AssertionResult matchesGolden(const std::string& name, const cv::Mat& actual) {
    const std::string reference = referencePath(name);
    if (updating()) {
        if (!dravik::image::writePng(reference, actual)) {
            return ::testing::AssertionFailure() << "cannot write " << reference;
        }
        return ::testing::AssertionSuccess() << "wrote " << reference;
    }
    const cv::Mat expected =
        dravik::image::readImage(reference, dravik::image::ReadMode::kAsStored);
    const bool comparable = !expected.empty() && expected.type() == CV_8UC1;
    if (comparable && expected.size() == actual.size() &&
        cv::countNonZero(expected != actual) == 0) {
        return ::testing::AssertionSuccess();
    }
    const std::string actualPath = failurePath(name + ".actual.png");
    (void)dravik::image::writePng(actualPath, actual);  // the message names it either way
    auto failure = ::testing::AssertionFailure();
    if (!comparable) {
        failure << "no 8-bit grey reference picture " << reference;
    } else {
        const std::string diffPath = failurePath(name + ".diff.png");
        (void)dravik::image::writePng(diffPath, differencePicture(expected, actual));
        failure << name << ": the picture differs from " << reference << " (reference "
                << expected.cols << "x" << expected.rows << ", actual " << actual.cols << "x"
                << actual.rows;
        if (expected.size() == actual.size()) {
            failure << ", " << cv::countNonZero(expected != actual) << " samples differ";
        }
        failure << "); difference picture: " << diffPath;
    }
    return failure << "; actual picture: " << actualPath
                   << "; if the change is intended, rerun with DRAVIK_UPDATE_GOLDEN=1";
}

}  // namespace dravik::fontrenderer::testing
