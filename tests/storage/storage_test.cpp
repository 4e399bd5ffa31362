// Allocation, freeing and reporting of bitmap storage in every kind.
#include <gtest/gtest.h>

#include <algorithm>

#include "kinds.h"
#include "overlays.h"
#include "storage.h"
#include "test_support.h"

using namespace zktest;
namespace pf = zk::platform;

namespace {

class Storage : public ::testing::Test {
protected:
    ThresholdGuard guard_;
    PrivateTempDir dir_;
};

int64_t file_length(const BitmapHandle& b) {
    const Z_FILE f = static_cast<Z_FILE>(reinterpret_cast<intptr_t>(b.DataHandle));
    return Z_OsSeek(f, 0, 2, nullptr);
}

TEST_F(Storage, BadInputIsRefusedBeforeAnythingIsAllocated) {
    BitmapHandle b = described(10, 10, 8);
    BitmapHandle zero = described(0, 10, 8);
    BitmapHandle wrong = b;
    wrong.StructSize = Z_BITMAPHANDLE_SIZE + 1;
    struct Case {
        BitmapHandle* record;
        uint32_t type;
        int32_t status;
    } cases[] = {
        {nullptr, TYPE_CONV, ST_BAD_PARAM},
        {&wrong, TYPE_CONV, ST_BAD_STRUCT_SIZE},
        {&zero, TYPE_CONV, ST_BAD_POSITION},
        {&b, 0, ST_BAD_PARAM},
        {&b, 3, ST_BAD_PARAM},
        {&b, 16, ST_BAD_PARAM},
        {&b, 129, ST_BAD_PARAM},
        {&b, TYPE_COMPRESSED, ST_BAD_PARAM},       // 8 bits: 512 -> 0
        {&b, TYPE_SUPERCOMPRESSED, ST_BAD_PARAM},  // 8 bits: 1024 -> 0
    };
    for (const Case& c : cases) {
        pf::reset_fault_counters();
        EXPECT_EQ(Z_AllocateBitmap(c.record, c.type), c.status) << c.type;
        EXPECT_EQ(pf::fault_calls(pf::FaultKind::Allocation), 0);
        EXPECT_EQ(pf::fault_calls(pf::FaultKind::Mapping), 0);
        EXPECT_EQ(pf::fault_calls(pf::FaultKind::File), 0);
        if (c.record) {
            EXPECT_EQ(c.record->Flags & BF_ALLOCATED, 0u);
            EXPECT_EQ(c.record->ValueMap, nullptr);
        }
    }
}

TEST_F(Storage, CompressedTypesAdjust) {
    // 1025 at 8 bits loses the second-form bit and is conventional.
    BitmapHandle b = described(9, 4, 8);
    ASSERT_EQ(Z_AllocateBitmap(&b, TYPE_SUPERCOMPRESSED | TYPE_CONV), ST_OK);
    EXPECT_EQ(info_of(b).type, TYPE_CONV);
    Z_FreeBitmap(&b);
    // 1-bit bitmaps get run-length rows; the second form is not built.
    BitmapHandle one = described(9, 4, 1), rgb = described(9, 4, 24);
    ASSERT_EQ(Z_AllocateBitmap(&one, TYPE_COMPRESSED), ST_OK);
    EXPECT_EQ(info_of(one).type, TYPE_COMPRESSED);
    EXPECT_EQ(one.Flags & (BF_COMPRESSED | BF_MEMORY), BF_COMPRESSED | BF_MEMORY);
    Z_FreeBitmap(&one);
    EXPECT_EQ(one.Flags & (BF_ALLOCATED | BF_COMPRESSED | BF_MEMORY), 0u);
    EXPECT_EQ(Z_AllocateBitmap(&rgb, TYPE_SUPERCOMPRESSED), ST_BAD_PARAM);
    EXPECT_EQ(rgb.Flags & BF_ALLOCATED, 0u);
}

TEST_F(Storage, EachKindHasItsFlagsReportAndLayout) {
    const int32_t before = count_storage_mappings(dir_.path());
    for (Kind k : kAllKinds) {
        SCOPED_TRACE(kind_name(k));
        BitmapHandle b;
        std::vector<uint8_t> caller;
        make_bitmap(k, 37, 10, 24, b, caller);
        ASSERT_TRUE(b.Flags & BF_ALLOCATED);
        ASSERT_NE(b.ValueMap, nullptr);
        for (int i = 0; i < 256; ++i) EXPECT_EQ(b.ValueMap[i], i);
        const Info i = info_of(b);
        switch (k) {
            case Kind::Conventional:
                EXPECT_EQ(i.type, TYPE_CONV);
                EXPECT_EQ(reinterpret_cast<uintptr_t>(b.Data) % 32, 0u);
                EXPECT_EQ(b.Data - b.DataOffset, static_cast<uint8_t*>(b.DataHandle));
                EXPECT_LT(b.DataOffset, 32u);
                break;
            case Kind::Global:
                EXPECT_EQ(b.Flags & (BF_GLOBAL | BF_MEMORY | BF_LOCKED), BF_GLOBAL | BF_MEMORY | BF_LOCKED);
                EXPECT_EQ(i.type, TYPE_CONV);
                break;
            case Kind::Caller:
                EXPECT_EQ(b.Flags & BF_USER_DATA, BF_USER_DATA);
                EXPECT_EQ(b.DataHandle, nullptr);
                break;
            case Kind::TiledMemory:
                EXPECT_EQ(i.type, TYPE_TILED);
                EXPECT_EQ(i.tile, b.BytesPerLine * 3);
                EXPECT_EQ(i.count, 4u);
                EXPECT_EQ(i.mem, 4u);
                EXPECT_EQ(i.max_mapped, 0u);
                break;
            case Kind::TiledDisk:
                EXPECT_EQ(i.count, 4u);
                EXPECT_EQ(i.mem, 0u);
                EXPECT_EQ(i.max_mapped, 1u);
                EXPECT_EQ(i.mapped, 1u);
                break;
            case Kind::TiledMixed:
                EXPECT_EQ(i.mem, 2u);
                EXPECT_EQ(i.max_mapped, 1u);
                EXPECT_EQ(i.mapped, 1u);
                break;
            case Kind::Disk:
                EXPECT_EQ(i.type, TYPE_DISK);
                EXPECT_EQ(b.Flags & (BF_DISK | BF_MEMORY), BF_DISK);
                EXPECT_EQ(file_length(b), static_cast<int64_t>(b.Size) + 1);
                break;
            case Kind::RunLength: EXPECT_EQ(i.type, TYPE_CONV); break;  // runs hold 1-bit rows only
        }
        Z_FreeBitmap(&b);
        EXPECT_EQ(b.Flags & (BF_ALLOCATED | BF_DISK | BF_TILED | BF_USER_DATA | BF_GLOBAL | BF_LOCKED), 0u);
        EXPECT_EQ(b.ValueMap, nullptr);
        EXPECT_TRUE(dir_.files().empty());
        EXPECT_EQ(count_storage_mappings(dir_.path()), before);
        uint32_t type;
        EXPECT_EQ(Z_GetBitmapMemoryInfo(&b, &type, nullptr, nullptr, nullptr, nullptr, nullptr), ST_INVALID_BITMAP);
    }
}

// Tile geometry from the thresholds: a 1000-byte row, 100 rows, tiles of 10
// rows unless said otherwise, memory figures fixed.
TEST_F(Storage, TileGeometryFollowsTheThresholds) {
    struct Case {
        int32_t tile_size, max_mem, views, reserve;
        uint64_t avail;
        uint32_t tile, count, mem, max_mapped;
    } cases[] = {
        {10000, -100, 1, 0, 1ull << 40, 10000, 10, 10, 0},  // every tile fits in memory
        {10000, -50, 1, 0, 1ull << 40, 10000, 10, 4, 1},    // half of 10, one view
        {10000, 0, 1, 0, 1ull << 40, 10000, 10, 0, 1},      // no memory tiles: one view anyway
        {10000, 3, -100, 0, 1ull << 40, 10000, 10, 0, 3},   // views -100: as many as memory tiles
        {10000, 4, -25, 0, 1ull << 40, 10000, 10, 2, 2},    // MulDiv(6, 25, 75) = 2
        {10000, 4, -10, 0, 1ull << 40, 10000, 10, 3, 1},    // MulDiv(6, 10, 90) = 1 (rounded)
        {10000, 4, 7, 0, 1ull << 40, 10000, 10, 0, 4},      // more views than memory tiles
        {10000, -100, 1, 0, 35000, 10000, 10, 2, 1},        // free memory holds 3 tiles
        {10000, -100, 1, -10, 150000, 10000, 10, 4, 1},     // reserve 10% of 1e6: 5 tiles fit
        {500, -100, 1, 0, 1ull << 40, 1000, 100, 100, 0},   // tiles never smaller than a row
        {25000, -100, 1, 0, 1ull << 40, 25000, 4, 4, 0},    // last tile holds 25 of 25 rows
        {30000, -100, 1, 0, 1ull << 40, 30000, 4, 4, 0},    // last tile holds 10 rows
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.tile_size << " " << c.max_mem << " " << c.views << " " << c.reserve);
        pf::MemoryStatus ms;
        ms.total_physical = 1000000;
        ms.available_physical = c.avail;
        pf::override_memory_status(&ms);
        ASSERT_EQ(Z_SetMemoryThresholds(c.reserve, 0x7FFFFFFF, c.tile_size, c.max_mem, c.views, 31), ST_OK);
        BitmapHandle b = described(1000, 100, 8);
        ASSERT_EQ(Z_AllocateBitmap(&b, TYPE_TILED), ST_OK);
        const Info i = info_of(b);
        EXPECT_EQ(i.type, TYPE_TILED);
        EXPECT_EQ(i.tile, c.tile);
        EXPECT_EQ(i.count, c.count);
        EXPECT_EQ(i.mem, c.mem);
        EXPECT_EQ(i.max_mapped, c.max_mapped);
        EXPECT_EQ(i.mapped, c.max_mapped);
        const auto* t = zk::storage::tile_table(b);
        size_t total = 0;
        for (uint32_t k = 0; k < t->TileCount; ++k) total += zk::storage::tile_bytes(b, k);
        EXPECT_EQ(total, b.Size);
        Z_FreeBitmap(&b);
    }
    EXPECT_TRUE(dir_.files().empty());
}

