#pragma once

#include <cstddef>
#include <cstdint>

// Line conversions from drawing-buffer pixels (three bytes each: blue, green,
// red) to the pixel formats that real panels report, computed from the
// channel values directly instead of through the engine's lookup tables. Each
// reads exactly 3 x `width` bytes and writes exactly `width` pixels; `src` and
// `dst` must not overlap. The engine uses one only after checking that its
// lookup tables (or dither tables) hold exactly what it computes.
namespace dravik::lcmgui::pixels {

using LineKernel = void (*)(const uint8_t* src, uint8_t* dst, unsigned width);

// 16-bit words red 11/5, green 5/6, blue 0/5, in the processor's byte order.
void toRgb565(const uint8_t* src, uint8_t* dst, unsigned width);
// 16-bit words red 10/5, green 5/5, blue 0/5 (top bit clear).
void toRgb555(const uint8_t* src, uint8_t* dst, unsigned width);
// 32-bit words red 16/8, green 8/8, blue 0/8 (top byte clear).
void toXrgb8888(const uint8_t* src, uint8_t* dst, unsigned width);
// A quarter-turned conversion: `rows` lines of `cols` pixels, line i starting
// at src + i * srcStep, go to the panel's columns, so that pixel j of line i
// lands at dst + j * dstStep + i * (bytes of a panel pixel). Each line is read
// as the line conversion reads it, 3 x `cols` bytes.
using TurnedKernel = void (*)(const uint8_t* src, ptrdiff_t srcStep, unsigned cols, unsigned rows,
                              uint8_t* dst, ptrdiff_t dstStep);

// toXrgb8888 quarter-turned.
void toXrgb8888Turned(const uint8_t* src, ptrdiff_t srcStep, unsigned cols, unsigned rows,
                      uint8_t* dst, ptrdiff_t dstStep);
// One byte per pixel: the index into the 8 x 8 x 4 dither palette of the
// channels' truncated levels, byte 0 giving the 8 levels weighted 32, byte 1
// the 8 levels weighted 4 and byte 2 the 4 levels weighted 1.
void toPaletteIndex884(const uint8_t* src, uint8_t* dst, unsigned width);

}  // namespace dravik::lcmgui::pixels
