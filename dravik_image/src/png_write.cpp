// PNG files written through libpng: grey, BGR or BGRA matrices of 8 or 16
// bits, as the tools write snapshots, previews and reference pictures.
#include <png.h>
#include <unistd.h>

#include <cstdio>
#include <vector>

#include "dravik_image/image_file.h"

namespace dravik::image {
namespace {

void onError(png_structp png, png_const_charp) {
    png_longjmp(png, 1);
}

void onWarning(png_structp, png_const_charp) {}

int colourTypeOf(int channels) {
    switch (channels) {
        case 1:
            return PNG_COLOR_TYPE_GRAY;
        case 3:
            return PNG_COLOR_TYPE_RGB;
        case 4:
            return PNG_COLOR_TYPE_RGB_ALPHA;
        default:
            return -1;
    }
}

struct PngWrite {
    png_structp png = nullptr;
    png_infop info = nullptr;

    PngWrite() = default;
    PngWrite(const PngWrite&) = delete;
    PngWrite& operator=(const PngWrite&) = delete;
    ~PngWrite() { png_destroy_write_struct(&png, &info); }
};

// Only plain data lives in this frame, so libpng's jump skips no destructor.
bool writeRows(PngWrite& w, FILE* file, const cv::Mat& img, int colourType, png_bytepp rows) {
    if (setjmp(png_jmpbuf(w.png)) != 0) {
        return false;
    }
    png_init_io(w.png, file);
    const int bitDepth = img.depth() == CV_16U ? 16 : 8;
    png_set_IHDR(w.png, w.info, static_cast<png_uint_32>(img.cols),
                 static_cast<png_uint_32>(img.rows), bitDepth, colourType, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(w.png, w.info);
    if (colourType != PNG_COLOR_TYPE_GRAY) {
        png_set_bgr(w.png);
    }
    if (bitDepth == 16 && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__) {
        png_set_swap(w.png);  // PNG stores 16-bit samples big-endian
    }
    png_write_image(w.png, rows);
    png_write_end(w.png, nullptr);
    return true;
}

}  // namespace

bool writePng(const std::string& path, const cv::Mat& img) {
    const int colourType = colourTypeOf(img.channels());
    if (img.empty() || img.dims != 2 || colourType < 0 ||
        (img.depth() != CV_8U && img.depth() != CV_16U)) {
        return false;
    }
    PngWrite w;
    w.png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, onError, onWarning);
    w.info = w.png != nullptr ? png_create_info_struct(w.png) : nullptr;
    if (w.info == nullptr) {
        return false;
    }
    std::vector<png_bytep> rows(static_cast<size_t>(img.rows));
    for (int y = 0; y < img.rows; ++y) {
        rows[static_cast<size_t>(y)] = const_cast<png_bytep>(img.ptr(y));  // libpng only reads them
    }
    FILE* file = fopen(path.c_str(), "wb");
    if (file == nullptr) {
        return false;
    }
    const bool written = writeRows(w, file, img, colourType, rows.data());
    const bool closed = fclose(file) == 0;
    if (!written || !closed) {
        (void)unlink(path.c_str());  // a cut-off picture would mislead whoever reads it
        return false;
    }
    return true;
}

}  // namespace dravik::image
