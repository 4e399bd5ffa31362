// View perspectives: the eight values of ViewPerspective (the TIFF
// Orientation numbering), the change parameters between two of them, and
// the conversion of pixel data from one to another.
//
// May include: include/zkernel.h, core/bitmap_handle.h, core/region.h,
// geometry/flip.h.
#pragma once

#include <cstdint>

#include "zkernel.h"

namespace zk::geometry {

constexpr bool valid_perspective(int64_t v) { return v >= 1 && v <= 8; }
// 5 to 8: the stored rows run down the displayed columns.
constexpr bool transposed_perspective(int64_t v) { return v >= 5 && v <= 8; }

// How data stored in perspective `from` becomes data stored in `to`: first
// reverse the row order when flip is set, then turn the stored image
// clockwise by angle degrees (0, 90, 180, 270; -90 for the pair 2 to 8,
// which turns it counter-clockwise). False for a value outside 1 to 8.
bool change_params(int64_t from, int64_t to, bool* flip, int32_t* angle);

}  // namespace zk::geometry
