// The optimized-palette generator held to what its results must be: a
// palettized or few-colour source given back exactly, separated clusters found
// again, a photo-like source served better than the fixed palette, the match
// table answering every cell by the nearest-colour rule, one palette from
// every storage kind and from a list, and bad input and injected failures
// leaving the caller's bitmap and palette as they were.
#include <algorithm>
#include <array>
#include <cstring>
#include <random>
#include <set>
#include <vector>

#include "../storage/kinds.h"
#include "reduce/match_table.h"

namespace {

using zktest::Kind;
using Rgb = std::array<int, 3>;  // red, green, blue
using Pixels = std::vector<Rgb>;

// Writes pixels (rows top to bottom) into a 24-bit BGR bitmap.
void put(BitmapHandle& b, const Pixels& px) {
    std::vector<uint8_t> row(b.BytesPerLine);
    for (int y = 0; y < b.Height; ++y) {
        for (int x = 0; x < b.Width; ++x)
            for (int c = 0; c < 3; ++c) row[3 * x + c] = static_cast<uint8_t>(px[y * b.Width + x][2 - c]);
        ASSERT_EQ(Z_PutBitmapRow(&b, row.data(), y, b.BytesPerLine), static_cast<int32_t>(b.BytesPerLine));
    }
}
BitmapHandle bitmap24(int w, int h, const Pixels& px) {
    BitmapHandle b;
    std::vector<uint8_t> unused;
    zktest::make_bitmap(Kind::Conventional, w, h, 24, b, unused);
    put(b, px);
    return b;
}
// Smooth gradients with noise (`levels` > 0: only that many values a channel).
Pixels photo(int w, int h, uint32_t seed, int levels = 0) {
    std::mt19937 rng(seed);
    Pixels px;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            Rgb p{x * 255 / w, 60 + 150 * y / h + int(rng() % 9), 128 + int(90 * std::sin((x + 2 * y) / 11.0))};
            for (int& v : p) v = levels ? v * levels / 256 * 255 / (levels - 1) : std::clamp(v, 0, 255);
            px.push_back(p);
        }
    return px;
}
int dist2(const Rgb& p, const RGBQUAD& e) {
    return (p[0] - e.rgbRed) * (p[0] - e.rgbRed) + (p[1] - e.rgbGreen) * (p[1] - e.rgbGreen) +
           (p[2] - e.rgbBlue) * (p[2] - e.rgbBlue);
}
// Mean squared error of each pixel mapped to its nearest selectable entry.
double nearest_mse(const Pixels& px, const RGBQUAD* pal, uint32_t count) {
    double sum = 0;
    for (const Rgb& p : px) {
        int best = INT32_MAX;
        for (uint32_t i = 0; i < count; ++i)
            if (zk::reduce::selectable(pal[i])) best = std::min(best, dist2(p, pal[i]));
        sum += best;
    }
    return sum / (3.0 * px.size());
}
std::vector<RGBQUAD> fill_palette(uint32_t count) { return std::vector<RGBQUAD>(count, RGBQUAD{9, 8, 7, Z_PAL_FILL}); }
bool same(const std::vector<RGBQUAD>& a, const std::vector<RGBQUAD>& b) {
    return a.size() == b.size() && (a.empty() || !std::memcmp(a.data(), b.data(), a.size() * 4));
}
std::vector<uint8_t> bytes_of(BitmapHandle& b) {
    std::vector<uint8_t> out(b.Size);
    for (int y = 0; y < b.Height; ++y) Z_GetBitmapRow(&b, out.data() + size_t(y) * b.BytesPerLine, y, b.BytesPerLine);
    return out;
}

}  // namespace

