#include "MistakesRoot.h"

#include <filesystem>
#include <fstream>
#include <opencv2/core.hpp>
#include "dravik_image/image_file.h"

namespace dravik::preview::testsupport {

std::unique_ptr<dravik::testsupport::TempDir> makeMistakesRoot() {
    namespace fs = std::filesystem;
    auto root = std::make_unique<dravik::testsupport::TempDir>("preview-mistakes-");
    const fs::path images = fs::path(root->path()) / "etc/gui/images";
    fs::create_directories(images);
    const struct {
        const char* name;
        cv::Mat image;
    } pictures[] = {
        {"logo.png", cv::Mat(80, 120, CV_8UC3, cv::Scalar(200, 120, 20))},
        {"deep.png", cv::Mat(20, 20, CV_16UC3, cv::Scalar(40000, 0, 0))},
        {"alpha.png", cv::Mat(20, 20, CV_8UC4, cv::Scalar(0, 0, 255, 0))},
        {"wide.png", cv::Mat(50, 300, CV_8UC3, cv::Scalar(0, 255, 0))},
        {"strip.png", cv::Mat(10, 4, CV_8UC3, cv::Scalar(255, 255, 255))},
    };
    for (const auto& picture : pictures) {
        if (!dravik::image::writePng((images / picture.name).string(), picture.image)) {
            return nullptr;
        }
    }
    std::ofstream(images / "broken.png") << "not a picture";
    return root;
}

}  // namespace dravik::preview::testsupport
