// Alpha exchange against a per-pixel model: the alpha each pixel shows (its
// palette's gray level, or its 16-bit sample) lands in byte 3, word 3 or
// bit 15 of the result, the colour is what colour resolution gives, and
// Z_GetBitmapAlpha reads back what was stored; for every colour depth and
// alpha depth, ordered and inverted ramps, other perspectives, partial
// coverage both ways and every storage kind, with refusals and injected
// failures leaving the bitmap as it was.
#include <cstring>
#include <vector>

#include "../storage/kinds.h"
#include "compose/alpha.h"

namespace {

using Bytes = std::vector<uint8_t>;
using zktest::Kind;
using zktest::rows_of;

struct Made {
    BitmapHandle b;
    Bytes caller;
};

// A bitmap of the kind with random rows, palettized depths with a random
// palette, 16 bits in the order asked.
void make_colour(Made& m, Kind kind, int32_t w, int32_t h, int32_t bits, uint32_t order, uint32_t seed) {
    zktest::make_bitmap(kind, w, h, bits, m.b, m.caller);
    if (bits > 8) m.b.Order = order;
    if (bits <= 8) {
        const Bytes pal = zktest::random_bytes(4u << bits, seed + 99);
        Z_SetBitmapNewPalette(&m.b, reinterpret_cast<const RGBQUAD*>(pal.data()), 1u << bits);
    }
    for (uint32_t y = 0; y < uint32_t(h); ++y)
        ASSERT_GE(Z_PutBitmapRow(&m.b, zktest::random_bytes(m.b.BytesPerLine, seed + y).data(), y, m.b.BytesPerLine),
                  0);
}

// An alpha bitmap in memory: 1 or 8 bits with a gray ramp (reversed when
// `inverse`), or 16-bit CO_GRAY samples.
BitmapHandle make_alpha(int32_t w, int32_t h, int32_t bits, bool inverse, uint32_t vp, uint32_t seed) {
    BitmapHandle a = zktest::described(w, h, bits);
    a.ViewPerspective = vp;
    EXPECT_EQ(Z_AllocateBitmap(&a, TYPE_CONV), ST_OK);
    if (bits == 16) a.Order = CO_GRAY;
    if (bits <= 8) {
        std::vector<RGBQUAD> ramp(1u << bits);
        for (size_t i = 0; i < ramp.size(); ++i) {
            const auto v = static_cast<uint8_t>((inverse ? ramp.size() - 1 - i : i) * 255 / (ramp.size() - 1));
            ramp[i] = {v, v, v, 0};
        }
        Z_SetBitmapNewPalette(&a, ramp.data(), static_cast<uint32_t>(ramp.size()));
    }
    for (uint32_t y = 0; y < uint32_t(h); ++y)
        EXPECT_GE(Z_PutBitmapRow(&a, zktest::random_bytes(a.BytesPerLine, seed + 7 * y).data(), y, a.BytesPerLine), 0);
    return a;
}

// The 16-bit alpha pixel (x, y) of `a` shows (`rows` are its rows): its
// palette's gray widened, or its sample.
uint32_t shown_alpha(const BitmapHandle& a, const std::vector<Bytes>& rows, int32_t x, int32_t y) {
    const Bytes& r = rows[y];
    if (a.BitsPerPixel == 16) return r[2 * x] | r[2 * x + 1] << 8;
    const uint32_t index = a.BitsPerPixel == 1 ? (r[x / 8] >> (7 - x % 8)) & 1 : r[x];
    return a.Palette[index].rgbRed * 257u;
}

}  // namespace

