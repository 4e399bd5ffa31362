// Right-angle turns: buffers and bitmaps of every depth and storage kind
// against a pixel-matrix model, round trips, perspectives, the one-bit
// gather rule, the rotate hook, progress, injected failures and refusals.
#include <dirent.h>
#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "../storage/kinds.h"
#include "core/platform/cpu.h"
#include "geometry/rotate.h"
#include "region.h"
#include "test_support.h"

namespace {

using zk::platform::FaultKind;
using zktest::Kind;

const int kDepths[] = {1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 24, 32, 48, 64};

// ---------------------------------------------------------------------------
// Model: an image as a matrix of pixel values, packed and unpacked one bit
// at a time (depths below 8 from the most significant bit of each byte, 12
// bits from bit 12k counting from the least significant bit of byte 0, whole
// bytes little-endian).
struct Image {
    int w = 0, h = 0;
    std::vector<uint64_t> px;  // row-major
    uint64_t at(int x, int y) const { return px[size_t(y) * w + x]; }
    bool operator==(const Image& o) const { return w == o.w && h == o.h && px == o.px; }
};

size_t stride(int64_t w, int bpp) { return size_t(((w * bpp + 31) / 8) & ~int64_t{3}); }

bool get_bit(const uint8_t* row, int64_t bit, bool lsb_first) {
    return (row[bit / 8] >> (lsb_first ? bit % 8 : 7 - bit % 8)) & 1;
}
void set_bit(uint8_t* row, int64_t bit, bool lsb_first, bool v) {
    const uint8_t m = uint8_t(1u << (lsb_first ? bit % 8 : 7 - bit % 8));
    row[bit / 8] = uint8_t(v ? row[bit / 8] | m : row[bit / 8] & ~m);
}

uint64_t model_get(const uint8_t* row, int bpp, int64_t x) {
    uint64_t v = 0;
    if (bpp < 8) {
        for (int i = 0; i < bpp; ++i) v = v << 1 | get_bit(row, x * bpp + i, false);
    } else {
        for (int i = 0; i < bpp; ++i) v |= uint64_t{get_bit(row, x * bpp + i, true)} << i;
    }
    return v;
}
void model_put(uint8_t* row, int bpp, int64_t x, uint64_t v) {
    for (int i = 0; i < bpp; ++i) {
        if (bpp < 8)
            set_bit(row, x * bpp + i, false, (v >> (bpp - 1 - i)) & 1);
        else
            set_bit(row, x * bpp + i, true, (v >> i) & 1);
    }
}

Image unpack(const uint8_t* data, int w, int h, int bpp) {
    Image im{w, h, std::vector<uint64_t>(size_t(w) * h)};
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) im.px[size_t(y) * w + x] = model_get(data + y * stride(w, bpp), bpp, x);
    return im;
}
std::vector<uint8_t> pack(const Image& im, int bpp, uint8_t padding = 0) {
    std::vector<uint8_t> out(stride(im.w, bpp) * im.h, padding);
    for (int y = 0; y < im.h; ++y)
        for (int x = 0; x < im.w; ++x) model_put(out.data() + y * stride(im.w, bpp), bpp, x, im.at(x, y));
    return out;
}
Image random_image(int w, int h, int bpp, uint32_t seed) {
    std::mt19937_64 rng(seed);
    Image im{w, h, std::vector<uint64_t>(size_t(w) * h)};
    const uint64_t mask = bpp == 64 ? ~uint64_t{0} : (uint64_t{1} << bpp) - 1;
    for (auto& p : im.px) p = rng() & mask;
    return im;
}

// Clockwise as the displayed image turns with row 0 on top.
Image turn(const Image& in, bool cw) {
    Image out{in.h, in.w, std::vector<uint64_t>(in.px.size())};
    for (int y = 0; y < out.h; ++y)
        for (int x = 0; x < out.w; ++x)
            out.px[size_t(y) * out.w + x] = cw ? in.at(y, in.h - 1 - x) : in.at(in.w - 1 - y, x);
    return out;
}
Image half(const Image& in) { return turn(turn(in, true), true); }
Image mirror(const Image& in) {
    Image out = in;
    for (int y = 0; y < in.h; ++y)
        for (int x = 0; x < in.w; ++x) out.px[size_t(y) * in.w + x] = in.at(in.w - 1 - x, y);
    return out;
}
Image transpose(const Image& in) { return mirror(turn(in, true)); }

// What a bitmap of perspective vp shows of its stored rows.
Image displayed(const Image& s, uint32_t vp) {
    switch (vp) {
        case VP_TOP_RIGHT: return mirror(s);
        case VP_BOTTOM_RIGHT: return half(s);
        case VP_BOTTOM_LEFT: return half(mirror(s));
        case VP_LEFT_TOP: return transpose(s);
        case VP_RIGHT_TOP: return turn(s, true);
        case VP_RIGHT_BOTTOM: return half(transpose(s));
        case VP_LEFT_BOTTOM: return turn(s, false);
        default: return s;
    }
}

