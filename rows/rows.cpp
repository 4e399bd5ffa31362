// Row access in every storage kind: whole rows, rows from a column on, and
// row segments. Rows are addressed by their stored index and moved as bytes
// in the bitmap's own format; every storage kind is reached through
// zk::storage::KindOps.
//
// May include: include/zkernel.h, core/bitmap_handle.h, core/storage.h.
#include <cstring>

#include "bitmap_handle.h"
#include "storage.h"

namespace {

namespace st = zk::storage;

// Moves the row cursor to `row` and returns the row's byte offset: the same
// row reuses the offset, the next adds BytesPerLine, the previous subtracts
// it, any other row is recomputed.
size_t seek_row(BitmapHandle& b, uint32_t row) {
    if (row == b.CurRow) {
    } else if (b.CurRow != UINT32_MAX && row == b.CurRow + 1) {
        b.CurRowOffset += b.BytesPerLine;
    } else if (b.CurRow != 0 && row == b.CurRow - 1) {
        b.CurRowOffset -= b.BytesPerLine;
    } else {
        b.CurRowOffset = static_cast<size_t>(uint64_t{b.BytesPerLine} * row);
    }
    b.CurRow = row;
    return b.CurRowOffset;
}

// Byte offset of `row` (and the cursor update for the kinds that keep one).
size_t row_offset(BitmapHandle& b, const st::KindOps& ops, uint32_t row) {
    return ops.uses_cursor ? seek_row(b, row) : static_cast<size_t>(uint64_t{b.BytesPerLine} * row);
}

int32_t check_record(const BitmapHandle* b, const void* buffer) {
    if (!b || !buffer) return ST_BAD_PARAM;
    if (b->StructSize != zk::kStructSize) return ST_BAD_STRUCT_SIZE;
    return ST_OK;
}

// The result of row access on a record whose kind has no operations: a
// compressed kind that is not built refuses, a record without storage
// reports no memory (its cursor still moves to the row).
int32_t no_storage(BitmapHandle& b, uint32_t row) {
    const st::StorageKind kind = st::kind_of(b);
    if (kind == st::StorageKind::RunLength || kind == st::StorageKind::SecondForm) return ST_BAD_PARAM;
    seek_row(b, row);
    return ST_NO_MEMORY;
}

int32_t transfer(BitmapHandle* b, uint8_t* buffer, uint32_t row, uint32_t column, uint32_t bytes, bool put) {
    if (int32_t s = check_record(b, buffer); s != ST_OK) return s;
    if (bytes > INT32_MAX) return ST_BAD_PARAM;
    const st::KindOps* ops = st::kind_ops(*b);
    if (!ops) return no_storage(*b, row);
    // A row whose offset does not fit size_t (32-bit targets) lies outside
    // every bitmap; it must not wrap onto a row that exists.
    if (uint64_t{b->BytesPerLine} * row > SIZE_MAX) return ST_BAD_PARAM;
    const uint64_t offset = uint64_t{row_offset(*b, *ops, row)} + zk::column_offset(b->BitsPerPixel, column);
    if (offset > SIZE_MAX) return ST_BAD_PARAM;
    const int64_t moved = put ? ops->store(*b, static_cast<size_t>(offset), buffer, bytes)
                              : ops->fetch(*b, static_cast<size_t>(offset), buffer, bytes);
    return static_cast<int32_t>(moved);
}

// Mask of the bits a span takes from the buffer in the byte where it starts,
// by the bit where its first pixel begins: every bit from there down, except
// at 2 bits per pixel for the third pixel of a byte, where the mask is 0C and
// the byte's last pixel keeps its stored value (the established behaviour of
// segment writes at that depth).
uint8_t start_mask(int32_t bpp, uint32_t dbit) {
    if (bpp == 2 && dbit == 4) return 0x0C;
    return static_cast<uint8_t>(0xFFu >> dbit);
}

// Copies `bits` bits from src (starting at bit `sbit`, most significant bit
// of a byte first) over dst (from bit `dbit`), leaving the other bits of dst.
// dbit is below 8; dst holds the touched bytes only.
void merge_bits(int32_t bpp, uint8_t* dst, uint32_t dbit, const uint8_t* src, uint64_t sbit, uint64_t bits) {
    const uint64_t end = dbit + bits;
    const size_t nbytes = static_cast<size_t>((end + 7) / 8);
    const uint8_t first = start_mask(bpp, dbit);
    if (dbit == sbit % 8) {
        // Same phase: merge the first and last bytes through masks and copy
        // the bytes between.
        const uint8_t* s = src + sbit / 8;
        const uint8_t last = (end % 8) ? static_cast<uint8_t>(0xFFu << (8 - end % 8)) : 0xFF;
        if (nbytes == 1) {
            const uint8_t m = first & last;
            dst[0] = static_cast<uint8_t>((dst[0] & ~m) | (s[0] & m));
            return;
        }
        dst[0] = static_cast<uint8_t>((dst[0] & ~first) | (s[0] & first));
        if (nbytes > 2) std::memcpy(dst + 1, s + 1, nbytes - 2);
        dst[nbytes - 1] = static_cast<uint8_t>((dst[nbytes - 1] & ~last) | (s[nbytes - 1] & last));
        return;
    }
    // Different phase (a destination offset that is not a whole number of
    // bytes): bit by bit, the start byte then held to its mask.
    const uint8_t before = dst[0];
    for (uint64_t k = 0; k < bits; ++k) {
        const uint64_t sb = sbit + k;
        const uint64_t db = dbit + k;
        const uint8_t bit = static_cast<uint8_t>((src[sb / 8] >> (7 - sb % 8)) & 1u);
        const uint8_t mask = static_cast<uint8_t>(0x80u >> (db % 8));
        dst[db / 8] = static_cast<uint8_t>(bit ? (dst[db / 8] | mask) : (dst[db / 8] & ~mask));
    }
    dst[0] = static_cast<uint8_t>((before & ~first) | (dst[0] & first));
}

int32_t put_segments(BitmapHandle* b, const uint8_t* buffer, uint32_t row, uint32_t x_offset, const uint32_t* segments,
                     uint32_t count) {
    if (!b || !buffer || !segments) return ST_BAD_PARAM;
    if (b->StructSize != zk::kStructSize) return ST_BAD_STRUCT_SIZE;
    const st::KindOps* ops = st::kind_ops(*b);
    if (!ops) return no_storage(*b, row);
    if (uint64_t{b->BytesPerLine} * row > SIZE_MAX) return ST_BAD_PARAM;
    const size_t row_start = row_offset(*b, *ops, row);
    const uint64_t bpp = b->BitsPerPixel > 0 ? static_cast<uint64_t>(b->BitsPerPixel) : 8;
    const uint64_t row_bits = uint64_t{b->BytesPerLine} * 8;
    struct Scratch {
        uint8_t* p = nullptr;
        ~Scratch() { Z_Free(p); }
    } scratch;
    // Every segment is checked before the first is written, so that a refused
    // call leaves the row as it was.
    for (uint32_t i = 0; i + 1 < count; i += 2)
        if (segments[i + 1] > segments[i] && (x_offset + uint64_t{segments[i + 1]}) * bpp > row_bits)
            return ST_BAD_PARAM;
    uint64_t total = 0;
    for (uint32_t i = 0; i + 1 < count; i += 2) {
        const uint64_t start = segments[i];
        const uint64_t end = segments[i + 1];
        if (end <= start) continue;
        const uint64_t d0 = (x_offset + start) * bpp;
        const uint64_t d1 = (x_offset + end) * bpp;
        if (d1 > row_bits) return ST_BAD_PARAM;
        const size_t first = static_cast<size_t>(d0 / 8);
        const size_t n = static_cast<size_t>((d1 + 7) / 8) - first;
        uint8_t* p = ops->map(*b, row_start + first, n);
        if (p) {
            merge_bits(b->BitsPerPixel, p, static_cast<uint32_t>(d0 % 8), buffer, start * bpp, d1 - d0);
        } else {
            if (!scratch.p) {
                scratch.p = static_cast<uint8_t*>(Z_Malloc(b->BytesPerLine ? b->BytesPerLine : 1));
                if (!scratch.p) return ST_NO_MEMORY;
            }
            const int64_t got = ops->fetch(*b, row_start + first, scratch.p, n);
            if (got < 0) return static_cast<int32_t>(got);
            if (static_cast<size_t>(got) < n) return ST_FILE_READ;
            merge_bits(b->BitsPerPixel, scratch.p, static_cast<uint32_t>(d0 % 8), buffer, start * bpp, d1 - d0);
            const int64_t put = ops->store(*b, row_start + first, scratch.p, n);
            if (put < 0) return static_cast<int32_t>(put);
            if (static_cast<size_t>(put) < n) return ST_FILE_WRITE;
        }
        total += n;
    }
    return total > INT32_MAX ? INT32_MAX : static_cast<int32_t>(total);
}

}  // namespace

