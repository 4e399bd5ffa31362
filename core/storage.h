// Pixel storage of a bitmap record: the storage kinds behind one byte-span
// interface, the tile table of tiled storage and the operations on it, and
// the seam where the compressed row stores plug in.
//
// Storage kinds (told by the Flags bits):
//   conventional  BF_MEMORY              anonymous mapping of Size + 31 bytes, Data 32-byte aligned
//   global        BF_MEMORY | BF_GLOBAL  movable block; Data valid only while BF_LOCKED
//   caller memory BF_MEMORY | BF_USER_DATA
//   tiled         BF_MEMORY | BF_TILED   Data is the TileTable
//   disk          BF_DISK                DataHandle is a delete-on-close temporary file
//   compressed    BF_COMPRESSED / BF_SUPERCOMPRESSED, through a RowStore (below)
//
// Row access, copying and rotation reach the bytes of every uncompressed kind
// through KindOps (fetch span, store span, map, release) and never switch on
// the kind themselves.
//
// May include: include/zkernel.h, core/bitmap_handle.h, core/platform/platform.h.
#pragma once

#include <cstddef>
#include <cstdint>

#include "zkernel.h"

namespace zk::storage {

// ---------------------------------------------------------------------------
// Tile table. Allocated with Z_OsAlloc as one block: the header, then
// TileCount entries. Tile i holds rows i * RowsPerTile onward; every tile but
// the last holds RowsPerTile rows.
struct TileEntry {
    void* mapping;     // mapping handle; null when the tile is not mapped
    uint8_t* view;     // address of the tile's first row while mapped
    Z_FILE file;       // temporary file of a disk tile; -1 for a memory tile
    uintptr_t mapped;  // entry k's word is the k-th oldest mapped disk tile
                       // (the list is MappedCount long, read in table order)
};

struct alignas(alignof(TileEntry)) TileTable {
    uint32_t TileCount;
    uint32_t MemTiles;  // tiles 0 .. MemTiles-1 live in memory for the bitmap's life
    uint32_t RowsPerTile;
    uint32_t MappedCount;  // disk tiles mapped now
    uint32_t MaxMapped;    // most disk tiles mapped at once

