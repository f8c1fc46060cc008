// PNG through libpng, with the transformations the image library's own PNG
// decoder asks for, in its order, so that both give the same bytes: 16-bit
// samples keep their high byte, alpha is dropped for a 1- or 3-channel read,
// palettes and low-depth grey expand to 8 bits, colour comes out as BGR(A),
// interlaced files are read through libpng's pass handling. No gamma or colour
// profile is applied, as there.
#include <png.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "decoders.h"

namespace dravik::image::detail {
namespace {

// libpng's own default cap on either side of an image.
constexpr png_uint_32 kPngUserMax = 1000000;

struct PngRead {
    png_structp png = nullptr;
    png_infop info = nullptr;
    png_infop endInfo = nullptr;
    png_uint_32 width = 0;
    png_uint_32 height = 0;
    int bitDepth = 0;
    int colourType = 0;
    int storedType = 0;  // the matrix type of a read as stored

    PngRead() = default;
    PngRead(const PngRead&) = delete;
    PngRead& operator=(const PngRead&) = delete;
    ~PngRead() { png_destroy_read_struct(&png, &info, &endInfo); }
};

// Failures end in png_longjmp back to the caller's setjmp; messages are not
// printed: the caller logs its own line for an unreadable image.
void onError(png_structp png, png_const_charp) {
    png_longjmp(png, 1);
}

void onWarning(png_structp, png_const_charp) {}

// The stored layout: channels from the colour type and a tRNS chunk, depth 8
// or 16.
int storedTypeOf(png_structp png, png_infop info, int colourType, int bitDepth) {
    int channels = 1;
    switch (colourType) {
        case PNG_COLOR_TYPE_RGB:
        case PNG_COLOR_TYPE_PALETTE: {
            png_bytep trans = nullptr;
            int numTrans = 0;
            png_color_16p transValues = nullptr;
            png_get_tRNS(png, info, &trans, &numTrans, &transValues);
            channels = numTrans > 0 ? 4 : 3;
            break;
        }
        case PNG_COLOR_TYPE_GRAY_ALPHA:
        case PNG_COLOR_TYPE_RGB_ALPHA:
            channels = 4;
            break;
        default:
            break;
    }
    return CV_MAKETYPE(bitDepth == 16 ? CV_16U : CV_8U, channels);
}

// Reads up to the first image data and notes the header. Only plain data
// lives in this frame, so the jump back from libpng skips no destructor.
bool readHeader(PngRead& r, FILE* file) {
    if (setjmp(png_jmpbuf(r.png)) != 0) {
        return false;
    }
    png_init_io(r.png, file);
    const png_uint_32 sideMax =
        static_cast<png_uint_32>(std::min<uint64_t>(kPngUserMax, pixelLimit()));
    png_set_user_limits(r.png, sideMax, sideMax);
    png_read_info(r.png, r.info);
    png_get_IHDR(r.png, r.info, &r.width, &r.height, &r.bitDepth, &r.colourType, nullptr, nullptr,
                 nullptr);
    if (r.bitDepth > 8 && r.bitDepth != 16) {
        return false;
    }
    r.storedType = storedTypeOf(r.png, r.info, r.colourType, r.bitDepth);
    return true;
}

void requestLayout(const PngRead& r, int depth, int channels) {
    png_structp png = r.png;
    if (depth == CV_8U && r.bitDepth == 16) {
        png_set_strip_16(png);
    } else if (__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__) {
        png_set_swap(png);  // PNG stores 16-bit samples big-endian
    }
    if (channels < 4) {
        png_set_strip_alpha(png);
    } else {
        png_set_tRNS_to_alpha(png);
    }
    if (r.colourType == PNG_COLOR_TYPE_PALETTE) {
        png_set_palette_to_rgb(png);
    }
    if ((r.colourType & PNG_COLOR_MASK_COLOR) == 0 && r.bitDepth < 8) {
        png_set_expand_gray_1_2_4_to_8(png);
    }
    const bool colour = channels > 1;
    if ((r.colourType & PNG_COLOR_MASK_COLOR) != 0 && colour) {
        png_set_bgr(png);
    } else if (colour) {
        png_set_gray_to_rgb(png);
    } else {
        png_set_rgb_to_gray(png, 1, 0.299, 0.587);
    }
    (void)png_set_interlace_handling(png);  // the pass count is libpng's business
    png_read_update_info(png, r.info);
}

// The EXIF block of an eXIf chunk, before or after the image data.
int pngOrientation(const PngRead& r) {
    png_uint_32 size = 0;
    png_bytep exif = nullptr;
    if (png_get_valid(r.png, r.info, PNG_INFO_eXIf) != 0) {
        png_get_eXIf_1(r.png, r.info, &size, &exif);
    } else if (png_get_valid(r.png, r.endInfo, PNG_INFO_eXIf) != 0) {
        png_get_eXIf_1(r.png, r.endInfo, &size, &exif);
    }
    if (exif == nullptr || size == 0) {
        return 0;
    }
    return exifOrientation(exif, size);
}

// `rows` each hold `rowBytes`: a layout that would not fit is refused rather
// than written past them.
bool readRows(PngRead& r, int depth, int channels, png_bytepp rows, size_t rowBytes) {
    if (setjmp(png_jmpbuf(r.png)) != 0) {
        return false;
    }
    requestLayout(r, depth, channels);
    if (png_get_rowbytes(r.png, r.info) > rowBytes) {
        return false;
    }
    png_read_image(r.png, rows);
    png_read_end(r.png, r.endInfo);
    return true;
}

}  // namespace

cv::Mat readPng(FILE* file, ReadMode mode) {
    PngRead r;
    r.png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, onError, onWarning);
    if (r.png == nullptr) {
        return cv::Mat();
    }
    r.info = png_create_info_struct(r.png);
    r.endInfo = png_create_info_struct(r.png);
    if (r.info == nullptr || r.endInfo == nullptr || !readHeader(r, file) ||
        !sizeAllowed(r.width, r.height)) {
        return cv::Mat();
    }
    const int type = mode == ReadMode::kColour ? CV_8UC3 : r.storedType;
    cv::Mat img(static_cast<int>(r.height), static_cast<int>(r.width), type);
    std::vector<png_bytep> rows(r.height);
    for (png_uint_32 y = 0; y < r.height; ++y) {
        rows[y] = img.ptr(static_cast<int>(y));
    }
    if (!readRows(r, CV_MAT_DEPTH(type), CV_MAT_CN(type), rows.data(), img.step[0])) {
        return cv::Mat();
    }
    if (mode == ReadMode::kColour) {
        applyOrientation(pngOrientation(r), img);
    }
    return img;
}

}  // namespace dravik::image::detail
