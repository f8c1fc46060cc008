#include "dravik_image/image_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstring>

#include "decoders.h"

namespace dravik::image {
namespace {

// The image library's default bound, until someone sets one.
std::atomic<uint64_t> gPixelLimit{uint64_t{1} << 30};

constexpr uint8_t kPngSignature[] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
constexpr uint8_t kJpegSignature[] = {0xff, 0xd8, 0xff};

// A file opened for decoding: a regular file only, opened without blocking,
// so that a FIFO or a device under an image's name cannot hold the caller.
class ImageStream {
public:
    explicit ImageStream(const std::string& path) {
        const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        if (fd < 0) {
            return;
        }
        struct stat st {};
        if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
            close(fd);
            return;
        }
        file_ = fdopen(fd, "rb");
        if (file_ == nullptr) {
            close(fd);
        }
    }
    ~ImageStream() {
        if (file_ != nullptr) {
            (void)fclose(file_);  // read only: nothing to lose
        }
    }
    ImageStream(const ImageStream&) = delete;
    ImageStream& operator=(const ImageStream&) = delete;

    FILE* file() const { return file_; }

    // The format its first bytes name; the stream is left at its start.
    Format format() const {
        if (file_ == nullptr) {
            return Format::kUnreadable;
        }
        uint8_t head[sizeof(kPngSignature)] = {};
        const size_t got = fread(head, 1, sizeof(head), file_);
        rewind(file_);
        if (got == sizeof(kPngSignature) &&
            std::memcmp(head, kPngSignature, sizeof(kPngSignature)) == 0) {
            return Format::kPng;
        }
        if (got >= sizeof(kJpegSignature) &&
            std::memcmp(head, kJpegSignature, sizeof(kJpegSignature)) == 0) {
            return Format::kJpeg;
        }
        // An empty file is no image in any format: the module is not loaded for it.
        return got == 0 ? Format::kUnreadable : Format::kOther;
    }

private:
    FILE* file_ = nullptr;
};

}  // namespace

namespace detail {

bool sizeAllowed(uint64_t width, uint64_t height) {
    return width > 0 && height > 0 && width <= kMaxSide && height <= kMaxSide &&
           width * height <= gPixelLimit.load();
}

}  // namespace detail

bool setPixelLimit(uint64_t maxPixels) {
    gPixelLimit = maxPixels;
    return detail::setOtherFormatsPixelLimit(maxPixels);
}

uint64_t pixelLimit() {
    return gPixelLimit.load();
}

Format sniffFormat(const std::string& path) {
    return ImageStream(path).format();
}

cv::Mat readImage(const std::string& path, ReadMode mode) {
    ImageStream stream(path);
    switch (stream.format()) {
        case Format::kPng:
            return detail::readPng(stream.file(), mode);
        case Format::kJpeg: {
            bool otherDecoder = false;
            cv::Mat img = detail::readJpeg(stream.file(), mode, otherDecoder);
            return otherDecoder ? detail::readOther(path, mode) : img;
        }
        case Format::kOther:
            return detail::readOther(path, mode);
        case Format::kUnreadable:
            break;
    }
    return cv::Mat();
}

}  // namespace dravik::image
