// The image corpus. PNG is written through libpng, JPEG through libjpeg-turbo,
// EXIF blocks through libexif, BMP and PNM by hand. Damaged files are copies of
// good ones with their bytes edited: cut, flipped, or patched in a header, with
// the PNG chunk checksum recomputed (zlib's crc32) wherever the damage is meant
// to lie behind it rather than in it.
#include "image_corpus.h"

#include <libexif/exif-data.h>
#include <png.h>
#include <zlib.h>

#include <csetjmp>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <set>
#include <stdexcept>
#include <utility>

// jpeglib.h needs FILE and size_t declared before it.
#include <jpeglib.h>

namespace dravik::image::corpus {

bool CorpusFile::has(const std::string& tag) const {
    for (const std::string& t : tags) {
        if (t == tag) {
            return true;
        }
    }
    return false;
}

std::string CorpusFile::describe() const {
    std::string line;
    for (const std::string& t : tags) {
        line += line.empty() ? t : " " + t;
    }
    return line;
}

namespace {

using Bytes = std::string;
using Tags = std::vector<std::string>;

// An odd size: rows of odd byte counts, Adam7 passes of unequal sizes, and
// partial blocks at the right and bottom edges of every JPEG subsampling.
constexpr int kWidth = 37;
constexpr int kHeight = 23;

[[noreturn]] void fail(const std::string& what) {
    throw std::runtime_error("image corpus: " + what);
}

// ---- Bytes -----------------------------------------------------------------

uint32_t get16be(const Bytes& b, size_t at) {
    return static_cast<uint32_t>(static_cast<uint8_t>(b.at(at)) << 8 |
                                 static_cast<uint8_t>(b.at(at + 1)));
}

uint32_t get32be(const Bytes& b, size_t at) {
    return get16be(b, at) << 16 | get16be(b, at + 2);
}

void put16be(Bytes& b, size_t at, uint32_t v) {
    b.at(at) = static_cast<char>(v >> 8);
    b.at(at + 1) = static_cast<char>(v);
}

void put32be(Bytes& b, size_t at, uint32_t v) {
    put16be(b, at, v >> 16);
    put16be(b, at + 2, v & 0xffff);
}

void append16be(Bytes& b, uint32_t v) {
    b.append(2, '\0');
    put16be(b, b.size() - 2, v);
}

void append32be(Bytes& b, uint32_t v) {
    b.append(4, '\0');
    put32be(b, b.size() - 4, v);
}

// `v` alone as big-endian bytes.
Bytes be16(uint32_t v) {
    Bytes b;
    append16be(b, v);
    return b;
}

Bytes be32(uint32_t v) {
    return be16(v >> 16) + be16(v & 0xffff);
}

void append16le(Bytes& b, uint32_t v) {
    b.push_back(static_cast<char>(v));
    b.push_back(static_cast<char>(v >> 8));
}

void append32le(Bytes& b, uint32_t v) {
    append16le(b, v & 0xffff);
    append16le(b, v >> 16);
}

void flipByte(Bytes& b, size_t at, uint8_t mask) {
    b.at(at) = static_cast<char>(static_cast<uint8_t>(b.at(at)) ^ mask);
}

// Sample `c` of the pixel at (x, y), from 0 to maxValue: every channel has
// slopes of its own, and 16-bit samples vary in both bytes, so that swapped
// channels, rows or bytes show.
uint32_t sample(int x, int y, int c, uint32_t maxValue) {
    const auto base =
        static_cast<uint32_t>(x * (5 + 4 * c) + y * (9 - 2 * c) + (x * y) / (3 + c) + 50 * c);
    const uint32_t spread = maxValue > 255 ? 773 + 2 * static_cast<uint32_t>(c) : 1;
    return base * spread % (maxValue + 1);
}

// ---- PNG chunks ------------------------------------------------------------

constexpr size_t kPngSignatureSize = 8;

struct Chunk {
    size_t offset;  // of its length field
    uint32_t length;
    std::string type;
    size_t end() const { return offset + 12 + length; }
    size_t data() const { return offset + 8; }
};

std::vector<Chunk> pngChunks(const Bytes& png) {
    std::vector<Chunk> chunks;
    for (size_t at = kPngSignatureSize; at + 12 <= png.size();) {
        const Chunk c{at, get32be(png, at), png.substr(at + 4, 4)};
        if (c.end() > png.size()) {
            fail("a chunk runs past the end of the file");
        }
        chunks.push_back(c);
        at = c.end();
    }
    return chunks;
}

// The `nth` chunk of `type` (from 0).
Chunk findChunk(const Bytes& png, const std::string& type, int nth = 0) {
    for (const Chunk& c : pngChunks(png)) {
        if (c.type == type && nth-- == 0) {
            return c;
        }
    }
    fail("no " + type + " chunk");
}

int countChunks(const Bytes& png, const std::string& type) {
    int count = 0;
    for (const Chunk& c : pngChunks(png)) {
        count += c.type == type ? 1 : 0;
    }
    return count;
}

// The CRC of a chunk covers its type and its data.
uint32_t crcOf(const char* typeAndData, size_t size) {
    return static_cast<uint32_t>(crc32(crc32(0, nullptr, 0),
                                       reinterpret_cast<const Bytef*>(typeAndData),
                                       static_cast<uInt>(size)));
}

void fixCrc(Bytes& png, const Chunk& c) {
    put32be(png, c.data() + c.length, crcOf(png.data() + c.offset + 4, c.length + 4));
}

Bytes makeChunk(const std::string& type, const Bytes& data) {
    Bytes chunk;
    append32be(chunk, static_cast<uint32_t>(data.size()));
    chunk += type + data;
    append32be(chunk, crcOf(chunk.data() + 4, chunk.size() - 4));
    return chunk;
}

Bytes insertAt(const Bytes& bytes, size_t at, const Bytes& inserted) {
    return bytes.substr(0, at) + inserted + bytes.substr(at);
}

Bytes insertAfterHeader(const Bytes& png, const Bytes& chunk) {
    return insertAt(png, findChunk(png, "IHDR").end(), chunk);
}

Bytes removeChunks(const Bytes& png, const std::string& type) {
    Bytes out = png.substr(0, kPngSignatureSize);
    for (const Chunk& c : pngChunks(png)) {
        if (c.type != type) {
            out += png.substr(c.offset, c.end() - c.offset);
        }
    }
    return out;
}

// Writes `value` at `offset` of the IHDR data and recomputes its CRC.
Bytes patchHeader(Bytes png, size_t offset, const Bytes& value) {
    const Chunk ihdr = findChunk(png, "IHDR");
    png.replace(ihdr.data() + offset, value.size(), value);
    fixCrc(png, ihdr);
    return png;
}

Bytes patchSize(const Bytes& png, uint32_t width, uint32_t height) {
    return patchHeader(png, 0, be32(width) + be32(height));
}

Bytes zlibCompress(const Bytes& data) {
    uLongf size = compressBound(data.size());
    Bytes out(size, '\0');
    if (compress2(reinterpret_cast<Bytef*>(out.data()), &size,
                  reinterpret_cast<const Bytef*>(data.data()), data.size(), 9) != Z_OK) {
        fail("zlib: compress2");
    }
    out.resize(size);
    return out;
}

Bytes iccpChunk(const std::string& name, const Bytes& profile) {
    return makeChunk("iCCP", name + std::string(2, '\0') + zlibCompress(profile));
}

// ---- PNG -------------------------------------------------------------------

struct PngRecipe {
    int width = kWidth;
    int height = kHeight;
    int colourType = PNG_COLOR_TYPE_RGB;
    int depth = 8;
    bool adam7 = false;
    int paletteSize = 0;            // type 3; 0: as many entries as the depth allows
    int transparent = -1;           // type 3: entries with an alpha in tRNS; types 0 and
                                    // 2: 0 or more for a tRNS colour; less: no tRNS
    bool indexPastPalette = false;  // type 3: some pixels name entries past the palette
    size_t idatSize = 0;            // compressed bytes per IDAT; 0: libpng's default
    uint32_t gamma = 0;             // gAMA in 1/100000; 0: none
    bool srgb = false;              // sRGB with its gAMA and cHRM
    bool chrm = false;              // cHRM of other primaries than sRGB's
    Bytes icc;                      // iCCP profile
    bool text = false;              // tEXt, zTXt, iTXt before the data, tEXt after
    bool ancillary = false;         // pHYs, bKGD, sBIT, tIME
    Bytes exif;                     // eXIf: a TIFF structure
    bool exifAfterData = false;
};

int pngChannels(int colourType) {
    switch (colourType) {
        case PNG_COLOR_TYPE_RGB:
            return 3;
        case PNG_COLOR_TYPE_GRAY_ALPHA:
            return 2;
        case PNG_COLOR_TYPE_RGB_ALPHA:
            return 4;
        default:
            return 1;
    }
}

int paletteSize(const PngRecipe& s) {
    return s.paletteSize > 0 ? s.paletteSize : 1 << s.depth;
}

png_color paletteEntry(int i) {
    return {static_cast<png_byte>(i * 67 + 13), static_cast<png_byte>(i * 151 + 101),
            static_cast<png_byte>(255 - i * 29)};
}

// Fully transparent, opaque, then values between.
png_byte paletteAlpha(int i) {
    return i == 0 ? 0 : i == 1 ? 255 : static_cast<png_byte>(i * 97 + 31);
}

uint32_t pngSample(const PngRecipe& s, int x, int y, int c) {
    if (s.colourType != PNG_COLOR_TYPE_PALETTE) {
        return sample(x, y, c, (1u << s.depth) - 1);
    }
    const int entries = s.indexPastPalette ? 1 << s.depth : paletteSize(s);
    return sample(x, y, c, static_cast<uint32_t>(entries - 1));
}

// A row as PNG stores it: samples packed from the high bit, 16-bit big-endian.
Bytes pngRow(const PngRecipe& s, int y) {
    const int channels = pngChannels(s.colourType);
    const size_t bits = static_cast<size_t>(s.width) * channels * s.depth;
    Bytes row((bits + 7) / 8, '\0');
    for (int x = 0; x < s.width; ++x) {
        for (int c = 0; c < channels; ++c) {
            const uint32_t v = pngSample(s, x, y, c);
            const size_t index = static_cast<size_t>(x) * channels + c;
            if (s.depth == 16) {
                put16be(row, 2 * index, v);
            } else {
                const size_t bit = index * s.depth;
                const int shift = 8 - s.depth - static_cast<int>(bit % 8);
                row[bit / 8] = static_cast<char>(static_cast<uint8_t>(row[bit / 8]) | v << shift);
            }
        }
    }
    return row;
}

// Everything libpng is handed, kept alive until the file is written.
struct PngData {
    std::vector<Bytes> rows;
    std::vector<png_bytep> rowPointers;
    std::vector<png_color> palette;
    std::vector<png_byte> alpha;
    png_color_16 transColour{};
    Bytes exif;
    std::vector<std::string> strings;  // keys and texts of the text chunks
    std::vector<png_text> texts;
    std::vector<png_text> endTexts;
    png_color_16 background{};
    png_color_8 significantBits{};
    png_time time{};
    Bytes out;
    std::string error;
};

png_text textChunk(std::vector<std::string>& strings, int compression, size_t key) {
    png_text t{};
    t.compression = compression;
    t.key = strings[key].data();
    t.text = strings[key + 1].data();
    t.text_length =
        compression == PNG_TEXT_COMPRESSION_NONE || compression == PNG_TEXT_COMPRESSION_zTXt
            ? strings[key + 1].size()
            : 0;
    t.itxt_length = t.text_length == 0 ? strings[key + 1].size() : 0;
    if (compression == PNG_ITXT_COMPRESSION_NONE || compression == PNG_ITXT_COMPRESSION_zTXt) {
        t.lang = strings[key + 2].data();
        t.lang_key = strings[key + 3].data();
    }
    return t;
}

void prepareTexts(PngData& d) {
    d.strings = {"Title",   "Test card",     "Comment", std::string(300, 'z'),
                 "Author",  "Testing team",  "en",      "Author (translated)",
                 "Comment", "after the data"};
    d.texts.push_back(textChunk(d.strings, PNG_TEXT_COMPRESSION_NONE, 0));
    d.texts.push_back(textChunk(d.strings, PNG_TEXT_COMPRESSION_zTXt, 2));
    d.texts.push_back(textChunk(d.strings, PNG_ITXT_COMPRESSION_zTXt, 4));
    d.endTexts.push_back(textChunk(d.strings, PNG_TEXT_COMPRESSION_NONE, 8));
}

void preparePngData(const PngRecipe& s, PngData& d) {
    for (int y = 0; y < s.height; ++y) {
        d.rows.push_back(pngRow(s, y));
    }
    for (Bytes& row : d.rows) {
        d.rowPointers.push_back(reinterpret_cast<png_bytep>(row.data()));
    }
    if (s.colourType == PNG_COLOR_TYPE_PALETTE) {
        for (int i = 0; i < paletteSize(s); ++i) {
            d.palette.push_back(paletteEntry(i));
        }
        for (int i = 0; i < s.transparent; ++i) {
            d.alpha.push_back(paletteAlpha(i));
        }
    }
    // The transparent colour is one that occurs: that of the pixel at (5, 3).
    d.transColour.gray = static_cast<png_uint_16>(pngSample(s, 5, 3, 0));
    d.transColour.red = static_cast<png_uint_16>(pngSample(s, 5, 3, 0));
    d.transColour.green = static_cast<png_uint_16>(pngSample(s, 5, 3, 1));
    d.transColour.blue = static_cast<png_uint_16>(pngSample(s, 5, 3, 2));
    d.exif = s.exif;
    if (s.text) {
        prepareTexts(d);
    }
    const auto top = static_cast<png_uint_16>((1u << s.depth) - 1);
    d.background = {0, top, static_cast<png_uint_16>(top / 2), 0,
                    static_cast<png_uint_16>(top / 3)};
    const auto bits = static_cast<png_byte>(s.depth > 8 ? 12 : s.depth == 8 ? 5 : s.depth);
    d.significantBits = {bits, bits, bits, bits, bits};
    d.time = {2024, 2, 29, 12, 34, 56};
}

struct PngWriter {
    png_structp png = nullptr;
    png_infop info = nullptr;
    png_infop endInfo = nullptr;

