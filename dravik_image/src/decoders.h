#pragma once

// The decoders behind readImage. Each mirrors, call for call, what the image
// library's own decoder of the format asks of the same C library, so that the
// bytes are the same; where the comments say "as cv::imread", that is the
// behaviour kept.
#include <cstdint>
#include <cstdio>
#include <opencv2/core/mat.hpp>
#include <string>
#include <vector>

#include "dravik_image/image_file.h"

namespace dravik::image::detail {

// cv::imread's own caps on either side of an image (OPENCV_IO_MAX_IMAGE_WIDTH
// and _HEIGHT keep their defaults in the daemon).
constexpr uint64_t kMaxSide = uint64_t{1} << 20;

// What cv::imread requires of a header's size before it decodes a pixel.
bool sizeAllowed(uint64_t width, uint64_t height);

// Decode from `file`, positioned at its start. Empty on any failure.
cv::Mat readPng(FILE* file, ReadMode mode);
// `otherDecoder` is set for a four-component (CMYK or YCCK) JPEG, which the
// other-formats module reads instead.
cv::Mat readJpeg(FILE* file, ReadMode mode, bool& otherDecoder);

// The orientation (1 .. 8) in IFD 0 of the EXIF structure at `tiff` (the TIFF
// header and what follows it, as a PNG eXIf chunk holds it and as a JPEG APP1
// segment holds it after its 6-byte header); 0 when it has none or cannot be
// read.
int exifOrientation(const uint8_t* tiff, size_t size);

// Turns `img` as an EXIF orientation says, as cv::imread does for a colour read.
void applyOrientation(int orientation, cv::Mat& img);

// cv::imread through the other-formats module.
cv::Mat readOther(const std::string& path, ReadMode mode);
bool setOtherFormatsPixelLimit(uint64_t maxPixels);

}  // namespace dravik::image::detail