// ---------------------------------------------------------------------------
// Bitmap helpers.
void put_image(BitmapHandle& b, const Image& im) {
    const auto bytes = pack(im, b.BitsPerPixel);
    const size_t s = stride(im.w, b.BitsPerPixel);
    for (int y = 0; y < im.h; ++y)
        ASSERT_EQ(Z_PutBitmapRow(&b, bytes.data() + y * s, uint32_t(y), uint32_t(s)), int32_t(s));
}
Image get_image(BitmapHandle& b) {
    const size_t s = b.BytesPerLine;
    std::vector<uint8_t> bytes(s * size_t(b.Height));
    for (int y = 0; y < b.Height; ++y)
        EXPECT_EQ(Z_GetBitmapRow(&b, bytes.data() + y * s, uint32_t(y), uint32_t(s)), int32_t(s));
    return unpack(bytes.data(), b.Width, b.Height, b.BitsPerPixel);
}
int open_files() {
    int n = 0;
    if (DIR* d = opendir("/proc/self/fd")) {
        while (readdir(d)) ++n;
        closedir(d);
    }
    return n;
}
// Storage kind as the result keeps it: results are duplicates, which give
// disk sources disk storage and the memory kinds storage chosen by the
// thresholds (tiled when the conventional limit is 0; global and caller
// memory sources give conventional results).
constexpr uint32_t kKindBits = BF_MEMORY | BF_DISK | BF_TILED | BF_ALLOCATED;

// ---------------------------------------------------------------------------
// Quarter and half turns of buffers at every depth and at odd sizes against
// the model, with the rules for the bits past the pixels.
void turn_buffers_against_the_model() {
    // The last size, at 1 bit only: whole 512 x 512 tiles with rows and
    // columns left over, in a band that starts past column 0.
    const int sizes[][2] = {{1, 1},    {3, 9},     {13, 7},   {17, 33},    {70, 19},
                            {9, 4133}, {1100, 13}, {600, 70}, {1100, 1600}};
    for (int bpp : kDepths) {
        for (const auto& sz : sizes) {
            const int w = sz[0], h = sz[1];
            if (h == 1600 && bpp != 1) continue;
            SCOPED_TRACE(::testing::Message() << bpp << " bits, " << w << " x " << h);
            const Image im = random_image(w, h, bpp, uint32_t(bpp * 1000 + w * 31 + h));
            const auto src = pack(im, bpp, 0x3C);  // padding bits set: never read as pixels
            // Results stored with ordinary stores, and around the caches as large ones are.
            for (int cw_streamed = 0; cw_streamed < 4; ++cw_streamed) {
                const int cw = cw_streamed & 1;
                zk::rotate::set_stream_results_for_testing(cw_streamed >> 1);
                std::vector<uint8_t> dst(stride(h, bpp) * w, 0xA5);
                const int32_t turned = Z_RotateBuffer90(src.data(), dst.data(), cw, w, h, bpp);
                zk::rotate::set_stream_results_for_testing(0);
                ASSERT_EQ(turned, ST_OK);
                ASSERT_TRUE(unpack(dst.data(), h, w, bpp) == turn(im, cw));
                // Past the pixels: the rest of the last byte is 0 at 1 and 4
                // bits and kept elsewhere; later bytes are never written.
                const int64_t end = int64_t{h} * bpp, whole = (end + 7) / 8 * 8;
                for (int y = 0; y < w; ++y)
                    for (int64_t bit = end; bit < int64_t(stride(h, bpp)) * 8; ++bit) {
                        const bool cleared = (bpp == 1 || bpp == 4) && bit < whole;
                        const uint8_t fill = 0xA5;
                        ASSERT_EQ(get_bit(dst.data() + y * stride(h, bpp), bit, bpp >= 8),
                                  cleared ? false : get_bit(&fill, bit % 8, bpp >= 8))
                            << "row " << y << " bit " << bit;
                    }
            }
            std::vector<uint8_t> dst(src.size(), 0xA5);
            ASSERT_EQ(Z_RotateBuffer180(src.data(), dst.data(), w, h, bpp), ST_OK);
            ASSERT_TRUE(unpack(dst.data(), w, h, bpp) == half(im));
            for (int y = 0; y < h; ++y)  // bits past the pixels travel with their row
                for (int64_t bit = int64_t{w} * bpp; bit < int64_t(stride(w, bpp)) * 8; ++bit)
                    ASSERT_EQ(get_bit(dst.data() + (h - 1 - y) * stride(w, bpp), bit, bpp >= 8),
                              get_bit(src.data() + y * stride(w, bpp), bit, bpp >= 8));
            std::vector<uint8_t> in_place = src;
            ASSERT_EQ(Z_RotateBuffer180(in_place.data(), in_place.data(), w, h, bpp), ST_OK);
            ASSERT_EQ(in_place, dst);
        }
    }
}

// Every kernel tier the processor has, each held to the model.
TEST(RotateBuffer, QuarterAndHalfTurnsMatchTheModelWithPaddingRulesInEveryTier) {
    namespace pf = zk::platform;
    for (pf::CpuTier tier : pf::kCpuTiers) {
        if (tier > pf::cpu_tier_supported()) {
            std::printf("[   NOTE   ] %s turn kernels not tested: this processor lacks it\n", pf::cpu_tier_name(tier));
            continue;
        }
        SCOPED_TRACE(pf::cpu_tier_name(tier));
        const pf::CpuTier previous = pf::set_cpu_tier_cap(tier);
        turn_buffers_against_the_model();
        pf::set_cpu_tier_cap(previous);
        if (::testing::Test::HasFatalFailure()) return;
    }
}

