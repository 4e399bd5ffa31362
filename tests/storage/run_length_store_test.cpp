// Run-length storage against packed storage as the model: the same random
// sequence of row writes, partial writes, segments, rows handed over as
// runs and height changes on both must leave the same pixels; refused runs,
// a heap that cannot grow and moves between the kinds leave the bitmap as
// it was.
#include <cstring>
#include <random>
#include <vector>

#include "kinds.h"

namespace {

using Bytes = std::vector<uint8_t>;
using zktest::rows_of;

// A row with long runs, short runs or noise, chosen by `style`.
Bytes make_row(uint32_t bpl, int32_t width, int style, std::mt19937& rng) {
    Bytes row(bpl, 0);
    for (int32_t x = 0, colour = 0; x < width;) {
        const int32_t run = style == 0 ? 1 + rng() % 3 : style == 1 ? 1 + rng() % 200 : 1 + rng() % 90000;
        for (int32_t k = x; k < x + run && k < width; ++k)
            if (colour) row[k / 8] |= static_cast<uint8_t>(0x80 >> (k % 8));
        x += run;
        colour ^= 1;
    }
    return row;
}

// The runs of a packed row as the codec makes them.
Bytes runs_of(const Bytes& row, int32_t width) {
    Bytes runs(8 + 2 * size_t(width) + 4);
    const int32_t n = Z_CompressRow(runs.data(), row.data(), 0, static_cast<uint32_t>(width));
    EXPECT_EQ(n, width);
    uint32_t count;
    std::memcpy(&count, runs.data(), 4);
    runs.resize(4 + 2 * size_t(count));
    return runs;
}

void expect_same_pixels(BitmapHandle& got, BitmapHandle& want) {
    ASSERT_EQ(got.Height, want.Height);
    const size_t pixel_bytes = (size_t(want.Width) + 7) / 8;
    // Bits past the width are not pixels: packed storage keeps what was
    // written there, runs read them as 0.
    const auto last = static_cast<uint8_t>(0xFF00u >> (((want.Width - 1) & 7) + 1));
    auto a = rows_of(got), b = rows_of(want);
    for (size_t y = 0; y < a.size(); ++y) {
        a[y].resize(pixel_bytes), b[y].resize(pixel_bytes);
        a[y].back() &= last, b[y].back() &= last;
        ASSERT_EQ(a[y], b[y]) << "row " << y;
    }
}

}  // namespace

