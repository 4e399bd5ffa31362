// Row access in every storage kind: round trips through every write and read
// path, the row cursor, tile boundaries and views, the disk path's errors and
// row segments against a per-pixel reference.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "../storage/kinds.h"
#include "bitmap_handle.h"
#include "storage.h"
#include "test_support.h"

using namespace zktest;
namespace pf = zk::platform;
namespace st = zk::storage;

namespace {

class Rows : public ::testing::Test {
protected:
    ThresholdGuard guard_;
    PrivateTempDir dir_;
};

// The bytes as they lie in the storage itself, read around row access.
std::vector<uint8_t> raw_bytes(BitmapHandle& b) {
    const size_t total = size_t{b.BytesPerLine} * static_cast<uint32_t>(b.Height);
    std::vector<uint8_t> out(total);
    auto read_file = [](Z_FILE f, uint64_t at, uint8_t* p, size_t n) {
        EXPECT_EQ(Z_OsSeek(f, static_cast<int64_t>(at), 0, nullptr), static_cast<int64_t>(at));
        EXPECT_EQ(Z_OsRead(f, p, static_cast<uint32_t>(n), nullptr), static_cast<int32_t>(n));
    };
    if (const st::TileTable* t = st::tile_table(b)) {
        size_t at = 0;
        for (uint32_t i = 0; i < t->TileCount; ++i) {
            const size_t n = st::tile_bytes(b, i);
            const st::TileEntry& e = t->entries()[i];
            if (e.view)
                std::memcpy(out.data() + at, e.view, n);
            else
                read_file(e.file, 0, out.data() + at, n);
            at += n;
        }
    } else if (b.Flags & BF_DISK) {
        read_file(static_cast<Z_FILE>(reinterpret_cast<intptr_t>(b.DataHandle)), 0, out.data(), total);
    } else {
        std::memcpy(out.data(), b.Data, total);
    }
    return out;
}

// The kinds of kinds.h plus tiles reached only through their files.
struct Subject {
    Kind kind;
    bool files_only;
};
const Subject kSubjects[] = {{Kind::Conventional, false}, {Kind::Global, false},    {Kind::Caller, false},
                             {Kind::TiledMemory, false},  {Kind::TiledDisk, false}, {Kind::TiledMixed, false},
                             {Kind::TiledDisk, true},     {Kind::Disk, false}};

void make_subject(const Subject& s, int32_t w, int32_t h, int32_t bpp, BitmapHandle& b, std::vector<uint8_t>& c) {
    make_bitmap(s.kind, w, h, bpp, b, c);
    if (s.files_only) {
        st::set_mapped_count(b, 0);
        st::tile_table(b)->MaxMapped = 0;
    }
}

// Write paths and read paths over a whole image of `bpl`-byte rows.
using Writer = std::function<void(BitmapHandle&, const std::vector<uint8_t>&)>;
using Reader = std::function<std::vector<uint8_t>(BitmapHandle&)>;

// Whole rows one at a time, downward or upward.
Writer put_rows(bool upward) {
    return [upward](BitmapHandle& b, const std::vector<uint8_t>& img) {
        for (int32_t i = 0; i < b.Height; ++i) {
            const int32_t r = upward ? b.Height - 1 - i : i;
            ASSERT_EQ(Z_PutBitmapRow(&b, &img[size_t{b.BytesPerLine} * r], r, b.BytesPerLine),
                      static_cast<int32_t>(b.BytesPerLine));
        }
    };
}
Reader get_rows(bool upward) {
    return [upward](BitmapHandle& b) {
        std::vector<uint8_t> out(size_t{b.BytesPerLine} * b.Height);
        for (int32_t i = 0; i < b.Height; ++i) {
            const int32_t r = upward ? b.Height - 1 - i : i;
            EXPECT_EQ(Z_GetBitmapRow(&b, &out[size_t{b.BytesPerLine} * r], r, b.BytesPerLine),
                      static_cast<int32_t>(b.BytesPerLine));
        }
        return out;
    };
}

std::vector<std::pair<const char*, Writer>> writers() {
    return {
        {"rows", put_rows(false)},
        {"rows upward", put_rows(true)},
        {"one call",
         [](BitmapHandle& b, const std::vector<uint8_t>& img) {
             ASSERT_EQ(Z_PutBitmapRow(&b, img.data(), 0, static_cast<uint32_t>(img.size())),
                       static_cast<int32_t>(img.size()));
         }},
        {"columns",
         [](BitmapHandle& b, const std::vector<uint8_t>& img) {
             // Three pieces per row split at pixel columns 5 and 20 (24 bits).
             for (int32_t r = 0; r < b.Height; ++r) {
                 const uint8_t* row = &img[size_t{b.BytesPerLine} * r];
                 ASSERT_EQ(Z_PutBitmapRowCol(&b, row + 60, r, 20, b.BytesPerLine - 60), int32_t(b.BytesPerLine - 60));
                 ASSERT_EQ(Z_PutBitmapRowCol(&b, row, r, 0, 15), 15);
                 ASSERT_EQ(Z_PutBitmapRowCol(&b, row + 15, r, 5, 45), 45);
             }
         }},
        {"segments",
         [](BitmapHandle& b, const std::vector<uint8_t>& img) {
             const uint32_t spans[] = {7, 37, 0, 7};
             for (int32_t r = 0; r < b.Height; ++r)
                 ASSERT_GE(Z_PutBitmapRowSegments(&b, &img[size_t{b.BytesPerLine} * r], r, 0, spans, 4), 0);
             // The padding after the last pixel is not part of any span.
             for (int32_t r = 0; r < b.Height; ++r)
                 ASSERT_EQ(Z_PutBitmapRowCol(&b, &img[size_t{b.BytesPerLine} * r + 111], r, 37, 1), 1);
         }},
    };
}

std::vector<std::pair<const char*, Reader>> readers() {
    return {
        {"rows", get_rows(false)},
        {"rows upward", get_rows(true)},
        {"one call",
         [](BitmapHandle& b) {
             std::vector<uint8_t> out(size_t{b.BytesPerLine} * b.Height);
             EXPECT_EQ(Z_GetBitmapRow(&b, out.data(), 0, static_cast<uint32_t>(out.size())),
                       static_cast<int32_t>(out.size()));
             return out;
         }},
        {"columns",
         [](BitmapHandle& b) {
             std::vector<uint8_t> out(size_t{b.BytesPerLine} * b.Height);
             for (int32_t r = 0; r < b.Height; ++r) {
                 uint8_t* row = &out[size_t{b.BytesPerLine} * r];
                 EXPECT_EQ(Z_GetBitmapRowCol(&b, row + 33, r, 11, b.BytesPerLine - 33), int32_t(b.BytesPerLine - 33));
                 EXPECT_EQ(Z_GetBitmapRowCol(&b, row, r, 0, 33), 33);
             }
             return out;
         }},
        {"storage", raw_bytes},
    };
}

TEST_F(Rows, EveryWritePathReadsBackThroughEveryReadPathInEveryKind) {
    for (const Subject& s : kSubjects) {
        for (const auto& [wname, write] : writers()) {
            SCOPED_TRACE(testing::Message()
                         << kind_name(s.kind) << (s.files_only ? " (files)" : "") << " write " << wname);
            BitmapHandle b;
            std::vector<uint8_t> caller;
            make_subject(s, 37, 10, 24, b, caller);  // 112-byte rows, 3 rows a tile
            const std::vector<uint8_t> img = random_bytes(size_t{b.BytesPerLine} * 10, 17);
            write(b, img);
            for (const auto& [rname, read] : readers()) EXPECT_EQ(read(b), img) << "read " << rname;
            if (const st::TileTable* t = st::tile_table(b)) {
                EXPECT_LE(t->MappedCount, t->MaxMapped);
            }
            Z_FreeBitmap(&b);
        }
    }
    EXPECT_TRUE(dir_.files().empty());
}

TEST_F(Rows, CountsRunOnIntoFollowingRowsAndAcrossTiles) {
    for (const Subject& s : kSubjects) {
        SCOPED_TRACE(kind_name(s.kind));
        BitmapHandle b;
        std::vector<uint8_t> caller;
        make_subject(s, 37, 10, 24, b, caller);
        const uint32_t bpl = b.BytesPerLine;
        const std::vector<uint8_t> img = random_bytes(size_t{bpl} * 10, 5);
        ASSERT_EQ(Z_PutBitmapRow(&b, img.data(), 0, bpl * 10), int32_t(bpl * 10));
        // The last row of tile 0 with the first of tile 1 (whole images in one
        // call are among the paths of the round trip above).
        std::vector<uint8_t> got(bpl * 2);
        ASSERT_EQ(Z_GetBitmapRow(&b, got.data(), 2, bpl * 2), int32_t(bpl * 2));
        EXPECT_TRUE(std::equal(got.begin(), got.end(), img.begin() + bpl * 2));
        // From a column of row 8 to the end of the image.
        ASSERT_EQ(Z_GetBitmapRowCol(&b, got.data(), 8, 30, 2 * bpl - 90), int32_t(2 * bpl - 90));
        EXPECT_TRUE(std::equal(got.begin(), got.begin() + 2 * bpl - 90, img.begin() + 8 * bpl + 90));
        // Beyond the end of the pixel data nothing is moved.
        if (!(b.Flags & BF_DISK)) {
            EXPECT_EQ(Z_GetBitmapRow(&b, got.data(), 9, bpl + 1), ST_BAD_PARAM);
        }
        Z_FreeBitmap(&b);
    }
}

TEST_F(Rows, CursorReusesStepsOrRecomputesTheRowOffset) {
    BitmapHandle b;
    std::vector<uint8_t> caller;
    make_bitmap(Kind::Conventional, 16, 20, 8, b, caller);
    std::vector<uint8_t> img(16 * 20);
    for (size_t i = 0; i < img.size(); ++i) img[i] = static_cast<uint8_t>(i / 16);  // each row holds its index
    ASSERT_EQ(Z_PutBitmapRow(&b, img.data(), 0, 16 * 20), 16 * 20);
    uint8_t row[16];
    struct Step {
        uint32_t row;
        size_t cursor_before;  // forced CurRowOffset (SIZE_MAX: leave it)
        uint8_t seen;
    } steps[] = {
        {4, SIZE_MAX, 4},
        {4, SIZE_MAX, 4},
        {5, SIZE_MAX, 5},
        {4, SIZE_MAX, 4},
        {12, SIZE_MAX, 12},
        // A stale offset is trusted for the same, next and previous rows and
        // replaced on a jump: the cursor is a cache, not a check.
        {12, 16 * 2, 2},
        {13, SIZE_MAX, 3},
        {12, SIZE_MAX, 2},
        {0, SIZE_MAX, 0},
        {19, SIZE_MAX, 19},
    };
    for (const Step& s : steps) {
        if (s.cursor_before != SIZE_MAX) b.CurRowOffset = s.cursor_before;
        ASSERT_EQ(Z_GetBitmapRow(&b, row, s.row, 16), 16);
        EXPECT_EQ(row[0], s.seen) << s.row;
        EXPECT_EQ(b.CurRow, s.row);
    }
    Z_FreeBitmap(&b);
    // Tiled storage neither reads nor moves the cursor.
    make_bitmap(Kind::TiledMixed, 16, 20, 8, b, caller);
    ASSERT_EQ(Z_PutBitmapRow(&b, img.data(), 0, 16 * 20), 16 * 20);
    b.CurRow = 3;
    b.CurRowOffset = 999;
    ASSERT_EQ(Z_GetBitmapRow(&b, row, 4, 16), 16);
    EXPECT_EQ(row[0], 4);
    EXPECT_EQ(b.CurRow, 3u);
    EXPECT_EQ(b.CurRowOffset, 999u);
    Z_FreeBitmap(&b);
}

TEST_F(Rows, ColumnStartsAtTheByteOfItsFirstBit) {
    for (int32_t bpp : {1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 24, 32, 48, 64}) {
        BitmapHandle b;
        std::vector<uint8_t> caller;
        make_bitmap(Kind::Conventional, 64, 1, bpp, b, caller);
        std::vector<uint8_t> img(b.BytesPerLine);
        for (size_t i = 0; i < img.size(); ++i) img[i] = static_cast<uint8_t>(i);
        ASSERT_EQ(Z_PutBitmapRow(&b, img.data(), 0, b.BytesPerLine), int32_t(b.BytesPerLine));
        for (uint32_t c = 0; c < 64; ++c) {
            uint8_t got = 0xEE;
            ASSERT_EQ(Z_GetBitmapRowCol(&b, &got, 0, c, 1), 1);
            EXPECT_EQ(got, static_cast<uint8_t>(c * static_cast<uint32_t>(bpp) / 8)) << bpp << " column " << c;
        }
        Z_FreeBitmap(&b);
    }
}

TEST_F(Rows, BadRecordsAndUnreachableStorage) {
    BitmapHandle b = described(8, 4, 8);
    uint8_t buf[32] = {};
    const uint32_t spans[] = {0, 1};
    EXPECT_EQ(Z_GetBitmapRow(nullptr, buf, 0, 8), ST_BAD_PARAM);
    EXPECT_EQ(Z_PutBitmapRow(&b, nullptr, 0, 8), ST_BAD_PARAM);
    EXPECT_EQ(Z_PutBitmapRowSegments(&b, buf, 0, 0, nullptr, 2), ST_BAD_PARAM);
    b.StructSize = 0;
    EXPECT_EQ(Z_GetBitmapRowCol(&b, buf, 0, 0, 8), ST_BAD_STRUCT_SIZE);
    EXPECT_EQ(Z_PutBitmapRowSegments(&b, buf, 0, 0, spans, 2), ST_BAD_STRUCT_SIZE);
    b.StructSize = Z_BITMAPHANDLE_SIZE;
    EXPECT_EQ(Z_GetBitmapRow(&b, buf, 0, 8), ST_NO_MEMORY);  // no storage
    // A span past the row's bytes is refused; an empty span is skipped.
    BitmapHandle row_of_12;
    std::vector<uint8_t> none;
    make_bitmap(Kind::Conventional, 10, 2, 8, row_of_12, none);
    const uint32_t past[] = {0, 13}, inside[] = {0, 12, 5, 3};
    EXPECT_EQ(Z_PutBitmapRowSegments(&row_of_12, buf, 0, 0, past, 2), ST_BAD_PARAM);
    EXPECT_EQ(Z_PutBitmapRowSegments(&row_of_12, buf, 0, 0, inside, 4), 12);
    Z_FreeBitmap(&row_of_12);
    // Global storage: Data only while locked.
    ASSERT_EQ(st::allocate_global(b), ST_OK);
    EXPECT_EQ(Z_GetBitmapRow(&b, buf, 1, 8), ST_INVALID_BITMAP);
    Z_AccessBitmap(&b);
    EXPECT_EQ(Z_GetBitmapRow(&b, buf, 1, 8), 8);
    Z_FreeBitmap(&b);
    // A run-length record without its store is invalid; the second
    // compressed form is not built and refuses.
    for (uint32_t flag : {BF_COMPRESSED, BF_SUPERCOMPRESSED}) {
        BitmapHandle c = described(8, 4, 1);
        c.Flags = BF_ALLOCATED | BF_MEMORY | flag;
        const int32_t want = flag == BF_COMPRESSED ? ST_INVALID_BITMAP : ST_BAD_PARAM;
        EXPECT_EQ(Z_GetBitmapRow(&c, buf, 0, 4), want);
        EXPECT_EQ(Z_PutBitmapRowCol(&c, buf, 0, 0, 4), want);
        EXPECT_EQ(Z_PutBitmapRowSegments(&c, buf, 0, 0, spans, 2), want);
    }
}

// The disk path goes through the thread's current I/O routines and reports
// their failures.
int g_seeks = 0;
int64_t Z_API counting_seek(Z_FILE f, int64_t offset, int32_t origin, void* user) {
    ++g_seeks;
    return Z_OsSeek(f, offset, origin, user);
}

TEST_F(Rows, DiskPathUsesTheCurrentRoutinesAndReportsTheirFailures) {
    BitmapHandle b;
    std::vector<uint8_t> caller;
    make_bitmap(Kind::Disk, 16, 4, 8, b, caller);
    uint8_t buf[16] = {1, 2, 3};
    ASSERT_EQ(Z_RedirectIO(nullptr, nullptr, nullptr, counting_seek, nullptr, nullptr), ST_OK);
    g_seeks = 0;
    EXPECT_EQ(Z_PutBitmapRow(&b, buf, 2, 16), 16);
    EXPECT_EQ(g_seeks, 1);
    ASSERT_EQ(Z_RedirectIO(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), ST_OK);
    struct Case {
        int nth;
        bool put;
        int32_t status;
    } cases[] = {{1, false, ST_FILE_SEEK}, {2, false, ST_FILE_READ}, {1, true, ST_FILE_SEEK}, {2, true, ST_FILE_WRITE}};
    for (const Case& c : cases) {
        FaultScope f(pf::FaultKind::File, c.nth);
        EXPECT_EQ(c.put ? Z_PutBitmapRow(&b, buf, 1, 16) : Z_GetBitmapRow(&b, buf, 1, 16), c.status);
    }
    uint8_t back[16] = {};
    EXPECT_EQ(Z_GetBitmapRow(&b, back, 2, 16), 16);
    EXPECT_EQ(std::memcmp(back, buf, 16), 0);
    Z_FreeBitmap(&b);
}

TEST_F(Rows, TopToBottomScanMapsEachDiskTileOnce) {
    BitmapHandle b;
    std::vector<uint8_t> caller;
    make_bitmap(Kind::TiledMixed, 64, 30, 8, b, caller);  // 10 tiles, 2 in memory, 1 view
    const st::TileTable* t = st::tile_table(b);
    ASSERT_EQ(t->TileCount, 10u);
    ASSERT_EQ(t->MemTiles, 2u);
    std::vector<uint8_t> row(64);
    for (int pass = 0; pass < 2; ++pass) {
        pf::reset_fault_counters();
        for (uint32_t r = 0; r < 30; ++r) {
            ASSERT_EQ(Z_GetBitmapRow(&b, row.data(), r, 64), 64);
            EXPECT_LE(t->MappedCount, t->MaxMapped);
        }
        // The first disk tile is mapped from allocation on the first pass,
        // and the last one stays mapped into the second.
        EXPECT_EQ(pf::fault_calls(pf::FaultKind::Mapping), 7 + pass);
    }
    Z_FreeBitmap(&b);
}

// --- segments ---------------------------------------------------------------
uint64_t get_bits(const uint8_t* p, uint64_t at, uint32_t n) {
    uint64_t v = 0;
    for (uint32_t k = 0; k < n; ++k) v = (v << 1) | ((p[(at + k) / 8] >> (7 - (at + k) % 8)) & 1u);
    return v;
}

void set_bits(uint8_t* p, uint64_t at, uint32_t n, uint64_t v) {
    for (uint32_t k = 0; k < n; ++k) {
        const uint64_t bit = (v >> (n - 1 - k)) & 1u;
        const uint8_t m = static_cast<uint8_t>(0x80u >> ((at + k) % 8));
        p[(at + k) / 8] = static_cast<uint8_t>(bit ? (p[(at + k) / 8] | m) : (p[(at + k) / 8] & ~m));
    }
}

TEST_F(Rows, SegmentMasksForNarrowPixels) {
    // Start and end masks by the pixel's place within its byte group.
    const uint8_t start[7][8] = {
        {0xFF, 0x7F, 0x3F, 0x1F, 0x0F, 0x07, 0x03, 0x01}, {0xFF, 0x3F, 0x0C, 0x03},  // 0C: the fourth pixel is kept
        {0xFF, 0x1F, 0x03, 0x7F, 0x0F, 0x01, 0x3F, 0x07}, {0xFF, 0x0F},
        {0xFF, 0x07, 0x3F, 0x01, 0x0F, 0x7F, 0x03, 0x1F}, {0xFF, 0x03, 0x0F, 0x3F},
        {0xFF, 0x01, 0x03, 0x07, 0x0F, 0x1F, 0x3F, 0x7F}};
    const uint8_t end[7][8] = {{0xFF, 0x80, 0xC0, 0xE0, 0xF0, 0xF8, 0xFC, 0xFE}, {0xFF, 0xC0, 0xF0, 0xFC},
                               {0xFF, 0xE0, 0xFC, 0x80, 0xF0, 0xFE, 0xC0, 0xF8}, {0xFF, 0xF0},
                               {0xFF, 0xF8, 0xC0, 0xFE, 0xF0, 0x80, 0xFC, 0xE0}, {0xFF, 0xFC, 0xF0, 0xC0},
                               {0xFF, 0xFE, 0xFC, 0xF8, 0xF0, 0xE0, 0xC0, 0x80}};
    const uint32_t group[7] = {8, 4, 8, 2, 8, 4, 8};
    BitmapHandle b;
    std::vector<uint8_t> caller;
    for (int32_t bpp = 1; bpp <= 7; ++bpp) {
        make_bitmap(Kind::Conventional, 64, 1, bpp, b, caller);
        const std::vector<uint8_t> ones(b.BytesPerLine, 0xFF), zeros(b.BytesPerLine, 0);
        const uint32_t g = group[bpp - 1];
        for (uint32_t p = 1; p < g; ++p) {
            SCOPED_TRACE(testing::Message() << bpp << " bits, place " << p);
            // (p, group): the start byte takes the start mask's bits.
            ASSERT_EQ(Z_PutBitmapRow(&b, zeros.data(), 0, b.BytesPerLine), int32_t(b.BytesPerLine));
            const uint32_t span1[] = {p, g};
            ASSERT_GT(Z_PutBitmapRowSegments(&b, ones.data(), 0, 0, span1, 2), 0);
            EXPECT_EQ(b.Data[zk::column_offset(bpp, p)], start[bpp - 1][p]);
            // (0, p): the byte where pixel p starts takes the end mask's bits.
            ASSERT_EQ(Z_PutBitmapRow(&b, zeros.data(), 0, b.BytesPerLine), int32_t(b.BytesPerLine));
            const uint32_t span2[] = {0, p};
            ASSERT_GT(Z_PutBitmapRowSegments(&b, ones.data(), 0, 0, span2, 2), 0);
            EXPECT_EQ(b.Data[zk::column_offset(bpp, p)], end[bpp - 1][p]);
        }
        Z_FreeBitmap(&b);
    }
    // One span inside one byte: both masks together (1F AND F8 = 18).
    make_bitmap(Kind::Conventional, 16, 1, 1, b, caller);
    const uint8_t ones[4] = {0xFF, 0xFF, 0xFF, 0xFF}, zeros[4] = {};
    ASSERT_EQ(Z_PutBitmapRow(&b, zeros, 0, 4), 4);
    const uint32_t span[] = {3, 5};
    EXPECT_EQ(Z_PutBitmapRowSegments(&b, ones, 0, 0, span, 2), 1);
    EXPECT_EQ(b.Data[0], 0x18);
    EXPECT_EQ(b.Data[1], 0x00);
    Z_FreeBitmap(&b);
}

TEST_F(Rows, SegmentsMatchAPerPixelReferenceAtEveryDepthAndKind) {
    std::mt19937 rng(7);
    for (const Subject& s : kSubjects) {
        for (int32_t bpp : {1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 24, 32, 48, 64}) {
            SCOPED_TRACE(testing::Message() << kind_name(s.kind) << (s.files_only ? " (files)" : "") << " " << bpp);
            const int32_t width = 45;
            BitmapHandle b;
            std::vector<uint8_t> caller;
            make_subject(s, width, 9, bpp, b, caller);
            const uint32_t bpl = b.BytesPerLine;
            std::vector<uint8_t> model = random_bytes(size_t{bpl} * 9, static_cast<uint32_t>(bpp));
            ASSERT_EQ(Z_PutBitmapRow(&b, model.data(), 0, bpl * 9), int32_t(bpl * 9));
            for (int trial = 0; trial < 12; ++trial) {
                const uint32_t row = rng() % 9;
                const uint32_t x = trial % 3 == 0 ? 0 : rng() % 9;  // offsets inside a byte too
                const std::vector<uint8_t> src = random_bytes(bpl, rng());
                std::vector<uint32_t> spans;
                for (uint32_t at = rng() % 4; at + x < static_cast<uint32_t>(width);) {
                    const uint32_t end = std::min<uint32_t>(at + 1 + rng() % 9, static_cast<uint32_t>(width) - x);
                    spans.push_back(at);
                    spans.push_back(end);
                    at = end + rng() % 5;
                }
                ASSERT_GE(
                    Z_PutBitmapRowSegments(&b, src.data(), row, x, spans.data(), static_cast<uint32_t>(spans.size())),
                    0);
                uint8_t* m = &model[size_t{bpl} * row];
                for (size_t k = 0; k < spans.size(); k += 2)
                    for (uint32_t p = spans[k]; p < spans[k + 1]; ++p)
                        // At 2 bits a span starting on the third pixel of a
                        // byte leaves the byte's last pixel as it was.
                        if (!(bpp == 2 && (x + spans[k]) % 4 == 2 && p == spans[k] + 1))
                            set_bits(m, uint64_t{x + p} * bpp, static_cast<uint32_t>(bpp),
                                     get_bits(src.data(), uint64_t{p} * bpp, static_cast<uint32_t>(bpp)));
            }
            std::vector<uint8_t> got(model.size());
            ASSERT_EQ(Z_GetBitmapRow(&b, got.data(), 0, bpl * 9), int32_t(bpl * 9));
            EXPECT_EQ(got, model);
            Z_FreeBitmap(&b);
        }
    }
    EXPECT_TRUE(dir_.files().empty());
}

}  // namespace
