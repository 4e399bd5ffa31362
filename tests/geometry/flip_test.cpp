// Flip, mirror and view perspective: pixel data converted between all 64
// pairs of perspectives shows the same picture (checked against the meaning
// of each orientation value, pixel by pixel), flips and mirrors in every
// storage kind and depth, the row mirror against a per-pixel model, point
// and rectangle mappings, progress, hooks, overlays, refusals and injected
// failures.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <random>
#include <vector>

#include "../copy/copy_support.h"
#include "bitmap_handle.h"
#include "core/platform/cpu.h"
#include "geometry/flip.h"
#include "test_support.h"

namespace {

using copytest::Kind;
using zk::platform::FaultKind;

const int kDepths[] = {1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 24, 32, 48, 64};
constexpr int32_t kSize = Z_BITMAPHANDLE_SIZE;

// ---------------------------------------------------------------------------
// Pixel model: depths below 8 from the most significant bit of each byte, 12
// bits from bit 12k counting from the least significant bit of byte 0, whole
// bytes little-endian; read one bit at a time.
bool bit_of(const uint8_t* row, int bpp, uint64_t bit) {
    return bpp == 12 ? (row[bit / 8] >> (bit % 8)) & 1u : (row[bit / 8] >> (7 - bit % 8)) & 1u;
}
// Bit i (0 = least significant) of pixel k lies at this bit of the row.
uint64_t bit_at(int bpp, uint64_t k, int i) {
    if (bpp < 8) return k * bpp + (bpp - 1 - i);
    if (bpp == 12) return k * 12 + i;
    return (k * (bpp / 8) + i / 8) * 8 + (7 - i % 8);
}
uint64_t get_px(const uint8_t* row, int bpp, uint64_t k) {
    uint64_t v = 0;
    for (int i = 0; i < bpp; ++i) v |= uint64_t{bit_of(row, bpp, bit_at(bpp, k, i))} << i;
    return v;
}

struct Image {
    int w = 0, h = 0;
    std::vector<uint64_t> px;
    uint64_t& at(int x, int y) { return px[size_t(y) * w + x]; }
    uint64_t at(int x, int y) const { return px[size_t(y) * w + x]; }
    bool operator==(const Image&) const = default;
};

Image read_image(BitmapHandle& b) {
    const std::vector<uint8_t> bytes = copytest::pixels(b);
    Image im{b.Width, b.Height, std::vector<uint64_t>(size_t(b.Width) * b.Height)};
    for (int y = 0; y < b.Height; ++y)
        for (int x = 0; x < b.Width; ++x)
            im.at(x, y) = get_px(bytes.data() + size_t(y) * b.BytesPerLine, b.BitsPerPixel, x);
    return im;
}

// A bitmap of the kind filled with seeded bytes (padding included).
BitmapHandle make(Kind kind, int w, int h, int bpp, uint32_t seed, uint32_t vp = VP_TOP_LEFT) {
    BitmapHandle b = copytest::make_filled(kind, w, h, bpp, seed);
    b.ViewPerspective = vp;
    return b;
}

// Where stored pixel (x, y) of a w x h image appears on the displayed image,
// by the meaning of the orientation value: 1 row 0 on top and column 0 on
// the left, 2 mirrored, 3 turned 180 degrees, 4 flipped, 5 transposed, 6
// needing a clockwise quarter turn, 7 transverse, 8 needing a
// counter-clockwise quarter turn.
struct Pt {
    int x, y;
    bool operator==(const Pt&) const = default;
};
Pt shown_at(uint32_t vp, int x, int y, int w, int h) {
    switch (vp) {
        case 1: return {x, y};
        case 2: return {w - 1 - x, y};
        case 3: return {w - 1 - x, h - 1 - y};
        case 4: return {x, h - 1 - y};
        case 5: return {y, x};
        case 6: return {h - 1 - y, x};
        case 7: return {h - 1 - y, w - 1 - x};
        case 8: return {y, w - 1 - x};
    }
    ADD_FAILURE() << "perspective " << vp;
    return {0, 0};
}
bool swaps(uint32_t vp) { return vp >= 5 && vp <= 8; }

Image displayed(const Image& s, uint32_t vp) {
    Image d{swaps(vp) ? s.h : s.w, swaps(vp) ? s.w : s.h, std::vector<uint64_t>(s.px.size())};
    for (int y = 0; y < s.h; ++y)
        for (int x = 0; x < s.w; ++x) {
            const Pt p = shown_at(vp, x, y, s.w, s.h);
            d.at(p.x, p.y) = s.at(x, y);
        }
    return d;
}
Image flipped(const Image& s) {
    Image d = s;
    for (int y = 0; y < s.h; ++y)
        for (int x = 0; x < s.w; ++x) d.at(x, y) = s.at(x, s.h - 1 - y);
    return d;
}
Image mirrored(const Image& s) {
    Image d = s;
    for (int y = 0; y < s.h; ++y)
        for (int x = 0; x < s.w; ++x) d.at(x, y) = s.at(s.w - 1 - x, y);
    return d;
}

// Saves the thread's status callback, installs one, and puts it back.
struct Calls {
    std::vector<int32_t> percents;
    size_t stop_at = SIZE_MAX;
};
int32_t Z_API record_progress(int32_t percent, void* user) {
    auto* c = static_cast<Calls*>(user);
    c->percents.push_back(percent);
    return c->percents.size() - 1 == c->stop_at ? -99 : ST_OK;
}
class CallbackScope {
public:
    explicit CallbackScope(Calls* calls) { Z_SetStatusCallBack(&record_progress, calls, &cb_, &user_); }
    ~CallbackScope() { Z_SetStatusCallBack(cb_, user_, nullptr, nullptr); }

private:
    STATUSCALLBACK cb_ = nullptr;
    void* user_ = nullptr;
};

// ---------------------------------------------------------------------------
// Converting the pixel data to any other perspective keeps the displayed
// picture, in place and into a new bitmap, and transposing changes the
// stored size.
TEST(PerspectiveChange, AllPairsKeepThePictureAtDepths1_4_8_24) {
    for (int bpp : {1, 4, 8, 24}) {
        for (uint32_t from = 1; from <= 8; ++from) {
            for (uint32_t to = 1; to <= 8; ++to) {
                SCOPED_TRACE(::testing::Message() << bpp << " bits, " << from << " -> " << to);
                BitmapHandle b = make(Kind::Conventional, 7, 5, bpp, from * 8 + to, from);
                const Image before = read_image(b);
                const Image shown = displayed(before, from);

                BitmapHandle copy;
                ASSERT_EQ(Z_ChangeBitmapViewPerspective(&copy, &b, kSize, static_cast<int32_t>(to)), ST_OK);
                EXPECT_EQ(copy.ViewPerspective, to);
                EXPECT_EQ(displayed(read_image(copy), to), shown);
                EXPECT_EQ(read_image(b), before) << "the source is left alone";
                EXPECT_EQ(b.ViewPerspective, from);
                Z_FreeBitmap(&copy);

                ASSERT_EQ(Z_ChangeBitmapViewPerspective(nullptr, &b, kSize, static_cast<int32_t>(to)), ST_OK);
                EXPECT_EQ(b.ViewPerspective, to);
                EXPECT_EQ(b.Width, swaps(from) != swaps(to) ? 5 : 7);
                EXPECT_EQ(displayed(read_image(b), to), shown);
                Z_FreeBitmap(&b);
            }
        }
    }
}

// The same in the storage kinds that are not addressed directly (run-length
// rows at 1 bit).
TEST(PerspectiveChange, InPlaceInTiledDiskAndRunLengthStorage) {
    zktest::PrivateTempDir temp;
    for (Kind kind : {Kind::Global, Kind::TiledDisk, Kind::Disk, Kind::RunLength}) {
        for (uint32_t to = 1; to <= 8; ++to) {
            SCOPED_TRACE(::testing::Message() << copytest::name(kind) << " 2 -> " << to);
            BitmapHandle b = make(kind, 9, 7, kind == Kind::RunLength ? 1 : 12, to, VP_TOP_RIGHT);
            const Image shown = displayed(read_image(b), VP_TOP_RIGHT);
            ASSERT_EQ(Z_ChangeBitmapViewPerspective(&b, &b, kSize, static_cast<int32_t>(to)), ST_OK);
            EXPECT_EQ(displayed(read_image(b), to), shown);
            Z_FreeBitmap(&b);
        }
    }
    EXPECT_TRUE(temp.files().empty());
}

// The parameters, as a table by source (rows) and target (columns). The
// pair 2 -> 8 keeps its single normalising step and gives -90.
TEST(PerspectiveChange, ParametersTable) {
    const int32_t want[8][8][2] = {
        {{0, 0}, {1, 180}, {0, 180}, {1, 0}, {1, 90}, {0, 270}, {1, 270}, {0, 90}},
        {{1, 180}, {0, 0}, {1, 0}, {0, 180}, {0, 270}, {1, 90}, {0, 90}, {1, -90}},
        {{0, 180}, {1, 0}, {0, 0}, {1, 180}, {1, 270}, {0, 90}, {1, 90}, {0, 270}},
        {{1, 0}, {0, 180}, {1, 180}, {0, 0}, {0, 90}, {1, 270}, {0, 270}, {1, 90}},
        {{1, 90}, {0, 90}, {1, 270}, {0, 270}, {0, 0}, {1, 0}, {0, 180}, {1, 180}},
        {{0, 90}, {1, 90}, {0, 270}, {1, 270}, {1, 0}, {0, 0}, {1, 180}, {0, 180}},
        {{1, 270}, {0, 270}, {1, 90}, {0, 90}, {0, 180}, {1, 180}, {0, 0}, {1, 0}},
        {{0, 270}, {1, 270}, {0, 90}, {1, 90}, {1, 180}, {0, 180}, {1, 0}, {0, 0}},
    };
    for (int from = 1; from <= 8; ++from)
        for (int to = 1; to <= 8; ++to) {
            uint32_t flip = 7, angle = 7;
            ASSERT_EQ(Z_GetChangeViewPerspectiveParams(from, to, &flip, &angle), ST_OK);
            EXPECT_EQ(flip, static_cast<uint32_t>(want[from - 1][to - 1][0])) << from << " -> " << to;
            EXPECT_EQ(angle, static_cast<uint32_t>(want[from - 1][to - 1][1])) << from << " -> " << to;
        }
    uint32_t flip = 7, angle = 7;
    for (auto [from, to] : {std::pair{0, 1}, {1, 9}, {-1, 2}, {9, 9}})
        EXPECT_EQ(Z_GetChangeViewPerspectiveParams(from, to, &flip, &angle), ST_BAD_PARAM);
    EXPECT_EQ(Z_GetChangeViewPerspectiveParams(1, 2, nullptr, &angle), ST_BAD_PARAM);
    EXPECT_EQ(Z_GetChangeViewPerspectiveParams(1, 2, &flip, nullptr), ST_BAD_PARAM);
    EXPECT_EQ(flip, 7u);
    EXPECT_EQ(angle, 7u);
}

// ---------------------------------------------------------------------------
// The view-only operations change the value so that the displayed picture
// flips, mirrors or turns clockwise.
TEST(ViewPerspective, ViewOnlyOperationsMoveTheDisplayedPicture) {
    const int w = 3, h = 2;
    for (uint32_t vp = 1; vp <= 8; ++vp) {
        SCOPED_TRACE(::testing::Message() << "perspective " << vp);
        const int dw = swaps(vp) ? h : w, dh = swaps(vp) ? w : h;
        for (int op = 0; op < 3; ++op) {
            BitmapHandle b = zktest::described(w, h, 8);
            b.ViewPerspective = vp;
            ASSERT_EQ(op == 0   ? Z_FlipBitmapViewPerspective(&b)
                      : op == 1 ? Z_ReverseBitmapViewPerspective(&b)
                                : Z_RotateBitmapViewPerspective(&b, 90),
                      ST_OK);
            for (int y = 0; y < h; ++y)
                for (int x = 0; x < w; ++x) {
                    const Pt p = shown_at(vp, x, y, w, h);
                    const Pt want = op == 0   ? Pt{p.x, dh - 1 - p.y}
                                    : op == 1 ? Pt{dw - 1 - p.x, p.y}
                                              : Pt{dh - 1 - p.y, p.x};
                    EXPECT_EQ(shown_at(b.ViewPerspective, x, y, w, h), want) << "op " << op;
                }
        }
        // Other angles by quarter turns.
        struct Turn {
            int32_t angle, quarters;
        };
        for (Turn t : {Turn{0, 0}, {360, 0}, {-90, 3}, {450, 1}, {180, 2}, {270, 3}, {-720, 0}, {INT32_MIN + 218, 1}}) {
            BitmapHandle a = zktest::described(w, h, 8), b = a;
            a.ViewPerspective = b.ViewPerspective = vp;
            for (int k = 0; k < t.quarters; ++k) ASSERT_EQ(Z_IntRotateBitmapViewPerspective(&b, 90), ST_OK);
            EXPECT_EQ(Z_RotateBitmapViewPerspective(&a, t.angle), ST_OK) << t.angle;
            EXPECT_EQ(a.ViewPerspective, b.ViewPerspective) << t.angle;
        }
    }
}

TEST(ViewPerspective, OutOfRangeValuesAndRefusals) {
    BitmapHandle b = zktest::described(3, 2, 8);
    b.ViewPerspective = 9;
    EXPECT_EQ(Z_FlipBitmapViewPerspective(&b), ST_OK);
    EXPECT_EQ(Z_ReverseBitmapViewPerspective(&b), ST_OK);
    EXPECT_EQ(b.ViewPerspective, 9u);
    b.ViewPerspective = 0;
    EXPECT_EQ(Z_RotateBitmapViewPerspective(&b, 90), ST_OK);
    EXPECT_EQ(b.ViewPerspective, static_cast<uint32_t>(-13));
    b.ViewPerspective = VP_TOP_LEFT;
    EXPECT_EQ(Z_RotateBitmapViewPerspective(&b, 45), ST_BAD_PARAM);
    EXPECT_EQ(b.ViewPerspective, VP_TOP_LEFT);

    // Null records and wrong record sizes; the Int variants skip the size
    // check and work on VP_BOTTOM_LEFT.
    struct Case {
        const char* name;
        int32_t (*fn)(BitmapHandle*);
        int32_t null_result, bad_size_result;
        uint32_t after;
    };
    const Case cases[] = {
        {"flip", Z_FlipBitmapViewPerspective, ST_BAD_PARAM, ST_BAD_STRUCT_SIZE, VP_BOTTOM_LEFT},
        {"int flip", Z_IntFlipBitmapViewPerspective, ST_INVALID_BITMAP, ST_OK, VP_TOP_LEFT},
        {"reverse", Z_ReverseBitmapViewPerspective, ST_BAD_PARAM, ST_BAD_STRUCT_SIZE, VP_BOTTOM_LEFT},
        {"int reverse", Z_IntReverseBitmapViewPerspective, ST_INVALID_BITMAP, ST_OK, VP_BOTTOM_RIGHT},
        {"rotate", [](BitmapHandle* p) { return Z_RotateBitmapViewPerspective(p, 90); }, ST_BAD_PARAM,
         ST_BAD_STRUCT_SIZE, VP_BOTTOM_LEFT},
        {"int rotate", [](BitmapHandle* p) { return Z_IntRotateBitmapViewPerspective(p, 90); }, ST_BAD_PARAM, ST_OK,
         VP_LEFT_TOP},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.fn(nullptr), c.null_result) << c.name;
        BitmapHandle bad = zktest::described(3, 2, 8);
        bad.StructSize = 12;
        EXPECT_EQ(c.fn(&bad), c.bad_size_result) << c.name;
        EXPECT_EQ(bad.ViewPerspective, c.after) << c.name;
    }
}