// A palettized source whose palette fits, and a 24-bit source of few colours,
// each into an all-fill palette and a mixed one (kept, reserved, fill).
TEST(OptimizePalette, ExactResultsAndEntryRoles) {
    std::mt19937 rng(7);
    RGBQUAD own[16];
    for (RGBQUAD& e : own) e = RGBQUAD{uint8_t(rng()), uint8_t(rng()), uint8_t(rng()), 0};
    BitmapHandle indexed{};
    ASSERT_EQ(Z_CreateBitmap(&indexed, Z_BITMAPHANDLE_SIZE, TYPE_CONV, 21, 9, 4, CO_RGB, own, 0, nullptr, 0), ST_OK);
    for (int y = 0; y < 9; ++y) Z_PutBitmapRow(&indexed, zktest::random_bytes(12, y).data(), y, 12);
    Pixels few;
    for (int i = 0; i < 33 * 17; ++i) few.push_back(Rgb{40 * int(rng() % 5), 200, 13});
    BitmapHandle rgb = bitmap24(33, 17, few);
    const std::set<Rgb> few_set(few.begin(), few.end());

    for (uint32_t layout : {0u, 1u}) {
        const uint32_t count = layout ? 40 : 256;
        std::vector<RGBQUAD> pal(count);
        const uint8_t roles[] = {0, Z_PAL_RESERVED, Z_PAL_RESERVED | Z_PAL_FILL, Z_PAL_FILL, Z_PAL_FILL};
        for (uint32_t i = 0; i < count; ++i)
            pal[i] =
                RGBQUAD{uint8_t(rng()), uint8_t(rng()), uint8_t(rng()), layout ? roles[i % 5] : uint8_t(Z_PAL_FILL)};
        for (BitmapHandle* src : {&indexed, &rgb}) {
            SCOPED_TRACE(::testing::Message() << "layout " << layout << ", depth " << src->BitsPerPixel);
            std::vector<RGBQUAD> out = pal;
            uint32_t used = 0;
            int32_t exact = 0;
            ASSERT_EQ(Z_CreateOptimizedPalette(src, out.data(), count, &used, &exact, nullptr), ST_OK);
            EXPECT_EQ(exact, 1);
            // Filled entries in index order, reserved byte cleared; the rest as they were.
            std::vector<RGBQUAD> filled;
            for (uint32_t i = 0; i < count; ++i) {
                if (pal[i].rgbReserved == Z_PAL_FILL && filled.size() < used) {
                    EXPECT_EQ(out[i].rgbReserved, 0) << i;
                    filled.push_back(out[i]);
                } else {
                    EXPECT_EQ(std::memcmp(&out[i], &pal[i], 4), 0) << "entry " << i << " kept or left over";
                }
            }
            std::set<Rgb> got;
            for (const RGBQUAD& e : filled) got.insert(Rgb{e.rgbRed, e.rgbGreen, e.rgbBlue});
            if (src == &indexed) {
                EXPECT_TRUE(filled.size() == 16 && !std::memcmp(filled.data(), own, sizeof own));
            } else {
                EXPECT_EQ(got, few_set);
                EXPECT_EQ(used, few_set.size());
            }
        }
    }
    Z_FreeBitmap(&indexed);
    Z_FreeBitmap(&rgb);
}

// Every depth and order: the exact colours are those the rows convert to
// through the public buffer conversion (palette, gray levels, LUT, bit window).
TEST(OptimizePalette, EveryDepthReadsLikeConversion) {
    struct Depth {
        int32_t bits;
        uint32_t order;
        bool lut;
    };
    const Depth depths[] = {{4, CO_RGB, false},   {8, CO_RGB, false},  {8, CO_GRAY, false}, {12, CO_GRAY, true},
                            {16, CO_GRAY, false}, {16, CO_BGR, false}, {24, CO_RGB, false}, {24, CO_ALT_BGR, false},
                            {32, CO_BGR, false},  {48, CO_RGB, false}, {64, CO_BGR, false}};
    std::vector<RGBQUAD> colours(4096);
    for (uint32_t i = 0; i < 4096; ++i) colours[i] = RGBQUAD{uint8_t(i * 7), uint8_t(i >> 4), uint8_t(i * 3), 0};
    for (const Depth& d : depths) {
        SCOPED_TRACE(::testing::Message() << d.bits << " bits, order " << d.order);
        BitmapHandle b;
        std::vector<uint8_t> unused;
        zktest::make_bitmap(Kind::Conventional, 6, 2, d.bits, b, unused);
        b.Order = d.order;
        const int32_t put_colours = d.bits <= 8 ? Z_PutBitmapColors(&b, 0, 1 << d.bits, colours.data()) : ST_OK;
        ASSERT_EQ(put_colours, ST_OK);
        if (d.bits == 16 && d.order == CO_GRAY) b.LowBit = 4, b.HighBit = 11;
        if (d.lut) {
            b.LUT = static_cast<RGBQUAD*>(Z_OsAlloc(4096 * sizeof(RGBQUAD)));
            std::memcpy(b.LUT, colours.data(), 4096 * sizeof(RGBQUAD));
            b.LUTLength = 4096;
            b.Flags |= BF_LUT_USED;
        }
        std::set<Rgb> want;
        for (int y = 0; y < 2; ++y) {
            const std::vector<uint8_t> row = zktest::random_bytes(b.BytesPerLine, 40 + y);
            Z_PutBitmapRow(&b, row.data(), y, b.BytesPerLine);
            std::vector<uint8_t> buf(Z_CalcConvertSize(6, d.bits, 6, 24) + row.size());
            std::copy(row.begin(), row.end(), buf.begin());
            const bool gray8 = d.bits == 8 && d.order == CO_GRAY, range = d.bits > 8 && d.order == CO_GRAY;
            ASSERT_EQ(Z_ConvertBufferExt(buf.data(), 6, gray8 ? 0 : d.bits, 24, d.order, CO_BGR,
                                         d.lut || d.bits <= 8 ? (d.lut ? b.LUT : b.Palette) : nullptr, nullptr,
                                         range ? CVT_SRC_RANGE : 0, b.LowBit, b.HighBit),
                      ST_OK);
            for (int x = 0; x < 6; ++x) want.insert(Rgb{buf[3 * x + 2], buf[3 * x + 1], buf[3 * x]});
        }
        std::vector<RGBQUAD> pal = fill_palette(12);
        uint32_t used = 0;
        int32_t exact = 0;
        ASSERT_EQ(Z_CreateOptimizedPalette(&b, pal.data(), 12, &used, &exact, nullptr), ST_OK);
        std::set<Rgb> got;
        for (uint32_t i = 0; i < used; ++i) got.insert(Rgb{pal[i].rgbRed, pal[i].rgbGreen, pal[i].rgbBlue});
        EXPECT_EQ(exact, 1);
        EXPECT_EQ(got, want);
        EXPECT_EQ(used, want.size());
        Z_FreeBitmap(&b);
    }
}

