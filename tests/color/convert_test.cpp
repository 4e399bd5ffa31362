// Row conversion: refusals, every pair of depths, colour orders, gray ranges
// and LUTs, palette mapping, the second colour space, sweeps, round trips
// and the fast paths against the general one.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "color/convert.h"
#include "test_support.h"
#include "tiers.h"
#include "zkernel.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint32_t kNone = 0xFFFFFFFFu;

struct Call {
    int32_t src_bits;
    uint32_t dst_bits;
    int32_t src_order = CO_BGR;
    uint32_t dst_order = CO_BGR;
    const RGBQUAD* src_palette = nullptr;
    const RGBQUAD* dst_palette = nullptr;
    int32_t flags = -1;  // -1: Z_ConvertBuffer
    uint32_t low = kNone, high = kNone;
};

// Runs a conversion on a copy of `row` padded to the conversion size plus a
// guard band that must stay untouched.
int32_t convert(Bytes& row, int32_t width, const Call& c) {
    // Refused requests may carry sizes that mean nothing; keep the row then.
    const int32_t calc = width > 0 ? Z_CalcConvertSize(width, static_cast<uint32_t>(c.src_bits), width, c.dst_bits) : 0;
    const size_t size = std::max(row.size(), static_cast<size_t>(std::clamp(calc, 0, 1 << 20)));
    Bytes buf(size + 16, 0xA5);
    std::copy(row.begin(), row.end(), buf.begin());
    const int32_t st = c.flags < 0
                           ? Z_ConvertBuffer(buf.data(), width, c.src_bits, c.dst_bits, c.src_order, c.dst_order,
                                             c.src_palette, c.dst_palette)
                           : Z_ConvertBufferExt(buf.data(), width, c.src_bits, c.dst_bits, c.src_order, c.dst_order,
                                                c.src_palette, c.dst_palette, c.flags, c.low, c.high);
    for (size_t i = size; i < buf.size(); ++i) EXPECT_EQ(buf[i], 0xA5) << "guard byte " << i - size;
    row.assign(buf.begin(), buf.begin() + static_cast<long>(size));
    return st;
}

// Bytes of a row of `bits` per pixel for `width` pixels (depth 0 is 8).
size_t row_bytes(int32_t width, int32_t bits) {
    const int64_t b = bits == 0 ? 8 : bits;
    return static_cast<size_t>((width * b + 7) / 8);
}

Bytes head(const Bytes& b, size_t n) { return Bytes(b.begin(), b.begin() + static_cast<long>(n)); }

std::string hex(const Bytes& b) {
    std::string s;
    char t[4];
    for (uint8_t v : b) {
        std::snprintf(t, sizeof t, "%02x ", v);
        s += t;
    }
    return s;
}

RGBQUAD rgb(int r, int g, int b) {
    return RGBQUAD{static_cast<uint8_t>(b), static_cast<uint8_t>(g), static_cast<uint8_t>(r), 0};
}

// Test-side encoding of a colour in a colour layout, from the format rules.
Bytes encode_colour(uint32_t bits, uint32_t order, int r, int g, int b, int alpha = 0) {
    const int c0 = order == CO_RGB ? r : b, c2 = order == CO_RGB ? b : r;
    switch (bits) {
        case 16: {
            const int w = (c2 >> 3) << 10 | (g >> 3) << 5 | (c0 >> 3);
            return {static_cast<uint8_t>(w), static_cast<uint8_t>(w >> 8)};
        }
        case 24: return {static_cast<uint8_t>(c0), static_cast<uint8_t>(g), static_cast<uint8_t>(c2)};
        case 32:
            return {static_cast<uint8_t>(c0), static_cast<uint8_t>(g), static_cast<uint8_t>(c2),
                    static_cast<uint8_t>(alpha)};
        default: {
            Bytes out;
            for (int v : {c0 * 257, g * 257, c2 * 257}) {
                out.push_back(static_cast<uint8_t>(v));
                out.push_back(static_cast<uint8_t>(v >> 8));
            }
            if (bits == 64) {
                out.push_back(static_cast<uint8_t>(alpha));
                out.push_back(static_cast<uint8_t>(alpha >> 8));
            }
            return out;
        }
    }
}

// ---------------------------------------------------------------------------

TEST(ConvertSize, LargestOfTheRows) {
    EXPECT_EQ(Z_CalcConvertSize(100, 1, 100, 24), 300);
    EXPECT_EQ(Z_CalcConvertSize(100, 24, 50, 1), 300);
    EXPECT_EQ(Z_CalcConvertSize(10, 0, 10, 0), 12);
    EXPECT_EQ(Z_CalcConvertSize(3, 12, 3, 0), 8);
    EXPECT_EQ(Z_CalcConvertSize(5, 4, 9, 4), 8);  // destination width at source depth
    EXPECT_EQ(Z_CalcConvertSize(1, 64, 1, 1), 8);
}

TEST(ConvertBuffer, RefusalsLeaveTheBufferAlone) {
    struct Case {
        const char* what;
        Call call;
        int32_t width = 4;
    } cases[] = {
        {"width 0", {24, 24}, 0},
        {"negative width", {24, 24}, -3},
        {"source depth 9", {9, 24}},
        {"source depth 10", {10, 24}},
        {"source depth 65", {65, 24}},
        {"source depth -1", {-1, 24}},
        {"destination depth 13", {24, 13}},
        {"destination depth 128", {24, 128}},
        {"source order 3", {24, 24, 3, CO_BGR}},
        {"source order -1", {8, 24, -1, CO_BGR}},
        {"destination order 4", {24, 8, CO_BGR, 4}},
        {"24-bit gray source", {24, 24, CO_GRAY, CO_BGR}},
        {"24-bit gray destination", {24, 24, CO_BGR, CO_GRAY}},
        {"32-bit second space", {24, 32, CO_BGR, CO_ALT_BGR}},
        {"64-bit second space", {24, 64, CO_BGR, CO_ALT_BGR}},
        {"16-bit second space", {24, 16, CO_BGR, CO_ALT_BGR}},
        {"16-bit source second space", {16, 24, CO_ALT_BGR, CO_BGR}},
        {"32-bit source second space", {32, 24, CO_ALT_BGR, CO_BGR}},
        {"12-bit colour source", {12, 24, CO_RGB, CO_BGR}},
        {"12-bit colour destination", {24, 12, CO_BGR, CO_RGB}},
        {"both ranges", {16, 16, CO_GRAY, CO_GRAY, nullptr, nullptr, CVT_SRC_RANGE | CVT_DST_RANGE, 2, 9}},
        {"source range on colour", {16, 24, CO_BGR, CO_BGR, nullptr, nullptr, CVT_SRC_RANGE, 2, 9}},
        {"destination range on colour", {24, 16, CO_BGR, CO_BGR, nullptr, nullptr, CVT_DST_RANGE, 2, 9}},
        {"empty range", {16, 0, CO_GRAY, CO_GRAY, nullptr, nullptr, CVT_SRC_RANGE, 9, 5}},
        {"range past bit 31", {16, 0, CO_GRAY, CO_GRAY, nullptr, nullptr, CVT_SRC_RANGE, 30, 40}},
    };
    const Bytes original = zktest::random_bytes(64, 7);
    for (const auto& c : cases) {
        Bytes row = original;
        EXPECT_EQ(convert(row, c.width, c.call), ST_BAD_PARAM) << c.what;
        EXPECT_EQ(head(row, std::min(row.size(), original.size())),
                  head(original, std::min(row.size(), original.size())))
            << c.what;
    }
    EXPECT_EQ(Z_ConvertBuffer(nullptr, 4, 24, 24, CO_BGR, CO_RGB, nullptr, nullptr), ST_BAD_PARAM);
    EXPECT_EQ(Z_ConvertBufferExt(nullptr, 4, 24, 24, CO_BGR, CO_RGB, nullptr, nullptr, 0, kNone, kNone), ST_BAD_PARAM);
}

