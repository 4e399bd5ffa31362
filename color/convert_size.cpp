// Buffer size of an in-place row conversion.
#include <algorithm>

#include "zkernel.h"

namespace {

// Row bytes rounded up to a multiple of 4, in 32-bit unsigned arithmetic as
// the bitmap record keeps them. Depth 0 (8-bit gray) counts as 8 bits.
uint32_t row_bytes(int32_t width, uint32_t bits) { return ((static_cast<uint32_t>(width) * bits + 31u) >> 3) & ~3u; }

}  // namespace

// The buffer holds the source row and, written over it, the destination row;
// the destination width is also measured at the source depth because the
// caller may read the source at the destination width.
extern "C" int32_t Z_API Z_CalcConvertSize(int32_t width, uint32_t bitsPerPixel, int32_t width2,
                                           uint32_t bitsPerPixel2) {
    const uint32_t s = bitsPerPixel == 0 ? 8u : bitsPerPixel;
    const uint32_t d = bitsPerPixel2 == 0 ? 8u : bitsPerPixel2;
    const uint32_t size = std::max({row_bytes(width, s), row_bytes(width2, s), row_bytes(width2, d)});
    return static_cast<int32_t>(size);
}