TEST_F(Storage, KindFollowsSizeAndThresholds) {
    pf::MemoryStatus ms;
    ms.total_physical = 4000000;
    ms.available_physical = 1000000;
    pf::override_memory_status(&ms);
    struct Case {
        int32_t max_conv, reserve;
        uint32_t type, expected;
    } cases[] = {
        {0x7FFFFFFF, 0, TYPE_CONV, TYPE_CONV},     // fits under every limit
        {-20, 0, TYPE_CONV, TYPE_CONV},            // 20% of 1e6 = 200000 >= 100000
        {-5, 0, TYPE_CONV, TYPE_TILED},            // 5% is too small: tiled
        {50000, 0, TYPE_CONV, TYPE_TILED},         // byte limit
        {0x7FFFFFFF, -25, TYPE_CONV, TYPE_TILED},  // reserve 25% of 4e6 leaves nothing free
        {0x7FFFFFFF, 0, TYPE_NOTILE | TYPE_CONV, TYPE_CONV},
        {-5, 0, TYPE_NOTILE | TYPE_CONV, TYPE_DISK},  // too big and never tiled
        {0x7FFFFFFF, 0, TYPE_DISK, TYPE_DISK},
        {0x7FFFFFFF, 0, TYPE_MEMORY_ONLY, TYPE_CONV},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.max_conv << " " << c.reserve << " " << c.type);
        ASSERT_EQ(Z_SetMemoryThresholds(c.reserve, c.max_conv, 10000, -100, 1, 31), ST_OK);
        BitmapHandle b = described(1000, 100, 8);
        ASSERT_EQ(Z_AllocateBitmap(&b, c.type), ST_OK);
        EXPECT_EQ(info_of(b).type, c.expected);
        Z_FreeBitmap(&b);
    }
    // A bitmap not above the tile size is never tiled, even when asked.
    ASSERT_EQ(Z_SetMemoryThresholds(0, 0, 100000, 0, 0, 4), ST_OK);
    BitmapHandle b = described(1000, 100, 8);
    ASSERT_EQ(Z_AllocateBitmap(&b, TYPE_TILED), ST_OK);
    EXPECT_EQ(info_of(b).type, TYPE_CONV);
    Z_FreeBitmap(&b);
}

