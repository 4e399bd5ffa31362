// The run-length storage kind (BF_COMPRESSED): 1-bit rows kept as runs in a
// heap that grows in 256 KiB steps, a per-row table of offset and length.
// Row access reaches it through its KindOps like any kind that cannot be
// addressed; the calls below are for what only runs allow (handing rows
// over as runs, exchanging rows without touching their pixels) and for the
// heap itself.
//
// May include: include/zkernel.h, core/storage.h, core/run_length.h.
#pragma once

#include <cstddef>
#include <cstdint>

#include "storage.h"
#include "zkernel.h"

namespace zk::storage {

// The kind's operations (kind_ops answers with them for BF_COMPRESSED).
const KindOps& run_length_ops();

// Builds the store for a described 1-bit record: every row blank (0-pixels).
// Sets Data to the control block; the caller sets the flag bits. ST_OK,
// ST_BAD_PARAM (not 1 bit, no pixels), ST_TOO_LARGE, ST_NO_MEMORY (nothing
// left allocated).
int32_t allocate_run_length(BitmapHandle& bitmap);

// Row `row` as stored (count and run words, *bytes long); null when the
// bitmap is not run-length or the row does not exist. Valid until the next
// change of the bitmap.
const uint8_t* stored_row(const BitmapHandle& bitmap, uint32_t row, size_t* bytes);

// Replaces row `row` by the run-length row at runs, of which `available`
// bytes may be read; it must be a row of exactly Width pixels. ST_OK,
// ST_BAD_PARAM (refused: the row is unchanged), ST_NO_MEMORY (the heap could
// not grow: the row is unchanged).
int32_t put_stored_row(BitmapHandle& bitmap, uint32_t row, const uint8_t* runs, size_t available);

// The heap: bytes reserved, bytes up to the last row written, bytes the rows
// take now (the rest is dead space from rewritten and dropped rows).
struct HeapUse {
    size_t reserved = 0, used = 0, live = 0;
};
HeapUse heap_use(const BitmapHandle& bitmap);

// Grows the heap in whole steps so that `bytes` more fit at its end.
// ST_OK, ST_BAD_PARAM (not run-length), ST_NO_MEMORY (unchanged).
int32_t grow_heap(BitmapHandle& bitmap, size_t bytes);

// Moves the rows together and gives the dead space back, keeping whole
// steps. ST_OK, ST_BAD_PARAM, ST_NO_MEMORY (unchanged).
int32_t trim_heap(BitmapHandle& bitmap);

}  // namespace zk::storage
