// The gray-parameter service: the significant bit window of deep gray
// pixels, its value range and the display lookup table.
#include <cstring>

#include "bitmap_handle.h"

namespace {

int32_t check(const BitmapHandle* b) {
    if (!b) return ST_BAD_PARAM;
    if (b->StructSize != zk::kStructSize) return ST_BAD_STRUCT_SIZE;
    return ST_OK;
}

}  // namespace

extern "C" int32_t Z_API Z_InitGrayParams(BitmapHandle* bitmap) {
    if (int32_t s = check(bitmap); s != ST_OK) return s;
    const int32_t bpp = bitmap->BitsPerPixel;
    if (bpp < 1 || bpp > 64) return ST_BAD_BPP;
    bitmap->LowBit = 0;
    bitmap->PaintLowBit = 0;
    bitmap->HighBit = bitmap->PaintHighBit = static_cast<uint32_t>(bpp - 1);
    bitmap->MinVal = 0;
    bitmap->MaxVal = bpp >= 32 ? 0xFFFFFFFFu : (1u << bpp) - 1u;
    return ST_OK;
}

extern "C" int32_t Z_API Z_GetGrayParams(const BitmapHandle* bitmap, uint32_t* lowBit, uint32_t* highBit,
                                         uint32_t* bitCount, uint32_t* mask, uint32_t* shift) {
    if (int32_t s = check(bitmap); s != ST_OK) return s;
    const int64_t bpp = bitmap->BitsPerPixel;
    const int64_t low = static_cast<int32_t>(bitmap->LowBit) < 0 ? 0 : int64_t{bitmap->LowBit};
    const int64_t high = static_cast<int32_t>(bitmap->HighBit) < 0 ? bpp - 1 : int64_t{bitmap->HighBit};
    if (high < low) return ST_BAD_PARAM;
    int64_t count = high - low + 1;
    if (count > bpp) count = bpp;
    if (count < 1) return ST_BAD_PARAM;
    if (lowBit) *lowBit = static_cast<uint32_t>(low);
    if (highBit) *highBit = static_cast<uint32_t>(high);
    if (bitCount) *bitCount = static_cast<uint32_t>(count);
    if (mask) *mask = count >= 32 ? 0xFFFFFFFFu : (1u << count) - 1u;
    if (shift) *shift = static_cast<uint32_t>(high - count + 1);
    return ST_OK;
}

extern "C" int32_t Z_API Z_CopyGrayParams(BitmapHandle* dst, const BitmapHandle* src) {
    if (!dst || !src) return ST_BAD_PARAM;
    if (dst->StructSize != zk::kStructSize || src->StructSize != zk::kStructSize) return ST_BAD_STRUCT_SIZE;
    if (dst == src) return ST_OK;
    RGBQUAD* lut = nullptr;
    if (src->LUT && src->LUTLength > 0) {
        const size_t bytes = size_t{src->LUTLength} * sizeof(RGBQUAD);
        if (bytes / sizeof(RGBQUAD) != src->LUTLength) return ST_NO_MEMORY;
        lut = static_cast<RGBQUAD*>(Z_OsAlloc(bytes));
        if (!lut) return ST_NO_MEMORY;
        std::memcpy(lut, src->LUT, bytes);
    }
    if (dst->LUT != src->LUT) Z_OsFree(dst->LUT);
    dst->LUT = lut;
    dst->LUTLength = src->LUTLength;
    dst->LowBit = src->LowBit;
    dst->HighBit = src->HighBit;
    dst->MinVal = src->MinVal;
    dst->MaxVal = src->MaxVal;
    dst->PaintLowBit = src->PaintLowBit;
    dst->PaintHighBit = src->PaintHighBit;
    dst->Flags = (dst->Flags & ~BF_LUT_USED) | (src->Flags & BF_LUT_USED);
    return ST_OK;
}

extern "C" int32_t Z_API Z_FreeGrayParams(BitmapHandle* bitmap) {
    if (int32_t s = check(bitmap); s != ST_OK) return s;
    Z_OsFree(bitmap->LUT);
    bitmap->LUT = nullptr;
    bitmap->LUTLength = 0;
    Z_OsFree(bitmap->ValueMap);
    bitmap->ValueMap = nullptr;
    bitmap->Flags &= ~BF_LUT_USED;
    return ST_OK;
}