// ---------------------------------------------------------------------------
// Flip and mirror in every storage kind and depth, at odd sizes: once gives
// the model's picture, twice gives back every byte (padding included).
TEST(FlipBitmap, OnceMatchesTheModelTwiceIsIdentityEveryKindAndDepth) {
    zktest::PrivateTempDir temp;
    for (Kind kind : copytest::kAllKinds) {
        for (int bpp : kDepths) {
            for (auto [w, h] : {std::pair{13, 7}, {301, 4}, {5, 1}}) {
                SCOPED_TRACE(::testing::Message() << copytest::name(kind) << ", " << bpp << " bits, " << w << "x" << h);
                BitmapHandle b = make(kind, w, h, bpp, static_cast<uint32_t>(bpp * 31 + w));
                const std::vector<uint8_t> bytes = copytest::pixels(b);
                const Image im = read_image(b);
                ASSERT_EQ(Z_FlipBitmap(&b), ST_OK);
                EXPECT_EQ(read_image(b), flipped(im));
                ASSERT_EQ(Z_FlipBitmap(&b), ST_OK);
                EXPECT_EQ(copytest::pixels(b), bytes);
                ASSERT_EQ(Z_ReverseBitmap(&b), ST_OK);
                EXPECT_EQ(read_image(b), mirrored(im));
                ASSERT_EQ(Z_ReverseBitmap(&b), ST_OK);
                EXPECT_EQ(copytest::pixels(b), bytes);
                Z_FreeBitmap(&b);
            }
        }
    }
    EXPECT_TRUE(temp.files().empty());
}

