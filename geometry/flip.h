// Moving pixels to flip a bitmap top-to-bottom or mirror it left-to-right:
// the row workers (row order reversed, every row mirrored, both at once for
// a half turn), the overlay table they move along, and the switch that keeps
// inner calls from reporting progress.
//
// Every worker either completes or puts back what it had changed, so the
// caller's bitmap is left as it was on every failure (a refused buffer, a
// failed row transfer, a progress callback that stops the work, a region
// hook that refuses the result).
//
// May include: include/zkernel.h, core/bitmap_handle.h, core/thread_state.h,
// core/region.h, rows/row_stream.h, geometry/mirror.h.
#pragma once

#include <cstdint>

#include "zkernel.h"

namespace zk::geometry {

// The overlay table of a bitmap's Overlays field: a Z_OsAlloc block whose
// first word is kOverlayTableSize, then kOverlayEntries entries. An entry
// whose flags have kOverlayTakesPart set, and whose bitmap is not null, is
// moved, flipped and mirrored along with its bitmap.
constexpr uint32_t kOverlayTableSize = 4692;
constexpr uint32_t kOverlayEntries = 16;
constexpr uint32_t kOverlayTakesPart = 2;

struct OverlayEntry {
    BitmapHandle* bitmap;
    uint32_t flags;
    int32_t left;  // position on the displayed main image
    int32_t top;
};

struct OverlayTable {
    uint32_t size;  // kOverlayTableSize
    OverlayEntry entries[kOverlayEntries];
};

// The pixel work of the workers below. Flip reverses the stored row order,
// Mirror mirrors every stored row, HalfTurn does both.
enum class RowOp { Flip, Mirror, HalfTurn };

// Reverses the stored row order (FlipRowOrder): progress counted in
// Height / 2 steps when `report` is set, then the flip hook (entry 19).
// ST_INVALID_BITMAP for a null record, one without storage or one whose row
// length does not hold its width.
int32_t flip_row_order(BitmapHandle* bitmap, bool report);
// Mirrors every stored row (MirrorRows): progress in Height steps when
// `report` is set, then the mirror hook (entry 1). Checks as flip_row_order.
int32_t mirror_rows(BitmapHandle* bitmap, bool report);
// Turns the stored image by 180 degrees in place, then the turn hook (entry
// 13) with the bitmap's size and 18000. With `after_flip`, the pixels were to
// be flipped first: only the rows are mirrored, and the flip hook is called
// before the turn hook. No progress. Checks as flip_row_order.
int32_t half_turn(BitmapHandle* bitmap, bool after_flip);

// Switches the calling thread's status callback off for the object's life.
class ProgressOff {
public:
    ProgressOff();
    ~ProgressOff();
    ProgressOff(const ProgressOff&) = delete;
    ProgressOff& operator=(const ProgressOff&) = delete;

private:
    STATUSCALLBACK callback_;
    void* user_;
};

}  // namespace zk::geometry
