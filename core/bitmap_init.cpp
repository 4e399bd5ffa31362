// Filling a bitmap record, the per-thread defaults it takes, and attaching
// caller memory.
#include <cstring>

#include "bitmap_handle.h"
#include "thread_state.h"

extern "C" int32_t Z_API Z_InitBitmap(BitmapHandle* bitmap, int32_t structSize, int32_t width, int32_t height,
                                      int32_t bitsPerPixel) {
    if (!bitmap) return ST_BAD_PARAM;
    if (structSize != Z_BITMAPHANDLE_SIZE) return ST_BAD_STRUCT_SIZE;
    std::memset(bitmap, 0, sizeof *bitmap);
    bitmap->StructSize = zk::kStructSize;
    if (width == 0 && height == 0 && bitsPerPixel == 0) return ST_OK;
    if (!zk::valid_depth(bitsPerPixel)) return ST_BAD_BPP;

    // Dimensions whose row length or size do not fit are refused here, so
    // that no record describes an image its sizes cannot hold.
    const zk::ImageSize size = zk::image_size(width, height, bitsPerPixel);
    if (size.status != ST_OK) return size.status;

    const zk::ThreadState& s = zk::thread_state();
    bitmap->BytesPerLine = size.bytes_per_line;
    bitmap->Width = width;
    bitmap->Height = height;
    bitmap->BitsPerPixel = bitsPerPixel;
    bitmap->Size = size.size;
    bitmap->DitherMethod = s.dither_method;
    bitmap->ViewPerspective = VP_BOTTOM_LEFT;
    if (bitsPerPixel < 9) {
        bitmap->Order = CO_RGB;
        bitmap->ColorCount = 1u << bitsPerPixel;
    } else {
        bitmap->Order = CO_BGR;
    }
    if (bitsPerPixel == 12) bitmap->Order = CO_GRAY;
    bitmap->XResolution = s.x_resolution > 0 ? s.x_resolution : 150;
    bitmap->YResolution = s.y_resolution > 0 ? s.y_resolution : 150;
    bitmap->LowBit = 0;
    bitmap->PaintLowBit = 0;
    bitmap->HighBit = bitmap->PaintHighBit = static_cast<uint32_t>(bitsPerPixel - 1);
    bitmap->Percent = 100;
    return ST_OK;
}

extern "C" int32_t Z_API Z_SetBitmapDataPointer(BitmapHandle* bitmap, void* data, size_t dataSize) {
    if (!bitmap) return ST_BAD_PARAM;
    const uint32_t f = bitmap->Flags;
    if ((f & (BF_ALLOCATED | BF_USER_DATA)) != (BF_ALLOCATED | BF_USER_DATA) || (f & BF_GLOBAL)) return ST_BAD_PARAM;
    if (data && dataSize != bitmap->Size) return ST_BAD_PARAM;
    if (bitmap->StructSize != zk::kStructSize) return ST_BAD_STRUCT_SIZE;
    bitmap->Data = static_cast<uint8_t*>(data);
    return ST_OK;
}

extern "C" int32_t Z_API Z_GetDefaultXResolution(void) { return zk::thread_state().x_resolution; }
extern "C" int32_t Z_API Z_GetDefaultYResolution(void) { return zk::thread_state().y_resolution; }

extern "C" int32_t Z_API Z_SetDefaultXResolution(int32_t value) {
    zk::ThreadState& s = zk::thread_state();
    int32_t previous = s.x_resolution;
    s.x_resolution = value;
    return previous;
}

extern "C" int32_t Z_API Z_SetDefaultYResolution(int32_t value) {
    zk::ThreadState& s = zk::thread_state();
    int32_t previous = s.y_resolution;
    s.y_resolution = value;
    return previous;
}

extern "C" int32_t Z_API Z_DefaultDithering(uint32_t method) {
    if (method > DITHER_CLUSTERED) return ST_BAD_PARAM;
    zk::thread_state().dither_method = method;
    return ST_OK;
}

extern "C" uint32_t Z_API Z_GetDefaultDithering(void) { return zk::thread_state().dither_method; }

extern "C" int32_t Z_API Z_SetDefaultMemoryType(uint32_t type) {
    if (type != TYPE_CONV && type != TYPE_DISK) return ST_BAD_PARAM;
    zk::thread_state().memory_type = type;
    return ST_OK;
}

extern "C" int32_t Z_API Z_GetDefaultMemoryType(uint32_t* type) {
    if (!type) return ST_BAD_PARAM;
    *type = zk::thread_state().memory_type;
    return ST_OK;
}
