// Record initialisation, the per-thread defaults it takes, caller memory.
#include <cstring>
#include <vector>

#include "test_support.h"

namespace {

const int32_t kDepths[] = {1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 24, 32, 48, 64};

bool is_valid_depth(int32_t bpp) {
    for (int32_t d : kDepths)
        if (d == bpp) return true;
    return false;
}

// Rows padded to whole 32-bit words, computed independently of the library.
uint32_t padded_row(uint64_t width, uint64_t bpp) {
    const uint64_t bits = width * bpp;
    return static_cast<uint32_t>(((bits + 31) / 32) * 4);
}

std::vector<uint8_t> bytes_of(const BitmapHandle& b) {
    const auto* p = reinterpret_cast<const uint8_t*>(&b);
    return std::vector<uint8_t>(p, p + sizeof b);
}

}  // namespace

TEST(InitBitmap, RowLengthsAndFieldsForWidthsAndDepths) {
    for (int32_t bpp : kDepths) {
        for (int32_t width = 0; width <= 130; ++width) {
            BitmapHandle b{};
            ASSERT_EQ(Z_InitBitmap(&b, Z_BITMAPHANDLE_SIZE, width, 3, bpp), ST_OK);
            ASSERT_EQ(b.BytesPerLine, padded_row(static_cast<uint64_t>(width), static_cast<uint64_t>(bpp)))
                << width << "x" << bpp;
            ASSERT_EQ(b.Size, size_t{b.BytesPerLine} * 3);
        }
        SCOPED_TRACE(bpp);
        const BitmapHandle b = zktest::described(9, 7, bpp);
        EXPECT_EQ(b.StructSize, static_cast<uint32_t>(Z_BITMAPHANDLE_SIZE));
        EXPECT_EQ(b.Width, 9);
        EXPECT_EQ(b.Height, 7);
        EXPECT_EQ(b.BitsPerPixel, bpp);
        EXPECT_EQ(b.ViewPerspective, VP_BOTTOM_LEFT);
        EXPECT_EQ(b.ColorCount, bpp < 9 ? 1u << bpp : 0u);
        EXPECT_EQ(b.Order, bpp < 9 ? CO_RGB : bpp == 12 ? CO_GRAY : CO_BGR);
        const uint32_t top = static_cast<uint32_t>(bpp - 1);
        const uint32_t bits[] = {b.HighBit, b.PaintHighBit, b.LowBit, b.PaintLowBit};
        const uint32_t want_bits[] = {top, top, 0, 0};
        for (int k = 0; k < 4; ++k) EXPECT_EQ(bits[k], want_bits[k]) << k;
        EXPECT_EQ(b.Percent, 100u);
        EXPECT_EQ(b.XResolution, 150);
        EXPECT_EQ(b.YResolution, 150);
        EXPECT_EQ(b.DitherMethod, Z_GetDefaultDithering());
        EXPECT_EQ(b.Flags, 0u);
        EXPECT_EQ(b.Data, nullptr);
        EXPECT_EQ(b.Palette, nullptr);
        EXPECT_EQ(b.MaxVal, 0u);
    }
    struct Case {
        int32_t width, bpp;
        uint32_t bytes;
    } known[] = {{1, 1, 4}, {33, 1, 8}, {3, 24, 12}, {1, 64, 8}, {5, 12, 8}, {7, 3, 4}, {11, 3, 8}};
    for (const auto& k : known) EXPECT_EQ(zktest::described(k.width, 1, k.bpp).BytesPerLine, k.bytes);
    // Zero width or height with a valid depth: an empty image.
    EXPECT_EQ(zktest::described(0, 10, 8).Size, 0u);
    EXPECT_EQ(zktest::described(10, 0, 8).Size, 0u);
}

// A refused depth, and zero width, height and depth together, leave a record
// that is all zero but for its size.
TEST(InitBitmap, InvalidDepthOrZeroGeometryLeavesZeroedRecord) {
    BitmapHandle zero{};
    zero.StructSize = static_cast<uint32_t>(Z_BITMAPHANDLE_SIZE);
    for (int32_t bpp = -2; bpp <= 70; ++bpp) {
        BitmapHandle b;
        std::memset(&b, 0xCD, sizeof b);
        const int32_t r = Z_InitBitmap(&b, Z_BITMAPHANDLE_SIZE, 5, 5, bpp);
        if (is_valid_depth(bpp)) {
            EXPECT_EQ(r, ST_OK) << bpp;
            continue;
        }
        ASSERT_EQ(r, ST_BAD_BPP) << bpp;
        EXPECT_EQ(bytes_of(b), bytes_of(zero)) << bpp;
    }
    BitmapHandle b;
    std::memset(&b, 0x5A, sizeof b);
    ASSERT_EQ(Z_InitBitmap(&b, Z_BITMAPHANDLE_SIZE, 0, 0, 0), ST_OK);
    EXPECT_EQ(bytes_of(b), bytes_of(zero));
    EXPECT_EQ(Z_InitBitmap(&b, Z_BITMAPHANDLE_SIZE, 1, 0, 0), ST_BAD_BPP);
    EXPECT_EQ(Z_InitBitmap(&b, Z_BITMAPHANDLE_SIZE, 0, 1, 0), ST_BAD_BPP);
    EXPECT_EQ(Z_InitBitmap(&b, Z_BITMAPHANDLE_SIZE, 0, 0, 1), ST_OK);
}