// K separated clusters with symmetric noise: each centre not already among
// the kept entries comes back as one filled entry, whichever entries are kept.
TEST(OptimizePalette, FindsClusterCentres) {
    std::mt19937 rng(11);
    std::vector<Rgb> centres;
    while (centres.size() < 12) {
        const Rgb c{20 + int(rng() % 216), 20 + int(rng() % 216), 20 + int(rng() % 216)};
        RGBQUAD e{uint8_t(c[2]), uint8_t(c[1]), uint8_t(c[0]), 0};
        if (std::all_of(centres.begin(), centres.end(), [&](const Rgb& o) { return dist2(o, e) >= 60 * 60; }))
            centres.push_back(c);
    }
    Pixels px;
    for (int i = 0; i < 96 * 64; ++i) {
        Rgb p = centres[i % 12];
        for (int& v : p) v += int(rng() % 13) - 6;
        px.push_back(p);
    }
    BitmapHandle b = bitmap24(96, 64, px);
    for (uint32_t kept : {0u, 4u}) {
        std::vector<RGBQUAD> pal = fill_palette(12);
        for (uint32_t i = 0; i < kept; ++i)
            pal[i] = RGBQUAD{uint8_t(centres[i][2]), uint8_t(centres[i][1]), uint8_t(centres[i][0]), 0};
        uint32_t used = 0;
        int32_t exact = 1;
        ASSERT_EQ(Z_CreateOptimizedPalette(&b, pal.data(), 12, &used, &exact, nullptr), ST_OK);
        EXPECT_EQ(exact, 0);
        ASSERT_EQ(used, 12 - kept);
        for (uint32_t c = kept; c < 12; ++c) {
            int best = INT32_MAX;
            for (uint32_t i = kept; i < kept + used; ++i) best = std::min(best, dist2(centres[c], pal[i]));
            EXPECT_LE(best, 3) << "centre " << c << " with " << kept << " kept";
        }
    }
    Z_FreeBitmap(&b);
}

