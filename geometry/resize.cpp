// Streaming row resize: a caller hands source rows one at a time (forwards,
// backwards or in any order) and gets each back scaled in place to the new
// width, with the number of destination rows it stands for.
// Exports: Z_StartResize, Z_Resize, Z_StopResize.
//
// May include: include/zkernel.h, core/bitmap_handle.h, core/pixel_format.h, geometry/resize.h.
#include <cstddef>
#include <cstdint>

#include "bitmap_handle.h"
#include "core/pixel_format.h"
#include "geometry/resize.h"
#include "zkernel.h"

// The state behind a ResizeHandle: fourteen 32-bit words in this order.
struct Z_ResizeState {
    int32_t last_row;    // source row of the previous Z_Resize; -1 at first
    int32_t backwards;   // 1 while rows come in decreasing order
    int32_t old_width;   // source size
    int32_t old_height;  //
    int32_t new_width;   // destination size
    int32_t new_height;  //
    int32_t col_step;    // old_width / new_width
    int32_t col_rem;     // old_width % new_width
    int32_t spare8;
    int32_t spare9;
    int32_t row_copies;  // new_height / old_height
    int32_t row_rem;     // new_height % old_height
    int32_t spare12;
    int32_t row_acc;  // running remainder of the row stepping
};
static_assert(sizeof(Z_ResizeState) == 56, "the resize state is fourteen 32-bit words");

namespace zk::resize {
namespace {

// Round(a * b / c) for a, b >= 0 and c > 0, halves rounded up; -1 when the
// result does not fit 31 bits (as the platform's multiply-divide reports it).
int32_t rounded_mul_div(int32_t a, int32_t b, int32_t c) {
    const uint64_t q = (uint64_t(uint32_t(a)) * uint32_t(b) + uint32_t(c) / 2) / uint32_t(c);
    return q > INT32_MAX ? -1 : static_cast<int32_t>(q);
}

// Bytes of a packed row of `width` pixels, unpadded; 0 when that exceeds the
// longest row the library moves.
uint64_t packed_bytes(int32_t width, int32_t bpp) {
    const uint64_t bytes = (uint64_t(uint32_t(width)) * uint32_t(bpp) + 7) / 8;
    return bytes > kMaxRowBytes ? 0 : bytes;
}

// Destination rows that source `row` yields. Going forwards the accumulator
// holds (rem * i) mod old before row i, and a row yields one extra copy when
// adding rem carries, so row i yields floor((i + 1) * new / old) -
// floor(i * new / old). A row that continues neither run recomputes the
// accumulator from its index and yields the same. Entering a backwards run at
// row i sets the accumulator to (rem * i) mod old and a row yields one extra
// copy when taking rem away borrows: a row reached going backwards yields
// what the row above it yields going forwards (row 0 what row -1 would), the
// established split of a backwards pass.
int32_t row_copies(Z_ResizeState& s, int32_t row) {
    const int64_t h = s.old_height, r = s.row_rem, last = s.last_row;
    int64_t a = s.row_acc;
    int32_t copies = s.row_copies;
    if (row == last + 1) {
        if (s.backwards) {
            a = (r * row) % h;
            s.backwards = 0;
        }
        a += r;
        if (a >= h) {
            a -= h;
            ++copies;
        }
    } else if (row == last - 1) {
        if (!s.backwards) {
            a = (r * row) % h;
            s.backwards = 1;
        }
        a -= r;
        if (a < 0) {
            a += h;
            ++copies;
        }
    } else {
        s.backwards = 0;
        a = r + (r * row) % h;
        if (a >= h) {
            a -= h;
            ++copies;
        }
    }
    s.row_acc = static_cast<int32_t>(a);
    return copies;
}

// Scales the row in `buffer` from the old to the new width in place.
void scale_row(const Z_ResizeState& s, uint8_t* buffer, int32_t bpp) {
    if (s.new_width == s.old_width) return;
    Line line;
    line.bpp = bpp;
    line.bytes = static_cast<int32_t>(packed_bytes(s.old_width, bpp));
    line.step = s.col_step;
    line.rem = s.col_rem;
    line.count = s.new_width;
    line.denom = s.new_width;
    if (s.new_width > s.old_width) {
        line.enlarge = true;
        scale_reverse(line, buffer, buffer);
    } else if (const Packing p = pixel_format(bpp).packing; p == Packing::Fields || p == Packing::Gray12) {
        // Bit fields and 12-bit samples: the forward scaler would clear the
        // row it reads.
        scale_reverse(line, buffer, buffer);
    } else {
        scale_forward(line, buffer, buffer);
    }
}

}  // namespace

int32_t normalise_size(int32_t old_width, int32_t old_height, int32_t* width, int32_t* height) {
    if (old_width <= 0 || old_height <= 0) return ST_BAD_PARAM;
    int32_t w = *width, h = *height;
    if (w < 0 || h < 0 || (w == 0 && h == 0)) return ST_BAD_PARAM;
    if (w == 0) w = rounded_mul_div(h, old_width, old_height);
    if (h == 0) h = rounded_mul_div(w, old_height, old_width);
    if (w <= 0 || h <= 0) return ST_BAD_PARAM;
    *width = w;
    *height = h;
    return ST_OK;
}

}  // namespace zk::resize

extern "C" int32_t Z_API Z_StartResize(int32_t oldWidth, int32_t oldHeight, int32_t newWidth, int32_t newHeight,
                                       ResizeHandle* handle) {
    if (!handle) return ST_BAD_PARAM;
    *handle = nullptr;
    const int32_t status = zk::resize::normalise_size(oldWidth, oldHeight, &newWidth, &newHeight);
    if (status != ST_OK) return status;
    auto* s = static_cast<Z_ResizeState*>(Z_Malloc(sizeof(Z_ResizeState)));
    if (!s) return ST_NO_MEMORY;
    *s = Z_ResizeState{};
    s->last_row = -1;
    s->old_width = oldWidth;
    s->old_height = oldHeight;
    s->new_width = newWidth;
    s->new_height = newHeight;
    s->col_step = oldWidth / newWidth;
    s->col_rem = oldWidth % newWidth;
    s->row_copies = newHeight / oldHeight;
    s->row_rem = newHeight % oldHeight;
    *handle = s;
    return ST_OK;
}

extern "C" int32_t Z_API Z_Resize(uint8_t* buffer, int32_t row, int32_t bitsPerPixel, int32_t* newWidth,
                                  int32_t* copies, ResizeHandle handle) {
    if (!buffer || !newWidth || !copies || !handle) return ST_BAD_PARAM;
    Z_ResizeState& s = *handle;
    if (!zk::valid_depth(bitsPerPixel)) return ST_BAD_BPP;
    if (row < 0 || row >= s.old_height) return ST_BAD_PARAM;
    if (zk::resize::packed_bytes(s.old_width, bitsPerPixel) == 0 ||
        zk::resize::packed_bytes(s.new_width, bitsPerPixel) == 0)
        return ST_TOO_LARGE;
    if (s.old_width == s.new_width && s.old_height == s.new_height) {
        *copies = 1;
        *newWidth = s.new_width;
        return ST_OK;
    }
    const int32_t n = zk::resize::row_copies(s, row);
    s.last_row = row;
    *newWidth = s.new_width;
    *copies = n;
    if (n == 0) return 0;
    zk::resize::scale_row(s, buffer, bitsPerPixel);
    return n;
}

extern "C" int32_t Z_API Z_StopResize(ResizeHandle handle) {
    if (!handle) return ST_BAD_PARAM;
    Z_Free(handle);
    return ST_OK;
}
