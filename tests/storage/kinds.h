// Bitmaps of every storage kind for the storage and row tests, made with
// small thresholds inside a private temporary directory.
#pragma once

#include <cstring>
#include <string>
#include <vector>

#include "storage.h"
#include "test_support.h"

namespace zktest {

enum class Kind { Conventional, Global, Caller, TiledMemory, TiledDisk, TiledMixed, Disk, RunLength };

inline const char* kind_name(Kind k) {
    switch (k) {
        case Kind::Conventional: return "conventional";
        case Kind::Global: return "global";
        case Kind::Caller: return "caller";
        case Kind::TiledMemory: return "tiled-memory";
        case Kind::TiledDisk: return "tiled-disk";
        case Kind::TiledMixed: return "tiled-mixed";
        case Kind::Disk: return "disk";
        case Kind::RunLength: return "run-length";
    }
    return "?";
}

// Run-length storage holds 1-bit rows only: at other depths make_bitmap
// gives conventional storage for it (what TYPE_COMPRESSED asks for there).
constexpr Kind kAllKinds[] = {Kind::Conventional, Kind::Global,     Kind::Caller, Kind::TiledMemory,
                              Kind::TiledDisk,    Kind::TiledMixed, Kind::Disk,   Kind::RunLength};

// Saves the thread's thresholds and memory figures and puts them back.
class ThresholdGuard {
public:
    ThresholdGuard() { Z_GetMemoryThresholds(&v_[0], &v_[1], &v_[2], &v_[3], &v_[4]); }
    ~ThresholdGuard() {
        Z_SetMemoryThresholds(v_[0], v_[1], v_[2], v_[3], v_[4], 31);
        zk::platform::override_memory_status(nullptr);
        zk::platform::reset_fault_counters();
    }

private:
    int32_t v_[5] = {};
};

// Sets only the tile thresholds (tile size, memory tiles, views).
inline void set_tiles(int32_t tile_size, int32_t max_mem_tiles, int32_t views) {
    ASSERT_EQ(Z_SetMemoryThresholds(0, 0, tile_size, max_mem_tiles, views, 4 | 8 | 16), ST_OK);
}

// A bitmap of the kind, global storage locked; `rows` rows per tile for the
// tiled kinds. `caller` holds the pixel memory of Kind::Caller.
inline void make_bitmap(Kind kind, int32_t width, int32_t height, int32_t bpp, BitmapHandle& b,
                        std::vector<uint8_t>& caller, uint32_t rows = 3) {
    b = described(width, height, bpp);
    const int32_t tile_bytes = static_cast<int32_t>(b.BytesPerLine * rows);
    switch (kind) {
        case Kind::Conventional: ASSERT_EQ(Z_AllocateBitmap(&b, TYPE_CONV), ST_OK); break;
        case Kind::Global:
            ASSERT_EQ(zk::storage::allocate_global(b), ST_OK);
            Z_AccessBitmap(&b);
            break;
        case Kind::Caller:
            ASSERT_EQ(Z_AllocateBitmap(&b, TYPE_USER), ST_OK);
            caller.assign(b.Size, 0);
            ASSERT_EQ(Z_SetBitmapDataPointer(&b, caller.data(), caller.size()), ST_OK);
            break;
        case Kind::TiledMemory:
            set_tiles(tile_bytes, -100, 1);
            ASSERT_EQ(Z_AllocateBitmap(&b, TYPE_TILED), ST_OK);
            break;
        case Kind::TiledDisk:
            set_tiles(tile_bytes, 0, 1);
            ASSERT_EQ(Z_AllocateBitmap(&b, TYPE_TILED), ST_OK);
            break;
        case Kind::TiledMixed:
            set_tiles(tile_bytes, 3, 1);
            ASSERT_EQ(Z_AllocateBitmap(&b, TYPE_TILED), ST_OK);
            break;
        case Kind::Disk: ASSERT_EQ(Z_AllocateBitmap(&b, TYPE_DISK), ST_OK); break;
        case Kind::RunLength: ASSERT_EQ(Z_AllocateBitmap(&b, TYPE_COMPRESSED | TYPE_CONV), ST_OK); break;
    }
}

// What Z_GetBitmapMemoryInfo reports.
struct Info {
    uint32_t type = 0, tile = 0, count = 0, mem = 0, max_mapped = 0, mapped = 0;
};

inline Info info_of(BitmapHandle& b) {
    Info i;
    EXPECT_EQ(Z_GetBitmapMemoryInfo(&b, &i.type, &i.tile, &i.count, &i.mem, &i.max_mapped, &i.mapped), ST_OK);
    return i;
}

// Anonymous shared mappings and mappings of files in `dir` now in the
// process: what storage may leave behind.
inline int count_storage_mappings(const std::string& dir) {
    FILE* f = std::fopen("/proc/self/maps", "r");
    if (!f) return -1;
    int n = 0;
    char line[4096];
    while (std::fgets(line, sizeof line, f)) {
        if (std::strstr(line, "/dev/zero") || (!dir.empty() && std::strstr(line, dir.c_str()))) ++n;
    }
    std::fclose(f);
    return n;
}

// Each row of the bitmap through row access.
inline std::vector<std::vector<uint8_t>> rows_of(BitmapHandle& b) {
    std::vector<std::vector<uint8_t>> rows(static_cast<size_t>(b.Height), std::vector<uint8_t>(b.BytesPerLine));
    for (uint32_t y = 0; y < static_cast<uint32_t>(b.Height); ++y)
        EXPECT_EQ(Z_GetBitmapRow(&b, rows[y].data(), y, b.BytesPerLine), static_cast<int32_t>(b.BytesPerLine));
    return rows;
}

}  // namespace zktest
