// Rows of 1-bit bitmaps handed over as runs, in any storage kind, and the
// change of a 1-bit bitmap between packed and run-length storage.
//
// May include: include/zkernel.h, core/bitmap_handle.h, core/storage.h,
// core/run_length.h, core/run_length_store.h, core/heap_object.h.
#include <cstring>

#include "bitmap_handle.h"
#include "run_length.h"
#include "run_length_store.h"
#include "storage.h"

namespace {

namespace st = zk::storage;

// A block of the library's allocator, freed on scope exit.
struct Block {
    explicit Block(size_t n) : p(static_cast<uint8_t*>(Z_Malloc(n ? n : 1))) {}
    ~Block() { Z_Free(p); }
    Block(const Block&) = delete;
    Block& operator=(const Block&) = delete;
    uint8_t* p;
};

// A 1-bit bitmap with storage, or the status that refuses it.
int32_t check_one_bit(const BitmapHandle* b, const void* buffer) {
    if (!b || !buffer) return ST_BAD_PARAM;
    if (b->StructSize != zk::kStructSize) return ST_BAD_STRUCT_SIZE;
    if (!zk::allocated(b)) return ST_INVALID_BITMAP;
    if (b->BitsPerPixel != 1) return ST_BAD_BPP;
    return ST_OK;
}

int32_t as_count(size_t bytes) { return bytes > INT32_MAX ? ST_TOO_LARGE : static_cast<int32_t>(bytes); }

}  // namespace

extern "C" int32_t Z_API Z_GetBitmapRowCompressed(BitmapHandle* bitmap, uint8_t* buffer, uint32_t row, uint32_t bytes) {
    if (const int32_t s = check_one_bit(bitmap, buffer); s != ST_OK) return s;
    if (row >= static_cast<uint32_t>(bitmap->Height)) return ST_BAD_POSITION;
    size_t stored = 0;
    if (const uint8_t* runs = st::stored_row(*bitmap, row, &stored)) {
        if (stored > bytes) return ST_BAD_PARAM;
        std::memcpy(buffer, runs, stored);
        return as_count(stored);
    }
    // Packed storage: the row read and compressed here.
    Block packed(bitmap->BytesPerLine);
    if (!packed.p) return ST_NO_MEMORY;
    const int32_t got = Z_GetBitmapRow(bitmap, packed.p, row, bitmap->BytesPerLine);
    if (got < 0) return got;
    size_t written = 0;
    const int32_t s = zk::rle::compress_row(packed.p, static_cast<uint32_t>(bitmap->Width), buffer, bytes, &written);
    if (s == ST_TOO_LARGE) return ST_BAD_PARAM;
    return s == ST_OK ? as_count(written) : s;
}

extern "C" int32_t Z_API Z_PutBitmapRowCompressed(BitmapHandle* bitmap, const uint8_t* runs, uint32_t row,
                                                  uint32_t bytes) {
    if (const int32_t s = check_one_bit(bitmap, runs); s != ST_OK) return s;
    if (row >= static_cast<uint32_t>(bitmap->Height)) return ST_BAD_POSITION;
    const auto width = static_cast<uint32_t>(bitmap->Width);
    size_t length = 0;
    if (zk::rle::check_row(runs, bytes, width, &length) != ST_OK) return ST_BAD_PARAM;
    if (st::kind_of(*bitmap) == st::StorageKind::RunLength) {
        const int32_t s = st::put_stored_row(*bitmap, row, runs, length);
        return s == ST_OK ? as_count(length) : s;
    }
    // Packed storage: the runs expanded into the row's pixels, the padding
    // after them kept.
    Block packed(bitmap->BytesPerLine);
    if (!packed.p) return ST_NO_MEMORY;
    const int32_t got = Z_GetBitmapRow(bitmap, packed.p, row, bitmap->BytesPerLine);
    if (got < 0) return got;
    const size_t pixel_bytes = (size_t{width} + 7) / 8;
    const uint8_t tail = packed.p[pixel_bytes - 1];
    zk::rle::expand_row_checked(runs, length, width, 0, width, packed.p);
    const auto keep = static_cast<uint8_t>(0xFFu >> (((width - 1) & 7) + 1));
    packed.p[pixel_bytes - 1] = static_cast<uint8_t>((packed.p[pixel_bytes - 1] & ~keep) | (tail & keep));
    const int32_t put = Z_PutBitmapRow(bitmap, packed.p, row, bitmap->BytesPerLine);
    return put < 0 ? put : as_count(length);
}

extern "C" int32_t Z_API Z_ChangeBitmapCompression(BitmapHandle* bitmap, int32_t compressed) {
    if (!bitmap) return ST_INVALID_BITMAP;
    if (bitmap->StructSize != zk::kStructSize) return ST_BAD_STRUCT_SIZE;
    if (!zk::allocated(bitmap)) return ST_INVALID_BITMAP;
    if (bitmap->BitsPerPixel != 1) return ST_BAD_BPP;
    const bool now = st::kind_of(*bitmap) == st::StorageKind::RunLength;
    if (now == (compressed != 0)) return ST_OK;
    return Z_SetBitmapMemoryInfo(bitmap, compressed ? TYPE_COMPRESSED : TYPE_CONV, 0, 0, 0, 0, 0, 1);
}

extern "C" int32_t Z_API Z_ToggleBitmapCompression(BitmapHandle* bitmap) {
    if (!bitmap || bitmap->StructSize != zk::kStructSize) return Z_ChangeBitmapCompression(bitmap, 0);
    return Z_ChangeBitmapCompression(bitmap, st::kind_of(*bitmap) != st::StorageKind::RunLength);
}
