// Nearest-neighbour scaling of one packed row by exact integer stepping.
// Exports: Z_GetResizedScanLine, Z_ReverseGetResizedScanLine.
//
// Pixels are reached through one small accessor per packing (whole bytes,
// most-significant-first bit fields, little-endian 12-bit fields); offsets
// are kept in the accessor's unit (bytes or bits) and advanced by adds only.
//
// May include: include/zkernel.h, core/bitmap_handle.h, geometry/resize.h.
#include <cstring>

#include "bitmap_handle.h"
#include "geometry/resize.h"
#include "zkernel.h"

namespace zk::resize {
namespace {

// Whole-byte pixels of N bytes; offsets in bytes. The pixel goes through a
// local copy, so source and destination may be the same pixel.
template <int N>
struct BytePixels {
    static constexpr int64_t kUnit = N;
    static void copy(const uint8_t* src, int64_t from, uint8_t* dst, int64_t to) {
        uint8_t pixel[N];
        std::memcpy(pixel, src + from, N);
        std::memcpy(dst + to, pixel, N);
    }
};

// B-bit pixels (B < 8) packed from the most significant bit; offsets in bits.
// A field spans at most two bytes; the second is touched only when the field
// reaches into it. Writing keeps every bit outside the field.
template <int B>
struct MsbPixels {
    static constexpr int64_t kUnit = B;
    static constexpr unsigned kMask = (1u << B) - 1;
    static void copy(const uint8_t* src, int64_t from, uint8_t* dst, int64_t to) {
        const unsigned value = read(src + (from >> 3), static_cast<int>(from & 7));
        write(dst + (to >> 3), static_cast<int>(to & 7), value);
    }
    static unsigned read(const uint8_t* p, int bit) {
        if (bit + B <= 8) return (p[0] >> (8 - bit - B)) & kMask;
        const unsigned word = (unsigned{p[0]} << 8) | p[1];
        return (word >> (16 - bit - B)) & kMask;
    }
    static void write(uint8_t* p, int bit, unsigned value) {
        if (bit + B <= 8) {
            const int shift = 8 - bit - B;
            p[0] = static_cast<uint8_t>((p[0] & ~(kMask << shift)) | (value << shift));
            return;
        }
        const int shift = 16 - bit - B;
        const unsigned word = (((unsigned{p[0]} << 8) | p[1]) & ~(kMask << shift)) | (value << shift);
        p[0] = static_cast<uint8_t>(word >> 8);
        p[1] = static_cast<uint8_t>(word);
    }
};

// 12-bit pixels: pixel k is bits 0-11 (k even) or 4-15 (k odd) of the
// little-endian 16-bit word at byte 12k / 8; offsets in bits.
struct TwelveBitPixels {
    static constexpr int64_t kUnit = 12;
    static void copy(const uint8_t* src, int64_t from, uint8_t* dst, int64_t to) {
        const uint8_t* s = src + (from >> 3);
        const unsigned value = (((unsigned{s[1]} << 8) | s[0]) >> (from & 7)) & 0xFFFu;
        uint8_t* d = dst + (to >> 3);
        const unsigned shift = static_cast<unsigned>(to & 7);
        const unsigned word = ((((unsigned{d[1]} << 8) | d[0]) & ~(0xFFFu << shift)) | (value << shift));
        d[0] = static_cast<uint8_t>(word);
        d[1] = static_cast<uint8_t>(word >> 8);
    }
};

// Depths whose forward scaling clears the destination bytes first.
constexpr bool clears_first(int32_t bpp) { return bpp < 8 ? bpp != 4 : bpp == 12; }

// Whole pixels the position moves per step besides the accumulator's carry.
int64_t step_of(const Line& line) {
    const bool step_form_only = line.bpp == 48 || line.bpp == 64;
    return line.enlarge && !step_form_only ? 0 : line.step;
}

// Source position after all `count` steps.
int64_t end_position(const Line& line) {
    const int64_t total = int64_t{line.acc} + int64_t{line.rem} * line.count;
    return line.start + step_of(line) * line.count + total / line.denom;
}

template <class Px>
void run_forward(const Line& line, const uint8_t* src, uint8_t* dst) {
    const int64_t step = step_of(line) * Px::kUnit;
    const int64_t m = line.denom, r = line.rem;
    int64_t from = line.start * Px::kUnit, to = 0, a = line.acc;
    for (int32_t j = 0; j < line.count; ++j) {
        Px::copy(src, from, dst, to);
        to += Px::kUnit;
        from += step;
        a += r;
        if (a >= m) {
            a -= m;
            from += Px::kUnit;
        }
    }
}

// The same positions, visited from the last destination pixel back: the
// stepping is run backwards from its end state.
template <class Px>
void run_backward(const Line& line, const uint8_t* src, uint8_t* dst) {
    const int64_t step = step_of(line) * Px::kUnit;
    const int64_t m = line.denom, r = line.rem;
    int64_t a = (int64_t{line.acc} + r * line.count) % m;
    int64_t from = end_position(line) * Px::kUnit, to = int64_t{line.count} * Px::kUnit;
    for (int32_t j = line.count; j > 0; --j) {
        from -= step;
        a -= r;
        if (a < 0) {
            a += m;
            from -= Px::kUnit;
        }
        to -= Px::kUnit;
        Px::copy(src, from, dst, to);
    }
}

template <class Px>
void run(const Line& line, const uint8_t* src, uint8_t* dst, bool backward) {
    if (backward)
        run_backward<Px>(line, src, dst);
    else
        run_forward<Px>(line, src, dst);
}

void dispatch(const Line& line, const uint8_t* src, uint8_t* dst, bool backward) {
    switch (line.bpp) {
        case 1: return run<MsbPixels<1>>(line, src, dst, backward);
        case 2: return run<MsbPixels<2>>(line, src, dst, backward);
        case 3: return run<MsbPixels<3>>(line, src, dst, backward);
        case 4: return run<MsbPixels<4>>(line, src, dst, backward);
        case 5: return run<MsbPixels<5>>(line, src, dst, backward);
        case 6: return run<MsbPixels<6>>(line, src, dst, backward);
        case 7: return run<MsbPixels<7>>(line, src, dst, backward);
        case 8: return run<BytePixels<1>>(line, src, dst, backward);
        case 12: return run<TwelveBitPixels>(line, src, dst, backward);
        case 16: return run<BytePixels<2>>(line, src, dst, backward);
        case 24: return run<BytePixels<3>>(line, src, dst, backward);
        case 32: return run<BytePixels<4>>(line, src, dst, backward);
        case 48: return run<BytePixels<6>>(line, src, dst, backward);
        case 64: return run<BytePixels<8>>(line, src, dst, backward);
        default: return;
    }
}

}  // namespace

bool valid(const Line& line) {
    if (!valid_depth(line.bpp)) return false;
    if (line.count < 0 || line.bytes < 0 || line.start < 0 || line.step < 0) return false;
    if (line.denom <= 0 || line.rem < 0 || line.rem >= line.denom || line.acc < 0 || line.acc >= line.denom)
        return false;
    return end_position(line) <= INT32_MAX;
}

void scale_forward(const Line& line, const uint8_t* src, uint8_t* dst) {
    if (!src || !dst || !valid(line)) return;
    if (clears_first(line.bpp)) std::memset(dst, 0, static_cast<size_t>(line.bytes));
    dispatch(line, src, dst, false);
}

void scale_reverse(const Line& line, const uint8_t* src, uint8_t* dst) {
    if (!src || !dst || !valid(line)) return;
    dispatch(line, src, dst, line.enlarge);
}

}  // namespace zk::resize