// Every colour depth with every kind of alpha, against the model.
TEST(Alpha, EveryDepthPairAgainstTheModel) {
    zktest::PrivateTempDir dir;
    zktest::ThresholdGuard guard;
    const struct {
        int32_t bits;
        uint32_t order;
    } colours[] = {{1, 0},       {4, 0},       {8, 0},       {16, CO_BGR}, {16, CO_GRAY},
                   {24, CO_RGB}, {24, CO_BGR}, {32, CO_BGR}, {48, CO_BGR}, {64, CO_RGB}};
    const struct {
        int32_t bits;
        bool inverse;
        uint32_t vp;
    } alphas[] = {{8, false, VP_BOTTOM_LEFT},
                  {8, true, VP_BOTTOM_LEFT},
                  {1, false, VP_BOTTOM_LEFT},
                  {16, false, VP_BOTTOM_LEFT},
                  {8, false, VP_TOP_LEFT}};
    for (Kind kind : zktest::kAllKinds)
        for (const auto& c : colours)
            for (const auto& al : alphas) {
                if (kind != Kind::Conventional && c.bits != 24 && c.bits != 32) continue;
                SCOPED_TRACE(::testing::Message() << zktest::kind_name(kind) << ", " << c.bits << " bits (order "
                                                  << c.order << ") with alpha of " << al.bits << " bits"
                                                  << (al.inverse ? ", inverted" : "") << ", perspective " << al.vp);
                Made m;
                make_colour(m, kind, 13, 5, c.bits, c.order, 3);
                m.b.ViewPerspective = VP_BOTTOM_LEFT;
                BitmapHandle a = make_alpha(13, 5, al.bits, al.inverse, al.vp, 11);
                const std::vector<Bytes> before = rows_of(m.b);
                // The alpha as the bitmap's rows lie: turned to its
                // perspective when it lies otherwise.
                BitmapHandle turned = a;
                if (al.vp != VP_BOTTOM_LEFT) {
                    ASSERT_EQ(Z_ChangeBitmapViewPerspective(&turned, &a, Z_BITMAPHANDLE_SIZE, VP_BOTTOM_LEFT), ST_OK);
                }
                const std::vector<Bytes> alpha_rows = rows_of(turned);
                // The colour the result should hold: the bitmap itself, or
                // what colour resolution makes of it.
                const bool has_alpha = c.bits == 32 || c.bits == 64 || (c.bits == 16 && c.order != CO_GRAY);
                const int32_t rb = has_alpha ? c.bits : c.bits == 48 ? 64 : 32;
                std::vector<Bytes> colour = before;
                if (!has_alpha) {
                    BitmapHandle conv;
                    const uint32_t flags = c.order == CO_RGB && c.bits >= 16 ? 0 : CRF_BYTE_ORDER_BGR;
                    ASSERT_EQ(Z_ColorResBitmap(&m.b, &conv, Z_BITMAPHANDLE_SIZE, rb, flags, nullptr, nullptr, 0,
                                               nullptr, nullptr),
                              ST_OK);
                    colour = rows_of(conv);
                    Z_FreeBitmap(&conv);
                }
                ASSERT_EQ(Z_SetBitmapAlpha(&m.b, &a), ST_OK);
                ASSERT_EQ(m.b.BitsPerPixel, rb);
                const std::vector<Bytes> got = rows_of(m.b);
                BitmapHandle back;
                ASSERT_EQ(Z_GetBitmapAlpha(&m.b, &back, Z_BITMAPHANDLE_SIZE), ST_OK);
                ASSERT_EQ(back.BitsPerPixel, rb == 64 ? 16 : 8);
                const std::vector<Bytes> read = rows_of(back);
                for (int32_t y = 0; y < 5; ++y)
                    for (int32_t x = 0; x < 13; ++x) {
                        const uint32_t a16 = shown_alpha(turned, alpha_rows, x, y), a8 = a16 >> 8;
                        const uint8_t* p = got[y].data() + size_t(x) * (rb / 8);
                        const uint8_t* q = colour[y].data() + size_t(x) * (rb / 8);
                        uint32_t stored = 0, want = 0, readback = 0;
                        if (rb == 16) {
                            stored = p[1] >> 7, want = a8 >= 128, readback = read[y][x];
                            EXPECT_EQ(readback, stored ? 255u : 0u);
                            EXPECT_EQ(p[0], q[0]);
                            EXPECT_EQ(p[1] & 0x7F, q[1] & 0x7F);
                        } else if (rb == 32) {
                            stored = p[3], want = a8, readback = read[y][x];
                            EXPECT_EQ(readback, stored);
                            EXPECT_EQ(std::memcmp(p, q, 3), 0);
                        } else {
                            stored = p[6] | p[7] << 8, want = a16, readback = read[y][2 * x] | read[y][2 * x + 1] << 8;
                            EXPECT_EQ(readback, stored);
                            EXPECT_EQ(std::memcmp(p, q, 6), 0);
                        }
                        ASSERT_EQ(stored, want) << "pixel " << x << ", row " << y;
                    }
                Z_FreeBitmap(&back);
                if (al.vp != VP_BOTTOM_LEFT) Z_FreeBitmap(&turned);
                Z_FreeBitmap(&a);
                Z_FreeBitmap(&m.b);
            }
    EXPECT_TRUE(dir.files().empty());
}

// A larger alpha is cut to the bitmap; a smaller one leaves the rest of the
// bitmap's alpha as it was.
TEST(Alpha, PartialCoverageBothWays) {
    for (const auto& size : {std::pair{20, 9}, std::pair{6, 3}}) {
        SCOPED_TRACE(::testing::Message() << "alpha " << size.first << " x " << size.second);
        Made m;
        make_colour(m, Kind::Conventional, 11, 5, 32, CO_BGR, 5);
        m.b.ViewPerspective = VP_BOTTOM_LEFT;
        BitmapHandle a = make_alpha(size.first, size.second, 8, false, VP_BOTTOM_LEFT, 8);
        const std::vector<Bytes> before = rows_of(m.b), alpha = rows_of(a);
        ASSERT_EQ(Z_SetBitmapAlpha(&m.b, &a), ST_OK);
        const std::vector<Bytes> got = rows_of(m.b);
        for (int32_t y = 0; y < 5; ++y)
            for (int32_t x = 0; x < 11; ++x) {
                const bool covered = x < size.first && y < size.second;
                EXPECT_EQ(got[y][4 * x + 3], covered ? alpha[y][x] : before[y][4 * x + 3]) << x << ", " << y;
            }
        Z_FreeBitmap(&a);
        Z_FreeBitmap(&m.b);
    }
}