    PngWriter() = default;
    PngWriter(const PngWriter&) = delete;
    PngWriter& operator=(const PngWriter&) = delete;
    ~PngWriter() {
        if (png != nullptr) {
            png_destroy_info_struct(png, &endInfo);
            png_destroy_write_struct(&png, &info);
        }
    }
};

void onPngError(png_structp png, png_const_charp message) {
    *static_cast<std::string*>(png_get_error_ptr(png)) = message;
    png_longjmp(png, 1);
}

void onPngWarning(png_structp, png_const_charp) {}

void appendPngOutput(png_structp png, png_bytep data, size_t length) {
    static_cast<Bytes*>(png_get_io_ptr(png))->append(reinterpret_cast<const char*>(data), length);
}

void flushNothing(png_structp) {}

void setPngTransparency(const PngWriter& w, const PngRecipe& s, PngData& d) {
    if (s.colourType == PNG_COLOR_TYPE_PALETTE) {
        png_set_PLTE(w.png, w.info, d.palette.data(), static_cast<int>(d.palette.size()));
        if (s.transparent > 0) {
            png_set_tRNS(w.png, w.info, d.alpha.data(), s.transparent, nullptr);
        }
    } else if (s.transparent >= 0) {
        png_set_tRNS(w.png, w.info, nullptr, 0, &d.transColour);
    }
}

void setPngColourChunks(const PngWriter& w, const PngRecipe& s) {
    if (s.srgb) {
        png_set_sRGB_gAMA_and_cHRM(w.png, w.info, PNG_sRGB_INTENT_PERCEPTUAL);
    }
    if (s.gamma != 0) {
        png_set_gAMA_fixed(w.png, w.info, static_cast<png_fixed_point>(s.gamma));
    }
    if (s.chrm) {
        // Wide-gamut primaries with a D65 white point.
        png_set_cHRM_fixed(w.png, w.info, 31270, 32900, 73470, 26530, 11590, 82640, 15660, 1770);
    }
    if (!s.icc.empty()) {
        png_set_iCCP(w.png, w.info, "corpus profile", PNG_COMPRESSION_TYPE_BASE,
                     reinterpret_cast<png_const_bytep>(s.icc.data()),
                     static_cast<png_uint_32>(s.icc.size()));
    }
}

void setPngOtherChunks(const PngWriter& w, const PngRecipe& s, PngData& d) {
    if (!d.texts.empty()) {
        png_set_text(w.png, w.info, d.texts.data(), static_cast<int>(d.texts.size()));
        png_set_text(w.png, w.endInfo, d.endTexts.data(), static_cast<int>(d.endTexts.size()));
    }
    if (s.ancillary) {
        png_set_pHYs(w.png, w.info, 2835, 2835, PNG_RESOLUTION_METER);
        png_set_bKGD(w.png, w.info, &d.background);
        png_set_sBIT(w.png, w.info, &d.significantBits);
        png_set_tIME(w.png, w.info, &d.time);
    }
    if (!d.exif.empty()) {
        png_set_eXIf_1(w.png, s.exifAfterData ? w.endInfo : w.info,
                       static_cast<png_uint_32>(d.exif.size()),
                       reinterpret_cast<png_bytep>(d.exif.data()));
    }
}

// Only plain data lives in this frame, so libpng's jump back skips no
// destructor.
bool writePngStream(const PngWriter& w, const PngRecipe& s, PngData& d) {
    if (setjmp(png_jmpbuf(w.png)) != 0) {
        return false;
    }
    png_set_write_fn(w.png, &d.out, appendPngOutput, flushNothing);
    if (s.idatSize != 0) {
        png_set_compression_buffer_size(w.png, s.idatSize);
    }
    if (s.indexPastPalette) {
        png_set_check_for_invalid_index(w.png, 0);
    }
    png_set_IHDR(w.png, w.info, static_cast<png_uint_32>(s.width),
                 static_cast<png_uint_32>(s.height), s.depth, s.colourType,
                 s.adam7 ? PNG_INTERLACE_ADAM7 : PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_BASE,
                 PNG_FILTER_TYPE_BASE);
    setPngTransparency(w, s, d);
    setPngColourChunks(w, s);
    setPngOtherChunks(w, s, d);
    png_write_info(w.png, w.info);
    png_write_image(w.png, d.rowPointers.data());
    png_write_end(w.png, w.endInfo);
    return true;
}

// What was asked for and libpng may drop without failing (a profile it finds
// invalid, for one) must be there.
void checkChunks(const PngRecipe& s, const Bytes& png) {
    const struct {
        bool wanted;
        const char* type;
    } kWanted[] = {{s.gamma != 0 || s.srgb, "gAMA"},
                   {s.srgb, "sRGB"},
                   {s.chrm || s.srgb, "cHRM"},
                   {!s.icc.empty(), "iCCP"},
                   {s.text, "zTXt"},
                   {s.text, "iTXt"},
                   {s.ancillary, "sBIT"},
                   {!s.exif.empty(), "eXIf"}};
    for (const auto& w : kWanted) {
        if (w.wanted && countChunks(png, w.type) == 0) {
            fail(std::string("libpng left out the ") + w.type + " chunk");
        }
    }
    if (!s.icc.empty() && findChunk(png, "iCCP").length < 92) {
        fail("an iCCP chunk too short for libpng to read back");
    }
}

Bytes encodePng(const PngRecipe& s) {
    PngData d;
    preparePngData(s, d);
    PngWriter w;
    w.png = png_create_write_struct(PNG_LIBPNG_VER_STRING, &d.error, onPngError, onPngWarning);
    if (w.png == nullptr) {
        fail("libpng: no write struct");
    }
    w.info = png_create_info_struct(w.png);
    w.endInfo = png_create_info_struct(w.png);
    if (w.info == nullptr || w.endInfo == nullptr || !writePngStream(w, s, d)) {
        fail("libpng: " + d.error);
    }
    checkChunks(s, d.out);
    return d.out;
}

// ---- ICC profiles ----------------------------------------------------------

// A small profile that libpng takes as valid: a 128-byte header, then a tag
// table of two entries, the media white point and a copyright text. The text
// is of varied characters, so that the profile does not compress to almost
// nothing: libpng's reader refuses an iCCP chunk of under 92 bytes (it takes
// up to 81 for the name before it looks for the compressed data).
Bytes iccProfile(const std::string& colourSpace) {
    Bytes p(128, '\0');
    put32be(p, 8, 0x02100000);      // version 2.1
    p.replace(12, 4, "mntr");       // display device
    p.replace(16, 4, colourSpace);  // "RGB " or "GRAY"
    p.replace(20, 4, "XYZ ");       // connection space
    put16be(p, 24, 2024);           // date and time: 2024-02-29 12:00:00
    put16be(p, 26, 2);
    put16be(p, 28, 29);
    put16be(p, 30, 12);
    p.replace(36, 4, "acsp");
    put32be(p, 68, 0x0000f6d6);  // D50
    put32be(p, 72, 0x00010000);
    put32be(p, 76, 0x0000d32d);
    const uint32_t kTextLength = 8 + 100;
    append32be(p, 2);  // tags
    p += "wtpt";
    append32be(p, 156);
    append32be(p, 20);
    p += "cprt";
    append32be(p, 176);
    append32be(p, kTextLength);
    p += "XYZ ";
    append32be(p, 0);
    append32be(p, 0x0000f6d6);
    append32be(p, 0x00010000);
    append32be(p, 0x0000d32d);
    p += "text";
    append32be(p, 0);
    uint32_t state = 12345;
    for (int i = 0; i < 99; ++i) {
        state = state * 1103515245u + 12345u;
        p.push_back(static_cast<char>('!' + (state >> 16) % 94));
    }
    p.push_back('\0');
    put32be(p, 0, static_cast<uint32_t>(p.size()));
    return p;
}

// ---- EXIF ------------------------------------------------------------------

const Bytes kExifHeader("Exif\0\0", 6);

struct ExifDataUnref {
    void operator()(ExifData* data) const { exif_data_unref(data); }
};
using ExifDataPtr = std::unique_ptr<ExifData, ExifDataUnref>;

// The orientation libexif reads back from an APP1 payload, as stored.
int readBackOrientation(const Bytes& segment) {
    ExifDataPtr data(exif_data_new());
    exif_data_unset_option(data.get(), EXIF_DATA_OPTION_FOLLOW_SPECIFICATION);
    exif_data_load_data(data.get(), reinterpret_cast<const unsigned char*>(segment.data()),
                        static_cast<unsigned>(segment.size()));
    ExifEntry* e = exif_content_get_entry(data->ifd[EXIF_IFD_0], EXIF_TAG_ORIENTATION);
    return e == nullptr ? -1 : exif_get_short(e->data, exif_data_get_byte_order(data.get()));
}

// An EXIF block as a camera writes it, by libexif: the resolution and
// positioning entries the standard asks for, the EXIF sub-directory, and
// `orientation` in IFD 0. It starts with the 6-byte header of a JPEG APP1
// segment.
Bytes exifSegment(int orientation, ExifByteOrder order = EXIF_BYTE_ORDER_INTEL) {
    ExifDataPtr data(exif_data_new());
    if (data == nullptr) {
        fail("libexif: no data");
    }
    exif_data_set_byte_order(data.get(), order);
    exif_data_set_data_type(data.get(), EXIF_DATA_TYPE_COMPRESSED);
    exif_data_fix(data.get());
    ExifContent* ifd0 = data->ifd[EXIF_IFD_0];
    ExifEntry* entry = exif_content_get_entry(ifd0, EXIF_TAG_ORIENTATION);
    if (entry == nullptr) {
        entry = exif_entry_new();
        exif_content_add_entry(ifd0, entry);
        exif_entry_initialize(entry, EXIF_TAG_ORIENTATION);
        exif_entry_unref(entry);  // the directory holds it now
    }
    exif_set_short(entry->data, order, static_cast<ExifShort>(orientation));
    unsigned char* buffer = nullptr;
    unsigned int size = 0;
    exif_data_save_data(data.get(), &buffer, &size);
    if (buffer == nullptr) {
        fail("libexif: nothing saved");
    }
    const Bytes segment(reinterpret_cast<const char*>(buffer), size);
    free(buffer);
    if (segment.compare(0, kExifHeader.size(), kExifHeader) != 0 ||
        readBackOrientation(segment) != orientation) {
        fail("libexif: orientation " + std::to_string(orientation) + " not kept");
    }
    return segment;
}

// The TIFF structure alone, as a PNG eXIf chunk holds it.
Bytes exifTiff(int orientation, ExifByteOrder order = EXIF_BYTE_ORDER_INTEL) {
    return exifSegment(orientation, order).substr(kExifHeader.size());
}

struct IfdEntry {
    uint16_t tag;
    uint16_t type;
    uint32_t count;
    uint32_t value;  // held in the entry; for a type over 4 bytes, its offset
};

constexpr uint16_t kOrientationTag = 0x0112;
constexpr uint16_t kExifIfdTag = 0x8769;
constexpr uint16_t kByte = 1;
constexpr uint16_t kAscii = 2;
constexpr uint16_t kShort = 3;
constexpr uint16_t kLong = 4;
constexpr uint16_t kRational = 5;
constexpr uint16_t kSignedShort = 8;

constexpr IfdEntry kOrientation6{kOrientationTag, kShort, 1, 6};

// One directory: its entry count, its entries (values left-aligned in the
// 4-byte field, as the format keeps them) and the offset of the next one.
Bytes ifdBytes(bool bigEndian, const std::vector<IfdEntry>& entries, uint32_t next) {
    const auto put16 = [bigEndian](Bytes& b, uint32_t v) {
        bigEndian ? append16be(b, v) : append16le(b, v);
    };
    const auto put32 = [bigEndian](Bytes& b, uint32_t v) {
        bigEndian ? append32be(b, v) : append32le(b, v);
    };
    Bytes ifd;
    put16(ifd, static_cast<uint32_t>(entries.size()));
    for (const IfdEntry& e : entries) {
        put16(ifd, e.tag);
        put16(ifd, e.type);
        put32(ifd, e.count);
        if (e.type == kByte || e.type == kAscii) {
            append32be(ifd, e.value << 24);
        } else if (e.type == kShort || e.type == kSignedShort) {
            put16(ifd, e.value);
            put16(ifd, 0);
        } else {
            put32(ifd, e.value);
        }
    }
    put32(ifd, next);
    return ifd;
}

// A TIFF structure made by hand, for what libexif would not write: directories
// in a chain from `firstIfd`.
Bytes handMadeTiff(bool bigEndian, uint32_t firstIfd,
                   const std::vector<std::vector<IfdEntry>>& ifds) {
    Bytes t = bigEndian ? Bytes("MM\0*", 4) : Bytes("II*\0", 4);
    bigEndian ? append32be(t, firstIfd) : append32le(t, firstIfd);
    t.resize(firstIfd, '\0');
    for (size_t i = 0; i < ifds.size(); ++i) {
        const size_t next = t.size() + 2 + 12 * ifds[i].size() + 4;
        t += ifdBytes(bigEndian, ifds[i], i + 1 < ifds.size() ? static_cast<uint32_t>(next) : 0);
    }
    return t;
}

Bytes tiffWithOrientation6() {
    return handMadeTiff(false, 8, {{kOrientation6}});
}

Bytes replaced(Bytes b, size_t at, const Bytes& with) {
    return b.replace(at, with.size(), with);
}

// EXIF structures that are odd, damaged or outside the standard, each with an
// orientation a reader may or may not find.
struct OddExif {
    const char* name;
    Bytes tiff;
    bool pngOnly;  // larger than a JPEG segment holds
};

std::vector<OddExif> oddExifBlocks() {
    const IfdEntry width{0x0100, kShort, 1, kWidth};
    // The orientation in the EXIF sub-directory, where it does not belong.
    const Bytes inExifIfd = handMadeTiff(false, 8, {{{kExifIfdTag, kLong, 1, 26}}}) +
                            ifdBytes(false, {kOrientation6}, 0);
    return {
        {"orientation_long_6", handMadeTiff(false, 8, {{{kOrientationTag, kLong, 1, 6}}}), false},
        {"orientation_long_6_mm", handMadeTiff(true, 8, {{{kOrientationTag, kLong, 1, 6}}}), false},
        {"orientation_byte_6", handMadeTiff(false, 8, {{{kOrientationTag, kByte, 1, 6}}}), false},
        {"orientation_byte_6_mm", handMadeTiff(true, 8, {{{kOrientationTag, kByte, 1, 6}}}), false},
        {"orientation_ascii_6", handMadeTiff(false, 8, {{{kOrientationTag, kAscii, 2, '6'}}}),
         false},
        {"orientation_signed_6", handMadeTiff(false, 8, {{{kOrientationTag, kSignedShort, 1, 6}}}),
         false},
        // A rational whose offset is 6: read as a short in place it says 6,
        // read at its offset it says 8 (the IFD offset's low byte).
        {"orientation_rational_at_6",
         handMadeTiff(false, 8, {{{kOrientationTag, kRational, 1, 6}}}), false},
        {"orientation_count_0", handMadeTiff(false, 8, {{{kOrientationTag, kShort, 0, 6}}}), false},
        {"orientation_count_2", handMadeTiff(false, 8, {{{kOrientationTag, kShort, 2, 6}}}), false},
        {"ifd_after_padding_6", handMadeTiff(true, 24, {{kOrientation6}}), false},
        {"orientation_twice_3_6",
         handMadeTiff(false, 8, {{{kOrientationTag, kShort, 1, 3}, kOrientation6}}), false},
        {"orientation_in_ifd1_only_6", handMadeTiff(false, 8, {{width}, {kOrientation6}}), false},
        {"orientation_in_exif_ifd_6", inExifIfd, false},
        {"cut_after_orientation_6", exifTiff(6).substr(0, 8 + 2 + 12 + 6), false},
        {"ifd_offset_past_end", replaced(tiffWithOrientation6(), 4, Bytes("\xff\0\0\0", 4)), false},
        {"ifd_offset_0", replaced(tiffWithOrientation6(), 4, Bytes(4, '\0')), false},
        {"entry_count_ffff", replaced(tiffWithOrientation6(), 8, "\xff\xff"), false},
        {"tiff_magic_43", replaced(tiffWithOrientation6(), 2, "+"), false},
        {"byte_order_xx", replaced(tiffWithOrientation6(), 0, "XX"), false},
        {"ifd_past_64k_6", handMadeTiff(false, 70000, {{kOrientation6}}), true},
    };
}

// ---- JPEG ------------------------------------------------------------------

// kTwo: two components of no colour space, which no decoder turns into colour.
enum class JpegColour { kGrey, kYCbCr, kRgb, kCmyk, kYcck, kTwo };

struct JpegRecipe {
    int width = kWidth;
    int height = kHeight;
    JpegColour colour = JpegColour::kYCbCr;
    int lumaH = 2;  // sampling factors of luma (and of K in YCCK); chroma is 1x1
    int lumaV = 2;
    bool progressive = false;
    bool arithmetic = false;
    bool optimize = false;
    unsigned restartInterval = 0;  // MCUs
    int restartRows = 0;
    int quality = 85;
    bool forceBaseline = true;  // 8-bit quantisation tables
    bool jfif = true;
    std::vector<Bytes> app1;  // APP1 payloads, in order, after any JFIF segment
};

int jpegComponents(JpegColour colour) {
    switch (colour) {
        case JpegColour::kGrey:
            return 1;
        case JpegColour::kTwo:
            return 2;
        case JpegColour::kCmyk:
        case JpegColour::kYcck:
            return 4;
        default:
            return 3;
    }
}

struct JpegErrors {
    jpeg_error_mgr pub;  // first: libjpeg sees only this part
    jmp_buf jump;
    char message[JMSG_LENGTH_MAX];
};

void onJpegError(j_common_ptr cinfo) {
    auto* errors = reinterpret_cast<JpegErrors*>(cinfo->err);
    (*cinfo->err->format_message)(cinfo, errors->message);
    longjmp(errors->jump, 1);
}

void onJpegMessage(j_common_ptr) {}

struct JpegWriter {
    jpeg_compress_struct cinfo{};
    JpegErrors errors{};
    unsigned char* buffer = nullptr;
    unsigned long size = 0;
    bool created = false;

