// Copying and duplicating bitmaps: the record copy, duplication with new
// dimensions and its undo, whole copies, rectangle copies (also in place),
// trimming, the row copy between any two storage kinds, and the playback
// words.
//
// Every creating operation leaves its destination freed (or only described)
// when it fails; pointers the destination merely shares with its source are
// cleared before it is freed, so the source keeps them.
#include <algorithm>
#include <cstring>
#include <memory>

#include "bitmap_handle.h"
#include "copy_rows.h"
#include "overlays.h"
#include "region.h"
#include "thread_state.h"

namespace zk {
namespace {

constexpr uint32_t kDupAll = DUP_ALLOCATE | DUP_PALETTE | DUP_REGION | DUP_OVERLAYS;
constexpr uint32_t kDupDescribed = DUP_PALETTE | DUP_REGION | DUP_OVERLAYS;
// Flags a duplicate takes from its source before any allocation.
constexpr uint32_t kInheritedFlags = 0x10000u | BF_COMPRESSED | BF_SUPERCOMPRESSED | BF_DISK | BF_SIGNED;

struct FreeDeleter {
    void operator()(uint8_t* p) const { Z_Free(p); }
};
using Buffer = std::unique_ptr<uint8_t, FreeDeleter>;

Buffer row_buffer(size_t bytes) { return Buffer(static_cast<uint8_t*>(Z_Malloc(bytes ? bytes : 1))); }

void copy_playback(BitmapHandle* dst, const BitmapHandle* src) {
    dst->PlaybackParm0 = src->PlaybackParm0;
    dst->PlaybackParm1 = src->PlaybackParm1;
    dst->PlaybackParm2 = src->PlaybackParm2;
    dst->PlaybackParm5 = src->PlaybackParm5;
    // The colours are kept as stored: translating them into the duplicate's
    // pixel format needs pixel access, which this build does not have.
    dst->PlaybackColor1 = src->PlaybackColor1;
    dst->PlaybackColor2 = src->PlaybackColor2;
    constexpr uint32_t playback = BF_PLAYBACK1 | BF_PLAYBACK2;
    dst->Flags = (dst->Flags & ~playback) | (src->Flags & playback);
}

// Drops a duplicate that failed half-way: shared pointers are cleared so the
// source keeps them, then what the duplicate owns is released.
void undo_duplicate(BitmapHandle* dst, uint32_t flags) {
    if (!(flags & DUP_PALETTE)) dst->Palette = nullptr;
    if (!(flags & DUP_REGION)) dst->Region = nullptr;
    if (!(flags & DUP_OVERLAYS)) dst->Overlays = nullptr;
    Z_FreeBitmap(dst);
}

// Storage type that gives a duplicate the source's kind.
uint32_t kind_of(const BitmapHandle& src) {
    if (src.Flags & BF_COMPRESSED) return TYPE_COMPRESSED | TYPE_CONV;
    if (src.Flags & BF_SUPERCOMPRESSED) return TYPE_SUPERCOMPRESSED;
    if (src.Flags & BF_DISK) return TYPE_DISK;
    return TYPE_CONV;
}

}  // namespace

int32_t duplicate(BitmapHandle* dst, BitmapHandle* src, int32_t width, int32_t height, int32_t bpp, uint32_t flags) {
    int32_t r = Z_InitBitmap(dst, Z_BITMAPHANDLE_SIZE, width, height, bpp);
    if (r != ST_OK) return r;
    dst->Flags |= src->Flags & kInheritedFlags;
    dst->ViewPerspective = src->ViewPerspective;
    dst->XResolution = src->XResolution;
    dst->YResolution = src->YResolution;
    dst->Order = src->Order;

    const bool allocate = flags & DUP_ALLOCATE;
    if (allocate) {
        r = Z_AllocateBitmap(dst, kind_of(*src));
        if (r != ST_OK) {
            Z_FreeBitmap(dst);  // nothing shared yet
            return r;
        }
    }

    if (flags & DUP_PALETTE) {
        if (Z_CopyBitmapPalette(dst, src) != ST_OK) {
            undo_duplicate(dst, flags);
            return ST_NO_MEMORY;
        }
    } else {
        dst->Palette = src->Palette;
    }
    dst->ColorCount = src->ColorCount;
    copy_playback(dst, src);

    if (flags & DUP_REGION) {
        bool called = false;
        r = region::copy(dst, src, 0, 0, &called);
        if (!called) dst->Region = nullptr;
        if (r != ST_OK) {
            dst->Region = nullptr;
            undo_duplicate(dst, flags);
            return r;
        }
    } else {
        dst->Region = src->Region;
    }

    if (flags & DUP_OVERLAYS) {
        if (src->Overlays) {
            dst->Overlays = overlays_copy(src->Overlays);
            if (!dst->Overlays) {
                undo_duplicate(dst, flags);
                return ST_NO_MEMORY;
            }
        }
    } else {
        dst->Overlays = src->Overlays;
    }

    if (allocate && src->Order == CO_GRAY && src->BitsPerPixel == bpp) {
        dst->Order = CO_GRAY;
        r = Z_CopyGrayParams(dst, src);
        if (r != ST_OK) {
            undo_duplicate(dst, flags);
            return r;
        }
    }
    if (dst->ValueMap && src->ValueMap) std::memcpy(dst->ValueMap, src->ValueMap, 256);
    return ST_OK;
}

int32_t copy_data(BitmapHandle* dst, BitmapHandle* src) {
    if (dst == src) return ST_OK;
    if (dst->Width != src->Width || dst->Height != src->Height || dst->BitsPerPixel != src->BitsPerPixel)
        return ST_BAD_PARAM;
    const uint32_t bpl = src->BytesPerLine;
    const uint32_t rows = src->Height > 0 ? static_cast<uint32_t>(src->Height) : 0;
    RowPort in(src);
    RowPort out(dst);
    Buffer buffer;
    if (!in.direct() && !out.direct()) {
        buffer = row_buffer(bpl);
        if (!buffer) return ST_NO_MEMORY;
    }
    Progress progress(rows, true);
    int32_t r = progress.start();
    if (r != ST_OK) return r;
    if (in.direct() && out.direct()) {
        // Both in addressable memory: large pieces copy faster than single
        // rows (one piece when nobody watches; the copy routine then streams
        // past the caches); progress is still counted row by row.
        const bool watched = thread_state().copy_status_callback != nullptr;
        const uint32_t chunk =
            watched ? std::max<uint32_t>(1, static_cast<uint32_t>((size_t{1} << 21) / (bpl ? bpl : 1))) : rows;
        for (uint32_t row = 0; row < rows;) {
            const uint32_t n = std::min(chunk, rows - row);
            std::memcpy(out.row(row), in.row(row), static_cast<size_t>(n) * bpl);
            for (uint32_t k = 0; k < n; ++k, ++row) {
                r = progress.step();
                if (r != ST_OK) return r;
            }
        }
        return ST_OK;
    }
    for (uint32_t row = 0; row < rows; ++row) {
        if (in.direct() && out.direct()) {
            std::memcpy(out.row(row), in.row(row), bpl);
        } else if (in.direct()) {
            if (Z_PutBitmapRow(dst, in.row(row), row, bpl) != static_cast<int32_t>(bpl)) return ST_FILE_WRITE;
        } else {
            uint8_t* target = out.direct() ? out.row(row) : buffer.get();
            if (Z_GetBitmapRow(src, target, row, bpl) != static_cast<int32_t>(bpl)) return ST_FILE_WRITE;
            if (!out.direct() && Z_PutBitmapRow(dst, target, row, bpl) != static_cast<int32_t>(bpl))
                return ST_FILE_WRITE;
        }
        r = progress.step();
        if (r != ST_OK) return r;
    }
    return ST_OK;
}

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

namespace {

// Copies the rectangle's rows from src into dst, which has its size.
int32_t copy_rect_rows(BitmapHandle* dst, BitmapHandle* src, uint32_t left, uint32_t top) {
    const uint32_t rows = static_cast<uint32_t>(dst->Height);
    const uint64_t bits = static_cast<uint64_t>(dst->Width) * static_cast<uint32_t>(dst->BitsPerPixel);
    const uint64_t offset = static_cast<uint64_t>(left) * static_cast<uint32_t>(src->BitsPerPixel);
    const uint32_t in_bpl = src->BytesPerLine;
    const uint32_t out_bpl = dst->BytesPerLine;
    RowPort in(src);
    RowPort out(dst);
    Buffer in_buffer;
    Buffer out_buffer;
    if (!in.direct()) {
        in_buffer = row_buffer(in_bpl);
        if (!in_buffer) return ST_NO_MEMORY;
    }
    if (!out.direct()) {
        out_buffer = row_buffer(out_bpl);
        if (!out_buffer) return ST_NO_MEMORY;
    }
    Progress progress(rows, true);
    int32_t r = progress.start();
    if (r != ST_OK) return r;
    for (uint32_t row = 0; row < rows; ++row) {
        const uint8_t* source;
        if (in.direct()) {
            source = in.row(top + row);
        } else {
            if (Z_GetBitmapRow(src, in_buffer.get(), top + row, in_bpl) != static_cast<int32_t>(in_bpl))
                return ST_FILE_WRITE;
            source = in_buffer.get();
        }
        uint8_t* target = out.direct() ? out.row(row) : out_buffer.get();
        extract_bits(target, out_bpl, source, in_bpl, offset, bits);
        if (!out.direct() && Z_PutBitmapRow(dst, target, row, out_bpl) != static_cast<int32_t>(out_bpl))
            return ST_FILE_WRITE;
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

extern "C" int32_t Z_API Z_CopyBitmapHandle(BitmapHandle* dst, const BitmapHandle* src, int32_t structSize) {
    if (src && src->StructSize != zk::kStructSize) return ST_BAD_STRUCT_SIZE;
    if (structSize != Z_BITMAPHANDLE_SIZE) return ST_BAD_STRUCT_SIZE;
    if (!dst) return ST_OK;
    if (src && src != dst) std::memcpy(dst, src, sizeof *dst);
    dst->StructSize = zk::kStructSize;
    return ST_OK;
}

extern "C" int32_t Z_API Z_DupBitmapNewDim(BitmapHandle* dst, BitmapHandle* src, int32_t structSize, int32_t width,
                                           int32_t height, int32_t bitsPerPixel, uint32_t flags) {
    if (!dst || !src || !(src->Flags & BF_ALLOCATED)) return ST_INVALID_BITMAP;
    if (!zk::sizes_ok(src, structSize)) return ST_BAD_STRUCT_SIZE;
    if (dst == src) return ST_BAD_PARAM;  // the duplicate would overwrite its own source
    return zk::duplicate(dst, src, width, height, bitsPerPixel, flags);
}

extern "C" int32_t Z_API Z_FreeDuplicateBitmap(BitmapHandle* bitmap, uint32_t flags) {
    if (!bitmap) return ST_BAD_PARAM;
    if (!(flags & DUP_PALETTE)) bitmap->Palette = nullptr;
    if (!(flags & DUP_REGION)) bitmap->Region = nullptr;
    if (!(flags & DUP_OVERLAYS)) bitmap->Overlays = nullptr;
    if (flags & DUP_ALLOCATE) {
        Z_FreeBitmap(bitmap);
        return ST_OK;
    }
    Z_OsFree(bitmap->Palette);
    bitmap->Palette = nullptr;
    if (bitmap->Region) Z_DeleteZarnRgn(static_cast<ZarnRgn*>(bitmap->Region));
    bitmap->Region = nullptr;
    // An owned overlay table is released too, so that every flag combination
    // frees exactly what the duplicate owns.
    zk::overlays_free(bitmap->Overlays);
    bitmap->Overlays = nullptr;
    return ST_OK;
}

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

extern "C" int32_t Z_API Z_CopyPlaybackParms(BitmapHandle* dst, BitmapHandle* src) {
    if (!dst || !src) return ST_BAD_PARAM;
    if (dst->StructSize != zk::kStructSize || src->StructSize != zk::kStructSize) return ST_BAD_STRUCT_SIZE;
    zk::copy_playback(dst, src);
    return ST_OK;
}