// Random sequences of every way of writing rows, on run-length storage and
// on packed storage side by side, for narrow, byte-sized and wide rows.
TEST(RunLengthStore, BehavesAsPackedStorage) {
    for (int32_t width : {1, 8, 13, 2480, 70001}) {
        SCOPED_TRACE(width);
        std::mt19937 rng(static_cast<uint32_t>(width));
        BitmapHandle runs = zktest::described(width, 9, 1), packed = zktest::described(width, 9, 1);
        ASSERT_EQ(Z_AllocateBitmap(&runs, TYPE_COMPRESSED), ST_OK);
        ASSERT_EQ(Z_AllocateBitmap(&packed, TYPE_CONV), ST_OK);
        const uint32_t bpl = packed.BytesPerLine;
        for (int step = 0; step < 300; ++step) {
            const uint32_t y = rng() % static_cast<uint32_t>(packed.Height);
            const Bytes row = make_row(bpl, width, static_cast<int>(rng() % 3), rng);
            switch (rng() % 6) {
                case 0:
                case 1:
                    ASSERT_EQ(Z_PutBitmapRow(&runs, row.data(), y, bpl), Z_PutBitmapRow(&packed, row.data(), y, bpl));
                    break;
                case 2: {
                    const uint32_t column = rng() % static_cast<uint32_t>(width),
                                   bytes = 1 + rng() % (bpl - column / 8);
                    ASSERT_EQ(Z_PutBitmapRowCol(&runs, row.data(), y, column, bytes),
                              Z_PutBitmapRowCol(&packed, row.data(), y, column, bytes));
                    break;
                }
                case 3: {
                    const uint32_t a = rng() % static_cast<uint32_t>(width), b = rng() % static_cast<uint32_t>(width);
                    const uint32_t segments[] = {std::min(a, b), std::max(a, b) + 1, 0, 1};
                    ASSERT_EQ(Z_PutBitmapRowSegments(&runs, row.data(), y, 0, segments, 4),
                              Z_PutBitmapRowSegments(&packed, row.data(), y, 0, segments, 4));
                    break;
                }
                case 4: {
                    const Bytes r = runs_of(row, width);
                    const auto n = static_cast<uint32_t>(r.size());
                    ASSERT_EQ(Z_PutBitmapRowCompressed(&runs, r.data(), y, n), static_cast<int32_t>(n));
                    ASSERT_EQ(Z_PutBitmapRowCompressed(&packed, r.data(), y, n), static_cast<int32_t>(n));
                    break;
                }
                case 5: {
                    const int32_t height = 1 + static_cast<int32_t>(rng() % 12);
                    ASSERT_EQ(Z_ChangeBitmapHeight(&runs, height), Z_ChangeBitmapHeight(&packed, height));
                    ASSERT_EQ(runs.Size, packed.Size);
                    break;
                }
            }
            if (step % 50 == 49) {
                expect_same_pixels(runs, packed);
                // Runs handed out are the codec's runs of the packed row.
                const Bytes want = runs_of(rows_of(packed)[y], width);
                Bytes got(want.size() + 3, 0xEE), from_packed(want.size(), 0);
                ASSERT_EQ(Z_GetBitmapRowCompressed(&runs, got.data(), y, static_cast<uint32_t>(got.size())),
                          static_cast<int32_t>(want.size()));
                ASSERT_EQ(Bytes(got.begin(), got.begin() + long(want.size())), want);
                ASSERT_EQ(Z_GetBitmapRowCompressed(&packed, from_packed.data(), y, uint32_t(want.size())),
                          static_cast<int32_t>(want.size()));
                ASSERT_EQ(from_packed, want);
                EXPECT_EQ(Z_GetBitmapRowCompressed(&runs, got.data(), y, uint32_t(want.size() - 1)), ST_BAD_PARAM);
            }
        }
        // Collecting the dead space keeps the pixels and whole steps.
        uint32_t type = 0, reserved = 0, live = 0;
        ASSERT_EQ(Z_TrimBitmapHeap(&runs), ST_OK);
        ASSERT_EQ(Z_GetBitmapMemoryInfo(&runs, &type, &reserved, &live, nullptr, nullptr, nullptr), ST_OK);
        EXPECT_EQ(type, TYPE_COMPRESSED);
        EXPECT_EQ(reserved % (256u << 10), 0u);
        EXPECT_LT(reserved - live, 256u << 10);
        expect_same_pixels(runs, packed);
        // Conversion to other depths reads the runs through row streams.
        BitmapHandle from_runs, from_packed;
        ASSERT_EQ(Z_ColorResBitmap(&runs, &from_runs, Z_BITMAPHANDLE_SIZE, 24, CRF_BYTE_ORDER_BGR, nullptr, nullptr, 0,
                                   nullptr, nullptr),
                  ST_OK);
        ASSERT_EQ(Z_ColorResBitmap(&packed, &from_packed, Z_BITMAPHANDLE_SIZE, 24, CRF_BYTE_ORDER_BGR, nullptr, nullptr,
                                   0, nullptr, nullptr),
                  ST_OK);
        EXPECT_EQ(rows_of(from_runs), rows_of(from_packed));
        Z_FreeBitmap(&from_runs);
        Z_FreeBitmap(&from_packed);
        // Moves between the kinds keep the pixels.
        ASSERT_EQ(Z_ToggleBitmapCompression(&runs), ST_OK);
        ASSERT_EQ(Z_GetBitmapMemoryInfo(&runs, &type, nullptr, nullptr, nullptr, nullptr, nullptr), ST_OK);
        EXPECT_EQ(type, TYPE_CONV);
        expect_same_pixels(runs, packed);
        ASSERT_EQ(Z_ChangeBitmapCompression(&packed, 1), ST_OK);
        ASSERT_EQ(Z_ChangeBitmapCompression(&packed, 1), ST_OK);
        expect_same_pixels(packed, runs);
        Z_FreeBitmap(&runs);
        Z_FreeBitmap(&packed);
    }
}

