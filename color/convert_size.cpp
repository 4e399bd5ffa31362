// Buffer size of an in-place row conversion.
#include <algorithm>
#include <utility>

#include "bitmap_handle.h"

// The buffer holds the source row and, written over it, the destination row;
// the destination width is also measured at the source depth because the
// caller may read the source at the destination width. Sizes that do not fit
// the signed 32-bit result are ST_TOO_LARGE; negative widths ST_BAD_PARAM.
extern "C" int32_t Z_API Z_CalcConvertSize(int32_t width, uint32_t bitsPerPixel, int32_t width2,
                                           uint32_t bitsPerPixel2) {
    const int64_t s = bitsPerPixel == 0 ? 8 : int64_t{bitsPerPixel};
    const int64_t d = bitsPerPixel2 == 0 ? 8 : int64_t{bitsPerPixel2};
    uint32_t size = 0;
    for (const auto& [w, bits] : {std::pair{width, s}, std::pair{width2, s}, std::pair{width2, d}}) {
        const zk::ImageSize row = zk::image_size(w, 1, bits);
        if (row.status != ST_OK) return row.status;
        size = std::max(size, row.bytes_per_line);
    }
    return static_cast<int32_t>(size);
}
