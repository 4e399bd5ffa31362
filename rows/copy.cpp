// Copying bitmaps through their rows: whole copies, rectangle copies (also
// in place), trimming, and the row copy between any two storage kinds.
//
// Every creating operation leaves its destination freed (or only described)
// when it fails.
//
// May include: include/zkernel.h, core/bitmap_handle.h, core/duplicate.h,
// core/storage.h, core/thread_state.h, rows/row_stream.h.
#include <algorithm>
#include <cstring>

#include "bitmap_handle.h"
#include "duplicate.h"
#include "rows/row_stream.h"
#include "storage.h"
#include "thread_state.h"

namespace zk {
namespace {

// A row loop that stopped short: memory for a scratch row is ST_NO_MEMORY,
// anything else a copy that did not complete.
int32_t stopped(int32_t status) { return status == ST_NO_MEMORY ? ST_NO_MEMORY : ST_FILE_WRITE; }

// The pixels of a memory bitmap as one block, when it has one now.
uint8_t* block_of(const BitmapHandle& b) {
    const storage::KindOps* ops = storage::kind_ops(b);
    return ops && ops->rows_stay_put ? b.Data : nullptr;
}

int32_t copy_data(BitmapHandle* dst, BitmapHandle* src) {
    if (dst == src) return ST_OK;
    if (dst->Width != src->Width || dst->Height != src->Height || dst->BitsPerPixel != src->BitsPerPixel)
        return ST_BAD_PARAM;
    const uint32_t bpl = src->BytesPerLine;
    const uint32_t rows = src->Height > 0 ? static_cast<uint32_t>(src->Height) : 0;
    rows::RowStream in(*src);
    rows::RowStream out(*dst);
    Progress progress(rows, true);
    int32_t r = progress.start();
    if (r != ST_OK) return r;
    const uint8_t* from = block_of(*src);
    uint8_t* to = block_of(*dst);
    // Both in addressable memory: large pieces copy faster than single rows
    // (one piece when nobody watches; the copy routine then streams past the
    // caches); progress is still counted row by row.
    const bool watched = thread_state().copy_status_callback != nullptr;
    const uint32_t chunk = from && to ? (watched ? std::max<uint32_t>(1, (1u << 21) / (bpl ? bpl : 1)) : rows) : 1;
    for (uint32_t row = 0; row < rows;) {
        const uint32_t n = std::min(chunk, rows - row);
        if (from && to) {
            std::memcpy(to + size_t{row} * bpl, from + size_t{row} * bpl, size_t{n} * bpl);
        } else {
            const uint8_t* s = in.read(row);
            if (!s) return stopped(in.status());
            uint8_t* d = out.write(row);
            if (!d) return stopped(out.status());
            std::memcpy(d, s, bpl);
            if (out.commit() != ST_OK) return stopped(out.status());
        }
        for (uint32_t k = 0; k < n; ++k, ++row) {
            r = progress.step();
            if (r != ST_OK) return r;
        }
    }
    return ST_OK;
}

// Copies `bits` bits starting at bit `offset` of `in` (a row of `in_bytes`
// bytes, pixels packed from the most significant bit) to the start of `out`,
// and zeroes the rest of `out` up to `out_bytes`.
void extract_bits(uint8_t* out, uint32_t out_bytes, const uint8_t* in, uint32_t in_bytes, uint64_t offset,
                  uint64_t bits) {
    const size_t first = static_cast<size_t>(offset >> 3);
    const unsigned shift = static_cast<unsigned>(offset & 7);
    const size_t n = static_cast<size_t>((bits + 7) >> 3);
    if (shift == 0) {
        std::memcpy(out, in + first, n);
    } else {
        const uint8_t* p = in + first;
        const size_t last = in_bytes - first;  // bytes readable from p
        size_t i = 0;
        // Eight output bytes at a time from nine input bytes, most significant first.
        for (; i + 9 <= last && i + 8 <= n; i += 8) {
            uint64_t hi = 0;
            for (int k = 0; k < 8; ++k) hi = (hi << 8) | p[i + k];
            const uint64_t v = (hi << shift) | (p[i + 8] >> (8 - shift));
            for (int k = 0; k < 8; ++k) out[i + k] = static_cast<uint8_t>(v >> (56 - 8 * k));
        }
        for (; i < n; ++i) {
            const unsigned next = i + 1 < last ? p[i + 1] : 0u;
            out[i] = static_cast<uint8_t>((p[i] << shift) | (next >> (8 - shift)));
        }
    }
    if (bits & 7) out[n - 1] &= static_cast<uint8_t>(0xFFu << (8 - (bits & 7)));
    if (out_bytes > n) std::memset(out + n, 0, out_bytes - n);
}

// Copies the rectangle's rows from src into dst, which has its size.
int32_t copy_rect_rows(BitmapHandle* dst, BitmapHandle* src, uint32_t left, uint32_t top) {
    const uint32_t rows = static_cast<uint32_t>(dst->Height);
    const uint64_t bits = static_cast<uint64_t>(dst->Width) * static_cast<uint32_t>(dst->BitsPerPixel);
    const uint64_t offset = static_cast<uint64_t>(left) * static_cast<uint32_t>(src->BitsPerPixel);
    rows::RowStream in(*src);
    rows::RowStream out(*dst);
    Progress progress(rows, true);
    int32_t r = progress.start();
    if (r != ST_OK) return r;
    for (uint32_t row = 0; row < rows; ++row) {
        const uint8_t* source = in.read(top + row);
        if (!source) return stopped(in.status());
        uint8_t* target = out.write(row);
        if (!target) return stopped(out.status());
        extract_bits(target, out.bytes_per_line(), source, in.bytes_per_line(), offset, bits);
        if (out.commit() != ST_OK) return stopped(out.status());
        r = progress.step();
        if (r != ST_OK) return r;
    }
    return ST_OK;
}

// Common part of the checks of the copying exports: the record sizes.
bool sizes_ok(const BitmapHandle* src, int32_t structSize) {
    return structSize == Z_BITMAPHANDLE_SIZE && src->StructSize == kStructSize;
}

// The rectangle must lie inside the source and hold at least one pixel.
bool rect_inside(const BitmapHandle& src, int32_t left, int32_t top, uint32_t width, uint32_t height) {
    if (left < 0 || top < 0 || width == 0 || height == 0) return false;
    return static_cast<uint64_t>(left) + width <= static_cast<uint64_t>(src.Width > 0 ? src.Width : 0) &&
           static_cast<uint64_t>(top) + height <= static_cast<uint64_t>(src.Height > 0 ? src.Height : 0);
}

// Allocates a described duplicate with the given memory type (the "2" forms);
// a gray source of the same depth passes on its gray parameters. Failures
// undo the duplicate.
int32_t allocate_described(BitmapHandle* dst, BitmapHandle* src, uint32_t memoryType) {
    int32_t r = Z_AllocateBitmap(dst, memoryType);
    if (r != ST_OK) {
        Z_FreeDuplicateBitmap(dst, kDupDescribed);
        return r;
    }
    if (src->Order == CO_GRAY && dst->BitsPerPixel == src->BitsPerPixel) {
        dst->Order = CO_GRAY;
        r = Z_CopyGrayParams(dst, src);
        if (r != ST_OK) Z_FreeBitmap(dst);  // everything it holds is its own
    }
    return r;
}

int32_t copy_rect(BitmapHandle* dst, BitmapHandle* src, int32_t left, int32_t top, uint32_t width, uint32_t height,
                  bool typed, uint32_t memoryType) {
    if (!rect_inside(*src, left, top, width, height)) return ST_BAD_PARAM;
    const bool in_place = dst == nullptr || dst == src;
    BitmapHandle temp;
    BitmapHandle* out = in_place ? &temp : dst;
    int32_t r = duplicate(out, src, static_cast<int32_t>(width), static_cast<int32_t>(height), src->BitsPerPixel,
                          typed ? kDupDescribed : kDupAll);
    if (r != ST_OK) return r;
    if (typed) {
        r = allocate_described(out, src, memoryType);
        if (r != ST_OK) return r;
    }
    r = copy_rect_rows(out, src, static_cast<uint32_t>(left), static_cast<uint32_t>(top));
    if (r != ST_OK) {
        Z_FreeBitmap(out);  // everything it holds is its own
        return r;
    }
    if (in_place) {
        Z_FreeBitmap(src);
        std::memcpy(src, &temp, sizeof temp);
    }
    return ST_OK;
}

}  // namespace
}  // namespace zk
extern "C" int32_t Z_API Z_CopyBitmap(BitmapHandle* dst, BitmapHandle* src, int32_t structSize) {
    if (!dst || !src || !(src->Flags & BF_ALLOCATED)) return ST_BAD_PARAM;
    if (dst == src) return ST_OK;
    if (!zk::sizes_ok(src, structSize)) return ST_BAD_STRUCT_SIZE;
    int32_t r = zk::duplicate(dst, src, src->Width, src->Height, src->BitsPerPixel, zk::kDupAll);
    if (r != ST_OK) return r;
    r = zk::copy_data(dst, src);
    if (r != ST_OK) Z_FreeBitmap(dst);
    return r;
}

