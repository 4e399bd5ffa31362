// Colour quantisation of a histogram of 5 bits per channel: the bins are the
// cells of a match table, each knowing how many pixels fell into it and the
// sums of their 8-bit channels (so its mean colour). Colours are chosen by
// variance-minimising box splits over the bins and refined by weighted
// k-means passes against the bins' means, with colours already in the
// palette taken as centres that never move.
//
// May include: include/zkernel.h, reduce/match_table.h.
#pragma once

#include <cstdint>

#include "reduce/match_table.h"
#include "zkernel.h"

namespace zk::reduce {

constexpr uint32_t kHistogramBins = kMatchCells;

// The pixels of one bin (cell = match_cell(r, g, b) of each pixel): their
// count and the sums of their channels, exact in doubles up to 2^53.
struct BinSums {
    double n = 0, r = 0, g = 0, b = 0;
};

// Chooses at most `fill` (1..256) new colours for the pixels counted in
// bins[0..kHistogramBins), given `fixed_count` (0..255) colours the palette
// already offers: pixels nearest a fixed colour need no new one. Writes the
// colours to out[0..*made) (reserved bytes 0). Fewer than `fill` are made
// when fewer are of use (few occupied bins, or fixed colours covering
// clusters). ST_OK or ST_NO_MEMORY.
int32_t quantize_histogram(const BinSums* bins, const RGBQUAD* fixed, uint32_t fixed_count, uint32_t fill, RGBQUAD* out,
                           uint32_t* made);

}  // namespace zk::reduce
