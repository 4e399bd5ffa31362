// Bitmaps of every storage kind with seeded pixels, and ways to compare them.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "storage.h"
#include "test_support.h"

namespace copytest {

enum class Kind { Conventional, Global, User, TiledMemory, TiledDisk, Disk };
constexpr Kind kAllKinds[] = {Kind::Conventional, Kind::Global,    Kind::User,
                              Kind::TiledMemory,  Kind::TiledDisk, Kind::Disk};

inline const char* name(Kind k) {
    switch (k) {
        case Kind::Conventional: return "conventional";
        case Kind::Global: return "global";
        case Kind::User: return "user";
        case Kind::TiledMemory: return "tiled-memory";
        case Kind::TiledDisk: return "tiled-disk";
        default: return "disk";
    }
}

// Sets the calling thread's memory thresholds for the object's lifetime.
class Thresholds {
public:
    Thresholds(int32_t tile_size, int32_t max_mem_tiles, int32_t tile_views) {
        Z_GetMemoryThresholds(&saved_[0], &saved_[1], &saved_[2], &saved_[3], &saved_[4]);
        EXPECT_EQ(Z_SetMemoryThresholds(0, 0x7FFFFFFF, tile_size, max_mem_tiles, tile_views, 31), ST_OK);
    }
    ~Thresholds() { Z_SetMemoryThresholds(saved_[0], saved_[1], saved_[2], saved_[3], saved_[4], 31); }

private:
    int32_t saved_[5] = {};
};

// Caller memory that outlives the bitmaps attached to it.
inline std::vector<std::vector<uint8_t>>& user_blocks() {
    static std::vector<std::vector<uint8_t>> blocks;
    return blocks;
}

// A zero-filled bitmap of the given kind. Tiled kinds use tiles of two rows;
// the disk variant keeps one tile in memory.
inline BitmapHandle make(Kind kind, int32_t width, int32_t height, int32_t bpp) {
    BitmapHandle b = zktest::described(width, height, bpp);
    const int32_t tile = static_cast<int32_t>(b.BytesPerLine * 2);
    switch (kind) {
        case Kind::Conventional:
            EXPECT_EQ(Z_AllocateBitmap(&b, TYPE_CONV | TYPE_NOTILE), ST_OK);
            break;
        case Kind::Global: {
            EXPECT_EQ(zk::storage::allocate_global(b), ST_OK);
            EXPECT_TRUE(b.Flags & BF_ALLOCATED);
            break;
        }
        case Kind::User: {
            EXPECT_EQ(Z_AllocateBitmap(&b, TYPE_USER), ST_OK);
            user_blocks().emplace_back(b.Size);
            EXPECT_EQ(Z_SetBitmapDataPointer(&b, user_blocks().back().data(), b.Size), ST_OK);
            break;
        }
        case Kind::TiledMemory: {
            Thresholds t(tile, -100, 1);
            EXPECT_EQ(Z_AllocateBitmap(&b, TYPE_TILED), ST_OK);
            EXPECT_TRUE(b.Flags & BF_TILED);
            break;
        }
        case Kind::TiledDisk: {
            Thresholds t(tile, 1, 1);
            EXPECT_EQ(Z_AllocateBitmap(&b, TYPE_TILED), ST_OK);
            EXPECT_TRUE(b.Flags & BF_TILED);
            break;
        }
        case Kind::Disk:
            EXPECT_EQ(Z_AllocateBitmap(&b, TYPE_DISK), ST_OK);
            EXPECT_TRUE(b.Flags & BF_DISK);
            break;
    }
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
