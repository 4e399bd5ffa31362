// Small helpers over the BitmapHandle record shared by every subsystem.
//
// May include: include/zkernel.h, core/pixel_format.h.
#pragma once

#include <cstddef>
#include <cstdint>

#include "core/pixel_format.h"
#include "zkernel.h"

namespace zk {

constexpr uint32_t kStructSize = static_cast<uint32_t>(sizeof(BitmapHandle));

// Padded row length of `width` pixels at `bits` per pixel: ((width * bits +
// 31) >> 3) with the two low bits cleared. Exact in 64 bits for every width
// below 2^31 and every bit count below 2^32.
constexpr uint64_t padded_row_bytes(uint64_t width, uint64_t bits) { return ((width * bits + 31) >> 3) & ~uint64_t{3}; }

// Largest stored row: row access moves a row in one call whose result is a
// signed 32-bit byte count.
constexpr uint64_t kMaxRowBytes = 0x7FFFFFFCu;
// Largest image: no object or file offset may exceed PTRDIFF_MAX.
constexpr uint64_t kMaxImageBytes = static_cast<uint64_t>(PTRDIFF_MAX);

// Row length and byte size of an image. Every size the library derives from
// a width, a height and a depth comes from here.
struct ImageSize {
    int32_t status;           // ST_OK, ST_BAD_PARAM (negative dimension) or ST_TOO_LARGE
    uint32_t bytes_per_line;  // valid when status is ST_OK
    size_t size;              // bytes_per_line * height
};

// Checked in 64 bits: a negative dimension is ST_BAD_PARAM; a row longer than
// kMaxRowBytes or an image larger than kMaxImageBytes (which also bounds
// size_t on 32-bit targets) is ST_TOO_LARGE. `bits` is taken as given (the
// caller checks the depth).
constexpr ImageSize image_size(int64_t width, int64_t height, int64_t bits) {
    if (width < 0 || height < 0 || bits < 0) return {ST_BAD_PARAM, 0, 0};
    if (width > INT32_MAX || height > INT32_MAX || bits > UINT32_MAX) return {ST_TOO_LARGE, 0, 0};
    const uint64_t row = padded_row_bytes(static_cast<uint64_t>(width), static_cast<uint64_t>(bits));
    if (row > kMaxRowBytes) return {ST_TOO_LARGE, 0, 0};
    const uint64_t total = row * static_cast<uint64_t>(height);  // below 2^62
    if (total > kMaxImageBytes) return {ST_TOO_LARGE, 0, 0};
    return {ST_OK, static_cast<uint32_t>(row), static_cast<size_t>(total)};
}

// Whether the record's own row length and size hold its Width x Height
// pixels (so that no row or pixel address derived from them leaves the
// storage). Records filled by Z_InitBitmap always do.
constexpr bool geometry_consistent(const BitmapHandle& b) {
    const ImageSize want = image_size(b.Width, b.Height, b.BitsPerPixel);
    if (want.status != ST_OK) return false;
    const uint64_t need = uint64_t{b.BytesPerLine} * static_cast<uint64_t>(b.Height);
    return b.BytesPerLine >= want.bytes_per_line && b.BytesPerLine <= kMaxRowBytes && need <= b.Size;
}

// A flag bit with no meaning of its own here that survives re-allocation and
// that duplication carries from its source (callers may keep a mark in it).
constexpr uint32_t kFlagCarried = 0x10000u;

inline bool has(const BitmapHandle& b, uint32_t flag) { return (b.Flags & flag) != 0; }
inline bool allocated(const BitmapHandle* b) { return b && (b->Flags & BF_ALLOCATED); }

}  // namespace zk