TEST_F(Storage, FailedMappingMovesOnToTheNextKind) {
    BitmapHandle b = described(100, 10, 8);
    auto allocate_failing_first_mapping = [&](uint32_t type) {
        return under_fault(pf::FaultKind::Mapping, 1, [&] { return Z_AllocateBitmap(&b, type); });
    };
    ASSERT_EQ(allocate_failing_first_mapping(TYPE_CONV), ST_OK);
    Info i = info_of(b);
    EXPECT_EQ(i.type, TYPE_TILED);  // one disk tile: free memory was not measured
    EXPECT_EQ(i.count, 1u);
    EXPECT_EQ(i.mem, 0u);
    Z_FreeBitmap(&b);
    ASSERT_EQ(allocate_failing_first_mapping(TYPE_NOTILE | TYPE_CONV), ST_OK);
    EXPECT_EQ(info_of(b).type, TYPE_DISK);
    Z_FreeBitmap(&b);
    {
        FaultScope f(pf::FaultKind::Mapping, 1);
        EXPECT_EQ(Z_AllocateBitmap(&b, TYPE_NOTILE | TYPE_MEMORY_ONLY), ST_BAD_PARAM);  // 264 is no type
        EXPECT_EQ(Z_AllocateBitmap(&b, TYPE_MEMORY_ONLY), ST_OK);  // tiled after the failed mapping
    }
    EXPECT_EQ(info_of(b).type, TYPE_TILED);
    Z_FreeBitmap(&b);
    EXPECT_TRUE(dir_.files().empty());
}

