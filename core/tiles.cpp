// Tiled storage: the tile table, memory tiles (anonymous mappings kept
// mapped), disk tiles (delete-on-close temporary files mapped on demand, at
// most MaxMapped at once, oldest unmapped first), and byte-span access across
// tile boundaries.
#include <algorithm>
#include <cstring>

#include "bitmap_handle.h"
#include "platform/platform.h"
#include "storage.h"
#include "thread_state.h"

namespace pf = zk::platform;

namespace zk::storage {

namespace {

// Largest count handed to one positional read or write.
constexpr size_t kFileChunk = size_t{1} << 30;

pf::Mapping mapping_of(const TileEntry& e, size_t bytes) {
    pf::Mapping m;
    m.handle = e.mapping;
    m.view = e.view;
    m.size = bytes;
    return m;
}

void unmap_entry(TileEntry& e, size_t bytes) {
    if (!e.view) return;
    pf::Mapping m = mapping_of(e, bytes);
    pf::unmap(m);
    e.mapping = nullptr;
    e.view = nullptr;
}

// Releases tiles [0, built) of a table, last to first, and the table itself.
void destroy_table(TileTable* t, const BitmapHandle& b, uint32_t built) {
    TileEntry* e = t->entries();
    for (uint32_t i = built; i-- > 0;) {
        unmap_entry(e[i], tile_bytes(b, i));
        if (e[i].file != Z_INVALID_FILE) {
            Z_OsClose(e[i].file, nullptr);
            e[i].file = Z_INVALID_FILE;
        }
    }
    Z_OsFree(t);
}

// Moves `count` bytes between `buffer` and the tile file at `offset` with the
// library's own routines: ST_OK or why not (row access through the kind's
// fetch and store does not report it: it returns the requested count).
// Positional: one system call per chunk, the file position untouched.
int32_t file_transfer(Z_FILE file, uint64_t offset, uint8_t* buffer, size_t count, bool put) {
    while (count > 0) {
        const size_t n = std::min(count, kFileChunk);
        const int64_t moved =
            put ? pf::file_write_at(file, buffer, n, offset) : pf::file_read_at(file, buffer, n, offset);
        if (moved <= 0) return put ? ST_FILE_WRITE : ST_FILE_READ;
        buffer += moved;
        offset += static_cast<uint64_t>(moved);
        count -= static_cast<size_t>(moved);
    }
    return ST_OK;
}

// Makes disk tile `index` addressable when the mapped limit allows: maps it
// at once below MaxMapped, else unmaps the oldest and retries until it maps
// or nothing is left mapped.
uint8_t* ensure_view(BitmapHandle& b, TileTable* t, uint32_t index) {
    TileEntry& e = t->entries()[index];
    if (e.view) return e.view;
    for (;;) {
        if (t->MappedCount < t->MaxMapped && map_tile(b, index)) return e.view;
        if (t->MappedCount == 0) return nullptr;
        unmap_oldest(b);
    }
}

// Moves one piece that lies inside tile `index`: through the tile's view
// (mapping a disk tile first when `map` says so), else through its file.
int32_t piece(BitmapHandle& b, TileTable* t, uint32_t index, size_t start, uint8_t* buffer, size_t count, bool put,
              bool map) {
    TileEntry& e = t->entries()[index];
    uint8_t* view = e.file == Z_INVALID_FILE || !map ? e.view : ensure_view(b, t, index);
    if (view) {
        if (put)
            std::memcpy(view + start, buffer, count);
        else
            std::memcpy(buffer, view + start, count);
        return ST_OK;
    }
    return e.file != Z_INVALID_FILE ? file_transfer(e.file, start, buffer, count, put) : ST_INVALID_BITMAP;
}

// The span's pieces, tile by tile, once the span has been checked: ST_OK,
// or the first piece's failure (the others are still moved).
int32_t pieces(BitmapHandle& b, TileTable* t, size_t offset, uint8_t* buffer, size_t count, bool put, bool map) {
    const size_t full = size_t{b.BytesPerLine} * t->RowsPerTile;
    uint32_t index = static_cast<uint32_t>(offset / full);
    size_t start = offset % full;
    size_t left = count;
    int32_t status = ST_OK;
    while (left > 0 && index < t->TileCount) {
        const size_t bytes = tile_bytes(b, index);
        const size_t n = std::min(left, bytes - start);
        if (const int32_t r = piece(b, t, index, start, buffer, n, put, map); r != ST_OK && status == ST_OK) status = r;
        buffer += n;
        left -= n;
        ++index;
        start = 0;
    }
    return status;
}

// The table of a tiled bitmap whose pixels hold the span, else null with
// the status in *status.
TileTable* checked_table(BitmapHandle& b, size_t offset, size_t count, int32_t* status) {
    TileTable* t = tile_table(b);
    *status = !t || t->RowsPerTile == 0 || t->TileCount == 0                       ? ST_INVALID_BITMAP
              : offset > reachable_bytes(b) || count > reachable_bytes(b) - offset ? ST_BAD_PARAM
                                                                                   : ST_OK;
    return *status == ST_OK ? t : nullptr;
}

int64_t tiled_transfer(BitmapHandle& b, size_t offset, uint8_t* buffer, size_t count, bool put) {
    int32_t status = ST_OK;
    TileTable* t = checked_table(b, offset, count, &status);
    if (!t) return status;
    // Row access moves the span it was asked for: a file that fails under a
    // tile whose view could not be made is not reported.
    pieces(b, t, offset, buffer, count, put, true);
    return static_cast<int64_t>(count);
}

int64_t tiled_fetch(BitmapHandle& b, size_t offset, uint8_t* out, size_t count) {
    return tiled_transfer(b, offset, out, count, false);
}

int64_t tiled_store(BitmapHandle& b, size_t offset, const uint8_t* in, size_t count) {
    // The buffer is only read on this path.
    return tiled_transfer(b, offset, const_cast<uint8_t*>(in), count, true);
}

uint8_t* tiled_map(BitmapHandle& b, size_t offset, size_t count) {
    TileTable* t = tile_table(b);
    if (!t || t->RowsPerTile == 0) return nullptr;
    if (offset > reachable_bytes(b) || count > reachable_bytes(b) - offset) return nullptr;
    const size_t full = size_t{b.BytesPerLine} * t->RowsPerTile;
    const uint32_t index = static_cast<uint32_t>(offset / full);
    const size_t start = offset % full;
    if (index >= t->TileCount || count > tile_bytes(b, index) - start) return nullptr;
    TileEntry& e = t->entries()[index];
    uint8_t* view = e.file == Z_INVALID_FILE ? e.view : ensure_view(b, t, index);
    return view ? view + start : nullptr;
}

void tiled_release(BitmapHandle& b) {
    TileTable* t = tile_table(b);
    if (t) destroy_table(t, b, t->TileCount);
    b.Data = nullptr;
    b.DataHandle = nullptr;
    b.Flags &= ~BF_TILED;
}

// Moves a piece like fetch and store, but reaches disk tiles that are not
// mapped through their files instead of mapping them: for many short pieces
// spread over the image, which through views would map a tile and fault in
// its pages again every few rows. ST_OK, ST_BAD_PARAM (outside the pixels),
// ST_FILE_READ or ST_FILE_WRITE.
int32_t tiled_transfer_unmapped(BitmapHandle& b, size_t offset, uint8_t* buffer, size_t count, bool put) {
    int32_t status = ST_OK;
    TileTable* t = checked_table(b, offset, count, &status);
    return t ? pieces(b, t, offset, buffer, count, put, false) : status;
}

// Rows that a rectangle has in one tile: `count` rows of `bytes` bytes,
// `stride` bytes apart from byte `start` of the tile.
struct TileRows {
    size_t start, stride, bytes;
    uint32_t count;
    size_t span() const { return (count - 1) * stride + bytes; }
};

// Moves the rows of a rectangle in one tile from or to `buffer`: through
// the tile's view when it has one, else through its file, one positional
// read per row, or one positional write per row with the file's limits
// asked once.
int32_t tile_rows(TileEntry& e, const TileRows& r, uint8_t* buffer, bool put) {
    if (e.view) {
        for (uint32_t k = 0; k < r.count; ++k, buffer += r.bytes) {
            uint8_t* at = e.view + r.start + k * r.stride;
            put ? std::memcpy(at, buffer, r.bytes) : std::memcpy(buffer, at, r.bytes);
        }
        return ST_OK;
    }
    if (e.file == Z_INVALID_FILE) return ST_INVALID_BITMAP;
    if (put) return pf::file_write_pieces(e.file, r.start, r.stride, r.bytes, r.count, buffer) ? ST_OK : ST_FILE_WRITE;
    int32_t status = ST_OK;
    for (uint32_t k = 0; k < r.count; ++k, buffer += r.bytes)
        if (const int32_t st = file_transfer(e.file, r.start + k * r.stride, buffer, r.bytes, false);
            st != ST_OK && status == ST_OK)
            status = st;
    return status;
}

// Calls fn(entry, rows) for the rows a rectangle has in each tile, first
// tile first; ST_OK or the first failure (the other tiles are still done).
template <typename Fn>
int32_t each_tile(BitmapHandle& b, size_t offset, size_t bytes, uint32_t rows, Fn fn) {
    const size_t stride = b.BytesPerLine;
    if (rows == 0 || bytes == 0) return ST_OK;
    if (stride == 0 || offset % stride + bytes > stride) return ST_BAD_PARAM;
    int32_t status = ST_OK;
    TileTable* t = checked_table(b, offset, size_t{rows - 1} * stride + bytes, &status);
    if (!t) return status;
    uint64_t row = offset / stride;
    const size_t at = offset % stride;
    while (rows > 0) {
        const uint32_t index = static_cast<uint32_t>(row / t->RowsPerTile);
        const uint32_t first = static_cast<uint32_t>(row % t->RowsPerTile);
        const uint32_t n = std::min(rows, t->RowsPerTile - first);
        const TileRows r{first * stride + at, stride, bytes, n};
        if (const int32_t st = fn(t->entries()[index], r); st != ST_OK && status == ST_OK) status = st;
        rows -= n;
        row += n;
    }
    return status;
}

}  // namespace

int32_t transfer_tile_rows(BitmapHandle& b, size_t offset, size_t bytes, uint32_t rows, uint8_t* buffer, bool put) {
    return each_tile(b, offset, bytes, rows, [&](TileEntry& e, const TileRows& r) {
        const int32_t st = tile_rows(e, r, buffer, put);
        buffer += r.count * r.bytes;
        return st;
    });
}

void will_read_tile_rows(BitmapHandle& b, size_t offset, size_t bytes, uint32_t rows) {
    each_tile(b, offset, bytes, rows, [](TileEntry& e, const TileRows& r) {
        if (!e.view && e.file != Z_INVALID_FILE) pf::file_will_read(e.file, r.start, r.span());
        return ST_OK;
    });
}

extern const KindOps kTiledOps;
const KindOps kTiledOps = {
    StorageKind::Tiled,      false,   true,   false, tiled_fetch, tiled_store, tiled_map, tiled_release, resize_tiled,
    tiled_transfer_unmapped, nullptr, nullptr};

TileTable* tile_table(const BitmapHandle& b) {
    if (kind_of(b) != StorageKind::Tiled) return nullptr;
    return reinterpret_cast<TileTable*>(b.Data);
}

size_t tile_bytes(const BitmapHandle& b, uint32_t index) {
    const TileTable* t = tile_table(b);
    if (!t || index >= t->TileCount) return 0;
    uint64_t rows = t->RowsPerTile;
    if (index == t->TileCount - 1) {
        const uint64_t height = b.Height > 0 ? static_cast<uint64_t>(b.Height) : 0;
        const uint64_t before = uint64_t{t->RowsPerTile} * (t->TileCount - 1);
        rows = height > before ? height - before : 0;
    }
    return static_cast<size_t>(rows * b.BytesPerLine);
}

bool map_tile(BitmapHandle& b, uint32_t index) {
    TileTable* t = tile_table(b);
    if (!t || index >= t->TileCount) return false;
    TileEntry* e = t->entries();
    if (e[index].file == Z_INVALID_FILE || e[index].view) return false;
    if (t->MappedCount >= t->TileCount) return false;
    pf::Mapping m = pf::map_file(e[index].file, tile_bytes(b, index));
    if (!m) return false;
    e[index].mapping = m.handle;
    e[index].view = static_cast<uint8_t*>(m.view);
    e[t->MappedCount].mapped = index;
    ++t->MappedCount;
    return true;
}

void unmap_oldest(BitmapHandle& b) {
    TileTable* t = tile_table(b);
    if (!t || t->MappedCount == 0) return;
    TileEntry* e = t->entries();
    const uintptr_t oldest = e[0].mapped;
    for (uint32_t k = 1; k < t->MappedCount; ++k) e[k - 1].mapped = e[k].mapped;
    --t->MappedCount;
    e[t->MappedCount].mapped = 0;
    if (oldest < t->TileCount && e[oldest].file != Z_INVALID_FILE)
        unmap_entry(e[oldest], tile_bytes(b, static_cast<uint32_t>(oldest)));
}

uint32_t set_mapped_count(BitmapHandle& b, uint32_t target) {
    TileTable* t = tile_table(b);
    if (!t) return 0;
    while (t->MappedCount > target) unmap_oldest(b);
    target = std::min(target, t->MaxMapped);
    for (uint32_t i = t->MemTiles; i < t->TileCount && t->MappedCount < target; ++i) {
        const TileEntry& e = t->entries()[i];
        if (e.file == Z_INVALID_FILE) {
            // A memory tile right after the memory tiles joins their count.
            if (i == t->MemTiles) ++t->MemTiles;
        } else if (!e.view) {
            map_tile(b, i);
        }
    }
    return t->MappedCount;
}

Z_FILE create_tile_file(uint64_t bytes) {
    if (bytes == 0) return Z_INVALID_FILE;
    int32_t status;
    return create_reserved_temp_file(bytes, &status);
}

int32_t build_tiles(BitmapHandle& b, const TileLayout& layout) {
    if (b.Height < 1) return ST_INVALID_BITMAP;
    if (layout.rows_per_tile == 0 || b.BytesPerLine == 0) return ST_BAD_PARAM;
    const uint32_t height = static_cast<uint32_t>(b.Height);
    const uint32_t rows = layout.rows_per_tile;
    const uint32_t count = height / rows + (height % rows ? 1 : 0);
    if (tile_table_bytes(count) / sizeof(TileEntry) < count) return ST_NO_MEMORY;

    auto* t = static_cast<TileTable*>(Z_OsAlloc(tile_table_bytes(count)));
    if (!t) return ST_NO_MEMORY;
    t->TileCount = count;
    t->MemTiles = std::min(layout.mem_tiles, count);
    t->RowsPerTile = rows;
    t->MappedCount = 0;
    const uint32_t disk_tiles = count - t->MemTiles;
    uint32_t views = std::min(layout.max_mapped, disk_tiles);
    if (disk_tiles > 0 && views == 0) views = 1;
    t->MaxMapped = views;
    TileEntry* e = t->entries();
    for (uint32_t i = 0; i < count; ++i) e[i] = TileEntry{nullptr, nullptr, Z_INVALID_FILE, 0};

    // Tile sizes are read through a record that already points at the table.
    BitmapHandle probe = b;
    probe.Data = reinterpret_cast<uint8_t*>(t);
    probe.Flags |= BF_TILED;
    for (uint32_t i = 0; i < count; ++i) {
        const size_t bytes = tile_bytes(probe, i);
        if (i < t->MemTiles) {
            pf::Mapping m = pf::map_anonymous(bytes);
            if (!m) {
                destroy_table(t, probe, i);
                return ST_NO_MEMORY;
            }
            e[i].mapping = m.handle;
            e[i].view = static_cast<uint8_t*>(m.view);
        } else {
            e[i].file = create_tile_file(bytes);
            if (e[i].file == Z_INVALID_FILE) {
                destroy_table(t, probe, i);
                return ST_TEMP_FILE;
            }
        }
    }
    b.Data = reinterpret_cast<uint8_t*>(t);
    b.DataHandle = nullptr;
    b.DataOffset = 0;
    b.Flags |= BF_ALLOCATED | BF_MEMORY | BF_TILED;
    set_mapped_count(b, views);
    return ST_OK;
}

namespace {

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
int32_t grow_mem_tiles(BitmapHandle& b, TileTable* t, uint32_t to) {
    const uint32_t from = t->MemTiles;
    const uint32_t n = to - from;
    HeapArray<pf::Mapping> fresh(n);
    if (!fresh.p) return ST_NO_MEMORY;
    TileEntry* e = t->entries();
    int32_t r = ST_OK;
    uint32_t made = 0;
    for (; made < n; ++made) {
        const uint32_t i = from + made;
        const size_t bytes = tile_bytes(b, i);
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
    set_mapped_count(b, 0);
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
int32_t shrink_mem_tiles(BitmapHandle& b, TileTable* t, uint32_t to) {
    const uint32_t from = t->MemTiles;
    const uint32_t n = from - to;
    HeapArray<Z_FILE> files(n);
    if (!files.p) return ST_NO_MEMORY;
    TileEntry* e = t->entries();
    int32_t r = ST_OK;
    uint32_t made = 0;
    for (; made < n; ++made) {
        const uint32_t i = to + made;
        const size_t bytes = tile_bytes(b, i);
        files.p[made] = create_tile_file(bytes);
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
    set_mapped_count(b, 0);
    for (uint32_t k = 0; k < n; ++k) {
        const uint32_t i = to + k;
        pf::Mapping m;
        m.handle = e[i].mapping;
        m.view = e[i].view;
        m.size = tile_bytes(b, i);
        pf::unmap(m);
        e[i] = TileEntry{nullptr, nullptr, files.p[k], 0};
    }
    t->MemTiles = to;
    return ST_OK;
}

}  // namespace

int32_t place_tiles(BitmapHandle& b, uint32_t mem_tiles, uint32_t max_mapped, uint32_t mapped) {
    TileTable* t = tile_table(b);
    if (!t) return ST_INVALID_BITMAP;
    const uint32_t mem = std::min(mem_tiles, t->TileCount);
    int32_t r = ST_OK;
    if (mem > t->MemTiles)
        r = grow_mem_tiles(b, t, mem);
    else if (mem < t->MemTiles)
        r = shrink_mem_tiles(b, t, mem);
    if (r != ST_OK) return r;
    t->MaxMapped = std::min(max_mapped, t->TileCount - t->MemTiles);
    set_mapped_count(b, std::min(mapped, t->MaxMapped));
    return ST_OK;
}

}  // namespace zk::storage
