// Palettes: fixed tables, gray ramps and tests, the nearest-colour search,
// bitmap palette calls and palette objects.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "color/palette.h"
#include "test_support.h"
#include "tiers.h"
#include "zkernel.h"

namespace {

using zk::platform::FaultKind;

RGBQUAD rgb(int r, int g, int b, int reserved = 0) {
    return RGBQUAD{static_cast<uint8_t>(b), static_cast<uint8_t>(g), static_cast<uint8_t>(r),
                   static_cast<uint8_t>(reserved)};
}

bool same(const RGBQUAD& a, const RGBQUAD& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

// A record with storage flags set by hand; palette calls need no pixels.
BitmapHandle record(int32_t bpp, uint32_t colours) {
    BitmapHandle b{};
    b.StructSize = Z_BITMAPHANDLE_SIZE;
    b.BitsPerPixel = bpp;
    b.ColorCount = colours;
    b.Flags = BF_ALLOCATED;
    return b;
}

struct PaletteOwner {
    BitmapHandle* b;
    ~PaletteOwner() {
        Z_OsFree(b->Palette);
        b->Palette = nullptr;
    }
};

TEST(FixedPalettes, TablesFollowTheirRules) {
    const int levels7[8] = {0, 36, 73, 109, 146, 182, 219, 255};
    const int sixteen[16][3] = {{0, 0, 0},       {128, 0, 0},   {0, 128, 0},   {128, 128, 0},
                                {0, 0, 128},     {128, 0, 128}, {0, 128, 128}, {128, 128, 128},
                                {192, 192, 192}, {255, 0, 0},   {0, 255, 0},   {255, 255, 0},
                                {0, 0, 255},     {255, 0, 255}, {0, 255, 255}, {255, 255, 255}};
    for (int bits = 1; bits <= 8; ++bits) {
        const RGBQUAD* t = Z_IntGetFixedPalette(bits);
        ASSERT_NE(t, nullptr);
        for (int i = 0; i < (1 << bits); ++i) {
            RGBQUAD want{};
            switch (bits) {
                case 1: want = i ? rgb(255, 255, 255) : rgb(0, 0, 0); break;
                case 2: want = rgb(85 * i, 85 * i, 85 * i); break;
                case 3: want = rgb(i & 4 ? 255 : 0, i & 2 ? 255 : 0, i & 1 ? 255 : 0); break;
                case 4: want = rgb(sixteen[i][0], sixteen[i][1], sixteen[i][2]); break;
                case 5: want = rgb(85 * (i / 8), 85 * (i / 2 % 4), 255 * (i % 2)); break;
                case 6: want = rgb(85 * (i / 16), 85 * (i / 4 % 4), 85 * (i % 4)); break;
                case 7: want = rgb(85 * (i / 32), levels7[i / 4 % 8], 85 * (i % 4)); break;
                case 8: want = rgb(levels7[i / 32], levels7[i / 4 % 8], 85 * (i % 4)); break;
            }
            EXPECT_TRUE(same(t[i], want)) << "bits " << bits << " index " << i;
        }
        // Back to back: each table ends where the next begins.
        if (bits < 8) {
            EXPECT_EQ(t + (1 << bits), Z_IntGetFixedPalette(bits + 1));
        }
    }
    EXPECT_EQ(Z_IntGetFixedPalette(0), nullptr);
    EXPECT_EQ(Z_IntGetFixedPalette(9), nullptr);
    EXPECT_EQ(Z_IntGetFixedPalette(-1), nullptr);
}

TEST(FixedPalettes, CopiesAndBlocks) {
    RGBQUAD out[256];
    EXPECT_EQ(Z_GetFixedPalette(out, 0), ST_OK);
    for (int i = 0; i < 256; ++i) EXPECT_TRUE(same(out[i], rgb(i, i, i))) << i;
    for (uint32_t bits = 1; bits <= 8; ++bits) {
        std::memset(out, 0xCD, sizeof out);
        EXPECT_EQ(Z_GetFixedPalette(out, bits), ST_OK);
        EXPECT_EQ(std::memcmp(out, Z_IntGetFixedPalette(static_cast<int32_t>(bits)), (4u << bits)), 0);
        if (bits < 8) {
            EXPECT_EQ(out[1u << bits].rgbRed, 0xCD) << "wrote past 2^bits entries";
        }
        RGBQUAD* block = Z_CreateFixedPalette(bits);
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(std::memcmp(block, Z_IntGetFixedPalette(static_cast<int32_t>(bits)), (4u << bits)), 0);
        Z_OsFree(block);
    }
    RGBQUAD* zero = Z_CreateFixedPalette(0);
    ASSERT_NE(zero, nullptr);
    EXPECT_EQ(std::memcmp(zero, Z_IntGetFixedPalette(1), 8), 0);
    Z_OsFree(zero);
    EXPECT_EQ(Z_CreateFixedPalette(9), nullptr);
    EXPECT_EQ(Z_GetFixedPalette(nullptr, 4), ST_BAD_PARAM);
    EXPECT_EQ(Z_GetFixedPalette(out, 9), ST_BAD_PARAM);
}

TEST(FixedPalettes, BitmapFixedPaletteChoosesByColourCount) {
    struct Case {
        uint32_t count;
        int table;  // 0: refused
    } cases[] = {{2, 1}, {8, 3}, {16, 4}, {32, 5}, {64, 6}, {128, 7}, {256, 8}, {3, 0}, {0, 0}, {512, 0}, {1, 0}};
    for (const auto& c : cases) {
        BitmapHandle b = record(8, c.count);
        PaletteOwner owner{&b};
        const int32_t st = Z_CreateBitmapFixedPalette(&b);
        EXPECT_EQ(b.ColorCount, c.count);
        if (c.table == 0) {
            EXPECT_EQ(st, 0) << c.count;
            EXPECT_EQ(b.Palette, nullptr);
        } else {
            EXPECT_EQ(st, ST_OK) << c.count;
            ASSERT_NE(b.Palette, nullptr);
            EXPECT_EQ(std::memcmp(b.Palette, Z_IntGetFixedPalette(c.table), 4 * c.count), 0);
        }
    }
    // Four colours come from the start of the 2-entry table.
    BitmapHandle b = record(2, 4);
    PaletteOwner owner{&b};
    ASSERT_EQ(Z_CreateBitmapFixedPalette(&b), ST_OK);
    const RGBQUAD want[4] = {rgb(0, 0, 0), rgb(255, 255, 255), rgb(0, 0, 0), rgb(85, 85, 85)};
    for (int i = 0; i < 4; ++i) EXPECT_TRUE(same(b.Palette[i], want[i])) << i;
    EXPECT_EQ(Z_CreateBitmapFixedPalette(nullptr), ST_BAD_PARAM);
    {
        BitmapHandle f = record(8, 256);
        zktest::FaultScope fault(FaultKind::Allocation, 1);
        EXPECT_EQ(Z_CreateBitmapFixedPalette(&f), ST_NO_MEMORY);
        EXPECT_EQ(f.Palette, nullptr);
    }
}

TEST(GrayPalettes, RampsAndSizes) {
    const int32_t bits[] = {0, 1, 2, 4, 8, 12, 16, 33};
    for (int32_t b : bits) {
        const uint32_t eff = b == 0 ? 8 : static_cast<uint32_t>(b) % 32;
        RGBQUAD* p = Z_CreateGrayPalette(b);
        ASSERT_NE(p, nullptr) << b;
        const uint64_t n = uint64_t{1} << eff;
        for (uint64_t i = 0; i < n; ++i) {
            const auto v = static_cast<int>(i * 255 / (n - 1));
            ASSERT_TRUE(same(p[i], rgb(v, v, v))) << b << " " << i;
        }
        Z_OsFree(p);
    }
    EXPECT_EQ(Z_CreateGrayPalette(32), nullptr);
    EXPECT_EQ(Z_CreateGrayPalette(64), nullptr);

    for (int32_t bpp = 1; bpp <= 8; ++bpp) {
        BitmapHandle b = record(bpp, 0);
        PaletteOwner owner{&b};
        ASSERT_EQ(Z_CreateBitmapGrayPalette(&b), ST_OK);
        EXPECT_EQ(b.ColorCount, 1u << bpp);
        // The test's step is truncated: only counts whose step divides 255
        // (2, 4, 16, 256 entries) match the rounded-down ramp exactly.
        const bool divides = 255 % (b.ColorCount - 1) == 0;
        EXPECT_EQ(Z_IsGrayScaleBitmap(&b), divides ? GRAY_ORDERED : GRAY_NOT_ORDERED) << bpp;
        EXPECT_EQ(b.Palette[b.ColorCount - 1].rgbRed, 255);
    }
    BitmapHandle deep = record(12, 0);
    EXPECT_EQ(Z_CreateBitmapGrayPalette(&deep), ST_BAD_BPP);
    EXPECT_EQ(Z_CreateBitmapGrayPalette(nullptr), ST_BAD_PARAM);
    BitmapHandle f = record(4, 0);
    zktest::FaultScope fault(FaultKind::Allocation, 1);
    EXPECT_EQ(Z_CreateBitmapGrayPalette(&f), ST_NO_MEMORY);
    EXPECT_EQ(f.ColorCount, 16u);
    EXPECT_EQ(f.Palette, nullptr);
}

// Both calls that build a bitmap's palette overwrite the pointer it holds
// without freeing it: a duplicate that shares its source's palette gets its
// own block and the source's stays valid (the sanitizer build sees a block
// freed too early or lost).
TEST(BitmapPalettes, NewPaletteLeavesASharedBlockToItsOwner) {
    struct Case {
        const char* name;
        int32_t (*make)(BitmapHandle*);
        bool gray;
    } cases[] = {{"gray", Z_CreateBitmapGrayPalette, true}, {"fixed", Z_CreateBitmapFixedPalette, false}};
    for (const Case& c : cases) {
        for (int32_t bpp : {1, 4, 8}) {
            SCOPED_TRACE(::testing::Message() << c.name << " " << bpp);
            BitmapHandle src{}, dup{};
            ASSERT_EQ(Z_CreateBitmap(&src, Z_BITMAPHANDLE_SIZE, TYPE_CONV, 3, 2, bpp, CO_RGB, nullptr, 0, nullptr, 0),
                      ST_OK);
            ASSERT_EQ(Z_DupBitmapNewDim(&dup, &src, Z_BITMAPHANDLE_SIZE, 3, 2, bpp, DUP_ALLOCATE), ST_OK);
            ASSERT_EQ(dup.Palette, src.Palette);
            const std::vector<RGBQUAD> before(src.Palette, src.Palette + src.ColorCount);
            ASSERT_EQ(c.make(&dup), ST_OK);
            ASSERT_NE(dup.Palette, src.Palette);
            const uint32_t n = 1u << bpp;
            ASSERT_EQ(dup.ColorCount, n);
            const RGBQUAD* want = c.gray ? nullptr : Z_IntGetFixedPalette(bpp);
            for (uint32_t i = 0; i < n; ++i) {
                const auto v = static_cast<int>(i * 255 / (n - 1));
                EXPECT_TRUE(same(dup.Palette[i], want ? want[i] : rgb(v, v, v))) << i;
                EXPECT_TRUE(same(src.Palette[i], before[i])) << i;
            }
            Z_FreeBitmap(&dup);
            Z_FreeBitmap(&src);
        }
    }
}

TEST(GrayTest, PaletteClassification) {
    std::vector<RGBQUAD> inverse16;
    for (int i = 0; i < 16; ++i) inverse16.push_back(rgb(255 - 17 * i, 255 - 17 * i, 255 - 17 * i));
    const RGBQUAD ordered3[] = {rgb(0, 0, 0), rgb(127, 127, 127), rgb(254, 254, 254)};
    const RGBQUAD full3[] = {rgb(0, 0, 0), rgb(128, 128, 128), rgb(255, 255, 255)};
    const RGBQUAD coloured[] = {rgb(0, 0, 0), rgb(1, 2, 3)};
    const RGBQUAD mid[] = {rgb(128, 128, 128)};
    const RGBQUAD white[] = {rgb(255, 255, 255)};
    RGBQUAD reserved_differs[] = {rgb(0, 0, 0, 9), rgb(255, 255, 255, 7)};
    struct Case {
        const RGBQUAD* p;
        uint32_t n;
        int32_t want;
    } cases[] = {
        {Z_IntGetFixedPalette(8), 256, GRAY_NO},
        {Z_IntGetFixedPalette(2), 4, GRAY_ORDERED},
        {Z_IntGetFixedPalette(1), 2, GRAY_ORDERED},
        {inverse16.data(), 16, GRAY_ORDERED_INVERSE},
        {mid, 1, GRAY_NOT_ORDERED},
        {white, 1, GRAY_ORDERED_INVERSE},
        {ordered3, 3, GRAY_ORDERED},
        {full3, 3, GRAY_NOT_ORDERED},
        {coloured, 2, GRAY_NO},
        {mid, 0, GRAY_NOT_ORDERED},  // entry 0 decides even for no entries
        {reserved_differs, 2, GRAY_ORDERED},
    };
    for (const auto& c : cases) EXPECT_EQ(Z_IsGrayScalePalette(c.p, c.n), c.want) << c.n;
    EXPECT_EQ(Z_IsGrayScalePalette(nullptr, 4), ST_BAD_PARAM);
}

TEST(GrayTest, BitmapClassification) {
    EXPECT_EQ(Z_IsGrayScaleBitmap(nullptr), ST_BAD_PARAM);
    BitmapHandle bad = record(8, 0);
    bad.StructSize = 12;
    EXPECT_EQ(Z_IsGrayScaleBitmap(&bad), ST_BAD_STRUCT_SIZE);

    BitmapHandle b = record(8, 0);
    b.Order = CO_BGR;
    EXPECT_EQ(Z_IsGrayScaleBitmap(&b), GRAY_NO);  // no colours
    b.ColorCount = 256;
    EXPECT_EQ(Z_IsGrayScaleBitmap(&b), GRAY_NO);  // no palette block
    b.Palette = Z_CreateGrayPalette(8);
    PaletteOwner owner{&b};
    EXPECT_EQ(Z_IsGrayScaleBitmap(&b), GRAY_ORDERED);
    b.BitsPerPixel = 24;
    EXPECT_EQ(Z_IsGrayScaleBitmap(&b), GRAY_NO);

    // Gray order: the LUT decides only when it is in use.
    std::vector<RGBQUAD> lut(4096);
    for (int i = 0; i < 4096; ++i) lut[i] = rgb(255 - i / 16, 255 - i / 16, 255 - i / 16);
    BitmapHandle g = record(12, 0);
    g.Order = CO_GRAY;
    g.LowBit = 0xFFFFFFFFu;
    g.HighBit = 0xFFFFFFFFu;
    EXPECT_EQ(Z_IsGrayScaleBitmap(&g), GRAY_ORDERED);
    g.LUT = lut.data();
    g.LUTLength = 4096;
    EXPECT_EQ(Z_IsGrayScaleBitmap(&g), GRAY_ORDERED);  // BF_LUT_USED not set
    g.Flags |= BF_LUT_USED;
    EXPECT_EQ(Z_IsGrayScaleBitmap(&g), GRAY_ORDERED_INVERSE);
    g.Flags |= BF_SIGNED;  // lowest sample at LUTLength / 2: 255 - 128
    EXPECT_EQ(Z_IsGrayScaleBitmap(&g), GRAY_NOT_ORDERED);
    g.Flags &= ~BF_SIGNED;
    lut[4095].rgbBlue = 3;  // beyond the 2^nb entries checked when nb is 11
    g.HighBit = 10;
    EXPECT_EQ(Z_IsGrayScaleBitmap(&g), GRAY_ORDERED_INVERSE);
    g.HighBit = 0xFFFFFFFFu;
    EXPECT_EQ(Z_IsGrayScaleBitmap(&g), GRAY_NO);
}

TEST(FindPaletteIndex, ProbesTiesAndEarlyExit) {
    const RGBQUAD whites[] = {rgb(255, 255, 255), rgb(10, 10, 10), rgb(255, 255, 255)};
    EXPECT_EQ(Z_FindPaletteIndex(whites, 3, 255, 255, 255), 2u);  // the last white first
    const RGBQUAD white_first[] = {rgb(255, 255, 255), rgb(10, 10, 10), rgb(250, 250, 250)};
    EXPECT_EQ(Z_FindPaletteIndex(white_first, 3, 255, 255, 255), 0u);
    const RGBQUAD blacks[] = {rgb(0, 0, 0), rgb(90, 9, 9), rgb(0, 0, 0)};
    EXPECT_EQ(Z_FindPaletteIndex(blacks, 3, 0, 0, 0), 0u);  // the first black first
    const RGBQUAD black_last[] = {rgb(1, 1, 1), rgb(0, 0, 0), rgb(0, 0, 0)};
    EXPECT_EQ(Z_FindPaletteIndex(black_last, 3, 0, 0, 0), 2u);
    // Only all-255 counts as white: 0x1FF & ... is not 255.
    const RGBQUAD near_white[] = {rgb(0, 0, 0), rgb(255, 255, 254), rgb(255, 255, 255)};
    EXPECT_EQ(Z_FindPaletteIndex(near_white, 3, 255, 255, 254), 1u);

    // Equal distance: the earlier entry stays unless the later one has the
    // target's channel-order class. Target (100, 100, 100) has class 0.
    const RGBQUAD tie_keep[] = {rgb(90, 100, 100), rgb(110, 100, 100)};  // classes 4, 0
    EXPECT_EQ(Z_FindPaletteIndex(tie_keep, 2, 100, 100, 100), 1u);
    const RGBQUAD tie_first[] = {rgb(100, 110, 100), rgb(100, 90, 100)};  // classes 1, 2
    EXPECT_EQ(Z_FindPaletteIndex(tie_first, 2, 100, 100, 100), 0u);
    // Target (10, 50, 20): r < b and g above both, class 5.
    const RGBQUAD tie_class[] = {rgb(10, 50, 30), rgb(10, 60, 20), rgb(10, 50, 10)};  // 5, 5, 1
    EXPECT_EQ(Z_FindPaletteIndex(tie_class, 3, 10, 50, 20), 1u);
    // An exact match ends the scan: a later exact entry is never seen.
    const RGBQUAD exact[] = {rgb(1, 2, 3), rgb(7, 8, 9), rgb(7, 8, 9)};
    EXPECT_EQ(Z_FindPaletteIndex(exact, 3, 7, 8, 9), 1u);

    EXPECT_EQ(Z_FindPaletteIndex(exact, 0, 7, 8, 9), 0xFFFFFFFFu);
    EXPECT_EQ(Z_FindPaletteIndex(exact, 0, 255, 255, 255), 0xFFFFFFFFu);
    EXPECT_EQ(Z_FindPaletteIndex(nullptr, 3, 7, 8, 9), 0u);
}

// Without ties the search is the plain nearest entry: every target of a
// coarse grid against the 256-entry fixed palette.
TEST(FindPaletteIndex, NearestOnAGrid) {
    const RGBQUAD* p = Z_IntGetFixedPalette(8);
    for (int r = 0; r < 256; r += 15)
        for (int g = 0; g < 256; g += 17)
            for (int b = 0; b < 256; b += 13) {
                const uint32_t i = Z_FindPaletteIndex(p, 256, r, g, b);
                ASSERT_LT(i, 256u);
                auto dist = [&](const RGBQUAD& e) {
                    return (e.rgbRed - r) * (e.rgbRed - r) + (e.rgbGreen - g) * (e.rgbGreen - g) +
                           (e.rgbBlue - b) * (e.rgbBlue - b);
                };
                for (int k = 0; k < 256; ++k) ASSERT_LE(dist(p[i]), dist(p[k])) << r << " " << g << " " << b;
            }
}

// The prepared search answers as the scan does in every tier the processor
// runs, on palettes full of ties (fixed tables, duplicated and gray entries)
// over a grid of colours.
class PaletteSearchTier : public testing::TestWithParam<zktest::CpuTier> {};

TEST_P(PaletteSearchTier, EqualsTheScan) {
    ZK_RUN_AT_TIER(GetParam());
    std::vector<std::vector<RGBQUAD>> palettes;
    for (int bits = 1; bits <= 8; ++bits) {
        const RGBQUAD* t = Z_IntGetFixedPalette(bits);
        palettes.emplace_back(t, t + (1 << bits));
    }
    std::mt19937 rng(3);
    for (uint32_t n : {1u, 2u, 7u, 64u, 256u}) {
        std::vector<RGBQUAD> p(n);
        for (auto& e : p) e = rgb(rng() % 4 * 85, rng() % 4 * 85, rng() % 4 * 85);  // many duplicates
        palettes.push_back(p);
        p.front() = rgb(255, 255, 255);
        p.back() = rgb(0, 0, 0);
        palettes.push_back(p);
    }
    for (const auto& p : palettes) {
        zk::PaletteSearch search;
        search.prepare(p.data(), static_cast<uint32_t>(p.size()));
        const auto n = static_cast<uint32_t>(p.size());
        for (int r = 0; r < 256; r += 17)
            for (int g = 0; g < 256; g += 15)
                for (int b = 0; b < 256; b += 51)
                    ASSERT_EQ(search.find(r, g, b), Z_FindPaletteIndex(p.data(), n, r, g, b))
                        << n << ": " << r << " " << g << " " << b;
        for (uint32_t v : {0u, 42u, 85u, 128u, 170u, 255u})
            ASSERT_EQ(search.find(v, v, v), Z_FindPaletteIndex(p.data(), n, v, v, v)) << n << " gray " << v;
        ASSERT_EQ(search.find(300, 2, 2), Z_FindPaletteIndex(p.data(), n, 300, 2, 2));
    }
}

// Random palettes of every size class, from few distinct values (many
// entries at the same distance, of mixed channel-order classes) to all
// distinct, against random colours: the prepared search keeps the scan's
// tie rules (first exact entry; else last entry of the target's class at
// the smallest distance, else the first there), in every tier.
TEST_P(PaletteSearchTier, OnRandomPalettes) {
    ZK_RUN_AT_TIER(GetParam());
    std::mt19937 rng(11);
    for (uint32_t n : {1u, 3u, 16u, 100u, 255u, 256u})
        for (uint32_t levels : {2u, 5u, 256u}) {
            std::vector<RGBQUAD> p(n);
            const auto level = [&] { return static_cast<int>(rng() % levels * 255 / (levels - 1)); };
            for (auto& e : p) e = rgb(level(), level(), level());
            zk::PaletteSearch search;
            search.prepare(p.data(), n);
            for (int k = 0; k < 3000; ++k) {
                // Half the colours on the palette's own levels, so that exact hits and ties occur.
                const uint32_t r = k % 2 ? rng() % 256 : static_cast<uint32_t>(level()),
                               g = k % 2 ? rng() % 256 : static_cast<uint32_t>(level()),
                               b = k % 2 ? rng() % 256 : static_cast<uint32_t>(level());
                ASSERT_EQ(search.find(r, g, b), Z_FindPaletteIndex(p.data(), n, r, g, b))
                    << n << "/" << levels << ": " << r << " " << g << " " << b;
            }
        }
}

INSTANTIATE_TEST_SUITE_P(Tiers, PaletteSearchTier, testing::ValuesIn(zk::platform::kCpuTiers), zktest::tier_test_name);

TEST(BitmapPalette, EntriesAndColours) {
    BitmapHandle b = record(8, 256);
    b.Palette = Z_CreateGrayPalette(8);
    PaletteOwner owner{&b};
    RGBQUAD out[16];
    EXPECT_EQ(Z_GetBitmapPaletteEntries(&b, 250, 10, out), 6u);
    EXPECT_TRUE(same(out[5], rgb(255, 255, 255)));
    EXPECT_EQ(Z_GetBitmapColors(&b, 250, 10, out), ST_BAD_PARAM);
    EXPECT_EQ(Z_GetBitmapColors(&b, 240, 10, out), ST_OK);
    EXPECT_TRUE(same(out[9], rgb(249, 249, 249)));
    EXPECT_EQ(Z_GetBitmapPaletteEntries(&b, 256, 1, out), 0u);
    EXPECT_EQ(Z_GetBitmapPaletteEntries(&b, 0, 1, nullptr), 0u);
    EXPECT_EQ(Z_GetBitmapPaletteEntries(nullptr, 0, 1, out), 0u);
    RGBQUAD all[256];
    EXPECT_EQ(Z_GetBitmapPaletteEntries(&b, 1, 0xFFFFFFFFu, all), 255u);  // first + count does not wrap
    EXPECT_TRUE(same(all[254], rgb(255, 255, 255)));

    BitmapHandle bad = b;
    bad.StructSize = 0;
    EXPECT_EQ(Z_GetBitmapColors(&bad, 0, 1, out), ST_BAD_STRUCT_SIZE);
    EXPECT_EQ(Z_GetBitmapColors(nullptr, 0, 1, out), ST_INVALID_BITMAP);
    EXPECT_EQ(Z_GetBitmapColors(&b, 0, 0, out), ST_BAD_PARAM);
    bad = b;
    bad.BitsPerPixel = 9;
    EXPECT_EQ(Z_GetBitmapColors(&bad, 0, 1, out), ST_BAD_PARAM);
    bad.StructSize = Z_BITMAPHANDLE_SIZE;
}

TEST(BitmapPalette, PutColours) {
    const RGBQUAD src[3] = {rgb(1, 2, 3), rgb(4, 5, 6), rgb(7, 8, 9)};
    BitmapHandle b = record(4, 16);
    PaletteOwner owner{&b};
    EXPECT_EQ(Z_PutBitmapColors(&b, 14, 2, src), ST_OK);  // makes a zeroed palette first
    ASSERT_NE(b.Palette, nullptr);
    EXPECT_TRUE(same(b.Palette[0], rgb(0, 0, 0)));
    EXPECT_TRUE(same(b.Palette[15], src[1]));
    EXPECT_EQ(Z_PutBitmapColors(&b, 14, 3, src), ST_BAD_PARAM);
    EXPECT_EQ(Z_PutBitmapColors(&b, -1, 1, src), ST_BAD_PARAM);
    BitmapHandle other = b;
    other.Flags = 0;
    EXPECT_EQ(Z_PutBitmapColors(&other, 0, 1, src), ST_INVALID_BITMAP);
    other = b;
    other.StructSize = 1;
    EXPECT_EQ(Z_PutBitmapColors(&other, 0, 1, src), ST_BAD_STRUCT_SIZE);
    other = b;
    other.BitsPerPixel = 16;
    EXPECT_EQ(Z_PutBitmapColors(&other, 0, 1, src), ST_BAD_PARAM);
    EXPECT_EQ(Z_PutBitmapColors(nullptr, 0, 1, src), ST_INVALID_BITMAP);

    BitmapHandle f = record(8, 256);
    zktest::FaultScope fault(FaultKind::Allocation, 1);
    EXPECT_EQ(Z_PutBitmapColors(&f, 0, 1, src), ST_NO_MEMORY);
    EXPECT_EQ(f.Palette, nullptr);
}

TEST(BitmapPalette, NewSetCopyCompare) {
    const RGBQUAD* fixed = Z_IntGetFixedPalette(8);
    EXPECT_EQ(Z_CreateNewPalette(nullptr, 4), nullptr);
    EXPECT_EQ(Z_CreateNewPalette(fixed, 257), nullptr);
    EXPECT_EQ(Z_CreateNewPalette(fixed, 0), nullptr);
    RGBQUAD* copy = Z_CreateNewPalette(fixed, 256);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(std::memcmp(copy, fixed, 1024), 0);
    Z_OsFree(copy);

    BitmapHandle b = record(8, 7);
    PaletteOwner owner{&b};
    b.Palette = Z_CreateGrayPalette(8);
    EXPECT_EQ(Z_SetBitmapNewPalette(&b, nullptr, 16), 1);  // frees, keeps the count
    EXPECT_EQ(b.Palette, nullptr);
    EXPECT_EQ(b.ColorCount, 7u);
    EXPECT_EQ(Z_SetBitmapNewPalette(&b, fixed, 300), 0);
    EXPECT_EQ(b.ColorCount, 300u);
    EXPECT_EQ(Z_SetBitmapNewPalette(&b, fixed, 256), 1);
    EXPECT_EQ(Z_CompareBitmapToPalette(&b, fixed, 256), 1);

    BitmapHandle d = record(8, 0);
    PaletteOwner downer{&d};
    d.Palette = Z_CreateGrayPalette(2);
    EXPECT_EQ(Z_CopyBitmapPalette(&d, &b), 1);
    EXPECT_EQ(d.ColorCount, 256u);
    EXPECT_EQ(std::memcmp(d.Palette, fixed, 1024), 0);
    EXPECT_EQ(Z_CopyBitmapPalette(&d, &d), 1);  // onto itself: unchanged
    EXPECT_EQ(std::memcmp(d.Palette, fixed, 1024), 0);
    BitmapHandle none = record(8, 256);
    EXPECT_EQ(Z_CopyBitmapPalette(&d, &none), ST_OK);
    EXPECT_EQ(d.Palette, nullptr);
    EXPECT_EQ(d.ColorCount, 0u);
    EXPECT_EQ(Z_CopyBitmapPalette(nullptr, &b), ST_BAD_PARAM);
    none.StructSize = 3;
    EXPECT_EQ(Z_CopyBitmapPalette(&d, &none), ST_BAD_STRUCT_SIZE);
    {
        zktest::FaultScope fault(FaultKind::Allocation, 1);
        EXPECT_EQ(Z_CopyBitmapPalette(&d, &b), 0);
        EXPECT_EQ(d.Palette, nullptr);
    }

    // The reserved byte does not count; a bitmap without a palette matches.
    std::vector<RGBQUAD> other(fixed, fixed + 256);
    for (auto& e : other) e.rgbReserved = 0x55;
    EXPECT_EQ(Z_CompareBitmapToPalette(&b, other.data(), 256), 1);
    other[200].rgbGreen ^= 1;
    EXPECT_EQ(Z_CompareBitmapToPalette(&b, other.data(), 256), 0);
    EXPECT_EQ(Z_CompareBitmapToPalette(&b, other.data(), 200), 1);
    EXPECT_EQ(Z_CompareBitmapToPalette(&b, other.data(), 100000), 0);  // at most 256 compared
    EXPECT_EQ(Z_CompareBitmapToPalette(&d, other.data(), 256), 1);
    EXPECT_EQ(Z_CompareBitmapToPalette(nullptr, other.data(), 256), 0);
}

TEST(PaletteObjects, CreateReadWriteDuplicate) {
    RGBQUAD src[256];
    for (int i = 0; i < 256; ++i) src[i] = rgb(i, 255 - i, i / 2, i & 3);
    EXPECT_EQ(Z_CreatePalette(nullptr, 4), nullptr);
    EXPECT_EQ(Z_CreatePalette(src, 257), nullptr);
    EXPECT_EQ(Z_CreatePalette(src, 0), nullptr);
    EXPECT_EQ(Z_GetPaletteSize(nullptr), 0u);
    EXPECT_EQ(Z_DeletePalette(nullptr), 0);

    HPALETTE p = Z_CreatePalette(src, 10);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(Z_GetPaletteSize(p), 10u);
    RGBQUAD out[256];
    EXPECT_EQ(Z_GetPaletteEntries(p, 0, 256, out), 10u);
    EXPECT_EQ(std::memcmp(out, src, 40), 0);  // reserved byte kept
    EXPECT_EQ(Z_GetPaletteEntries(p, 8, 5, out), 2u);
    EXPECT_EQ(Z_GetPaletteEntries(p, 10, 1, out), 0u);
    EXPECT_EQ(Z_GetPaletteEntries(p, 0, 1, nullptr), 0u);
    EXPECT_EQ(Z_GetPaletteEntries(nullptr, 0, 1, out), 0u);
    EXPECT_EQ(Z_SetPaletteEntries(p, 7, 10, src + 100), 3u);  // bounded by the size
    EXPECT_EQ(Z_SetPaletteEntries(p, 10, 1, src), 0u);
    EXPECT_EQ(Z_SetPaletteEntries(p, 0, 1, nullptr), 0u);
    EXPECT_EQ(Z_SetPaletteEntries(nullptr, 0, 1, src), 0u);

    HPALETTE dup = Z_DupPalette(p);
    ASSERT_NE(dup, nullptr);
    EXPECT_EQ(Z_GetPaletteSize(dup), 10u);
    Z_GetPaletteEntries(dup, 0, 10, out);
    EXPECT_EQ(std::memcmp(out, src, 28), 0);
    EXPECT_EQ(std::memcmp(out + 7, src + 100, 12), 0);
    EXPECT_EQ(Z_DupPalette(nullptr), nullptr);
    for (int nth = 1; nth <= 2; ++nth) {
        zktest::FaultScope fault(FaultKind::Allocation, nth);
        EXPECT_EQ(Z_DupPalette(p), nullptr) << nth;
    }
    EXPECT_EQ(Z_DeletePalette(dup), 1);

    // Into a bitmap and back.
    BitmapHandle b = record(8, 0);
    PaletteOwner owner{&b};
    EXPECT_EQ(Z_SetBitmapPalette(&b, p), ST_OK);
    EXPECT_EQ(b.ColorCount, 10u);
    EXPECT_EQ(std::memcmp(b.Palette, src, 28), 0);
    HPALETTE back = Z_DupBitmapPalette(&b);
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(Z_GetPaletteSize(back), 10u);
    EXPECT_EQ(Z_DeletePalette(back), 1);
    HPALETTE one = Z_CreatePalette(src, 1);
    EXPECT_EQ(Z_SetBitmapPalette(&b, one), ST_BAD_PARAM);  // keeps the old palette
    EXPECT_EQ(b.ColorCount, 10u);
    ASSERT_NE(b.Palette, nullptr);
    EXPECT_EQ(Z_SetBitmapPalette(&b, nullptr), ST_BAD_PARAM);
    EXPECT_EQ(Z_SetBitmapPalette(nullptr, p), ST_INVALID_BITMAP);
    BitmapHandle bad = record(8, 0);
    bad.StructSize = 0;
    EXPECT_EQ(Z_SetBitmapPalette(&bad, p), ST_BAD_STRUCT_SIZE);
    EXPECT_EQ(Z_DupBitmapPalette(&bad), nullptr);
    EXPECT_EQ(Z_DupBitmapPalette(nullptr), nullptr);
    {
        zktest::FaultScope fault(FaultKind::Allocation, 1);
        EXPECT_EQ(Z_SetBitmapPalette(&b, p), ST_NO_MEMORY);
        EXPECT_EQ(b.Palette, nullptr);
    }
    EXPECT_EQ(Z_DeletePalette(one), 1);
    EXPECT_EQ(Z_DeletePalette(p), 1);
    EXPECT_EQ(Z_CreateSystemPalette(), nullptr);
}

TEST(PaletteObjects, NearestIndexIsEuclideanFirstWins) {
    BitmapHandle b = record(8, 4);
    const RGBQUAD entries[4] = {rgb(0, 0, 0), rgb(100, 0, 0), rgb(0, 100, 0), rgb(100, 0, 0)};
    b.Palette = Z_CreateNewPalette(entries, 4);
    PaletteOwner owner{&b};
    struct Case {
        COLORREF c;
        uint32_t want;
    } cases[] = {
        {0x00000000, 0}, {0x00000064, 1},  // red 100: first of two exact entries
        {0x00006400, 2}, {0x00003232, 0},  // (50, 50, 0): all three at 5000, first wins
        {0x00003233, 1}, {0x00FF0000, 0},
    };
    for (const auto& c : cases) EXPECT_EQ(Z_GetNearestPaletteIndex(&b, c.c), c.want) << std::hex << c.c;
    EXPECT_EQ(Z_GetNearestPaletteIndex(nullptr, 0), 0u);
    b.ColorCount = 300;
    EXPECT_EQ(Z_GetNearestPaletteIndex(&b, 0), 0xFFFFFFFFu);
    b.ColorCount = 4;
    BitmapHandle none = record(8, 4);
    EXPECT_EQ(Z_GetNearestPaletteIndex(&none, 0), 0xFFFFFFFFu);
}

}  // namespace
