#pragma once

#include <cstdint>
#include <opencv2/core/mat.hpp>
#include <string>

namespace dravik::lcmgui {

// Image files are decoded by OpenCV's codecs. They read their bound on the
// pixel count of one image (OPENCV_IO_MAX_IMAGE_PIXELS) once, while their
// library is being loaded, and refuse a larger image from its header, before
// any pixel is decoded. The daemon therefore does not link them: they are
// loaded with the first decode, after setImagePixelLimit has set the bound.

// Sets the bound for every later decode. False when the codecs are already in
// the process (another part of it linked them), where the bound can no longer
// change.
[[nodiscard]] bool setImagePixelLimit(uint64_t maxPixels);

// Decodes `path` as 8-bit colour (cv::IMREAD_COLOR). Any failure (unreadable,
// damaged, over the bound, codecs missing) gives an empty matrix.
cv::Mat decodeImageFile(const std::string& path);

// Decodes `path` as it is stored (cv::IMREAD_UNCHANGED): its own depth and
// channel count, alpha included. Failures as for decodeImageFile.
cv::Mat decodeImageFileAsStored(const std::string& path);

// Writes `img` to `path` (cv::imwrite, the format chosen by the extension);
// false when it cannot be written.
[[nodiscard]] bool encodeImageFile(const std::string& path, const cv::Mat& img);

}  // namespace dravik::lcmgui