TEST_F(Storage, FailedTileHalvesTheTileSizeWhileMemoryIsRoomy) {
    set_tiles(10000, -100, 1);
    BitmapHandle b = described(100, 1000, 8);  // 100-byte rows: 100 rows a tile
    {
        FaultScope f(pf::FaultKind::Mapping, 2);  // the second memory tile
        ASSERT_EQ(Z_AllocateBitmap(&b, TYPE_TILED), ST_OK);
    }
    Info i = info_of(b);
    EXPECT_EQ(i.tile, 5000u);
    EXPECT_EQ(i.count, 20u);
    EXPECT_EQ(i.mem, 20u);
    Z_FreeBitmap(&b);
    // Not roomy (35000 bytes free for 100000): no retry, the disk takes it.
    pf::MemoryStatus ms;
    ms.available_physical = 35000;
    pf::override_memory_status(&ms);
    {
        FaultScope f(pf::FaultKind::Mapping, 1);
        ASSERT_EQ(Z_AllocateBitmap(&b, TYPE_TILED), ST_OK);
    }
    EXPECT_EQ(info_of(b).type, TYPE_DISK);
    Z_FreeBitmap(&b);
    // Without the failure the same figures give 3 memory tiles less one view.
    ASSERT_EQ(Z_AllocateBitmap(&b, TYPE_TILED), ST_OK);
    i = info_of(b);
    EXPECT_EQ(i.type, TYPE_TILED);
    EXPECT_EQ(i.mem, 2u);
    EXPECT_EQ(i.max_mapped, 1u);
    Z_FreeBitmap(&b);
}

