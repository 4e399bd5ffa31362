// Z_CreateBitmap end to end, and the gray-parameter service.
#include <gtest/gtest.h>

#include <cstring>

#include "kinds.h"
#include "test_support.h"

using namespace zktest;
namespace pf = zk::platform;

namespace {

TEST(CreateBitmap, ChecksComeFirstAndInOrder) {
    BitmapHandle b{};
    EXPECT_EQ(Z_CreateBitmap(nullptr, Z_BITMAPHANDLE_SIZE, TYPE_CONV, 4, 4, 8, 0, nullptr, 0, nullptr, 0),
              ST_BAD_PARAM);
    EXPECT_EQ(Z_CreateBitmap(&b, Z_BITMAPHANDLE_SIZE - 1, TYPE_CONV, 4, 4, 8, 0, nullptr, 0, nullptr, 0),
              ST_BAD_STRUCT_SIZE);
    EXPECT_EQ(Z_CreateBitmap(&b, Z_BITMAPHANDLE_SIZE, TYPE_CONV, 4, 4, 9, 0, nullptr, 0, nullptr, 0), ST_BAD_BPP);
    // Order 5 needs 24 or 48 bits, checked before any storage is taken.
    pf::reset_fault_counters();
    EXPECT_EQ(Z_CreateBitmap(&b, Z_BITMAPHANDLE_SIZE, TYPE_CONV, 4, 4, 32, CO_ALT_BGR, nullptr, 0, nullptr, 0),
              ST_BAD_BPP);
    EXPECT_EQ(pf::fault_calls(pf::FaultKind::Allocation) + pf::fault_calls(pf::FaultKind::Mapping), 0);
    EXPECT_EQ(b.Flags & BF_ALLOCATED, 0u);
    ASSERT_EQ(Z_CreateBitmap(&b, Z_BITMAPHANDLE_SIZE, TYPE_CONV, 4, 4, 48, CO_ALT_BGR, nullptr, 0, nullptr, 0), ST_OK);
    EXPECT_EQ(b.Order, CO_ALT_BGR);
    EXPECT_EQ(b.ViewPerspective, VP_TOP_LEFT);  // 0 means top-left
    Z_FreeBitmap(&b);
    // A view perspective above 8 is refused with the storage kept for the caller.
    EXPECT_EQ(Z_CreateBitmap(&b, Z_BITMAPHANDLE_SIZE, TYPE_CONV, 4, 4, 24, 0, nullptr, 9, nullptr, 0), ST_BAD_PARAM);
    EXPECT_TRUE(b.Flags & BF_ALLOCATED);
    Z_FreeBitmap(&b);
}

TEST(CreateBitmap, PaletteChoices) {
    BitmapHandle b{};
    // Depth 0: an 8-bit gray bitmap.
    ASSERT_EQ(Z_CreateBitmap(&b, Z_BITMAPHANDLE_SIZE, TYPE_CONV, 5, 3, 0, CO_BGR, nullptr, VP_BOTTOM_LEFT, nullptr, 0),
              ST_OK);
    EXPECT_EQ(b.BitsPerPixel, 8);
    EXPECT_EQ(b.Order, CO_RGB);  // the order argument counts only above 8 bits
    EXPECT_EQ(b.ViewPerspective, VP_BOTTOM_LEFT);
    ASSERT_NE(b.Palette, nullptr);
    for (int i = 0; i < 256; ++i) {
        EXPECT_EQ(b.Palette[i].rgbRed, i);
        EXPECT_EQ(b.Palette[i].rgbBlue, i);
    }
    Z_FreeBitmap(&b);
    // A given palette is copied.
    RGBQUAD given[16];
    for (int i = 0; i < 16; ++i) given[i] = RGBQUAD{uint8_t(i), uint8_t(2 * i), uint8_t(3 * i), 0};
    ASSERT_EQ(Z_CreateBitmap(&b, Z_BITMAPHANDLE_SIZE, TYPE_CONV, 5, 3, 4, 0, given, 0, nullptr, 0), ST_OK);
    ASSERT_NE(b.Palette, nullptr);
    EXPECT_NE(b.Palette, given);
    EXPECT_EQ(std::memcmp(b.Palette, given, sizeof given), 0);
    Z_FreeBitmap(&b);
    // Else the fixed palette of the depth.
    ASSERT_EQ(Z_CreateBitmap(&b, Z_BITMAPHANDLE_SIZE, TYPE_CONV, 5, 3, 8, 0, nullptr, 0, nullptr, 0), ST_OK);
    RGBQUAD fixed[256];
    ASSERT_EQ(Z_GetFixedPalette(fixed, 8), ST_OK);
    ASSERT_NE(b.Palette, nullptr);
    EXPECT_EQ(std::memcmp(b.Palette, fixed, sizeof fixed), 0);
    Z_FreeBitmap(&b);
    // Above 8 bits: no palette, the order as given.
    ASSERT_EQ(Z_CreateBitmap(&b, Z_BITMAPHANDLE_SIZE, TYPE_CONV, 5, 3, 16, CO_RGB, nullptr, 0, nullptr, 0), ST_OK);
    EXPECT_EQ(b.Palette, nullptr);
    EXPECT_EQ(b.Order, CO_RGB);
    Z_FreeBitmap(&b);
}

TEST(CreateBitmap, CallerMemoryMustMatchTheSize) {
    std::vector<uint8_t> data(12 * 3);
    BitmapHandle b{};
    EXPECT_EQ(Z_CreateBitmap(&b, Z_BITMAPHANDLE_SIZE, TYPE_USER, 4, 3, 24, 0, nullptr, 0, data.data(), 35),
              ST_BAD_PARAM);
    Z_FreeBitmap(&b);
    ASSERT_EQ(Z_CreateBitmap(&b, Z_BITMAPHANDLE_SIZE, TYPE_USER, 4, 3, 24, 0, nullptr, 0, data.data(), 36), ST_OK);
    EXPECT_EQ(b.Data, data.data());
    const uint8_t row[12] = {9, 8, 7, 6, 5, 4, 3, 2, 1, 0, 1, 2};
    EXPECT_EQ(Z_PutBitmapRow(&b, row, 2, 12), 12);
    EXPECT_EQ(std::memcmp(&data[24], row, 12), 0);
    Z_FreeBitmap(&b);
    EXPECT_EQ(data[24], 9);  // caller memory is not freed
}

TEST(CreateBitmap, InjectedAllocationFailuresLeaveNothing) {
    sweep_faults({pf::FaultKind::Allocation}, 50, [](pf::FaultKind kind, int n) {
        BitmapHandle b{};
        pf::reset_fault_counters();
        const int32_t status = under_fault(kind, n, [&] {
            return Z_CreateBitmap(&b, Z_BITMAPHANDLE_SIZE, TYPE_CONV, 7, 7, 4, 0, nullptr, 0, nullptr, 0);
        });
        const bool reached = pf::fault_calls(kind) >= n;
        if (status != ST_OK) {
            EXPECT_TRUE(reached);
            EXPECT_EQ(b.Flags & BF_ALLOCATED, 0u);
            EXPECT_EQ(b.Palette, nullptr);
        }
        Z_FreeBitmap(&b);
        return !reached;
    });
}

TEST(GrayParams, InitSetsTheFullWindow) {
    struct Case {
        int32_t bpp;
        uint32_t max;
    } cases[] = {{1, 1}, {8, 255}, {12, 4095}, {16, 65535}, {31, 0x7FFFFFFF}, {32, 0xFFFFFFFF}, {64, 0xFFFFFFFF}};
    for (const Case& c : cases) {
        BitmapHandle b = described(3, 3, c.bpp == 31 ? 32 : c.bpp);
        b.BitsPerPixel = c.bpp;
        b.LowBit = 5;
        b.MinVal = 9;
        ASSERT_EQ(Z_InitGrayParams(&b), ST_OK);
        EXPECT_EQ(b.LowBit, 0u);
        EXPECT_EQ(b.HighBit, uint32_t(c.bpp - 1));
        EXPECT_EQ(b.PaintHighBit, uint32_t(c.bpp - 1));
        EXPECT_EQ(b.MinVal, 0u);
        EXPECT_EQ(b.MaxVal, c.max) << c.bpp;
    }
    BitmapHandle b = described(3, 3, 8);
    b.BitsPerPixel = 0;
    EXPECT_EQ(Z_InitGrayParams(&b), ST_BAD_BPP);
    EXPECT_EQ(Z_InitGrayParams(nullptr), ST_BAD_PARAM);
    b.StructSize = 3;
    EXPECT_EQ(Z_InitGrayParams(&b), ST_BAD_STRUCT_SIZE);
}

TEST(GrayParams, WindowGivesCountMaskAndShift) {
    struct Case {
        int32_t bpp;
        uint32_t low_bit, high_bit;
        int32_t status;
        uint32_t low, high, count, mask, shift;
    } cases[] = {
        {16, 0, 15, ST_OK, 0, 15, 16, 0xFFFF, 0},
        {16, 4, 11, ST_OK, 4, 11, 8, 0xFF, 4},
        {12, 0xFFFFFFFF, 0xFFFFFFFF, ST_OK, 0, 11, 12, 0xFFF, 0},  // negatives: the whole depth
        {8, 2, 20, ST_OK, 2, 20, 8, 0xFF, 13},                     // at most the depth
        {32, 0, 31, ST_OK, 0, 31, 32, 0xFFFFFFFF, 0},
        {64, 8, 47, ST_OK, 8, 47, 40, 0xFFFFFFFF, 8},
        {16, 9, 3, ST_BAD_PARAM, 0, 0, 0, 0, 0},
    };
    for (const Case& c : cases) {
        BitmapHandle b = described(3, 3, c.bpp);
        b.LowBit = c.low_bit;
        b.HighBit = c.high_bit;
        uint32_t v[5] = {};
        ASSERT_EQ(Z_GetGrayParams(&b, &v[0], &v[1], &v[2], &v[3], &v[4]), c.status) << c.bpp;
        if (c.status != ST_OK) continue;
        const uint32_t want[5] = {c.low, c.high, c.count, c.mask, c.shift};
        for (int k = 0; k < 5; ++k) EXPECT_EQ(v[k], want[k]) << c.bpp << " " << c.low_bit << " output " << k;
        EXPECT_EQ(Z_GetGrayParams(&b, nullptr, nullptr, nullptr, nullptr, nullptr), ST_OK);
    }
}

TEST(GrayParams, CopyOwnsItsLookupTableAndFreeClearsIt) {
    BitmapHandle src = described(3, 3, 16), dst = described(3, 3, 16);
    src.LowBit = 2;
    src.HighBit = 13;
    src.MinVal = 7;
    src.MaxVal = 9000;
    src.PaintLowBit = 1;
    src.PaintHighBit = 14;
    src.LUTLength = 5;
    src.LUT = static_cast<RGBQUAD*>(Z_OsAlloc(5 * sizeof(RGBQUAD)));
    for (int i = 0; i < 5; ++i) src.LUT[i] = RGBQUAD{uint8_t(i), uint8_t(i + 1), uint8_t(i + 2), 0};
    src.Flags |= BF_LUT_USED;
    dst.LUT = static_cast<RGBQUAD*>(Z_OsAlloc(8));  // replaced and freed
    {
        FaultScope f(pf::FaultKind::Allocation, 1);
        EXPECT_EQ(Z_CopyGrayParams(&dst, &src), ST_NO_MEMORY);
        EXPECT_EQ(dst.LowBit, 0u);
    }
    ASSERT_EQ(Z_CopyGrayParams(&dst, &src), ST_OK);
    EXPECT_NE(dst.LUT, src.LUT);
    EXPECT_EQ(std::memcmp(dst.LUT, src.LUT, 5 * sizeof(RGBQUAD)), 0);
    EXPECT_EQ(pf::block_size(pf::block_from_pointer(dst.LUT)), 5 * sizeof(RGBQUAD));
    EXPECT_EQ(dst.LUTLength, 5u);
    EXPECT_TRUE(dst.Flags & BF_LUT_USED);
    const uint32_t fields[][2] = {{dst.LowBit, 2},    {dst.HighBit, 13},    {dst.MinVal, 7},
                                  {dst.MaxVal, 9000}, {dst.PaintLowBit, 1}, {dst.PaintHighBit, 14}};
    for (const auto& f : fields) EXPECT_EQ(f[0], f[1]);
    dst.ValueMap = static_cast<uint8_t*>(Z_OsAlloc(256));
    EXPECT_EQ(Z_FreeGrayParams(&dst), ST_OK);
    EXPECT_EQ(dst.LUT, nullptr);
    EXPECT_EQ(dst.ValueMap, nullptr);
    EXPECT_EQ(dst.LUTLength, 0u);
    EXPECT_FALSE(dst.Flags & BF_LUT_USED);
    // A source without a table gives none, and clears the flag.
    BitmapHandle plain = described(3, 3, 16);
    ASSERT_EQ(Z_CopyGrayParams(&src, &plain), ST_OK);
    EXPECT_EQ(src.LUT, nullptr);
    EXPECT_FALSE(src.Flags & BF_LUT_USED);
    EXPECT_EQ(Z_CopyGrayParams(nullptr, &plain), ST_BAD_PARAM);
    EXPECT_EQ(Z_FreeGrayParams(nullptr), ST_BAD_PARAM);
}

}  // namespace