// Flip and mirror act on the displayed picture, whatever the perspective.
TEST(FlipBitmap, ActsOnTheDisplayedPictureInEveryPerspective) {
    for (uint32_t vp = 1; vp <= 8; ++vp) {
        SCOPED_TRACE(::testing::Message() << "perspective " << vp);
        BitmapHandle b = make(Kind::Conventional, 6, 5, 4, vp, vp);
        const Image shown = displayed(read_image(b), vp);
        ASSERT_EQ(Z_FlipBitmap(&b), ST_OK);
        EXPECT_EQ(displayed(read_image(b), vp), flipped(shown));
        ASSERT_EQ(Z_ReverseBitmap(&b), ST_OK);
        EXPECT_EQ(displayed(read_image(b), vp), mirrored(flipped(shown)));
        EXPECT_EQ(b.ViewPerspective, vp);
        Z_FreeBitmap(&b);
    }
}

TEST(FlipBitmap, Refusals) {
    BitmapHandle described = zktest::described(4, 4, 8);
    BitmapHandle bad = make(Kind::Conventional, 4, 4, 8, 1);
    bad.StructSize = 100;
    EXPECT_EQ(Z_FlipBitmap(nullptr), ST_BAD_PARAM);
    EXPECT_EQ(Z_FlipBitmap(&described), ST_BAD_PARAM);
    EXPECT_EQ(Z_FlipBitmap(&bad), ST_BAD_STRUCT_SIZE);
    EXPECT_EQ(Z_ReverseBitmap(nullptr), ST_BAD_PARAM);
    EXPECT_EQ(Z_ReverseBitmap(&described), ST_INVALID_BITMAP);
    EXPECT_EQ(Z_ReverseBitmap(&bad), ST_BAD_STRUCT_SIZE);
    bad.StructSize = zk::kStructSize;
    // A record whose row length cannot hold its width is not touched.
    bad.Width = 400;
    EXPECT_EQ(Z_ReverseBitmap(&bad), ST_INVALID_BITMAP);
    bad.Width = 4;
    Z_FreeBitmap(&bad);
}