    TileEntry* entries() { return reinterpret_cast<TileEntry*>(this + 1); }
    const TileEntry* entries() const { return reinterpret_cast<const TileEntry*>(this + 1); }
};
static_assert(sizeof(TileTable) % alignof(TileEntry) == 0, "entries follow the header aligned");

// Bytes of a table with `count` tiles.
constexpr size_t tile_table_bytes(uint32_t count) { return sizeof(TileTable) + size_t{count} * sizeof(TileEntry); }

// The tile table of a tiled bitmap (null when the bitmap is not tiled).
TileTable* tile_table(const BitmapHandle& bitmap);

// Byte size of tile i: BytesPerLine * RowsPerTile, the last tile holding the
// remaining rows of Height.
size_t tile_bytes(const BitmapHandle& bitmap, uint32_t index);

// Maps disk tile `index` (a read-write view of its whole file) and appends it
// to the mapped list. False when the mapping fails, the tile is a memory tile
// or already mapped (then nothing changes).
bool map_tile(BitmapHandle& bitmap, uint32_t index);

// Removes the oldest tile from the mapped list and unmaps its view.
void unmap_oldest(BitmapHandle& bitmap);

// Moves `count` bytes at `offset` (from the first byte of row 0) between
// tiled storage and `buffer` like the kind's fetch and store, but reaches
// disk tiles that are not mapped through their files instead of mapping
// them: for many short pieces spread over the image, which through views
// would map a tile and fault in its pages again every few rows. ST_OK,
// ST_BAD_PARAM (outside the pixels), ST_FILE_SEEK, ST_FILE_READ or
// ST_FILE_WRITE.
int32_t tiled_transfer_unmapped(BitmapHandle& bitmap, size_t offset, uint8_t* buffer, size_t count, bool put);

// Unmaps oldest first down to `target`, or walks the tiles from MemTiles
// onward mapping unmapped disk tiles up to `target` (never above MaxMapped or
// the disk tiles there are); memory tiles met right after the memory tiles
// are counted into MemTiles. Returns the MappedCount reached.
uint32_t set_mapped_count(BitmapHandle& bitmap, uint32_t target);

// A delete-on-close temporary file of `bytes` bytes, every block reserved,
// in the thread's temporary directory. Z_INVALID_FILE on failure, with
// nothing left behind.
Z_FILE create_tile_file(uint64_t bytes);

// Tile geometry and placement for build_tiles.
struct TileLayout {
    uint32_t rows_per_tile;  // >= 1
    uint32_t mem_tiles;      // clamped to the tile count
    uint32_t max_mapped;     // disk tiles mapped at once; 0 with disk tiles means 1
};

// Builds tiled storage for the described record: memory tiles first (kept
// mapped), then disk tiles (temporary files), then maps disk tiles in order
// up to max_mapped. On success Data = the table, DataHandle = null and Flags
// gets BF_ALLOCATED | BF_MEMORY | BF_TILED. On failure everything built is
// released, the record is unchanged, and the result is ST_NO_MEMORY (a
// memory tile or the table), ST_TEMP_FILE (a tile file) or
// ST_INVALID_BITMAP (Height < 1).
int32_t build_tiles(BitmapHandle& bitmap, const TileLayout& layout);

// Conventional storage: resizes the mapping to new_size + 31 bytes keeping
// min(old, new) bytes of pixels, re-aligns Data, and sets Size = new_size.
// Growth moves the rows to a new mapping (Data changes; the bytes past the
// old size are zero). On failure (ST_NO_MEMORY) nothing changes.
// ST_BAD_PARAM when the bitmap's storage is not conventional.
int32_t remap_conventional(BitmapHandle& bitmap, size_t new_size);

// Global storage (BF_GLOBAL): a movable block of Size bytes, zero-filled,
// unlocked (Data null until Z_AccessBitmap / Z_LockBitmap), and a new
// identity ValueMap as Z_AllocateBitmap gives. Clears the storage bits first;
// ST_NO_MEMORY on failure (then nothing is allocated).
int32_t allocate_global(BitmapHandle& bitmap);

// Frees the storage by kind (the step of Z_FreeBitmap between the palette
// and the gray parameters): caller memory is left alone, tiles are unmapped
// and closed last to first, global blocks released and freed, conventional
// mappings unmapped, disk files closed. Clears the kind's flag bits, Data and
// DataHandle (Data is kept for caller memory); BF_ALLOCATED is left as it is.
void release(BitmapHandle& bitmap);

// ---------------------------------------------------------------------------
// Byte-span access to the uncompressed kinds. Offsets count from the first
// byte of row 0. fetch/store return the bytes moved or a negative status.
struct KindOps {
    // Memory and disk storage keep the row cursor (CurRow, CurRowOffset);
    // tiled storage neither reads nor updates it.
    bool uses_cursor;
    int64_t (*fetch)(BitmapHandle& bitmap, size_t offset, uint8_t* out, size_t count);
    int64_t (*store)(BitmapHandle& bitmap, size_t offset, const uint8_t* in, size_t count);
    // Address of the `count` bytes at offset when they can be reached as one
    // piece of memory now (mapping a tile if needed); null otherwise.
    uint8_t* (*map)(BitmapHandle& bitmap, size_t offset, size_t count);
    void (*release)(BitmapHandle& bitmap);
    // Gives the storage `height` rows (`size` bytes, checked by the caller):
    // rows below it dropped, rows added at the bottom zero. On failure the
    // storage and its rows are as they were. Does not change Height.
    int32_t (*resize)(BitmapHandle& bitmap, int32_t height, size_t size);
};

// The resize operation of each kind (change_height.cpp).
int32_t resize_memory(BitmapHandle& bitmap, int32_t height, size_t size);
int32_t resize_tiled(BitmapHandle& bitmap, int32_t height, size_t size);
int32_t resize_disk(BitmapHandle& bitmap, int32_t height, size_t size);

// The operations of the bitmap's kind: memory (conventional, global, caller,
// any BF_MEMORY record that is not tiled or compressed), tiled, disk. Null for
// compressed storage and for a record with neither BF_MEMORY nor BF_DISK.
const KindOps* kind_ops(const BitmapHandle& bitmap);

// Bytes of pixel data the kind can reach from offset 0 (Size for memory and
// disk, BytesPerLine * Height for tiles).
size_t reachable_bytes(const BitmapHandle& bitmap);

// ---------------------------------------------------------------------------
// Allocation types of the compressed kinds after the type adjustment: a
// 1-bit bitmap asked for TYPE_COMPRESSED gets the run-length store in memory;
// the second compressed form alone or with conventional storage.
constexpr uint32_t kTypeRunLength = TYPE_COMPRESSED | TYPE_MEMORY_ONLY;  // 768
constexpr uint32_t kTypeSecondForm = TYPE_SUPERCOMPRESSED;               // 1024
constexpr uint32_t kTypeSecondFormConv = TYPE_SUPERCOMPRESSED | TYPE_CONV;

// Compressed row stores: the run-length store (BF_COMPRESSED, allocation type
// 768) and the second compressed form (BF_SUPERCOMPRESSED, types 1024/1025 at
// 1 or 24 bits). They plug in here. Until one is installed, allocating that
// kind gives ST_BAD_PARAM and row access on such a record gives ST_BAD_PARAM.
struct RowStore {
    // Builds the store for the described record (its flag bits are set by the
    // caller on success). Any failure status is returned as is.
    int32_t (*allocate)(BitmapHandle& bitmap, uint32_t type);
    void (*release)(BitmapHandle& bitmap);
    // Expand / compress part of a row, from `column` on; results as row access.
    int32_t (*get_row)(BitmapHandle& bitmap, uint8_t* buffer, uint32_t row, uint32_t column, uint32_t bytes);
    int32_t (*put_row)(BitmapHandle& bitmap, const uint8_t* buffer, uint32_t row, uint32_t column, uint32_t bytes);
    int32_t (*put_segments)(BitmapHandle& bitmap, const uint8_t* buffer, uint32_t row, uint32_t x_offset,
                            const uint32_t* segments, uint32_t count);
};

// Installs (or, with null, removes) the store for BF_COMPRESSED or
// BF_SUPERCOMPRESSED. Process-wide; installed once at start-up.
void set_row_store(uint32_t flag, const RowStore* store);
const RowStore* row_store(uint32_t flag);

// ---------------------------------------------------------------------------
// Round(a * b / c) in 64 bits, halves away from zero; -1 when c is 0.
int64_t mul_div(int64_t a, int64_t b, int64_t c);

}  // namespace zk::storage