// The cases the format rules spell out.
TEST(ConvertBuffer, StatedExamples) {
    struct Case {
        const char* what;
        Call call;
        Bytes in, out;
    } cases[] = {
        {"bgr to rgb swaps", {24, 24, CO_BGR, CO_RGB}, {1, 2, 3, 4, 5, 6}, {3, 2, 1, 6, 5, 4}},
        {"bgr to bgr keeps", {24, 24, CO_BGR, CO_BGR}, {1, 2, 3, 4, 5, 6}, {1, 2, 3, 4, 5, 6}},
        {"red to gray", {24, 0, CO_BGR, CO_BGR}, {0, 0, 255, 255, 255, 255}, {64, 255}},
        {"white to 555", {24, 16, CO_BGR, CO_BGR}, {255, 255, 255}, {0xFF, 0x7F}},
        {"555 white back", {16, 24, CO_BGR, CO_BGR}, {0xFF, 0x7F}, {255, 255, 255}},
        {"171 widened", {24, 48, CO_BGR, CO_BGR}, {171, 0, 1}, {0xAB, 0xAB, 0, 0, 1, 1}},
        {"48 keeps high byte", {48, 24, CO_BGR, CO_BGR}, {0xFF, 0x12, 0x00, 0x34, 0x80, 0x56}, {0x12, 0x34, 0x56}},
        {"32 alpha 0", {24, 32, CO_BGR, CO_BGR}, {1, 2, 3}, {1, 2, 3, 0}},
        {"32 alpha opaque", {24, 32, CO_BGR, CO_BGR, nullptr, nullptr, CVT_OPAQUE_ALPHA}, {1, 2, 3}, {1, 2, 3, 255}},
        {"32 source alpha dropped", {32, 32, CO_BGR, CO_RGB}, {1, 2, 3, 9}, {3, 2, 1, 0}},
        {"64 alpha opaque",
         {24, 64, CO_BGR, CO_RGB, nullptr, nullptr, CVT_OPAQUE_ALPHA},
         {1, 2, 3},
         {3, 3, 2, 2, 1, 1, 0xFF, 0xFF}},
        {"32 to 24 drops alpha", {32, 24, CO_RGB, CO_RGB}, {1, 2, 3, 4, 5, 6, 7, 8}, {1, 2, 3, 5, 6, 7}},
        {"16 gray top byte", {16, 0, CO_GRAY, CO_GRAY}, {0x34, 0x12, 0xFF, 0xAB}, {0x12, 0xAB}},
        {"1-bit gray by index", {1, 0, CO_BGR, CO_BGR}, {0x80}, {1}},
    };
    for (const auto& c : cases) {
        Bytes row = c.in;
        ASSERT_EQ(
            convert(row, static_cast<int32_t>(c.out.size() * 8 / (c.call.dst_bits ? c.call.dst_bits : 8)), c.call),
            ST_OK)
            << c.what;
        EXPECT_EQ(head(row, c.out.size()), c.out) << c.what << ": " << hex(head(row, c.out.size()));
    }
    // Same palette, same depth: returns at once, bytes untouched.
    Bytes row = zktest::random_bytes(16, 3);
    const Bytes before = row;
    const RGBQUAD* fixed = Z_IntGetFixedPalette(8);
    EXPECT_EQ(convert(row, 16, {8, 8, CO_BGR, CO_BGR, fixed, fixed}), ST_OK);
    EXPECT_EQ(row, before);
}