// Progress: 0 first, then each new whole percentage over Height / 2 pair
// steps (flip) or Height row steps (mirror). A stop returns the callback's
// result and keeps the steps done before it (each case here reports after
// every step, so a stop at call s follows s steps); a single row is no step.
TEST(FlipBitmap, ProgressAndStop) {
    struct Case {
        bool flip;
        int h;
        std::vector<int32_t> percents;
    };
    const Case cases[] = {{true, 9, {0, 25, 50, 75, 100}},
                          {false, 7, {0, 14, 28, 42, 57, 71, 85, 100}},
                          {true, 3, {0, 100}},
                          {true, 1, {0}}};
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message() << (c.flip ? "flip" : "mirror") << " h " << c.h);
        for (size_t stop = 0; stop <= c.percents.size(); ++stop) {
            BitmapHandle b = make(Kind::Conventional, 5, c.h, 8, 3);
            const std::vector<uint8_t> bytes = copytest::pixels(b);
            const Image im = read_image(b);
            Calls calls;
            calls.stop_at = stop;
            int32_t r;
            {
                CallbackScope scope(&calls);
                r = c.flip ? Z_FlipBitmap(&b) : Z_ReverseBitmap(&b);
            }
            if (stop < c.percents.size()) {
                EXPECT_EQ(r, -99);
                EXPECT_EQ(calls.percents.size(), stop + 1);
                const Image all = c.flip ? flipped(im) : mirrored(im);
                Image want = im;
                for (int y = 0; y < c.h; ++y)
                    if (y < int(stop) || (c.flip && y >= c.h - int(stop)))
                        for (int x = 0; x < im.w; ++x) want.at(x, y) = all.at(x, y);
                EXPECT_EQ(read_image(b), want) << "stopped at call " << stop;
                if (stop == 0) {
                    EXPECT_EQ(copytest::pixels(b), bytes);
                }
            } else {
                EXPECT_EQ(r, ST_OK);
                EXPECT_EQ(calls.percents, c.percents);
                EXPECT_EQ(read_image(b), c.flip ? flipped(im) : mirrored(im));
            }
            Z_FreeBitmap(&b);
        }
    }
    // Converting the perspective reports nothing, and the callback stays.
    Calls calls;
    CallbackScope scope(&calls);
    BitmapHandle b = make(Kind::Conventional, 5, 6, 8, 3, VP_TOP_LEFT);
    for (int32_t to : {4, 3, 2, 6, 1}) ASSERT_EQ(Z_ChangeBitmapViewPerspective(nullptr, &b, kSize, to), ST_OK);
    EXPECT_TRUE(calls.percents.empty());
    void* user = nullptr;
    STATUSCALLBACK now = Z_GetStatusCallBack(&user);
    EXPECT_EQ(now, &record_progress);
    Z_FreeBitmap(&b);
}

