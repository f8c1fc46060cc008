// Draws the images that the example screens file names, so the repository holds
// no binary pictures: make_example_images OUTPUT_DIR
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include "dravik_image/image_file.h"

#include <cmath>
#include <cstdio>
#include <string>

namespace {

// A static logo: a rounded blue badge with a white ring, 120 x 80.
cv::Mat logo() {
    cv::Mat img(80, 120, CV_8UC3, cv::Scalar(0, 0, 0));
    cv::rectangle(img, {10, 10}, {110, 70}, cv::Scalar(200, 120, 20), cv::FILLED, cv::LINE_AA);
    cv::circle(img, {60, 40}, 24, cv::Scalar(255, 255, 255), 4, cv::LINE_AA);
    cv::circle(img, {60, 40}, 8, cv::Scalar(40, 200, 255), cv::FILLED, cv::LINE_AA);
    return img;
}

// A slideshow of 8 slides side by side (48 x 48 each): a dot running round a circle.
cv::Mat spinner() {
    const int side = 48;
    const int slides = 8;
    cv::Mat img(side, side * slides, CV_8UC3, cv::Scalar(0, 0, 0));
    for (int i = 0; i < slides; ++i) {
        cv::Mat slide = img(cv::Rect(i * side, 0, side, side));
        cv::circle(slide, {side / 2, side / 2}, 18, cv::Scalar(90, 90, 90), 2, cv::LINE_AA);
        const double a = 2.0 * M_PI * i / slides;
        const cv::Point dot(side / 2 + static_cast<int>(std::lround(18 * std::sin(a))),
                            side / 2 - static_cast<int>(std::lround(18 * std::cos(a))));
        cv::circle(slide, dot, 6, cv::Scalar(80, 220, 80), cv::FILLED, cv::LINE_AA);
    }
    return img;
}

// A heart for the breathing screen, 64 x 64.
cv::Mat heart() {
    cv::Mat img(64, 64, CV_8UC3, cv::Scalar(0, 0, 0));
    const cv::Scalar red(60, 40, 230);
    cv::circle(img, {22, 24}, 14, red, cv::FILLED, cv::LINE_AA);
    cv::circle(img, {42, 24}, 14, red, cv::FILLED, cv::LINE_AA);
    const cv::Point tip[] = {{9, 30}, {55, 30}, {32, 56}};
    cv::fillConvexPoly(img, tip, 3, red, cv::LINE_AA);
    return img;
}

// A progress bar 200 x 24: the filled bar above the empty one.
cv::Mat progress() {
    const int w = 200;
    const int h = 12;
    cv::Mat img(2 * h, w, CV_8UC3, cv::Scalar(0, 0, 0));
    cv::Mat filled = img(cv::Rect(0, 0, w, h));
    cv::Mat empty = img(cv::Rect(0, h, w, h));
    cv::rectangle(filled, {0, 0}, {w - 1, h - 1}, cv::Scalar(255, 255, 255), 1);
    cv::rectangle(filled, {2, 2}, {w - 3, h - 3}, cv::Scalar(40, 200, 255), cv::FILLED);
    cv::rectangle(empty, {0, 0}, {w - 1, h - 1}, cv::Scalar(255, 255, 255), 1);
    return img;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2 || std::string(argv[1]) == "--help") {
        std::fprintf(stderr,
                     "Usage: %s OUTPUT_DIR\nWrites logo.png, spinner.png, heart.png and "
                     "progress.png for the example screens file.\n",
                     argv[0]);
        return argc == 2 ? 0 : 2;
    }
    const std::string dir = argv[1];
    const struct {
        const char* name;
        cv::Mat image;
    } images[] = {{"logo.png", logo()},
                  {"spinner.png", spinner()},
                  {"heart.png", heart()},
                  {"progress.png", progress()}};
    for (const auto& entry : images) {
        const std::string path = dir + "/" + entry.name;
        if (!dravik::image::writePng(path, entry.image)) {
            std::fprintf(stderr, "cannot write %s\n", path.c_str());
            return 1;
        }
        std::printf("%s %dx%d\n", path.c_str(), entry.image.cols, entry.image.rows);
    }
    return 0;
}
