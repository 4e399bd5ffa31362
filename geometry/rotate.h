// Right-angle turns: the pixel reversal of one row and the band transpose
// that the buffer and bitmap turns share.
//
// A quarter turn is done in bands of destination columns: a band holds the
// source rows that become columns c0 .. c0+n-1 of the destination (c0 a
// multiple of 8, so that every strip starts on a byte at every depth), and
// each destination row receives the strip of n pixels of those columns. Band
// row k feeds destination column c0 + k; destination row d takes pixel d of
// every band row (a counter-clockwise turn first reverses the band rows).
//
// Rows are packed as everywhere in the library: depths below 8 from the most
// significant bit of each byte, 12-bit pixels as little-endian 12-bit fields
// (two pixels in three bytes), deeper pixels as 1, 2, 3, 4, 6 or 8 bytes.
//
// May include: include/zkernel.h, core/bitmap_handle.h.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zk::rotate {

// Writes the `width` pixels of src to dst in reverse order (dst pixel j is
// src pixel width-1-j). Bits of dst outside the pixels keep their values.
// src and dst must not overlap.
void mirror_row(const uint8_t* src, uint8_t* dst, uint32_t width, int32_t bpp);

// Destination rows a strip transpose takes at once: 64 at 1 bit (eight
// bytes of each band row), 8 at other depths.
constexpr uint32_t strip_group(int32_t bpp) { return bpp == 1 ? 64 : 8; }

// Destination rows d0 .. d0+g-1 (g <= strip_group(bpp), d0 a multiple of
// 8): out[a] is where the strip of row d0+a starts; strip pixel k becomes
// pixel d0+a of band row k, for k < n. The band rows lie `stride` bytes
// apart from `band`, and reads may run up to 8 bytes past the last one's
// pixels. Bits after the last strip pixel in its byte are cleared at 1 and
// 4 bits per pixel and kept at other depths.
void transpose_strip(int32_t bpp, const uint8_t* band, size_t stride, uint32_t n, uint32_t d0, uint32_t g,
                     uint8_t* const* out);

// Whole square tiles turned straight from band rows, where the processor
// has a kernel for the depth (tile_kernel: null where it has none). A tile
// is `side` band rows by `side` pixels, 64 bytes of each band row and of
// each destination row. turn: rows[0 .. side-1] are the band rows (in
// destination column order), each read for the tile's pixels from byte
// `col`; destination row x receives its 64 bytes at out + x * out_stride
// (aligned to 64, as `scratch`, `scratch_bytes` long, must be). Results
// are gathered for `group` tiles of band rows in a stage and then stored a
// run of each destination row at a time (store_runs): rows a power of two
// apart share a few cache sets, and 64-byte pieces there cost about four
// times what 128-byte ones do.
constexpr uint32_t kMaxTileSide = 512;
struct TileKernel {
    uint32_t side;  // at most kMaxTileSide
    uint32_t group;
    size_t scratch_bytes;
    void (*turn)(const uint8_t* const* rows, size_t col, uint8_t* out, size_t out_stride, void* scratch);
};
const TileKernel* tile_kernel(int32_t bpp);

// Stores `bytes` (a multiple of 64) from each of `count` stage rows `stride`
// bytes apart from `stage` (aligned to 64) to dst[x]; `stream`: 64-byte
// aligned destinations are written around the caches. Only where
// tile_kernel gave a kernel.
void store_runs(const uint8_t* stage, size_t stride, size_t bytes, uint8_t* const* dst, uint32_t count, bool stream);

// Rows a band may hold: a multiple of 8, at least 8, with band rows of
// `row_bytes` bytes taking about `budget` bytes.
uint32_t band_rows(uint64_t row_bytes, uint64_t budget);

// Test only: the band memory of turns that involve tiled or disk storage
// (0 restores the default), so that small images take many bands.
void set_stream_band_for_testing(uint64_t bytes);

// Test only: the side of the tiles a square bitmap is turned in, in its own
// storage (a multiple of 8; 0 restores the default), so that small images
// take many tiles.
void set_square_tile_for_testing(uint32_t pixels);

// Test only: memory results at least this large are staged and written
// around the caches (0 restores the default), so that small images take
// that path too.
void set_stream_results_for_testing(uint64_t bytes);

// Test only: the expanded bytes a quarter turn of run-length rows holds at
// once (0 restores the default), so that small images take many column
// groups.
void set_run_turn_bytes_for_testing(uint64_t bytes);

}  // namespace zk::rotate
