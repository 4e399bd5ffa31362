// Small helpers over the BitmapHandle record shared by every subsystem.
//
// May include: include/zkernel.h.
#pragma once

#include <cstdint>

#include "zkernel.h"

namespace zk {

constexpr uint32_t kStructSize = static_cast<uint32_t>(sizeof(BitmapHandle));

// Depths a bitmap may have.
constexpr bool valid_depth(int32_t bpp) {
    switch (bpp) {
        case 1:
        case 2:
        case 3:
        case 4:
        case 5:
        case 6:
        case 7:
        case 8:
        case 12:
        case 16:
        case 24:
        case 32:
        case 48:
        case 64: return true;
        default: return false;
    }
}

// Stored row length: ((width * bpp + 31) >> 3) with the two low bits cleared,
// in the 32-bit unsigned arithmetic of the record.
constexpr uint32_t bytes_per_line(int32_t width, int32_t bpp) {
    return ((static_cast<uint32_t>(width) * static_cast<uint32_t>(bpp) + 31u) >> 3) & ~3u;
}

// Byte offset of pixel column c inside a row.
constexpr uint64_t column_offset(int32_t bpp, uint32_t c) {
    const uint64_t x = c;
    switch (bpp) {
        case 1: return x >> 3;
        case 2: return x >> 2;
        case 3: return (3 * x) >> 3;
        case 4: return x >> 1;
        case 5: return (5 * x) >> 3;
        case 6: return (3 * x) >> 2;
        case 7: return (7 * x) >> 3;
        case 12: return x + (x >> 1);
        case 16: return 2 * x;
        case 24: return 3 * x;
        case 32: return 4 * x;
        case 48: return 6 * x;
        case 64: return 8 * x;
        default: return x;
    }
}

inline bool has(const BitmapHandle& b, uint32_t flag) { return (b.Flags & flag) != 0; }
inline bool allocated(const BitmapHandle* b) { return b && (b->Flags & BF_ALLOCATED); }

}  // namespace zk
