// Nearest-neighbour scaling of one packed row by exact integer stepping.
// Exports: Z_GetResizedScanLine, Z_ReverseGetResizedScanLine.
//
// Pixels are reached through one small accessor per packing, chosen by the
// pixel-format table: whole bytes copied as such, bit fields and 12-bit
// samples through core/packed_pixels.h. Positions are kept in the
// accessor's unit (bytes, or pixels for the packed depths) and advanced by
// adds only.
//
// May include: include/zkernel.h, core/bitmap_handle.h, core/packed_pixels.h, core/pixel_format.h, geometry/resize.h.
#include <array>
#include <cstring>
#include <utility>

#include "bitmap_handle.h"
#include "core/packed_pixels.h"
#include "core/pixel_format.h"
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

// B-bit fields (B < 8) from the most significant bit; positions in pixels.
// Writing keeps every bit outside the field.
template <int B>
struct FieldPixels {
    static constexpr int64_t kUnit = 1;
    static void copy(const uint8_t* src, int64_t from, uint8_t* dst, int64_t to) {
        packed::put_field(dst, static_cast<uint64_t>(to), B, packed::get_field(src, static_cast<uint64_t>(from), B));
    }
};

// 12-bit samples; positions in pixels. Writing keeps the neighbour's bits.
struct Gray12Pixels {
    static constexpr int64_t kUnit = 1;
    static void copy(const uint8_t* src, int64_t from, uint8_t* dst, int64_t to) {
        packed::put12(dst, static_cast<uint64_t>(to), packed::get12(src, static_cast<uint64_t>(from)));
    }
};

// Whole pixels the position moves per step besides the accumulator's carry:
// an enlarging line moves on the accumulator alone, except with 16-bit
// channels.
int64_t step_of(const Line& line) {
    const bool step_form_only = pixel_format(line.bpp).packing == Packing::Channels16;
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

// A depth's scaler and whether its forward scaling clears the destination
// bytes first (the bit fields but 4, and 12-bit samples).
struct Scaler {
    void (*run)(const Line& line, const uint8_t* src, uint8_t* dst, bool backward) = nullptr;
    bool clears_first = false;
};

// Each depth's scaler, chosen by its entry in the pixel-format table.
template <int32_t Depth>
constexpr Scaler scaler_of() {
    constexpr PixelFormat f = pixel_format(Depth);
    if constexpr (!f.bitmap)
        return {};
    else if constexpr (f.packing == Packing::Fields)
        return {run<FieldPixels<f.bits>>, f.bits != 4};
    else if constexpr (f.packing == Packing::Gray12)
        return {run<Gray12Pixels>, true};
    else
        return {run<BytePixels<f.bits / 8>>, false};
}

template <size_t... D>
constexpr auto scaler_table(std::index_sequence<D...>) {
    return std::array<Scaler, sizeof...(D)>{scaler_of<static_cast<int32_t>(D)>()...};
}

constexpr auto kScalers = scaler_table(std::make_index_sequence<kMaxDepth + 1>());

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
    const Scaler& s = kScalers[static_cast<size_t>(line.bpp)];
    if (s.clears_first) std::memset(dst, 0, static_cast<size_t>(line.bytes));
    s.run(line, src, dst, false);
}

void scale_reverse(const Line& line, const uint8_t* src, uint8_t* dst) {
    if (!src || !dst || !valid(line)) return;
    kScalers[static_cast<size_t>(line.bpp)].run(line, src, dst, line.enlarge);
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