// Sizes around the tile kernels' tiles (512 pixels at 1 bit, 64 at 8) and
// bands: in every tier the result is the portable one byte for byte, which
// is the model's.
TEST(RotateBuffer, TileEdgesGiveThePortableResultInEveryTier) {
    namespace pf = zk::platform;
    struct Case {
        int bpp, w, h;
    };
    const Case cases[] = {{1, 511, 1025}, {1, 512, 512}, {1, 513, 1536}, {1, 1537, 520}, {8, 63, 129},
                          {8, 64, 64},    {8, 65, 449},  {8, 513, 200},  {8, 130, 520}};
    for (const Case& c : cases)
        for (int cw : {0, 1}) {
            SCOPED_TRACE(::testing::Message() << c.bpp << " bits, " << c.w << " x " << c.h << ", cw " << cw);
            const Image im = random_image(c.w, c.h, c.bpp, uint32_t(c.w * 3 + c.h));
            const auto src = pack(im, c.bpp, 0x3C);
            std::vector<uint8_t> portable;
            for (pf::CpuTier tier : pf::kCpuTiers) {
                if (tier > pf::cpu_tier_supported()) continue;  // named by the test above
                const pf::CpuTier previous = pf::set_cpu_tier_cap(tier);
                std::vector<uint8_t> dst(stride(c.h, c.bpp) * c.w, 0xA5);
                const int32_t turned = Z_RotateBuffer90(src.data(), dst.data(), cw, c.w, c.h, c.bpp);
                pf::set_cpu_tier_cap(previous);
                ASSERT_EQ(turned, ST_OK);
                if (tier == pf::CpuTier::Portable) {
                    ASSERT_TRUE(unpack(dst.data(), c.h, c.w, c.bpp) == turn(im, cw));
                    portable = dst;
                } else {
                    EXPECT_TRUE(dst == portable) << pf::cpu_tier_name(tier);
                }
            }
        }
}

// The one-bit rule: eight source rows per pass through a 512-byte gather
// table, each group written down (clockwise) or up (counter-clockwise) its
// eight destination columns as whole bytes.
TEST(RotateBuffer, OneBitTurnsFollowTheGatherTableRule) {
    uint32_t table[8][16];
    for (int k = 0; k < 8; ++k)
        for (int n = 0; n < 16; ++n) {
            uint8_t bytes[4];
            for (int j = 0; j < 4; ++j) bytes[j] = (n >> (3 - j)) & 1 ? uint8_t(128 >> k) : 0;
            std::memcpy(&table[k][n], bytes, 4);
        }
    const int sizes[][2] = {{3, 9}, {21, 17}, {8, 8}, {64, 40}, {1, 70}};
    for (const auto& sz : sizes)
        for (int cw : {1, 0}) {
            const int w = sz[0], h = sz[1];
            SCOPED_TRACE(::testing::Message() << w << " x " << h << (cw ? " clockwise" : " counter-clockwise"));
            const auto src = zktest::random_bytes(stride(w, 1) * h, uint32_t(w * 7 + h));
            std::vector<uint8_t> want(stride(h, 1) * w, 0), got(want.size(), 0);
            std::vector<uint8_t> gather((w + 7) / 8 * 8);
            for (int i = 0; i < h; ++i) {
                const uint8_t* row = src.data() + (cw ? h - 1 - i : i) * stride(w, 1);
                const int k = i % 8;
                for (int j = 0; j < (w + 7) / 8; ++j)
                    for (int half_byte = 0; half_byte < 2; ++half_byte) {
                        const uint32_t e = table[k][half_byte ? row[j] & 15 : row[j] >> 4];
                        uint8_t bytes[4];
                        std::memcpy(bytes, &e, 4);
                        for (int q = 0; q < 4; ++q) {
                            uint8_t& g = gather[size_t(8 * j + 4 * half_byte + q)];
                            g = uint8_t(k ? g | bytes[q] : bytes[q]);
                        }
                    }
                if (k == 7 || i == h - 1)
                    for (int p = 0; p < w; ++p) want[(cw ? p : w - 1 - p) * stride(h, 1) + i / 8] = gather[size_t(p)];
            }
            ASSERT_EQ(Z_RotateBuffer90(src.data(), got.data(), cw, w, h, 1), ST_OK);
            EXPECT_EQ(got, want);
        }
}

TEST(RotateBuffer, Refusals) {
    uint8_t a[64] = {}, b[64] = {};
    struct Case {
        const uint8_t* src;
        uint8_t* dst;
        int32_t w, h, bpp, want;
    };
    const Case cases[] = {
        {nullptr, b, 2, 2, 8, ST_BAD_PARAM},
        {a, nullptr, 2, 2, 8, ST_BAD_PARAM},
        {a, b, -1, 2, 8, ST_BAD_PARAM},
        {a, b, 2, -1, 8, ST_BAD_PARAM},
        {a, b, 2, 2, 9, ST_BAD_BPP},
        {a, b, 2, 2, 0, ST_BAD_BPP},
        {a, b, INT32_MAX, 1, 64, ST_TOO_LARGE},
        {a, b, 1, INT32_MAX, 64, ST_TOO_LARGE},
        {a, b, 0, 5, 8, ST_OK},
        {a, b, 5, 0, 8, ST_OK},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.w << " x " << c.h << " at " << c.bpp);
        EXPECT_EQ(Z_RotateBuffer90(c.src, c.dst, 1, c.w, c.h, c.bpp), c.want);
        EXPECT_EQ(Z_RotateBuffer90(c.src, c.dst, 0, c.w, c.h, c.bpp), c.want);
        EXPECT_EQ(Z_RotateBuffer180(c.src, c.dst, c.w, c.h, c.bpp), c.want);
    }
    for (uint8_t v : b) EXPECT_EQ(v, 0);
    const std::vector<uint8_t> src(stride(40, 8) * 30, 7);
    std::vector<uint8_t> dst(stride(30, 8) * 40);
    EXPECT_EQ(zktest::under_fault(FaultKind::Allocation, 1,
                                  [&] { return Z_RotateBuffer90(src.data(), dst.data(), 0, 40, 30, 8); }),
              ST_NO_MEMORY);
}

