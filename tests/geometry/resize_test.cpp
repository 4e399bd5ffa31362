// Streaming resize and the row scalers: row counts in every order of rows,
// columns at every depth against a bit-by-bit model, in place and not, and
// the refusals.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <numeric>
#include <random>
#include <vector>

#include "test_support.h"

namespace {

using zk::platform::FaultKind;

const int kDepths[] = {1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 24, 32, 48, 64};

using Row = std::vector<uint8_t>;

size_t row_bytes(int64_t width, int bpp) { return static_cast<size_t>((width * bpp + 7) / 8); }

// Pixel k of a packed row, read one bit at a time: depths below 8 from the
// most significant bit of each byte, 12 bits from bit 12k counting from the
// least significant bit of byte 0, whole bytes little-endian.
uint64_t pixel(const Row& row, int bpp, int64_t k) {
    uint64_t v = 0;
    if (bpp < 8) {
        for (int i = 0; i < bpp; ++i) {
            const int64_t bit = k * bpp + i;
            v = (v << 1) | ((row.at(static_cast<size_t>(bit / 8)) >> (7 - bit % 8)) & 1u);
        }
    } else if (bpp == 12) {
        for (int i = 0; i < 12; ++i) {
            const int64_t bit = k * 12 + i;
            v |= uint64_t{(row.at(static_cast<size_t>(bit / 8)) >> (bit % 8)) & 1u} << i;
        }
    } else {
        for (int i = bpp / 8 - 1; i >= 0; --i) v = (v << 8) | row.at(static_cast<size_t>(k * (bpp / 8) + i));
    }
    return v;
}

// Destination rows yielded by source row i of old rows to `now`.
int64_t floor_div(int64_t a, int64_t b) { return a / b - (a % b != 0 && (a < 0) != (b < 0)); }
int32_t model_copies(int64_t i, int64_t old, int64_t now) {
    return int32_t(floor_div((i + 1) * now, old) - floor_div(i * now, old));
}

// A resize state, released on every way out of a test (assertions return
// early).
class Resizer {
public:
    explicit Resizer(ResizeHandle h) : h_(h) {}
    ~Resizer() {
        if (h_) Z_StopResize(h_);
    }
    Resizer(const Resizer&) = delete;
    Resizer& operator=(const Resizer&) = delete;
    operator ResizeHandle() const { return h_; }
    ResizeHandle release() {
        ResizeHandle h = h_;
        h_ = nullptr;
        return h;
    }

private:
    ResizeHandle h_;
};

Resizer start(int32_t ow, int32_t oh, int32_t nw, int32_t nh) {
    ResizeHandle h = nullptr;
    EXPECT_EQ(Z_StartResize(ow, oh, nw, nh, &h), ST_OK) << ow << "x" << oh << " -> " << nw << "x" << nh;
    return Resizer(h);
}

// Feeds rows in `order` (1-pixel rows widened to 2) and checks each row's
// count. A row that follows the row below it, or no neighbour, yields what it
// yields in a forward pass; a row that follows the row above it yields what
// the row above it yields going forwards (row 0 what row -1 would): 3 rows to
// 2 taken as 2, 1, 0 yield 1, 0, 1.
void check_order(int32_t old, int32_t now, const std::vector<int32_t>& order, const char* what) {
    Resizer h = start(1, old, 2, now);  // widths differ, so no row is passed through unscaled
    int32_t last = -1;
    for (int32_t row : order) {
        uint8_t buffer[2] = {0x5A, 0};
        int32_t width = 0, copies = -1;
        const int32_t got = Z_Resize(buffer, row, 8, &width, &copies, h);
        const int32_t want = model_copies(row == last - 1 ? row - 1 : row, old, now);
        last = row;
        ASSERT_EQ(got, want) << what << " " << old << " -> " << now << " row " << row;
        ASSERT_EQ(copies, got);
        ASSERT_EQ(width, 2);
    }
    EXPECT_EQ(Z_StopResize(h.release()), ST_OK);
}

TEST(ResizeRows, EveryRowYieldsItsShareInEveryOrder) {
    std::vector<std::pair<int32_t, int32_t>> pairs;
    for (int32_t old = 1; old <= 24; ++old)
        for (int32_t now = 1; now <= 24; ++now) pairs.push_back({old, now});
    for (auto p : std::initializer_list<std::pair<int32_t, int32_t>>{
             {1000, 7}, {7, 1000}, {997, 1000}, {1000, 997}, {640, 480}, {480, 640}, {3, 100000}})
        pairs.push_back(p);
    std::mt19937 rng(3);
    for (auto [old, now] : pairs) {
        std::vector<int32_t> forward(static_cast<size_t>(old));
        std::iota(forward.begin(), forward.end(), 0);
        std::vector<int32_t> backward(forward.rbegin(), forward.rend());
        std::vector<int32_t> shuffled = forward;
        std::shuffle(shuffled.begin(), shuffled.end(), rng);
        // A walk that turns often, with a jump now and then.
        std::vector<int32_t> walk;
        int32_t r = static_cast<int32_t>(rng() % static_cast<uint32_t>(old));
        for (int i = 0; i < 3 * old; ++i) {
            walk.push_back(r);
            const uint32_t pick = rng() % 8;
            r = pick == 0 ? static_cast<int32_t>(rng() % static_cast<uint32_t>(old))
                          : std::clamp(r + (pick < 4 ? 1 : -1), 0, old - 1);
        }
        check_order(old, now, forward, "forward");
        check_order(old, now, backward, "backward");
        check_order(old, now, shuffled, "shuffled");
        check_order(old, now, walk, "walk");
    }
}

TEST(ResizeRows, TotalsOfAForwardPass) {
    // Cumulative counts: floor((i + 1) * new / old) up to and including row i.
    for (int32_t old : {3, 2, 4, 100}) {
        for (int32_t now : {2, 3, 1, 7, 250}) {
            Resizer h = start(4, old, 3, now);
            int64_t total = 0;
            for (int32_t i = 0; i < old; ++i) {
                uint8_t buffer[4] = {};
                int32_t width = 0, copies = 0;
                total += Z_Resize(buffer, i, 8, &width, &copies, h);
                ASSERT_EQ(total, (int64_t{i} + 1) * now / old) << old << " -> " << now << " row " << i;
            }
        }
    }
}

// Runs one row of `src` through Z_Resize (in place) and checks every
// destination pixel against source pixel floor(j * old / new).
void check_columns(int bpp, int32_t old, int32_t now, uint32_t seed) {
    const Row src = zktest::random_bytes(row_bytes(old, bpp), seed);
    Row buffer(std::max(row_bytes(old, bpp), row_bytes(now, bpp)));
    std::copy(src.begin(), src.end(), buffer.begin());
    Resizer h = start(old, 1, now, 1);
    int32_t width = 0, copies = 0;
    ASSERT_EQ(Z_Resize(buffer.data(), 0, bpp, &width, &copies, h), 1);
    ASSERT_EQ(width, now);
    for (int64_t j = 0; j < now; ++j)
        ASSERT_EQ(pixel(buffer, bpp, j), pixel(src, bpp, j * old / now))
            << bpp << " bits, " << old << " -> " << now << ", pixel " << j;
}

TEST(ResizeColumns, EveryDepthEveryWidthPairInPlace) {
    const int32_t widths[] = {1, 2, 3, 4, 5, 7, 8, 9, 13, 16, 17, 31, 32, 33, 64, 100, 255, 257};
    uint32_t seed = 1;
    for (int bpp : kDepths)
        for (int32_t old : widths)
            for (int32_t now : widths) check_columns(bpp, old, now, seed++);
    // The example of three pixels to two: pixels 0 and 1.
    Row row = {0x01, 0x02, 0x03};
    Resizer h = start(3, 1, 2, 1);
    int32_t width = 0, copies = 0;
    EXPECT_EQ(Z_Resize(row.data(), 0, 8, &width, &copies, h), 1);
    EXPECT_EQ(Z_StopResize(h.release()), ST_OK);
    EXPECT_EQ(row[0], 0x01);
    EXPECT_EQ(row[1], 0x02);
}

// The scalers called directly with a general stepping: destination pixel j
// is source pixel start + q * j + floor((a0 + r * j) / m) (q taken as 0 when
// the enlarge flag applies).
struct Stepping {
    int32_t start, q, a0, r, m, count;
};
int64_t source_of(const Stepping& s, int64_t j) { return s.start + s.q * j + (s.a0 + s.r * j) / s.m; }

TEST(ScanLine, ForwardAndReverseFollowTheStepping) {
    std::mt19937 rng(5);
    for (int bpp : kDepths) {
        for (int trial = 0; trial < 200; ++trial) {
            Stepping s;
            s.m = 1 + static_cast<int32_t>(rng() % 50);
            s.r = static_cast<int32_t>(rng() % static_cast<uint32_t>(s.m));
            s.a0 = static_cast<int32_t>(rng() % static_cast<uint32_t>(s.m));
            s.q = static_cast<int32_t>(rng() % 4);
            s.start = static_cast<int32_t>(rng() % 10);
            s.count = static_cast<int32_t>(rng() % 80);
            const int64_t last = s.count ? source_of(s, s.count - 1) : 0;
            const Row src = zktest::random_bytes(row_bytes(last + 1, bpp), rng());
            const Row fill = zktest::random_bytes(row_bytes(s.count, bpp), rng());
            // The enlarge flag applies the q-step only at 48 and 64 bits.
            for (int enlarge : {0, 1}) {
                Stepping want = s;
                if (enlarge && bpp != 48 && bpp != 64) want.q = 0;
                Row fwd = fill, rev = fill;
                Z_GetResizedScanLine(bpp, 0, s.start, s.q, s.a0, s.r, src.data(), fwd.data(), s.count, s.m, enlarge);
                Z_ReverseGetResizedScanLine(bpp, 0, s.start, s.q, s.a0, s.r, src.data(), rev.data(), s.count, s.m,
                                            enlarge);
                for (int64_t j = 0; j < s.count; ++j) {
                    const uint64_t expected = pixel(src, bpp, source_of(want, j));
                    ASSERT_EQ(pixel(fwd, bpp, j), expected) << bpp << " bits, forward, enlarge " << enlarge;
                    ASSERT_EQ(pixel(rev, bpp, j), expected) << bpp << " bits, reverse, enlarge " << enlarge;
                }
            }
        }
    }
}

TEST(ScanLine, ReverseScalesInPlaceBothWays) {
    const int32_t widths[] = {1, 2, 3, 5, 8, 11, 16, 29, 64, 97};
    uint32_t seed = 100;
    for (int bpp : kDepths) {
        for (int32_t old : widths) {
            for (int32_t now : widths) {
                const Row src = zktest::random_bytes(row_bytes(old, bpp), seed++);
                Row buffer(std::max(src.size(), row_bytes(now, bpp)));
                std::copy(src.begin(), src.end(), buffer.begin());
                const int enlarge = now > old;
                Z_ReverseGetResizedScanLine(bpp, static_cast<int32_t>(src.size()), 0, old / now, 0, old % now,
                                            buffer.data(), buffer.data(), now, now, enlarge);
                for (int64_t j = 0; j < now; ++j)
                    ASSERT_EQ(pixel(buffer, bpp, j), pixel(src, bpp, j * old / now))
                        << bpp << " bits, " << old << " -> " << now << ", pixel " << j;
            }
        }
    }
}

TEST(ScanLine, WhichBytesEachScalerTouches) {
    // Three source pixels to two destination pixels; dst is 8 bytes of 0xFF
    // and `bytes` is 5. The forward scaler clears those 5 bytes first at 1,
    // 2, 3, 5, 6, 7 and 12 bits; at every other depth, and always in the
    // reverse scaler, bits outside the two pixels keep their value.
    for (int bpp : kDepths) {
        const Row src = zktest::random_bytes(row_bytes(3, bpp), static_cast<uint32_t>(bpp));
        for (bool reverse : {false, true}) {
            Row dst(std::max<size_t>(8, row_bytes(2, bpp) + 1), 0xFF);
            auto scaler = reverse ? Z_ReverseGetResizedScanLine : Z_GetResizedScanLine;
            scaler(bpp, 5, 0, 1, 0, 1, src.data(), dst.data(), 2, 2, 0);
            const bool clears = !reverse && (bpp < 8 ? bpp != 4 : bpp == 12);
            for (size_t bit = 0; bit < dst.size() * 8; ++bit) {
                const bool in_pixels = bpp == 12 ? bit < 24 : bit < static_cast<size_t>(2 * bpp);
                if (in_pixels) continue;
                const int value = bpp == 12 ? (dst[bit / 8] >> (bit % 8)) & 1 : (dst[bit / 8] >> (7 - bit % 8)) & 1;
                const int want = clears && bit < 40 ? 0 : 1;
                ASSERT_EQ(value, want) << bpp << " bits, reverse " << reverse << ", bit " << bit;
            }
            EXPECT_EQ(pixel(dst, bpp, 0), pixel(src, bpp, 0));
            EXPECT_EQ(pixel(dst, bpp, 1), pixel(src, bpp, 1));
        }
    }
}

TEST(ScanLine, RefusedArgumentsLeaveTheDestination) {
    const Row src(64, 0xAB);
    struct Case {
        const char* what;
        int32_t bpp, bytes, start, q, a0, r, count, m;
        bool null_src;
    } cases[] = {
        {"depth 0", 0, 4, 0, 1, 0, 0, 4, 4, false},
        {"depth 9", 9, 4, 0, 1, 0, 0, 4, 4, false},
        {"depth 65", 65, 4, 0, 1, 0, 0, 4, 4, false},
        {"depth -8", -8, 4, 0, 1, 0, 0, 4, 4, false},
        {"null source", 8, 4, 0, 1, 0, 0, 4, 4, true},
        {"denominator 0", 8, 4, 0, 1, 0, 0, 4, 0, false},
        {"denominator -3", 8, 4, 0, 1, 0, 0, 4, -3, false},
        {"remainder = denominator", 8, 4, 0, 1, 0, 4, 4, 4, false},
        {"negative remainder", 8, 4, 0, 1, 0, -1, 4, 4, false},
        {"accumulator = denominator", 8, 4, 0, 1, 4, 0, 4, 4, false},
        {"negative accumulator", 8, 4, 0, 1, -1, 0, 4, 4, false},
        {"negative count", 8, 4, 0, 1, 0, 0, -1, 4, false},
        {"negative bytes", 1, -1, 0, 1, 0, 0, 4, 4, false},
        {"negative start", 8, 4, -1, 1, 0, 0, 4, 4, false},
        {"negative step", 8, 4, 0, -1, 0, 0, 4, 4, false},
        {"position past 2^31 - 1", 8, 4, 0, INT32_MAX, 0, 0, 4, 4, false},
    };
    for (const Case& c : cases) {
        for (auto scaler : {Z_GetResizedScanLine, Z_ReverseGetResizedScanLine}) {
            Row dst(64, 0x11);
            scaler(c.bpp, c.bytes, c.start, c.q, c.a0, c.r, c.null_src ? nullptr : src.data(), dst.data(), c.count, c.m,
                   0);
            EXPECT_EQ(dst, Row(64, 0x11)) << c.what;
            scaler(c.bpp, c.bytes, c.start, c.q, c.a0, c.r, src.data(), nullptr, c.count, c.m, 0);  // no crash
        }
    }
}

TEST(Resize, SizesDerivedFromOneDimension) {
    struct Case {
        int32_t ow, oh, nw, nh, want_w, want_h;
    } cases[] = {
        {200, 100, 0, 50, 100, 50},  // the aspect ratio is kept
        {200, 100, 50, 0, 50, 25},   //
        {3, 2, 0, 3, 5, 3},          // 4.5 rounds up
        {3, 2, 2, 0, 2, 1},          // 1.33 rounds down
        {640, 480, 641, 1, 641, 1},  // both given: both stand
    };
    for (const Case& c : cases) {
        Resizer h = start(c.ow, c.oh, c.nw, c.nh);
        Row buffer(row_bytes(std::max(c.ow, c.want_w), 8));
        int64_t rows = 0;
        int32_t width = 0, copies = 0;
        for (int32_t i = 0; i < c.oh; ++i) rows += Z_Resize(buffer.data(), i, 8, &width, &copies, h);
        EXPECT_EQ(width, c.want_w) << c.ow << "x" << c.oh << " -> " << c.nw << "x" << c.nh;
        EXPECT_EQ(rows, c.want_h) << c.ow << "x" << c.oh << " -> " << c.nw << "x" << c.nh;
    }
}

TEST(Resize, EqualSizesPassRowsThroughUntouched) {
    for (int bpp : kDepths) {
        Resizer h = start(37, 5, 37, 5);
        const Row src = zktest::random_bytes(row_bytes(37, bpp), static_cast<uint32_t>(bpp));
        for (int32_t row : {0, 1, 4, 3, 3, 0}) {
            Row buffer = src;
            int32_t width = 0, copies = 0;
            EXPECT_EQ(Z_Resize(buffer.data(), row, bpp, &width, &copies, h), ST_OK);
            EXPECT_EQ(copies, 1);
            EXPECT_EQ(width, 37);
            EXPECT_EQ(buffer, src);
        }
    }
}

TEST(Resize, DroppedRowsLeaveTheBuffer) {
    Resizer h = start(8, 10, 3, 2);
    const Row src = zktest::random_bytes(8, 9);
    for (int32_t i = 0; i < 10; ++i) {
        Row buffer = src;
        int32_t width = 0, copies = -1;
        const int32_t got = Z_Resize(buffer.data(), i, 8, &width, &copies, h);
        ASSERT_EQ(got, model_copies(i, 10, 2));
        EXPECT_EQ(width, 3);
        if (got == 0) {
            EXPECT_EQ(buffer, src) << "row " << i;
        }
    }
}

TEST(Resize, RefusalsGiveTheirStatusAndKeepTheState) {
    struct StartCase {
        const char* what;
        int32_t ow, oh, nw, nh;
    } starts[] = {
        {"negative new width", 10, 10, -1, 5},
        {"negative new height", 10, 10, 5, -1},
        {"both new sizes 0", 10, 10, 0, 0},
        {"old width 0", 0, 10, 5, 5},
        {"old height 0", 10, 0, 5, 5},
        {"negative old width", -10, 10, 5, 5},
        {"old width 0, new width derived", 0, 10, 0, 5},
        {"old height 0, new height derived", 10, 0, 5, 0},
        {"derived width rounds to 0", 1, 1000, 0, 1},
        {"derived height rounds to 0", 1000, 1, 1, 0},
        {"derived width past 31 bits", 2, 1, 0, INT32_MAX},
    };
    for (const StartCase& c : starts) {
        ResizeHandle h = reinterpret_cast<ResizeHandle>(1);
        EXPECT_EQ(Z_StartResize(c.ow, c.oh, c.nw, c.nh, &h), ST_BAD_PARAM) << c.what;
        EXPECT_EQ(h, nullptr) << c.what;
    }
    EXPECT_EQ(Z_StartResize(10, 10, 5, 5, nullptr), ST_BAD_PARAM);
    EXPECT_EQ(Z_StopResize(nullptr), ST_BAD_PARAM);

    // Refused calls in the middle of a pass change nothing: the counts of the
    // rows around them are those of an undisturbed pass.
    Resizer h = start(4, 7, 9, 3);
    uint8_t buffer[16] = {};
    int32_t width = 0, copies = 0;
    for (int32_t i = 0; i < 7; ++i) {
        struct Case {
            const char* what;
            int32_t got, want;
        } cases[] = {
            {"null buffer", Z_Resize(nullptr, i, 8, &width, &copies, h), ST_BAD_PARAM},
            {"null width", Z_Resize(buffer, i, 8, nullptr, &copies, h), ST_BAD_PARAM},
            {"null copies", Z_Resize(buffer, i, 8, &width, nullptr, h), ST_BAD_PARAM},
            {"null handle", Z_Resize(buffer, i, 8, &width, &copies, nullptr), ST_BAD_PARAM},
            {"row -1", Z_Resize(buffer, -1, 8, &width, &copies, h), ST_BAD_PARAM},
            {"row past the end", Z_Resize(buffer, 7, 8, &width, &copies, h), ST_BAD_PARAM},
            {"depth 0", Z_Resize(buffer, i, 0, &width, &copies, h), ST_BAD_BPP},
            {"depth 10", Z_Resize(buffer, i, 10, &width, &copies, h), ST_BAD_BPP},
            {"depth 65", Z_Resize(buffer, i, 65, &width, &copies, h), ST_BAD_BPP},
        };
        for (const Case& c : cases) EXPECT_EQ(c.got, c.want) << c.what << ", row " << i;
        ASSERT_EQ(Z_Resize(buffer, i, 8, &width, &copies, h), model_copies(i, 7, 3)) << "row " << i;
    }

    // A row whose byte count does not fit is refused before the buffer is
    // touched (a one-byte buffer would be far too small).
    Resizer wide_source = start(INT32_MAX, 2, 1, 1), wide_result = start(1, 2, INT32_MAX, 1);
    uint8_t one = 0x77;
    for (int bpp : {32, 48, 64}) {
        EXPECT_EQ(Z_Resize(&one, 0, bpp, &width, &copies, wide_source), ST_TOO_LARGE) << bpp;
        EXPECT_EQ(Z_Resize(&one, 1, bpp, &width, &copies, wide_result), ST_TOO_LARGE) << bpp;
    }
    EXPECT_EQ(one, 0x77);
}

TEST(Resize, RefusedAllocationIsNoMemory) {
    // Each refused allocation is ST_NO_MEMORY with no handle (ASan reports
    // anything left behind); the state is the one allocation, so the second
    // attempt gets through.
    int last = 0;
    zktest::sweep_faults({FaultKind::Allocation}, 4, [&](FaultKind kind, int n) {
        last = n;
        ResizeHandle h = reinterpret_cast<ResizeHandle>(1);
        const int32_t status = zktest::under_fault(kind, n, [&] { return Z_StartResize(30, 20, 10, 0, &h); });
        if (status == ST_NO_MEMORY) {
            EXPECT_EQ(h, nullptr);
            return false;
        }
        EXPECT_EQ(status, ST_OK);
        EXPECT_NE(h, nullptr);
        EXPECT_EQ(Z_StopResize(h), ST_OK);
        return true;
    });
    EXPECT_EQ(last, 2);
}

}  // namespace
