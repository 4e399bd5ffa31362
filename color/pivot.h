// The common pixel of conversion and the per-depth pieces that read rows into
// it and write rows out of it. The general conversion path is a fetch of the
// source depth followed by a store of the destination depth, a chunk of
// pixels at a time; colour reduction and alpha read pixels of any depth the
// same way.
//
// May include: core/pixel_format.h.
#pragma once

#include <cstdint>

#include "core/pixel_format.h"

namespace zk {

struct Plan;

// One pixel of the common format every source is read into.
struct Pivot {
    uint16_t r, g, b;  // 16-bit channels; 8-bit values are widened by 257
    uint16_t a;        // alpha, 16-bit likewise; 0xFFFF (opaque) where the source has none
    uint16_t level;    // gray sample of a deep gray source (Plan::level_bits)
    uint16_t index;    // index or gray byte of a palettized or 8-bit gray source
};

// Reads n source pixels from pixel `first` of the row into `out`.
using FetchFn = void (*)(const Plan& plan, const uint8_t* row, uint64_t first, uint32_t n, Pivot* out);
// Writes n pivot pixels to the row from pixel `first`; bits of the row
// outside those pixels are kept.
using StoreFn = void (*)(const Plan& plan, uint8_t* row, uint64_t first, uint32_t n, const Pivot* in);

// The pieces of a depth that convertible_depth() accepts; null otherwise.
FetchFn fetch_for(int32_t depth);
StoreFn store_for(int32_t depth);

}  // namespace zk
