// Every image format but PNG and JPEG, through the image library's codecs: a
// module of its own, loaded the first time such a file is met, so that the
// bound set beforehand is the one the codecs read when they are loaded with it
// (they read OPENCV_IO_MAX_IMAGE_PIXELS once), and so that a process that only
// meets PNG and JPEG never loads them.
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

extern "C" __attribute__((visibility("default"))) bool dravik_image_imread(const char* path,
                                                                           cv::Mat* out) noexcept {
    return read(path, cv::IMREAD_COLOR, out);
}

// The file as stored: its own depth and channels (alpha included).
extern "C" __attribute__((visibility("default"))) bool dravik_image_imread_unchanged(
    const char* path, cv::Mat* out) noexcept {
    return read(path, cv::IMREAD_UNCHANGED, out);
}
