// Changing the storage of an allocated bitmap: tiles move between memory and
// disk in place, the mapped-tile limit changes, or the bitmap is rebuilt in
// another storage kind (or with another tile size) with its pixels copied.
//
// May include: include/zkernel.h, core/bitmap_handle.h, core/storage.h,
// core/platform/platform.h, core/thread_state.h.
#include <algorithm>
#include <cstring>

#include "bitmap_handle.h"
#include "platform/platform.h"
#include "storage.h"
#include "thread_state.h"

namespace zk {
namespace {

namespace pf = zk::platform;
namespace st = zk::storage;

constexpr uint32_t kUseType = 1, kUseTileSize = 2, kUseTileCount = 4, kUseMemTiles = 8, kUseMaxMapped = 16,
                   kUseMappedCount = 32;
constexpr size_t kDefaultTile = 0x1000000;

struct Request {
    uint32_t type, tile_size, tile_count, mem_tiles, max_mapped, mapped_count, mask;
    bool has(uint32_t bit) const { return (mask & bit) != 0; }
};

// Moves all of `count` bytes between a buffer and a tile file from offset 0.
bool file_move(Z_FILE file, uint8_t* buffer, size_t count, bool put) {
    if (Z_OsSeek(file, 0, 0, nullptr) != 0) return false;
    while (count > 0) {
        const uint32_t n = static_cast<uint32_t>(std::min<size_t>(count, size_t{1} << 30));
        const int32_t moved = put ? Z_OsWrite(file, buffer, n, nullptr) : Z_OsRead(file, buffer, n, nullptr);
        if (moved <= 0) return false;
        buffer += moved;
        count -= static_cast<size_t>(moved);
    }
    return true;
}

// A small array from the runtime heap, released on scope exit.
template <typename T>
struct HeapArray {
    explicit HeapArray(uint32_t n) : p(static_cast<T*>(Z_Calloc(n ? n : 1, sizeof(T)))) {}
    ~HeapArray() { Z_Free(p); }
    HeapArray(const HeapArray&) = delete;
    HeapArray& operator=(const HeapArray&) = delete;
    T* p;
};

// Disk tiles [from, to) join memory. Every new mapping is made and filled
// before any tile changes, so a failure leaves the bitmap as it was.
int32_t grow_mem_tiles(BitmapHandle& b, st::TileTable* t, uint32_t to) {
    const uint32_t from = t->MemTiles;
    const uint32_t n = to - from;
    HeapArray<pf::Mapping> fresh(n);
    if (!fresh.p) return ST_NO_MEMORY;
    st::TileEntry* e = t->entries();
    int32_t r = ST_OK;
    uint32_t made = 0;
    for (; made < n; ++made) {
        const uint32_t i = from + made;
        const size_t bytes = st::tile_bytes(b, i);
        fresh.p[made] = pf::map_anonymous(bytes);
        if (!fresh.p[made]) {
            r = ST_NO_MEMORY;
            break;
        }
        auto* view = static_cast<uint8_t*>(fresh.p[made].view);
        if (e[i].view) {
            std::memcpy(view, e[i].view, bytes);
        } else if (!file_move(e[i].file, view, bytes, false)) {
            r = ST_FILE_READ;
            ++made;
            break;
        }
    }
    if (r != ST_OK) {
        for (uint32_t k = 0; k < made; ++k) pf::unmap(fresh.p[k]);
        return r;
    }
    // Commit: no disk tile stays mapped across the change of placement.
    st::set_mapped_count(b, 0);
    for (uint32_t k = 0; k < n; ++k) {
        const uint32_t i = from + k;
        Z_OsClose(e[i].file, nullptr);
        e[i].mapping = fresh.p[k].handle;
        e[i].view = static_cast<uint8_t*>(fresh.p[k].view);
        e[i].file = Z_INVALID_FILE;
    }
    t->MemTiles = to;
    return ST_OK;
}

// Memory tiles [to, MemTiles) leave for disk. Every file is made and written
// before any tile changes.
int32_t shrink_mem_tiles(BitmapHandle& b, st::TileTable* t, uint32_t to) {
    const uint32_t from = t->MemTiles;
    const uint32_t n = from - to;
    HeapArray<Z_FILE> files(n);
    if (!files.p) return ST_NO_MEMORY;
    st::TileEntry* e = t->entries();
    int32_t r = ST_OK;
    uint32_t made = 0;
    for (; made < n; ++made) {
        const uint32_t i = to + made;
        const size_t bytes = st::tile_bytes(b, i);
        files.p[made] = st::create_tile_file(bytes);
        if (files.p[made] == Z_INVALID_FILE) {
            r = ST_TEMP_FILE;
            break;
        }
        if (!file_move(files.p[made], e[i].view, bytes, true)) {
            r = ST_FILE_WRITE;
            ++made;
            break;
        }
    }
    if (r != ST_OK) {
        for (uint32_t k = 0; k < made; ++k) Z_OsClose(files.p[k], nullptr);
        return r;
    }
    st::set_mapped_count(b, 0);
    for (uint32_t k = 0; k < n; ++k) {
        const uint32_t i = to + k;
        pf::Mapping m;
        m.handle = e[i].mapping;
        m.view = e[i].view;
        m.size = st::tile_bytes(b, i);
        pf::unmap(m);
        e[i] = st::TileEntry{nullptr, nullptr, files.p[k], 0};
    }
    t->MemTiles = to;
    return ST_OK;
}

int32_t change_in_place(BitmapHandle& b, const Request& q) {
    st::TileTable* t = st::tile_table(b);
    if (!t) return ST_INVALID_BITMAP;
    const uint32_t mapped_before = t->MappedCount;
    uint32_t mem = q.has(kUseMemTiles) ? std::min(q.mem_tiles, t->TileCount) : t->MemTiles;
    int32_t r = ST_OK;
    if (mem > t->MemTiles)
        r = grow_mem_tiles(b, t, mem);
    else if (mem < t->MemTiles)
        r = shrink_mem_tiles(b, t, mem);
    if (r != ST_OK) return r;
    const uint32_t room = t->TileCount - t->MemTiles;
    if (q.has(kUseMaxMapped)) t->MaxMapped = std::min(q.max_mapped, room);
    t->MaxMapped = std::min(t->MaxMapped, room);
    const uint32_t target = std::min(q.has(kUseMappedCount) ? q.mapped_count : mapped_before, t->MaxMapped);
    st::set_mapped_count(b, target);
    return ST_OK;
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