extern "C" int32_t Z_API Z_CopyBitmap2(BitmapHandle* dst, BitmapHandle* src, uint32_t memoryType, int32_t structSize) {
    if (!dst || !src || !(src->Flags & BF_ALLOCATED)) return ST_BAD_PARAM;
    if (dst == src) return ST_OK;
    if (!zk::sizes_ok(src, structSize)) return ST_BAD_STRUCT_SIZE;
    int32_t r = zk::duplicate(dst, src, src->Width, src->Height, src->BitsPerPixel, zk::kDupDescribed);
    if (r != ST_OK) return r;
    r = zk::allocate_described(dst, src, memoryType);
    if (r != ST_OK) return r;
    r = zk::copy_data(dst, src);
    if (r != ST_OK) Z_FreeBitmap(dst);
    return r;
}

extern "C" int32_t Z_API Z_CopyBitmapRect(BitmapHandle* dst, BitmapHandle* src, int32_t structSize, int32_t left,
                                          int32_t top, uint32_t width, uint32_t height) {
    if (!src || !(src->Flags & BF_ALLOCATED)) return ST_BAD_PARAM;
    if (!zk::sizes_ok(src, structSize)) return ST_BAD_STRUCT_SIZE;
    return zk::copy_rect(dst, src, left, top, width, height, false, 0);
}

