#include "TestImages.h"

#include <fstream>
#include <opencv2/core.hpp>
#include "dravik_image/image_file.h"

namespace dravik::lcmgui::testsupport {

std::string writeGuiImage(const std::string& name, const cv::Mat& img, const std::string& dir) {
    const std::string path = dir + "/" + name;
    return dravik::image::writePng(path, img) ? path : std::string();
}

std::string writeGuiFile(const std::string& name, const std::string& bytes,
                         const std::string& dir) {
    const std::string path = dir + "/" + name;
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return out.good() ? path : std::string();
}

cv::Mat solid(int w, int h, cv::Scalar bgr) {
    return cv::Mat(h, w, CV_8UC3, bgr);
}

}  // namespace dravik::lcmgui::testsupport