TEST(InitBitmap, BadRecordOrSizeWritesNothing) {
    EXPECT_EQ(Z_InitBitmap(nullptr, Z_BITMAPHANDLE_SIZE, 1, 1, 8), ST_BAD_PARAM);
    EXPECT_EQ(Z_InitBitmap(nullptr, 0, 1, 1, 8), ST_BAD_PARAM);  // the record is checked first
    for (int32_t size : {Z_BITMAPHANDLE_SIZE - 1, Z_BITMAPHANDLE_SIZE + 1, 0, -1, Z_BITMAPHANDLE_SIZE * 2}) {
        BitmapHandle b;
        std::memset(&b, 0xEE, sizeof b);
        const auto before = bytes_of(b);
        EXPECT_EQ(Z_InitBitmap(&b, size, 1, 1, 8), ST_BAD_STRUCT_SIZE) << size;
        EXPECT_EQ(bytes_of(b), before);
    }
}

TEST(Defaults, SettersAndTheirLimits) {
    struct Res {
        int32_t value;
        int32_t in_record;
    } values[] = {{0, 150}, {-1, 150}, {INT32_MIN, 150}, {1, 1}, {72, 72}, {INT32_MAX, INT32_MAX}};
    const int32_t x0 = Z_GetDefaultXResolution();
    const int32_t y0 = Z_GetDefaultYResolution();
    int32_t previous_x = x0;
    int32_t previous_y = y0;
    for (const auto& v : values) {
        SCOPED_TRACE(v.value);
        EXPECT_EQ(Z_SetDefaultXResolution(v.value), previous_x);
        EXPECT_EQ(Z_SetDefaultYResolution(v.value / 2), previous_y);
        previous_x = v.value;
        previous_y = v.value / 2;
        EXPECT_EQ(Z_GetDefaultXResolution(), v.value);
        const BitmapHandle b = zktest::described(1, 1, 1);
        EXPECT_EQ(b.XResolution, v.in_record);
        EXPECT_EQ(b.YResolution, v.value / 2 > 0 ? v.value / 2 : 150);
    }
    Z_SetDefaultXResolution(x0);
    Z_SetDefaultYResolution(y0);

    const uint32_t d0 = Z_GetDefaultDithering();
    for (uint32_t m = 0; m <= DITHER_CLUSTERED; ++m) {
        EXPECT_EQ(Z_DefaultDithering(m), ST_OK);
        EXPECT_EQ(Z_GetDefaultDithering(), m);
        EXPECT_EQ(zktest::described(1, 1, 8).DitherMethod, m);
    }
    for (uint32_t bad : {9u, 100u, 0xFFFFFFFFu}) {
        EXPECT_EQ(Z_DefaultDithering(bad), ST_BAD_PARAM);
        EXPECT_EQ(Z_GetDefaultDithering(), DITHER_CLUSTERED);
    }
    Z_DefaultDithering(d0);

    uint32_t type = 0;
    for (uint32_t t = 0; t <= 2048; ++t) {
        const bool ok = t == TYPE_CONV || t == TYPE_DISK;
        ASSERT_EQ(Z_SetDefaultMemoryType(t), ok ? ST_OK : ST_BAD_PARAM) << t;
        ASSERT_EQ(Z_GetDefaultMemoryType(&type), ST_OK);
        if (ok) {
            ASSERT_EQ(type, t);
        }
    }
    EXPECT_EQ(type, TYPE_DISK);
    EXPECT_EQ(Z_GetDefaultMemoryType(nullptr), ST_BAD_PARAM);
    EXPECT_EQ(Z_SetDefaultMemoryType(TYPE_CONV), ST_OK);
}

TEST(SetBitmapDataPointer, RulesInOrder) {
    uint8_t memory[64];
    const BitmapHandle base = zktest::described(4, 4, 8);  // Size 16
    struct Case {
        const char* what;
        uint32_t flags;
        uint32_t struct_size;  // 0 stands for the right size
        void* data;
        size_t size;
        int32_t want;
    } cases[] = {
        {"attach", BF_ALLOCATED | BF_USER_DATA | BF_MEMORY, 0, memory, 16, ST_OK},
        {"detach", BF_ALLOCATED | BF_USER_DATA, 0, nullptr, 0, ST_OK},
        {"detach ignores size", BF_ALLOCATED | BF_USER_DATA, 0, nullptr, 99, ST_OK},
        {"not allocated", BF_USER_DATA, 0, memory, 16, ST_BAD_PARAM},
        {"not user data", BF_ALLOCATED | BF_MEMORY, 0, memory, 16, ST_BAD_PARAM},
        {"global", BF_ALLOCATED | BF_USER_DATA | BF_GLOBAL, 0, memory, 16, ST_BAD_PARAM},
        {"size short", BF_ALLOCATED | BF_USER_DATA, 0, memory, 15, ST_BAD_PARAM},
        {"size long", BF_ALLOCATED | BF_USER_DATA, 0, memory, 17, ST_BAD_PARAM},
        {"struct size", BF_ALLOCATED | BF_USER_DATA, 1, memory, 16, ST_BAD_STRUCT_SIZE},
        {"flags before struct size", BF_ALLOCATED, 1, memory, 16, ST_BAD_PARAM},
        {"data size before struct size", BF_ALLOCATED | BF_USER_DATA, 2, memory, 1, ST_BAD_PARAM},
    };
    for (const auto& c : cases) {
        BitmapHandle b = base;
        b.Flags = c.flags;
        b.StructSize = c.struct_size == 0 ? static_cast<uint32_t>(Z_BITMAPHANDLE_SIZE) : c.struct_size;
        uint8_t* before = reinterpret_cast<uint8_t*>(&b);  // any non-null marker
        b.Data = before;
        EXPECT_EQ(Z_SetBitmapDataPointer(&b, c.data, c.size), c.want) << c.what;
        EXPECT_EQ(b.Data, c.want == ST_OK ? static_cast<uint8_t*>(c.data) : before) << c.what;
    }
    EXPECT_EQ(Z_SetBitmapDataPointer(nullptr, memory, 16), ST_BAD_PARAM);
}
