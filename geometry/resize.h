// Nearest-neighbour row scaling and the size rule of resizing, shared by the
// streaming resizer and whole-bitmap resizing.
//
// Rows here are packed pixel runs in caller buffers: depths below 8 lie from
// the most significant bit of each byte, 12-bit pixels are little-endian
// 12-bit fields (two pixels in three bytes), and deeper pixels are whole
// bytes (1, 2, 3, 4, 6 or 8).
//
// May include: include/zkernel.h, core/bitmap_handle.h.
#pragma once

#include <cstdint>

namespace zk::resize {

// One scaled row. Destination pixel j (0 <= j < count) copies the source
// pixel reached after j steps from `start`: each step adds `step` pixels and
// `rem` to an accumulator that starts at `acc`; when the accumulator reaches
// `denom` it loses `denom` and the position one more pixel. With start 0,
// acc 0, step n / m, rem n % m and denom m this copies source pixel
// floor(j * n / m). With `enlarge` set, depths other than 48 and 64 bits
// ignore `step` and advance only on the accumulator.
struct Line {
    int32_t bpp = 0;
    int32_t bytes = 0;  // destination bytes cleared first by scale_forward
    int32_t start = 0;
    int32_t step = 0;
    int32_t acc = 0;
    int32_t rem = 0;
    int32_t count = 0;
    int32_t denom = 0;
    bool enlarge = false;
};

// Whether a line can be scaled: a depth of 1-8, 12, 16, 24, 32, 48 or 64
// bits; count, bytes, start and step not negative; denom above 0; rem and acc
// in 0..denom-1; and no pixel position past 2^31 - 1.
bool valid(const Line& line);

// Copies the pixels in destination order. At depths 1, 2, 3, 5, 6, 7 and 12
// the first `bytes` bytes of dst are cleared first, so src and dst must not
// overlap there; at the other depths a shrinking line (no source position
// below its destination position) may be scaled in place. Nothing happens
// when !valid(line).
void scale_forward(const Line& line, const uint8_t* src, uint8_t* dst);

// The in-place scaler. With `enlarge` set it fills dst from its last pixel
// back, so enlarging in place never overwrites a source pixel before it is
// read; otherwise it works forwards and writes each pixel into its own bits
// without clearing anything, so shrinking in place is safe at every depth.
// Nothing happens when !valid(line).
void scale_reverse(const Line& line, const uint8_t* src, uint8_t* dst);

// The size rule of resizing: a negative request, both requests 0, or an old
// size not above 0 is ST_BAD_PARAM. A request of 0 in one dimension is
// derived from the other, keeping the aspect ratio with a rounding
// multiply-divide; a derived size that is not above 0 or does not fit 31 bits
// is ST_BAD_PARAM. ST_OK with *width and *height set otherwise.
int32_t normalise_size(int32_t old_width, int32_t old_height, int32_t* width, int32_t* height);

}  // namespace zk::resize