TEST_F(Storage, UnwritableTemporaryDirectoryLeavesNothingBehind) {
    const std::wstring missing = pf::from_utf8(dir_.path() + "missing/");
    ASSERT_EQ(Z_SetTempDirectory(missing.c_str()), ST_OK);
    // Above 50000 bytes a bitmap is tiled, all tiles on disk.
    ASSERT_EQ(Z_SetMemoryThresholds(0, 50000, 10000, 0, 1, 2 | 4 | 8 | 16), ST_OK);
    const int32_t before = count_storage_mappings(dir_.path());
    struct Case {
        uint32_t type;
        int32_t status;
    } cases[] = {{TYPE_DISK, ST_TEMP_FILE},
                 {TYPE_TILED, ST_TEMP_FILE},
                 {TYPE_CONV, ST_TEMP_FILE},
                 {TYPE_MEMORY_ONLY, ST_NO_MEMORY}};
    for (const Case& c : cases) {
        BitmapHandle b = described(1000, 100, 8);
        EXPECT_EQ(Z_AllocateBitmap(&b, c.type), c.status) << c.type;
        EXPECT_EQ(b.Flags & BF_ALLOCATED, 0u);
        EXPECT_EQ(b.ValueMap, nullptr);
    }
    EXPECT_EQ(count_storage_mappings(dir_.path()), before);
    EXPECT_TRUE(dir_.files().empty());
}

// Every allocation, mapping and file call of Z_AllocateBitmap made to fail in
// turn: the bitmap is either allocated whole or not at all, and nothing
// (blocks: AddressSanitizer; mappings and files: counted here) is left.
TEST_F(Storage, InjectedFailureAtEveryCallLeaksNothing) {
    const int32_t before = count_storage_mappings(dir_.path());
    for (uint32_t type : {TYPE_CONV, TYPE_TILED, TYPE_DISK, TYPE_MEMORY_ONLY}) {
        for (int32_t mem : {-100, 2, 0}) {
            SCOPED_TRACE(testing::Message() << "type " << type << " mem " << mem);
            // Above 50000 bytes conventional storage is not tried.
            ASSERT_EQ(Z_SetMemoryThresholds(0, type == TYPE_CONV ? 0x7FFFFFFF : 50000, 10000, mem, 1, 30), ST_OK);
            sweep_faults({pf::FaultKind::Allocation, pf::FaultKind::Mapping, pf::FaultKind::File}, 200,
                         [&](pf::FaultKind kind, int n) {
                             BitmapHandle b = described(1000, 95, 8);
                             pf::reset_fault_counters();
                             const int32_t status = under_fault(kind, n, [&] { return Z_AllocateBitmap(&b, type); });
                             const bool reached = pf::fault_calls(kind) >= n;
                             if (status == ST_OK) {
                                 EXPECT_NE(b.ValueMap, nullptr);
                                 Z_FreeBitmap(&b);
                             } else {
                                 EXPECT_TRUE(reached);
                                 EXPECT_EQ(b.Flags & BF_ALLOCATED, 0u);
                                 EXPECT_EQ(b.ValueMap, nullptr);
                             }
                             EXPECT_TRUE(dir_.files().empty());
                             EXPECT_EQ(count_storage_mappings(dir_.path()), before);
                             return !reached;
                         });
        }
    }
}