// A photo-like source: nearer than the fixed 256-colour palette, and a match
// table whose every cell holds the rule's answer for the finished palette
// (kept and reserved entries among the filled ones, so positions differ from
// indices).
TEST(OptimizePalette, PhotoBeatsFixedPaletteAndTableAnswersEveryCell) {
    const Pixels px = photo(128, 96, 3);
    BitmapHandle b = bitmap24(128, 96, px);
    std::vector<RGBQUAD> fixed(256);
    ASSERT_EQ(Z_GetFixedPalette(fixed.data(), 8), ST_OK);
    std::vector<RGBQUAD> pal = fill_palette(256);
    // Kept entries where a cell's own entry is not the one nearest its
    // corner: (15,15,15) against (6,6,6), and two in one cell, the later at
    // the corner.
    const RGBQUAD kept[] = {{0, 0, 0, 0}, {15, 15, 15, 0}, {6, 6, 6, 0}, {23, 23, 207, 0}, {16, 16, 200, 0}};
    std::copy(std::begin(kept), std::end(kept), pal.begin());
    pal[7] = RGBQUAD{1, 2, 3, Z_PAL_RESERVED};
    pal[255] = RGBQUAD{255, 255, 255, 0};
    std::vector<uint32_t> table(Z_MATCH_TABLE_CELLS, 0xDEAD);
    uint32_t used = 0;
    ASSERT_EQ(Z_CreateOptimizedPalette(&b, pal.data(), 256, &used, nullptr, table.data()), ST_OK);
    EXPECT_EQ(used, 249u);
    EXPECT_LT(nearest_mse(px, pal.data(), 256), 0.5 * nearest_mse(px, fixed.data(), 256));

    std::vector<RGBQUAD> list;  // the selectable entries in index order
    for (const RGBQUAD& e : pal)
        if (zk::reduce::selectable(e)) list.push_back(e);
    for (uint32_t cell = 0; cell < Z_MATCH_TABLE_CELLS; ++cell) {
        const uint32_t r = (cell >> 10) << 3, g = (cell >> 5 & 31) << 3, bl = (cell & 31) << 3;
        uint32_t want = Z_FindPaletteIndex(list.data(), uint32_t(list.size()), r, g, bl);
        for (uint32_t p = 0; p < list.size(); ++p)  // an entry's own cell names the first entry in it
            if (zk::reduce::match_cell(list[p].rgbRed, list[p].rgbGreen, list[p].rgbBlue) == cell) {
                want = p;
                break;
            }
        ASSERT_EQ(table[cell], want + 1) << "cell " << cell;
    }
    Z_FreeBitmap(&b);
}

// Every storage kind, 24-bit and palettized 8-bit, gives the conventional
// bitmap's palette and table and is read without being changed; under
// injected allocation, mapping and file failures the call either gives that
// palette or fails with bitmap and palette as they were.
TEST(OptimizePalette, EveryKindAndFaultSweep) {
    zktest::PrivateTempDir temp;
    zktest::ThresholdGuard guard;
    const Pixels px = photo(40, 30, 5);
    RGBQUAD grays[256];
    for (int i = 0; i < 256; ++i) grays[i] = RGBQUAD{uint8_t(i), uint8_t(255 - i), uint8_t(i * 7), 0};
    for (int32_t bpp : {24, 8}) {
        std::vector<RGBQUAD> want;
        std::vector<uint32_t> want_table;
        for (Kind kind : zktest::kAllKinds) {
            SCOPED_TRACE(::testing::Message() << zktest::kind_name(kind) << ", " << bpp << " bits");
            BitmapHandle b;
            std::vector<uint8_t> caller;
            zktest::make_bitmap(kind, 40, 30, bpp, b, caller);
            if (bpp == 24) {
                put(b, px);
            } else {
                ASSERT_EQ(Z_PutBitmapColors(&b, 0, 256, grays), ST_OK);
                for (int y = 0; y < 30; ++y) Z_PutBitmapRow(&b, zktest::random_bytes(40, y).data(), y, 40);
            }
            const BitmapHandle before = b;
            const std::vector<uint8_t> pixels = bytes_of(b);
            std::vector<RGBQUAD> pal = fill_palette(64);
            std::vector<uint32_t> table(Z_MATCH_TABLE_CELLS);
            ASSERT_EQ(Z_CreateOptimizedPalette(&b, pal.data(), 64, nullptr, nullptr, table.data()), ST_OK);
            if (want.empty()) want = pal, want_table = table;
            EXPECT_TRUE(same(pal, want));
            EXPECT_EQ(table, want_table);
            EXPECT_EQ(std::memcmp(&b, &before, sizeof b), 0);
            EXPECT_EQ(bytes_of(b), pixels);
            if (kind == Kind::Conventional || kind == Kind::TiledDisk || kind == Kind::Disk) {
                using zk::platform::FaultKind;
                zktest::sweep_faults(
                    {FaultKind::Allocation, FaultKind::Mapping, FaultKind::File}, 100, [&](FaultKind fault, int n) {
                        std::vector<RGBQUAD> p = fill_palette(64);
                        const int32_t r = zktest::under_fault(fault, n, [&] {
                            return Z_CreateOptimizedPalette(&b, p.data(), 64, nullptr, nullptr, table.data());
                        });
                        EXPECT_EQ(std::memcmp(&b, &before, sizeof b), 0);
                        EXPECT_EQ(bytes_of(b), pixels);
                        EXPECT_TRUE(same(p, r == ST_OK ? want : fill_palette(64))) << r;
                        return r == ST_OK;
                    });
            }
            Z_FreeBitmap(&b);
        }
    }
    EXPECT_TRUE(temp.files().empty());
}