// ---------------------------------------------------------------------------
class RotateBitmap : public ::testing::Test {
protected:
    void SetUp() override {  // bands of a few rows, run-length columns in groups of 8
        zk::rotate::set_stream_band_for_testing(64);
        zk::rotate::set_run_turn_bytes_for_testing(1);
    }
    void TearDown() override {
        zk::rotate::set_run_turn_bytes_for_testing(0);
        zk::rotate::set_stream_band_for_testing(0);
        zk::rotate::set_stream_results_for_testing(0);
        zk::rotate::set_square_tile_for_testing(0);
    }
    zktest::ThresholdGuard guard_;
    zktest::PrivateTempDir dir_;
};

// Every kind and depth: one turn each way and a half turn against the model;
// four quarter turns and two half turns give the first pixels back, in the
// same kind of storage, with the record's own attributes kept.
TEST_F(RotateBitmap, TurnsMatchTheModelAndRoundTripInEveryKindAndDepth) {
    const int files_before = open_files();
    const int sizes[][2] = {{13, 7}, {5, 300}, {1, 1}};
    for (Kind kind : zktest::kAllKinds)
        for (int bpp : kDepths)
            for (const auto& sz : sizes) {
                if (sz[1] == 300 && kind != Kind::Conventional && kind != Kind::Disk)
                    continue;  // the tall image crosses several bands in memory and on disk
                // The tall image's memory results go around the caches as large ones do.
                zk::rotate::set_stream_results_for_testing(sz[1] == 300 ? 1 : 0);
                SCOPED_TRACE(::testing::Message()
                             << zktest::kind_name(kind) << ", " << bpp << " bits, " << sz[0] << " x " << sz[1]);
                BitmapHandle b{};
                std::vector<uint8_t> caller;
                zktest::make_bitmap(kind, sz[0], sz[1], bpp, b, caller);
                if (::testing::Test::HasFatalFailure()) return;
                const bool tiled = (b.Flags & BF_TILED) != 0;
                if (tiled) {
                    ASSERT_EQ(Z_SetMemoryThresholds(0, 0, 0, 0, 0, 2), ST_OK);  // results tiled too
                }
                b.ViewPerspective = VP_TOP_LEFT;
                b.XResolution = 300;
                const Image im = random_image(sz[0], sz[1], bpp, uint32_t(bpp + sz[1]));
                put_image(b, im);
                const uint32_t kind_bits = b.Flags & kKindBits & ~BF_LOCKED;

                ASSERT_EQ(Z_RotateBitmap90(&b, 1), ST_OK);
                EXPECT_EQ(b.Width, sz[1]);
                EXPECT_EQ(b.Height, sz[0]);
                EXPECT_EQ(b.BytesPerLine, stride(sz[1], bpp));
                EXPECT_EQ(b.Flags & kKindBits & ~BF_LOCKED, kind_bits);
                EXPECT_EQ(b.ViewPerspective, VP_TOP_LEFT);
                EXPECT_EQ(b.XResolution, 300);
                ASSERT_TRUE(get_image(b) == turn(im, true));
                for (int i = 0; i < 3; ++i) ASSERT_EQ(Z_RotateBitmap90(&b, 1), ST_OK);
                ASSERT_TRUE(get_image(b) == im);
                ASSERT_EQ(Z_RotateBitmap90(&b, 0), ST_OK);
                ASSERT_TRUE(get_image(b) == turn(im, false));
                ASSERT_EQ(Z_RotateBitmap(&b, 9000, ROTATE_RESIZE, 0), ST_OK);
                ASSERT_TRUE(get_image(b) == im);
                ASSERT_EQ(Z_RotateBitmap(&b, 18000, 0, 0), ST_OK);
                ASSERT_TRUE(get_image(b) == half(im));
                EXPECT_EQ(b.Flags & kKindBits & ~BF_LOCKED, kind_bits);
                ASSERT_EQ(Z_RotateBitmap(&b, -18000, 0, 0), ST_OK);
                ASSERT_TRUE(get_image(b) == im);
                Z_FreeBitmap(&b);
            }
    EXPECT_EQ(open_files(), files_before);
    EXPECT_TRUE(dir_.files().empty());
}

