// The common pixel of conversion and the per-depth pieces that read rows into
// it and write rows out of it. The general conversion path is a fetch of the
// source depth followed by a store of the destination depth, a chunk of
// pixels at a time. A fetch needs only a PixelReader and a store only a
// PixelWriter, so colour reduction and alpha read and write pixels of any
// depth the same way without planning a conversion (prepare_reader).
//
// May include: include/zkernel.h, core/pixel_format.h.
#pragma once

#include <cstdint>

#include "core/pixel_format.h"
#include "zkernel.h"

namespace zk {

struct IndexMemo;

// One pixel of the common format every source is read into.
struct Pivot {
    uint16_t r, g, b;  // 16-bit channels; 8-bit values are widened by 257
    uint16_t a;        // alpha, 16-bit likewise; 0xFFFF (opaque) where the source has none
    uint16_t level;    // gray sample of a deep gray source (Plan::level_bits)
    uint16_t index;    // index or gray byte of a palettized or 8-bit gray source
};

// What a fetch needs to read pixels of one depth and layout.
struct PixelReader {
    int32_t src_depth = 0;
    bool src_rgb = false;                              // red first (24..64 bits) or in the low bits (16)
    bool src_alt = false;                              // CO_ALT_BGR pixels turned to CO_BGR while read
    bool src_gray16 = false;                           // 16-bit gray samples
    uint32_t src_shift = 0, src_mask = 0, src_nb = 0;  // deep gray bit range
    const RGBQUAD* lut = nullptr;                      // deep gray LUT
    bool wide_gray = false;                            // deep gray kept at 16 bits for 16-bit consumers
    const RGBQUAD* src_palette = nullptr;              // palettized sources; null: index i is gray i
    RGBQUAD colours[256];                              // the colour of each index, for palettized fetches
};

// What a store needs to write pixels of one depth and layout.
struct PixelWriter {
    int32_t dst_depth = 0;
    bool dst_rgb = false;
    bool dst_alt = false;                // colour written in CO_ALT_BGR
    bool dst_gray16 = false;             // 16-bit gray samples
    uint32_t dst_shift = 0, dst_nb = 0;  // 12/16-bit gray destination field
    bool level_from_colour = true;       // deep gray destinations: gray of the colour
    uint32_t level_bits = 8;             // else Pivot::level of this many bits
    uint8_t alpha8 = 0;
    uint16_t alpha16 = 0;
    const RGBQUAD* dst_palette = nullptr;  // never null for palettized destinations
    uint32_t dst_count = 0;
    bool use_map = false;       // index through map
    uint8_t map[256];           // filled when use_map
    IndexMemo* memo = nullptr;  // colour -> index cache
};

// Reads n source pixels from pixel `first` of the row into `out`.
using FetchFn = void (*)(const PixelReader& reader, const uint8_t* row, uint64_t first, uint32_t n, Pivot* out);
// Writes n pivot pixels to the row from pixel `first`; bits of the row
// outside those pixels are kept.
using StoreFn = void (*)(const PixelWriter& writer, uint8_t* row, uint64_t first, uint32_t n, const Pivot* in);

// The pieces of a depth that convertible_depth() accepts; null otherwise.
FetchFn fetch_for(int32_t depth);
StoreFn store_for(int32_t depth);

// Significant bits of a gray sample: low = max(low bit, 0), high = high bit
// (or bits - 1 when negative), nb = min(high - low + 1, cap), shift = high -
// nb + 1, so the most significant bits of the range are kept.
struct BitRange {
    uint32_t shift, mask, nb;
};
// False when the range leaves no bit or reaches past bit 31.
bool bit_range(uint32_t bits, uint32_t low_bit, uint32_t high_bit, uint32_t cap, BitRange* out);

// Prepares `reader` to fetch pixels of a bitmap depth and colour order as
// 8-bit colour: palettized depths through `palette` (null: index i is gray
// level i), 12/16-bit gray samples through their significant bits
// (low_bit..high_bit, at most 8 of them, or the LUT's when `lut` is given).
// ST_OK; ST_BAD_PARAM for a depth or order the format table refuses.
int32_t prepare_reader(PixelReader& reader, int32_t depth, uint32_t order, const RGBQUAD* palette, const RGBQUAD* lut,
                       uint32_t low_bit, uint32_t high_bit);

// Fills reader.colours for a source of at most 8 bits: src_palette's entry
// for each index the depth has, gray level i otherwise.
void set_index_colours(PixelReader& reader);

}  // namespace zk