// Runs that do not make a row of Width pixels, or lie past the bytes given,
// are refused with the row unchanged; so are rows the heap has no room for.
TEST(RunLengthStore, RefusedRunsAndAFullHeapLeaveTheRows) {
    BitmapHandle b = zktest::described(20, 3, 1);
    ASSERT_EQ(Z_AllocateBitmap(&b, TYPE_COMPRESSED), ST_OK);
    std::mt19937 rng(7);
    for (uint32_t y = 0; y < 3; ++y)
        ASSERT_EQ(Z_PutBitmapRow(&b, make_row(b.BytesPerLine, 20, 1, rng).data(), y, b.BytesPerLine), 4);
    const auto before = rows_of(b);
    struct Bad {
        const char* what;
        std::vector<uint16_t> words;
        uint32_t count, bytes;  // bytes: 0 means exactly count words
    } bad[] = {{"short of the width", {5, 10}, 2, 0},
               {"past the width", {5, 10, 6}, 3, 0},
               {"count past the bytes", {5, 15}, 3, 0},
               {"bytes cut inside a word", {5, 15}, 2, 7},
               {"no count", {}, 0, 2}};
    for (const Bad& c : bad) {
        Bytes runs(4 + 2 * c.words.size());
        std::memcpy(runs.data(), &c.count, 4);
        if (!c.words.empty()) std::memcpy(runs.data() + 4, c.words.data(), 2 * c.words.size());
        const uint32_t bytes = c.bytes ? c.bytes : static_cast<uint32_t>(runs.size());
        EXPECT_EQ(Z_PutBitmapRowCompressed(&b, runs.data(), 1, bytes), ST_BAD_PARAM) << c.what;
    }
    EXPECT_EQ(Z_PutBitmapRowCompressed(&b, nullptr, 1, 8), ST_BAD_PARAM);
    EXPECT_EQ(Z_PutBitmapRowCompressed(&b, before[0].data(), 3, 8), ST_BAD_POSITION);
    EXPECT_EQ(Z_GrowBitmapHeap(nullptr, 1), ST_INVALID_BITMAP);
    BitmapHandle eight = zktest::described(20, 3, 8);
    ASSERT_EQ(Z_AllocateBitmap(&eight, TYPE_COMPRESSED | TYPE_CONV), ST_OK);  // conventional at 8 bits
    EXPECT_EQ(Z_GrowBitmapHeap(&eight, 1), ST_BAD_PARAM);
    EXPECT_EQ(Z_ChangeBitmapCompression(&eight, 1), ST_BAD_BPP);
    EXPECT_EQ(Z_PutBitmapRowCompressed(&eight, before[0].data(), 0, 8), ST_BAD_BPP);
    Z_FreeBitmap(&eight);
    EXPECT_EQ(rows_of(b), before);

    // A heap that cannot grow: noise rows of a wide bitmap fill the first
    // step, and every injected failure leaves every row as it was.
    BitmapHandle wide = zktest::described(60000, 8, 1);
    ASSERT_EQ(Z_AllocateBitmap(&wide, TYPE_COMPRESSED), ST_OK);
    const auto blank = rows_of(wide);
    using zk::platform::FaultKind;
    int failures = 0;
    zktest::sweep_faults({FaultKind::Allocation}, 50, [&](FaultKind kind, int n) {
        const auto rows = rows_of(wide);
        int32_t status = ST_OK;
        zktest::under_fault(kind, n, [&] {
            for (uint32_t y = 0; y < 8 && status >= 0; ++y)
                status = Z_PutBitmapRow(&wide, make_row(wide.BytesPerLine, 60000, 0, rng).data(), y, wide.BytesPerLine);
            return status;
        });
        if (status >= 0) return true;
        EXPECT_EQ(status, ST_NO_MEMORY);
        ++failures;
        // Rows before the failure were written; the failed one is as it was.
        const auto after = rows_of(wide);
        size_t changed = 0;
        while (changed < after.size() && after[changed] != rows[changed]) ++changed;
        for (size_t y = changed + 1; y < after.size(); ++y) EXPECT_EQ(after[y], rows[y]) << y;
        return false;
    });
    EXPECT_GT(failures, 0) << "the heap grew";
    EXPECT_NE(rows_of(wide), blank);
    Z_FreeBitmap(&wide);
    Z_FreeBitmap(&b);
}
