// The region hook table: install, read back, the initialise-once reset, the
// fallbacks the kernel uses without a table, and releasing a region record.
#include <cstring>
#include <vector>

#include "region.h"
#include "test_support.h"

namespace {

// Puts the table back as the library's load leaves it: reset once, empty.
struct LoadedTable {
    LoadedTable() { restore(); }
    ~LoadedTable() { restore(); }
    static void restore() {
        zk::region::testing_restore_load_state();
        Z_ResetDisDispatch();
    }
};

std::vector<std::string>* g_calls = nullptr;

int32_t Z_API hook_mirror(BitmapHandle* b) {
    g_calls->push_back("1 " + std::to_string(b->Width));
    return -77;
}
int32_t Z_API hook_size(BitmapHandle* b, int32_t w, int32_t h) {
    g_calls->push_back("6 " + std::to_string(b ? b->Width : -1) + " " + std::to_string(w) + " " + std::to_string(h));
    return -66;
}
int32_t Z_API hook_kind(BitmapHandle*, int32_t* answer) {
    *answer = 9;
    return ST_OK;
}
int32_t Z_API hook_bounds(BitmapHandle*, uint32_t, RECT* r, int32_t) {
    *r = RECT{-5, 2, 500, 7};
    return ST_OK;
}
int32_t Z_API hook_bounds_fail(BitmapHandle*, uint32_t, RECT* r, int32_t) {
    *r = RECT{1, 1, 1, 1};
    return -55;
}
int32_t Z_API hook_point(BitmapHandle*, int32_t column, int32_t row) { return column == row; }

template <typename Fn>
Z_DISPATCHPROC as_entry(Fn fn) {
    return reinterpret_cast<Z_DISPATCHPROC>(fn);
}

std::vector<int32_t> sides(const RECT& r) { return {r.left, r.top, r.right, r.bottom}; }

Z_DISDISPATCH full_table() {
    Z_DISDISPATCH t{};
    for (int i = 0; i < Z_DISPATCH_ENTRIES; ++i) t.Entry[i] = as_entry(hook_point);
    t.Entry[0] = as_entry(hook_mirror);
    t.Entry[5] = as_entry(hook_size);
    return t;
}

}  // namespace

TEST(RegionTable, ResetIsInitialiseOnce) {
    LoadedTable guard;
    // The library's load already reset the table: a user's reset sees 1.
    EXPECT_EQ(Z_ResetDisDispatch(), 1);

    // Before any reset or install (test-only state): 0, and the table clears.
    zk::region::testing_restore_load_state();
    EXPECT_EQ(Z_ResetDisDispatch(), 0);
    EXPECT_EQ(Z_ResetDisDispatch(), 1);

    Z_DISDISPATCH space;
    std::memset(&space, 0xAB, sizeof space);
    const Z_DISDISPATCH untouched = space;
    EXPECT_EQ(Z_GetDisDispatch(&space), ST_NO_DISPATCH);
    EXPECT_EQ(std::memcmp(&space, &untouched, sizeof space), 0);

    const Z_DISDISPATCH table = full_table();
    EXPECT_EQ(Z_SetDisDispatch(&table), ST_OK);
    // After an install a reset leaves the table in place.
    EXPECT_EQ(Z_ResetDisDispatch(), 1);
    ASSERT_EQ(Z_GetDisDispatch(&space), ST_OK);
    EXPECT_EQ(std::memcmp(&space, &table, sizeof space), 0);
}

TEST(RegionTable, GetNeedsEntryOneAndAPointer) {
    LoadedTable guard;
    Z_DISDISPATCH t = full_table();
    t.Entry[0] = nullptr;  // everything but entry 1
    ASSERT_EQ(Z_SetDisDispatch(&t), ST_OK);
    Z_DISDISPATCH space{};
    EXPECT_EQ(Z_GetDisDispatch(&space), ST_NO_DISPATCH);
    EXPECT_EQ(space.Entry[5], nullptr);
    EXPECT_EQ(Z_GetDisDispatch(nullptr), ST_BAD_PARAM);
    EXPECT_EQ(Z_SetDisDispatch(nullptr), ST_BAD_PARAM);
    // The refused install changed nothing.
    EXPECT_EQ(zk::region::entry(6), as_entry(hook_size));
    EXPECT_EQ(zk::region::entry(0), nullptr);
    EXPECT_EQ(zk::region::entry(21), nullptr);
}

TEST(RegionTable, HooksReplaceResultsAndGetTheirArguments) {
    LoadedTable guard;
    std::vector<std::string> calls;
    g_calls = &calls;
    BitmapHandle b = zktest::described(10, 20, 8);

    // Without a table the kernel's calls succeed and fall back.
    EXPECT_EQ(Z_KrnSizeBitmapRgn(&b, 3, 4), ST_OK);
    EXPECT_EQ(Z_KrnSizeBitmapRgn(nullptr, -1, -1), ST_OK);
    EXPECT_EQ(zk::region::rows_mirrored(&b), ST_OK);
    EXPECT_EQ(zk::region::rows_flipped(&b), ST_OK);
    EXPECT_EQ(zk::region::rotated(&b, 1, 1, 18000), ST_OK);
    bool called = true;
    EXPECT_EQ(zk::region::copy(&b, &b, 0, 0, &called), ST_OK);
    EXPECT_FALSE(called);
    EXPECT_TRUE(calls.empty());

    const Z_DISDISPATCH table = full_table();
    ASSERT_EQ(Z_SetDisDispatch(&table), ST_OK);
    EXPECT_EQ(Z_KrnSizeBitmapRgn(&b, 3, 4), -66);
    EXPECT_EQ(Z_KrnSizeBitmapRgn(nullptr, 7, 8), -66);
    EXPECT_EQ(zk::region::rows_mirrored(&b), -77);
    EXPECT_EQ(calls, (std::vector<std::string>{"6 10 3 4", "6 -1 7 8", "1 10"}));
    g_calls = nullptr;
}

