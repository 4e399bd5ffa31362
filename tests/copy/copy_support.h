// Bitmaps of every storage kind with seeded pixels, and ways to compare them.
#pragma once

#include "../storage/kinds.h"

namespace copytest {

using zktest::Kind;
// The kinds but mixed tiles: the tiles on disk keep one view.
constexpr Kind kAllKinds[] = {Kind::Conventional, Kind::Global, Kind::Caller,   Kind::TiledMemory,
                              Kind::TiledDisk,    Kind::Disk,   Kind::RunLength};
inline const char* name(Kind k) { return zktest::kind_name(k); }

// A zero-filled bitmap of the kind: tiles of two rows, global storage
// unlocked, caller memory that outlives the bitmap; the thresholds restored.
inline BitmapHandle make(Kind kind, int32_t width, int32_t height, int32_t bpp) {
    static std::vector<std::vector<uint8_t>> caller_blocks;
    zktest::ThresholdGuard guard;
    BitmapHandle b{};
    zktest::make_bitmap(kind, width, height, bpp, b, caller_blocks.emplace_back(), 2);
    if (kind == Kind::Global) Z_UnlockBitmap(&b, 0);
    return b;
}

// Every stored row, padding included, through row access.
inline std::vector<uint8_t> pixels(BitmapHandle& b) {
    std::vector<uint8_t> out(static_cast<size_t>(b.BytesPerLine) * static_cast<uint32_t>(b.Height));
    const int32_t was = Z_LockBitmap(&b);
    for (int32_t y = 0; y < b.Height; ++y)
        EXPECT_EQ(Z_GetBitmapRow(&b, out.data() + static_cast<size_t>(y) * b.BytesPerLine, static_cast<uint32_t>(y),
                                 b.BytesPerLine),
                  static_cast<int32_t>(b.BytesPerLine));
    Z_UnlockBitmap(&b, was);
    return out;
}

inline void fill(BitmapHandle& b, uint32_t seed) {
    const int32_t was = Z_LockBitmap(&b);
    for (int32_t y = 0; y < b.Height; ++y) {
        auto row = zktest::random_bytes(b.BytesPerLine, seed * 7919u + static_cast<uint32_t>(y));
        EXPECT_EQ(Z_PutBitmapRow(&b, row.data(), static_cast<uint32_t>(y), b.BytesPerLine),
                  static_cast<int32_t>(b.BytesPerLine));
    }
    Z_UnlockBitmap(&b, was);
}

inline BitmapHandle make_filled(Kind kind, int32_t width, int32_t height, int32_t bpp, uint32_t seed) {
    BitmapHandle b = make(kind, width, height, bpp);
    fill(b, seed);
    return b;
}

// Pixel x of a packed row (most significant bits first), as an integer.
inline uint64_t pixel(const uint8_t* row, uint32_t x, int32_t bpp) {
    const uint64_t bit = static_cast<uint64_t>(x) * static_cast<uint32_t>(bpp);
    uint64_t v = 0;
    for (int32_t k = 0; k < bpp; ++k) {
        const uint64_t at = bit + static_cast<uint64_t>(k);
        v = (v << 1) | ((row[at >> 3] >> (7 - (at & 7))) & 1u);
    }
    return v;
}

}  // namespace copytest
