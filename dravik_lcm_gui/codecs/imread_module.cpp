// The image codecs as a module that the daemon loads on its first decode, so
// that the pixel bound it set beforehand is the one the codecs read when they
// are loaded with it.
#include <opencv2/imgcodecs.hpp>

extern "C" __attribute__((visibility("default"))) bool dravik_lcm_gui_imread(
    const char* path, cv::Mat* out) noexcept {
    try {
        *out = cv::imread(path, cv::IMREAD_COLOR);
        return true;
    } catch (...) {
        // An image over the pixel bound, or a decoder that gives up on a
        // damaged file: both are an unreadable file to the caller.
        out->release();
        return false;
    }
}
