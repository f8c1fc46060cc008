#pragma once

#include <cstdint>
#include <opencv2/core/mat.hpp>
#include <string>

// Image files as the display engine and the tools read and write them.
//
// PNG and JPEG, the formats of screens, are decoded by libpng and
// libjpeg-turbo, linked normally; the result is the same, byte for byte, as
// the image library's cv::imread gives for the same file and mode, EXIF
// orientation included. The decoder is chosen by the file's signature, never
// by its name. Every other format (BMP, PPM, TIFF, WebP, ...) goes through
// cv::imread in a module of its own, loaded the first time such a file is
// met, so that a process that only meets PNG and JPEG never loads the image
// library's codecs and the hundred libraries they bring.
//
// No function here throws.
namespace dravik::image {

// How a file is decoded; each is the cv::imread flag of the same name.
enum class ReadMode {
    kColour,    // cv::IMREAD_COLOR: 8-bit, 3 channels, BGR, EXIF orientation applied
    kAsStored,  // cv::IMREAD_UNCHANGED: the file's own depth and channels, alpha kept
};

// What a file's first bytes say it is.
enum class Format {
    kPng,
    kJpeg,
    kOther,       // anything else: decoded by the other-formats module
    kUnreadable,  // cannot be opened, or not a regular file
};

// Sets the bound on the pixel count of one image (width x height, as its
// header declares it) for every later decode: a larger image is refused from
// its header, before any pixel is decoded. The PNG and JPEG decoders take it
// at once. The other-formats module reads it once, while it is loaded: false
// when it is loaded already (or the process links the image library's codecs
// itself), where its bound can no longer change. Without a call, the bound is
// the image library's default, 2^30.
[[nodiscard]] bool setPixelLimit(uint64_t maxPixels);

// The bound in force for the PNG and JPEG decoders.
uint64_t pixelLimit();

// Which decoder `path` goes to.
Format sniffFormat(const std::string& path);

// Decodes `path`. Any failure (unreadable, damaged, over the bound, not a
// regular file, the other-formats module missing) gives an empty matrix.
cv::Mat readImage(const std::string& path, ReadMode mode = ReadMode::kColour);

// Writes `img` (8 or 16 bit unsigned; 1, 3 or 4 channels in the image
// library's order: grey, BGR, BGRA) to `path` as PNG through libpng. False,
// with the file removed, when it cannot be written.
[[nodiscard]] bool writePng(const std::string& path, const cv::Mat& img);

// Whether this process has loaded the other-formats module.
bool otherFormatsLoaded();

}  // namespace dravik::image
