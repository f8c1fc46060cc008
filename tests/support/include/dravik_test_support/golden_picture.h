#pragma once

#include <gtest/gtest.h>

#include <opencv2/core.hpp>
#include <string>

namespace dravik::testsupport {

// Whether the tests rewrite their reference pictures instead of comparing:
// the environment variable DRAVIK_UPDATE_GOLDEN is exactly "1"
// (scripts/update-golden sets it). Any other value, or none, compares.
bool updatingGoldenPictures();

// Reference pictures kept beside a folder's tests: `<referenceDir>/<name>.png`,
// compared sample for sample with the picture drawn now (8-bit, one channel
// or BGR). On a mismatch the drawn picture `<name>-actual.png` and, when a
// reference of the same type exists, a difference picture `<name>-diff.png`
// (the reference dimmed to a quarter where both agree, red where they differ
// or only one of them has the pixel) are written to `failureDir` and named in
// the failure message. While updatingGoldenPictures(), the reference is
// written from the drawn picture instead, and the comparison passes.
class GoldenPictures {
public:
    GoldenPictures(std::string referenceDir, std::string failureDir);

    ::testing::AssertionResult matches(const std::string& name, const cv::Mat& actual) const;

private:
    std::string referenceDir_;
    std::string failureDir_;
};

}  // namespace dravik::testsupport