// A turn of what is shown: for all eight perspectives the displayed picture
// turns the asked way and the perspective stays; Z_RotateBitmap's angles
// (hundredths of a degree, negative counter-clockwise) agree.
TEST_F(RotateBitmap, PerspectivesTurnTheDisplayedPicture) {
    struct Turn {
        int32_t angle;  // hundredths; 0 marks Z_RotateBitmap90 clockwise, 1 counter-clockwise
        int quarters;   // clockwise quarter turns of the displayed picture
    };
    const Turn turns[] = {{0, 1},     {1, 3},      {9000, 1},  {-9000, 3}, {27000, 3},
                          {18000, 2}, {-27000, 1}, {45000, 1}, {36000, 0}, {-72000, 0}};
    for (uint32_t vp = 1; vp <= 8; ++vp)
        for (const Turn& t : turns) {
            SCOPED_TRACE(::testing::Message() << "perspective " << vp << ", turn " << t.angle);
            BitmapHandle b = zktest::described(11, 6, 8);
            ASSERT_EQ(Z_AllocateBitmap(&b, TYPE_CONV), ST_OK);
            b.ViewPerspective = vp;
            const Image im = random_image(11, 6, 8, vp);
            put_image(b, im);
            Image want = displayed(im, vp);
            for (int q = 0; q < t.quarters; ++q) want = turn(want, true);
            const int32_t r = t.angle == 0   ? Z_RotateBitmap90(&b, 1)
                              : t.angle == 1 ? Z_RotateBitmap90(&b, 0)
                                             : Z_RotateBitmap(&b, t.angle, ROTATE_RESIZE, 0);
            ASSERT_EQ(r, ST_OK);
            EXPECT_EQ(b.ViewPerspective, vp);
            EXPECT_TRUE(displayed(get_image(b), vp) == want);
            Z_FreeBitmap(&b);
        }
}

// Statuses, with the record and pixels unchanged by every refusal.
TEST_F(RotateBitmap, RefusalsLeaveTheBitmapAlone) {
    EXPECT_EQ(Z_RotateBitmap90(nullptr, 1), ST_NO_BITMAP);
    EXPECT_EQ(Z_RotateBitmap(nullptr, 9000, ROTATE_RESIZE, 0), ST_NO_BITMAP);
    BitmapHandle unallocated = zktest::described(4, 4, 8);
    EXPECT_EQ(Z_RotateBitmap90(&unallocated, 1), ST_INVALID_BITMAP);
    EXPECT_EQ(Z_RotateBitmap(&unallocated, 18000, 0, 0), ST_INVALID_BITMAP);

    struct Case {
        int w, h;
        uint32_t struct_size;  // 0: the right one
        int32_t angle;         // INT32_MAX: Z_RotateBitmap90
        uint32_t flags;
        int32_t want;
    };
    const Case cases[] = {
        {7, 5, 100, INT32_MAX, 0, ST_BAD_STRUCT_SIZE},
        {7, 5, 100, 9000, ROTATE_RESIZE, ST_BAD_STRUCT_SIZE},
        {7, 5, 0, 4500, ROTATE_RESIZE, ST_BAD_PARAM},
        {7, 5, 0, 9001, ROTATE_RESIZE, ST_BAD_PARAM},
        {7, 5, 0, -100, ROTATE_RESIZE, ST_BAD_PARAM},
        {7, 5, 0, INT32_MIN, ROTATE_RESIZE, ST_BAD_PARAM},
        {7, 5, 0, 9000, 0, ST_BAD_PARAM},  // keeping the size would need any-angle rotation
        {7, 5, 0, -9000, 0, ST_BAD_PARAM},
        {7, 5, 0, 0, 0, ST_OK},
        {7, 5, 0, 36000, ROTATE_RESIZE, ST_OK},
        {7, 5, 0, -36000 * 5, 0, ST_OK},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message() << "angle " << c.angle << " flags " << c.flags);
        BitmapHandle b = zktest::described(c.w, c.h, 24);
        ASSERT_EQ(Z_AllocateBitmap(&b, TYPE_CONV), ST_OK);
        const Image im = random_image(c.w, c.h, 24, 5);
        put_image(b, im);
        if (c.struct_size) b.StructSize = c.struct_size;
        BitmapHandle before;
        std::memcpy(&before, &b, sizeof b);
        const int32_t r =
            c.angle == INT32_MAX ? Z_RotateBitmap90(&b, 1) : Z_RotateBitmap(&b, c.angle, c.flags, 0x123456);
        EXPECT_EQ(r, c.want);
        EXPECT_EQ(std::memcmp(&before, &b, sizeof b), 0);
        b.StructSize = Z_BITMAPHANDLE_SIZE;
        EXPECT_TRUE(get_image(b) == im);
        Z_FreeBitmap(&b);
    }
    // A square bitmap turns a quarter without ROTATE_RESIZE: the size stays.
    BitmapHandle sq = zktest::described(6, 6, 4);
    ASSERT_EQ(Z_AllocateBitmap(&sq, TYPE_CONV), ST_OK);
    sq.ViewPerspective = VP_TOP_LEFT;
    const Image im = random_image(6, 6, 4, 9);
    put_image(sq, im);
    EXPECT_EQ(Z_RotateBitmap(&sq, -9000, 0, 0), ST_OK);
    EXPECT_TRUE(get_image(sq) == turn(im, false));
    Z_FreeBitmap(&sq);
}

// ---------------------------------------------------------------------------
struct HookLog {
    int calls = 0;
    int32_t width = 0, height = 0, angle = 0, new_width = 0, new_height = 0, result = ST_OK;
};
HookLog g_hook;
int32_t Z_API rotate_hook(BitmapHandle* b, int32_t width, int32_t height, int32_t angle) {
    ++g_hook.calls;
    g_hook.width = width;
    g_hook.height = height;
    g_hook.angle = angle;
    g_hook.new_width = b->Width;
    g_hook.new_height = b->Height;
    return g_hook.result;
}

