// The image codecs as a module that the daemon loads on its first decode, so
// that the pixel bound it set beforehand is the one the codecs read when they
// are loaded with it.
#include <opencv2/imgcodecs.hpp>

namespace {

// An image over the pixel bound, or a decoder that gives up on a damaged
// file: both are an unreadable file to the caller.
bool read(const char* path, int flags, cv::Mat* out) noexcept {
    try {
        *out = cv::imread(path, flags);
        return true;
    } catch (...) {
        out->release();
        return false;
    }
}

}  // namespace

extern "C" __attribute__((visibility("default"))) bool dravik_lcm_gui_imread(
    const char* path, cv::Mat* out) noexcept {
    return read(path, cv::IMREAD_COLOR, out);
}

// The file as stored: its own depth and channels (alpha included).
extern "C" __attribute__((visibility("default"))) bool dravik_lcm_gui_imread_unchanged(
    const char* path, cv::Mat* out) noexcept {
    return read(path, cv::IMREAD_UNCHANGED, out);
}

extern "C" __attribute__((visibility("default"))) bool dravik_lcm_gui_imwrite(
    const char* path, const cv::Mat* img) noexcept {
    try {
        return cv::imwrite(path, *img);
    } catch (...) {
        return false;
    }
}
