// Palette services shared inside the colour subsystem and by colour reduction:
// the fixed tables, the library's nearest-colour search and the gray level.
//
// May include: include/zkernel.h.
#pragma once

#include <cstdint>

#include "zkernel.h"

// Hot loops built once per instruction set where the toolchain can choose
// the best one when the library is loaded. Only on functions whose callers
// are in the same file (the clones are local to it).
#if defined(__GNUC__) && !defined(__clang__) && defined(__ELF__) && (defined(__x86_64__) || defined(__i386__))
#define ZK_TARGET_CLONES __attribute__((target_clones("avx2", "ssse3", "default")))
#else
#define ZK_TARGET_CLONES
#endif

namespace zk {

// Gray level of a colour, used wherever a colour is reduced to gray.
constexpr uint32_t gray_level(uint32_t r, uint32_t g, uint32_t b) { return (2 * r + 5 * g + b + 4) >> 3; }

// The constant table of a depth 1..8 (2^bits entries), or null. The eight
// tables lie back to back in one array, 2-entry table first.
const RGBQUAD* fixed_palette(int32_t bits);

// Nearest entry by the library's own metric (white/black probes, squared
// distance, channel-order class breaking ties). 0xFFFFFFFF for count 0.
uint32_t find_palette_index(const RGBQUAD* entries, uint32_t count, uint32_t red, uint32_t green, uint32_t blue);

// A palette of at most 256 entries prepared for many searches of 8-bit
// colours: the same index as find_palette_index, found by one pass over all
// entries that the compiler vectorises.
class PaletteSearch {
public:
    // wide_vectors = false keeps to the baseline build of the search even
    // where the processor has the 512-bit one (tests hold both to the scan).
    void prepare(const RGBQUAD* entries, uint32_t count, bool wide_vectors = true);
    uint32_t find(uint32_t red, uint32_t green, uint32_t blue) const;

    struct Channels {
        alignas(64) int32_t r[256];
        alignas(64) int32_t g[256];
        alignas(64) int32_t b[256];
        alignas(64) int32_t cls[256];  // channel-order class
        // For 512-bit vectors: (red, green) and (blue, 0) as 16-bit pairs.
        alignas(64) int16_t red_green[512];
        alignas(64) int16_t blue_zero[512];
    };

private:
    const RGBQUAD* entries_ = nullptr;
    uint32_t count_ = 0;
    bool wide_ = false;  // the processor has the 512-bit search
    Channels c_;
};

// A new Z_OsAlloc block holding `count` entries copied from `source`; null
// for count 0 or when the block cannot be made.
RGBQUAD* copy_palette_block(const RGBQUAD* source, uint32_t count);

}  // namespace zk