// The rotate hook sees the turned bitmap with the old size and the angle of
// the displayed turn; a failing hook's status is returned and the caller's
// bitmap stays as it was.
TEST_F(RotateBitmap, RotateHookGetsTheOldSizeAndAngleAndMayRefuse) {
    Z_DISDISPATCH table{};
    table.Entry[12] = reinterpret_cast<Z_DISPATCHPROC>(&rotate_hook);
    ASSERT_EQ(Z_SetDisDispatch(&table), ST_OK);
    struct Case {
        int32_t angle;  // Z_RotateBitmap; 1 / 0 mean Z_RotateBitmap90 clockwise / not
        uint32_t vp;
        int32_t hook_result, want_angle;
    };
    const Case cases[] = {{1, VP_TOP_LEFT, ST_OK, 9000},      {0, VP_TOP_LEFT, ST_OK, -9000},
                          {1, VP_BOTTOM_LEFT, ST_OK, 9000},   {9000, VP_TOP_LEFT, ST_OK, 9000},
                          {-9000, VP_TOP_LEFT, ST_OK, -9000}, {18000, VP_TOP_LEFT, ST_OK, 18000},
                          {1, VP_TOP_LEFT, -77, 9000},        {18000, VP_TOP_LEFT, -78, 18000}};
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message() << "angle " << c.angle << ", hook " << c.hook_result);
        g_hook = HookLog{};
        g_hook.result = c.hook_result;
        BitmapHandle b = zktest::described(9, 4, 8);
        ASSERT_EQ(Z_AllocateBitmap(&b, TYPE_CONV), ST_OK);
        b.ViewPerspective = c.vp;
        const Image im = random_image(9, 4, 8, 3);
        put_image(b, im);
        BitmapHandle before;
        std::memcpy(&before, &b, sizeof b);
        const int32_t r = c.angle == 1 || c.angle == 0 ? Z_RotateBitmap90(&b, c.angle)
                                                       : Z_RotateBitmap(&b, c.angle, ROTATE_RESIZE, 0);
        EXPECT_EQ(r, c.hook_result);
        EXPECT_EQ(g_hook.calls, 1);
        EXPECT_EQ(g_hook.width, 9);
        EXPECT_EQ(g_hook.height, 4);
        EXPECT_EQ(g_hook.angle, c.want_angle);
        EXPECT_EQ(g_hook.new_width, c.want_angle == 18000 ? 9 : 4);
        if (c.hook_result != ST_OK) {
            EXPECT_EQ(std::memcmp(&before, &b, sizeof b), 0);
            EXPECT_TRUE(get_image(b) == im);
        }
        Z_FreeBitmap(&b);
    }
    Z_DISDISPATCH empty{};
    ASSERT_EQ(Z_SetDisDispatch(&empty), ST_OK);
}

// ---------------------------------------------------------------------------
struct Calls {
    std::vector<int32_t> percents;
    size_t stop_at = SIZE_MAX;  // index of the call that answers with -99
};
int32_t Z_API progress(int32_t percent, void* user) {
    auto* c = static_cast<Calls*>(user);
    c->percents.push_back(percent);
    return c->percents.size() - 1 == c->stop_at ? -99 : ST_OK;
}

// Progress runs from 0 to 100 in rising steps; a callback that stops the
// turn at any call leaves the bitmap as it was and nothing behind.
TEST_F(RotateBitmap, ProgressAndStoppingLeaveNothingBehind) {
    const int files_before = open_files();
    for (Kind kind : {Kind::Conventional, Kind::TiledDisk, Kind::Disk})
        for (int32_t angle : {9000, 18000}) {
            SCOPED_TRACE(::testing::Message() << zktest::kind_name(kind) << ", angle " << angle);
            BitmapHandle b{};
            std::vector<uint8_t> caller;
            zktest::make_bitmap(kind, 21, 37, 1, b, caller);
            if (::testing::Test::HasFatalFailure()) return;
            const Image im = random_image(21, 37, 1, 77);
            put_image(b, im);
            Calls all;
            ASSERT_EQ(Z_SetStatusCallBack(progress, &all, nullptr, nullptr), ST_OK);
            ASSERT_EQ(Z_RotateBitmap(&b, angle, ROTATE_RESIZE, 0), ST_OK);
            ASSERT_EQ(Z_SetStatusCallBack(nullptr, nullptr, nullptr, nullptr), ST_OK);
            ASSERT_GE(all.percents.size(), 2u);
            EXPECT_EQ(all.percents.front(), 0);
            EXPECT_EQ(all.percents.back(), 100);
            for (size_t i = 1; i < all.percents.size(); ++i) EXPECT_GT(all.percents[i], all.percents[i - 1]);
            ASSERT_EQ(Z_RotateBitmap(&b, -angle, ROTATE_RESIZE, 0), ST_OK);  // back to the first picture
            for (size_t stop : {size_t{0}, size_t{1}, all.percents.size() / 2, all.percents.size() - 1}) {
                Calls c;
                c.stop_at = stop;
                ASSERT_EQ(Z_SetStatusCallBack(progress, &c, nullptr, nullptr), ST_OK);
                BitmapHandle before;
                std::memcpy(&before, &b, sizeof b);
                EXPECT_EQ(Z_RotateBitmap(&b, angle, ROTATE_RESIZE, 0), -99);
                EXPECT_EQ(c.percents.size(), stop + 1);
                ASSERT_EQ(Z_SetStatusCallBack(nullptr, nullptr, nullptr, nullptr), ST_OK);
                EXPECT_EQ(std::memcmp(&before, &b, sizeof b), 0);
                EXPECT_TRUE(get_image(b) == im);
            }
            ASSERT_EQ(Z_SetStatusCallBack(nullptr, nullptr, nullptr, nullptr), ST_OK);
            Z_FreeBitmap(&b);
        }
    EXPECT_EQ(open_files(), files_before);
    EXPECT_TRUE(dir_.files().empty());
}

