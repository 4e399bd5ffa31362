// Duplicating bitmap records: the record copy, duplication with new
// dimensions and its undo, and the playback words.
//
// A duplicate that fails leaves its destination freed (or only described);
// pointers the destination merely shares with its source are cleared before
// it is freed, so the source keeps them.
#include "duplicate.h"

#include <cstring>

#include "bitmap_handle.h"
#include "overlays.h"
#include "region.h"
#include "storage.h"

namespace zk {
namespace {

// Flags a duplicate takes from its source before any allocation.
constexpr uint32_t kInheritedFlags = kFlagCarried | BF_COMPRESSED | BF_SUPERCOMPRESSED | BF_DISK | BF_SIGNED;

// The duplicate's own copy of the source's palette (none when the source has
// none); false when memory runs out.
bool copy_palette(BitmapHandle* dst, const BitmapHandle* src) {
    dst->Palette = nullptr;
    if (!src->Palette || src->ColorCount == 0) return true;
    const size_t bytes = size_t{src->ColorCount} * sizeof(RGBQUAD);
    auto* p = static_cast<RGBQUAD*>(Z_OsAlloc(bytes));
    if (!p) return false;
    std::memcpy(p, src->Palette, bytes);
    dst->Palette = p;
    return true;
}

}  // namespace

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

namespace {

// Drops a duplicate that failed half-way: shared pointers are cleared so the
// source keeps them, then what the duplicate owns is released.
void undo_duplicate(BitmapHandle* dst, uint32_t flags) {
    if (!(flags & DUP_PALETTE)) dst->Palette = nullptr;
    if (!(flags & DUP_REGION)) dst->Region = nullptr;
    if (!(flags & DUP_OVERLAYS)) dst->Overlays = nullptr;
    Z_FreeBitmap(dst);
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
        r = Z_AllocateBitmap(dst, storage::duplicate_type(storage::kind_of(*src)));
        if (r != ST_OK) {
            Z_FreeBitmap(dst);  // nothing shared yet
            return r;
        }
    }

    if (flags & DUP_PALETTE) {
        if (!copy_palette(dst, src)) {
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
    if (structSize != Z_BITMAPHANDLE_SIZE || src->StructSize != zk::kStructSize) return ST_BAD_STRUCT_SIZE;
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

extern "C" int32_t Z_API Z_CopyPlaybackParms(BitmapHandle* dst, BitmapHandle* src) {
    if (!dst || !src) return ST_BAD_PARAM;
    if (dst->StructSize != zk::kStructSize || src->StructSize != zk::kStructSize) return ST_BAD_STRUCT_SIZE;
    zk::copy_playback(dst, src);
    return ST_OK;
}