// ---------------------------------------------------------------------------
// Region hooks: the flip hook (entry 19) after a row-order reversal, the
// mirror hook (entry 1) after a row mirror, the turn hook (entry 13) after a
// half turn of a perspective change; a refusing hook's status is returned
// and the pixels are put back.
struct HookLog {
    std::vector<int> entries;
    int32_t result = ST_OK;
    int refuse = 0;  // entry that answers with `result`
    int32_t angle = 0;
};
HookLog g_hooks;
int32_t answer(int entry) {
    g_hooks.entries.push_back(entry);
    return entry == g_hooks.refuse ? g_hooks.result : ST_OK;
}
int32_t Z_API mirror_hook(BitmapHandle*) { return answer(1); }
int32_t Z_API flip_hook(BitmapHandle*) { return answer(19); }
int32_t Z_API turn_hook(BitmapHandle*, int32_t, int32_t, int32_t angle) {
    g_hooks.angle = angle;
    return answer(13);
}

TEST(FlipBitmap, RegionHooksFollowTheRowsAndMayRefuse) {
    Z_DISDISPATCH table{};
    table.Entry[0] = reinterpret_cast<Z_DISPATCHPROC>(&mirror_hook);
    table.Entry[18] = reinterpret_cast<Z_DISPATCHPROC>(&flip_hook);
    table.Entry[12] = reinterpret_cast<Z_DISPATCHPROC>(&turn_hook);
    ASSERT_EQ(Z_SetDisDispatch(&table), ST_OK);
    struct Case {
        int op;  // 0 flip, 1 mirror, 2 change to `to`
        uint32_t vp, to;
        std::vector<int> entries;
    };
    const Case cases[] = {{0, 1, 0, {19}}, {0, 6, 0, {1}},  {1, 1, 0, {1}},      {1, 5, 0, {19}},
                          {2, 1, 4, {19}}, {2, 1, 3, {13}}, {2, 1, 2, {19, 13}}, {2, 4, 3, {19, 13}}};
    for (const Case& c : cases) {
        for (int refuse : {0, 1, 19, 13}) {
            SCOPED_TRACE(::testing::Message() << "op " << c.op << ", perspective " << c.vp << ", refusing " << refuse);
            g_hooks = HookLog{};
            g_hooks.refuse = refuse;
            g_hooks.result = -77;
            BitmapHandle b = make(Kind::Conventional, 6, 5, 8, 9, c.vp);
            const std::vector<uint8_t> bytes = copytest::pixels(b);
            const int32_t r = c.op == 0   ? Z_FlipBitmap(&b)
                              : c.op == 1 ? Z_ReverseBitmap(&b)
                                          : Z_ChangeBitmapViewPerspective(nullptr, &b, kSize, int32_t(c.to));
            const bool refused = std::find(c.entries.begin(), c.entries.end(), refuse) != c.entries.end();
            if (refused) {
                EXPECT_EQ(r, -77);
                EXPECT_EQ(copytest::pixels(b), bytes);
                EXPECT_EQ(b.ViewPerspective, c.vp);
                EXPECT_EQ(g_hooks.entries.back(), refuse);
            } else {
                EXPECT_EQ(r, ST_OK);
                EXPECT_EQ(g_hooks.entries, c.entries);
                if (c.op == 2 && c.entries.back() == 13) {
                    EXPECT_EQ(g_hooks.angle, 18000);
                }
            }
            Z_FreeBitmap(&b);
        }
    }
    Z_DISDISPATCH empty{};
    ASSERT_EQ(Z_SetDisDispatch(&empty), ST_OK);
}

// ---------------------------------------------------------------------------
// Overlays taking part move with the displayed image and are flipped or
// mirrored themselves; the mirror places them by their Width whatever their
// perspective. A failing overlay puts everything back.
TEST(FlipBitmap, OverlaysMoveAndFollow) {
    using zk::geometry::OverlayTable;
    for (bool vertical : {true, false}) {
        for (bool fail : {false, true}) {
            SCOPED_TRACE(::testing::Message() << (vertical ? "flip" : "mirror") << (fail ? ", failing" : ""));
            BitmapHandle main = make(Kind::Conventional, 10, 6, 8, 1);
            BitmapHandle a = make(Kind::Conventional, 3, 2, 8, 2);
            BitmapHandle t = make(Kind::Conventional, 2, 4, 1, 3, VP_RIGHT_TOP);  // shown 4 wide, 2 high
            BitmapHandle idle = make(Kind::Conventional, 2, 2, 8, 4);
            BitmapHandle broken = make(Kind::Conventional, 2, 2, 8, 5);
            broken.StructSize = 1;
            auto* table = static_cast<OverlayTable*>(Z_OsAllocInit(sizeof(OverlayTable), 1));
            ASSERT_NE(table, nullptr);
            table->size = zk::geometry::kOverlayTableSize;
            table->entries[0] = {&a, 2, 1, 1};
            table->entries[2] = {&idle, 1, 0, 0};
            table->entries[5] = {&t, 3, 4, 0};
            if (fail) table->entries[9] = {&broken, 2, 0, 0};
            main.Overlays = table;
            const OverlayTable saved = *table;
            BitmapHandle* all[] = {&main, &a, &t, &idle};
            std::vector<Image> shown;
            for (BitmapHandle* p : all) shown.push_back(displayed(read_image(*p), p->ViewPerspective));

            const int32_t r = vertical ? Z_FlipBitmap(&main) : Z_ReverseBitmap(&main);
            if (fail) {
                EXPECT_EQ(r, ST_BAD_STRUCT_SIZE);
                EXPECT_EQ(std::memcmp(table, &saved, sizeof saved), 0);
                for (size_t i = 0; i < 4; ++i)
                    EXPECT_EQ(displayed(read_image(*all[i]), all[i]->ViewPerspective), shown[i]);
            } else {
                EXPECT_EQ(r, ST_OK);
                if (vertical) {
                    EXPECT_EQ(table->entries[0].top, 6 - 1 - 2);
                    EXPECT_EQ(table->entries[5].top, 6 - 0 - 2);  // its displayed height
                    EXPECT_EQ(table->entries[0].left, 1);
                } else {
                    EXPECT_EQ(table->entries[0].left, 10 - 3 - 1);
                    EXPECT_EQ(table->entries[5].left, 10 - 2 - 4);  // its Width, not its displayed width
                    EXPECT_EQ(table->entries[0].top, 1);
                }
                for (size_t i = 0; i < 3; ++i) {
                    const Image want = vertical ? flipped(shown[i]) : mirrored(shown[i]);
                    EXPECT_EQ(displayed(read_image(*all[i]), all[i]->ViewPerspective), want) << i;
                }
                EXPECT_EQ(read_image(idle), shown[3]);
                EXPECT_EQ(std::memcmp(&table->entries[2], &saved.entries[2], sizeof saved.entries[2]), 0);
            }
            table->size = 4691;
            EXPECT_EQ(Z_FlipBitmap(&main), ST_BAD_STRUCT_SIZE);
            EXPECT_EQ(Z_ReverseBitmap(&main), ST_BAD_STRUCT_SIZE);
            broken.StructSize = zk::kStructSize;
            for (BitmapHandle* p : {&a, &t, &idle, &broken, &main}) Z_FreeBitmap(p);
        }
    }
}

