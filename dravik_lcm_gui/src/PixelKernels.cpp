#include "PixelKernels.h"

#include "TileTranspose.h"

#include <cstddef>
#include <cstring>

// The conversions are written with the compiler's generic vectors: a byte
// shuffle becomes TBL on AArch64 and PSHUFB on x86-64. The three-byte pixels
// leave the compiler's own loop vectoriser with nothing it does well on
// x86-64, and x86-64's baseline (SSE2) has no byte shuffle at all, so there each
// conversion is also built for SSSE3 and AVX2 and the copy for the processor is
// chosen once, when the program is loaded.
// The helpers below must be inlined into each copy to be built for its
// processor, hence DRAVIK_PIXEL_INLINE.
#if defined(__x86_64__)
#define DRAVIK_PIXEL_KERNEL __attribute__((target_clones("avx2", "ssse3", "default")))
#else
#define DRAVIK_PIXEL_KERNEL
#endif
#define DRAVIK_PIXEL_INLINE [[gnu::always_inline]] inline

// 16-bit lanes are read from and written to memory as bytes in the processor's
// order; the panel words are stored in that order too.
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "lanes assume little-endian bytes");

namespace dravik::lcmgui::pixels {

namespace {

using U8x16 = uint8_t __attribute__((vector_size(16)));
using U8x8 = uint8_t __attribute__((vector_size(8)));
using U16x8 = uint16_t __attribute__((vector_size(16)));

constexpr size_t kLanePixels = 8;

DRAVIK_PIXEL_INLINE U8x16 load16(const uint8_t* p) {
    U8x16 v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

// The bytes of the pair (a, b) that `mask` names, 0 .. 15 from a and 16 .. 31
// from b. clang has no shuffle by a mask vector: the fuzz build, the one made
// with clang, takes the bytes one at a time.
DRAVIK_PIXEL_INLINE U8x16 shuffle(const U8x16& a, const U8x16& b, const U8x16& mask) {
#if defined(__clang__)
    U8x16 r = {};
    for (int i = 0; i < 16; ++i) {
        const unsigned m = mask[i] & 31u;
        r[i] = m < 16 ? a[m] : b[m - 16];
    }
    return r;
#else
    return __builtin_shuffle(a, b, mask);
#endif
}

// Byte `i` (0 .. 23) of eight pixels, as an index into the pair of 16-byte
// loads taken at bytes 0 and 8 of them.
constexpr uint8_t pixelByte(unsigned i) {
    return static_cast<uint8_t>(i < 16 ? i : i + 8);
}

// Eight pixels as two vectors of 16-bit lanes: byte 0 | byte 2 << 8 of each
// pixel, and byte 1 (twice: the high copy is masked off by every user).
struct Lanes {
    U16x8 outer;
    U16x8 middle;
};

DRAVIK_PIXEL_INLINE Lanes lanes(const uint8_t* src) {
    const U8x16 low = load16(src);
    const U8x16 high = load16(src + 8);
    constexpr U8x16 kOuter = {pixelByte(0),  pixelByte(2),  pixelByte(3),  pixelByte(5),
                              pixelByte(6),  pixelByte(8),  pixelByte(9),  pixelByte(11),
                              pixelByte(12), pixelByte(14), pixelByte(15), pixelByte(17),
                              pixelByte(18), pixelByte(20), pixelByte(21), pixelByte(23)};
    constexpr U8x16 kMiddle = {pixelByte(1),  pixelByte(1),  pixelByte(4),  pixelByte(4),
                               pixelByte(7),  pixelByte(7),  pixelByte(10), pixelByte(10),
                               pixelByte(13), pixelByte(13), pixelByte(16), pixelByte(16),
                               pixelByte(19), pixelByte(19), pixelByte(22), pixelByte(22)};
    return {reinterpret_cast<U16x8>(shuffle(low, high, kOuter)),
            reinterpret_cast<U16x8>(shuffle(low, high, kMiddle))};
}

DRAVIK_PIXEL_INLINE void store(uint8_t* dst, const U16x8& words) {
    std::memcpy(dst, &words, sizeof words);
}

// The per-pixel rules, on scalars (line ends) and on lanes of eight pixels
// alike: `outer` holds blue | red << 8 and `middle` green in its low byte.
template <typename T>
DRAVIK_PIXEL_INLINE T rgb565(T outer, T middle) {
    return ((outer >> 3) & 0x001F) | (outer & 0xF800) | ((middle & 0x00FC) << 3);
}

template <typename T>
DRAVIK_PIXEL_INLINE T rgb555(T outer, T middle) {
    return ((outer >> 3) & 0x001F) | ((outer >> 1) & 0x7C00) | ((middle & 0x00F8) << 2);
}

// Truncated levels: v * (shades - 1) / 256 is v / (256 / (shades - 1)) for
// every byte value (the engine checks its dither tables against this).
template <typename T>
DRAVIK_PIXEL_INLINE T paletteIndex884(T outer, T middle) {
    const T first = outer & 0x00FF;
    const T last = outer >> 8;
    const T second = middle & 0x00FF;
    return (((first * 7) >> 8) << 5) + (((second * 7) >> 8) << 2) + ((last * 3) >> 8);
}

DRAVIK_PIXEL_INLINE uint16_t outerOf(const uint8_t* pixel) {
    return static_cast<uint16_t>(pixel[0] | (pixel[2] << 8));
}

template <uint16_t (*rule)(uint16_t, uint16_t), U16x8 (*lanesRule)(U16x8, U16x8)>
DRAVIK_PIXEL_INLINE void toWords16(const uint8_t* src, uint8_t* dst, unsigned width) {
    size_t i = 0;
    for (; i + kLanePixels <= width; i += kLanePixels) {
        const Lanes l = lanes(src + 3 * i);
        store(dst + 2 * i, lanesRule(l.outer, l.middle));
    }
    for (; i < width; ++i) {
        const uint16_t word = rule(outerOf(src + 3 * i), src[3 * i + 1]);
        std::memcpy(dst + 2 * i, &word, sizeof word);
    }
}

}  // namespace

DRAVIK_PIXEL_KERNEL void toRgb565(const uint8_t* src, uint8_t* dst, unsigned width) {
    toWords16<rgb565<uint16_t>, rgb565<U16x8>>(src, dst, width);
}

DRAVIK_PIXEL_KERNEL void toRgb555(const uint8_t* src, uint8_t* dst, unsigned width) {
    toWords16<rgb555<uint16_t>, rgb555<U16x8>>(src, dst, width);
}

DRAVIK_PIXEL_KERNEL void toXrgb8888(const uint8_t* src, uint8_t* dst, unsigned width) {
    // Four pixels per 16-byte load, of which the last four bytes are not used:
    // the loads stop 16 bytes before the end of the line's 3 x width.
    constexpr U8x16 kZero = {};
    constexpr U8x16 kSpread = {0, 1, 2, 16, 3, 4, 5, 16, 6, 7, 8, 16, 9, 10, 11, 16};
    const size_t bytes = size_t{width} * 3;
    size_t i = 0;
    for (; 3 * i + 12 + 16 <= bytes; i += 8) {
        const U8x16 first = shuffle(load16(src + 3 * i), kZero, kSpread);
        const U8x16 second = shuffle(load16(src + 3 * i + 12), kZero, kSpread);
        std::memcpy(dst + 4 * i, &first, sizeof first);
        std::memcpy(dst + 4 * i + 16, &second, sizeof second);
    }
    for (; i < width; ++i) {
        dst[4 * i] = src[3 * i];
        dst[4 * i + 1] = src[3 * i + 1];
        dst[4 * i + 2] = src[3 * i + 2];
        dst[4 * i + 3] = 0;
    }
}

namespace {

using tiles::U32x4;

// Four pixels of a line as 32-bit words: a 16-byte load where the line holds
// it, else the twelve bytes alone.
DRAVIK_PIXEL_INLINE U32x4 xrgbOf4(const uint8_t* src, bool wholeLoad) {
    constexpr U8x16 kZero = {};
    constexpr U8x16 kSpread = {0, 1, 2, 16, 3, 4, 5, 16, 6, 7, 8, 16, 9, 10, 11, 16};
    U8x16 bytes = {};
    if (wholeLoad) {
        bytes = load16(src);
    } else {
        std::memcpy(&bytes, src, 12);
    }
    return reinterpret_cast<U32x4>(shuffle(bytes, kZero, kSpread));
}

DRAVIK_PIXEL_INLINE void storeWords(uint8_t* dst, const U32x4& words) {
    std::memcpy(dst, &words, sizeof words);
}

}  // namespace

// Four lines by four pixels at a time: each line's four pixels are spread to
// words, and the 4 x 4 words transposed in registers, so that each panel
// column receives four pixels in one store. The edges go one pixel at a time.
DRAVIK_PIXEL_KERNEL void toXrgb8888Turned(const uint8_t* src, ptrdiff_t srcStep, unsigned cols,
                                          unsigned rows, uint8_t* dst, ptrdiff_t dstStep) {
    const unsigned fullRows = rows / 4 * 4;
    const unsigned fullCols = cols / 4 * 4;
    for (unsigned i = 0; i < fullRows; i += 4) {
        const uint8_t* line = src + static_cast<ptrdiff_t>(i) * srcStep;
        uint8_t* to = dst + size_t{i} * 4;
        for (unsigned j = 0; j < fullCols; j += 4, to += 4 * dstStep) {
            // The load may take sixteen bytes while they stay within the line.
            const bool wholeLoad = 3 * size_t{j} + 16 <= 3 * size_t{cols};
            const U32x4 rows4[4] = {xrgbOf4(line + 3 * j, wholeLoad),
                                    xrgbOf4(line + srcStep + 3 * j, wholeLoad),
                                    xrgbOf4(line + 2 * srcStep + 3 * j, wholeLoad),
                                    xrgbOf4(line + 3 * srcStep + 3 * j, wholeLoad)};
            U32x4 columns[4];
            tiles::transpose(rows4, columns);
            storeWords(to, columns[0]);
            storeWords(to + dstStep, columns[1]);
            storeWords(to + 2 * dstStep, columns[2]);
            storeWords(to + 3 * dstStep, columns[3]);
        }
    }
    const auto onePixel = [&](unsigned i, unsigned j) {
        const uint8_t* from = src + static_cast<ptrdiff_t>(i) * srcStep + 3 * size_t{j};
        uint8_t* to = dst + static_cast<ptrdiff_t>(j) * dstStep + size_t{i} * 4;
        const uint8_t word[4] = {from[0], from[1], from[2], 0};
        std::memcpy(to, word, sizeof word);
    };
    for (unsigned i = 0; i < fullRows; ++i) {
        for (unsigned j = fullCols; j < cols; ++j) {
            onePixel(i, j);
        }
    }
    for (unsigned i = fullRows; i < rows; ++i) {
        for (unsigned j = 0; j < cols; ++j) {
            onePixel(i, j);
        }
    }
}

DRAVIK_PIXEL_KERNEL void toPaletteIndex884(const uint8_t* src, uint8_t* dst, unsigned width) {
    size_t i = 0;
    for (; i + kLanePixels <= width; i += kLanePixels) {
        const Lanes l = lanes(src + 3 * i);
        const U8x8 indices = __builtin_convertvector(paletteIndex884(l.outer, l.middle), U8x8);
        std::memcpy(dst + i, &indices, sizeof indices);
    }
    for (; i < width; ++i) {
        dst[i] =
            static_cast<uint8_t>(paletteIndex884<unsigned>(outerOf(src + 3 * i), src[3 * i + 1]));
    }
}

}  // namespace dravik::lcmgui::pixels
