// Colour resolution of bitmap lists: one palette for every bitmap, each
// bitmap converted in place and stored back in its slot.
#include <cstring>

#include "reduce/color_res.h"
#include "zkernel.h"

namespace {

constexpr uint32_t kSelectorBits = 0x2FFu & ~(CRF_BYTE_ORDER_BGR | CRF_BYTE_ORDER_GRAY);

bool optimized_selector(uint32_t flags, int32_t bits) {
    if (bits < 1 || bits > 8) return false;
    const uint32_t selector = flags & kSelectorBits;
    return (selector & ~(CRF_OPTIMIZED_PALETTE | CRF_PRESET_PALETTE | CRF_NO_MATCH_TABLE)) == 0;
}

}  // namespace

extern "C" int32_t Z_API Z_ColorResBitmapListExt(BitmapList list, int32_t bitsPerPixel, uint32_t flags,
                                                 const RGBQUAD* palette, HPALETTE paletteHandle, uint32_t colors,
                                                 uint32_t first, uint32_t count) {
    uint32_t items = 0;
    if (!list || Z_GetBitmapListCount(list, &items) != ST_OK || first >= items) return ST_BAD_PARAM;
    const uint32_t last = count == 0 || count > items - first ? items : first + count;

    // An optimized palette is built once from every bitmap of the list and
    // then given to each conversion as the caller's palette.
    RGBQUAD shared[256];
    if (!paletteHandle && optimized_selector(flags, bitsPerPixel)) {
        const uint32_t most = 1u << bitsPerPixel;
        const uint32_t n = colors == 0 || colors > most ? most : colors;
        for (uint32_t i = 0; i < n; ++i) shared[i] = palette ? palette[i] : RGBQUAD{0, 0, 0, Z_PAL_FILL};
        if (flags & CRF_PRESET_PALETTE) {
            shared[0] = RGBQUAD{0, 0, 0, 0};
            if (n > 1) shared[n - 1] = RGBQUAD{255, 255, 255, 0};
        }
        const int32_t s = Z_CreateBitmapListOptPal(list, shared, n, nullptr, nullptr, nullptr);
        if (s != ST_OK) return s;
        flags = (flags & ~kSelectorBits) | CRF_USER_PALETTE;
        palette = shared;
        colors = n;
    }
    for (uint32_t i = first; i < last; ++i) {
        BitmapHandle item, result;
        if (const int32_t s = Z_GetBitmapListItem(list, i, &item, Z_BITMAPHANDLE_SIZE); s != ST_OK) return s;
        std::memset(&result, 0, sizeof result);
        zk::reduce::ColorResRequest rq;
        rq.source = &item;
        rq.struct_size = Z_BITMAPHANDLE_SIZE;
        rq.bits = bitsPerPixel;
        rq.flags = flags;
        rq.palette = palette;
        rq.palette_handle = paletteHandle;
        rq.colors = colors;
        if (const int32_t s = zk::reduce::color_res(rq, &result); s != ST_OK) return s;
        // The slot takes the result; the bitmap it held is freed.
        if (const int32_t s = Z_SetBitmapListItem(list, i, &result); s != ST_OK) {
            Z_FreeBitmap(&result);
            return s;
        }
        Z_FreeBitmap(&item);
    }
    return ST_OK;
}

extern "C" int32_t Z_API Z_ColorResBitmapList(BitmapList list, int32_t bitsPerPixel, uint32_t flags,
                                              const RGBQUAD* palette, HPALETTE paletteHandle, uint32_t colors) {
    return Z_ColorResBitmapListExt(list, bitsPerPixel, flags, palette, paletteHandle, colors, 0, 0);
}
