// The optimized-palette generator: colours for the entries of a palette that
// are marked to be filled, chosen from the pixels of one or more bitmaps.
//
// May include: include/zkernel.h, reduce/match_table.h.
#pragma once

#include <cstdint>

#include "reduce/match_table.h"
#include "zkernel.h"

namespace zk::reduce {

struct PaletteChoice {
    uint32_t used = 0;   // entries filled
    bool exact = false;  // every colour of the sources is in the palette
};

// Fills the entries of palette[0..count) whose reserved byte has Z_PAL_FILL
// without Z_PAL_RESERVED from the pixels of sources[0..n) (clearing the byte
// of each entry filled, using filled entries in index order; entries left
// over keep Z_PAL_FILL). The selectable entries kept (reserved byte 0) are
// part of the palette: pixels nearest to them need no new entry.
//  - One source of 1..8 bits whose pixels are indices into a palette of no
//    more entries (ColorCount) than there are to fill: that palette, exact.
//  - Else sources of no more distinct colours than entries to fill: those
//    colours in the order met (rows top to bottom, sources in order), exact.
//  - Else colours quantised from a histogram of 5 bits per channel
//    (reduce/quantize.h), not exact.
// With a non-null match_table (kMatchCells cells) every cell is answered for
// the finished palette: build_match_list + seed_match_table +
// fill_match_table on a zeroed table. Pixels are read a row at a time in any
// storage kind; the sources are not changed. ST_OK; ST_BAD_PARAM (null
// arguments, n 0, count outside 1..256, no entry to fill),
// ST_BAD_STRUCT_SIZE, ST_INVALID_BITMAP (a source without storage),
// ST_SIGNED_DATA (BF_SIGNED), ST_NO_MEMORY, or a row-access failure. On a
// failure the palette and *choice are as they were; the table's contents
// are then unspecified.
int32_t optimize_palette(BitmapHandle* const* sources, uint32_t n, RGBQUAD* palette, uint32_t count,
                         uint32_t* match_table, PaletteChoice* choice);

}  // namespace zk::reduce