TEST_F(Storage, MappedCountStaysWithinTheLimitOldestLeavingFirst) {
    set_tiles(10000, 2, -100);  // two memory tiles' worth, all used as views
    BitmapHandle b = described(1000, 100, 8);
    ASSERT_EQ(Z_AllocateBitmap(&b, TYPE_TILED), ST_OK);
    auto* t = zk::storage::tile_table(b);
    ASSERT_EQ(t->MemTiles, 0u);
    ASSERT_EQ(t->MaxMapped, 2u);
    std::vector<uint32_t> model = {0, 1};  // mapped at allocation, in order
    const uint32_t order[] = {7, 3, 9, 3, 0, 5, 5, 8, 9, 2};
    for (uint32_t tile : order) {
        ASSERT_NE(zk::storage::kind_ops(b)->map(b, size_t{tile} * 10000, 10000), nullptr);
        if (std::find(model.begin(), model.end(), tile) == model.end()) {
            if (model.size() == 2) model.erase(model.begin());
            model.push_back(tile);
        }
        ASSERT_EQ(t->MappedCount, model.size());
        uint32_t with_view = 0;
        for (uint32_t k = 0; k < t->TileCount; ++k) with_view += t->entries()[k].view != nullptr;
        EXPECT_EQ(with_view, t->MappedCount);
        for (size_t k = 0; k < model.size(); ++k) EXPECT_EQ(t->entries()[k].mapped, model[k]) << tile;
    }
    EXPECT_EQ(zk::storage::set_mapped_count(b, 0), 0u);
    EXPECT_EQ(zk::storage::set_mapped_count(b, 5), 2u);  // never above MaxMapped
    EXPECT_EQ(t->entries()[0].mapped, 0u);
    EXPECT_EQ(t->entries()[1].mapped, 1u);
    Z_FreeBitmap(&b);
}

// The rows of a rectangle move between a buffer and tiled storage across
// memory tiles, a mapped disk tile and disk tiles reached through their
// files; a row running past its image row or the pixels is refused, and a
// refused file call is reported.
TEST_F(Storage, RectangleRowsMoveThroughEveryKindOfTile) {
    std::vector<uint8_t> unused;
    BitmapHandle b{};
    make_bitmap(Kind::TiledMixed, 40, 20, 8, b, unused);  // 7 tiles of 3 rows, the first in memory
    if (HasFatalFailure()) return;
    std::vector<uint8_t> image = random_bytes(40 * 20, 5);
    for (uint32_t y = 0; y < 20; ++y) ASSERT_EQ(Z_PutBitmapRow(&b, &image[y * 40], y, 40), 40);
    const auto* t = zk::storage::tile_table(b);
    ASSERT_GT(t->MemTiles, 0u);
    ASSERT_LT(t->MemTiles, 4u);
    ASSERT_EQ(t->MappedCount, 1u);
    ASSERT_NE(t->entries()[6].view, nullptr);  // the last row put mapped the last tile
    ASSERT_EQ(t->entries()[4].view, nullptr);

    // Columns 5 .. 16 of rows 1 .. 19.
    std::vector<uint8_t> rect(12 * 19);
    ASSERT_EQ(zk::storage::transfer_tile_rows(b, 40 + 5, 12, 19, rect.data(), false), ST_OK);
    for (uint32_t y = 0; y < 19; ++y) ASSERT_EQ(std::memcmp(&rect[y * 12], &image[(y + 1) * 40 + 5], 12), 0) << y;
    std::vector<uint8_t> fresh = random_bytes(rect.size(), 6);
    ASSERT_EQ(zk::storage::transfer_tile_rows(b, 40 + 5, 12, 19, fresh.data(), true), ST_OK);
    for (uint32_t y = 0; y < 19; ++y) std::memcpy(&image[(y + 1) * 40 + 5], &fresh[y * 12], 12);
    std::vector<uint8_t> row(40);
    for (uint32_t y = 0; y < 20; ++y) {
        ASSERT_EQ(Z_GetBitmapRow(&b, row.data(), y, 40), 40);
        EXPECT_EQ(std::memcmp(row.data(), &image[y * 40], 40), 0) << y;
    }

    EXPECT_EQ(zk::storage::transfer_tile_rows(b, 30, 12, 2, rect.data(), false), ST_BAD_PARAM);
    EXPECT_EQ(zk::storage::transfer_tile_rows(b, 40 + 5, 12, 20, rect.data(), false), ST_BAD_PARAM);
    // Rows 12 .. 14: disk tile 4, not mapped.
    EXPECT_EQ(under_fault(pf::FaultKind::File, 1,
                          [&] { return zk::storage::transfer_tile_rows(b, 12 * 40, 40, 3, rect.data(), false); }),
              ST_FILE_READ);
    EXPECT_EQ(under_fault(pf::FaultKind::File, 1,
                          [&] { return zk::storage::transfer_tile_rows(b, 12 * 40, 40, 3, rect.data(), true); }),
              ST_FILE_WRITE);
    Z_FreeBitmap(&b);
}

