// Alpha channel exchange. Alpha lives in byte 3 of a 32-bit pixel, word 3 of
// a 64-bit pixel and bit 15 of a 5-5-5 pixel; other pixels (16-bit gray
// included) have none. Both directions go row by row through row streams,
// so every storage kind works; Z_SetBitmapAlpha builds its result beside the
// caller's bitmap and puts it in place only when complete.
#include "compose/alpha.h"

#include <algorithm>
#include <atomic>
#include <cstring>

#include "bitmap_handle.h"
#include "reduce/color_res.h"
#include "rows/row_stream.h"

namespace zk::compose {
namespace {

std::atomic<AllocationHook> g_allocation_hook{nullptr};

// Where a pixel of the bitmap keeps its alpha: its bytes per pixel (4, 8) or
// 2 for bit 15 of a 5-5-5 pixel; 0 when it has none.
uint32_t alpha_place(const BitmapHandle& b) {
    if (b.BitsPerPixel == 32) return 4;
    if (b.BitsPerPixel == 64) return 8;
    if (b.BitsPerPixel == 16 && b.Order != CO_GRAY) return 2;
    return 0;
}

// Alpha of `width` pixels of a row into an alpha row (8 or 16 bits).
void gather(const uint8_t* row, uint32_t place, uint32_t width, uint8_t* out) {
    for (uint32_t x = 0; x < width; ++x) {
        const uint8_t* p = row + size_t{x} * place;
        if (place == 8) {
            out[2 * x] = p[6];
            out[2 * x + 1] = p[7];
        } else {
            out[x] = place == 4 ? p[3] : (p[1] & 0x80) ? 255 : 0;
        }
    }
}

// An alpha row of `bits` per sample (1, 8 or 16) written into `width`
// pixels of a row.
void scatter(const uint8_t* alpha, uint32_t bits, uint8_t* row, uint32_t place, uint32_t width) {
    for (uint32_t x = 0; x < width; ++x) {
        uint8_t* p = row + size_t{x} * place;
        if (place == 8) {
            p[6] = alpha[2 * x];
            p[7] = alpha[2 * x + 1];
        } else if (place == 4) {
            p[3] = alpha[x];
        } else {
            const bool set = bits == 1 ? (alpha[x / 8] >> (7 - x % 8)) & 1 : alpha[x] >= 128;
            p[1] = static_cast<uint8_t>(set ? p[1] | 0x80 : p[1] & 0x7F);
        }
    }
}

// Frees a record built here on every way out that does not hand it on.
struct Owned {
    BitmapHandle b{};
    bool held = false;
    ~Owned() {
        if (held) Z_FreeBitmap(&b);
    }
};

}  // namespace

void set_allocation_hook(AllocationHook hook) { g_allocation_hook.store(hook); }

int32_t get_alpha(BitmapHandle* src, BitmapHandle* dst, uint32_t struct_size) {
    if (!src || !allocated(src) || !dst) return ST_BAD_PARAM;
    if (src->StructSize != kStructSize || struct_size != kStructSize) return ST_BAD_STRUCT_SIZE;
    dst->StructSize = kStructSize;
    if (has(*src, BF_SIGNED)) return ST_SIGNED_DATA;
    if (!geometry_consistent(*src)) return ST_BAD_PARAM;
    const int32_t bits = src->BitsPerPixel == 64 ? 16 : 8;
    Owned out;
    if (const int32_t s = Z_InitBitmap(&out.b, kStructSize, src->Width, src->Height, bits); s != ST_OK) return s;
    if (bits == 16) out.b.Order = CO_GRAY;
    out.b.ViewPerspective = src->ViewPerspective;
    out.b.XResolution = src->XResolution;
    out.b.YResolution = src->YResolution;
    if (const int32_t s = Z_AllocateBitmap(&out.b, has(*src, BF_DISK) ? TYPE_DISK : TYPE_CONV); s != ST_OK) return s;
    out.held = true;
    if (const AllocationHook hook = g_allocation_hook.load())
        if (const int32_t s = hook(&out.b, src, 0, 0); s != ST_OK) return s;
    if (bits == 8 && Z_CreateBitmapGrayPalette(&out.b) != ST_OK) return ST_NO_MEMORY;
    {
        const uint32_t place = alpha_place(*src);
        const auto width = static_cast<uint32_t>(src->Width);
        rows::RowStream in(*src), to(out.b);
        for (uint32_t y = 0; y < static_cast<uint32_t>(src->Height); ++y) {
            uint8_t* a = to.write(y);
            if (!a) return to.status();
            if (place == 0) {
                std::memset(a, 0, out.b.BytesPerLine);
            } else {
                const uint8_t* row = in.read(y);
                if (!row) return in.status();
                gather(row, place, width, a);
            }
            if (const int32_t s = to.commit(); s != ST_OK) return s;
        }
    }
    std::memcpy(dst, &out.b, sizeof out.b);
    out.held = false;
    return ST_OK;
}

int32_t set_alpha(BitmapHandle* bitmap, BitmapHandle* alpha) {
    if (!bitmap || !allocated(bitmap) || !alpha || !allocated(alpha)) return ST_BAD_PARAM;
    if (bitmap->StructSize != kStructSize || alpha->StructSize != kStructSize) return ST_BAD_STRUCT_SIZE;
    if (has(*bitmap, BF_SIGNED)) return ST_SIGNED_DATA;
    if (!geometry_consistent(*bitmap) || !geometry_consistent(*alpha)) return ST_BAD_PARAM;

    // The result: the bitmap converted to 32 or 64 bits when its pixels have
    // no alpha, else a copy of it; either way built beside it.
    Owned result;
    const bool convert = alpha_place(*bitmap) == 0;
    if (convert) {
        reduce::ColorResRequest rq;
        rq.source = bitmap;
        rq.struct_size = kStructSize;
        rq.bits = bitmap->BitsPerPixel == 48 ? 64 : 32;
        rq.flags = bitmap->Order == CO_RGB && bitmap->BitsPerPixel >= 16 ? 0 : CRF_BYTE_ORDER_BGR;
        if (const int32_t s = reduce::color_res(rq, &result.b); s != ST_OK) return s;
    } else if (const int32_t s = Z_CopyBitmap(&result.b, bitmap, kStructSize); s != ST_OK) {
        return s;
    }
    result.held = true;
    const uint32_t place = alpha_place(result.b);

    // The alpha as it stands when it has the depth the pixels take and an
    // ordered gray ramp and lies the same way; else a gray copy of it.
    const int32_t ab = alpha->BitsPerPixel, rb = result.b.BitsPerPixel;
    const bool fits = ((ab == 1 || ab == 8) && rb == 16) || (ab == 8 && rb == 32) || (ab == 16 && rb == 64);
    Owned copy;
    BitmapHandle* samples = alpha;
    if (!fits || Z_IsGrayScaleBitmap(alpha) != GRAY_ORDERED || alpha->ViewPerspective != result.b.ViewPerspective) {
        const int32_t s = alpha->ViewPerspective == result.b.ViewPerspective
                              ? Z_CopyBitmap(&copy.b, alpha, kStructSize)
                              : Z_ChangeBitmapViewPerspective(&copy.b, alpha, kStructSize,
                                                              static_cast<int32_t>(result.b.ViewPerspective));
        if (s != ST_OK) return s;
        copy.held = true;
        if (const int32_t g = Z_GrayScaleBitmap(&copy.b, rb == 64 ? 16 : 8); g != ST_OK) return g;
        samples = &copy.b;
    }

    {
        const uint32_t width = static_cast<uint32_t>(std::min(result.b.Width, samples->Width));
        const uint32_t height = static_cast<uint32_t>(std::min(result.b.Height, samples->Height));
        rows::RowStream in(*samples), out(result.b);
        for (uint32_t y = 0; y < height; ++y) {
            const uint8_t* a = in.read(y);
            if (!a) return in.status();
            uint8_t* row = out.write(y, true);
            if (!row) return out.status();
            scatter(a, static_cast<uint32_t>(samples->BitsPerPixel), row, place, width);
            if (const int32_t s = out.commit(); s != ST_OK) return s;
        }
    }
    Z_FreeBitmap(bitmap);
    std::memcpy(bitmap, &result.b, sizeof result.b);
    result.held = false;
    return ST_OK;
}

}  // namespace zk::compose

extern "C" int32_t Z_API Z_GetBitmapAlpha(BitmapHandle* src, BitmapHandle* dst, uint32_t structSize) {
    return zk::compose::get_alpha(src, dst, structSize);
}

extern "C" int32_t Z_API Z_SetBitmapAlpha(BitmapHandle* bitmap, BitmapHandle* alpha) {
    return zk::compose::set_alpha(bitmap, alpha);
}
