// Gray-scale conversion against a per-pixel model written from the rules:
// each source format decoded to its colour or gray level here, the level
// (2R + 5G + B + 4) >> 3 widened to the result depth; in every storage kind,
// with refusals and injected failures leaving the bitmap as it was.
#include <cstring>
#include <vector>

#include "../storage/kinds.h"

namespace {

using Bytes = std::vector<uint8_t>;
using zktest::Kind;
using zktest::rows_of;

// The gray level of pixel x of a row in b's format, and its bits: 8 for a
// colour, a gray sample's own depth for a 12- or 16-bit gray source.
struct Level {
    int value, bits;
};
Level level_of(const BitmapHandle& b, const Bytes& row, int x) {
    const auto gray = [](int r, int g, int bl) { return Level{(2 * r + 5 * g + bl + 4) >> 3, 8}; };
    const auto word = [&](size_t at) { return row[at] | row[at + 1] << 8; };
    const int bits = b.BitsPerPixel;
    if (bits <= 8) {
        const size_t bit = size_t(x) * bits;
        const int index =
            (((row[bit / 8] << 8 | (bit / 8 + 1 < row.size() ? row[bit / 8 + 1] : 0)) << (bit % 8)) >> (16 - bits)) &
            ((1 << bits) - 1);
        const RGBQUAD& e = b.Palette[index];
        return gray(e.rgbRed, e.rgbGreen, e.rgbBlue);
    }
    if (bits == 12) return {x % 2 ? word(3 * size_t(x / 2) + 1) >> 4 : word(3 * size_t(x / 2)) & 0xFFF, 12};
    if (bits == 16 && b.Order == CO_GRAY) return {word(2 * size_t(x)), 16};
    if (bits == 16) {
        const int v = word(2 * size_t(x));
        const auto five = [](int c) { return (c << 3) | (c >> 2); };
        return gray(five(v >> 10 & 31), five(v >> 5 & 31), five(v & 31));
    }
    const size_t at = size_t(x) * (bits / 8);
    const int step = bits >= 48 ? 2 : 1, hi = step - 1;  // 16-bit channels: their high byte
    const int c0 = row[at + hi], c2 = row[at + 2 * step + hi], c1 = row[at + step + hi];
    return b.Order == CO_RGB ? gray(c0, c1, c2) : gray(c2, c1, c0);
}

// A photograph-like 24-bit source in the kind, turned into the format asked.
void make_source(Kind kind, int32_t bits, uint32_t flags, BitmapHandle& b, Bytes& caller) {
    zktest::make_bitmap(kind, 21, 7, 24, b, caller);
    for (uint32_t y = 0; y < 7; ++y) {
        Bytes row = zktest::random_bytes(b.BytesPerLine, 11 + y);
        ASSERT_EQ(Z_PutBitmapRow(&b, row.data(), y, b.BytesPerLine), static_cast<int32_t>(b.BytesPerLine));
    }
    if (bits == 24 && !flags) return;
    ASSERT_EQ(Z_ColorResBitmap(&b, &b, Z_BITMAPHANDLE_SIZE, bits, flags, nullptr, nullptr, 0, nullptr, nullptr), ST_OK);
}

}  // namespace

