// readImage against cv::imread over the image corpus (image_corpus.h): for
// every file and both modes, the same bytes, or a refusal from both. Also that
// the corpus holds what it says it does, read by cv::imread, and that the
// pixel bound refuses the same files in both.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <initializer_list>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <ostream>
#include <string>
#include <vector>

#include "dravik_image/image_file.h"
#include "dravik_test_support/temp_dir.h"
#include "image_corpus.h"

namespace {

using dravik::image::ReadMode;
using dravik::image::corpus::CorpusFile;
using dravik::image::corpus::kPixelBound;
using dravik::image::corpus::Outcome;

constexpr char kBoundVariable[] = "OPENCV_IO_MAX_IMAGE_PIXELS";

// Both decoders take the bound before the first decode: the image library's
// codecs read the variable (set in this test's environment) once, as they are
// loaded; readImage's own decoders are told here.
class PixelBound : public ::testing::Environment {
public:
    void SetUp() override {
        const char* value = std::getenv(kBoundVariable);
        if (value != nullptr) {
            // False here: this program links the codecs, whose bound is the variable's.
            (void)dravik::image::setPixelLimit(std::strtoull(value, nullptr, 10));
        }
    }
};

[[maybe_unused]] ::testing::Environment* const kPixelBoundEnvironment =
    ::testing::AddGlobalTestEnvironment(new PixelBound);

struct Corpus {
    dravik::testsupport::TempDir dir{"dravik_image_corpus_"};
    std::vector<CorpusFile> files = dravik::image::corpus::writeImageCorpus(dir.path());

