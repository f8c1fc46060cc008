#pragma once

#include <opencv2/core.hpp>
#include <string>

namespace dravik::lcmgui::testsupport {

// Writes `img` as a PNG file (whatever the name says) under `dir` (default /usr/etc/gui) and
// returns its path; an empty string when it could not be written. Only for use inside the private
// mount namespace (PrivateGuiPaths).
std::string writeGuiImage(const std::string& name, const cv::Mat& img,
                          const std::string& dir = "/usr/etc/gui");
// Writes raw bytes as a file under `dir`; returns its path or "".
std::string writeGuiFile(const std::string& name, const std::string& bytes,
                         const std::string& dir = "/usr/etc/gui");

// A BGR image of w x h filled with one colour.
cv::Mat solid(int w, int h, cv::Scalar bgr);

}  // namespace dravik::lcmgui::testsupport
