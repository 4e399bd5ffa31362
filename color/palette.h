// Palette services shared inside the colour subsystem and by colour reduction:
// the fixed tables, the library's nearest-colour search and the gray level.
//
// May include: include/zkernel.h, core/platform/cpu.h.
#pragma once

#include <cstdint>

#include "core/platform/cpu.h"
#include "zkernel.h"

namespace zk {

// The constant table of a depth 1..8 (2^bits entries), or null. The eight
// tables lie back to back in one array, 2-entry table first.
const RGBQUAD* fixed_palette(int32_t bits);

// Nearest entry by the library's own metric (white/black probes, squared
// distance, channel-order class breaking ties). 0xFFFFFFFF for count 0.
uint32_t find_palette_index(const RGBQUAD* entries, uint32_t count, uint32_t red, uint32_t green, uint32_t blue);

// A palette of at most 256 entries prepared for many searches of 8-bit
// colours: the same index as find_palette_index, found by one pass over all
// entries, in vectors of the processor's tier (platform::cpu_tier() when
// prepared; tests hold every tier to the scan).
class PaletteSearch {
public:
    void prepare(const RGBQUAD* entries, uint32_t count);
    uint32_t find(uint32_t red, uint32_t green, uint32_t blue) const;

    struct Channels {
        alignas(64) int32_t r[256];
        alignas(64) int32_t g[256];
        alignas(64) int32_t b[256];
        alignas(64) int32_t cls[256];  // channel-order class
        // For the vector tiers: (red, green) and (blue, 0) as 16-bit pairs.
        alignas(64) int16_t red_green[512];
        alignas(64) int16_t blue_zero[512];
    };

private:
    const RGBQUAD* entries_ = nullptr;
    uint32_t count_ = 0;
    platform::CpuTier tier_ = platform::CpuTier::Portable;
    Channels c_;
};

// A new Z_OsAlloc block holding `count` entries copied from `source`; null
// for count 0 or when the block cannot be made.
RGBQUAD* copy_palette_block(const RGBQUAD* source, uint32_t count);

}  // namespace zk
