// The dithering engine's fast paths: the lines below a row receive their
// error through the kernel of the processor's tier, which must give the
// indices the portable kernel gives on every width around the vector
// length; and the fixed palettes that have every entry are served through
// the per-channel tables (the model test holds those to the rules).
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "core/platform/cpu.h"
#include "reduce/dither.h"
#include "test_support.h"
#include "zkernel.h"

namespace {

namespace pf = zk::platform;

// A palette of `n` entries that is neither fixed nor the cube, with a
// reserved entry and an entry to fill.
std::vector<RGBQUAD> odd_palette(uint32_t n) {
    std::vector<RGBQUAD> p(n);
    for (uint32_t i = 0; i < n; ++i)
        p[i] = {static_cast<uint8_t>(i * 37 + 5), static_cast<uint8_t>(i * 91 + 3), static_cast<uint8_t>(i * 13 + 1),
                0};
    if (n > 3) {
        p[1].rgbReserved = Z_PAL_RESERVED;
        p[2].rgbReserved = Z_PAL_FILL;
    }
    return p;
}

struct Target {
    const char* name;
    bool given;  // the palette below is passed (else null: the fixed one)
    uint32_t colors;
};

// Rows of random 24-bit pixels, some runs flat, dithered whole with the
// tier capped at `tier`; the indices of every row, one byte each.
std::vector<uint8_t> dither(pf::CpuTier tier, int32_t width, int32_t height, uint32_t method, const Target& t,
                            const std::vector<RGBQUAD>& palette) {
    const pf::CpuTier previous = pf::set_cpu_tier_cap(tier);
    BitmapHandle b = zktest::described(width, height, 24);
    b.Order = CO_BGR;
    b.DitherMethod = method;
    const int32_t started = Z_StartDitheringExt(&b, t.given ? palette.data() : nullptr, t.colors, 8, nullptr);
    pf::set_cpu_tier_cap(previous);
    EXPECT_EQ(started, ST_OK);
    std::vector<uint8_t> out(size_t(width) * size_t(height));
    for (int32_t y = 0; y < height && started == ST_OK; ++y) {
        std::vector<uint8_t> row = zktest::random_bytes(size_t(width) * 3, 1000u * method + uint32_t(y));
        for (size_t i = 0; i + 6 <= row.size(); i += 24) std::memset(row.data() + i, row[i], 6);
        EXPECT_EQ(Z_DitherLine(&b, row.data(), out.data() + size_t(y) * size_t(width)), ST_OK);
    }
    Z_StopDithering(&b);
    return out;
}

}  // namespace

TEST(DitherTiers, EveryTierGivesThePortableIndices) {
    const std::vector<RGBQUAD> odd = odd_palette(200);
    const Target targets[] = {{"fixed 256", false, 256}, {"table", true, 200}, {"fixed 2", false, 2}};
    for (const pf::CpuTier tier : pf::kCpuTiers) {
        if (tier == pf::CpuTier::Portable || tier > pf::cpu_tier()) continue;
        for (const Target& t : targets)
            for (uint32_t method = DITHER_FLOYD; method <= DITHER_JARVIS; ++method)
                for (const int32_t width : {1, 2, 3, 5, 7, 8, 9, 15, 16, 17, 23, 24, 25, 40, 67}) {
                    SCOPED_TRACE(::testing::Message() << pf::cpu_tier_name(tier) << ", " << t.name << ", method "
                                                      << method << ", width " << width);
                    const std::vector<uint8_t> portable = dither(pf::CpuTier::Portable, width, 7, method, t, odd);
                    ASSERT_EQ(dither(tier, width, 7, method, t, odd), portable);
                }
    }
}

// Which fixed palettes error diffusion serves through the per-channel
// tables: every kind that is a sum of channel parts when the palette has all
// its entries (the cube from 216 on), none that is short of entries, not the
// gray ones.
TEST(DitherTiers, FixedPalettesWithEveryEntryTakeTheTables) {
    struct Case {
        uint32_t colors;
        bool cube;
        bool split;
    };
    const Case cases[] = {{2, false, false},   {4, false, false},  {3, false, false},   {8, false, true},
                          {7, false, false},   {16, false, true},  {12, false, false},  {32, false, true},
                          {31, false, false},  {64, false, true},  {48, false, false},  {128, false, true},
                          {100, false, false}, {256, false, true}, {255, false, false}, {256, true, true},
                          {216, true, true},   {215, true, false}, {129, true, false}};
    for (const Case& c : cases)
        for (const uint32_t method : {DITHER_NONE, DITHER_FLOYD, DITHER_ORDERED}) {
            SCOPED_TRACE(::testing::Message() << c.colors << (c.cube ? " cube" : "") << ", method " << method);
            BitmapHandle b = zktest::described(5, 1, 24);
            b.DitherMethod = method;
            ASSERT_EQ(Z_StartDithering(&b, c.cube ? zk::reduce::cube_palette() : nullptr, c.colors), ST_OK);
            EXPECT_EQ(zk::reduce::testing::lookup_of(b) == zk::reduce::Lookup::Cube, c.cube);
            EXPECT_EQ(zk::reduce::testing::split_of(b), c.split && method == DITHER_FLOYD);
            Z_StopDithering(&b);
        }
}

// Every sum a pixel can receive (|sum| <= 255 * divisor) is divided as
// integer division truncating toward zero does, for every kernel; the
// engine divides by the divisors that are not powers of two with a product
// and shifts.
TEST(DitherTiers, EverySumDividesTruncatingTowardZero) {
    const int32_t divisors[] = {16, 42, 32, 32, 200, 48};  // methods 1..6
    for (uint32_t method = DITHER_FLOYD; method <= DITHER_JARVIS; ++method) {
        const int32_t d = divisors[method - 1];
        for (int32_t sum = -255 * d; sum <= 255 * d; ++sum)
            ASSERT_EQ(zk::reduce::testing::divided(method, sum), sum / d) << "method " << method << ", sum " << sum;
    }
    EXPECT_EQ(zk::reduce::testing::divided(DITHER_ORDERED, 100), 0);
}
