// The EXIF orientation through libexif, and the turn it asks for.
#include <libexif/exif-data.h>

#include <memory>
#include <opencv2/core.hpp>
#include <vector>

#include "decoders.h"

namespace dravik::image::detail {
namespace {

struct ExifDataDeleter {
    void operator()(ExifData* data) const { exif_data_unref(data); }
};

}  // namespace

int exifOrientation(const uint8_t* tiff, size_t size) {
    std::unique_ptr<ExifData, ExifDataDeleter> data(exif_data_new());
    if (data == nullptr) {
        return 0;
    }
    // Read what the file holds: without this option libexif would add the
    // entries the standard requires, with default values, and fix others.
    exif_data_unset_option(data.get(), EXIF_DATA_OPTION_FOLLOW_SPECIFICATION);
    std::vector<uint8_t> block = {'E', 'x', 'i', 'f', 0, 0};
    block.insert(block.end(), tiff, tiff + size);
    exif_data_load_data(data.get(), block.data(), static_cast<unsigned>(block.size()));
    ExifEntry* entry = exif_content_get_entry(data->ifd[EXIF_IFD_0], EXIF_TAG_ORIENTATION);
    if (entry == nullptr || entry->data == nullptr || entry->size < 2) {
        return 0;
    }
    const int orientation = exif_get_short(entry->data, exif_data_get_byte_order(data.get()));
    return orientation >= 1 && orientation <= 8 ? orientation : 0;
}

// 1: as stored; 2: mirrored; 3: turned half a turn; 4: upside down;
// 5 .. 8: the transposed picture, then flipped as 1 .. 4.
void applyOrientation(int orientation, cv::Mat& img) {
    constexpr int kNoFlip = 2;
    struct Turn {
        bool transpose;
        int flipCode;  // cv::flip's: 1 about the vertical axis, 0 horizontal, -1 both
    };
    static const Turn kTurns[] = {
        {false, kNoFlip}, {false, 1}, {false, -1}, {false, 0},
        {true, kNoFlip},  {true, 1},  {true, -1},  {true, 0},
    };
    if (orientation < 1 || orientation > 8) {
        return;
    }
    const Turn& turn = kTurns[orientation - 1];
    if (turn.transpose) {
        cv::transpose(img, img);
    }
    if (turn.flipCode != kNoFlip) {
        cv::flip(img, img, turn.flipCode);
    }
}

}  // namespace dravik::image::detail