namespace {

zk::resize::Line line_of(int32_t bpp, int32_t bytes, int32_t start, int32_t step, int32_t acc, int32_t rem,
                         int32_t count, int32_t denom, int32_t enlarge) {
    zk::resize::Line line;
    line.bpp = bpp;
    line.bytes = bytes;
    line.start = start;
    line.step = step;
    line.acc = acc;
    line.rem = rem;
    line.count = count;
    line.denom = denom;
    line.enlarge = enlarge != 0;
    return line;
}

}  // namespace

extern "C" void Z_API Z_GetResizedScanLine(int32_t bitsPerPixel, int32_t bytes, int32_t start, int32_t step,
                                           int32_t accumulator, int32_t remainder, const uint8_t* src, uint8_t* dst,
                                           int32_t count, int32_t denominator, int32_t enlarge) {
    zk::resize::scale_forward(
        line_of(bitsPerPixel, bytes, start, step, accumulator, remainder, count, denominator, enlarge), src, dst);
}

extern "C" void Z_API Z_ReverseGetResizedScanLine(int32_t bitsPerPixel, int32_t bytes, int32_t start, int32_t step,
                                                  int32_t accumulator, int32_t remainder, const uint8_t* src,
                                                  uint8_t* dst, int32_t count, int32_t denominator, int32_t enlarge) {
    zk::resize::scale_reverse(
        line_of(bitsPerPixel, bytes, start, step, accumulator, remainder, count, denominator, enlarge), src, dst);
}
