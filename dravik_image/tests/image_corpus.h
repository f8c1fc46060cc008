#pragma once

#include <cstdint>
#include <string>
#include <vector>

// A corpus of PNG and JPEG files (and a few of other formats) written with
// libpng, libjpeg-turbo and libexif themselves, to decode through both paths
// of dravik_image: its own decoders and cv::imread. It covers the layouts a
// file can declare (every PNG colour type at every depth, interlaced or not,
// transparency, colour chunks, text; JPEG baseline, progressive and
// arithmetic, grey, colour and four-component, every common subsampling,
// restart markers), the EXIF orientations in both formats, and damaged files:
// cut short, with flipped bytes, with broken checksums, with a header that
// declares too many pixels. The content is the same every time it is written.
namespace dravik::image::corpus {

// The pixel bound under which the corpus is meant to be read. Every image in it
// declares at most this many pixels, except those tagged "over-bound":
// well-formed ones with one pixel column too many, and damaged ones whose
// headers declare far more. Those tagged "at-bound" are exactly this many.
constexpr uint64_t kPixelBound = 65536;

// What every decoder should make of a file, under kPixelBound.
enum class Outcome {
    kDecoded,  // a well-formed image: read by any decoder of its format
    kRefused,  // no image can be read from it
    kEither,   // damaged, where how much is recovered is the decoder's choice
};

struct CorpusFile {
    std::string name;               // inside the corpus directory
    std::vector<std::string> tags;  // what it covers, see writeImageCorpus
    Outcome outcome = Outcome::kDecoded;

    bool has(const std::string& tag) const;
    // The tags as one line, separated by spaces.
    std::string describe() const;
};

// Writes every file of the corpus into `dir` (which must exist), replacing
// files of the same names, and returns them in the order written. Throws
// std::runtime_error when a file cannot be made or written.
//
// Tags: the format ("png", "jpeg", "bmp", "pnm", "unknown"); for PNG
// "type=<colour type>", "depth=<bits>", "adam7", "trns", "trns-partial",
// "gama", "srgb", "chrm", "iccp", "text", "ancillary", "exif",
// "exif-after-data"; for JPEG "baseline", "progressive", "arithmetic",
// "grey", "colour", "rgb", "cmyk", "ycck", "two-components",
// "sampling=<J:a:b>", "restart", "optimized", "exif", "xmp";
// "orientation=<0..9>" where the EXIF block (libexif's own) holds that
// orientation and is the one a reader takes; "exif-odd" for an EXIF block
// that is damaged or outside the standard; "misnamed" for a file whose name
// says another format; and for damage "truncated" with "cut=<where>"
// ("header", "data", "before-end", "last-byte"), "corrupt", "over-bound",
// "at-bound", "empty".
std::vector<CorpusFile> writeImageCorpus(const std::string& dir);

}  // namespace dravik::image::corpus
