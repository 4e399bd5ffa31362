// Z_CreateBitmap: describe, allocate, give the palette, order and view
// perspective, and attach caller memory. It sits with the palettes because
// a new bitmap's palette is built here.
//
// May include: include/zkernel.h, core/bitmap_handle.h.
#include "bitmap_handle.h"

extern "C" int32_t Z_API Z_CreateBitmap(BitmapHandle* bitmap, int32_t structSize, uint32_t memoryType, int32_t width,
                                        int32_t height, int32_t bitsPerPixel, uint32_t order, const RGBQUAD* palette,
                                        uint32_t viewPerspective, void* data, size_t dataSize) {
    if (!bitmap) return ST_BAD_PARAM;
    if (structSize != Z_BITMAPHANDLE_SIZE) return ST_BAD_STRUCT_SIZE;
    bitmap->StructSize = zk::kStructSize;
    const int32_t depth = bitsPerPixel == 0 ? 8 : bitsPerPixel;
    if (int32_t s = Z_InitBitmap(bitmap, Z_BITMAPHANDLE_SIZE, width, height, depth); s != ST_OK) return s;
    if (order == CO_ALT_BGR && depth != 24 && depth != 48) return ST_BAD_BPP;
    if (int32_t s = Z_AllocateBitmap(bitmap, memoryType); s != ST_OK) return s;

    if (depth > 8) {
        bitmap->Order = order;
    } else {
        int32_t s = ST_OK;
        if (bitsPerPixel == 0) {
            s = Z_CreateBitmapGrayPalette(bitmap);
        } else if (palette) {
            RGBQUAD* copy = Z_CreateNewPalette(palette, bitmap->ColorCount);
            if (copy) {
                Z_OsFree(bitmap->Palette);
                bitmap->Palette = copy;
            } else {
                s = ST_NO_MEMORY;
            }
        } else {
            s = Z_CreateBitmapFixedPalette(bitmap);
        }
        if (s != ST_OK) {
            // Without its palette the bitmap is of no use: nothing is kept.
            Z_FreeBitmap(bitmap);
            return s;
        }
    }

    bitmap->ViewPerspective = viewPerspective == 0 ? VP_TOP_LEFT : viewPerspective;
    if (bitmap->ViewPerspective > VP_LEFT_BOTTOM) return ST_BAD_PARAM;  // storage stays for the caller to free

    if (memoryType == TYPE_USER && data) {
        const uint32_t f = bitmap->Flags;
        if ((f & (BF_ALLOCATED | BF_USER_DATA)) != (BF_ALLOCATED | BF_USER_DATA) || (f & BF_GLOBAL) ||
            bitmap->Size != dataSize)
            return ST_BAD_PARAM;
        bitmap->Data = static_cast<uint8_t*>(data);
    }
    return ST_OK;
}
