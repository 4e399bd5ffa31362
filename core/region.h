// The process-wide region hook table and the calls the kernel makes through
// it. Each helper returns the hook's result, or the fallback when the entry
// is not installed.
//
// May include: include/zkernel.h.
#pragma once

#include "zkernel.h"

namespace zk::region {

// Entry n (1-based) of the table, or null.
Z_DISPATCHPROC entry(int n);

// Entry 1, after every row of a bitmap was mirrored. ST_OK when absent.
int32_t rows_mirrored(BitmapHandle* bitmap);
// Entry 19, after the row order of a bitmap changed. ST_OK when absent.
int32_t rows_flipped(BitmapHandle* bitmap);
// Entry 2: copies src's region to dst. *called tells whether a hook ran.
int32_t copy(BitmapHandle* dst, BitmapHandle* src, uint32_t word1, uint32_t word2, bool* called);
// Entry 4 with its fallback (answer 2, the whole bitmap).
int32_t kind(BitmapHandle* bitmap, int32_t* answer);
// Entry 5 with its fallback (one span (0, Width), answer 2).
int32_t row_span(BitmapHandle* bitmap, int32_t row, int32_t* span, int32_t* answer);
// Entry 6, after a resize. ST_OK when absent.
int32_t resized(BitmapHandle* bitmap, int32_t width, int32_t height);
// Entry 8 with its fallback (the whole bitmap) and the clip rule.
int32_t bounds(BitmapHandle* bitmap, uint32_t word, RECT* rect, int32_t clip);
// Entry 13, after a turn. ST_OK when absent.
int32_t rotated(BitmapHandle* bitmap, int32_t width, int32_t height, int32_t angle);
// Entry 17 with its fallback: ST_OK inside, ST_BAD_POSITION outside.
int32_t point_allowed(BitmapHandle* bitmap, int32_t column, int32_t row);

// Test only: puts the table and the installed flag back to the state before
// any reset or install (all entries null, flag 0). The library's own load
// has already reset the table, so only this reaches the first-reset path.
void testing_restore_load_state();

}  // namespace zk::region
