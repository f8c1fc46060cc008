#pragma once

#include <cstdint>

// Square tiles of pixels transposed in vector registers: sixteen bytes a row,
// eight pixels of 16 bits or four of 32. Row i of the tile becomes column i.
// The compiler's generic vectors make these shuffles of whatever vector unit
// the function they are inlined into is built for.
namespace dravik::lcmgui::tiles {

using U16x8 = uint16_t __attribute__((vector_size(16)));
using U32x4 = uint32_t __attribute__((vector_size(16)));

// Inlined into each tile loop (and each processor's copy of it): a call per
// tile costs as much as the tile.
#define DRAVIK_TILE_INLINE [[gnu::always_inline]] inline

// Four rows of four words: pairs of rows interleaved by words, then by pairs.
DRAVIK_TILE_INLINE void transpose(const U32x4 (&rows)[4], U32x4 (&columns)[4]) {
    const U32x4 a0 = __builtin_shufflevector(rows[0], rows[1], 0, 4, 1, 5);
    const U32x4 a1 = __builtin_shufflevector(rows[0], rows[1], 2, 6, 3, 7);
    const U32x4 a2 = __builtin_shufflevector(rows[2], rows[3], 0, 4, 1, 5);
    const U32x4 a3 = __builtin_shufflevector(rows[2], rows[3], 2, 6, 3, 7);
    columns[0] = __builtin_shufflevector(a0, a2, 0, 1, 4, 5);
    columns[1] = __builtin_shufflevector(a0, a2, 2, 3, 6, 7);
    columns[2] = __builtin_shufflevector(a1, a3, 0, 1, 4, 5);
    columns[3] = __builtin_shufflevector(a1, a3, 2, 3, 6, 7);
}

// Eight rows of eight 16-bit pixels: pairs of rows interleaved by pixels, then
// by pairs, then by fours.
DRAVIK_TILE_INLINE void transpose(const U16x8 (&rows)[8], U16x8 (&columns)[8]) {
    U16x8 a[8];
    U16x8 b[8];
#pragma GCC unroll 8
    for (int i = 0; i < 8; i += 2) {
        a[i] = __builtin_shufflevector(rows[i], rows[i + 1], 0, 8, 1, 9, 2, 10, 3, 11);
        a[i + 1] = __builtin_shufflevector(rows[i], rows[i + 1], 4, 12, 5, 13, 6, 14, 7, 15);
    }
#pragma GCC unroll 8
    for (int i = 0; i < 8; i += 4) {
#pragma GCC unroll 8
        for (int h = 0; h < 2; ++h) {
            b[i + 2 * h] =
                __builtin_shufflevector(a[i + h], a[i + h + 2], 0, 1, 8, 9, 2, 3, 10, 11);
            b[i + 2 * h + 1] =
                __builtin_shufflevector(a[i + h], a[i + h + 2], 4, 5, 12, 13, 6, 7, 14, 15);
        }
    }
#pragma GCC unroll 8
    for (int i = 0; i < 4; ++i) {
        columns[2 * i] = __builtin_shufflevector(b[i], b[i + 4], 0, 1, 2, 3, 8, 9, 10, 11);
        columns[2 * i + 1] = __builtin_shufflevector(b[i], b[i + 4], 4, 5, 6, 7, 12, 13, 14, 15);
    }
}

}  // namespace dravik::lcmgui::tiles
