// The inverse-colour table of colour reduction: 32,768 cells of 5 bits per
// channel, each 0 (unknown) or 1 + a position in the match list, the
// palette's selectable entries in index order. Dithering fills cells as it
// meets colours; user tables and the optimized-palette generator fill them
// all at once.
//
// May include: include/zkernel.h, color/palette.h.
#pragma once

#include <cstdint>

#include "zkernel.h"

namespace zk::reduce {

constexpr uint32_t kMatchCells = Z_MATCH_TABLE_CELLS;

constexpr uint32_t match_cell(uint32_t r, uint32_t g, uint32_t b) { return (r >> 3) << 10 | (g >> 3) << 5 | (b >> 3); }

// Whether the nearest-colour search may choose a palette entry.
constexpr bool selectable(const RGBQUAD& e) { return (e.rgbReserved & (Z_PAL_RESERVED | Z_PAL_FILL)) == 0; }

// The selectable entries of a palette in index order; the fourth byte of
// each holds the entry's palette index.
struct MatchList {
    RGBQUAD entry[256];
    uint32_t count = 0;
};

// The list of the first min(colors, 256) entries of palette.
void build_match_list(const RGBQUAD* palette, uint32_t colors, MatchList& list);

// Gives each listed colour its own cell (position + 1) where the cell is
// still 0, so the lowest position wins a shared cell and known cells stay.
void seed_match_table(uint32_t* table, const MatchList& list);

// Answers every cell still 0 of a seeded table. The list must not be empty.
// ST_OK or ST_NO_MEMORY (the table then partly answered).
int32_t fill_match_table(uint32_t* table, const MatchList& list);

}  // namespace zk::reduce