extern "C" int32_t Z_API Z_CopyBitmapRect2(BitmapHandle* dst, BitmapHandle* src, int32_t structSize, int32_t left,
                                           int32_t top, uint32_t width, uint32_t height, uint32_t memoryType) {
    if (!src || !(src->Flags & BF_ALLOCATED)) return ST_BAD_PARAM;
    if (!zk::sizes_ok(src, structSize)) return ST_BAD_STRUCT_SIZE;
    return zk::copy_rect(dst, src, left, top, width, height, true, memoryType);
}

extern "C" int32_t Z_API Z_TrimBitmap(BitmapHandle* bitmap, int32_t left, int32_t top, int32_t width, int32_t height) {
    if (!bitmap || !(bitmap->Flags & BF_ALLOCATED)) return ST_BAD_PARAM;
    if (bitmap->StructSize != zk::kStructSize) return ST_BAD_STRUCT_SIZE;
    // The rectangle is intersected with the bitmap: its far edges come from
    // the position as given, then the near edges are clipped to 0.
    const int64_t right = std::min<int64_t>(static_cast<int64_t>(left) + width, bitmap->Width);
    const int64_t bottom = std::min<int64_t>(static_cast<int64_t>(top) + height, bitmap->Height);
    if (left < 0) left = 0;
    if (top < 0) top = 0;
    if (right <= left || bottom <= top) return ST_BAD_PARAM;
    return Z_CopyBitmapRect(nullptr, bitmap, Z_BITMAPHANDLE_SIZE, left, top, static_cast<uint32_t>(right - left),
                            static_cast<uint32_t>(bottom - top));
}

extern "C" int32_t Z_API Z_CopyBitmapData(BitmapHandle* dst, BitmapHandle* src) {
    if (!dst || !src) return ST_BAD_PARAM;
    if (dst->StructSize != zk::kStructSize || src->StructSize != zk::kStructSize) return ST_BAD_STRUCT_SIZE;
    if (!(dst->Flags & BF_ALLOCATED) || !(src->Flags & BF_ALLOCATED)) return ST_INVALID_BITMAP;
    return zk::copy_data(dst, src);
}