TEST_F(Storage, ThresholdsAreCheckedInOrder) {
    EXPECT_EQ(Z_SetMemoryThresholds(-101, 0, 0, 0, 0, 1), ST_BAD_PARAM);
    EXPECT_EQ(Z_SetMemoryThresholds(0, 0, -1, 0, 0, 4), ST_BAD_PARAM);
    // The first two are stored before the third is refused.
    EXPECT_EQ(Z_SetMemoryThresholds(-7, 1234, -1, 5, 5, 31), ST_BAD_PARAM);
    int32_t v[5];
    EXPECT_EQ(Z_GetMemoryThresholds(&v[0], &v[1], &v[2], &v[3], &v[4]), ST_OK);
    EXPECT_EQ(v[0], -7);
    EXPECT_EQ(v[1], 1234);
    EXPECT_EQ(v[3], -100);
    EXPECT_EQ(Z_SetMemoryThresholds(0, -100, 0x10000, -100, -100, 2 | 4 | 16), ST_OK);
    EXPECT_EQ(Z_GetMemoryThresholds(nullptr, &v[1], &v[2], nullptr, &v[4]), ST_OK);
    EXPECT_EQ(v[1], -100);
    EXPECT_EQ(v[2], 0x10000);
    EXPECT_EQ(v[4], -100);
}

TEST_F(Storage, ConventionalRemapKeepsTheRowsBothWays) {
    BitmapHandle b = described(100, 50, 8);
    ASSERT_EQ(Z_AllocateBitmap(&b, TYPE_CONV), ST_OK);
    const std::vector<uint8_t> img = random_bytes(b.Size, 3);
    std::memcpy(b.Data, img.data(), img.size());
    // Grow well past a page, write the new end, shrink below the start size.
    const size_t sizes[] = {100 * 50 * 40, 100 * 20, 100 * 50 * 3};
    size_t kept = b.Size;
    for (size_t size : sizes) {
        ASSERT_EQ(zk::storage::remap_conventional(b, size), ST_OK);
        EXPECT_EQ(b.Size, size);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(b.Data) % 32, 0u);
        kept = std::min(kept, size);
        EXPECT_EQ(std::memcmp(b.Data, img.data(), kept), 0) << size;
        if (size > kept) {
            EXPECT_EQ(b.Data[kept], 0u);
            b.Data[size - 1] = 0x77;  // the whole new size is there
        }
    }
    BitmapHandle disk = described(10, 10, 8);
    ASSERT_EQ(Z_AllocateBitmap(&disk, TYPE_DISK), ST_OK);
    EXPECT_EQ(zk::storage::remap_conventional(disk, 200), ST_BAD_PARAM);
    Z_FreeBitmap(&disk);
    Z_FreeBitmap(&b);
}