// Every allocation, mapping and file call of a turn may fail: the turn then
// returns a failure with the caller's record and pixels as they were and
// nothing left open; once every call is passed it succeeds.
TEST_F(RotateBitmap, InjectedFailuresLeaveTheBitmapAsItWas) {
    const int files_before = open_files();
    struct Case {
        Kind kind;
        int bpp;
        int32_t angle;
    };
    const Case cases[] = {{Kind::Conventional, 1, 9000}, {Kind::Conventional, 24, 18000}, {Kind::Global, 8, -9000},
                          {Kind::TiledDisk, 1, 9000},    {Kind::TiledMixed, 24, 27000},   {Kind::Disk, 4, 9000},
                          {Kind::Disk, 12, 18000},       {Kind::TiledDisk, 8, 18000}};
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message() << zktest::kind_name(c.kind) << ", " << c.bpp << " bits, " << c.angle);
        const Image im = random_image(19, 26, c.bpp, uint32_t(c.bpp));
        zktest::sweep_faults(
            {FaultKind::Allocation, FaultKind::Mapping, FaultKind::File}, 400, [&](FaultKind fk, int n) {
                BitmapHandle b{};
                std::vector<uint8_t> caller;
                zktest::make_bitmap(c.kind, 19, 26, c.bpp, b, caller);
                if (::testing::Test::HasFatalFailure()) return true;
                b.ViewPerspective = VP_TOP_LEFT;
                put_image(b, im);
                BitmapHandle before;
                std::memcpy(&before, &b, sizeof b);
                const int32_t r =
                    zktest::under_fault(fk, n, [&] { return Z_RotateBitmap(&b, c.angle, ROTATE_RESIZE, 0); });
                bool done = r == ST_OK;
                if (done) {
                    const Image want = c.angle == 18000 ? half(im) : turn(im, c.angle == 9000);
                    EXPECT_TRUE(get_image(b) == want);
                } else {
                    EXPECT_LT(r, 0);
                    EXPECT_EQ(std::memcmp(&before, &b, sizeof b), 0);
                    EXPECT_TRUE(get_image(b) == im);
                }
                Z_FreeBitmap(&b);
                return done;
            });
    }
    EXPECT_EQ(open_files(), files_before);
    EXPECT_TRUE(dir_.files().empty());
}

// Bitmaps large enough for whole tiles of the tile kernels (512 x 512 at 1
// bit, 64 x 64 at 8), in every kernel tier: a square turned in its own
// storage (rings of a whole tile and a narrow one) and a taller one turned
// into new storage, both ways, against the model.
TEST_F(RotateBitmap, TilesMatchTheModelInEveryTier) {
    namespace pf = zk::platform;
    struct Case {
        int bpp, ring_tile, side, w, h;
    };
    const Case cases[] = {{1, 512, 1056, 1100, 1040}, {8, 64, 144, 150, 140}};
    for (pf::CpuTier tier : pf::kCpuTiers) {
        if (tier > pf::cpu_tier_supported()) continue;  // named by the buffer test
        const pf::CpuTier previous = pf::set_cpu_tier_cap(tier);
        for (const Case& c : cases) {
            zk::rotate::set_square_tile_for_testing(uint32_t(c.ring_tile));
            for (const auto& sz : {std::pair{c.side, c.side}, std::pair{c.w, c.h}}) {
                SCOPED_TRACE(::testing::Message() << pf::cpu_tier_name(tier) << ", " << c.bpp << " bits, " << sz.first
                                                  << " x " << sz.second);
                const Image im = random_image(sz.first, sz.second, c.bpp, uint32_t(sz.second));
                BitmapHandle b = zktest::described(sz.first, sz.second, c.bpp);
                ASSERT_EQ(Z_AllocateBitmap(&b, TYPE_CONV), ST_OK);
                b.ViewPerspective = VP_TOP_LEFT;
                put_image(b, im);
                void* const data = b.Data;
                EXPECT_EQ(Z_RotateBitmap90(&b, 1), ST_OK);
                EXPECT_EQ(b.Data == data, sz.first == sz.second);
                EXPECT_TRUE(get_image(b) == turn(im, true));
                EXPECT_EQ(Z_RotateBitmap90(&b, 0), ST_OK);
                EXPECT_EQ(Z_RotateBitmap90(&b, 0), ST_OK);
                EXPECT_TRUE(get_image(b) == turn(im, false));
                Z_FreeBitmap(&b);
            }
        }
        pf::set_cpu_tier_cap(previous);
    }
}