// ---------------------------------------------------------------------------
// Z_MirrorLine at every depth 1-64 (and outside) and widths 0-70 and a few
// wide ones, against the per-pixel model: pixels reversed, bytes past the
// pixels untouched, the rest of the last pixel byte cleared at 1, 2 and 4
// bits and kept elsewhere; twice gives the pixels back. Returns every
// result, so that the kernel tiers can be held to each other.
std::vector<std::vector<uint8_t>> mirror_sweep() {
    std::vector<std::vector<uint8_t>> results;
    std::vector<uint32_t> widths;
    for (uint32_t w = 0; w <= 70; ++w) widths.push_back(w);
    for (uint32_t w : {255u, 1000u, 4097u}) widths.push_back(w);
    for (int bpp = -1; bpp <= 65; ++bpp) {
        for (uint32_t w : widths) {
            SCOPED_TRACE(::testing::Message() << bpp << " bits, width " << w);
            const uint64_t bits = uint64_t{w} * static_cast<uint64_t>(bpp > 0 ? bpp : 0);
            const size_t used = static_cast<size_t>((bits + 7) / 8);
            const std::vector<uint8_t> in = zktest::random_bytes(used + 9, static_cast<uint32_t>(bpp * 1000 + w));
            std::vector<uint8_t> out = in;
            EXPECT_EQ(Z_MirrorLine(out.data(), w, bpp), ST_OK);
            results.push_back(out);
            if (!zk::valid_depth(bpp)) {
                EXPECT_EQ(out, in);
                continue;
            }
            bool same = true;
            for (uint32_t k = 0; k < w && same; ++k)
                same = get_px(out.data(), bpp, k) == get_px(in.data(), bpp, w - 1 - k);
            EXPECT_TRUE(same);
            EXPECT_TRUE(std::equal(out.begin() + used, out.end(), in.begin() + used));
            // The bits of the last pixel byte that no pixel uses (at 12 bits
            // the high nibble after an odd width).
            if (bits % 8) {
                const uint8_t spare = static_cast<uint8_t>(bpp == 12 ? 0xF0 : 0xFFu >> (bits % 8));
                const bool cleared = bpp == 1 || bpp == 2 || bpp == 4;
                EXPECT_EQ(out[used - 1] & spare, cleared ? 0 : in[used - 1] & spare);
            }
            EXPECT_EQ(Z_MirrorLine(out.data(), w, bpp), ST_OK);
            for (uint32_t k = 0; k < w && same; ++k) same = get_px(out.data(), bpp, k) == get_px(in.data(), bpp, k);
            EXPECT_TRUE(same) << "twice";
        }
    }
    return results;
}

// Every kernel tier the processor has, each against the model and all
// giving the portable results.
TEST(MirrorLine, EveryDepthAndWidthAgainstThePixelModelInEveryTier) {
    namespace pf = zk::platform;
    std::vector<std::vector<uint8_t>> portable;
    for (pf::CpuTier tier : pf::kCpuTiers) {
        SCOPED_TRACE(pf::cpu_tier_name(tier));
        if (tier > pf::cpu_tier_supported()) {
            std::printf("[   NOTE   ] %s row mirror not tested: this processor lacks it\n", pf::cpu_tier_name(tier));
            continue;
        }
        const pf::CpuTier previous = pf::set_cpu_tier_cap(tier);
        const auto results = mirror_sweep();
        pf::set_cpu_tier_cap(previous);
        if (tier == pf::CpuTier::Portable)
            portable = results;
        else
            EXPECT_TRUE(results == portable);
    }
    EXPECT_EQ(Z_MirrorLine(nullptr, 4, 8), ST_BAD_PARAM);
}

