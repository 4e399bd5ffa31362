// Whole-bitmap conversion: every row of one bitmap converted into the same
// row of another, straight from storage to storage where both kinds can be
// addressed (a scratch row where one cannot), planned once for all rows.
//
// May include: include/zkernel.h, color/convert.h.
#pragma once

#include <cstdint>

#include "color/convert.h"
#include "zkernel.h"

namespace zk {

// Converts the rows of `source` into `destination`, which must be another
// allocated bitmap of the same width and height. `request` gives the orders,
// palettes, flags and bit range; its width, depths and buffers are taken
// from the bitmaps. An 8-bit bitmap whose order in the request is CO_GRAY
// holds gray levels (depth 0 of conversion) instead of palette indices. A
// refused request writes nothing; a storage failure part way leaves the rows
// before it converted. Returns ST_OK or the status.
// `hook`, when given, sees each converted row before it is stored; a result
// other than ST_OK stops the conversion and is returned.
// `pages` says whether the destination's memory has been written before. A
// large destination that has is written around the caches; one just
// allocated is not: the system clears each new page on its first touch and
// leaves it in the caches, where ordinary stores find it.
struct RowHook {
    int32_t (*call)(void* context, uint32_t row, uint8_t* pixels) = nullptr;
    void* context = nullptr;
};
enum class DestinationPages { Touched, Fresh };
int32_t convert_bitmap_rows(BitmapHandle& source, BitmapHandle& destination, ConvertRequest request, RowHook hook = {},
                            DestinationPages pages = DestinationPages::Touched);

}  // namespace zk