    std::string path(const CorpusFile& f) const { return dir.file(f.name); }
};

// Written once per process.
const Corpus& corpus() {
    static const Corpus written;
    return written;
}

struct Mode {
    ReadMode mode;
    int flags;
    const char* name;
};

const Mode kModes[] = {
    {ReadMode::kColour, cv::IMREAD_COLOR, "colour"},
    {ReadMode::kAsStored, cv::IMREAD_UNCHANGED, "as_stored"},
};

// cv::imread throws for an image over the bound: a refusal all the same.
cv::Mat referenceRead(const std::string& path, int flags) {
    try {
        return cv::imread(path, flags);
    } catch (const cv::Exception&) {
        return cv::Mat();
    }
}

std::string describe(const cv::Mat& m) {
    if (m.empty()) {
        return "refused";
    }
    return std::to_string(m.cols) + "x" + std::to_string(m.rows) + " " + cv::typeToString(m.type());
}

// Sample `byte` of row `y`, named by pixel and channel, with its value in each.
std::string sampleAt(const cv::Mat& a, const cv::Mat& b, int y, size_t byte) {
    const size_t x = byte / a.elemSize();
    const size_t channel = byte % a.elemSize() / a.elemSize1();
    const size_t first = byte - byte % a.elemSize1();
    const auto value = [&](const cv::Mat& m) -> unsigned {
        const uint8_t* p = m.ptr(y) + first;
        return a.elemSize1() == 2 ? *reinterpret_cast<const uint16_t*>(p) : *p;
    };
    return "x=" + std::to_string(x) + " y=" + std::to_string(y) + " channel " +
           std::to_string(channel) + ": " + std::to_string(value(a)) + " against " +
           std::to_string(value(b));
}

// Empty when `lean` and `reference` are the same matrix, byte for byte, or
// both refusals; otherwise what differs.
std::string difference(const cv::Mat& lean, const cv::Mat& reference) {
    if (lean.empty() && reference.empty()) {
        return "";
    }
    if (lean.empty() || reference.empty() || lean.type() != reference.type() ||
        lean.size() != reference.size()) {
        return "readImage " + describe(lean) + ", cv::imread " + describe(reference);
    }
    const size_t rowBytes = lean.cols * lean.elemSize();
    size_t differing = 0;
    std::string first;
    for (int y = 0; y < lean.rows; ++y) {
        for (size_t i = 0; i < rowBytes; ++i) {
            if (lean.ptr(y)[i] != reference.ptr(y)[i] && differing++ == 0) {
                first = sampleAt(lean, reference, y, i);
            }
        }
    }
    if (differing == 0) {
        return "";
    }
    return std::to_string(differing) + " of " + std::to_string(rowBytes * lean.rows) +
           " bytes differ in " + describe(lean) + ", the first at " + first +
           " (readImage against cv::imread)";
}

// The files are compared in groups, so that a failure names a group.
std::string groupOf(const CorpusFile& f) {
    if (f.has("over-bound") || f.has("at-bound")) {
        return "bound";
    }
    if (!f.has("png") && !f.has("jpeg")) {
        return "other";
    }
    const bool damaged = f.outcome != Outcome::kDecoded || f.has("corrupt");
    return std::string(f.has("png") ? "png" : "jpeg") + (damaged ? "_damaged" : "");
}

struct Case {
    const char* group;
    Mode mode;
};

// What ctest shows of each case.
void PrintTo(const Case& c, std::ostream* os) {
    *os << c.group << ", " << c.mode.name;
}

std::vector<Case> allCases() {
    std::vector<Case> cases;
    for (const char* group : {"png", "png_damaged", "jpeg", "jpeg_damaged", "bound", "other"}) {
        for (const Mode& mode : kModes) {
            cases.push_back({group, mode});
        }
    }
    return cases;
}

// Files whose orientation entry breaks the EXIF rules (Orientation is one
// SHORT in IFD 0): cv::imread's own EXIF reader takes the first two bytes of
// the entry's value field, whatever its type or count, and finds IFD 0 past
// 64 KiB; libexif, which the daemon reads EXIF with, does neither, so the
// daemon shows these pictures as stored. Pinned here: the daemon's picture is
// cv::imread's with the orientation ignored, and cv::imread's is turned.
const char* const kMalformedOrientation[] = {
    "png_t2_d8_exif_orientation_byte_6.png",         // BYTE, not SHORT
    "jpeg_exif_orientation_byte_6.jpg",              //
    "png_t2_d8_exif_orientation_count_0.png",        // a SHORT with no value
    "jpeg_exif_orientation_count_0.jpg",             //
    "png_t2_d8_exif_orientation_rational_at_6.png",  // RATIONAL: the field is an offset
    "jpeg_exif_orientation_rational_at_6.jpg",       //
    "png_t2_d8_exif_ifd_past_64k_6.png",             // IFD 0 beyond libexif's 64 KiB
};

bool hasMalformedOrientation(const CorpusFile& f) {
    for (const char* name : kMalformedOrientation) {
        if (f.name == name) {
            return true;
        }
    }
    return false;
}

// For a colour read of such a file: empty when the daemon's picture is the
// unturned one and cv::imread's the turned one, else what is not so.
std::string malformedOrientationDifference(const std::string& path, const cv::Mat& lean,
                                           const cv::Mat& reference) {
    const cv::Mat unturned = referenceRead(path, cv::IMREAD_COLOR | cv::IMREAD_IGNORE_ORIENTATION);
    const std::string asStored = difference(lean, unturned);
    if (!asStored.empty()) {
        return "not the picture as stored: " + asStored;
    }
    if (difference(lean, reference).empty()) {
        return "cv::imread no longer turns it: take it off the list of malformed orientations";
    }
    return "";
}

class CorpusEquality : public ::testing::TestWithParam<Case> {};

TEST(CorpusEquality, every_malformed_orientation_named_is_in_the_corpus) {
    for (const char* name : kMalformedOrientation) {
        bool found = false;
        for (const CorpusFile& f : corpus().files) {
            found = found || f.name == name;
        }
        EXPECT_TRUE(found) << name;
    }
}

TEST_P(CorpusEquality, every_corpus_file_decodes_as_imread_does) {
    const Case& c = GetParam();
    int compared = 0;
    for (const CorpusFile& f : corpus().files) {
        if (groupOf(f) != c.group) {
            continue;
        }
        ++compared;
        const std::string path = corpus().path(f);
        const cv::Mat lean = dravik::image::readImage(path, c.mode.mode);
        const cv::Mat reference = referenceRead(path, c.mode.flags);
        const std::string diff = c.mode.mode == ReadMode::kColour && hasMalformedOrientation(f)
                                     ? malformedOrientationDifference(path, lean, reference)
                                     : difference(lean, reference);
        EXPECT_TRUE(diff.empty()) << f.name << " read " << c.mode.name << ": " << diff << "\n  ("
                                  << f.describe() << ")";
    }
    EXPECT_GT(compared, 0);
}

INSTANTIATE_TEST_SUITE_P(ImageCorpus, CorpusEquality, ::testing::ValuesIn(allCases()),
                         [](const ::testing::TestParamInfo<Case>& info) {
                             return std::string(info.param.group) + "_" + info.param.mode.name;
                         });

// How many files have every one of `tags`; only intact ones when `intact`.
int countFiles(const std::vector<std::string>& tags, bool intact) {
    int count = 0;
    for (const CorpusFile& f : corpus().files) {
        bool all = !intact || (f.outcome == Outcome::kDecoded && !f.has("corrupt"));
        for (const std::string& tag : tags) {
            all = all && f.has(tag);
        }
        count += all ? 1 : 0;
    }
    return count;
}

struct Need {
    std::vector<std::string> tags;
    int atLeast;
    bool intact;
};

// One need per tag of `last`: `common` and that tag.
void needEach(std::vector<Need>& needs, const std::vector<std::string>& common,
              std::initializer_list<const char*> last, int atLeast, bool intact) {
    for (const char* tag : last) {
        std::vector<std::string> tags = common;
        tags.emplace_back(tag);
        needs.push_back({tags, atLeast, intact});
    }
}

// What the corpus must hold: per PNG layout, per JPEG coding, and per format
// its orientations and kinds of damage.
std::vector<Need> corpusNeeds() {
    std::vector<Need> needs;
    const std::pair<int, std::vector<int>> kDepths[] = {
        {0, {1, 2, 4, 8, 16}}, {2, {8, 16}}, {3, {1, 2, 4, 8}}, {4, {8, 16}}, {6, {8, 16}}};
    for (const auto& [type, depths] : kDepths) {
        for (int depth : depths) {
            const std::string t = "type=" + std::to_string(type);
            const std::string d = "depth=" + std::to_string(depth);
            needs.push_back({{"png", t, d}, 2, true});
            needs.push_back({{"png", t, d, "adam7"}, 1, true});
            if (type == 3) {
                needs.push_back({{"png", t, d, "trns"}, 2, true});
                needs.push_back({{"png", t, d, "trns-partial"}, 1, true});
            }
        }
    }
    needEach(needs, {"png"},
             {"gama", "srgb", "chrm", "iccp", "text", "ancillary", "exif-after-data", "exif-odd"},
             1, true);
    needEach(needs, {"jpeg"},
             {"baseline", "progressive", "arithmetic", "grey", "colour", "rgb", "cmyk", "ycck",
              "sampling=4:4:4", "sampling=4:2:2", "sampling=4:2:0", "sampling=4:4:0",
              "sampling=4:1:1", "restart", "optimized", "xmp", "exif-odd"},
             1, true);
    needs.insert(needs.end(), {{{"png", "type=0", "trns"}, 5, true},
                               {{"png", "type=2", "trns"}, 2, true},
                               {{"jpeg", "progressive", "arithmetic"}, 1, true},
                               {{"jpeg", "progressive", "restart"}, 1, true}});
    for (const char* format : {"png", "jpeg"}) {
        for (int o = 0; o <= 9; ++o) {
            needs.push_back({{format, "exif", "orientation=" + std::to_string(o)}, 1, true});
        }
        needEach(needs, {format, "truncated"},
                 {"cut=header", "cut=data", "cut=before-end", "cut=last-byte"}, 3, false);
        needs.push_back({{format, "corrupt"}, 8, false});
        needs.push_back({{format, "over-bound"}, 2, false});
        needs.push_back({{format, "at-bound"}, 1, true});
        needs.push_back({{format, "empty"}, 1, false});
        needs.push_back({{format, "misnamed"}, 1, true});
    }
    for (const char* format : {"bmp", "pnm"}) {
        needs.push_back({{format}, 3, true});
    }
    needs.push_back({{"unknown"}, 2, false});
    needs.push_back({{"empty"}, 3, false});
    return needs;
}

TEST(ImageCorpus, the_corpus_covers_every_layout_coding_orientation_and_damage) {
    for (const Need& need : corpusNeeds()) {
        std::string tags;
        for (const std::string& tag : need.tags) {
            tags += " " + tag;
        }
        EXPECT_GE(countFiles(need.tags, need.intact), need.atLeast)
            << (need.intact ? "intact " : "") << "files with" << tags;
    }
    // The eight orientations proper, in both formats.
    for (const char* format : {"png", "jpeg"}) {
        int orientations = 0;
        for (int o = 1; o <= 8; ++o) {
            orientations += countFiles({format, "orientation=" + std::to_string(o)}, true) > 0;
        }
        EXPECT_EQ(orientations, 8) << format;
    }
}

// `m` turned as EXIF orientation `o` asks, through other calls than readImage
// makes, to check the corpus with.
cv::Mat oriented(const cv::Mat& m, int o) {
    cv::Mat out = m.clone();
    switch (o) {
        case 2:
            cv::flip(m, out, 1);
            break;
        case 3:
            cv::rotate(m, out, cv::ROTATE_180);
            break;
        case 4:
            cv::flip(m, out, 0);
            break;
        case 5:
            out = m.t();
            break;
        case 6:
            cv::rotate(m, out, cv::ROTATE_90_CLOCKWISE);
            break;
        case 7:
            cv::rotate(cv::Mat(m.t()), out, cv::ROTATE_180);
            break;
        case 8:
            cv::rotate(m, out, cv::ROTATE_90_COUNTERCLOCKWISE);
            break;
        default:
            break;
    }
    return out;
}

int taggedOrientation(const CorpusFile& f) {
    for (int o = 0; o <= 9; ++o) {
        if (f.has("orientation=" + std::to_string(o))) {
            return o;
        }
    }
    return -1;
}

// The reference decoder reads every intact file and refuses what no decoder
// can read; a colour read of a file with an orientation is its read as stored,
// turned as the orientation says (where both are 8-bit BGR).
TEST(ImageCorpus, the_reference_decoder_reads_the_corpus_as_it_describes) {
    for (const CorpusFile& f : corpus().files) {
        const std::string path = corpus().path(f);
        const cv::Mat colour = referenceRead(path, cv::IMREAD_COLOR);
        const cv::Mat stored = referenceRead(path, cv::IMREAD_UNCHANGED);
        if (f.outcome == Outcome::kDecoded) {
            EXPECT_FALSE(colour.empty() || stored.empty()) << f.name;
        } else if (f.outcome == Outcome::kRefused) {
            EXPECT_TRUE(colour.empty() && stored.empty()) << f.name;
        }
        const int o = taggedOrientation(f);
        if (o >= 0 && !colour.empty() && stored.type() == CV_8UC3) {
            EXPECT_EQ(difference(colour, oriented(stored, o)), "")
                << f.name << ": the colour read is not turned as orientation " << o;
        }
    }
}

TEST(ImageCorpus, the_pixel_bound_refuses_the_same_corpus_files_in_both_decoders) {
    const char* value = std::getenv(kBoundVariable);
    ASSERT_NE(value, nullptr) << kBoundVariable << " is set in this test's environment";
    ASSERT_EQ(std::string(value), std::to_string(kPixelBound));
    EXPECT_EQ(dravik::image::pixelLimit(), kPixelBound);
    int over = 0;
    int at = 0;
    for (const CorpusFile& f : corpus().files) {
        const std::string path = corpus().path(f);
        for (const Mode& mode : kModes) {
            const cv::Mat lean = dravik::image::readImage(path, mode.mode);
            const cv::Mat reference = referenceRead(path, mode.flags);
            if (f.has("over-bound")) {
                EXPECT_TRUE(lean.empty()) << f.name << " read " << mode.name;
                EXPECT_TRUE(reference.empty()) << f.name << " read " << mode.name;
            } else if (f.has("at-bound")) {
                EXPECT_EQ(lean.total(), kPixelBound) << f.name << " read " << mode.name;
                EXPECT_EQ(reference.total(), kPixelBound) << f.name << " read " << mode.name;
            }
        }
        over += f.has("over-bound") ? 1 : 0;
        at += f.has("at-bound") ? 1 : 0;
    }
    EXPECT_GE(over, 4);
    EXPECT_GE(at, 2);
}

TEST(ImageCorpus, the_corpus_is_the_same_every_time_it_is_written) {
    const dravik::testsupport::TempDir again("dravik_image_corpus_");
    const std::vector<CorpusFile> files = dravik::image::corpus::writeImageCorpus(again.path());
    ASSERT_EQ(files.size(), corpus().files.size());
    for (size_t i = 0; i < files.size(); ++i) {
        const std::string& name = corpus().files[i].name;
        EXPECT_EQ(files[i].name, name);
        const std::string bytes = corpus().dir.read(name);
        EXPECT_TRUE(bytes == again.read(name)) << name;
        EXPECT_EQ(bytes.empty(), name == "empty.png") << name;
    }
}

}  // namespace