// Square bitmaps whose side is a multiple of 16 turn in their own storage,
// ring by ring, in memory and in tiled storage (tiles of 16 here, so that
// the 80-pixel side has short tiles too): the model's result with the
// record untouched (same storage, nothing new) at every depth; a callback
// stopping at any ring, a refusing rotate hook and every refused
// allocation, mapping and file call leave the record and pixels as they
// were.
TEST_F(RotateBitmap, SquaresTurnInTheirOwnStorage) {
    zk::rotate::set_square_tile_for_testing(16);
    const Kind kinds[] = {Kind::Conventional, Kind::TiledMemory, Kind::TiledDisk, Kind::TiledMixed};
    const auto square = [](Kind kind, int side, int bpp, BitmapHandle& b, const Image& im) {
        std::vector<uint8_t> unused;
        zktest::make_bitmap(kind, side, side, bpp, b, unused, 7);
        b.ViewPerspective = VP_TOP_LEFT;
        put_image(b, im);
    };
    for (Kind kind : kinds)
        for (int bpp : kDepths)
            for (int side : {16, 80}) {
                SCOPED_TRACE(::testing::Message() << zktest::kind_name(kind) << ", " << bpp << " bits, side " << side);
                const Image im = random_image(side, side, bpp, uint32_t(bpp * side));
                BitmapHandle b{};
                square(kind, side, bpp, b, im);
                if (::testing::Test::HasFatalFailure()) return;
                BitmapHandle before;
                std::memcpy(&before, &b, sizeof b);
                ASSERT_EQ(Z_RotateBitmap90(&b, 1), ST_OK);
                ASSERT_TRUE(get_image(b) == turn(im, true));
                EXPECT_EQ(std::memcmp(&before, &b, sizeof b), 0);
                ASSERT_EQ(Z_RotateBitmap90(&b, 0), ST_OK);
                ASSERT_EQ(Z_RotateBitmap(&b, -9000, 0, 0), ST_OK);
                ASSERT_TRUE(get_image(b) == turn(im, false));
                ASSERT_EQ(Z_RotateBitmap(&b, 9000, 0, 0), ST_OK);
                ASSERT_TRUE(get_image(b) == im);
                EXPECT_EQ(std::memcmp(&before, &b, sizeof b), 0);
                Z_FreeBitmap(&b);
            }

    for (Kind kind : {Kind::Conventional, Kind::TiledDisk}) {
        SCOPED_TRACE(zktest::kind_name(kind));
        const Image im = random_image(80, 80, 4, 11);
        BitmapHandle b{};
        square(kind, 80, 4, b, im);
        if (::testing::Test::HasFatalFailure()) return;
        BitmapHandle before;
        std::memcpy(&before, &b, sizeof b);
        const auto unchanged = [&] {
            EXPECT_EQ(std::memcmp(&before, &b, sizeof b), 0);
            EXPECT_TRUE(get_image(b) == im);
        };
        Calls all;
        ASSERT_EQ(Z_SetStatusCallBack(progress, &all, nullptr, nullptr), ST_OK);
        ASSERT_EQ(Z_RotateBitmap90(&b, 1), ST_OK);
        ASSERT_EQ(Z_SetStatusCallBack(nullptr, nullptr, nullptr, nullptr), ST_OK);
        ASSERT_EQ(Z_RotateBitmap90(&b, 0), ST_OK);
        EXPECT_EQ(all.percents.size(), 10u);  // the start and each of the nine rings
        EXPECT_EQ(all.percents.back(), 100);
        for (size_t stop = 0; stop < all.percents.size(); ++stop) {
            Calls c;
            c.stop_at = stop;
            ASSERT_EQ(Z_SetStatusCallBack(progress, &c, nullptr, nullptr), ST_OK);
            EXPECT_EQ(Z_RotateBitmap90(&b, 1), -99);
            ASSERT_EQ(Z_SetStatusCallBack(nullptr, nullptr, nullptr, nullptr), ST_OK);
            unchanged();
        }
        Z_DISDISPATCH table{};
        table.Entry[12] = reinterpret_cast<Z_DISPATCHPROC>(&rotate_hook);
        ASSERT_EQ(Z_SetDisDispatch(&table), ST_OK);
        g_hook = HookLog{};
        g_hook.result = -77;
        EXPECT_EQ(Z_RotateBitmap90(&b, 0), -77);
        EXPECT_EQ(g_hook.angle, -9000);
        Z_DISDISPATCH empty{};
        ASSERT_EQ(Z_SetDisDispatch(&empty), ST_OK);
        unchanged();
        zktest::sweep_faults({FaultKind::Allocation, FaultKind::Mapping, FaultKind::File}, 3000,
                             [&](FaultKind fk, int n) {
                                 const int32_t r = zktest::under_fault(fk, n, [&] { return Z_RotateBitmap90(&b, 1); });
                                 if (r == ST_OK) return Z_RotateBitmap90(&b, 0) == ST_OK;
                                 if (fk == FaultKind::File)  // disk tiles are read and written through their files
                                     EXPECT_TRUE(r == ST_FILE_SEEK || r == ST_FILE_READ || r == ST_FILE_WRITE) << r;
                                 else
                                     EXPECT_EQ(r, ST_NO_MEMORY);
                                 unchanged();
                                 return false;
                             });
        unchanged();
        Z_FreeBitmap(&b);
    }
}

}  // namespace