int32_t Z_API refuse(BitmapHandle*, BitmapHandle*, int32_t, int32_t) { return -4242; }

// Refusals, the allocation hook, and every injected failure of a setting
// that converts a tiled 24-bit bitmap leave both bitmaps as they were.
TEST(Alpha, BadInputAndFaultsLeaveBothBitmaps) {
    zktest::PrivateTempDir dir;
    zktest::ThresholdGuard guard;
    Made m;
    make_colour(m, Kind::TiledDisk, 9, 7, 24, CO_BGR, 1);
    BitmapHandle a = make_alpha(9, 7, 8, true, VP_TOP_LEFT, 2);
    const std::vector<Bytes> rows = rows_of(m.b), alpha_rows = rows_of(a);
    BitmapHandle before = m.b;
    const BitmapHandle alpha_before = a;
    BitmapHandle out, wrong = m.b, empty = zktest::described(9, 7, 32), signed_bitmap = m.b;
    wrong.StructSize += 4;
    signed_bitmap.Flags |= BF_SIGNED;
    const struct {
        int32_t got, want;
    } refusals[] = {
        {Z_GetBitmapAlpha(nullptr, &out, Z_BITMAPHANDLE_SIZE), ST_BAD_PARAM},
        {Z_GetBitmapAlpha(&m.b, nullptr, Z_BITMAPHANDLE_SIZE), ST_BAD_PARAM},
        {Z_GetBitmapAlpha(&empty, &out, Z_BITMAPHANDLE_SIZE), ST_BAD_PARAM},
        {Z_GetBitmapAlpha(&m.b, &out, Z_BITMAPHANDLE_SIZE - 4), ST_BAD_STRUCT_SIZE},
        {Z_GetBitmapAlpha(&wrong, &out, Z_BITMAPHANDLE_SIZE), ST_BAD_STRUCT_SIZE},
        {Z_GetBitmapAlpha(&signed_bitmap, &out, Z_BITMAPHANDLE_SIZE), ST_SIGNED_DATA},
        {Z_SetBitmapAlpha(nullptr, &a), ST_BAD_PARAM},
        {Z_SetBitmapAlpha(&m.b, nullptr), ST_BAD_PARAM},
        {Z_SetBitmapAlpha(&m.b, &empty), ST_BAD_PARAM},
        {Z_SetBitmapAlpha(&wrong, &a), ST_BAD_STRUCT_SIZE},
        {Z_SetBitmapAlpha(&signed_bitmap, &a), ST_SIGNED_DATA},
    };
    for (size_t i = 0; i < std::size(refusals); ++i) EXPECT_EQ(refusals[i].got, refusals[i].want) << "case " << i;
    // A 24-bit bitmap has no alpha: all zero; a refusing hook frees it.
    ASSERT_EQ(Z_GetBitmapAlpha(&m.b, &out, Z_BITMAPHANDLE_SIZE), ST_OK);
    for (const Bytes& r : rows_of(out)) EXPECT_EQ(r, Bytes(r.size(), 0));
    Z_FreeBitmap(&out);
    zk::compose::set_allocation_hook(refuse);
    EXPECT_EQ(Z_GetBitmapAlpha(&m.b, &out, Z_BITMAPHANDLE_SIZE), -4242);
    zk::compose::set_allocation_hook(nullptr);

    using zk::platform::FaultKind;
    zktest::sweep_faults({FaultKind::Allocation, FaultKind::Mapping, FaultKind::File}, 400, [&](FaultKind kind, int n) {
        const int32_t status = zktest::under_fault(kind, n, [&] { return Z_SetBitmapAlpha(&m.b, &a); });
        if (status == ST_OK) {
            EXPECT_EQ(m.b.BitsPerPixel, 32);
            Z_FreeBitmap(&m.b);
            make_colour(m, Kind::TiledDisk, 9, 7, 24, CO_BGR, 1);
            before = m.b;
            return true;
        }
        EXPECT_EQ(std::memcmp(&before, &m.b, sizeof m.b), 0);
        EXPECT_EQ(rows_of(m.b), rows);
        EXPECT_EQ(std::memcmp(&alpha_before, &a, sizeof a), 0);
        EXPECT_EQ(rows_of(a), alpha_rows);
        return false;
    });
    Z_FreeBitmap(&a);
    Z_FreeBitmap(&m.b);
    EXPECT_TRUE(dir.files().empty());
}
