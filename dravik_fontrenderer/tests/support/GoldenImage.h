#pragma once

#include <gtest/gtest.h>

#include <opencv2/core.hpp>
#include <string>

namespace dravik::fontrenderer::testing {

// Compares an 8-bit one-channel picture, sample for sample, with the reference
// PNG `<name>.png` kept beside the tests. On a mismatch the actual picture and
// a difference picture (red: reference only, green: actual only, yellow: both
// but unequal, dim grey: equal) are written under golden-failures/ in the
// test's build directory and named in the failure message. With the environment
// variable DRAVIK_UPDATE_GOLDEN=1 the reference is written from the actual
// picture instead, and the comparison passes.
::testing::AssertionResult matchesGolden(const std::string& name, const cv::Mat& actual);

}  // namespace dravik::fontrenderer::testing