// Every pair of depths on a two-pixel row holding (132, 132, 132) and black,
// a colour every format stores exactly. Orders are CO_BGR, or CO_GRAY for the
// gray formats; palettized formats use a palette with black at 0 and the gray
// at 1.
TEST(ConvertBuffer, EveryPairOfDepths) {
    struct Format {
        const char* name;
        int32_t bits;
        uint32_t order;
        Bytes pixels;  // the two pixels
    };
    std::vector<Format> formats = {
        {"0", 0, CO_BGR, {0x84, 0x00}},
        {"12", 12, CO_GRAY, {0x47, 0x08, 0x00}},  // 8-bit 132 widened: 132 * 4095 / 255 = 2119
        {"16c", 16, CO_BGR, {0x10, 0x42, 0, 0}},
        {"16g", 16, CO_GRAY, {0x84, 0x84, 0, 0}},
        {"24", 24, CO_BGR, {0x84, 0x84, 0x84, 0, 0, 0}},
        {"32", 32, CO_BGR, {0x84, 0x84, 0x84, 0, 0, 0, 0, 0}},
        {"48", 48, CO_BGR, {0x84, 0x84, 0x84, 0x84, 0x84, 0x84, 0, 0, 0, 0, 0, 0}},
        {"64", 64, CO_BGR, {0x84, 0x84, 0x84, 0x84, 0x84, 0x84, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
    };
    for (int b = 1; b <= 8; ++b)
        formats.push_back({nullptr, b, CO_BGR, {static_cast<uint8_t>(b == 8 ? 1 : 1 << (8 - b)), 0}});
    std::vector<RGBQUAD> palette(256, rgb(250, 10, 200));
    palette[0] = rgb(0, 0, 0);
    palette[1] = rgb(132, 132, 132);

    // As a source, the 12-bit row holds 132 << 4 (its top byte is 132).
    const Bytes src12 = {0x40, 0x08, 0x00};
    // Deep gray to deep gray and to 16-bit channels keeps the sample's own
    // precision: 2112 of 12 bits widens to 2112 * 65535 / 4095 = 33799
    // (0x8407); 0x8484 of 16 bits narrows to 0x848 of 12.
    struct Override {
        const char* src;
        const char* dst;
        Bytes out;
    } overrides[] = {
        {"12", "12", {0x40, 0x08, 0x00}},
        {"12", "16g", {0x07, 0x84, 0, 0}},
        {"12", "48", {0x07, 0x84, 0x07, 0x84, 0x07, 0x84, 0, 0, 0, 0, 0, 0}},
        {"12", "64", {0x07, 0x84, 0x07, 0x84, 0x07, 0x84, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
        {"16g", "12", {0x48, 0x08, 0x00}},
    };
    int pairs = 0;
    for (const auto& s : formats) {
        for (const auto& d : formats) {
            const std::string sn = s.name ? s.name : std::to_string(s.bits);
            const std::string dn = d.name ? d.name : std::to_string(d.bits);
            Call c{s.bits, static_cast<uint32_t>(d.bits), static_cast<int32_t>(s.order), d.order};
            if (s.bits >= 1 && s.bits <= 8) c.src_palette = palette.data();
            if (d.bits >= 1 && d.bits <= 8) c.dst_palette = palette.data();
            Bytes row = sn == "12" ? src12 : s.pixels;
            Bytes want = d.pixels;
            for (const auto& o : overrides)
                if (sn == o.src && dn == o.dst) want = o.out;
            ASSERT_EQ(convert(row, 2, c), ST_OK) << sn << " -> " << dn;
            if (d.bits >= 1 && d.bits <= 8) {
                // Only the 2 * bits pixel bits are the result; the rest of the
                // bytes keep what the buffer held.
                want.resize(row_bytes(2, d.bits));
                row.resize(want.size());
                const int tail = static_cast<int>(8 * want.size()) - 2 * d.bits;
                row.back() = static_cast<uint8_t>(row.back() & (0xFF << tail));
            }
            EXPECT_EQ(head(row, want.size()), want) << sn << " -> " << dn << ": " << hex(head(row, want.size()));
            ++pairs;
        }
    }
    EXPECT_EQ(pairs, 16 * 16);
}

// Colour orders between every pair of colour layouts, on a colour whose
// channels survive 5 bits: (206, 99, 49).
TEST(ConvertBuffer, ColourOrdersBetweenColourLayouts) {
    const int r = 206, g = 99, b = 49;
    const uint32_t depths[] = {16, 24, 32, 48, 64};
    for (uint32_t sd : depths)
        for (uint32_t dd : depths)
            for (uint32_t so : {CO_RGB, CO_BGR})
                for (uint32_t dor : {CO_RGB, CO_BGR})
                    for (int32_t flags : {0, static_cast<int32_t>(CVT_OPAQUE_ALPHA)}) {
                        Bytes row = encode_colour(sd, so, r, g, b, 0x77);
                        Bytes second = encode_colour(sd, so, 8, 16, 255, 0x77);
                        row.insert(row.end(), second.begin(), second.end());
                        const int alpha = flags ? (dd == 64 ? 0xFFFF : 0xFF) : 0;
                        Bytes want = encode_colour(dd, dor, r, g, b, alpha);
                        Bytes want2 = encode_colour(dd, dor, 8, 16, 255, alpha);
                        want.insert(want.end(), want2.begin(), want2.end());
                        Call c{static_cast<int32_t>(sd), dd, static_cast<int32_t>(so), dor, nullptr, nullptr, flags};
                        ASSERT_EQ(convert(row, 2, c), ST_OK);
                        EXPECT_EQ(head(row, want.size()), want)
                            << sd << "/" << so << " -> " << dd << "/" << dor << " flags " << flags;
                    }
}

// Every byte value through each channel rule.
TEST(ConvertSweeps, AllByteValues) {
    Bytes row;
    for (int v = 0; v < 256; ++v) row.insert(row.end(), {static_cast<uint8_t>(v), 0, 0});
    // 24 -> 48: v * 257 in each channel; and back by the high byte.
    Bytes wide = row;
    ASSERT_EQ(convert(wide, 256, {24, 48, CO_BGR, CO_BGR}), ST_OK);
    for (int v = 0; v < 256; ++v) {
        ASSERT_EQ(wide[6 * v] | wide[6 * v + 1] << 8, v * 257) << v;
        ASSERT_EQ(wide[6 * v + 2] | wide[6 * v + 3] << 8, 0);
    }
    ASSERT_EQ(convert(wide, 256, {48, 24, CO_BGR, CO_BGR}), ST_OK);
    EXPECT_EQ(head(wide, row.size()), row);

    // Each channel alone to gray: weights 1 (blue), 5 (green), 2 (red).
    for (int channel = 0; channel < 3; ++channel) {
        Bytes c(3 * 256, 0);
        for (int v = 0; v < 256; ++v) c[3 * v + channel] = static_cast<uint8_t>(v);
        ASSERT_EQ(convert(c, 256, {24, 0, CO_BGR, CO_BGR}), ST_OK);
        const int weight = channel == 0 ? 1 : channel == 1 ? 5 : 2;
        for (int v = 0; v < 256; ++v) ASSERT_EQ(c[v], (weight * v + 4) >> 3) << channel << " " << v;
    }

    // 5-bit rule: 24 -> 16 -> 24 gives (v >> 3) << 3 | (v >> 5).
    Bytes five = row;
    ASSERT_EQ(convert(five, 256, {24, 16, CO_BGR, CO_BGR}), ST_OK);
    ASSERT_EQ(convert(five, 256, {16, 24, CO_BGR, CO_BGR}), ST_OK);
    for (int v = 0; v < 256; ++v) ASSERT_EQ(five[3 * v], ((v >> 3) << 3) | (v >> 5)) << v;

    // Gray byte to 12 and 16-bit gray: floor(g * (2^nb - 1) / 255), and back.
    Bytes gray(256);
    for (int v = 0; v < 256; ++v) gray[v] = static_cast<uint8_t>(v);
    for (uint32_t deep : {12u, 16u}) {
        Bytes d = gray;
        ASSERT_EQ(convert(d, 256, {0, deep, CO_GRAY, CO_GRAY}), ST_OK);
        for (int v = 0; v < 256; ++v) {
            const uint32_t s = deep == 16 ? (d[2 * v] | d[2 * v + 1] << 8)
                                          : (v & 1 ? (d[3 * (v / 2) + 1] >> 4 | d[3 * (v / 2) + 2] << 4)
                                                   : (d[3 * (v / 2)] | (d[3 * (v / 2) + 1] & 15) << 8));
            ASSERT_EQ(s, static_cast<uint32_t>(v) * ((1u << deep) - 1) / 255) << deep << " " << v;
        }
        ASSERT_EQ(convert(d, 256, {static_cast<int32_t>(deep), 0, CO_GRAY, CO_GRAY}), ST_OK);
        EXPECT_EQ(head(d, 256), gray) << deep;
    }
}

// Every 24-bit colour to gray in both channel orders, 4,096 colours a row:
// the largest dot products and every rounding case of (2R + 5G + B + 4) >> 3.
TEST(ConvertSweeps, EveryColourToGray) {
    constexpr uint32_t kRow = 4096;
    Bytes row(3 * kRow);
    for (uint32_t order : {CO_RGB, CO_BGR})
        for (uint32_t first = 0; first < (1u << 24); first += kRow) {
            for (uint32_t k = 0; k < kRow; ++k) {
                const uint32_t c = first + k;
                row[3 * k] = static_cast<uint8_t>(c);
                row[3 * k + 1] = static_cast<uint8_t>(c >> 8);
                row[3 * k + 2] = static_cast<uint8_t>(c >> 16);
            }
            ASSERT_EQ(convert(row, kRow, {24, 0, static_cast<int32_t>(order), CO_BGR}), ST_OK);
            for (uint32_t k = 0; k < kRow; ++k) {
                const uint32_t c = first + k, lo = c & 255, mid = c >> 8 & 255, hi = c >> 16;
                const uint32_t want = order == CO_RGB ? zk::gray8(lo, mid, hi) : zk::gray8(hi, mid, lo);
                if (row[k] != want) FAIL() << "colour " << c << " order " << order;
            }
        }
}

TEST(ConvertSweeps, All555Values) {
    for (uint32_t order : {CO_RGB, CO_BGR}) {
        Bytes row(2 * 32768);
        for (int v = 0; v < 32768; ++v) {
            row[2 * v] = static_cast<uint8_t>(v);
            row[2 * v + 1] = static_cast<uint8_t>(v >> 8);
        }
        const Bytes original = row;
        ASSERT_EQ(convert(row, 32768, {16, 24, static_cast<int32_t>(order), CO_BGR}), ST_OK);
        // Spot the expansion of one channel, then come back.
        EXPECT_EQ(row[3 * 0x7C00 + (order == CO_BGR ? 2 : 0)], 255);
        ASSERT_EQ(convert(row, 32768, {24, 16, CO_BGR, order}), ST_OK);
        EXPECT_EQ(head(row, original.size()), original) << order;
    }
}

TEST(ConvertSweeps, Every12BitSample) {
    // 4,096 samples packed two in three bytes, through 16-bit gray and back.
    Bytes row(3 * 2048);
    for (uint32_t s = 0; s < 4096; ++s) {
        uint8_t* q = row.data() + 3 * (s / 2) + (s & 1);
        if (s & 1) {
            q[0] = static_cast<uint8_t>((q[0] & 0x0F) | (s & 15) << 4);
            q[1] = static_cast<uint8_t>(s >> 4);
        } else {
            q[0] = static_cast<uint8_t>(s);
            q[1] = static_cast<uint8_t>(s >> 8);
        }
    }
    const Bytes original = row;
    ASSERT_EQ(convert(row, 4096, {12, 16, CO_GRAY, CO_GRAY}), ST_OK);
    for (uint32_t s = 0; s < 4096; ++s) ASSERT_EQ(row[2 * s] | row[2 * s + 1] << 8, s * 65535 / 4095) << s;
    ASSERT_EQ(convert(row, 4096, {16, 12, CO_GRAY, CO_GRAY}), ST_OK);
    EXPECT_EQ(head(row, original.size()), original);
    // To 8-bit gray: the top 8 bits.
    row = original;
    ASSERT_EQ(convert(row, 4096, {12, 0, CO_GRAY, CO_GRAY}), ST_OK);
    for (uint32_t s = 0; s < 4096; ++s) ASSERT_EQ(row[s], s >> 4) << s;
}

TEST(ConvertRoundTrips, ColourLayouts) {
    for (int width : {1, 2, 3, 7, 64, 65, 333}) {
        const Bytes row = zktest::random_bytes(3 * static_cast<size_t>(width), static_cast<uint32_t>(width));
        for (uint32_t mid : {32u, 48u, 64u})
            for (uint32_t order : {CO_RGB, CO_BGR}) {
                Bytes r = row;
                ASSERT_EQ(convert(r, width, {24, mid, CO_BGR, order}), ST_OK);
                ASSERT_EQ(convert(r, width, {static_cast<int32_t>(mid), 24, static_cast<int32_t>(order), CO_BGR}),
                          ST_OK);
                EXPECT_EQ(head(r, row.size()), row) << width << " via " << mid << "/" << order;
            }
        // The second space survives 48 bits.
        Bytes r = row;
        ASSERT_EQ(convert(r, width, {24, 48, CO_ALT_BGR, CO_ALT_BGR}), ST_OK);
        ASSERT_EQ(convert(r, width, {48, 24, CO_ALT_BGR, CO_ALT_BGR}), ST_OK);
        EXPECT_EQ(head(r, row.size()), row) << width;
    }
}

// Palettized rows through 24 bits and back with the same palette of
// distinct colours are unchanged; this also walks every sub-byte packing in
// both directions in place.
TEST(ConvertRoundTrips, PalettizedThroughColour) {
    std::mt19937 rng(11);
    for (int32_t bits = 1; bits <= 8; ++bits) {
        std::vector<RGBQUAD> pal(256);
        for (int i = 0; i < 256; ++i) pal[i] = rgb(i, (i * 37) & 255, 255 - i);
        for (int width : {1, 2, 3, 5, 8, 9, 31, 100}) {
            Bytes row(row_bytes(width, bits));
            for (auto& v : row) v = static_cast<uint8_t>(rng());
            // Bits past the last pixel are not pixels; clear them.
            const int tail = static_cast<int>(row.size() * 8 - static_cast<size_t>(width * bits));
            row.back() = static_cast<uint8_t>(row.back() & (0xFF << tail));
            for (uint32_t mid : {24u, 32u, 48u}) {
                Bytes r = row;
                ASSERT_EQ(convert(r, width, {bits, mid, CO_BGR, CO_RGB, pal.data(), nullptr}), ST_OK);
                ASSERT_EQ(convert(r, width,
                                  {static_cast<int32_t>(mid), static_cast<uint32_t>(bits), CO_RGB, CO_BGR, nullptr,
                                   pal.data()}),
                          ST_OK);
                r.resize(row.size());
                r.back() = static_cast<uint8_t>(r.back() & (0xFF << tail));
                EXPECT_EQ(r, row) << bits << " bits, width " << width << " via " << mid;
            }
        }
    }
}

// Palette mapping between palettized depths.
TEST(ConvertPalettes, Mapping) {
    std::vector<RGBQUAD> small(16), big(256, rgb(1, 200, 3));
    for (int i = 0; i < 16; ++i) small[i] = rgb(16 * i, 255 - 16 * i, 7 * i);
    std::copy(small.begin(), small.end(), big.begin());
    // A prefix-equal palette maps indices to themselves.
    Bytes row = {0x01, 0x23, 0x45, 0xEF};
    ASSERT_EQ(convert(row, 8, {4, 8, CO_BGR, CO_BGR, small.data(), big.data()}), ST_OK);
    EXPECT_EQ(head(row, 8), (Bytes{0, 1, 2, 3, 4, 5, 14, 15}));
    // Moved entries are found where they went.
    std::vector<RGBQUAD> reversed(small.rbegin(), small.rend());
    row = {0x01, 0x23};
    ASSERT_EQ(convert(row, 4, {4, 4, CO_BGR, CO_BGR, small.data(), reversed.data()}), ST_OK);
    EXPECT_EQ(head(row, 2), (Bytes{0xFE, 0xDC}));
    // No source palette: index i is gray level i; no destination palette: the
    // fixed palette of the depth.
    row = {0x00, 0x03};  // 2-bit indices 0, 0, 0, 0, 0, 0, 0, 3
    ASSERT_EQ(convert(row, 8, {2, 8, CO_BGR, CO_BGR, nullptr, Z_IntGetFixedPalette(8)}), ST_OK);
    EXPECT_EQ(row[7], Z_FindPaletteIndex(Z_IntGetFixedPalette(8), 256, 3, 3, 3));
    row = {0x0F};  // 4-bit indices 0 and 15 of `small` to the fixed 1-bit palette
    ASSERT_EQ(convert(row, 2, {4, 1, CO_BGR, CO_BGR, small.data(), nullptr}), ST_OK);
    EXPECT_EQ(row[0] >> 6, static_cast<int>(Z_FindPaletteIndex(Z_IntGetFixedPalette(1), 2, 0, 255, 0) << 1 |
                                            Z_FindPaletteIndex(Z_IntGetFixedPalette(1), 2, 240, 15, 105)));
    // Palettized to gray: the gray level of each colour.
    row = {0x0F};
    ASSERT_EQ(convert(row, 2, {4, 0, CO_BGR, CO_BGR, small.data(), nullptr}), ST_OK);
    EXPECT_EQ(head(row, 2), (Bytes{(0 + 5 * 255 + 0 + 4) >> 3, (2 * 240 + 5 * 15 + 105 + 4) >> 3}));
}

// Colour to palette indices equals the search, pixel by pixel, for random
// colours against a custom palette (the per-colour memo must not change it).
TEST(ConvertPalettes, ColourToIndexEqualsTheSearch) {
    std::vector<RGBQUAD> pal(256);
    std::mt19937 rng(5);
    for (auto& e : pal) e = rgb(rng() & 255, rng() & 255, rng() & 255);
    const int width = 5000;
    Bytes row = zktest::random_bytes(3 * width, 21);
    for (int i = 0; i < 300; ++i) std::copy_n(row.begin() + 3 * i, 3, row.begin() + 3 * (width - 1 - i));
    const Bytes src = row;
    for (uint32_t bits : {8u, 5u}) {
        row = src;
        ASSERT_EQ(convert(row, width, {24, bits, CO_RGB, CO_BGR, nullptr, pal.data()}), ST_OK);
        for (int i = 0; i < width; ++i) {
            const uint32_t want =
                Z_FindPaletteIndex(pal.data(), 1u << bits, src[3 * i], src[3 * i + 1], src[3 * i + 2]);
            const uint32_t got =
                bits == 8 ? row[i] : (((row[5 * i / 8] << 8 | row[5 * i / 8 + 1]) >> (11 - 5 * i % 8)) & 31);
            ASSERT_EQ(got, want & ((1u << bits) - 1)) << bits << " pixel " << i;
        }
    }
}

// Deep gray: bit ranges, LUTs and destination fields.
TEST(ConvertGray, RangesAndLuts) {
    // 16-bit samples, bits 4..11 significant: (s >> 4) & 255.
    Bytes row = {0x34, 0x12, 0xF0, 0x0F};
    ASSERT_EQ(convert(row, 2, {16, 0, CO_GRAY, CO_GRAY, nullptr, nullptr, CVT_SRC_RANGE, 4, 11}), ST_OK);
    EXPECT_EQ(head(row, 2), (Bytes{0x23, 0xFF}));
    // Bits 0..3 only: 4-bit levels stretched to 255.
    row = {0x0A, 0x77, 0x0F, 0x00};
    ASSERT_EQ(convert(row, 2, {16, 0, CO_GRAY, CO_GRAY, nullptr, nullptr, CVT_SRC_RANGE, 0, 3}), ST_OK);
    EXPECT_EQ(head(row, 2), (Bytes{170, 255}));
    // A range covering the whole sample is dropped: same as none.
    row = {0x34, 0x12};
    ASSERT_EQ(convert(row, 1, {16, 0, CO_GRAY, CO_GRAY, nullptr, nullptr, CVT_SRC_RANGE, 0, 15}), ST_OK);
    EXPECT_EQ(row[0], 0x12);
    // Destination field: 8-bit gray into bits 2..9 of a 16-bit sample.
    row = {0x00, 0x00, 0x00, 0xFF, 0xFF, 0xFF};
    ASSERT_EQ(convert(row, 2, {24, 16, CO_BGR, CO_GRAY, nullptr, nullptr, CVT_DST_RANGE, 2, 9}), ST_OK);
    EXPECT_EQ(head(row, 4), (Bytes{0x00, 0x00, 0xFC, 0x03}));
    // ... and of a 12-bit field, bits 4..7 (4 bits: g >> 4): 0x080, 0x0F0.
    row = {0x80, 0x80, 0x80, 0xFF, 0xFF, 0xFF};
    ASSERT_EQ(convert(row, 2, {24, 12, CO_BGR, CO_GRAY, nullptr, nullptr, CVT_DST_RANGE, 4, 7}), ST_OK);
    EXPECT_EQ(head(row, 3), (Bytes{0x80, 0x00, 0x0F}));

    // A LUT replaces the ramp: 12-bit samples index it whole.
    std::vector<RGBQUAD> lut(4096);
    for (int i = 0; i < 4096; ++i) lut[i] = rgb(255 - i / 16, (i * 7) & 255, i & 255);
    row = {0x23, 0x41, 0xFF};  // samples 0x123 and 0xFF4
    Bytes gray = row;
    ASSERT_EQ(convert(gray, 2, {12, 0, CO_GRAY, CO_GRAY, lut.data(), nullptr}), ST_OK);
    auto level = [&](int i) { return (2 * lut[i].rgbRed + 5 * lut[i].rgbGreen + lut[i].rgbBlue + 4) >> 3; };
    EXPECT_EQ(head(gray, 2), (Bytes{static_cast<uint8_t>(level(0x123)), static_cast<uint8_t>(level(0xFF4))}));
    Bytes colour = row;
    ASSERT_EQ(convert(colour, 2, {12, 24, CO_GRAY, CO_RGB, lut.data(), nullptr}), ST_OK);
    EXPECT_EQ(head(colour, 3), (Bytes{lut[0x123].rgbRed, lut[0x123].rgbGreen, lut[0x123].rgbBlue}));
    Bytes index = row;
    ASSERT_EQ(convert(index, 2, {12, 8, CO_GRAY, CO_BGR, lut.data(), Z_IntGetFixedPalette(8)}), ST_OK);
    EXPECT_EQ(index[1], Z_FindPaletteIndex(Z_IntGetFixedPalette(8), 256, lut[0xFF4].rgbRed, lut[0xFF4].rgbGreen,
                                           lut[0xFF4].rgbBlue));
    // Without a LUT, gray to a palette looks up the 8-bit level.
    index = row;
    ASSERT_EQ(convert(index, 2, {12, 8, CO_GRAY, CO_BGR, nullptr, nullptr}), ST_OK);
    EXPECT_EQ(index[0], Z_FindPaletteIndex(Z_IntGetFixedPalette(8), 256, 0x12, 0x12, 0x12));
    // Deep gray to 48 bits keeps 16-bit precision.
    Bytes wide = {0x34, 0x12};
    ASSERT_EQ(convert(wide, 1, {16, 48, CO_GRAY, CO_BGR}), ST_OK);
    EXPECT_EQ(head(wide, 6), (Bytes{0x34, 0x12, 0x34, 0x12, 0x34, 0x12}));
}

// The second colour space against its formulas, over random pixels.
TEST(ConvertAltSpace, FormulasOverRandomPixels) {
    const int width = 4000;
    const Bytes src = zktest::random_bytes(3 * width, 99);
    auto clamp = [](int v) { return std::clamp(v / 8192, 0, 255); };
    Bytes back = src;
    ASSERT_EQ(convert(back, width, {24, 24, CO_ALT_BGR, CO_BGR}), ST_OK);
    Bytes fwd = src;
    ASSERT_EQ(convert(fwd, width, {24, 24, CO_BGR, CO_ALT_BGR}), ST_OK);
    Bytes rgb_out = src;
    ASSERT_EQ(convert(rgb_out, width, {24, 24, CO_ALT_BGR, CO_RGB}), ST_OK);
    for (int i = 0; i < width; ++i) {
        const int x = src[3 * i], y = src[3 * i + 1], z = src[3 * i + 2];
        const int b0 = clamp(9467 * x - 1151 * y - 125 * z + 4095);
        const int b1 = clamp(-305 * x + 10232 * y - 1735 * z + 4095);
        const int b2 = clamp(-2156 * x - 6498 * y + 16846 * z + 4095);
        ASSERT_EQ((Bytes{back[3 * i], back[3 * i + 1], back[3 * i + 2]}),
                  (Bytes{static_cast<uint8_t>(b0), static_cast<uint8_t>(b1), static_cast<uint8_t>(b2)}))
            << x << " " << y << " " << z;
        ASSERT_EQ((Bytes{rgb_out[3 * i], rgb_out[3 * i + 2]}),
                  (Bytes{static_cast<uint8_t>(b2), static_cast<uint8_t>(b0)}));
        const int f0 = (7151 * x + 897 * y + 145 * z + 4095) >> 13;
        const int f1 = (394 * x + 7067 * y + 731 * z + 4095) >> 13;
        const int f2 = (1067 * x + 2841 * y + 4284 * z + 4095) >> 13;
        ASSERT_EQ((Bytes{fwd[3 * i], fwd[3 * i + 1], fwd[3 * i + 2]}),
                  (Bytes{static_cast<uint8_t>(f0), static_cast<uint8_t>(f1), static_cast<uint8_t>(f2)}));
    }
    // Extremes clamp: pure green in the second space has negative blue and
    // red numerators and a green one above 255; white stays white.
    Bytes edge = {0, 255, 0, 255, 255, 255};
    ASSERT_EQ(convert(edge, 2, {24, 24, CO_ALT_BGR, CO_BGR}), ST_OK);
    EXPECT_EQ(head(edge, 6), (Bytes{0, 255, 0, 255, 255, 255}));
    // Both in the second space: untouched. 48 bits: the 24-bit result widened.
    Bytes same = src;
    ASSERT_EQ(convert(same, width, {24, 24, CO_ALT_BGR, CO_ALT_BGR}), ST_OK);
    EXPECT_EQ(head(same, src.size()), src);
    Bytes wide = head(src, 30);
    ASSERT_EQ(convert(wide, 10, {24, 48, CO_BGR, CO_ALT_BGR}), ST_OK);
    for (int i = 0; i < 30; ++i) ASSERT_EQ(wide[2 * i] | wide[2 * i + 1] << 8, fwd[i] * 257) << i;
    Bytes narrow = wide;
    ASSERT_EQ(convert(narrow, 10, {48, 24, CO_ALT_BGR, CO_BGR}), ST_OK);
    Bytes via24 = head(fwd, 30);
    ASSERT_EQ(convert(via24, 10, {24, 24, CO_ALT_BGR, CO_BGR}), ST_OK);
    EXPECT_EQ(head(narrow, 30), head(via24, 30));
}

// Every entry of the fast-path table, in each tier the processor runs,
// gives the general path's bytes on random rows of every width to 72 and
// some large ones, at every offset of the row from a 64-byte boundary (a few
// for the large widths; the kernels place their vector groups by address),
// and leaves the bytes around the conversion buffer alone. The kernel is run
// directly and through conversion with the tier capped to its own.
// The two-buffer form writes what the in-place conversion leaves in the
// buffer's first destination bytes; the destination's bits past its last
// pixel, the bytes around it and the source stay as they were. Every pair of
// depths and orders, with and without palettes, bit ranges and alpha, at
// widths that end anywhere in a byte and across several stages.
TEST(ConvertTwoBuffers, MatchesInPlaceForEveryPair) {
    struct Side {
        int32_t bits;
        uint32_t order;
    };
    std::vector<Side> sides = {{0, CO_GRAY}, {12, CO_GRAY},    {16, CO_BGR},     {16, CO_RGB}, {16, CO_GRAY},
                               {24, CO_BGR}, {24, CO_RGB},     {24, CO_ALT_BGR}, {32, CO_BGR}, {32, CO_RGB},
                               {48, CO_RGB}, {48, CO_ALT_BGR}, {64, CO_BGR}};
    for (int b = 1; b <= 8; ++b) sides.push_back({b, CO_BGR});
    std::vector<RGBQUAD> pal(256);
    for (int i = 0; i < 256; ++i) pal[i] = rgb((i * 7) & 255, 255 - i, (i * 29) & 255);
    constexpr size_t kGuard = 32;
    int pairs = 0;
    for (const Side& s : sides)
        for (const Side& d : sides) {
            ++pairs;
            for (int width : {1, 2, 3, 5, 7, 8, 9, 15, 31, 33, 64, 65, 3001}) {
                const auto seed = static_cast<uint32_t>(pairs * 1000 + width);
                zk::ConvertRequest rq;
                rq.width = width;
                rq.src_bits = s.bits;
                rq.dst_bits = static_cast<uint32_t>(d.bits);
                rq.src_order = static_cast<int32_t>(s.order);
                rq.dst_order = d.order;
                rq.src_palette = (seed & 1) && s.bits <= 8 ? pal.data() : nullptr;
                rq.dst_palette = (seed & 2) ? pal.data() : nullptr;
                rq.flags = (seed & 4 ? CVT_OPAQUE_ALPHA : 0) | (s.order == CO_GRAY && (seed & 8) ? CVT_SRC_RANGE : 0);
                rq.low_bit = 2;
                rq.high_bit = s.bits == 12 ? 10 : 13;
                const size_t size = static_cast<size_t>(Z_CalcConvertSize(width, rq.src_bits, width, rq.dst_bits));
                const size_t src_len = row_bytes(width, s.bits), dst_len = row_bytes(width, d.bits);
                const Bytes row = zktest::random_bytes(size, seed);

                Bytes in_place = row;
                rq.buffer = in_place.data();
                const int32_t want_status = zk::convert_buffer(rq);
                const std::string what = std::to_string(s.bits) + "/" + std::to_string(s.order) + " -> " +
                                         std::to_string(d.bits) + "/" + std::to_string(d.order) + " width " +
                                         std::to_string(width);

                const Bytes src(row.begin(), row.begin() + static_cast<long>(src_len));
                const Bytes before = zktest::random_bytes(dst_len + kGuard, seed ^ 0x9E3779B9u);
                for (const bool stream : {false, true}) {
                    Bytes source = src, dst = before;
                    rq.buffer = dst.data();
                    rq.source = source.data();
                    if (stream) {
                        zk::RowConverter converter;
                        ASSERT_EQ(converter.prepare(rq), want_status) << what;
                        if (want_status == ST_OK) converter.run(source.data(), dst.data(), true);
                    } else {
                        ASSERT_EQ(zk::convert_buffer(rq), want_status) << what;
                    }
                    rq.source = nullptr;
                    ASSERT_EQ(source, src) << what;
                    if (want_status != ST_OK) {
                        ASSERT_EQ(dst, before) << what;
                        continue;
                    }
                    Bytes want = before;
                    std::copy(in_place.begin(), in_place.begin() + static_cast<long>(dst_len), want.begin());
                    if (const int used = static_cast<int>((int64_t{width} * (d.bits ? d.bits : 8)) % 8)) {
                        // Fields fill a byte from its top bit; 12-bit samples fill the low nibble first.
                        const auto keep = static_cast<uint8_t>(d.bits == 12 ? 0xF0 : 0xFF >> used);
                        want[dst_len - 1] =
                            static_cast<uint8_t>((want[dst_len - 1] & ~keep) | (before[dst_len - 1] & keep));
                    }
                    ASSERT_EQ(dst, want) << what << (stream ? " streamed" : "");
                }
            }
        }
    EXPECT_EQ(pairs, 21 * 21);
}

// The pivot carries alpha: the fourth channel of 32- and 64-bit pixels,
// opaque for every depth without one.
TEST(PixelLayer, FetchCarriesAlpha) {
    const Bytes row = zktest::random_bytes(64 * 8, 77);
    for (int32_t depth = 0; depth <= 64; ++depth) {
        const zk::FetchFn fetch = zk::fetch_for(depth);
        ASSERT_EQ(fetch != nullptr, zk::convertible_depth(depth)) << depth;
        if (!fetch) continue;
        zk::Plan plan{};
        plan.src_depth = depth;
        plan.src_mask = 0xFF;
        plan.src_nb = 8;
        zk::Pivot px[64];
        fetch(plan, row.data(), 0, 64, px);
        for (uint32_t k = 0; k < 64; ++k) {
            const uint32_t want = depth == 32   ? row[4 * k + 3] * 257u
                                  : depth == 64 ? row[8 * k + 6] | uint32_t{row[8 * k + 7]} << 8
                                                : 0xFFFFu;
            ASSERT_EQ(px[k].a, want) << "depth " << depth << " pixel " << k;
        }
    }
}

struct FormatBits {
    int32_t bits;
    uint32_t order;
};

FormatBits format_bits(zk::FastFormat f) {
    using F = zk::FastFormat;
    switch (f) {
        case F::Bgr24: return {24, CO_BGR};
        case F::Rgb24: return {24, CO_RGB};
        case F::Bgr32: return {32, CO_BGR};
        case F::Rgb32: return {32, CO_RGB};
        case F::Bgr48: return {48, CO_BGR};
        case F::Rgb48: return {48, CO_RGB};
        case F::Bgr555: return {16, CO_BGR};
        case F::Rgb555: return {16, CO_RGB};
        case F::Gray8: return {0, CO_GRAY};
        default: return {8, CO_BGR};
    }
}

std::vector<RGBQUAD> fast_test_palette() {
    std::vector<RGBQUAD> pal(256);
    for (int i = 0; i < 256; ++i) pal[i] = rgb(i ^ 0x5A, (i * 3) & 255, 255 - i);
    return pal;
}

class FastPathTier : public testing::TestWithParam<zktest::CpuTier> {};

TEST_P(FastPathTier, EveryEntryMatchesTheGeneralPath) {
    const zktest::CpuTier tier = GetParam();
    ZK_RUN_AT_TIER(tier);
    std::vector<int> widths;
    for (int w = 1; w <= 72; ++w) widths.push_back(w);
    for (int w : {94, 127, 128, 129, 131, 191, 192, 193, 511, 512, 513, 1100, 4099}) widths.push_back(w);
    const std::vector<RGBQUAD> pal = fast_test_palette();
    constexpr size_t kGuard = 80;
    int entries = 0;
    for (const zk::FastPath& path : zk::fast_paths()) {
        if (path.tier != tier) continue;
        ++entries;
        const std::string name = std::string(zk::fast_format_name(path.src)) + " -> " + zk::fast_format_name(path.dst) +
                                 " " + zk::platform::cpu_tier_name(tier);
        ASSERT_EQ(zk::find_fast_path(path.src, path.dst, tier), &path) << name;
        const FormatBits src = format_bits(path.src), dst = format_bits(path.dst);
        for (int width : widths) {
            const size_t size = static_cast<size_t>(Z_CalcConvertSize(width, src.bits, width, dst.bits));
            const Bytes row = zktest::random_bytes(size, static_cast<uint32_t>(width * 131 + src.bits + dst.bits));
            // Alternately: opaque alpha or none, the source palette or gray
            // levels, the destination gray order given as such or plain.
            zk::ConvertRequest rq;
            rq.width = width;
            rq.src_bits = src.bits;
            rq.dst_bits = static_cast<uint32_t>(dst.bits);
            rq.src_order = static_cast<int32_t>(src.order);
            rq.dst_order = dst.order == CO_GRAY && width % 3 ? CO_BGR : dst.order;
            rq.src_palette = width % 2 ? pal.data() : nullptr;
            rq.flags = width % 4 < 2 ? CVT_OPAQUE_ALPHA : 0;
            rq.alpha_fill = 0x12A5;
            Bytes general = row;
            rq.buffer = general.data();
            ASSERT_EQ(zk::convert_buffer(rq, zk::ConvertPaths::GeneralOnly), ST_OK);
            Bytes dispatched = row;
            rq.buffer = dispatched.data();
            ASSERT_EQ(zk::convert_buffer(rq), ST_OK);
            ASSERT_EQ(dispatched, general) << name << " width " << width << " through conversion";
            {
                // Two buffers: the tier's kernel on staged pieces of the row.
                const size_t src_len = static_cast<size_t>(width) * (src.bits ? src.bits : 8) / 8;
                const size_t dst_len = static_cast<size_t>(width) * (dst.bits ? dst.bits : 8) / 8;
                Bytes source(row.begin(), row.begin() + static_cast<long>(src_len)), out(dst_len + kGuard, 0xC3);
                zk::RowConverter converter;
                ASSERT_EQ(converter.prepare(rq), ST_OK);
                converter.run(source.data(), out.data(), width % 2 == 0);
                out.resize(dst_len);
                ASSERT_EQ(out, Bytes(general.begin(), general.begin() + static_cast<long>(dst_len)))
                    << name << " width " << width << " from a second buffer";
            }

            zk::Plan plan;
            plan.width = static_cast<uint32_t>(width);
            plan.alpha8 = rq.flags ? 0xA5 : 0;
            plan.src_palette = rq.src_palette;
            Bytes area(size + 256 + kGuard);
            for (size_t offset = 0; offset < 64; offset += width <= 72 ? 1 : 9) {
                std::fill(area.begin(), area.end(), 0xC3);
                const auto base = reinterpret_cast<uintptr_t>(area.data());
                const size_t start = (64 - base % 64) % 64 + 128 + offset;
                std::copy(row.begin(), row.end(), area.begin() + static_cast<long>(start));
                path.kernel(plan, area.data() + start);
                const std::string what = name + " width " + std::to_string(width) + " offset " + std::to_string(offset);
                ASSERT_EQ(
                    Bytes(area.begin() + static_cast<long>(start), area.begin() + static_cast<long>(start + size)),
                    general)
                    << what;
                for (size_t i = 0; i < area.size(); ++i)
                    ASSERT_TRUE((i >= start && i < start + size) || area[i] == 0xC3) << what << " byte " << i;
            }
        }
    }
    // Every tier serves every hot pair (the portable one also the identities).
    EXPECT_EQ(entries, tier == zktest::CpuTier::Portable ? 28 : 26);
}

INSTANTIATE_TEST_SUITE_P(Tiers, FastPathTier, testing::ValuesIn(zk::platform::kCpuTiers), zktest::tier_test_name);

// Conversion takes, for each pair, the entry of the highest tier not above
// the processor's, and a capped tier is kept to.
TEST(FastPathTable, DispatchFollowsTheTier) {
    for (const zk::FastPath& path : zk::fast_paths())
        for (const zktest::CpuTier tier : zk::platform::kCpuTiers) {
            const zk::FastPath* chosen = zk::find_fast_path(path.src, path.dst, tier);
            ASSERT_NE(chosen, nullptr);
            EXPECT_TRUE(chosen->src == path.src && chosen->dst == path.dst);
            EXPECT_LE(chosen->tier, tier);
            if (path.tier <= tier) {
                EXPECT_GE(chosen->tier, path.tier);
            }
        }
    const zktest::TierCap cap(zktest::CpuTier::Portable);
    EXPECT_EQ(zk::platform::cpu_tier(), zktest::CpuTier::Portable);
    EXPECT_EQ(zk::find_fast_path(zk::FastFormat::Bgr24, zk::FastFormat::Bgr48, zktest::CpuTier::AVX512), nullptr);
}

}  // namespace
