// Copying and duplication: record copies, the duplicate flags and their
// ownership, whole copies between every pair of storage kinds, rectangles at
// every depth, in-place crops and trims, the copy-status callback, and
// failure at every allocation, mapping and file step.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "copy_support.h"

namespace {

using copytest::Kind;
using zk::platform::FaultKind;

// ---------------------------------------------------------------------------
// A region-copy hook that gives the destination a fresh region record.
struct HookLog {
    int calls = 0;
    BitmapHandle* dst = nullptr;
    BitmapHandle* src = nullptr;
    uint32_t word1 = 99, word2 = 99;
    int32_t result = ST_OK;
} g_hook;

int32_t Z_API copy_region_hook(BitmapHandle* dst, BitmapHandle* src, uint32_t word1, uint32_t word2) {
    ++g_hook.calls;
    g_hook.dst = dst;
    g_hook.src = src;
    g_hook.word1 = word1;
    g_hook.word2 = word2;
    if (g_hook.result != ST_OK) return g_hook.result;
    if (src->Region) {
        auto* r = static_cast<ZarnRgn*>(Z_OsAllocInit(sizeof(ZarnRgn), 1));
        if (!r) return ST_NO_MEMORY;
        *r = *static_cast<ZarnRgn*>(src->Region);
        r->Elements1 = r->Elements2 = r->Object1 = r->Object2 = nullptr;
        dst->Region = r;
    }
    return ST_OK;
}

// Installs the hook for the object's lifetime.
class RegionHook {
public:
    RegionHook() {
        g_hook = HookLog{};
        Z_DISDISPATCH table{};
        table.Entry[1] = reinterpret_cast<Z_DISPATCHPROC>(&copy_region_hook);
        Z_SetDisDispatch(&table);
    }
    ~RegionHook() {
        Z_DISDISPATCH none{};
        Z_SetDisDispatch(&none);
    }
};

// An 8-bit conventional bitmap with a palette, a region and overlays.
BitmapHandle decorated(uint32_t seed) {
    BitmapHandle b = copytest::make_filled(Kind::Conventional, 13, 7, 8, seed);
    EXPECT_EQ(Z_CreateBitmapFixedPalette(&b), ST_OK);
    auto* region = static_cast<ZarnRgn*>(Z_OsAllocInit(sizeof(ZarnRgn), 1));
    region->Bounds = RECT{1, 2, 3, 4};
    b.Region = region;
    b.Overlays = Z_OsAllocInit(48, 1);
    b.PlaybackParm0 = 10;
    b.PlaybackParm1 = 11;
    b.PlaybackParm2 = 12;
    b.PlaybackParm5 = 15;
    b.PlaybackColor1 = 0x123456;
    b.PlaybackColor2 = 0x654321;
    b.Flags |= BF_PLAYBACK2;
    b.ViewPerspective = VP_RIGHT_TOP;
    b.XResolution = 300;
    b.YResolution = 72;
    return b;
}

// ---------------------------------------------------------------------------
TEST(CopyHandle, CopiesTheRecordOrInitialisesIt) {
    BitmapHandle src = copytest::make_filled(Kind::Conventional, 5, 5, 8, 1);
    BitmapHandle dst{};
    EXPECT_EQ(Z_CopyBitmapHandle(&dst, &src, Z_BITMAPHANDLE_SIZE), ST_OK);
    EXPECT_EQ(std::memcmp(&dst, &src, sizeof dst), 0);
    BitmapHandle only{};
    EXPECT_EQ(Z_CopyBitmapHandle(&only, nullptr, Z_BITMAPHANDLE_SIZE), ST_OK);
    EXPECT_EQ(only.StructSize, static_cast<uint32_t>(Z_BITMAPHANDLE_SIZE));
    EXPECT_EQ(only.Width, 0);
    EXPECT_EQ(Z_CopyBitmapHandle(nullptr, &src, Z_BITMAPHANDLE_SIZE), ST_OK);
    Z_FreeBitmap(&src);
}

TEST(CopyPlayback, CopiesWordsFlagsAndColours) {
    BitmapHandle src = decorated(2);
    BitmapHandle dst = copytest::make(Kind::Conventional, 3, 3, 24);
    dst.Flags |= BF_PLAYBACK1;
    dst.PlaybackColor1 = 7;
    ASSERT_EQ(Z_CopyPlaybackParms(&dst, &src), ST_OK);
    EXPECT_EQ(dst.PlaybackParm0, 10u);
    EXPECT_EQ(dst.PlaybackParm1, 11u);
    EXPECT_EQ(dst.PlaybackParm2, 12u);
    EXPECT_EQ(dst.PlaybackParm5, 15u);
    EXPECT_EQ(dst.PlaybackColor1, 0x123456u);
    EXPECT_EQ(dst.PlaybackColor2, 0x654321u);
    EXPECT_EQ(dst.Flags & (BF_PLAYBACK1 | BF_PLAYBACK2), BF_PLAYBACK2);
    EXPECT_TRUE(dst.Flags & BF_ALLOCATED);
    Z_FreeBitmap(&dst);
    Z_FreeBitmap(&src);
}

// ---------------------------------------------------------------------------
// All sixteen flag combinations, with and without the region hook: what is
// shared and what is owned, and freeing with the same flags releases exactly
// what the duplicate owns (ASan reports any double free or leak).
TEST(Duplicate, EveryFlagCombinationSharesOrOwnsAndFreesCleanly) {
    for (int hooked = 0; hooked < 2; ++hooked) {
        for (uint32_t flags = 0; flags < 16; ++flags) {
            BitmapHandle src = decorated(flags);
            const BitmapHandle before = src;
            BitmapHandle d;
            {
                std::unique_ptr<RegionHook> hook(hooked ? new RegionHook : nullptr);
                ASSERT_EQ(Z_DupBitmapNewDim(&d, &src, Z_BITMAPHANDLE_SIZE, 20, 9, 8, flags), ST_OK) << flags;
                if (hooked && (flags & DUP_REGION)) {
                    EXPECT_EQ(g_hook.calls, 1);
                    EXPECT_EQ(g_hook.dst, &d);
                    EXPECT_EQ(g_hook.src, &src);
                    EXPECT_EQ(g_hook.word1, 0u);
                    EXPECT_EQ(g_hook.word2, 0u);
                }
            }
            SCOPED_TRACE(testing::Message() << "flags " << flags << " hook " << hooked);
            EXPECT_EQ(d.Width, 20);
            EXPECT_EQ(d.Height, 9);
            EXPECT_EQ(bool(d.Flags & BF_ALLOCATED), bool(flags & DUP_ALLOCATE));
            EXPECT_EQ(d.Palette == src.Palette, !(flags & DUP_PALETTE));
            ASSERT_NE(d.Palette, nullptr);
            EXPECT_EQ(std::memcmp(d.Palette, src.Palette, 256 * sizeof(RGBQUAD)), 0);
            EXPECT_EQ(d.ColorCount, src.ColorCount);
            if (flags & DUP_REGION) {
                if (hooked) {
                    ASSERT_NE(d.Region, nullptr);
                    EXPECT_NE(d.Region, src.Region);
                    EXPECT_EQ(static_cast<ZarnRgn*>(d.Region)->Bounds.bottom, 4);
                } else {
                    EXPECT_EQ(d.Region, nullptr);
                }
            } else {
                EXPECT_EQ(d.Region, src.Region);
            }
            EXPECT_EQ(d.Overlays == src.Overlays, !(flags & DUP_OVERLAYS));
            EXPECT_NE(d.Overlays, nullptr);
            EXPECT_EQ(d.ViewPerspective, VP_RIGHT_TOP);
            EXPECT_EQ(d.XResolution, 300);
            EXPECT_EQ(d.YResolution, 72);
            EXPECT_EQ(d.PlaybackParm5, 15u);
            EXPECT_TRUE(d.Flags & BF_PLAYBACK2);
            EXPECT_EQ(Z_FreeDuplicateBitmap(&d, flags), ST_OK);
            EXPECT_EQ(std::memcmp(&src, &before, sizeof src), 0);
            Z_FreeBitmap(&src);
        }
    }
}

// Each export's refusals, in the order its checks come; none changes the source.
TEST(BadInput, EachExportRefusesWithItsStatus) {
    BitmapHandle src = copytest::make_filled(Kind::Conventional, 8, 4, 8, 5);
    const BitmapHandle before = src;
    const std::vector<uint8_t> pixels = copytest::pixels(src);
    BitmapHandle other = copytest::make(Kind::Conventional, 9, 4, 8);
    BitmapHandle described = zktest::described(4, 4, 8);
    BitmapHandle wrong = src;
    wrong.StructSize = 1;
    BitmapHandle d;
    struct Case {
        const char* what;
        int32_t got, want;
    } cases[] = {
        {"handle size", Z_CopyBitmapHandle(&d, &src, Z_BITMAPHANDLE_SIZE + 1), ST_BAD_STRUCT_SIZE},
        {"handle source size", Z_CopyBitmapHandle(&d, &wrong, Z_BITMAPHANDLE_SIZE), ST_BAD_STRUCT_SIZE},
        {"playback null dst", Z_CopyPlaybackParms(nullptr, &src), ST_BAD_PARAM},
        {"playback null src", Z_CopyPlaybackParms(&d, nullptr), ST_BAD_PARAM},
        {"dup null dst", Z_DupBitmapNewDim(nullptr, &src, Z_BITMAPHANDLE_SIZE, 1, 1, 8, 15), ST_INVALID_BITMAP},
        {"dup null src", Z_DupBitmapNewDim(&d, nullptr, Z_BITMAPHANDLE_SIZE, 1, 1, 8, 15), ST_INVALID_BITMAP},
        {"dup no storage", Z_DupBitmapNewDim(&d, &described, Z_BITMAPHANDLE_SIZE, 1, 1, 8, 15), ST_INVALID_BITMAP},
        {"dup size", Z_DupBitmapNewDim(&d, &src, Z_BITMAPHANDLE_SIZE - 1, 1, 1, 8, 15), ST_BAD_STRUCT_SIZE},
        {"dup depth", Z_DupBitmapNewDim(&d, &src, Z_BITMAPHANDLE_SIZE, 1, 1, 9, 15), ST_BAD_BPP},
        {"free dup null", Z_FreeDuplicateBitmap(nullptr, 15), ST_BAD_PARAM},
        {"copy null dst", Z_CopyBitmap(nullptr, &src, Z_BITMAPHANDLE_SIZE), ST_BAD_PARAM},
        {"copy null src", Z_CopyBitmap(&d, nullptr, Z_BITMAPHANDLE_SIZE), ST_BAD_PARAM},
        {"copy no storage", Z_CopyBitmap(&d, &described, Z_BITMAPHANDLE_SIZE), ST_BAD_PARAM},
        {"copy size", Z_CopyBitmap(&d, &src, 0), ST_BAD_STRUCT_SIZE},
        {"copy2 size", Z_CopyBitmap2(&d, &src, TYPE_CONV, 0), ST_BAD_STRUCT_SIZE},
        {"data null dst", Z_CopyBitmapData(nullptr, &src), ST_BAD_PARAM},
        {"data no storage", Z_CopyBitmapData(&described, &src), ST_INVALID_BITMAP},
        {"data other geometry", Z_CopyBitmapData(&other, &src), ST_BAD_PARAM},
        {"trim null", Z_TrimBitmap(nullptr, 0, 0, 1, 1), ST_BAD_PARAM},
        {"trim no storage", Z_TrimBitmap(&described, 0, 0, 1, 1), ST_BAD_PARAM},
        {"height no storage", Z_ChangeBitmapHeight(&described, 2), ST_INVALID_BITMAP},
        {"height null", Z_ChangeBitmapHeight(nullptr, 2), ST_INVALID_BITMAP},
        {"height size", Z_ChangeBitmapHeight(&wrong, 3), ST_BAD_STRUCT_SIZE},
        {"height zero", Z_ChangeBitmapHeight(&src, 0), ST_BAD_PARAM},
        {"memory info null", Z_SetBitmapMemoryInfo(nullptr, 1, 0, 0, 0, 0, 0, 1), ST_NO_BITMAP},
        {"memory info no storage", Z_SetBitmapMemoryInfo(&described, 1, 0, 0, 0, 0, 0, 1), ST_INVALID_BITMAP},
        {"memory info size", Z_SetBitmapMemoryInfo(&wrong, 1, 0, 0, 0, 0, 0, 1), ST_BAD_STRUCT_SIZE},
    };
    for (const auto& c : cases) EXPECT_EQ(c.got, c.want) << c.what;
    EXPECT_EQ(std::memcmp(&src, &before, sizeof src), 0);
    EXPECT_EQ(copytest::pixels(src), pixels);
    Z_FreeBitmap(&other);
    Z_FreeBitmap(&src);
}

TEST(Duplicate, GraySourceOfTheSameDepthPassesItsGrayParameters) {
    BitmapHandle src = copytest::make(Kind::Conventional, 6, 3, 16);
    src.Order = CO_GRAY;
    src.LowBit = 2;
    src.HighBit = 11;
    BitmapHandle same, other;
    ASSERT_EQ(Z_DupBitmapNewDim(&same, &src, Z_BITMAPHANDLE_SIZE, 3, 3, 16, 15), ST_OK);
    EXPECT_EQ(same.Order, CO_GRAY);
    EXPECT_EQ(same.LowBit, 2u);
    EXPECT_EQ(same.HighBit, 11u);
    ASSERT_EQ(Z_DupBitmapNewDim(&other, &src, Z_BITMAPHANDLE_SIZE, 3, 3, 8, 15), ST_OK);
    EXPECT_EQ(other.HighBit, 7u) << "another depth keeps its own window";
    Z_FreeDuplicateBitmap(&same, 15);
    Z_FreeDuplicateBitmap(&other, 15);
    Z_FreeBitmap(&src);
}

TEST(Duplicate, FailingRegionHookUndoesEverything) {
    BitmapHandle src = decorated(3);
    const BitmapHandle before = src;
    RegionHook hook;
    g_hook.result = ST_BAD_PARAM - 100;
    for (uint32_t flags : {DUP_REGION, DUP_REGION | DUP_ALLOCATE, 15u}) {
        BitmapHandle d;
        EXPECT_EQ(Z_DupBitmapNewDim(&d, &src, Z_BITMAPHANDLE_SIZE, 5, 5, 8, flags), ST_BAD_PARAM - 100);
        EXPECT_FALSE(d.Flags & BF_ALLOCATED);
        EXPECT_EQ(d.Palette, nullptr);
        EXPECT_EQ(d.Region, nullptr);
        EXPECT_EQ(d.Overlays, nullptr);
    }
    EXPECT_EQ(std::memcmp(&src, &before, sizeof src), 0);
    Z_FreeBitmap(&src);
}

// Duplication fails at each allocation; the source stays whole and the
// destination holds nothing.
TEST(Duplicate, AllocationFailureAtEveryStep) {
    for (uint32_t flags = 0; flags < 16; ++flags) {
        SCOPED_TRACE(flags);
        zktest::sweep_faults({FaultKind::Allocation}, 100, [&](FaultKind kind, int n) {
            BitmapHandle src = decorated(4);
            const BitmapHandle before = src;
            BitmapHandle d;
            const int32_t r = zktest::under_fault(
                kind, n, [&] { return Z_DupBitmapNewDim(&d, &src, Z_BITMAPHANDLE_SIZE, 9, 9, 8, flags); });
            EXPECT_EQ(std::memcmp(&src, &before, sizeof src), 0);
            if (r == ST_OK) {
                Z_FreeDuplicateBitmap(&d, flags);
            } else {
                EXPECT_EQ(r, ST_NO_MEMORY);
                EXPECT_FALSE(d.Flags & BF_ALLOCATED);
                EXPECT_EQ(d.Palette, nullptr);
                EXPECT_EQ(d.Overlays, nullptr);
            }
            Z_FreeBitmap(&src);
            return r == ST_OK;
        });
    }
}

// ---------------------------------------------------------------------------
TEST(CopyBitmap, OntoItselfChangesNothing) {
    BitmapHandle src = copytest::make_filled(Kind::Conventional, 8, 4, 8, 5);
    const BitmapHandle before = src;
    EXPECT_EQ(Z_CopyBitmap(&src, &src, Z_BITMAPHANDLE_SIZE), ST_OK);
    EXPECT_EQ(std::memcmp(&src, &before, sizeof src), 0);
    Z_FreeBitmap(&src);
}

// Z_CopyBitmapData between every pair of storage kinds, and Z_CopyBitmap and
// Z_CopyBitmap2 from every kind.
TEST(CopyBitmap, EveryPairOfStorageKindsGivesIdenticalPixels) {
    zktest::PrivateTempDir temp;
    for (Kind from : copytest::kAllKinds) {
        BitmapHandle src = copytest::make_filled(from, 23, 9, 24, 6);
        const std::vector<uint8_t> want = copytest::pixels(src);
        for (Kind to : copytest::kAllKinds) {
            BitmapHandle dst = copytest::make(to, 23, 9, 24);
            ASSERT_EQ(Z_CopyBitmapData(&dst, &src), ST_OK) << copytest::name(from) << " -> " << copytest::name(to);
            EXPECT_EQ(copytest::pixels(dst), want) << copytest::name(from) << " -> " << copytest::name(to);
            Z_FreeBitmap(&dst);
        }
        BitmapHandle whole;
        ASSERT_EQ(Z_CopyBitmap(&whole, &src, Z_BITMAPHANDLE_SIZE), ST_OK) << copytest::name(from);
        EXPECT_EQ(copytest::pixels(whole), want);
        Z_FreeBitmap(&whole);
        for (uint32_t type : {TYPE_CONV, TYPE_DISK}) {
            BitmapHandle typed;
            ASSERT_EQ(Z_CopyBitmap2(&typed, &src, type, Z_BITMAPHANDLE_SIZE), ST_OK);
            EXPECT_EQ(bool(typed.Flags & BF_DISK), type == TYPE_DISK);
            EXPECT_EQ(copytest::pixels(typed), want);
            Z_FreeBitmap(&typed);
        }
        EXPECT_EQ(copytest::pixels(src), want) << "the source is only read";
        Z_FreeBitmap(&src);
    }
    EXPECT_TRUE(temp.files().empty()) << "no temporary file outlives its bitmap";
}

// The copy-status callback sees 0 first and rising percentages up to 100;
// a refusal stops the copy, is returned, and leaves the destination freed.
struct Progress {
    std::vector<int32_t> seen;
    int32_t refuse_at = -1;
};
int32_t Z_API on_copy(int32_t percent, void* user) {
    auto* p = static_cast<Progress*>(user);
    p->seen.push_back(percent);
    return percent == p->refuse_at ? ST_FILE_READ : ST_OK;
}

TEST(CopyBitmap, ReportsToTheCopyStatusCallback) {
    BitmapHandle src = copytest::make_filled(Kind::Conventional, 5, 7, 8, 8);
    Progress p;
    COPYSTATUSCALLBACK old = nullptr;
    void* old_user = nullptr;
    ASSERT_EQ(Z_SetCopyStatusCallBack(on_copy, &p, &old, &old_user), ST_OK);
    BitmapHandle d;
    ASSERT_EQ(Z_CopyBitmap(&d, &src, Z_BITMAPHANDLE_SIZE), ST_OK);
    ASSERT_GE(p.seen.size(), 2u);
    EXPECT_EQ(p.seen.front(), 0);
    EXPECT_EQ(p.seen.back(), 100);
    for (size_t i = 1; i < p.seen.size(); ++i) EXPECT_GT(p.seen[i], p.seen[i - 1]);
    Z_FreeBitmap(&d);

    for (int32_t refuse : {0, p.seen[2]}) {
        Progress q;
        q.refuse_at = refuse;
        Z_SetCopyStatusCallBack(on_copy, &q, nullptr, nullptr);
        BitmapHandle e;
        EXPECT_EQ(Z_CopyBitmap(&e, &src, Z_BITMAPHANDLE_SIZE), ST_FILE_READ);
        EXPECT_FALSE(e.Flags & BF_ALLOCATED);
        EXPECT_EQ(q.seen.back(), refuse);
        if (refuse == 0) {
            BitmapHandle f;
            EXPECT_EQ(Z_CopyBitmapRect(&f, &src, Z_BITMAPHANDLE_SIZE, 1, 1, 3, 5), ST_FILE_READ);
            EXPECT_FALSE(f.Flags & BF_ALLOCATED);
        }
    }
    Z_SetCopyStatusCallBack(old, old_user, nullptr, nullptr);
    Z_FreeBitmap(&src);
}

// ---------------------------------------------------------------------------
// Rectangles at every depth and at odd offsets, against the pixels read one
// by one from the source.
TEST(CopyRect, EveryDepthAndOffsetMatchesAPerPixelReference) {
    const int32_t depths[] = {1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 24, 32, 48, 64};
    for (int32_t bpp : depths) {
        BitmapHandle src = copytest::make_filled(Kind::Conventional, 77, 6, bpp, static_cast<uint32_t>(bpp));
        const std::vector<uint8_t> sp = copytest::pixels(src);
        for (int32_t left : {0, 1, 3, 5, 7, 8, 9, 13, 31}) {
            for (uint32_t width : {1u, 2u, 7u, 9u, 33u, 46u}) {
                if (static_cast<uint32_t>(left) + width > 77) continue;
                BitmapHandle d;
                ASSERT_EQ(Z_CopyBitmapRect(&d, &src, Z_BITMAPHANDLE_SIZE, left, 2, width, 3), ST_OK);
                ASSERT_EQ(d.Width, static_cast<int32_t>(width));
                ASSERT_EQ(d.Height, 3);
                const std::vector<uint8_t> dp = copytest::pixels(d);
                for (uint32_t y = 0; y < 3; ++y)
                    for (uint32_t x = 0; x < width; ++x)
                        ASSERT_EQ(copytest::pixel(dp.data() + y * d.BytesPerLine, x, bpp),
                                  copytest::pixel(sp.data() + (y + 2) * src.BytesPerLine,
                                                  static_cast<uint32_t>(left) + x, bpp))
                            << "bpp " << bpp << " left " << left << " width " << width << " x " << x;
                Z_FreeBitmap(&d);
            }
        }
        Z_FreeBitmap(&src);
    }
}

// The same through row access: source and destination on disk and in tiles.
TEST(CopyRect, IndirectStorageKindsAgreeWithMemory) {
    zktest::PrivateTempDir temp;
    BitmapHandle mem = copytest::make_filled(Kind::Conventional, 41, 8, 1, 77);
    BitmapHandle want;
    ASSERT_EQ(Z_CopyBitmapRect(&want, &mem, Z_BITMAPHANDLE_SIZE, 3, 1, 30, 6), ST_OK);
    const std::vector<uint8_t> reference = copytest::pixels(want);
    for (Kind from : copytest::kAllKinds) {
        BitmapHandle src = copytest::make_filled(from, 41, 8, 1, 77);
        for (uint32_t type : {TYPE_CONV, TYPE_DISK}) {
            BitmapHandle d;
            ASSERT_EQ(Z_CopyBitmapRect2(&d, &src, Z_BITMAPHANDLE_SIZE, 3, 1, 30, 6, type), ST_OK);
            EXPECT_EQ(bool(d.Flags & BF_DISK), type == TYPE_DISK);
            EXPECT_EQ(copytest::pixels(d), reference) << copytest::name(from) << " type " << type;
            Z_FreeBitmap(&d);
        }
        Z_FreeBitmap(&src);
    }
    Z_FreeBitmap(&want);
    Z_FreeBitmap(&mem);
}

TEST(CopyRect, RectangleMustLieInsideTheSource) {
    BitmapHandle src = copytest::make_filled(Kind::Conventional, 10, 8, 8, 9);
    const BitmapHandle before = src;
    struct Case {
        int32_t left, top;
        uint32_t width, height;
        int32_t want;
    } cases[] = {
        {0, 0, 10, 8, ST_OK},        {9, 7, 1, 1, ST_OK},
        {-1, 0, 2, 2, ST_BAD_PARAM}, {0, -1, 2, 2, ST_BAD_PARAM},
        {0, 0, 11, 1, ST_BAD_PARAM}, {0, 0, 1, 9, ST_BAD_PARAM},
        {10, 0, 1, 1, ST_BAD_PARAM}, {0, 0, 0, 1, ST_BAD_PARAM},
        {0, 0, 1, 0, ST_BAD_PARAM},  {5, 0, 0xFFFFFFFFu, 1, ST_BAD_PARAM},
    };
    for (const auto& c : cases) {
        BitmapHandle d{};
        EXPECT_EQ(Z_CopyBitmapRect(&d, &src, Z_BITMAPHANDLE_SIZE, c.left, c.top, c.width, c.height), c.want)
            << c.left << "," << c.top << " " << c.width << "x" << c.height;
        if (c.want == ST_OK)
            Z_FreeBitmap(&d);
        else
            EXPECT_EQ(Z_CopyBitmapRect(nullptr, &src, Z_BITMAPHANDLE_SIZE, c.left, c.top, c.width, c.height), c.want);
    }
    EXPECT_EQ(std::memcmp(&src, &before, sizeof src), 0);
    EXPECT_EQ(Z_CopyBitmapRect(nullptr, nullptr, Z_BITMAPHANDLE_SIZE, 0, 0, 1, 1), ST_BAD_PARAM);
    EXPECT_EQ(Z_CopyBitmapRect(nullptr, &src, 1, 0, 0, 1, 1), ST_BAD_STRUCT_SIZE);
    Z_FreeBitmap(&src);
}

TEST(CopyRect, InPlaceCropReplacesTheSourceInItsRecord) {
    for (int same = 0; same < 2; ++same) {
        BitmapHandle b = decorated(10);
        const std::vector<uint8_t> before = copytest::pixels(b);
        const uint32_t bpl = b.BytesPerLine;
        BitmapHandle* address = &b;
        ASSERT_EQ(Z_CopyBitmapRect(same ? &b : nullptr, &b, Z_BITMAPHANDLE_SIZE, 2, 3, 5, 4), ST_OK);
        EXPECT_EQ(address, &b);
        EXPECT_EQ(b.Width, 5);
        EXPECT_EQ(b.Height, 4);
        EXPECT_EQ(b.ViewPerspective, VP_RIGHT_TOP);
        ASSERT_NE(b.Palette, nullptr);
        ASSERT_NE(b.Overlays, nullptr);
        const std::vector<uint8_t> after = copytest::pixels(b);
        for (uint32_t y = 0; y < 4; ++y)
            for (uint32_t x = 0; x < 5; ++x) EXPECT_EQ(after[y * b.BytesPerLine + x], before[(y + 3) * bpl + 2 + x]);
        Z_FreeBitmap(&b);
    }
}

TEST(Trim, ClipsTheRectangleThenCropsInPlace) {
    BitmapHandle b = copytest::make_filled(Kind::Conventional, 100, 100, 8, 11);
    const std::vector<uint8_t> before = copytest::pixels(b);
    ASSERT_EQ(Z_TrimBitmap(&b, -5, -5, 10, 10), ST_OK);
    EXPECT_EQ(b.Width, 5);
    EXPECT_EQ(b.Height, 5);
    const std::vector<uint8_t> after = copytest::pixels(b);
    for (uint32_t y = 0; y < 5; ++y)
        for (uint32_t x = 0; x < 5; ++x) EXPECT_EQ(after[y * b.BytesPerLine + x], before[y * 100 + x]);
    ASSERT_EQ(Z_TrimBitmap(&b, 3, 1, 100, 100), ST_OK);
    EXPECT_EQ(b.Width, 2);
    EXPECT_EQ(b.Height, 4);
    EXPECT_EQ(Z_TrimBitmap(&b, 2, 0, 5, 5), ST_BAD_PARAM) << "nothing left after clipping";
    Z_FreeBitmap(&b);
}

// ---------------------------------------------------------------------------
// Whole and rectangle copies failing at the n-th allocation, mapping or file
// call, for every n until they succeed: the source keeps its record and
// pixels, nothing leaks, no temporary file stays behind.
TEST(CopyFaults, EveryStepOfCopyAndRectLeavesTheSourceWhole) {
    zktest::PrivateTempDir temp;
    const struct Op {
        const char* name;
        int (*run)(BitmapHandle* d, BitmapHandle* s);
    } ops[] = {
        {"copy", [](BitmapHandle* d, BitmapHandle* s) { return int(Z_CopyBitmap(d, s, Z_BITMAPHANDLE_SIZE)); }},
        {"copy2 disk",
         [](BitmapHandle* d, BitmapHandle* s) { return int(Z_CopyBitmap2(d, s, TYPE_DISK, Z_BITMAPHANDLE_SIZE)); }},
        {"rect",
         [](BitmapHandle* d, BitmapHandle* s) { return int(Z_CopyBitmapRect(d, s, Z_BITMAPHANDLE_SIZE, 3, 1, 9, 4)); }},
        {"rect2 tiled",
         [](BitmapHandle* d, BitmapHandle* s) {
             return int(Z_CopyBitmapRect2(d, s, Z_BITMAPHANDLE_SIZE, 3, 1, 9, 4, TYPE_DISK));
         }},
        {"crop", [](BitmapHandle*,
                    BitmapHandle* s) { return int(Z_CopyBitmapRect(nullptr, s, Z_BITMAPHANDLE_SIZE, 1, 1, 9, 4)); }},
    };
    for (Kind from : {Kind::Conventional, Kind::TiledDisk, Kind::Disk}) {
        for (const Op& op : ops) {
            SCOPED_TRACE(testing::Message() << copytest::name(from) << " " << op.name);
            const bool crop = std::strcmp(op.name, "crop") == 0;
            zktest::sweep_faults({FaultKind::Allocation, FaultKind::Mapping, FaultKind::File}, 300,
                                 [&](FaultKind kind, int n) {
                                     BitmapHandle src = copytest::make_filled(from, 19, 6, 4, 12);
                                     const BitmapHandle before = src;
                                     const std::vector<uint8_t> pixels = copytest::pixels(src);
                                     BitmapHandle d{};
                                     const int r = zktest::under_fault(kind, n, [&] { return op.run(&d, &src); });
                                     if (r == ST_OK) {
                                         if (!crop) Z_FreeBitmap(&d);
                                     } else {
                                         EXPECT_EQ(std::memcmp(&src, &before, sizeof src), 0);
                                         EXPECT_FALSE(d.Flags & BF_ALLOCATED);
                                     }
                                     if (r != ST_OK || !crop) {
                                         EXPECT_EQ(copytest::pixels(src), pixels);
                                     }
                                     Z_FreeBitmap(&src);
                                     return r == ST_OK;
                                 });
        }
    }
    EXPECT_TRUE(temp.files().empty());
}

}  // namespace
