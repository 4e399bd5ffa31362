// Height changes in every storage kind, and storage-kind changes: tiles
// moving between memory and disk in place, and rebuilds into another kind,
// with the pixels intact and failures at every step leaving the bitmap whole.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "copy_support.h"

namespace {

using copytest::Kind;
using zk::platform::FaultKind;
namespace st = zk::storage;

// A walk through heights that cut and grow whole tiles and partial ones,
// against a model: surviving rows keep their bytes, added rows are zero.
TEST(ChangeHeight, KeepsSurvivingRowsInEveryKind) {
    zktest::PrivateTempDir temp;
    for (Kind kind : copytest::kAllKinds) {
        if (kind == Kind::Caller) continue;
        SCOPED_TRACE(copytest::name(kind));
        BitmapHandle b = copytest::make_filled(kind, 17, 10, 8, 21);
        const uint32_t bpl = b.BytesPerLine;
        std::vector<uint8_t> model = copytest::pixels(b);
        for (int32_t h : {6, 5, 6, 9, 1, 12, 13, 3, 10, 10}) {
            SCOPED_TRACE(h);
            const bool changes = h != b.Height;
            ASSERT_EQ(Z_ChangeBitmapHeight(&b, h), ST_OK);
            model.resize(static_cast<size_t>(h) * bpl, 0);
            EXPECT_EQ(b.Height, h);
            EXPECT_EQ(b.Size, static_cast<size_t>(bpl) * h);
            if (changes) {
                EXPECT_EQ(b.CurRow, 0u);
            }
            EXPECT_EQ(copytest::pixels(b), model);
            if (const st::TileTable* t = st::tile_table(b)) {
                EXPECT_EQ(t->TileCount, static_cast<uint32_t>(h + 1) / 2) << "two rows per tile";
                EXPECT_LE(t->MappedCount, t->MaxMapped);
            }
            // Rows written after the change land and read back.
            auto row = zktest::random_bytes(bpl, static_cast<uint32_t>(h));
            const int32_t was = Z_LockBitmap(&b);
            EXPECT_EQ(Z_PutBitmapRow(&b, row.data(), static_cast<uint32_t>(h - 1), bpl), static_cast<int32_t>(bpl));
            Z_UnlockBitmap(&b, was);
            std::copy(row.begin(), row.end(), model.begin() + static_cast<ptrdiff_t>(h - 1) * bpl);
        }
        EXPECT_EQ(copytest::pixels(b), model);
        Z_FreeBitmap(&b);
    }
}

// A height change that fails at any allocation, mapping or file call keeps
// the height and every row.
TEST(ChangeHeight, FailureAtEveryStepKeepsTheRows) {
    zktest::PrivateTempDir temp;
    for (Kind kind : {Kind::Conventional, Kind::Global, Kind::TiledMemory, Kind::TiledDisk, Kind::Disk}) {
        for (int32_t h : {3, 14}) {
            SCOPED_TRACE(testing::Message() << copytest::name(kind) << " h " << h);
            zktest::sweep_faults(
                {FaultKind::Allocation, FaultKind::Mapping, FaultKind::File}, 100, [&](FaultKind fault, int n) {
                    BitmapHandle b = copytest::make_filled(kind, 9, 9, 8, 61);
                    std::vector<uint8_t> want = copytest::pixels(b);
                    const int32_t r = zktest::under_fault(fault, n, [&] { return Z_ChangeBitmapHeight(&b, h); });
                    if (r == ST_OK) {
                        want.resize(static_cast<size_t>(h) * b.BytesPerLine, 0);
                    } else {
                        EXPECT_EQ(b.Height, 9);
                    }
                    EXPECT_EQ(copytest::pixels(b), want);
                    Z_FreeBitmap(&b);
                    return r == ST_OK;
                });
        }
    }
}

// Argument checks are in the copy tests' bad-input table.
TEST(ChangeHeight, RefusedForCallerMemoryAndLockedGlobalStorage) {
    BitmapHandle user = copytest::make(Kind::Caller, 4, 4, 8);
    EXPECT_EQ(Z_ChangeBitmapHeight(&user, 2), ST_BAD_PARAM);
    BitmapHandle global = copytest::make(Kind::Global, 4, 4, 8);
    ASSERT_EQ(Z_LockBitmap(&global), 0);
    EXPECT_EQ(Z_ChangeBitmapHeight(&global, 2), ST_BAD_PARAM) << "locked";
    Z_UnlockBitmap(&global, 0);
    EXPECT_EQ(Z_ChangeBitmapHeight(&global, 2), ST_OK);
    Z_FreeBitmap(&global);
    Z_FreeBitmap(&user);
}

// ---------------------------------------------------------------------------
// Tiles [0, MemTiles) are memory tiles and the rest disk tiles.
void expect_placement(BitmapHandle& b) {
    const st::TileTable* t = st::tile_table(b);
    ASSERT_NE(t, nullptr);
    for (uint32_t i = 0; i < t->TileCount; ++i) {
        EXPECT_EQ(t->entries()[i].file == Z_INVALID_FILE, i < t->MemTiles) << "tile " << i;
        if (i < t->MemTiles) {
            EXPECT_NE(t->entries()[i].view, nullptr);
        }
    }
    EXPECT_LE(t->MappedCount, t->MaxMapped);
    EXPECT_LE(t->MaxMapped, t->TileCount - t->MemTiles);
}

TEST(MemoryInfo, TilesMoveBetweenMemoryAndDiskInPlace) {
    zktest::PrivateTempDir temp;
    BitmapHandle b = copytest::make_filled(Kind::TiledDisk, 29, 11, 24, 31);
    const std::vector<uint8_t> want = copytest::pixels(b);
    const uint8_t* table = b.Data;
    ASSERT_EQ(zktest::info_of(b).count, 6u);
    struct Step {
        uint32_t mem, max_mapped, mapped, mask;
        uint32_t want_mem, want_max, want_mapped;
    } steps[] = {
        {6, 0, 0, 8, 6, 0, 0},            // everything into memory
        {0, 3, 2, 8 | 16 | 32, 0, 3, 2},  // everything onto disk, two views
        {2, 9, 9, 8 | 16 | 32, 2, 4, 4},  // clamped to the disk tiles there are
        {100, 0, 0, 8, 6, 0, 0},          // clamped to the tile count
        {1, 1, 0, 8 | 16, 1, 1, 0},       // mapped count kept (0), within the new limit
        {1, 5, 3, 16 | 32, 1, 5, 3},      // only the views change
    };
    for (const Step& s : steps) {
        SCOPED_TRACE(testing::Message() << "mem " << s.mem << " mask " << s.mask);
        ASSERT_EQ(Z_SetBitmapMemoryInfo(&b, 0, 0, 0, s.mem, s.max_mapped, s.mapped, s.mask), ST_OK);
        const zktest::Info now = zktest::info_of(b);
        EXPECT_EQ(now.type, TYPE_TILED);
        EXPECT_EQ(now.mem, s.want_mem);
        EXPECT_EQ(now.max_mapped, s.want_max);
        EXPECT_EQ(now.mapped, s.want_mapped);
        expect_placement(b);
        EXPECT_EQ(b.Data, table) << "changed in place";
        EXPECT_EQ(copytest::pixels(b), want);
    }
    // Asking a tiled bitmap for its own type and tile size changes nothing.
    const zktest::Info now = zktest::info_of(b);
    ASSERT_EQ(Z_SetBitmapMemoryInfo(&b, TYPE_TILED, now.tile, 0, 0, 0, 0, 1 | 2), ST_OK);
    EXPECT_EQ(b.Data, table);
    Z_FreeBitmap(&b);
}

TEST(MemoryInfo, RebuildsIntoAnotherKindKeepingPixelsAndOwnership) {
    zktest::PrivateTempDir temp;
    BitmapHandle b = copytest::make_filled(Kind::Conventional, 31, 12, 8, 41);
    ASSERT_EQ(Z_CreateBitmapFixedPalette(&b), ST_OK);
    const RGBQUAD* palette = b.Palette;
    const std::vector<uint8_t> want = copytest::pixels(b);
    const uint32_t bpl = b.BytesPerLine;
    struct Step {
        uint32_t type, tile_size, mask;
        uint32_t want_type, want_rows_per_tile;
    } steps[] = {
        {TYPE_DISK, 0, 1, TYPE_DISK, 0},
        {TYPE_TILED, 3 * bpl, 1 | 2, TYPE_TILED, 3},
        {TYPE_TILED, 5 * bpl - 1, 1 | 2, TYPE_TILED, 5},  // the ceiling over the row length
        {TYPE_TILED, 1000 * bpl, 1 | 2, TYPE_CONV, 0},    // smaller than one tile: conventional
        {TYPE_CONV, 0, 1, TYPE_CONV, 0},                  // its own type: nothing to do
        {TYPE_TILED, 4 * bpl, 1 | 2 | 8, TYPE_TILED, 4},
        {TYPE_CONV, 0, 1, TYPE_CONV, 0},
    };
    for (const Step& s : steps) {
        SCOPED_TRACE(testing::Message() << "type " << s.type << " tile " << s.tile_size);
        ASSERT_EQ(Z_SetBitmapMemoryInfo(&b, s.type, s.tile_size, 0, 0, 0, 0, s.mask), ST_OK);
        EXPECT_EQ(zktest::info_of(b).type, s.want_type);
        if (s.want_rows_per_tile) {
            EXPECT_EQ(st::tile_table(b)->RowsPerTile, s.want_rows_per_tile);
            const st::TileTable* t = st::tile_table(b);
            EXPECT_EQ(t->MemTiles, (s.mask & 8) ? 0u : t->TileCount) << "given, else every tile in memory";
            expect_placement(b);
        }
        EXPECT_EQ(b.Palette, palette) << "the caller's palette stays";
        EXPECT_EQ(b.Size, static_cast<size_t>(bpl) * 12);
        EXPECT_EQ(copytest::pixels(b), want);
    }
    Z_FreeBitmap(&b);
}

TEST(MemoryInfo, TileFiguresOfAnUntiledBitmapChangeNothing) {
    BitmapHandle b = copytest::make(Kind::Conventional, 4, 4, 8);
    const uint8_t* data = b.Data;
    EXPECT_EQ(Z_SetBitmapMemoryInfo(&b, 0, 0, 0, 3, 0, 0, 8), ST_OK) << "not tiled: nothing to change";
    EXPECT_EQ(b.Data, data);
    Z_FreeBitmap(&b);
}

// Each change fails at the n-th allocation, mapping or file call for every n
// until it succeeds: the record and the pixels stay as they were.
TEST(MemoryInfo, FailureAtEveryStepLeavesTheBitmapWhole) {
    zktest::PrivateTempDir temp;
    struct Op {
        const char* name;
        Kind from;
        uint32_t type, tile_rows, mem, mask;
    } ops[] = {
        {"to memory tiles", Kind::TiledDisk, 0, 0, 6, 8},         {"to disk tiles", Kind::TiledMemory, 0, 0, 0, 8 | 16},
        {"to disk", Kind::Conventional, TYPE_DISK, 0, 0, 1},      {"to tiles", Kind::Disk, TYPE_TILED, 3, 1, 1 | 2 | 8},
        {"to conventional", Kind::TiledDisk, TYPE_CONV, 0, 0, 1},
    };
    for (const Op& op : ops) {
        SCOPED_TRACE(op.name);
        zktest::sweep_faults(
            {FaultKind::Allocation, FaultKind::Mapping, FaultKind::File}, 300, [&](FaultKind kind, int n) {
                BitmapHandle b = copytest::make_filled(op.from, 21, 11, 16, 51);
                const BitmapHandle before = b;
                const std::vector<uint8_t> want = copytest::pixels(b);
                const st::TileTable* t = st::tile_table(b);
                const uint32_t mem_before = t ? t->MemTiles : 0;
                const int32_t r = zktest::under_fault(kind, n, [&] {
                    return Z_SetBitmapMemoryInfo(&b, op.type, op.tile_rows * b.BytesPerLine, 0, op.mem, 1, 1, op.mask);
                });
                if (r != ST_OK) {
                    EXPECT_EQ(std::memcmp(&b, &before, sizeof b), 0);
                    if (t) {
                        EXPECT_EQ(st::tile_table(b)->MemTiles, mem_before);
                    }
                }
                EXPECT_EQ(copytest::pixels(b), want);
                Z_FreeBitmap(&b);
                return r == ST_OK;
            });
    }
}

}  // namespace
