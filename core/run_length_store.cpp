// The run-length storage kind for 1-bit bitmaps: each row kept as runs in a
// heap that grows in 256 KiB steps, found through a per-row table of two
// 32-bit words (the row's offset in the heap and its length in bytes).
//
// Data points to the control block: the header, then the table. A rewritten
// row goes back where it was when it fits there and is appended to the heap
// otherwise; what it leaves is dead space, collected when the heap would
// otherwise grow and by Z_TrimBitmapHeap. Every row starts as the blank row
// kept once at offset 0 and shared; offset 0 is never written over.
//
// Byte spans (fetch, store) are counted in the packed layout the record
// describes (BytesPerLine per row), so row access, row streams and every
// operation reach the runs as they reach any kind that cannot be addressed.
#include <algorithm>
#include <cstring>

#include "bitmap_handle.h"
#include "run_length.h"
#include "run_length_store.h"
#include "storage.h"

namespace zk::storage {
namespace {

constexpr size_t kHeapStep = size_t{256} << 10;

struct RowEntry {
    uint32_t offset, bytes;
};

struct RunStore {
    uint32_t rows;
    uint32_t blank_bytes;  // the shared blank row at offset 0
    uint8_t* heap;         // Z_OsAlloc block of `reserved` bytes
    size_t reserved, used, live;
    uint8_t* packed;   // scratch: one packed row (BytesPerLine)
    uint8_t* encoded;  // scratch: one compressed row (the bound of the width)
    size_t encoded_bytes;