// ---------------------------------------------------------------------------
// Point and rectangle mappings follow the pixels: where conversion takes a
// stored pixel. The pair 2 -> 8 only flips (its -90 is no recognised turn),
// and mapping to stored coordinates exchanges the size only from 6 and 8.
TEST(PerspectiveMapping, PointsAndRectsFollowThePixels) {
    const int w = 5, h = 3;
    for (uint32_t p = 1; p <= 8; ++p) {
        for (uint32_t q = 1; q <= 8; ++q) {
            SCOPED_TRACE(::testing::Message() << p << " -> " << q);
            BitmapHandle b = zktest::described(w, h, 8);
            b.ViewPerspective = p;
            const int qw = swaps(p) == swaps(q) ? w : h, qh = swaps(p) == swaps(q) ? h : w;
            // Mapping back is exact but from 5 and 7 (size not exchanged)
            // and for the pairs whose one way is 2 -> 8.
            const bool back_exact = q != 5 && q != 7 && !(p == 8 && q == 2) && !(p == 2 && q == 8);
            // Where stored pixel (x, y) of perspective p lies in the data of q.
            auto in_q = [&](int x, int y) {
                if (p == 2 && q == 8) return Pt{x, h - 1 - y};
                const Pt s = shown_at(p, x, y, w, h);
                for (int yy = 0; yy < qh; ++yy)
                    for (int xx = 0; xx < qw; ++xx)
                        if (shown_at(q, xx, yy, qw, qh) == s) return Pt{xx, yy};
                return Pt{-1, -1};
            };
            for (int y = 0; y < h; ++y)
                for (int x = 0; x < w; ++x) {
                    int32_t px = x, py = y;
                    ASSERT_EQ(Z_PointFromBitmap(&b, int32_t(q), &px, &py), ST_OK);
                    EXPECT_EQ((Pt{px, py}), in_q(x, y));
                    // And back, where the size is taken right.
                    if (back_exact) {
                        ASSERT_EQ(Z_PointToBitmap(&b, int32_t(q), &px, &py), ST_OK);
                        EXPECT_EQ((Pt{px, py}), (Pt{x, y})) << "back";
                    }
                }
            // Rectangles: the bounding box of their mapped pixels.
            for (RECT r : {RECT{0, 0, 1, 1}, RECT{1, 0, 4, 2}, RECT{0, 1, 5, 3}, RECT{2, 2, 3, 3}}) {
                RECT want{INT32_MAX, INT32_MAX, INT32_MIN, INT32_MIN};
                for (int y = r.top; y < r.bottom; ++y)
                    for (int x = r.left; x < r.right; ++x) {
                        const Pt m = in_q(x, y);
                        want = RECT{std::min(want.left, m.x), std::min(want.top, m.y), std::max(want.right, m.x + 1),
                                    std::max(want.bottom, m.y + 1)};
                    }
                RECT got = r, from = r;
                ASSERT_EQ(Z_ChangeRectViewPerspective(int32_t(p), w, h, int32_t(q), &got), ST_OK);
                ASSERT_EQ(Z_RectFromBitmap(&b, int32_t(q), &from), ST_OK);
                EXPECT_EQ(std::memcmp(&got, &want, sizeof want), 0)
                    << got.left << "," << got.top << "," << got.right << "," << got.bottom;
                EXPECT_EQ(std::memcmp(&from, &want, sizeof want), 0);
                if (back_exact) {
                    ASSERT_EQ(Z_RectToBitmap(&b, int32_t(q), &got), ST_OK);
                    EXPECT_EQ(std::memcmp(&got, &r, sizeof r), 0) << "back";
                }
            }
        }
    }
}

// The deliberate asymmetries, by their formulas: from 5 the size is not
// exchanged (100 x 50 shown as 100 x 50 although 5 shows it 50 x 100), and
// 2 -> 8 is a flip alone.
TEST(PerspectiveMapping, KeptAsymmetries) {
    BitmapHandle b = zktest::described(100, 50, 8);
    b.ViewPerspective = VP_BOTTOM_RIGHT;
    int32_t x = 0, y = 0;
    // 5 -> 3 is flip then 270: y = 49 - y, then (y, A - x - 1) with A = 100.
    ASSERT_EQ(Z_PointToBitmap(&b, 5, &x, &y), ST_OK);
    EXPECT_EQ(x, 49);
    EXPECT_EQ(y, 99);
    x = 0, y = 0;
    // From 6 (6 -> 3 is 270): A = 50 after the exchange.
    ASSERT_EQ(Z_PointToBitmap(&b, 6, &x, &y), ST_OK);
    EXPECT_EQ(x, 0);
    EXPECT_EQ(y, 49);
    RECT r{0, 0, 10, 5};
    const RECT want{0, 0, 5, 10};
    ASSERT_EQ(Z_RectToBitmap(&b, 7, &r), ST_OK);  // 7 -> 3 is flip then 90, B = 50
    EXPECT_EQ(std::memcmp(&r, &want, sizeof r), 0);

    b.ViewPerspective = VP_TOP_RIGHT;
    x = 3, y = 0;
    ASSERT_EQ(Z_PointFromBitmap(&b, VP_LEFT_BOTTOM, &x, &y), ST_OK);
    EXPECT_EQ(x, 3);
    EXPECT_EQ(y, 49);

    // Refusals: null pointers, sizes, values outside 1-8.
    EXPECT_EQ(Z_PointFromBitmap(nullptr, 1, &x, &y), ST_BAD_PARAM);
    EXPECT_EQ(Z_PointFromBitmap(&b, 1, nullptr, &y), ST_BAD_PARAM);
    EXPECT_EQ(Z_PointToBitmap(&b, 1, &x, nullptr), ST_BAD_PARAM);
    EXPECT_EQ(Z_PointFromBitmap(&b, 9, &x, &y), ST_BAD_PARAM);
    EXPECT_EQ(Z_PointToBitmap(&b, 0, &x, &y), ST_BAD_PARAM);
    EXPECT_EQ(Z_RectFromBitmap(&b, 1, nullptr), ST_BAD_PARAM);
    EXPECT_EQ(Z_RectToBitmap(nullptr, 1, &r), ST_BAD_PARAM);
    EXPECT_EQ(Z_ChangeRectViewPerspective(1, 4, 4, 2, nullptr), ST_BAD_PARAM);
    RECT keep{1, 2, 3, 4};
    const RECT kept = keep;
    EXPECT_EQ(Z_ChangeRectViewPerspective(1, 4, 4, 9, &keep), ST_OK);
    EXPECT_EQ(Z_RectFromBitmap(&b, 0, &keep), ST_OK);
    EXPECT_EQ(std::memcmp(&keep, &kept, sizeof keep), 0);
    b.StructSize = 0;
    EXPECT_EQ(Z_PointFromBitmap(&b, 1, &x, &y), ST_BAD_STRUCT_SIZE);
    EXPECT_EQ(Z_PointToBitmap(&b, 1, &x, &y), ST_BAD_STRUCT_SIZE);
    EXPECT_EQ(Z_RectFromBitmap(&b, 1, &r), ST_BAD_STRUCT_SIZE);
    EXPECT_EQ(Z_RectToBitmap(&b, 1, &r), ST_BAD_STRUCT_SIZE);
}

