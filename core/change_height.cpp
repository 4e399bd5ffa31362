// Changing a bitmap's height in place: the resize operation of each storage
// kind (conventional mappings are re-mapped, global blocks reallocated, disk
// files resized, tiles added or dropped) and the export over them. Rows
// below the new height are dropped; rows added at the bottom are zero.
#include <algorithm>
#include <cstring>

#include "bitmap_handle.h"
#include "platform/platform.h"
#include "storage.h"

namespace zk {
namespace {

namespace pf = zk::platform;
namespace st = zk::storage;

// Tiled storage keeps its tile geometry: tiles past the new last one are
// dropped, tiles that the new height needs are added (in memory when every
// tile was in memory, else on disk, zero-filled), and the tile that ends the
// bitmap on both sides of the change is resized. Everything that can fail is
// acquired before the first tile changes, so a failure leaves the pixels and
// the tiles as they were.
struct TileGeometry {
    uint32_t rows_per_tile, bytes_per_line, count;
    uint64_t height;
    size_t bytes(uint32_t i) const {
        const uint64_t rows = i + 1 < count ? rows_per_tile : height - uint64_t{rows_per_tile} * (count - 1);
        return static_cast<size_t>(rows * bytes_per_line);
    }
};

void drop_tile(st::TileEntry& e, size_t bytes) {
    if (e.view) {
        pf::Mapping m;
        m.handle = e.mapping;
        m.view = e.view;
        m.size = bytes;
        pf::unmap(m);
    }
    if (e.file != Z_INVALID_FILE) Z_OsClose(e.file, nullptr);
    e = st::TileEntry{nullptr, nullptr, Z_INVALID_FILE, 0};
}

}  // namespace

namespace storage {

int32_t resize_tiled(BitmapHandle& b, int32_t height, size_t) {
    st::TileTable* t = st::tile_table(b);
    if (!t || t->RowsPerTile == 0 || t->TileCount == 0) return ST_INVALID_BITMAP;
    const uint32_t rpt = t->RowsPerTile;
    const TileGeometry before{rpt, b.BytesPerLine, t->TileCount, static_cast<uint32_t>(b.Height)};
    const uint32_t count = static_cast<uint32_t>((static_cast<uint64_t>(height) + rpt - 1) / rpt);
    const TileGeometry after{rpt, b.BytesPerLine, count, static_cast<uint32_t>(height)};
    const bool all_memory = t->MemTiles >= t->TileCount;
    const uint32_t mapped_target = t->MappedCount;
    const uint32_t kept = std::min(before.count, after.count);  // tiles on both sides
    const uint32_t edge = kept - 1;                             // the one that may change size

    // Room in the table first; the table may move.
    if (after.count > before.count) {
        auto* grown = static_cast<st::TileTable*>(Z_OsReAlloc(t, st::tile_table_bytes(after.count)));
        if (!grown) return ST_NO_MEMORY;
        t = grown;
        b.Data = reinterpret_cast<uint8_t*>(t);
        for (uint32_t i = before.count; i < after.count; ++i)
            t->entries()[i] = st::TileEntry{nullptr, nullptr, Z_INVALID_FILE, 0};
    }
    st::TileEntry* e = t->entries();

    // New tiles, built aside.
    const uint32_t added = after.count - kept;
    st::TileEntry* fresh = nullptr;
    if (added) {
        fresh = static_cast<st::TileEntry*>(Z_Calloc(added, sizeof(st::TileEntry)));
        if (!fresh) return ST_NO_MEMORY;
    }
    auto discard = [&](uint32_t made) {
        for (uint32_t k = 0; k < made; ++k) drop_tile(fresh[k], after.bytes(kept + k));
        Z_Free(fresh);
    };
    for (uint32_t k = 0; k < added; ++k) {
        const size_t bytes = after.bytes(kept + k);
        fresh[k] = st::TileEntry{nullptr, nullptr, Z_INVALID_FILE, 0};
        if (all_memory) {
            pf::Mapping m = pf::map_anonymous(bytes);
            if (!m) {
                discard(k);
                return ST_NO_MEMORY;
            }
            fresh[k].mapping = m.handle;
            fresh[k].view = static_cast<uint8_t*>(m.view);
        } else {
            fresh[k].file = st::create_tile_file(bytes);
            if (fresh[k].file == Z_INVALID_FILE) {
                discard(k);
                return ST_TEMP_FILE;
            }
        }
    }

    // The edge tile: a memory tile gets a new mapping of its new size with
    // its rows copied; a disk tile has its file cut or extended, with no view
    // of it left mapped.
    const size_t edge_old = before.bytes(edge), edge_new = after.bytes(edge);
    pf::Mapping edge_map;
    if (edge_old != edge_new) {
        if (e[edge].file == Z_INVALID_FILE) {
            edge_map = pf::map_anonymous(edge_new);
            if (!edge_map) {
                discard(added);
                return ST_NO_MEMORY;
            }
            std::memcpy(edge_map.view, e[edge].view, std::min(edge_old, edge_new));
        } else {
            st::set_mapped_count(b, 0);
            const auto file = static_cast<pf::FileHandle>(e[edge].file);
            // Growth reserves its blocks: a mapped tile must never meet a full disk.
            const bool done =
                edge_new > edge_old ? pf::file_reserve(file, edge_new) : pf::file_set_size(file, edge_new);
            if (!done) {
                if (edge_new > edge_old) pf::file_set_size(file, edge_old);
                discard(added);
                return ST_NO_MEMORY;
            }
        }
    }

    // Commit: nothing below fails.
    st::set_mapped_count(b, 0);
    for (uint32_t i = kept; i < before.count; ++i) drop_tile(e[i], before.bytes(i));
    if (edge_map) {
        drop_tile(e[edge], edge_old);
        e[edge].mapping = edge_map.handle;
        e[edge].view = static_cast<uint8_t*>(edge_map.view);
    }
    for (uint32_t k = 0; k < added; ++k) e[kept + k] = fresh[k];
    Z_Free(fresh);
    t->TileCount = after.count;
    t->MemTiles = all_memory ? after.count : std::min(t->MemTiles, after.count);
    const uint32_t disk_tiles = after.count - t->MemTiles;
    t->MaxMapped = std::min(t->MaxMapped, disk_tiles);
    if (disk_tiles > 0 && t->MaxMapped == 0) t->MaxMapped = 1;
    if (after.count < before.count) {
        if (void* smaller = Z_OsReAlloc(t, st::tile_table_bytes(after.count))) {
            t = static_cast<st::TileTable*>(smaller);
            b.Data = reinterpret_cast<uint8_t*>(t);
        }
    }
    b.Height = height;
    b.Size = static_cast<size_t>(b.BytesPerLine) * static_cast<uint32_t>(height);
    st::set_mapped_count(b, mapped_target);
    return ST_OK;
}

// Global storage: the unlocked block is reallocated, the growth zeroed.
// Conventional storage is re-mapped.
int32_t resize_memory(BitmapHandle& b, int32_t, size_t new_size) {
    if (b.Flags & BF_GLOBAL) {
        pf::BlockHandle grown = pf::block_realloc(b.DataHandle, new_size + b.DataOffset, true);
        if (!grown) return ST_NO_MEMORY;
        b.DataHandle = grown;
        b.Size = new_size;
        return ST_OK;
    }
    const int32_t r = remap_conventional(b, new_size);
    return r == ST_BAD_PARAM ? ST_NO_MEMORY : r;
}

// Disk storage: the file is set to the new size. Growth reserves the new
// blocks first (zeros), so a full disk or the file-size limit is a status
// here and the file keeps its length and rows.
int32_t resize_disk(BitmapHandle& b, int32_t, size_t new_size) {
    const auto file = static_cast<pf::FileHandle>(reinterpret_cast<intptr_t>(b.DataHandle));
    if (new_size > b.Size) {
        const auto old_length = pf::file_seek(file, 0, 2);
        if (old_length < 0) return ST_NO_MEMORY;
        if (!pf::file_reserve(file, new_size)) {
            pf::file_set_size(file, static_cast<uint64_t>(old_length));
            return ST_NO_MEMORY;
        }
    }
    if (!pf::file_set_size(file, new_size)) return ST_NO_MEMORY;
    b.Size = new_size;
    return ST_OK;
}

}  // namespace storage
}  // namespace zk

