// JPEG through libjpeg-turbo, as the image library's own JPEG decoder asks
// for it: the stdio source, the APP1 segments kept for the EXIF orientation,
// colour straight into BGR, grey into one channel.
// jpeglib.h needs FILE and size_t declared before it.
#include <csetjmp>
#include <cstddef>
#include <cstdio>

#include <jpeglib.h>

#include "decoders.h"

namespace dravik::image::detail {
namespace {

constexpr int kApp1 = JPEG_APP0 + 1;

struct ErrorManager {
    jpeg_error_mgr pub;  // first: libjpeg sees only this part
    jmp_buf jump;
};

// A fatal error jumps back to the caller's setjmp.
void onError(j_common_ptr cinfo) {
    longjmp(reinterpret_cast<ErrorManager*>(cinfo->err)->jump, 1);
}

// Warnings (a file cut short, data after the end) are counted by libjpeg and
// decoding goes on, as there; they are not printed.
void onMessage(j_common_ptr) {}

struct JpegRead {
    jpeg_decompress_struct cinfo{};
    ErrorManager errors{};
    bool created = false;

    JpegRead() = default;
    JpegRead(const JpegRead&) = delete;
    JpegRead& operator=(const JpegRead&) = delete;
    ~JpegRead() {
        if (created) {
            jpeg_destroy_decompress(&cinfo);
        }
    }
};

bool readHeader(JpegRead& r, FILE* file) {
    r.cinfo.err = jpeg_std_error(&r.errors.pub);
    r.errors.pub.error_exit = onError;
    r.errors.pub.output_message = onMessage;
    if (setjmp(r.errors.jump) != 0) {
        return false;
    }
    jpeg_create_decompress(&r.cinfo);
    r.created = true;
    jpeg_stdio_src(&r.cinfo, file);
    jpeg_save_markers(&r.cinfo, kApp1, 0xffff);
    (void)jpeg_read_header(&r.cinfo, TRUE);  // with TRUE it returns only with an image
    r.cinfo.scale_num = 1;
    r.cinfo.scale_denom = 1;
    jpeg_calc_output_dimensions(&r.cinfo);
    return true;
}

// The first APP1 segment is taken for the EXIF block, whatever it holds.
int jpegOrientation(const jpeg_decompress_struct& cinfo) {
    constexpr unsigned kExifHeader = 6;  // "Exif\0\0" before the TIFF structure
    for (jpeg_saved_marker_ptr m = cinfo.marker_list; m != nullptr; m = m->next) {
        if (m->marker == kApp1) {
            return m->data_length > kExifHeader
                       ? exifOrientation(m->data + kExifHeader, m->data_length - kExifHeader)
                       : 0;
        }
    }
    return 0;
}

// Decodes every row into `img`. A failure in the closing step after the last
// row does not undo the picture, as there.
bool readRows(JpegRead& r, cv::Mat& img) {
    volatile bool rowsRead = false;
    if (setjmp(r.errors.jump) != 0) {
        return rowsRead;
    }
    const bool colour = img.channels() > 1;
    r.cinfo.out_color_space = colour ? JCS_EXT_BGR : JCS_GRAYSCALE;
    r.cinfo.out_color_components = colour ? 3 : 1;
    (void)jpeg_start_decompress(&r.cinfo);  // FALSE only for a suspending source
    if (r.cinfo.output_width != static_cast<JDIMENSION>(img.cols) ||
        r.cinfo.output_components != img.channels()) {
        return false;
    }
    for (int y = 0; y < img.rows; ++y) {
        JSAMPROW row = img.ptr(y);
        (void)jpeg_read_scanlines(&r.cinfo, &row, 1);  // past the data, libjpeg fills in grey
    }
    rowsRead = true;
    (void)jpeg_finish_decompress(&r.cinfo);
    return true;
}

}  // namespace

cv::Mat readJpeg(FILE* file, ReadMode mode, bool& otherDecoder) {
    JpegRead r;
    if (!readHeader(r, file)) {
        return cv::Mat();
    }
    if (r.cinfo.num_components == 4) {
        otherDecoder = true;
        return cv::Mat();
    }
    if (!sizeAllowed(r.cinfo.output_width, r.cinfo.output_height)) {
        return cv::Mat();
    }
    const bool colour = mode == ReadMode::kColour || r.cinfo.num_components > 1;
    cv::Mat img(static_cast<int>(r.cinfo.output_height), static_cast<int>(r.cinfo.output_width),
                colour ? CV_8UC3 : CV_8UC1);
    // Read before decoding starts: only the segments ahead of the first scan count.
    const int orientation = mode == ReadMode::kColour ? jpegOrientation(r.cinfo) : 0;
    if (!readRows(r, img)) {
        return cv::Mat();
    }
    applyOrientation(orientation, img);
    return img;
}

}  // namespace dravik::image::detail
