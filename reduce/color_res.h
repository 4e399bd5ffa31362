// Colour resolution: a bitmap converted to another depth with a palette
// chosen or built for it, rows dithered or converted, the result in a new
// record, in the source's own record, or only seen by a row callback.
//
// May include: include/zkernel.h.
#pragma once

#include <cstdint>

#include "zkernel.h"

namespace zk::reduce {

// The arguments of Z_ColorResBitmap.
struct ColorResRequest {
    BitmapHandle* source = nullptr;
    uint32_t struct_size = 0;
    int32_t bits = 0;
    uint32_t flags = 0;
    const RGBQUAD* palette = nullptr;
    HPALETTE palette_handle = nullptr;
    uint32_t colors = 0;
    COLORRESCALLBACK callback = nullptr;
    void* user = nullptr;
    // Gray levels instead of the flags' palette and order: at 8 bits with
    // the 256-level gray ramp as the palette, at 12 and 16 bits in CO_GRAY.
    // Rows are always converted, never dithered.
    bool gray = false;
};

// Z_ColorResBitmap: dst null, another record, or the source itself.
int32_t color_res(const ColorResRequest& request, BitmapHandle* dst);

}  // namespace zk::reduce