// A list gives the palette of one bitmap holding its bitmaps' rows one after
// another, exact (few colours in all) or not.
TEST(OptimizePalette, ListIsOneBitmapOfAllRows) {
    for (int levels : {0, 2}) {
        const Pixels top = photo(24, 10, 1, levels), bottom = photo(24, 7, 2, levels);
        Pixels both = top;
        both.insert(both.end(), bottom.begin(), bottom.end());
        BitmapHandle whole = bitmap24(24, 17, both);
        std::vector<RGBQUAD> want = fill_palette(16), got = want;
        uint32_t used[2] = {};
        int32_t exact[2] = {};
        ASSERT_EQ(Z_CreateOptimizedPalette(&whole, want.data(), 16, &used[0], &exact[0], nullptr), ST_OK);
        BitmapList list = nullptr;
        ASSERT_EQ(Z_CreateBitmapList(&list), ST_OK);
        for (BitmapHandle part : {bitmap24(24, 10, top), bitmap24(24, 7, bottom)})
            ASSERT_EQ(Z_InsertBitmapListItem(list, Z_LIST_APPEND, &part), ST_OK);
        ASSERT_EQ(Z_CreateBitmapListOptPal(list, got.data(), 16, &used[1], &exact[1], nullptr), ST_OK);
        EXPECT_TRUE(same(got, want) && used[0] == used[1] && exact[0] == exact[1] && exact[0] == (levels ? 1 : 0));
        Z_DestroyBitmapList(list);
        Z_FreeBitmap(&whole);
    }
}

TEST(OptimizePalette, BadInput) {
    BitmapHandle b = bitmap24(8, 8, photo(8, 8, 9));
    BitmapHandle wrong_size = b, unallocated = zktest::described(8, 8, 24), signed_data = b;
    wrong_size.StructSize = 12;
    signed_data.Flags |= BF_SIGNED;
    std::vector<uint32_t> table(Z_MATCH_TABLE_CELLS);
    // The status, with the palette left as it was.
    const auto call = [&](BitmapHandle* bitmap, std::vector<RGBQUAD> palette, uint32_t count) {
        std::vector<RGBQUAD> p = palette;
        const int32_t r =
            Z_CreateOptimizedPalette(bitmap, p.empty() ? nullptr : p.data(), count, nullptr, nullptr, table.data());
        EXPECT_TRUE(same(p, palette));
        return r;
    };
    const std::vector<RGBQUAD> fill = fill_palette(4), none(4, RGBQUAD{1, 2, 3, Z_PAL_FILL | Z_PAL_RESERVED});
    EXPECT_EQ(call(nullptr, fill, 4), ST_BAD_PARAM);
    EXPECT_EQ(call(&b, {}, 4), ST_BAD_PARAM);
    EXPECT_EQ(call(&b, fill, 0), ST_BAD_PARAM);
    EXPECT_EQ(call(&b, fill_palette(257), 257), ST_BAD_PARAM);
    EXPECT_EQ(call(&b, none, 4), ST_BAD_PARAM);
    EXPECT_EQ(call(&wrong_size, fill, 4), ST_BAD_STRUCT_SIZE);
    EXPECT_EQ(call(&unallocated, fill, 4), ST_INVALID_BITMAP);
    EXPECT_EQ(call(&signed_data, fill, 4), ST_SIGNED_DATA);
    BitmapList empty = nullptr;
    ASSERT_EQ(Z_CreateBitmapList(&empty), ST_OK);
    std::vector<RGBQUAD> p = fill;
    EXPECT_EQ(Z_CreateBitmapListOptPal(nullptr, p.data(), 4, nullptr, nullptr, nullptr), ST_BAD_PARAM);
    EXPECT_EQ(Z_CreateBitmapListOptPal(empty, p.data(), 4, nullptr, nullptr, nullptr), ST_BAD_PARAM);
    EXPECT_TRUE(same(p, fill));
    Z_DestroyBitmapList(empty);
    Z_FreeBitmap(&b);
}
