// Gray-scale conversion: a bitmap replaced in place by its gray levels,
// through colour resolution's conversion path (rows converted from storage
// into storage, the result committed only when complete).
#include <cstring>

#include "bitmap_handle.h"
#include "reduce/color_res.h"

namespace zk::reduce {
namespace {

// An 8-bit bitmap whose palette is the 256-level ramp already holds gray
// levels as its indices.
bool holds_gray_levels(const BitmapHandle& b) {
    if (b.BitsPerPixel != 8 || b.ColorCount != 256 || !b.Palette) return false;
    for (uint32_t i = 0; i < 256; ++i) {
        const RGBQUAD& e = b.Palette[i];
        if (e.rgbBlue != i || e.rgbGreen != i || e.rgbRed != i) return false;
    }
    return true;
}

}  // namespace
}  // namespace zk::reduce

extern "C" int32_t Z_API Z_GrayScaleBitmap(BitmapHandle* bitmap, int32_t bitsPerPixel) {
    using namespace zk;
    if (!bitmap) return ST_BAD_PARAM;
    if (bitmap->StructSize != kStructSize) return ST_BAD_STRUCT_SIZE;
    if (bitsPerPixel != 8 && bitsPerPixel != 12 && bitsPerPixel != 16) return ST_BAD_BPP;
    if (allocated(bitmap) && !has(*bitmap, BF_SIGNED)) {
        const bool done = bitsPerPixel == 8 ? reduce::holds_gray_levels(*bitmap)
                                            : bitmap->BitsPerPixel == bitsPerPixel && bitmap->Order == CO_GRAY;
        if (done) return ST_OK;
    }
    reduce::ColorResRequest rq;
    rq.source = bitmap;
    rq.struct_size = kStructSize;
    rq.bits = bitsPerPixel;
    rq.gray = true;
    return reduce::color_res(rq, bitmap);
}
