// Changing the storage of an allocated bitmap: tiles move between memory and
// disk in place, the mapped-tile limit changes, or the bitmap is rebuilt in
// another storage kind (or with another tile size) with its pixels copied.
//
// May include: include/zkernel.h, core/bitmap_handle.h, core/storage.h,
// core/thread_state.h.
#include <algorithm>
#include <cstring>

#include "bitmap_handle.h"
#include "storage.h"
#include "thread_state.h"

namespace zk {
namespace {

namespace st = zk::storage;

constexpr uint32_t kUseType = 1, kUseTileSize = 2, kUseTileCount = 4, kUseMemTiles = 8, kUseMaxMapped = 16,
                   kUseMappedCount = 32;
constexpr size_t kDefaultTile = 0x1000000;

struct Request {
    uint32_t type, tile_size, tile_count, mem_tiles, max_mapped, mapped_count, mask;
    bool has(uint32_t bit) const { return (mask & bit) != 0; }
};

int32_t change_in_place(BitmapHandle& b, const Request& q) {
    const st::TileTable* t = st::tile_table(b);
    if (!t) return ST_INVALID_BITMAP;
    return st::place_tiles(b, q.has(kUseMemTiles) ? q.mem_tiles : t->MemTiles,
                           q.has(kUseMaxMapped) ? q.max_mapped : t->MaxMapped,
                           q.has(kUseMappedCount) ? q.mapped_count : t->MappedCount);
}

// Rows per tile for a rebuild into tiles: from the tile size, else from the
// tile count, else the current or the thread's tile size.
uint32_t rows_per_tile(const BitmapHandle& b, const Request& q, const st::TileTable* current, size_t tile) {
    const uint32_t bpl = b.BytesPerLine ? b.BytesPerLine : 1;
    if (!q.has(kUseTileSize) && q.has(kUseTileCount) && q.tile_count > 0) {
        const uint32_t h = static_cast<uint32_t>(b.Height);
        return std::max<uint32_t>(1, (h + q.tile_count - 1) / q.tile_count);
    }
    if (!q.has(kUseTileSize) && current) return current->RowsPerTile;
    const uint64_t rows = (static_cast<uint64_t>(tile) + bpl - 1) / bpl;
    return static_cast<uint32_t>(std::clamp<uint64_t>(rows, 1, static_cast<uint32_t>(b.Height)));
}

int32_t rebuild(BitmapHandle& b, const Request& q, uint32_t current_type) {
    const uint32_t type = q.has(kUseType) ? q.type : current_type;
    const st::TileTable* current = st::tile_table(b);
    BitmapHandle fresh;
    int32_t r = Z_DupBitmapNewDim(&fresh, &b, Z_BITMAPHANDLE_SIZE, b.Width, b.Height, b.BitsPerPixel, 0);
    if (r != ST_OK) return r;
    if (type == TYPE_TILED) {
        const int32_t threshold = thread_state().tile_size;
        size_t tile = q.has(kUseTileSize) ? q.tile_size
                      : current           ? size_t{current->RowsPerTile} * b.BytesPerLine
                                          : static_cast<size_t>(threshold > 0 ? threshold : 0);
        if (tile < 1) tile = kDefaultTile;
        if (fresh.Size >= tile) {
            st::TileLayout layout{};
            layout.rows_per_tile = rows_per_tile(b, q, current, tile);
            const uint32_t count = (static_cast<uint32_t>(b.Height) + layout.rows_per_tile - 1) / layout.rows_per_tile;
            layout.mem_tiles = q.has(kUseMemTiles) ? q.mem_tiles : current ? current->MemTiles : count;
            layout.max_mapped = q.has(kUseMaxMapped) ? q.max_mapped : current ? current->MaxMapped : 1;
            fresh.Flags &= ~BF_STORAGE_MASK;
            r = st::build_tiles(fresh, layout);
        } else {
            r = Z_AllocateBitmap(&fresh, TYPE_CONV);
        }
    } else {
        r = Z_AllocateBitmap(&fresh, type);
    }
    if (r == ST_OK) {
        r = Z_CopyBitmapData(&fresh, &b);
        if (r != ST_OK) {
            st::release(fresh);
            Z_OsFree(fresh.ValueMap);
        }
    }
    if (r != ST_OK) {
        Z_FreeDuplicateBitmap(&fresh, 0);
        return r;
    }
    // The new storage takes the old one's place; palette, region, overlays,
    // gray parameters and value map stay the caller's.
    st::release(b);
    Z_OsFree(fresh.ValueMap);
    b.Data = fresh.Data;
    b.DataHandle = fresh.DataHandle;
    b.DataOffset = fresh.DataOffset;
    b.Size = fresh.Size;
    b.CurRow = 0;
    b.CurRowOffset = 0;
    b.Flags = (b.Flags & ~BF_STORAGE_MASK) | (fresh.Flags & BF_STORAGE_MASK);
    return ST_OK;
}

}  // namespace
}  // namespace zk

extern "C" int32_t Z_API Z_SetBitmapMemoryInfo(BitmapHandle* bitmap, uint32_t memoryType, uint32_t tileSize,
                                               uint32_t tileCount, uint32_t memTiles, uint32_t maxMapped,
                                               uint32_t mappedCount, uint32_t mask) {
    if (!bitmap) return ST_NO_BITMAP;
    if (bitmap->StructSize != zk::kStructSize) return ST_BAD_STRUCT_SIZE;
    uint32_t current = 0;
    int32_t r = Z_GetBitmapMemoryInfo(bitmap, &current, nullptr, nullptr, nullptr, nullptr, nullptr);
    if (r != ST_OK) return r;
    const zk::Request q{memoryType, tileSize, tileCount, memTiles, maxMapped, mappedCount, mask};
    const bool tiled = current == TYPE_TILED;
    bool rebuild = false;
    if (q.has(zk::kUseType)) {
        if (memoryType != current) {
            rebuild = true;
        } else if (tiled && q.has(zk::kUseTileSize)) {
            const uint32_t bpl = bitmap->BytesPerLine ? bitmap->BytesPerLine : 1;
            const uint64_t rows = (uint64_t{tileSize} + bpl - 1) / bpl;
            rebuild = rows != zk::storage::tile_table(*bitmap)->RowsPerTile;
        }
    }
    if (rebuild) return zk::rebuild(*bitmap, q, current);
    if (!tiled) return ST_OK;
    return zk::change_in_place(*bitmap, q);
}
