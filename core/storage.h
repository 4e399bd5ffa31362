// Pixel storage of a bitmap record: the storage kinds behind one byte-span
// interface, and the tile table of tiled storage and the operations on it.
//
// Storage kinds (told by the Flags bits):
//   conventional  BF_MEMORY              anonymous mapping of Size + 31 bytes, Data 32-byte aligned
//   global        BF_MEMORY | BF_GLOBAL  movable block; Data valid only while BF_LOCKED
//   caller memory BF_MEMORY | BF_USER_DATA
//   tiled         BF_MEMORY | BF_TILED   Data is the TileTable
//   disk          BF_DISK                DataHandle is a delete-on-close temporary file
//   run-length    BF_MEMORY | BF_COMPRESSED  1-bit rows kept as runs (run_length_store.h)
//   second form   BF_SUPERCOMPRESSED     not built: refused at allocation
//
// Row access, copying and rotation reach the bytes of every kind through
// KindOps (fetch span, store span, map, release, resize) and ask its entry
// what the kind can do; they never switch on the kind themselves.
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

// Unmaps oldest first down to `target`, or walks the tiles from MemTiles
// onward mapping unmapped disk tiles up to `target` (never above MaxMapped or
// the disk tiles there are); memory tiles met right after the memory tiles
// are counted into MemTiles. Returns the MappedCount reached.
uint32_t set_mapped_count(BitmapHandle& bitmap, uint32_t target);

// A delete-on-close temporary file of `bytes` bytes, every block reserved,
// in the thread's temporary directory. Z_INVALID_FILE on failure, with
// nothing left behind.
Z_FILE create_tile_file(uint64_t bytes);

// Moves tiles between memory and disk and sets the mapped-tile limit and
// count: tiles [0, mem_tiles) in memory (clamped to the tile count), the
// limit clamped to the disk tiles, then disk tiles mapped up to `mapped`
// (clamped to the limit). Every new mapping or file is made and filled
// before any tile changes, so a failure (ST_NO_MEMORY, ST_TEMP_FILE,
// ST_FILE_READ, ST_FILE_WRITE) leaves the bitmap as it was;
// ST_INVALID_BITMAP when it is not tiled.
int32_t place_tiles(BitmapHandle& bitmap, uint32_t mem_tiles, uint32_t max_mapped, uint32_t mapped);

// Moves `rows` rows of `bytes` bytes, the first at byte `offset` of a tiled
// bitmap's pixels and the others BytesPerLine apart (the rows of a
// rectangle), from or to `buffer`, where they follow one another. A disk
// tile that is not mapped is reached through its file without being mapped,
// one positional read or write per row. ST_OK, ST_BAD_PARAM (a row running
// past the end of its image row, or outside the pixels), ST_INVALID_BITMAP,
// ST_FILE_READ or ST_FILE_WRITE; on a failure the other tiles' rows are
// still moved.
int32_t transfer_tile_rows(BitmapHandle& bitmap, size_t offset, size_t bytes, uint32_t rows, uint8_t* buffer, bool put);

// Advises the system that the same rows of the disk tiles will be read soon.
void will_read_tile_rows(BitmapHandle& bitmap, size_t offset, size_t bytes, uint32_t rows);

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
// The storage kinds. kind_of() is the one answer to which kind a record has;
// what a kind can do is an entry of its KindOps, asked of the entry rather
// than of the flag bits.
enum class StorageKind : uint8_t { None, Memory, Tiled, Disk, RunLength, SecondForm };

// Caller memory and global blocks are memory; BF_COMPRESSED is the run-length
// store, BF_SUPERCOMPRESSED the second compressed form (tiled or not), then
// BF_TILED, BF_MEMORY, BF_DISK; None for a record with none of them.
StorageKind kind_of(const BitmapHandle& bitmap);

// What Z_GetBitmapMemoryInfo reports for a kind (TYPE_CONV for memory), and
// the allocation type that gives a duplicate the source's kind (tiled
// sources duplicate by the thresholds, as a conventional request does).
uint32_t memory_type(StorageKind kind);
uint32_t duplicate_type(StorageKind kind);

// Byte-span access to a kind's pixels. Offsets count from the first byte of
// row 0 in the packed layout of BytesPerLine rows, whatever the kind keeps.
// fetch/store return the bytes moved or a negative status.
struct KindOps {
    StorageKind kind;
    // Memory and disk storage keep the row cursor (CurRow, CurRowOffset);
    // the other kinds neither read nor update it.
    bool uses_cursor;
    // map can give the address of rows (memory, tiled).
    bool addressable;
    // An address map gave stays valid while other rows are mapped, so that
    // several rows can be held at once (memory only: a tile may be unmapped
    // to map another).
    bool rows_stay_put;
    int64_t (*fetch)(BitmapHandle& bitmap, size_t offset, uint8_t* out, size_t count);
    int64_t (*store)(BitmapHandle& bitmap, size_t offset, const uint8_t* in, size_t count);
    // Address of the `count` bytes at offset when they can be reached as one
    // piece of memory now (mapping a tile if needed); null otherwise.
    uint8_t* (*map)(BitmapHandle& bitmap, size_t offset, size_t count);
    void (*release)(BitmapHandle& bitmap);
    // Gives the storage `height` rows (`size` bytes, checked by the caller):
    // rows below it dropped, rows added at the bottom zero. On failure the
    // storage and its rows are as they were. Does not change Height. Null
    // where the kind cannot change its height.
    int32_t (*resize)(BitmapHandle& bitmap, int32_t height, size_t size);
    // Moves the bytes of a rectangle's row (one of many short pieces spread
    // over the image) without making views that would each be mapped and
    // faulted in again for every rectangle; ST_OK or a status. Null where
    // the kind has no cheaper way than fetch and store; the kinds that have
    // one can also turn a square in place by rectangles.
    int32_t (*transfer_piece)(BitmapHandle& bitmap, size_t offset, uint8_t* buffer, size_t count, bool put);
    // Where the kind keeps rows in a form of its own: rows a and b change
    // places without their pixels being moved, and a row's pixels are put in
    // reverse order in that form. ST_OK or a status (the rows as they were).
    // Null: the rows are moved and mirrored as packed rows.
    int32_t (*exchange_rows)(BitmapHandle& bitmap, uint32_t a, uint32_t b);
    int32_t (*mirror_row)(BitmapHandle& bitmap, uint32_t row);
};

// The resize operation of each kind (change_height.cpp).
int32_t resize_memory(BitmapHandle& bitmap, int32_t height, size_t size);
int32_t resize_tiled(BitmapHandle& bitmap, int32_t height, size_t size);
int32_t resize_disk(BitmapHandle& bitmap, int32_t height, size_t size);

// The operations of the bitmap's kind; null for a record without storage
// and for the second compressed form, which is not built.
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

// ---------------------------------------------------------------------------
// Round(a * b / c) in 64 bits, halves away from zero; -1 when c is 0.
int64_t mul_div(int64_t a, int64_t b, int64_t c);

}  // namespace zk::storage