    JpegWriter() = default;
    JpegWriter(const JpegWriter&) = delete;
    JpegWriter& operator=(const JpegWriter&) = delete;
    ~JpegWriter() {
        if (created) {
            jpeg_destroy_compress(&cinfo);
        }
        free(buffer);
    }
};

void describeJpegInput(jpeg_compress_struct& cinfo, const JpegRecipe& s) {
    cinfo.image_width = static_cast<JDIMENSION>(s.width);
    cinfo.image_height = static_cast<JDIMENSION>(s.height);
    cinfo.input_components = jpegComponents(s.colour);
    switch (s.colour) {
        case JpegColour::kGrey:
            cinfo.in_color_space = JCS_GRAYSCALE;
            break;
        case JpegColour::kTwo:
            cinfo.in_color_space = JCS_UNKNOWN;
            break;
        case JpegColour::kCmyk:
        case JpegColour::kYcck:
            cinfo.in_color_space = JCS_CMYK;
            break;
        default:
            cinfo.in_color_space = JCS_RGB;
            break;
    }
}

void chooseJpegCoding(jpeg_compress_struct& cinfo, const JpegRecipe& s) {
    if (s.colour == JpegColour::kRgb) {
        jpeg_set_colorspace(&cinfo, JCS_RGB);
    } else if (s.colour == JpegColour::kCmyk) {
        jpeg_set_colorspace(&cinfo, JCS_CMYK);
    } else if (s.colour == JpegColour::kYcck) {
        jpeg_set_colorspace(&cinfo, JCS_YCCK);
    }
    jpeg_set_quality(&cinfo, s.quality, s.forceBaseline ? TRUE : FALSE);
    if (s.colour == JpegColour::kYCbCr || s.colour == JpegColour::kYcck) {
        for (int c : {0, 3}) {
            if (c < cinfo.num_components) {
                cinfo.comp_info[c].h_samp_factor = s.lumaH;
                cinfo.comp_info[c].v_samp_factor = s.lumaV;
            }
        }
    }
    if (s.colour == JpegColour::kGrey || s.colour == JpegColour::kYCbCr) {
        cinfo.write_JFIF_header = s.jfif ? TRUE : FALSE;
    }
    cinfo.optimize_coding = s.optimize ? TRUE : FALSE;
    cinfo.arith_code = s.arithmetic ? TRUE : FALSE;
    cinfo.restart_interval = s.restartInterval;
    cinfo.restart_in_rows = s.restartRows;
    if (s.progressive) {
        jpeg_simple_progression(&cinfo);
    }
}

// Only plain data lives in this frame, so libjpeg's jump back skips no
// destructor.
bool writeJpegStream(JpegWriter& w, const JpegRecipe& s, const std::vector<Bytes>& rows) {
    if (setjmp(w.errors.jump) != 0) {
        return false;
    }
    jpeg_create_compress(&w.cinfo);
    w.created = true;
    jpeg_mem_dest(&w.cinfo, &w.buffer, &w.size);
    describeJpegInput(w.cinfo, s);
    jpeg_set_defaults(&w.cinfo);
    chooseJpegCoding(w.cinfo, s);
    jpeg_start_compress(&w.cinfo, TRUE);
    for (size_t i = 0; i < s.app1.size(); ++i) {
        jpeg_write_marker(&w.cinfo, JPEG_APP0 + 1,
                          reinterpret_cast<const JOCTET*>(s.app1[i].data()),
                          static_cast<unsigned>(s.app1[i].size()));
    }
    for (size_t y = 0; y < rows.size(); ++y) {
        auto row = reinterpret_cast<JSAMPROW>(const_cast<char*>(rows[y].data()));
        (void)jpeg_write_scanlines(&w.cinfo, &row, 1);  // one row each time: a buffer that grows
    }
    jpeg_finish_compress(&w.cinfo);
    return true;
}

Bytes encodeJpeg(const JpegRecipe& s) {
    const int components = jpegComponents(s.colour);
    std::vector<Bytes> rows;
    for (int y = 0; y < s.height; ++y) {
        Bytes row;
        for (int x = 0; x < s.width; ++x) {
            for (int c = 0; c < components; ++c) {
                row.push_back(static_cast<char>(sample(x, y, c, 255)));
            }
        }
        rows.push_back(row);
    }
    JpegWriter w;
    w.cinfo.err = jpeg_std_error(&w.errors.pub);
    w.errors.pub.error_exit = onJpegError;
    w.errors.pub.output_message = onJpegMessage;
    if (!writeJpegStream(w, s, rows)) {
        fail(std::string("libjpeg: ") + w.errors.message);
    }
    return Bytes(reinterpret_cast<const char*>(w.buffer), w.size);
}

// ---- JPEG segments ---------------------------------------------------------

// The markers the corpus looks for: the byte after a segment's 0xff.
enum Marker : uint8_t { kSoi = 0xd8, kEoi = 0xd9, kSos = 0xda, kDht = 0xc4, kRst0 = 0xd0 };

struct Segment {
    uint8_t marker;
    size_t offset;     // of its 0xff
    size_t dataStart;  // after the marker and its length field
    size_t end;        // for a scan, after its entropy-coded data
};

uint8_t byteAt(const Bytes& b, size_t at) {
    return static_cast<uint8_t>(b.at(at));
}

// The end of the entropy-coded data that starts at `at`: the next marker that
// is neither a stuffed zero nor a restart marker.
size_t scanEnd(const Bytes& jpeg, size_t at) {
    for (; at + 1 < jpeg.size(); ++at) {
        const uint8_t next = byteAt(jpeg, at + 1);
        if (byteAt(jpeg, at) == 0xff && next != 0 && (next < kRst0 || next > kRst0 + 7)) {
            return at;
        }
    }
    fail("a scan without an end");
}

std::vector<Segment> jpegSegments(const Bytes& jpeg) {
    std::vector<Segment> segments{{kSoi, 0, 2, 2}};
    for (size_t at = 2; at + 1 < jpeg.size();) {
        if (byteAt(jpeg, at) != 0xff) {
            fail("no marker where one belongs");
        }
        const uint8_t marker = byteAt(jpeg, at + 1);
        if (marker == kEoi) {
            segments.push_back({marker, at, at + 2, at + 2});
            break;
        }
        const size_t headerEnd = at + 2 + get16be(jpeg, at + 2);
        const size_t end = marker == kSos ? scanEnd(jpeg, headerEnd) : headerEnd;
        segments.push_back({marker, at, marker == kSos ? headerEnd : at + 4, end});
        at = end;
    }
    return segments;
}

Segment findSegment(const Bytes& jpeg, uint8_t marker, int nth = 0) {
    for (const Segment& s : jpegSegments(jpeg)) {
        if (s.marker == marker && nth-- == 0) {
            return s;
        }
    }
    fail("no segment 0xff" + std::to_string(marker));
}

Segment startOfFrame(const Bytes& jpeg) {
    for (const Segment& s : jpegSegments(jpeg)) {
        if (s.marker >= 0xc0 && s.marker <= 0xcf && s.marker != kDht && s.marker != 0xc8 &&
            s.marker != 0xcc) {
            return s;
        }
    }
    fail("no frame header");
}

// The frame header's fields: precision at 0, height at 1, width at 3, then per
// component its id, sampling and quantisation table.
Bytes patchFrame(Bytes jpeg, size_t field, const Bytes& value) {
    jpeg.replace(startOfFrame(jpeg).dataStart + field, value.size(), value);
    return jpeg;
}

Bytes patchFrameSize(const Bytes& jpeg, uint32_t width, uint32_t height) {
    return patchFrame(jpeg, 1, be16(height) + be16(width));
}

// Flips bytes inside the first scan's data at `fractions` of its length,
// leaving marker bytes alone so that the damage stays inside the data.
Bytes flipScanBytes(Bytes jpeg, std::initializer_list<double> fractions) {
    const Segment scan = findSegment(jpeg, kSos);
    const size_t length = scan.end - scan.dataStart;
    for (double f : fractions) {
        size_t at = scan.dataStart + static_cast<size_t>(static_cast<double>(length) * f);
        while (byteAt(jpeg, at) == 0xff || byteAt(jpeg, at - 1) == 0xff ||
               (byteAt(jpeg, at) ^ 0x5a) == 0xff) {
            ++at;
        }
        flipByte(jpeg, at, 0x5a);
    }
    return jpeg;
}

Bytes removeSegments(const Bytes& jpeg, uint8_t marker) {
    Bytes out;
    for (const Segment& s : jpegSegments(jpeg)) {
        if (s.marker != marker) {
            out += jpeg.substr(s.offset, s.end - s.offset);
        }
    }
    return out;
}

// ---- BMP and PNM -------------------------------------------------------------

Bytes bmp(int width, int height, int bits, bool topDown) {
    const size_t stride = (static_cast<size_t>(width) * bits / 8 + 3) & ~size_t{3};
    const uint32_t paletteBytes = bits == 8 ? 256 * 4 : 0;
    const uint32_t offset = 14 + 40 + paletteBytes;
    const auto imageBytes = static_cast<uint32_t>(stride * static_cast<size_t>(height));
    Bytes b = "BM";
    append32le(b, offset + imageBytes);
    append32le(b, 0);
    append32le(b, offset);
    append32le(b, 40);
    append32le(b, static_cast<uint32_t>(width));
    append32le(b, static_cast<uint32_t>(topDown ? -height : height));
    append16le(b, 1);
    append16le(b, static_cast<uint32_t>(bits));
    append32le(b, 0);  // BI_RGB
    append32le(b, imageBytes);
    append32le(b, 2835);
    append32le(b, 2835);
    append32le(b, bits == 8 ? 256 : 0);
    append32le(b, 0);
    for (uint32_t i = 0; i < paletteBytes / 4; ++i) {
        append32le(b, i * 0x010101);
    }
    for (int row = 0; row < height; ++row) {
        const int y = topDown ? row : height - 1 - row;
        Bytes line;
        for (int x = 0; x < width; ++x) {
            for (int c = 0; c < bits / 8; ++c) {
                line.push_back(static_cast<char>(sample(x, y, c, 255)));
            }
        }
        line.resize(stride, '\0');
        b += line;
    }
    return b;
}

// P4 (bits), P5 (grey), P6 (RGB), P3 (RGB in text); maxValue over 255 for two
// bytes per sample.
Bytes pnm(const std::string& magic, int width, int height, uint32_t maxValue) {
    const int channels = magic == "P6" || magic == "P3" ? 3 : 1;
    Bytes b = magic + "\n# corpus\n" + std::to_string(width) + " " + std::to_string(height) + "\n";
    if (magic != "P4") {
        b += std::to_string(maxValue) + "\n";
    }
    for (int y = 0; y < height; ++y) {
        Bytes bits((static_cast<size_t>(width) + 7) / 8, '\0');
        for (int x = 0; x < width; ++x) {
            for (int c = 0; c < channels; ++c) {
                const uint32_t v = sample(x, y, c, magic == "P4" ? 1 : maxValue);
                if (magic == "P4") {
                    bits[x / 8] =
                        static_cast<char>(static_cast<uint8_t>(bits[x / 8]) | v << (7 - x % 8));
                } else if (magic == "P3") {
                    b += std::to_string(v) + (x + 1 == width && c == 2 ? "\n" : " ");
                } else if (maxValue > 255) {
                    append16be(b, v);
                } else {
                    b.push_back(static_cast<char>(v));
                }
            }
        }
        b += magic == "P4" ? bits : "";
    }
    return b;
}

// ---- The corpus ------------------------------------------------------------

class Corpus {
public:
    explicit Corpus(std::string dir) : dir_(std::move(dir)) {}