TEST(StorageMulDiv, RoundsHalvesAwayFromZero) {
    struct Case {
        int64_t a, b, c, r;
    } cases[] = {{10, 50, 100, 5}, {6, 25, 75, 2}, {6, 10, 90, 1},  {1, 1, 2, 1},  {-1, 1, 2, -1},
                 {3, 1, 2, 2},     {5, 1, 0, -1},  {-7, 3, -2, 11}, {0, -5, 3, 0}, {100000, 100000, 3, 3333333333}};
    for (const Case& c : cases) EXPECT_EQ(zk::storage::mul_div(c.a, c.b, c.c), c.r) << c.a << "*" << c.b << "/" << c.c;
}

TEST_F(Storage, GlobalStorageIsReachableOnlyWhileLocked) {
    BitmapHandle b = described(8, 4, 8);
    ASSERT_EQ(zk::storage::allocate_global(b), ST_OK);
    EXPECT_EQ(b.Data, nullptr);
    EXPECT_EQ(Z_LockBitmap(&b), 0);
    ASSERT_NE(b.Data, nullptr);
    EXPECT_EQ(Z_LockBitmap(&b), 1);  // already locked: nothing happens
    Z_UnlockBitmap(&b, 1);
    EXPECT_TRUE(b.Flags & BF_LOCKED);
    Z_UnlockBitmap(&b, 0);
    EXPECT_FALSE(b.Flags & BF_LOCKED);
    EXPECT_EQ(b.Data, nullptr);
    Z_AccessBitmap(&b);
    EXPECT_TRUE(b.Flags & BF_LOCKED);
    Z_FreeBitmap(&b);  // releases the lock and frees the block
    EXPECT_EQ(b.Flags & (BF_LOCKED | BF_ALLOCATED), 0u);
}

TEST_F(Storage, FreeReleasesOwnedRecordsEvenWithoutStorage) {
    BitmapHandle b = described(8, 4, 8);
    b.Palette = static_cast<RGBQUAD*>(Z_OsAlloc(16));
    b.Overlays = Z_OsAlloc(40);
    auto* region = static_cast<ZarnRgn*>(Z_OsAllocInit(sizeof(ZarnRgn), 1));
    b.Region = region;
    b.LUT = static_cast<RGBQUAD*>(Z_OsAlloc(16));
    b.LUTLength = 4;
    Z_FreeBitmap(&b);
    EXPECT_EQ(b.Palette, nullptr);
    EXPECT_EQ(b.Overlays, nullptr);
    EXPECT_EQ(b.Region, nullptr);
    EXPECT_NE(b.LUT, nullptr);  // kept: the record was never allocated
    ASSERT_EQ(Z_AllocateBitmap(&b, TYPE_CONV), ST_OK);
    Z_FreeBitmap(&b);
    EXPECT_EQ(b.LUT, nullptr);
    EXPECT_EQ(b.LUTLength, 0u);
    BitmapHandle wrong = described(8, 4, 8);
    wrong.StructSize = 1;
    Z_FreeBitmap(&wrong);  // nothing happens
    Z_FreeBitmap(nullptr);
}

TEST(Overlays, CopyIsAnIndependentBlockOfTheSameBytes) {
    EXPECT_EQ(zk::overlays_copy(nullptr), nullptr);
    auto* table = static_cast<uint8_t*>(Z_OsAlloc(37));
    for (int i = 0; i < 37; ++i) table[i] = static_cast<uint8_t>(i * 7);
    auto* copy = static_cast<uint8_t*>(zk::overlays_copy(table));
    ASSERT_NE(copy, nullptr);
    EXPECT_NE(copy, table);
    EXPECT_EQ(pf::block_size(pf::block_from_pointer(copy)), 37u);
    EXPECT_EQ(std::memcmp(copy, table, 37), 0);
    zk::overlays_free(table);
    zk::overlays_free(copy);
    zk::overlays_free(nullptr);
}

}  // namespace