TEST(RegionTable, QueryFallbacks) {
    LoadedTable guard;
    BitmapHandle b = zktest::described(10, 20, 8);
    int32_t answer = 0;
    int32_t span[2] = {-1, -1};
    RECT r{9, 9, 9, 9};

    struct Case {
        const char* what;
        int32_t got, want;
    } cases[] = {
        {"kind null bitmap", zk::region::kind(nullptr, &answer), ST_INVALID_BITMAP},
        {"kind null bitmap and answer", zk::region::kind(nullptr, nullptr), ST_INVALID_BITMAP},
        {"kind null answer", zk::region::kind(&b, nullptr), ST_BAD_PARAM},
        {"span null bitmap", zk::region::row_span(nullptr, 0, span, &answer), ST_INVALID_BITMAP},
        {"span null span", zk::region::row_span(&b, 0, nullptr, &answer), ST_BAD_PARAM},
        {"span null answer", zk::region::row_span(&b, 0, span, nullptr), ST_BAD_PARAM},
        {"point inside", zk::region::point_allowed(&b, 9, 19), ST_OK},
        {"point origin", zk::region::point_allowed(&b, 0, 0), ST_OK},
        {"point right", zk::region::point_allowed(&b, 10, 0), ST_BAD_POSITION},
        {"point below", zk::region::point_allowed(&b, 0, 20), ST_BAD_POSITION},
        {"point negative", zk::region::point_allowed(&b, -1, 3), ST_BAD_POSITION},
        {"point null bitmap", zk::region::point_allowed(nullptr, 0, 0), ST_BAD_POSITION},
    };
    for (const auto& c : cases) EXPECT_EQ(c.got, c.want) << c.what;
    EXPECT_EQ(answer, 0);
    EXPECT_EQ(span[0], -1);

    ASSERT_EQ(zk::region::kind(&b, &answer), ST_OK);
    EXPECT_EQ(answer, 2);
    answer = 0;
    ASSERT_EQ(zk::region::row_span(&b, 5, span, &answer), ST_OK);
    EXPECT_EQ(span[0], 0);
    EXPECT_EQ(span[1], 10);
    EXPECT_EQ(answer, 2);
    for (int32_t clip : {0, 1}) {
        ASSERT_EQ(zk::region::bounds(&b, 0, &r, clip), ST_OK);
        EXPECT_EQ(sides(r), sides({0, 0, 10, 20}));
    }

    // With hooks: their answers, and the clip rule on the bounds.
    Z_DISDISPATCH t{};
    t.Entry[0] = as_entry(hook_mirror);
    t.Entry[3] = as_entry(hook_kind);
    t.Entry[7] = as_entry(hook_bounds);
    t.Entry[16] = as_entry(hook_point);
    ASSERT_EQ(Z_SetDisDispatch(&t), ST_OK);
    ASSERT_EQ(zk::region::kind(&b, &answer), ST_OK);
    EXPECT_EQ(answer, 9);
    ASSERT_EQ(zk::region::bounds(&b, 0, &r, 0), ST_OK);
    EXPECT_EQ(sides(r), sides({-5, 2, 500, 7}));
    ASSERT_EQ(zk::region::bounds(&b, 0, &r, 1), ST_OK);
    EXPECT_EQ(sides(r), sides({0, 2, 10, 7}));
    EXPECT_EQ(zk::region::point_allowed(&b, 3, 3), ST_OK);
    EXPECT_EQ(zk::region::point_allowed(&b, 3, 4), ST_BAD_POSITION);
    EXPECT_EQ(zk::region::point_allowed(&b, 500, 500), ST_OK);  // the hook decides
    t.Entry[7] = as_entry(hook_bounds_fail);
    ASSERT_EQ(Z_SetDisDispatch(&t), ST_OK);
    EXPECT_EQ(zk::region::bounds(&b, 0, &r, 1), -55);
}

TEST(RegionRecord, DeleteReleasesEverything) {
    EXPECT_EQ(Z_DeleteZarnRgn(nullptr), ST_BAD_PARAM);
    for (int variant = 0; variant < 4; ++variant) {
        SCOPED_TRACE(variant);
        auto* rgn = static_cast<ZarnRgn*>(Z_OsAllocInit(sizeof(ZarnRgn), 1));
        ASSERT_NE(rgn, nullptr);
        rgn->Bounds = RECT{1, 2, 3, 4};
        if (variant & 1) {
            rgn->Count1 = 4;
            rgn->Elements1 = Z_OsAlloc(64);
            rgn->Count2 = 2;
            rgn->Elements2 = Z_OsAlloc(32);
        }
        if (variant & 2) {
            rgn->Object1 = Z_Malloc(16);
            rgn->Object2 = Z_Malloc(16);
        }
        // Every block is released; LeakSanitizer reports any that is not.
        EXPECT_EQ(Z_DeleteZarnRgn(rgn), ST_OK);
    }
}
