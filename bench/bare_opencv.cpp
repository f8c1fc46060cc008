// The floor for the daemon's start-up and memory: a program that loads the
// OpenCV modules the daemon uses at run time (core, imgproc and, for its first
// picture, imgcodecs), decodes one PNG and ends. It prints the picture's size
// and its own peak resident size, which scripts/bench compares with the
// daemon's.
#include <cstdio>
#include <cstring>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

namespace {

// VmHWM of /proc/self/status in kB, or -1.
long peakResidentKb() {
    std::FILE* status = std::fopen("/proc/self/status", "r");
    if (status == nullptr) {
        return -1;
    }
    char line[256];
    long kb = -1;
    while (std::fgets(line, sizeof line, status) != nullptr) {
        if (std::strncmp(line, "VmHWM:", 6) == 0) {
            kb = std::strtol(line + 6, nullptr, 10);
            break;
        }
    }
    std::fclose(status);
    return kb;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s PICTURE.png\n", argv[0]);
        return 2;
    }
    const cv::Mat picture = cv::imread(argv[1], cv::IMREAD_COLOR);
    if (picture.empty()) {
        std::fprintf(stderr, "cannot decode %s\n", argv[1]);
        return 1;
    }
    // The daemon adds pictures into its drawing buffer; do the same once so
    // that imgproc and core are used, not only linked.
    cv::Mat buffer = cv::Mat::zeros(picture.rows, picture.cols, CV_8UC3);
    cv::add(buffer, picture, buffer);
    std::printf("decoded %dx%d\nVmHWM %ld kB\n", picture.cols, picture.rows, peakResidentKb());
    return 0;
}