// Every kind of source to 8, 12 and 16 bits against the model; colour
// sources in every storage kind.
TEST(GrayScale, EverySourceAndDepthAgainstTheModel) {
    zktest::PrivateTempDir dir;
    zktest::ThresholdGuard guard;
    const struct {
        int32_t bits;
        uint32_t flags;
    } sources[] = {{24, 0},
                   {24, CRF_BYTE_ORDER_BGR},
                   {32, CRF_BYTE_ORDER_BGR},
                   {48, 0},
                   {64, CRF_BYTE_ORDER_BGR},
                   {16, CRF_BYTE_ORDER_BGR},
                   {16, CRF_BYTE_ORDER_GRAY},
                   {12, 0},
                   {8, CRF_FIXED_PALETTE},
                   {4, CRF_FIXED_PALETTE | CRF_DITHER(DITHER_ORDERED)},
                   {3, CRF_OPTIMIZED_PALETTE},
                   {1, CRF_FIXED_PALETTE | CRF_DITHER(DITHER_FLOYD)}};
    for (const auto& s : sources)
        for (Kind kind : zktest::kAllKinds)
            for (int32_t bits : {8, 12, 16}) {
                if (kind != Kind::Conventional && s.bits != 24 && s.bits != 4) continue;
                SCOPED_TRACE(::testing::Message() << zktest::kind_name(kind) << ", " << s.bits << " bits (flags "
                                                  << std::hex << s.flags << std::dec << ") to " << bits);
                BitmapHandle b;
                Bytes caller;
                make_source(kind, s.bits, s.flags, b, caller);
                const std::vector<Bytes> source = rows_of(b);  // moves the row cursor
                BitmapHandle before = b;
                // The model reads the source palette after the call has freed it.
                std::vector<RGBQUAD> palette(before.Palette, before.Palette + (before.Palette ? before.ColorCount : 0));
                if (before.Palette) before.Palette = palette.data();
                ASSERT_EQ(Z_GrayScaleBitmap(&b, bits), ST_OK);
                ASSERT_EQ(b.BitsPerPixel, bits);
                if (s.bits == bits && before.Order == CO_GRAY) {
                    before.Palette = b.Palette;
                    EXPECT_EQ(std::memcmp(&b, &before, sizeof b), 0) << "already gray";
                    EXPECT_EQ(rows_of(b), source);
                    Z_FreeBitmap(&b);
                    continue;
                }
                if (bits == 8) {
                    ASSERT_EQ(b.ColorCount, 256u);
                    for (uint32_t i = 0; i < 256; ++i)
                        EXPECT_TRUE(b.Palette[i].rgbRed == i && b.Palette[i].rgbGreen == i &&
                                    b.Palette[i].rgbBlue == i);
                } else {
                    EXPECT_EQ(b.Order, static_cast<uint32_t>(CO_GRAY));
                }
                const std::vector<Bytes> got = rows_of(b);
                for (int y = 0; y < 7; ++y)
                    for (int x = 0; x < 21; ++x) {
                        // Narrower: the top bits; wider: v * (2^to - 1) / (2^from - 1).
                        const Level l = level_of(before, source[y], x);
                        const int want = l.bits >= bits
                                             ? l.value >> (l.bits - bits)
                                             : int(int64_t{l.value} * ((1 << bits) - 1) / ((1 << l.bits) - 1));
                        const Bytes& r = got[y];
                        const int have = bits == 8    ? r[x]
                                         : bits == 16 ? r[2 * x] | r[2 * x + 1] << 8
                                                      : (x % 2 ? (r[3 * (x / 2) + 1] | r[3 * (x / 2) + 2] << 8) >> 4
                                                               : (r[3 * (x / 2)] | r[3 * (x / 2) + 1] << 8) & 0xFFF);
                        ASSERT_EQ(have, want) << "pixel " << x << ", row " << y;
                    }
                // Gray levels at 8 bits are already gray: a second call keeps them.
                if (bits == 8) {
                    const BitmapHandle gray = b;
                    EXPECT_EQ(Z_GrayScaleBitmap(&b, 8), ST_OK);
                    EXPECT_EQ(std::memcmp(&b, &gray, sizeof b), 0);
                }
                Z_FreeBitmap(&b);
            }
    EXPECT_TRUE(dir.files().empty());
}

// Refusals and every injected failure leave the record and its rows as they
// were; nothing is left in the temporary directory.
TEST(GrayScale, BadInputAndFaultsLeaveTheBitmap) {
    zktest::PrivateTempDir dir;
    zktest::ThresholdGuard guard;
    BitmapHandle b;
    Bytes caller;
    make_source(Kind::TiledDisk, 24, 0, b, caller);
    BitmapHandle before = b;
    const std::vector<Bytes> source = rows_of(b);
    EXPECT_EQ(Z_GrayScaleBitmap(nullptr, 8), ST_BAD_PARAM);
    for (int32_t bits : {0, 1, 4, 9, 24, 32}) EXPECT_EQ(Z_GrayScaleBitmap(&b, bits), ST_BAD_BPP) << bits;
    BitmapHandle wrong = b;
    wrong.StructSize -= 4;
    EXPECT_EQ(Z_GrayScaleBitmap(&wrong, 8), ST_BAD_STRUCT_SIZE);
    BitmapHandle empty = zktest::described(5, 5, 24);
    EXPECT_EQ(Z_GrayScaleBitmap(&empty, 8), ST_BAD_PARAM);
    b.Flags |= BF_SIGNED;
    EXPECT_EQ(Z_GrayScaleBitmap(&b, 16), ST_SIGNED_DATA);
    b.Flags &= ~BF_SIGNED;
    EXPECT_EQ(std::memcmp(&b, &before, sizeof b), 0);

    using zk::platform::FaultKind;
    zktest::sweep_faults({FaultKind::Allocation, FaultKind::Mapping, FaultKind::File}, 400, [&](FaultKind kind, int n) {
        const int32_t status = zktest::under_fault(kind, n, [&] { return Z_GrayScaleBitmap(&b, 12); });
        if (status == ST_OK) {
            EXPECT_EQ(b.BitsPerPixel, 12);
            Z_FreeBitmap(&b);
            make_source(Kind::TiledDisk, 24, 0, b, caller);
            before = b;
            return true;
        }
        EXPECT_EQ(std::memcmp(&before, &b, sizeof b), 0);
        EXPECT_EQ(rows_of(b), source);
        return false;
    });
    Z_FreeBitmap(&b);
    EXPECT_TRUE(dir.files().empty());
}
