// The dithering engine: rows of any bitmap depth become rows of palette
// indices, one call per row top to bottom, with the state that carries error
// and the ordered matrix row from one row to the next hung on the bitmap.
//
// May include: include/zkernel.h, color/palette.h, color/pivot.h,
// reduce/match_table.h.
#pragma once

#include <cstdint>

#include "color/pivot.h"
#include "reduce/match_table.h"
#include "zkernel.h"

namespace zk::reduce {

// How a colour becomes an index.
enum class Lookup : uint32_t {
    OwnedTable = 0,  // a match table owned by the state
    UserTable = 1,   // the caller's match table
    Fixed2 = 2,      // the fixed palettes, by arithmetic
    Fixed4 = 3,
    Fixed8 = 4,
    Fixed16 = 5,
    Fixed32 = 6,
    Fixed64 = 7,
    Fixed128 = 8,
    Fixed256 = 9,
    Cube = 10,  // the 6 x 6 x 6 cube palette
};

// The 256-entry palette holding the 6 x 6 x 6 cube: entry r * 36 + g * 6 + b
// has channels 51 times the levels; entries 216..255 are black.
const RGBQUAD* cube_palette();

// The index width a palette of `colors` entries (1..256) needs.
uint32_t index_bits(uint32_t colors);

// Starts dithering `bitmap` with `method` (DitherMethod is not read), as
// Z_StartDitheringExt does; the exports check the record first.
int32_t start_dithering(BitmapHandle& bitmap, uint32_t method, const RGBQUAD* palette, uint32_t colors,
                        uint32_t bits_per_pixel, uint32_t* user_table);
// Dithers one row (the bitmap has a state).
void dither_line(BitmapHandle& bitmap, const uint8_t* source, uint8_t* dest);
// Frees the bitmap's state, if any.
void stop_dithering(BitmapHandle& bitmap);

namespace testing {
// The lookup kind of the bitmap's state.
Lookup lookup_of(const BitmapHandle& bitmap);
// Whether the state diffuses error through per-channel tables of its fixed
// palette.
bool split_of(const BitmapHandle& bitmap);
// The quotient error diffusion with `method` takes of a sum (0 for the
// other methods).
int32_t divided(uint32_t method, int32_t sum);
}  // namespace testing

}  // namespace zk::reduce