extern "C" int32_t Z_API Z_ChangeBitmapHeight(BitmapHandle* bitmap, int32_t height) {
    if (!bitmap || !(bitmap->Flags & BF_ALLOCATED)) return ST_INVALID_BITMAP;
    if (bitmap->StructSize != zk::kStructSize) return ST_BAD_STRUCT_SIZE;
    if (bitmap->Flags & (BF_USER_DATA | BF_LOCKED)) return ST_BAD_PARAM;
    if (height == bitmap->Height) return ST_OK;
    if (height < 1) return ST_BAD_PARAM;
    const uint64_t wanted = static_cast<uint64_t>(bitmap->BytesPerLine) * static_cast<uint32_t>(height);
    if (wanted > zk::kMaxImageBytes) return ST_TOO_LARGE;
    const size_t new_size = static_cast<size_t>(wanted);
    const zk::storage::KindOps* ops = zk::storage::kind_ops(*bitmap);
    if (!ops) return ST_INVALID_BITMAP;
    if (!ops->resize) return ST_BAD_PARAM;
    const int32_t r = ops->resize(*bitmap, height, new_size);
    if (r != ST_OK) return r;
    bitmap->Height = height;
    bitmap->CurRow = 0;
    bitmap->CurRowOffset = 0;
    return ST_OK;
}