extern "C" int32_t Z_API Z_GetBitmapRow(BitmapHandle* bitmap, uint8_t* buffer, uint32_t row, uint32_t bytes) {
    return transfer(bitmap, buffer, row, 0, bytes, false);
}

extern "C" int32_t Z_API Z_PutBitmapRow(BitmapHandle* bitmap, const uint8_t* buffer, uint32_t row, uint32_t bytes) {
    // The buffer is only read by a put.
    return transfer(bitmap, const_cast<uint8_t*>(buffer), row, 0, bytes, true);
}

extern "C" int32_t Z_API Z_GetBitmapRowCol(BitmapHandle* bitmap, uint8_t* buffer, uint32_t row, uint32_t column,
                                           uint32_t bytes) {
    return transfer(bitmap, buffer, row, column, bytes, false);
}

extern "C" int32_t Z_API Z_PutBitmapRowCol(BitmapHandle* bitmap, const uint8_t* buffer, uint32_t row, uint32_t column,
                                           uint32_t bytes) {
    return transfer(bitmap, const_cast<uint8_t*>(buffer), row, column, bytes, true);
}

extern "C" int32_t Z_API Z_PutBitmapRowSegments(BitmapHandle* bitmap, const uint8_t* buffer, uint32_t row,
                                                uint32_t xOffset, const uint32_t* segments, uint32_t count) {
    return put_segments(bitmap, buffer, row, xOffset, segments, count);
}