// ---------------------------------------------------------------------------
TEST(PerspectiveChange, Refusals) {
    BitmapHandle b = make(Kind::Conventional, 4, 3, 8, 1, VP_TOP_LEFT);
    BitmapHandle described = zktest::described(4, 3, 8);
    BitmapHandle dst;
    EXPECT_EQ(Z_ChangeBitmapViewPerspective(&dst, nullptr, kSize, 2), ST_BAD_PARAM);
    EXPECT_EQ(Z_ChangeBitmapViewPerspective(&dst, &described, kSize, 2), ST_BAD_PARAM);
    EXPECT_EQ(Z_ChangeBitmapViewPerspective(&dst, &b, kSize - 4, 2), ST_BAD_STRUCT_SIZE);
    for (int32_t to : {0, 9, -1}) {
        EXPECT_EQ(Z_ChangeBitmapViewPerspective(&dst, &b, kSize, to), ST_BAD_PARAM);
        EXPECT_EQ(Z_ChangeBitmapViewPerspective(nullptr, &b, kSize, to), ST_BAD_PARAM);
    }
    EXPECT_EQ(Z_IntChangeBitmapViewPerspective(nullptr, nullptr, kSize, 2, 0), ST_BAD_PARAM);
    described.ViewPerspective = VP_TOP_LEFT;
    EXPECT_EQ(Z_IntChangeBitmapViewPerspective(nullptr, &described, kSize, 2, 0), ST_INVALID_BITMAP);
    EXPECT_EQ(Z_IntChangeBitmapViewPerspective(nullptr, &described, kSize, 1, 0), ST_OK);
    b.StructSize = 1;
    EXPECT_EQ(Z_ChangeBitmapViewPerspective(nullptr, &b, kSize, 2), ST_BAD_STRUCT_SIZE);
    b.StructSize = zk::kStructSize;
    EXPECT_EQ(b.ViewPerspective, VP_TOP_LEFT);
    Z_FreeBitmap(&b);
}

// Injected failures at every allocation, mapping and file call leave the
// caller's record and pixels as they were, a destination holding nothing,
// and no temporary file behind.
TEST(FlipFaults, EveryFailureLeavesTheBitmapAsItWas) {
    zktest::PrivateTempDir temp;
    struct Op {
        const char* name;
        uint32_t vp;
        int32_t to;  // 0: Z_FlipBitmap, -1: Z_ReverseBitmap, else a change in place; +100: into a new bitmap
    };
    const Op ops[] = {{"flip", 1, 0},        {"mirror", 1, -1},    {"flip transposed", 6, 0},
                      {"to 3", 1, 3},        {"to 2", 1, 2},       {"to 4", 1, 4},
                      {"to 6", 1, 6},        {"2 to 8", 2, 8},     {"to 5", 1, 5},
                      {"copy to 7", 1, 107}, {"copy to 3", 1, 103}};
    for (Kind kind : {Kind::Conventional, Kind::Global, Kind::TiledDisk, Kind::Disk}) {
        for (const Op& op : ops) {
            SCOPED_TRACE(::testing::Message() << copytest::name(kind) << ", " << op.name);
            zktest::sweep_faults(
                {FaultKind::Allocation, FaultKind::Mapping, FaultKind::File}, 300, [&](FaultKind fault, int n) {
                    BitmapHandle b = make(kind, 9, 6, 8, 17, op.vp);
                    const BitmapHandle before = b;
                    const std::vector<uint8_t> bytes = copytest::pixels(b);
                    const Image shown = displayed(read_image(b), op.vp);
                    BitmapHandle dst;
                    std::memset(&dst, 0, sizeof dst);
                    const int32_t to = op.to % 100;
                    const int32_t r = zktest::under_fault(fault, n, [&] {
                        if (op.to == 0) return Z_FlipBitmap(&b);
                        if (op.to == -1) return Z_ReverseBitmap(&b);
                        return Z_ChangeBitmapViewPerspective(op.to > 100 ? &dst : nullptr, &b, kSize, to);
                    });
                    BitmapHandle& result = op.to > 100 ? dst : b;
                    if (r != ST_OK) {
                        EXPECT_EQ(std::memcmp(&b, &before, sizeof b), 0);
                        EXPECT_EQ(copytest::pixels(b), bytes);
                        EXPECT_EQ(dst.Flags & BF_ALLOCATED, 0u);
                    } else if (op.to > 0) {
                        EXPECT_EQ(displayed(read_image(result), uint32_t(to)), shown);
                    } else {
                        EXPECT_EQ(displayed(read_image(b), op.vp), op.to == 0 ? flipped(shown) : mirrored(shown));
                    }
                    if (op.to > 100 && r == ST_OK) Z_FreeBitmap(&dst);
                    Z_FreeBitmap(&b);
                    return r == ST_OK;
                });
        }
    }
    EXPECT_TRUE(temp.files().empty());
}

}  // namespace