    void add(const std::string& name, const Bytes& bytes, Outcome outcome, Tags tags) {
        if (!names_.insert(name).second) {
            fail("two files named " + name);
        }
        const std::string path = dir_ + "/" + name;
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        out.close();
        if (!out) {
            fail("cannot write " + path);
        }
        files_.push_back({name, std::move(tags), outcome});
    }

    std::vector<CorpusFile> files() && { return std::move(files_); }

private:
    std::string dir_;
    std::set<std::string> names_;
    std::vector<CorpusFile> files_;
};

Tags operator+(Tags a, const Tags& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

Tags pngTags(const PngRecipe& s) {
    Tags t{"png", "type=" + std::to_string(s.colourType), "depth=" + std::to_string(s.depth)};
    if (s.adam7) {
        t.push_back("adam7");
    }
    if (s.transparent >= 0 && !(s.colourType == PNG_COLOR_TYPE_PALETTE && s.transparent == 0)) {
        t.push_back("trns");
    }
    if (s.colourType == PNG_COLOR_TYPE_PALETTE && s.transparent > 0 &&
        s.transparent < paletteSize(s)) {
        t.push_back("trns-partial");
    }
    return t;
}

PngRecipe pngLayout(int colourType, int depth, bool adam7 = false) {
    PngRecipe s;
    s.colourType = colourType;
    s.depth = depth;
    s.adam7 = adam7;
    if (colourType == PNG_COLOR_TYPE_PALETTE) {
        // Fewer entries than the depth allows, except at 1 and 4 bits.
        s.paletteSize = depth == 2 ? 3 : depth == 8 ? 200 : 0;
    }
    return s;
}

std::string pngName(const PngRecipe& s, const std::string& extra = "") {
    std::string name = "png_t" + std::to_string(s.colourType) + "_d" + std::to_string(s.depth);
    if (s.width != kWidth || s.height != kHeight) {
        name += "_" + std::to_string(s.width) + "x" + std::to_string(s.height);
    }
    return name + extra + (s.adam7 ? "_adam7" : "") + ".png";
}

void addPng(Corpus& c, const PngRecipe& s, const std::string& extra = "", Tags more = {},
            Outcome outcome = Outcome::kDecoded) {
    c.add(pngName(s, extra), encodePng(s), outcome, pngTags(s) + more);
}

// Every colour type at every depth it allows, with and without transparency,
// each written plainly and interlaced.
void addPngLayouts(Corpus& c) {
    for (bool adam7 : {false, true}) {
        for (int depth : {1, 2, 4, 8, 16}) {
            PngRecipe s = pngLayout(PNG_COLOR_TYPE_GRAY, depth, adam7);
            addPng(c, s);
            s.transparent = 0;
            addPng(c, s, "_trns");
        }
        for (int depth : {8, 16}) {
            PngRecipe s = pngLayout(PNG_COLOR_TYPE_RGB, depth, adam7);
            addPng(c, s);
            s.transparent = 0;
            addPng(c, s, "_trns");
            addPng(c, pngLayout(PNG_COLOR_TYPE_GRAY_ALPHA, depth, adam7));
            addPng(c, pngLayout(PNG_COLOR_TYPE_RGB_ALPHA, depth, adam7));
        }
        for (int depth : {1, 2, 4, 8}) {
            PngRecipe s = pngLayout(PNG_COLOR_TYPE_PALETTE, depth, adam7);
            addPng(c, s);
            s.transparent = (paletteSize(s) + 1) / 2;
            addPng(c, s, "_trns_partial");
            s.transparent = paletteSize(s);
            addPng(c, s, "_trns_full");
        }
    }
}

// Sizes where rows, Adam7 passes or the filter's byte distance have edge cases.
void addPngSizes(Corpus& c) {
    struct Size {
        int colourType, depth, width, height;
        bool adam7;
    };
    static const Size kSizes[] = {
        {PNG_COLOR_TYPE_RGB_ALPHA, 16, 1, 1, false}, {PNG_COLOR_TYPE_GRAY, 4, 1, 1, true},
        {PNG_COLOR_TYPE_RGB_ALPHA, 8, 3, 2, true},   {PNG_COLOR_TYPE_GRAY, 1, 9, 1, true},
        {PNG_COLOR_TYPE_RGB, 8, 1, 9, true},         {PNG_COLOR_TYPE_PALETTE, 2, 5, 5, true},
        {PNG_COLOR_TYPE_RGB, 16, 8, 8, true},        {PNG_COLOR_TYPE_GRAY_ALPHA, 16, 2, 7, true},
    };
    for (const Size& size : kSizes) {
        PngRecipe s = pngLayout(size.colourType, size.depth, size.adam7);
        s.width = size.width;
        s.height = size.height;
        addPng(c, s);
    }
    PngRecipe split = pngLayout(PNG_COLOR_TYPE_RGB, 8);
    split.idatSize = 50;
    const Bytes splitPng = encodePng(split);
    if (countChunks(splitPng, "IDAT") < 10) {
        fail("the image data is not split");
    }
    c.add("png_t2_d8_many_idat.png", splitPng, Outcome::kDecoded, pngTags(split));
    PngRecipe past = pngLayout(PNG_COLOR_TYPE_PALETTE, 4);
    past.paletteSize = 10;
    past.indexPastPalette = true;
    addPng(c, past, "_index_past_palette", {"corrupt"}, Outcome::kEither);
}

void addPngColourChunks(Corpus& c) {
    PngRecipe s = pngLayout(PNG_COLOR_TYPE_RGB, 8);
    s.gamma = 45455;
    addPng(c, s, "_gama", {"gama"});
    s = pngLayout(PNG_COLOR_TYPE_GRAY, 16);
    s.gamma = 100000;
    addPng(c, s, "_gama_linear", {"gama"});
    s = pngLayout(PNG_COLOR_TYPE_RGB, 8);
    s.srgb = true;
    addPng(c, s, "_srgb", {"srgb", "gama", "chrm"});
    s = pngLayout(PNG_COLOR_TYPE_PALETTE, 8, true);
    s.srgb = true;
    addPng(c, s, "_srgb", {"srgb", "gama", "chrm"});
    s = pngLayout(PNG_COLOR_TYPE_RGB, 16);
    s.chrm = true;
    s.gamma = 55556;
    addPng(c, s, "_chrm", {"chrm", "gama"});
    s = pngLayout(PNG_COLOR_TYPE_RGB_ALPHA, 8);
    s.icc = iccProfile("RGB ");
    addPng(c, s, "_iccp", {"iccp"});
    s = pngLayout(PNG_COLOR_TYPE_GRAY, 8);
    s.icc = iccProfile("GRAY");
    addPng(c, s, "_iccp", {"iccp"});
    s = pngLayout(PNG_COLOR_TYPE_GRAY_ALPHA, 16, true);
    s.icc = iccProfile("GRAY");
    addPng(c, s, "_iccp", {"iccp"});
    s = pngLayout(PNG_COLOR_TYPE_PALETTE, 4);
    s.icc = iccProfile("RGB ");
    addPng(c, s, "_iccp", {"iccp"});
}

// Chunks that libpng would not write: they are put in by hand.
void addPngOddColourChunks(Corpus& c) {
    const PngRecipe grey = pngLayout(PNG_COLOR_TYPE_GRAY, 8);
    const PngRecipe rgb = pngLayout(PNG_COLOR_TYPE_RGB, 8);
    const Bytes greyPng = encodePng(grey);
    const Bytes rgbPng = encodePng(rgb);
    c.add("png_iccp_rgb_profile_on_grey.png",
          insertAfterHeader(greyPng, iccpChunk("rgb", iccProfile("RGB "))), Outcome::kDecoded,
          pngTags(grey) + Tags{"iccp"});
    Bytes badProfile = iccpChunk("broken", iccProfile("RGB "));
    flipByte(badProfile, 8 + 7 + 2 + 20, 0x55);  // inside the compressed profile
    Bytes withBad = insertAfterHeader(rgbPng, badProfile);
    fixCrc(withBad, findChunk(withBad, "iCCP"));
    c.add("png_iccp_corrupt_profile.png", withBad, Outcome::kDecoded,
          pngTags(rgb) + Tags{"iccp", "corrupt"});
    c.add("png_gama_zero.png", insertAfterHeader(rgbPng, makeChunk("gAMA", be32(0))),
          Outcome::kDecoded, pngTags(rgb) + Tags{"gama"});
    c.add("png_srgb_with_other_gama.png",
          insertAfterHeader(rgbPng,
                            makeChunk("sRGB", Bytes(1, '\0')) + makeChunk("gAMA", be32(100000))),
          Outcome::kDecoded, pngTags(rgb) + Tags{"srgb", "gama"});
}

void addPngOtherChunks(Corpus& c) {
    PngRecipe s = pngLayout(PNG_COLOR_TYPE_RGB, 8);
    s.text = true;
    addPng(c, s, "_text", {"text"});
    s = pngLayout(PNG_COLOR_TYPE_PALETTE, 8, true);
    s.text = true;
    addPng(c, s, "_text", {"text"});
    for (const int type : {PNG_COLOR_TYPE_RGB_ALPHA, PNG_COLOR_TYPE_GRAY}) {
        s = pngLayout(type, 16);
        s.ancillary = true;
        const Bytes png = encodePng(s);
        c.add(pngName(s, "_ancillary"),
              insertAt(png, findChunk(png, "IDAT").offset, makeChunk("prVt", "private data")),
              Outcome::kDecoded, pngTags(s) + Tags{"ancillary"});
    }
}

void addPngExif(Corpus& c) {
    for (int orientation = 0; orientation <= 9; ++orientation) {
        PngRecipe s = pngLayout(PNG_COLOR_TYPE_RGB, 8);
        s.exif = exifTiff(orientation);
        addPng(c, s, "_exif_o" + std::to_string(orientation),
               {"exif", "orientation=" + std::to_string(orientation)});
    }
    struct Variant {
        int colourType, depth;
        bool adam7;
        int orientation;
        ExifByteOrder order;
        bool afterData;
        const char* name;
    };
    static const Variant kVariants[] = {
        {PNG_COLOR_TYPE_RGB, 8, false, 6, EXIF_BYTE_ORDER_MOTOROLA, false, "_exif_mm_o6"},
        {PNG_COLOR_TYPE_RGB, 8, false, 7, EXIF_BYTE_ORDER_MOTOROLA, false, "_exif_mm_o7"},
        {PNG_COLOR_TYPE_RGB, 8, false, 6, EXIF_BYTE_ORDER_INTEL, true, "_exif_after_data_o6"},
        {PNG_COLOR_TYPE_GRAY, 8, false, 6, EXIF_BYTE_ORDER_INTEL, false, "_exif_o6"},
        {PNG_COLOR_TYPE_RGB_ALPHA, 16, false, 5, EXIF_BYTE_ORDER_INTEL, false, "_exif_o5"},
        {PNG_COLOR_TYPE_PALETTE, 4, false, 8, EXIF_BYTE_ORDER_INTEL, false, "_exif_o8"},
        {PNG_COLOR_TYPE_RGB, 8, true, 6, EXIF_BYTE_ORDER_INTEL, false, "_exif_o6"},
        {PNG_COLOR_TYPE_GRAY_ALPHA, 8, true, 7, EXIF_BYTE_ORDER_MOTOROLA, false, "_exif_o7"},
    };
    for (const Variant& v : kVariants) {
        PngRecipe s = pngLayout(v.colourType, v.depth, v.adam7);
        s.exif = exifTiff(v.orientation, v.order);
        s.exifAfterData = v.afterData;
        const Bytes png = encodePng(s);
        if ((findChunk(png, "eXIf").offset > findChunk(png, "IDAT").offset) != v.afterData) {
            fail("the eXIf chunk is not where it was asked for");
        }
        Tags tags{"exif", "orientation=" + std::to_string(v.orientation)};
        if (v.afterData) {
            tags.push_back("exif-after-data");
        }
        c.add(pngName(s, v.name), png, Outcome::kDecoded, pngTags(s) + tags);
    }
}

void addPngOddExif(Corpus& c) {
    PngRecipe s = pngLayout(PNG_COLOR_TYPE_RGB, 8);
    s.exif = exifSegment(6);  // with the APP1 header, which does not belong here
    addPng(c, s, "_exif_with_app1_header", {"exif", "exif-odd"});
    for (const OddExif& odd : oddExifBlocks()) {
        s.exif = odd.tiff;
        addPng(c, s, std::string("_exif_") + odd.name, {"exif", "exif-odd"});
    }
}

// Where a file is cut: in the signature, in the header, after the header,
// inside the first compressed bytes, in the middle of the last IDAT, just
// before IEND, one byte short.
struct Cut {
    const char* name;
    const char* where;
    size_t at;
};

std::vector<Cut> pngCuts(const Bytes& png) {
    const Chunk first = findChunk(png, "IDAT");
    const Chunk last = findChunk(png, "IDAT", countChunks(png, "IDAT") - 1);
    return {{"in_signature", "header", 4},
            {"in_ihdr", "header", 20},
            {"after_ihdr", "header", findChunk(png, "IHDR").end()},
            {"in_first_idat", "data", first.data() + 5},
            {"mid_last_idat", "data", last.data() + last.length / 2},
            {"before_iend", "before-end", findChunk(png, "IEND").offset},
            {"last_byte", "last-byte", png.size() - 1}};
}

std::vector<PngRecipe> damageSources() {
    PngRecipe rgba16 = pngLayout(PNG_COLOR_TYPE_RGB_ALPHA, 16, true);
    PngRecipe palette = pngLayout(PNG_COLOR_TYPE_PALETTE, 4, true);
    palette.transparent = 7;
    return {pngLayout(PNG_COLOR_TYPE_RGB, 8), rgba16, palette, pngLayout(PNG_COLOR_TYPE_GRAY, 1)};
}

void addPngTruncated(Corpus& c) {
    for (const PngRecipe& s : damageSources()) {
        const Bytes png = encodePng(s);
        for (const Cut& cut : pngCuts(png)) {
            c.add(pngName(s, std::string("_cut_") + cut.name), png.substr(0, cut.at),
                  Outcome::kRefused,
                  pngTags(s) + Tags{"truncated", std::string("cut=") + cut.where});
        }
    }
}

// Header fields broken with a valid CRC, so that the field itself is refused.
void addPngBadHeaders(Corpus& c, const PngRecipe& s, const Bytes& png) {
    struct Field {
        const char* name;
        size_t offset;
        Bytes value;
    };
    const Field kFields[] = {
        {"zero_width", 0, be32(0)},
        {"zero_height", 4, be32(0)},
        {"depth_3", 8, Bytes(1, '\3')},
        {"colour_type_5", 9, Bytes(1, '\5')},
        {"compression_1", 10, Bytes(1, '\1')},
        {"interlace_2", 12, Bytes(1, '\2')},
    };
    for (const Field& f : kFields) {
        c.add(pngName(s, std::string("_") + f.name), patchHeader(png, f.offset, f.value),
              Outcome::kRefused, pngTags(s) + Tags{"corrupt"});
    }
}

void addPngCorrupt(Corpus& c) {
    const PngRecipe s = pngLayout(PNG_COLOR_TYPE_RGB, 8);
    const Bytes png = encodePng(s);
    const Tags tags = pngTags(s) + Tags{"corrupt"};
    const Chunk ihdr = findChunk(png, "IHDR");
    const Chunk idat = findChunk(png, "IDAT");
    Bytes b = png;
    flipByte(b, ihdr.data() + 3, 0x01);
    c.add("png_bad_ihdr_crc.png", b, Outcome::kRefused, tags);
    b = png;
    flipByte(b, idat.data() + idat.length / 2, 0x10);
    c.add("png_bad_idat_crc.png", b, Outcome::kRefused, tags);
    fixCrc(b, idat);
    c.add("png_idat_flipped_byte.png", b, Outcome::kEither, tags);
    b = png;
    flipByte(b, idat.data() + idat.length - 2, 0xff);  // in the zlib checksum
    fixCrc(b, idat);
    c.add("png_bad_adler32.png", b, Outcome::kEither, tags);
    b = png;
    flipByte(b, ihdr.end() + 4, 0x20);  // the IDAT's name, lower case: unknown, ancillary
    fixCrc(b, findChunk(b, "iDAT"));
    c.add("png_idat_renamed.png", b, Outcome::kRefused, tags);
    addPngBadHeaders(c, s, png);
    c.add("png_unknown_critical_chunk.png", insertAfterHeader(png, makeChunk("CRIT", "x")),
          Outcome::kRefused, tags);
    c.add("png_no_idat.png", removeChunks(png, "IDAT"), Outcome::kRefused, tags);
    c.add("png_no_iend.png", removeChunks(png, "IEND"), Outcome::kRefused, tags);
    const PngRecipe palette = pngLayout(PNG_COLOR_TYPE_PALETTE, 8);
    const Bytes palettePng = encodePng(palette);
    c.add("png_t3_no_plte.png", removeChunks(palettePng, "PLTE"), Outcome::kRefused,
          pngTags(palette) + Tags{"corrupt"});
    c.add("png_t3_empty_plte.png",
          insertAfterHeader(removeChunks(palettePng, "PLTE"), makeChunk("PLTE", "")),
          Outcome::kRefused, pngTags(palette) + Tags{"corrupt"});
    c.add("png_extra_image_data.png", patchSize(png, kWidth, kHeight - 1), Outcome::kEither, tags);
    c.add("png_missing_image_data.png", patchSize(png, kWidth, kHeight + 17), Outcome::kEither,
          tags);
}

void addPngOddStructure(Corpus& c) {
    const PngRecipe s = pngLayout(PNG_COLOR_TYPE_RGB, 8);
    const Bytes png = encodePng(s);
    Bytes text = makeChunk("tEXt", Bytes("Comment\0bad crc", 15));
    flipByte(text, text.size() - 1, 0x01);
    c.add("png_text_bad_crc.png", insertAfterHeader(png, text), Outcome::kDecoded,
          pngTags(s) + Tags{"text", "corrupt"});
    c.add("png_trailing_garbage.png", png + "trailing bytes after IEND", Outcome::kDecoded,
          pngTags(s));
    PngRecipe split = s;
    split.idatSize = 200;
    const Bytes splitPng = encodePng(split);
    c.add("png_text_between_idat.png",
          insertAt(splitPng, findChunk(splitPng, "IDAT", 1).offset,
                   makeChunk("tEXt", Bytes("Comment\0between", 15))),
          Outcome::kEither, pngTags(s) + Tags{"corrupt"});
    c.add("png_named_as.jpg", png, Outcome::kDecoded, pngTags(s) + Tags{"misnamed"});
    c.add("png_zero_length_idat.png",
          insertAt(splitPng, findChunk(splitPng, "IDAT", 1).offset, makeChunk("IDAT", "")),
          Outcome::kDecoded, pngTags(s));
    c.add("png_chunk_after_iend.png", png + makeChunk("tEXt", Bytes("Comment\0late", 12)),
          Outcome::kDecoded, pngTags(s) + Tags{"text"});
    c.add("png_t2_d8_plte.png", insertAfterHeader(png, makeChunk("PLTE", Bytes(48, '\x40'))),
          Outcome::kDecoded, pngTags(s));
    c.add("png_two_ihdr.png", insertAfterHeader(png, png.substr(kPngSignatureSize, 25)),
          Outcome::kRefused, pngTags(s) + Tags{"corrupt"});
}

// Chunks in places or of lengths the format does not allow, which libpng
// drops with a warning.
void addPngMisplacedChunks(Corpus& c) {
    const PngRecipe grey = pngLayout(PNG_COLOR_TYPE_GRAY, 8);
    c.add("png_t0_d8_plte.png",
          insertAfterHeader(encodePng(grey), makeChunk("PLTE", Bytes(48, '\x40'))),
          Outcome::kDecoded, pngTags(grey));
    const PngRecipe rgba = pngLayout(PNG_COLOR_TYPE_RGB_ALPHA, 8);
    c.add("png_t6_d8_with_trns.png",
          insertAfterHeader(encodePng(rgba), makeChunk("tRNS", Bytes(6, '\0'))), Outcome::kDecoded,
          pngTags(rgba));
    const PngRecipe palette = pngLayout(PNG_COLOR_TYPE_PALETTE, 2);
    const Bytes palettePng = encodePng(palette);
    c.add("png_t3_d2_trns_longer_than_palette.png",
          insertAt(palettePng, findChunk(palettePng, "IDAT").offset,
                   makeChunk("tRNS", Bytes("\x00\x80\xff\x10\x20", 5))),
          Outcome::kDecoded, pngTags(palette));
    PngRecipe exif = pngLayout(PNG_COLOR_TYPE_RGB, 8);
    exif.exif = exifTiff(3);
    const Bytes exifPng = encodePng(exif);
    c.add("png_exif_o3_before_and_o6_after_data.png",
          insertAt(exifPng, findChunk(exifPng, "IEND").offset, makeChunk("eXIf", exifTiff(6))),
          Outcome::kDecoded, pngTags(exif) + Tags{"exif", "exif-odd"});
    c.add("png_exif_twice_o3_o6.png",
          insertAt(exifPng, findChunk(exifPng, "IDAT").offset, makeChunk("eXIf", exifTiff(6))),
          Outcome::kDecoded, pngTags(exif) + Tags{"exif", "exif-odd"});
}

// ---- JPEG files --------------------------------------------------------------

struct Sampling {
    const char* name;
    int h, v;
};

constexpr Sampling kSamplings[] = {
    {"444", 1, 1}, {"422", 2, 1}, {"420", 2, 2}, {"440", 1, 2}, {"411", 4, 1},
};

std::string samplingTag(int h, int v) {
    for (const Sampling& s : kSamplings) {
        if (s.h == h && s.v == v) {
            return std::string("sampling=4:") + (s.name[1]) + ":" + s.name[2];
        }
    }
    fail("no such sampling");
}

Tags jpegTags(const JpegRecipe& s) {
    static const char* const kColourTags[] = {"grey", "colour", "rgb",
                                              "cmyk", "ycck",   "two-components"};
    Tags t{"jpeg", kColourTags[static_cast<int>(s.colour)]};
    if (s.colour == JpegColour::kRgb) {
        t.push_back("colour");
    }
    t.push_back(s.progressive ? "progressive" : "baseline");
    if (s.arithmetic) {
        t.push_back("arithmetic");
    }
    if (s.colour == JpegColour::kYCbCr || s.colour == JpegColour::kYcck) {
        t.push_back(samplingTag(s.lumaH, s.lumaV));
    }
    if (s.restartInterval != 0 || s.restartRows != 0) {
        t.push_back("restart");
    }
    if (s.optimize) {
        t.push_back("optimized");
    }
    return t;
}

JpegRecipe jpegRecipe(JpegColour colour, int lumaH = 2, int lumaV = 2) {
    JpegRecipe s;
    s.colour = colour;
    s.lumaH = lumaH;
    s.lumaV = lumaV;
    return s;
}

void addJpeg(Corpus& c, const std::string& name, const JpegRecipe& s, Tags more = {}) {
    c.add(name, encodeJpeg(s), Outcome::kDecoded, jpegTags(s) + more);
}

void addJpegCodings(Corpus& c) {
    for (const Sampling& sampling : kSamplings) {
        JpegRecipe s = jpegRecipe(JpegColour::kYCbCr, sampling.h, sampling.v);
        addJpeg(c, std::string("jpeg_") + sampling.name + "_baseline.jpg", s);
        s.progressive = true;
        addJpeg(c, std::string("jpeg_") + sampling.name + "_progressive.jpg", s);
    }
    JpegRecipe s = jpegRecipe(JpegColour::kGrey);
    addJpeg(c, "jpeg_grey_baseline.jpg", s);
    s.progressive = true;
    addJpeg(c, "jpeg_grey_progressive.jpg", s);
    s.arithmetic = true;
    addJpeg(c, "jpeg_grey_arithmetic_progressive.jpg", s);
    s = jpegRecipe(JpegColour::kGrey);
    s.arithmetic = true;
    addJpeg(c, "jpeg_grey_arithmetic.jpg", s);
    s = jpegRecipe(JpegColour::kGrey);
    s.restartInterval = 3;
    addJpeg(c, "jpeg_grey_restart.jpg", s);
    for (const Sampling& sampling : {kSamplings[0], kSamplings[2]}) {
        s = jpegRecipe(JpegColour::kYCbCr, sampling.h, sampling.v);
        s.arithmetic = true;
        addJpeg(c, std::string("jpeg_") + sampling.name + "_arithmetic.jpg", s);
        s.progressive = true;
        addJpeg(c, std::string("jpeg_") + sampling.name + "_arithmetic_progressive.jpg", s);
    }
}

// A colour recipe sampled lumaH x lumaV, changed by `change`.
JpegRecipe colourRecipe(void (*change)(JpegRecipe&), int lumaH = 2, int lumaV = 2) {
    JpegRecipe s = jpegRecipe(JpegColour::kYCbCr, lumaH, lumaV);
    change(s);
    return s;
}

void addJpegOptions(Corpus& c) {
    const std::pair<const char*, JpegRecipe> options[] = {
        {"jpeg_420_restart_every_mcu.jpg",
         colourRecipe([](JpegRecipe& s) { s.restartInterval = 1; })},
        {"jpeg_422_restart_every_row.jpg",
         colourRecipe([](JpegRecipe& s) { s.restartRows = 1; }, 2, 1)},
        {"jpeg_420_progressive_restart.jpg", colourRecipe([](JpegRecipe& s) {
             s.restartInterval = 2;
             s.progressive = true;
         })},
        {"jpeg_420_arithmetic_restart.jpg", colourRecipe([](JpegRecipe& s) {
             s.restartInterval = 2;
             s.arithmetic = true;
         })},
        {"jpeg_420_optimized.jpg", colourRecipe([](JpegRecipe& s) { s.optimize = true; })},
        {"jpeg_444_quality_100.jpg", colourRecipe([](JpegRecipe& s) { s.quality = 100; }, 1, 1)},
        {"jpeg_420_quality_5.jpg", colourRecipe([](JpegRecipe& s) { s.quality = 5; })},
        {"jpeg_420_no_jfif.jpg", colourRecipe([](JpegRecipe& s) { s.jfif = false; })},
    };
    for (const auto& [name, recipe] : options) {
        addJpeg(c, name, recipe);
    }
    JpegRecipe s = jpegRecipe(JpegColour::kRgb);
    addJpeg(c, "jpeg_rgb.jpg", s);
    s.progressive = true;
    addJpeg(c, "jpeg_rgb_progressive.jpg", s);
    s = jpegRecipe(JpegColour::kCmyk);
    addJpeg(c, "jpeg_cmyk.jpg", s);
    s.progressive = true;
    addJpeg(c, "jpeg_cmyk_progressive.jpg", s);
    addJpeg(c, "jpeg_ycck.jpg", jpegRecipe(JpegColour::kYcck));
    const JpegRecipe two = jpegRecipe(JpegColour::kTwo);
    c.add("jpeg_two_components.jpg", encodeJpeg(two), Outcome::kEither, jpegTags(two));
}

void addJpegSizes(Corpus& c) {
    struct Size {
        JpegColour colour;
        int h, v, width, height;
        bool progressive;
    };
    static const Size kSizes[] = {
        {JpegColour::kYCbCr, 2, 2, 1, 1, false}, {JpegColour::kYCbCr, 2, 2, 16, 16, false},
        {JpegColour::kYCbCr, 2, 2, 17, 9, true}, {JpegColour::kYCbCr, 2, 1, 1, 37, false},
        {JpegColour::kYCbCr, 1, 1, 8, 8, false}, {JpegColour::kGrey, 1, 1, 65, 1, false},
        {JpegColour::kYCbCr, 4, 1, 33, 3, true}, {JpegColour::kYCbCr, 1, 2, 3, 33, false},
    };
    for (const Size& size : kSizes) {
        JpegRecipe s = jpegRecipe(size.colour, size.h, size.v);
        s.width = size.width;
        s.height = size.height;
        s.progressive = size.progressive;
        const std::string name = std::string("jpeg_") +
                                 (size.colour == JpegColour::kGrey ? "grey" : "colour") + "_" +
                                 std::to_string(size.width) + "x" + std::to_string(size.height) +
                                 (size.progressive ? "_progressive" : "") + ".jpg";
        addJpeg(c, name, s);
    }
}

Bytes xmpSegment() {
    return Bytes("http://ns.adobe.com/xap/1.0/\0", 29) +
           "<x:xmpmeta xmlns:x=\"adobe:ns:meta/\"><rdf:RDF "
           "xmlns:rdf=\"http://www.w3.org/1999/02/22-rdf-syntax-ns#\"><rdf:Description "
           "xmlns:tiff=\"http://ns.adobe.com/tiff/1.0/\" tiff:Orientation=\"3\"/></rdf:RDF>"
           "</x:xmpmeta>";
}

// Camera-like files: the EXIF segment first, no JFIF.
JpegRecipe exifJpeg(const std::vector<Bytes>& app1, JpegColour colour = JpegColour::kYCbCr) {
    JpegRecipe s = jpegRecipe(colour);
    s.jfif = false;
    s.app1 = app1;
    return s;
}

void addJpegExif(Corpus& c) {
    for (int orientation = 0; orientation <= 9; ++orientation) {
        const std::string o = std::to_string(orientation);
        addJpeg(c, "jpeg_exif_o" + o + ".jpg", exifJpeg({exifSegment(orientation)}),
                {"exif", "orientation=" + o});
    }
    const Bytes o6 = exifSegment(6);
    addJpeg(c, "jpeg_exif_mm_o6.jpg", exifJpeg({exifSegment(6, EXIF_BYTE_ORDER_MOTOROLA)}),
            {"exif", "orientation=6"});
    addJpeg(c, "jpeg_exif_mm_o5.jpg", exifJpeg({exifSegment(5, EXIF_BYTE_ORDER_MOTOROLA)}),
            {"exif", "orientation=5"});
    JpegRecipe s = exifJpeg({o6});
    s.jfif = true;
    addJpeg(c, "jpeg_exif_after_jfif_o6.jpg", s, {"exif", "orientation=6"});
    // Only the first APP1 segment is looked at for EXIF: these two have none to
    // apply, whatever the later segment says.
    addJpeg(c, "jpeg_xmp_then_exif_o6.jpg", exifJpeg({xmpSegment(), o6}), {"exif", "xmp"});
    addJpeg(c, "jpeg_exif_o6_then_xmp.jpg", exifJpeg({o6, xmpSegment()}),
            {"exif", "xmp", "orientation=6"});
    addJpeg(c, "jpeg_exif_o3_then_exif_o6.jpg", exifJpeg({exifSegment(3), o6}),
            {"exif", "exif-odd"});
    addJpeg(c, "jpeg_exif_grey_o6.jpg", exifJpeg({o6}, JpegColour::kGrey),
            {"exif", "orientation=6"});
    s = exifJpeg({exifSegment(8)});
    s.progressive = true;
    addJpeg(c, "jpeg_exif_progressive_o8.jpg", s, {"exif", "orientation=8"});
    s = exifJpeg({exifSegment(7)});
    s.lumaV = 1;
    addJpeg(c, "jpeg_exif_422_o7.jpg", s, {"exif", "orientation=7"});
    s = exifJpeg({exifSegment(5)});
    s.arithmetic = true;
    addJpeg(c, "jpeg_exif_arithmetic_o5.jpg", s, {"exif", "orientation=5"});
    addJpeg(c, "jpeg_exif_cmyk_o6.jpg", exifJpeg({o6}, JpegColour::kCmyk),
            {"exif", "orientation=6"});
}

void addJpegOddExif(Corpus& c) {
    addJpeg(c, "jpeg_exif_header_only.jpg", exifJpeg({kExifHeader}), {"exif", "exif-odd"});
    addJpeg(c, "jpeg_exif_without_header.jpg", exifJpeg({exifTiff(6)}), {"exif", "exif-odd"});
    for (const OddExif& odd : oddExifBlocks()) {
        if (!odd.pngOnly) {
            addJpeg(c, std::string("jpeg_exif_") + odd.name + ".jpg",
                    exifJpeg({kExifHeader + odd.tiff}), {"exif", "exif-odd"});
        }
    }
    // Segments after the first scan come too late to be read for EXIF.
    JpegRecipe progressive = exifJpeg({});
    progressive.progressive = true;
    const Bytes progressiveJpeg = encodeJpeg(progressive);
    const Bytes o6 = exifSegment(6);
    const Bytes app1 = Bytes("\xff\xe1", 2) + be16(static_cast<uint32_t>(2 + o6.size())) + o6;
    c.add("jpeg_exif_o6_between_scans.jpg",
          insertAt(progressiveJpeg, findSegment(progressiveJpeg, kSos, 1).offset, app1),
          Outcome::kDecoded, jpegTags(progressive) + Tags{"exif", "exif-odd"});
    // The first APP1 segment is taken for EXIF, whatever its header says.
    addJpeg(c, "jpeg_app1_other_header_o6.jpg", exifJpeg({Bytes("XMP\0\0\0", 6) + exifTiff(6)}),
            {"exif", "exif-odd"});
    addJpeg(c, "jpeg_exif_header_wrong_pad_o6.jpg", exifJpeg({Bytes("Exif\0\1", 6) + exifTiff(6)}),
            {"exif", "exif-odd"});
}

// Where a JPEG is cut: in its first segments, just before the first scan,
// inside the first scan, at the end of a progressive file's first scan,
// before EOI, one byte short.
std::vector<Cut> jpegCuts(const Bytes& jpeg, bool progressive) {
    const Segment scan = findSegment(jpeg, kSos);
    std::vector<Cut> cuts = {
        {"in_header", "header", 25},
        {"before_scan", "header", scan.offset},
        {"in_scan", "data", scan.dataStart + (scan.end - scan.dataStart) / 3},
        {"before_eoi", "before-end", jpeg.size() - 2},
        {"last_byte", "last-byte", jpeg.size() - 1},
    };
    if (progressive) {
        cuts.push_back({"after_first_scan", "data", findSegment(jpeg, kSos, 1).offset});
        const Segment last = findSegment(jpeg, kSos, 5);
        cuts.push_back({"in_sixth_scan", "data", (last.dataStart + last.end) / 2});
    }
    return cuts;
}

struct JpegSource {
    const char* name;
    JpegRecipe recipe;
};

std::vector<JpegSource> jpegDamageSources() {
    JpegRecipe progressive = jpegRecipe(JpegColour::kYCbCr);
    progressive.progressive = true;
    JpegRecipe restart = jpegRecipe(JpegColour::kYCbCr);
    restart.restartInterval = 1;
    JpegRecipe arithmetic = jpegRecipe(JpegColour::kYCbCr);
    arithmetic.arithmetic = true;
    return {{"420", jpegRecipe(JpegColour::kYCbCr)},
            {"progressive", progressive},
            {"grey", jpegRecipe(JpegColour::kGrey)},
            {"restart", restart},
            {"arithmetic", arithmetic},
            {"cmyk", jpegRecipe(JpegColour::kCmyk)}};
}

void addJpegTruncated(Corpus& c) {
    for (const JpegSource& source : jpegDamageSources()) {
        const Bytes jpeg = encodeJpeg(source.recipe);
        for (const Cut& cut : jpegCuts(jpeg, source.recipe.progressive)) {
            const bool header = std::strcmp(cut.where, "header") == 0;
            c.add(std::string("jpeg_") + source.name + "_cut_" + cut.name + ".jpg",
                  jpeg.substr(0, cut.at), header ? Outcome::kRefused : Outcome::kEither,
                  jpegTags(source.recipe) + Tags{"truncated", std::string("cut=") + cut.where});
        }
        c.add(std::string("jpeg_") + source.name + "_flipped_bytes.jpg",
              flipScanBytes(jpeg, {0.25, 0.5, 0.75}), Outcome::kEither,
              jpegTags(source.recipe) + Tags{"corrupt"});
    }
}

void addJpegBadHeaders(Corpus& c, const JpegRecipe& s, const Bytes& jpeg) {
    const Tags tags = jpegTags(s) + Tags{"corrupt"};
    c.add("jpeg_zero_width.jpg", patchFrameSize(jpeg, 0, kHeight), Outcome::kRefused, tags);
    c.add("jpeg_zero_height.jpg", patchFrameSize(jpeg, kWidth, 0), Outcome::kRefused, tags);
    c.add("jpeg_precision_12.jpg", patchFrame(jpeg, 0, Bytes(1, '\x0c')), Outcome::kRefused, tags);
    c.add("jpeg_undefined_quant_table.jpg", patchFrame(jpeg, 6 + 2, Bytes(1, '\3')),
          Outcome::kRefused, tags);
    c.add("jpeg_sampling_zero.jpg", patchFrame(jpeg, 6 + 1, Bytes(1, '\0')), Outcome::kRefused,
          tags);
    Bytes b = jpeg;
    b[findSegment(jpeg, kDht).offset + 4 + 1 + 15] = '\xff';  // 255 codes of 16 bits: too many
    c.add("jpeg_bad_huffman_table.jpg", b, Outcome::kRefused, tags);
    c.add("jpeg_no_huffman_tables.jpg", removeSegments(jpeg, kDht), Outcome::kEither, tags);
    const Segment scan = findSegment(jpeg, kSos);
    c.add("jpeg_no_scan.jpg", jpeg.substr(0, scan.offset) + "\xff\xd9", Outcome::kRefused, tags);
    c.add("jpeg_frame_enlarged.jpg", patchFrameSize(jpeg, 120, 80), Outcome::kEither, tags);
    // The frame's marker names another coding than the data has.
    const size_t sof = startOfFrame(jpeg).offset + 1;
    c.add("jpeg_marked_lossless.jpg", replaced(jpeg, sof, "\xc3"), Outcome::kRefused, tags);
    c.add("jpeg_marked_progressive.jpg", replaced(jpeg, sof, "\xc2"), Outcome::kEither, tags);
    c.add("jpeg_marked_arithmetic.jpg", replaced(jpeg, sof, "\xc9"), Outcome::kEither, tags);
}

void addJpegCorrupt(Corpus& c) {
    const JpegRecipe s = jpegRecipe(JpegColour::kYCbCr);
    const Bytes jpeg = encodeJpeg(s);
    addJpegBadHeaders(c, s, jpeg);
    JpegRecipe restart = s;
    restart.restartInterval = 1;
    Bytes b = encodeJpeg(restart);
    const size_t rst = b.find("\xff\xd1", findSegment(b, kSos).dataStart);
    if (rst == Bytes::npos) {
        fail("no second restart marker");
    }
    b[rst + 1] = '\xd5';
    c.add("jpeg_restart_out_of_order.jpg", b, Outcome::kEither,
          jpegTags(restart) + Tags{"corrupt"});
    c.add("jpeg_trailing_garbage.jpg", jpeg + "trailing bytes after EOI", Outcome::kDecoded,
          jpegTags(s));
    c.add("jpeg_named_as.png", jpeg, Outcome::kDecoded, jpegTags(s) + Tags{"misnamed"});
    const Segment app0 = findSegment(jpeg, 0xe0);
    c.add("jpeg_extraneous_bytes_in_header.jpg", insertAt(jpeg, app0.end, "stray bytes"),
          Outcome::kEither, jpegTags(s) + Tags{"corrupt"});
    c.add("jpeg_app0_length_past_end.jpg", replaced(jpeg, app0.offset + 2, "\xff\xff"),
          Outcome::kRefused, jpegTags(s) + Tags{"corrupt"});
    const Segment scan = findSegment(jpeg, kSos);
    c.add("jpeg_eoi_inside_scan.jpg", jpeg.substr(0, (scan.dataStart + scan.end) / 2) + "\xff\xd9",
          Outcome::kEither, jpegTags(s) + Tags{"corrupt"});
    Bytes noRestart = encodeJpeg(restart);
    noRestart.erase(rst, 2);
    c.add("jpeg_restart_marker_missing.jpg", noRestart, Outcome::kEither,
          jpegTags(restart) + Tags{"corrupt"});
    JpegRecipe extended = s;
    extended.quality = 1;
    extended.forceBaseline = false;
    const Bytes extendedJpeg = encodeJpeg(extended);
    if (startOfFrame(extendedJpeg).marker != 0xc1) {
        fail("no 16-bit quantisation tables");
    }
    c.add("jpeg_extended_sequential.jpg", extendedJpeg, Outcome::kDecoded, jpegTags(extended));
}

// Segments after the image data that libjpeg meets only when it finishes: a
// single-scan file has all its rows by then, a progressive one none.
void addJpegSegmentsAfterScan(Corpus& c) {
    const Bytes badTable = Bytes("\xff\xc4\x00\x13\x00", 5) + Bytes(16, '\xff');
    JpegRecipe progressive = jpegRecipe(JpegColour::kYCbCr);
    progressive.progressive = true;
    for (const JpegRecipe& s : {jpegRecipe(JpegColour::kYCbCr), progressive}) {
        const Bytes jpeg = encodeJpeg(s);
        const size_t eoi = findSegment(jpeg, kEoi).offset;
        const Segment sof = startOfFrame(jpeg);
        const std::string kind = s.progressive ? "progressive" : "baseline";
        c.add("jpeg_" + kind + "_bad_table_after_scan.jpg", insertAt(jpeg, eoi, badTable),
              Outcome::kEither, jpegTags(s) + Tags{"corrupt"});
        c.add("jpeg_" + kind + "_second_frame_after_scan.jpg",
              insertAt(jpeg, eoi, jpeg.substr(sof.offset, sof.end - sof.offset)), Outcome::kEither,
              jpegTags(s) + Tags{"corrupt"});
    }
}

// ---- Bounds, other formats, nothing ------------------------------------------

void addBounds(Corpus& c) {
    const Tags at{"at-bound"};
    const Tags over{"over-bound"};
    PngRecipe s = pngLayout(PNG_COLOR_TYPE_GRAY, 8);
    s.width = 256;
    s.height = 256;
    addPng(c, s, "", at);
    s.width = 65537;
    s.height = 1;
    addPng(c, s, "", over, Outcome::kRefused);
    s = pngLayout(PNG_COLOR_TYPE_PALETTE, 2, true);
    s.width = 257;
    s.height = 256;
    addPng(c, s, "", over, Outcome::kRefused);
    s = pngLayout(PNG_COLOR_TYPE_RGB, 8);
    const Bytes png = encodePng(s);
    const Tags pngCorrupt = pngTags(s) + Tags{"corrupt"} + over;
    c.add("png_header_100000x100000.png", patchSize(png, 100000, 100000), Outcome::kRefused,
          pngCorrupt);
    c.add("png_header_1048577x1.png", patchSize(png, 1048577, 1), Outcome::kRefused, pngCorrupt);
    c.add("png_header_300x300.png", patchSize(png, 300, 300), Outcome::kRefused, pngCorrupt);

    JpegRecipe j = jpegRecipe(JpegColour::kGrey);
    j.width = 256;
    j.height = 256;
    j.quality = 20;  // small files: only the size matters here
    addJpeg(c, "jpeg_grey_256x256.jpg", j, at);
    j = jpegRecipe(JpegColour::kYCbCr);
    j.width = 257;
    j.height = 256;
    j.quality = 20;
    c.add("jpeg_colour_257x256.jpg", encodeJpeg(j), Outcome::kRefused, jpegTags(j) + over);
    j = jpegRecipe(JpegColour::kYCbCr);
    const Bytes jpeg = encodeJpeg(j);
    const Tags jpegCorrupt = jpegTags(j) + Tags{"corrupt"} + over;
    c.add("jpeg_frame_65000x65000.jpg", patchFrameSize(jpeg, 65000, 65000), Outcome::kRefused,
          jpegCorrupt);
    c.add("jpeg_frame_300x300.jpg", patchFrameSize(jpeg, 300, 300), Outcome::kRefused, jpegCorrupt);
}

void addOtherFormats(Corpus& c) {
    c.add("bmp_24.bmp", bmp(kWidth, kHeight, 24, false), Outcome::kDecoded, {"bmp"});
    c.add("bmp_24_top_down.bmp", bmp(kWidth, kHeight, 24, true), Outcome::kDecoded, {"bmp"});
    c.add("bmp_8_grey.bmp", bmp(kWidth, kHeight, 8, false), Outcome::kDecoded, {"bmp"});
    c.add("bmp_32.bmp", bmp(kWidth, kHeight, 32, false), Outcome::kDecoded, {"bmp"});
    c.add("pnm_p6.ppm", pnm("P6", kWidth, kHeight, 255), Outcome::kDecoded, {"pnm"});
    c.add("pnm_p5.pgm", pnm("P5", kWidth, kHeight, 255), Outcome::kDecoded, {"pnm"});
    c.add("pnm_p5_16.pgm", pnm("P5", kWidth, kHeight, 65535), Outcome::kDecoded, {"pnm"});
    c.add("pnm_p4.pbm", pnm("P4", kWidth, kHeight, 1), Outcome::kDecoded, {"pnm"});
    c.add("pnm_p3.ppm", pnm("P3", kWidth, kHeight, 255), Outcome::kDecoded, {"pnm"});
    c.add("unknown_text.png", "not an image, whatever the name says\n", Outcome::kRefused,
          {"unknown"});
    c.add("unknown_gif.gif", Bytes("GIF89a\1\0\1\0\0\0\0;", 13), Outcome::kRefused, {"unknown"});
    Bytes notPng = encodePng(pngLayout(PNG_COLOR_TYPE_RGB, 8));
    notPng[1] = 'p';
    c.add("unknown_png_signature_wrong.png", notPng, Outcome::kRefused, {"unknown"});
    Bytes notJpeg = encodeJpeg(jpegRecipe(JpegColour::kYCbCr));
    notJpeg[2] = '\0';
    c.add("unknown_jpeg_signature_wrong.jpg", notJpeg, Outcome::kRefused, {"unknown"});
}

void addNothing(Corpus& c) {
    c.add("empty.png", "", Outcome::kRefused, {"empty"});
    c.add("png_signature_only.png", Bytes("\x89PNG\r\n\x1a\n", 8), Outcome::kRefused,
          {"png", "empty"});
    c.add("jpeg_soi_only.jpg", Bytes("\xff\xd8", 2), Outcome::kRefused, {"jpeg", "empty"});
    c.add("jpeg_soi_and_marker_start.jpg", Bytes("\xff\xd8\xff", 3), Outcome::kRefused,
          {"jpeg", "empty"});
    c.add("one_byte.png", Bytes(1, '\x89'), Outcome::kRefused, {"empty"});
}

}  // namespace

std::vector<CorpusFile> writeImageCorpus(const std::string& dir) {
    Corpus c(dir);
    addPngLayouts(c);
    addPngSizes(c);
    addPngColourChunks(c);
    addPngOddColourChunks(c);
    addPngOtherChunks(c);
    addPngExif(c);
    addPngOddExif(c);
    addPngTruncated(c);
    addPngCorrupt(c);
    addPngOddStructure(c);
    addPngMisplacedChunks(c);
    addJpegCodings(c);
    addJpegOptions(c);
    addJpegSizes(c);
    addJpegExif(c);
    addJpegOddExif(c);
    addJpegTruncated(c);
    addJpegCorrupt(c);
    addJpegSegmentsAfterScan(c);
    addBounds(c);
    addOtherFormats(c);
    addNothing(c);
    return std::move(c).files();
}

}  // namespace dravik::image::corpus