    RowEntry* table() { return reinterpret_cast<RowEntry*>(this + 1); }
};
static_assert(sizeof(RunStore) % alignof(RowEntry) == 0, "the table follows the header aligned");

RunStore* store_of(const BitmapHandle& b) {
    return kind_of(b) == StorageKind::RunLength ? reinterpret_cast<RunStore*>(b.Data) : nullptr;
}

// Rounds up to whole heap steps; 0 when that does not fit.
size_t steps(uint64_t bytes) {
    const uint64_t r = (bytes + kHeapStep - 1) / kHeapStep * kHeapStep;
    return r > SIZE_MAX || r > UINT32_MAX ? 0 : static_cast<size_t>(r);
}

// Copies the live rows, in row order, into a new heap of `reserve` bytes
// (at least what they take): dead space is dropped. On failure nothing
// changes.
int32_t compact(RunStore& s, size_t reserve) {
    const size_t need = s.blank_bytes + s.live;
    if (reserve < need) reserve = steps(need);
    if (reserve == 0) return ST_NO_MEMORY;
    auto* heap = static_cast<uint8_t*>(Z_OsAlloc(reserve));
    if (!heap) return ST_NO_MEMORY;
    std::memcpy(heap, s.heap, s.blank_bytes);
    size_t at = s.blank_bytes;
    RowEntry* t = s.table();
    for (uint32_t r = 0; r < s.rows; ++r) {
        if (t[r].offset == 0) continue;
        std::memcpy(heap + at, s.heap + t[r].offset, t[r].bytes);
        t[r].offset = static_cast<uint32_t>(at);
        at += t[r].bytes;
    }
    Z_OsFree(s.heap);
    s.heap = heap;
    s.reserved = reserve;
    s.used = at;
    return ST_OK;
}

// Grows the heap in whole steps until `bytes` more fit at its end. On
// failure nothing changes.
int32_t grow(RunStore& s, size_t bytes) {
    if (s.reserved - s.used >= bytes) return ST_OK;
    const size_t reserve = steps(uint64_t{s.used} + bytes);
    if (reserve == 0) return ST_NO_MEMORY;
    auto* heap = static_cast<uint8_t*>(Z_OsReAlloc(s.heap, reserve));
    if (!heap) return ST_NO_MEMORY;
    s.heap = heap;
    s.reserved = reserve;
    return ST_OK;
}

// Makes room for `bytes` more at the end of the heap: by collecting dead
// space when it is at least as large as the live rows, else by growing.
int32_t room_for(RunStore& s, size_t bytes) {
    if (s.reserved - s.used >= bytes) return ST_OK;
    const size_t dead = s.used - s.blank_bytes - s.live;
    if (dead >= s.live && s.reserved - (s.blank_bytes + s.live) >= bytes) return compact(s, s.reserved);
    return grow(s, bytes);
}

// Whether the span of `count` bytes at `offset` lies within the rows.
bool span_ok(const BitmapHandle& b, const RunStore& s, size_t offset, size_t count) {
    const uint64_t total = uint64_t{s.rows} * b.BytesPerLine;
    return b.BytesPerLine != 0 && offset <= total && count <= total - offset;
}

// Replaces row r by the `bytes` encoded bytes at `runs`.
int32_t place_row(RunStore& s, uint32_t r, const uint8_t* runs, size_t bytes) {
    RowEntry& e = s.table()[r];
    if (e.offset != 0 && bytes <= e.bytes) {
        std::memcpy(s.heap + e.offset, runs, bytes);
        s.live -= e.bytes - bytes;
        e.bytes = static_cast<uint32_t>(bytes);
        return ST_OK;
    }
    if (const int32_t st = room_for(s, bytes); st != ST_OK) return st;
    std::memcpy(s.heap + s.used, runs, bytes);
    if (e.offset != 0) s.live -= e.bytes;
    s.table()[r] = {static_cast<uint32_t>(s.used), static_cast<uint32_t>(bytes)};
    s.used += bytes;
    s.live += bytes;
    return ST_OK;
}

// The packed bytes [from, from + count) of row r into out (padding past the
// width reads as 0).
int32_t expand_bytes(const BitmapHandle& b, RunStore& s, uint32_t r, size_t from, size_t count, uint8_t* out) {
    const RowEntry& e = s.table()[r];
    const uint32_t width = static_cast<uint32_t>(b.Width);
    const uint64_t first = uint64_t{from} * 8;
    const uint64_t pixels = first >= width ? 0 : std::min<uint64_t>(uint64_t{count} * 8, width - first);
    const size_t filled = static_cast<size_t>((pixels + 7) / 8);
    if (pixels > 0) {
        const int32_t st = rle::expand_row_checked(s.heap + e.offset, e.bytes, width, static_cast<uint32_t>(first),
                                                   static_cast<uint32_t>(pixels), out);
        if (st != ST_OK) return ST_INVALID_BITMAP;
    }
    std::memset(out + filled, 0, count - filled);
    return ST_OK;
}

int64_t run_fetch(BitmapHandle& b, size_t offset, uint8_t* out, size_t count) {
    RunStore* s = store_of(b);
    if (!s) return ST_INVALID_BITMAP;
    if (!span_ok(b, *s, offset, count)) return ST_BAD_PARAM;
    const size_t bpl = b.BytesPerLine;
    for (size_t done = 0; done < count;) {
        const auto r = static_cast<uint32_t>((offset + done) / bpl);
        const size_t at = (offset + done) % bpl, n = std::min(bpl - at, count - done);
        if (const int32_t st = expand_bytes(b, *s, r, at, n, out + done); st != ST_OK) return st;
        done += n;
    }
    return static_cast<int64_t>(count);
}

int64_t run_store(BitmapHandle& b, size_t offset, const uint8_t* in, size_t count) {
    RunStore* s = store_of(b);
    if (!s) return ST_INVALID_BITMAP;
    if (!span_ok(b, *s, offset, count)) return ST_BAD_PARAM;
    const size_t bpl = b.BytesPerLine;
    const auto width = static_cast<uint32_t>(b.Width);
    const size_t pixel_bytes = (size_t{width} + 7) / 8;
    for (size_t done = 0; done < count;) {
        const auto r = static_cast<uint32_t>((offset + done) / bpl);
        const size_t at = (offset + done) % bpl, n = std::min(bpl - at, count - done);
        // A span that covers the row's pixels is compressed as it stands;
        // a part of a row is merged into the row first.
        const uint8_t* packed = in + done;
        if (at != 0 || n < pixel_bytes) {
            if (const int32_t st = expand_bytes(b, *s, r, 0, bpl, s->packed); st != ST_OK) return st;
            std::memcpy(s->packed + at, in + done, n);
            packed = s->packed;
        }
        size_t bytes = 0;
        if (rle::compress_row(packed, width, s->encoded, s->encoded_bytes, &bytes) != ST_OK) return ST_INVALID_BITMAP;
        if (const int32_t st = place_row(*s, r, s->encoded, bytes); st != ST_OK) return st;
        done += n;
    }
    return static_cast<int64_t>(count);
}

uint8_t* run_map(BitmapHandle&, size_t, size_t) { return nullptr; }

void free_store(RunStore* s) {
    if (!s) return;
    Z_OsFree(s->heap);
    Z_OsFree(s->packed);
    Z_OsFree(s->encoded);
    Z_OsFree(s);
}

void run_release(BitmapHandle& b) {
    free_store(store_of(b));
    b.Data = nullptr;
    b.DataHandle = nullptr;
    b.Flags &= ~(BF_COMPRESSED | BF_MEMORY);
}

// Bytes of a control block for `rows` rows.
size_t block_bytes(uint32_t rows) { return sizeof(RunStore) + size_t{rows} * sizeof(RowEntry); }

int32_t run_resize(BitmapHandle& b, int32_t height, size_t size) {
    RunStore* s = store_of(b);
    if (!s || height < 1) return ST_INVALID_BITMAP;
    const auto rows = static_cast<uint32_t>(height);
    if (uint64_t{rows} * sizeof(RowEntry) > SIZE_MAX - sizeof(RunStore)) return ST_NO_MEMORY;
    // Rows dropped leave their space dead; rows added are blank.
    size_t dropped = 0;
    for (uint32_t r = rows; r < s->rows; ++r)
        if (s->table()[r].offset != 0) dropped += s->table()[r].bytes;
    auto* grown = static_cast<RunStore*>(Z_OsReAlloc(s, block_bytes(rows)));
    if (!grown) return ST_NO_MEMORY;
    for (uint32_t r = grown->rows; r < rows; ++r) grown->table()[r] = {0, grown->blank_bytes};
    grown->rows = rows;
    grown->live -= dropped;
    b.Data = reinterpret_cast<uint8_t*>(grown);
    b.Size = size;  // the packed size the record describes
    return ST_OK;
}

int32_t run_exchange(BitmapHandle& b, uint32_t a, uint32_t c) {
    RunStore* s = store_of(b);
    if (!s || a >= s->rows || c >= s->rows) return ST_BAD_PARAM;
    std::swap(s->table()[a], s->table()[c]);
    return ST_OK;
}

int32_t run_mirror(BitmapHandle& b, uint32_t row) {
    RunStore* s = store_of(b);
    if (!s || row >= s->rows) return ST_BAD_PARAM;
    const RowEntry e = s->table()[row];
    const uint8_t* runs = s->heap + e.offset;
    if (rle::check_row(runs, e.bytes, static_cast<uint32_t>(b.Width), nullptr) != ST_OK) return ST_INVALID_BITMAP;
    if (rle::mirrored_row_bytes(runs) > s->encoded_bytes) return ST_INVALID_BITMAP;
    const size_t bytes = rle::mirror_row(runs, s->encoded);
    return place_row(*s, row, s->encoded, bytes);
}

const KindOps kRunLengthOps = {
    StorageKind::RunLength, false,     false, false, run_fetch, run_store, run_map, run_release, run_resize, nullptr,
    run_exchange,           run_mirror};

}  // namespace

const KindOps& run_length_ops() { return kRunLengthOps; }

int32_t allocate_run_length(BitmapHandle& b) {
    if (b.BitsPerPixel != 1 || b.Width < 1 || b.Height < 1) return ST_BAD_PARAM;
    const auto width = static_cast<uint32_t>(b.Width);
    const auto rows = static_cast<uint32_t>(b.Height);
    const size_t bound = rle::compressed_size_bound(width);
    if (bound == 0 || bound > UINT32_MAX || uint64_t{rows} * sizeof(RowEntry) > SIZE_MAX - sizeof(RunStore))
        return ST_TOO_LARGE;
    auto* s = static_cast<RunStore*>(Z_OsAllocInit(block_bytes(rows), 1));
    if (!s) return ST_NO_MEMORY;
    s->rows = rows;
    s->encoded_bytes = bound;
    s->packed = static_cast<uint8_t*>(Z_OsAllocInit(b.BytesPerLine, 1));
    s->encoded = static_cast<uint8_t*>(Z_OsAlloc(bound));
    s->heap = static_cast<uint8_t*>(Z_OsAlloc(steps(bound)));
    size_t blank = 0;
    if (!s->packed || !s->encoded || !s->heap || rle::compress_row(s->packed, width, s->heap, bound, &blank) != ST_OK) {
        free_store(s);
        return ST_NO_MEMORY;
    }
    s->reserved = steps(bound);
    s->used = blank;
    s->blank_bytes = static_cast<uint32_t>(blank);
    for (uint32_t r = 0; r < rows; ++r) s->table()[r] = {0, s->blank_bytes};
    b.Data = reinterpret_cast<uint8_t*>(s);
    b.DataHandle = nullptr;
    b.DataOffset = 0;
    return ST_OK;
}

const uint8_t* stored_row(const BitmapHandle& b, uint32_t row, size_t* bytes) {
    RunStore* s = store_of(b);
    if (!s || row >= s->rows) return nullptr;
    *bytes = s->table()[row].bytes;
    return s->heap + s->table()[row].offset;
}

int32_t put_stored_row(BitmapHandle& b, uint32_t row, const uint8_t* runs, size_t available) {
    RunStore* s = store_of(b);
    if (!s || row >= s->rows || !runs) return ST_BAD_PARAM;
    size_t bytes = 0;
    if (rle::check_row(runs, available, static_cast<uint32_t>(b.Width), &bytes) != ST_OK) return ST_BAD_PARAM;
    return place_row(*s, row, runs, bytes);
}

HeapUse heap_use(const BitmapHandle& b) {
    const RunStore* s = store_of(b);
    if (!s) return {};
    return {s->reserved, s->used, s->blank_bytes + s->live};
}

int32_t grow_heap(BitmapHandle& b, size_t bytes) {
    RunStore* s = store_of(b);
    return s ? grow(*s, bytes) : ST_BAD_PARAM;
}

int32_t trim_heap(BitmapHandle& b) {
    RunStore* s = store_of(b);
    if (!s) return ST_BAD_PARAM;
    return compact(*s, 0);
}

}  // namespace zk::storage

extern "C" int32_t Z_API Z_GrowBitmapHeap(BitmapHandle* bitmap, uint32_t bytes) {
    if (!bitmap) return ST_INVALID_BITMAP;
    if (bitmap->StructSize != zk::kStructSize) return ST_BAD_STRUCT_SIZE;
    return zk::storage::grow_heap(*bitmap, bytes);
}

extern "C" int32_t Z_API Z_TrimBitmapHeap(BitmapHandle* bitmap) {
    if (!bitmap) return ST_INVALID_BITMAP;
    if (bitmap->StructSize != zk::kStructSize) return ST_BAD_STRUCT_SIZE;
    return zk::storage::trim_heap(*bitmap);
}
