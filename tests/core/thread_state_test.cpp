// Per-thread settings blocks, thread slots, callbacks, memory and runtime
// wrappers.
#include <algorithm>
#include <clocale>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "test_support.h"
#include "thread_state.h"

namespace {

// The settings a thread's block holds, as the exports report them.
struct Defaults {
    int32_t x, y;
    uint32_t dither, memory_type;
    bool process_block;
    std::wstring temp_dir;
    Z_OPENPROC open;
    STATUSCALLBACK status;
    COPYSTATUSCALLBACK copy_status;
    SUBSTITUTEFONTCALLBACK font;
    int32_t thresholds[5];
};

Defaults read_defaults() {
    Defaults d{};
    d.x = Z_GetDefaultXResolution();
    d.y = Z_GetDefaultYResolution();
    d.dither = Z_GetDefaultDithering();
    EXPECT_EQ(Z_GetDefaultMemoryType(&d.memory_type), ST_OK);
    d.process_block = zk::is_process_block(zk::thread_state());
    wchar_t dir[Z_MAX_PATH] = {};
    EXPECT_EQ(Z_GetTempDirectory(dir), ST_OK);
    d.temp_dir = dir;
    EXPECT_EQ(
        Z_GetFilterIOData(&d.open, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr),
        ST_OK);
    d.status = Z_GetStatusCallBack(nullptr);
    d.copy_status = Z_GetCopyStatusCallBack(nullptr);
    d.font = Z_VecGetSubstituteFontCallback(nullptr);
    int32_t* t = d.thresholds;
    EXPECT_EQ(Z_GetMemoryThresholds(&t[0], &t[1], &t[2], &t[3], &t[4]), ST_OK);
    return d;
}

Z_FILE Z_API other_open(const wchar_t*, int32_t, int32_t, void*) { return Z_INVALID_FILE; }
int32_t Z_API status_a(int32_t, void*) { return ST_OK; }
int32_t Z_API status_b(int32_t, void*) { return ST_OK; }
int32_t Z_API font_cb(const wchar_t*, wchar_t*, void*) { return ST_OK; }

}  // namespace

// Every per-thread setting changed here: a new thread sees the initial values,
// and a thread that changes its own leaves ours alone.
TEST(ThreadState, NewThreadSeesInitialDefaultsWhileAnotherChangedItsOwn) {
    const Defaults initial = read_defaults();
    const int32_t old_x = Z_SetDefaultXResolution(300);
    const int32_t old_y = Z_SetDefaultYResolution(-5);
    const uint32_t old_dither = Z_GetDefaultDithering();
    ASSERT_EQ(Z_DefaultDithering(DITHER_FLOYD), ST_OK);
    ASSERT_EQ(Z_SetDefaultMemoryType(TYPE_DISK), ST_OK);
    ASSERT_EQ(Z_SetTempDirectory(L"/mine/"), ST_OK);
    ASSERT_EQ(Z_RedirectIO(other_open, nullptr, nullptr, nullptr, nullptr, nullptr), ST_OK);
    ASSERT_EQ(Z_SetStatusCallBack(status_a, nullptr, nullptr, nullptr), ST_OK);
    ASSERT_EQ(Z_SetCopyStatusCallBack(status_b, nullptr, nullptr, nullptr), ST_OK);
    ASSERT_EQ(Z_VecSetSubstituteFontCallback(font_cb, nullptr), ST_OK);
    ASSERT_EQ(Z_SetMemoryThresholds(-7, 1234, 0x10000, 5, 3, 31), ST_OK);

    Defaults other{};
    std::thread([&] { other = read_defaults(); }).join();
    EXPECT_EQ(other.x, 150);
    EXPECT_EQ(other.y, 150);
    EXPECT_EQ(other.dither, DITHER_ORDERED);
    EXPECT_EQ(other.memory_type, TYPE_CONV);
    EXPECT_FALSE(other.process_block);
    EXPECT_EQ(other.temp_dir, initial.temp_dir);  // the system's
    EXPECT_EQ(other.temp_dir.back(), L'/');
    EXPECT_EQ(other.open, Z_OsOpen);
    EXPECT_EQ(other.status, nullptr);
    EXPECT_EQ(other.copy_status, nullptr);
    EXPECT_EQ(other.font, nullptr);
    const int32_t initial_thresholds[5] = {0, 0x7FFFFFFF, 0, -100, 1};
    for (int k = 0; k < 5; ++k) EXPECT_EQ(other.thresholds[k], initial_thresholds[k]) << k;

    // A thread that changes its own defaults does not touch ours.
    std::thread([] {
        Z_SetDefaultXResolution(72);
        Z_DefaultDithering(DITHER_NONE);
        Z_SetTempDirectory(L"/theirs/");
        Z_SetMemoryThresholds(0, 99, 0, 0, 0, 31);
    }).join();
    const Defaults mine = read_defaults();
    EXPECT_EQ(mine.x, 300);
    EXPECT_EQ(mine.y, -5);
    EXPECT_EQ(mine.dither, DITHER_FLOYD);
    EXPECT_EQ(mine.memory_type, TYPE_DISK);
    EXPECT_EQ(mine.temp_dir, L"/mine/");
    EXPECT_EQ(mine.open, other_open);
    EXPECT_EQ(mine.status, status_a);
    EXPECT_EQ(mine.copy_status, status_b);
    EXPECT_EQ(mine.font, font_cb);
    EXPECT_EQ(mine.thresholds[1], 1234);

    // New records of this thread use 150 for a resolution that is not positive.
    const BitmapHandle b = zktest::described(4, 4, 8);
    EXPECT_EQ(b.XResolution, 300);
    EXPECT_EQ(b.YResolution, 150);
    EXPECT_EQ(b.DitherMethod, DITHER_FLOYD);

    EXPECT_EQ(Z_SetDefaultXResolution(old_x), 300);
    EXPECT_EQ(Z_SetDefaultYResolution(old_y), -5);
    Z_DefaultDithering(old_dither);
    Z_SetDefaultMemoryType(TYPE_CONV);
    Z_SetTempDirectory(initial.temp_dir.c_str());
    Z_RedirectIO(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    Z_SetStatusCallBack(nullptr, nullptr, nullptr, nullptr);
    Z_SetCopyStatusCallBack(nullptr, nullptr, nullptr, nullptr);
    Z_VecSetSubstituteFontCallback(nullptr, nullptr);
    const int32_t* t = initial.thresholds;
    Z_SetMemoryThresholds(t[0], t[1], t[2], t[3], t[4], 31);
}

TEST(ThreadState, BlockIsReleasedWhenTheThreadEnds) {
    const long before = zk::testing::live_thread_blocks();
    for (int round = 0; round < 8; ++round) {
        long during = -1;
        std::thread([&] {
            Z_SetDefaultXResolution(96);  // first use creates the block
            during = zk::testing::live_thread_blocks();
        }).join();
        EXPECT_EQ(during, before + 1);
        EXPECT_EQ(zk::testing::live_thread_blocks(), before);
    }
    // Threads that never call the library get no block.
    std::thread([] {}).join();
    EXPECT_EQ(zk::testing::live_thread_blocks(), before);
}

TEST(ThreadState, FailedCreationFallsBackToProcessBlockWithoutLeaking) {
    const long before = zk::testing::live_thread_blocks();
    // First allocation is the block, second its slot array.
    for (int nth : {1, 2}) {
        SCOPED_TRACE(nth);
        bool fallback = false;
        int32_t fallback_x = -1;
        uint32_t fallback_dither = 99;
        bool fallback_words_zero = false;
        Defaults retried{};
        long during = -1;
        std::thread([&] {
            {
                zktest::FaultScope fault(zk::platform::FaultKind::Allocation, nth);
                const zk::ThreadState& s = zk::thread_state();
                fallback = zk::is_process_block(s);
                fallback_x = s.x_resolution;
                fallback_dither = s.dither_method;
                fallback_words_zero = s.slots == nullptr && s.open == nullptr;  // null: the library's own
                during = zk::testing::live_thread_blocks();
            }
            // The next call finds no block and tries again.
            retried = read_defaults();
        }).join();
        EXPECT_TRUE(fallback);
        EXPECT_EQ(during, before);
        // The process-wide block starts zeroed.
        EXPECT_EQ(fallback_x, 0);
        EXPECT_EQ(fallback_dither, 0u);
        EXPECT_TRUE(fallback_words_zero);
        EXPECT_FALSE(retried.process_block);
        EXPECT_EQ(retried.x, 150);
        EXPECT_EQ(retried.dither, DITHER_ORDERED);
        EXPECT_EQ(zk::testing::live_thread_blocks(), before);
    }
}

// ---------------------------------------------------------------------------
// Thread slots. The table is process-wide: the test leaves it as it found it.

TEST(ThreadSlots, ThousandTwentyFourRules) {
    std::vector<uint32_t> got;
    for (;;) {
        const uint32_t s = Z_TlsAlloc();
        if (s == Z_TLS_OUT_OF_INDEXES) break;
        got.push_back(s);
        ASSERT_LE(got.size(), static_cast<size_t>(Z_TLS_SLOTS));
    }
    // Nothing else in this program holds slots: all 1024 were handed out, in order.
    ASSERT_EQ(got.size(), static_cast<size_t>(Z_TLS_SLOTS));
    for (uint32_t i = 0; i < Z_TLS_SLOTS; ++i) ASSERT_EQ(got[i], i);
    EXPECT_EQ(Z_TlsAlloc(), Z_TLS_OUT_OF_INDEXES);

    // A freed slot below the count is reused, lowest first.
    EXPECT_EQ(Z_TlsFree(700), 1);
    EXPECT_EQ(Z_TlsFree(5), 1);
    EXPECT_EQ(Z_TlsFree(5), 0);
    EXPECT_EQ(Z_TlsAlloc(), 5u);
    EXPECT_EQ(Z_TlsAlloc(), 700u);
    EXPECT_EQ(Z_TlsAlloc(), Z_TLS_OUT_OF_INDEXES);

    // Freeing the highest slot lowers the count once; SetValue then refuses it.
    int value = 0;
    EXPECT_EQ(Z_TlsSetValue(1023, &value), 1);
    EXPECT_EQ(Z_TlsFree(1020), 1);  // not the highest: the count stays
    EXPECT_EQ(Z_TlsSetValue(1023, &value), 1);
    EXPECT_EQ(Z_TlsFree(1023), 1);
    EXPECT_EQ(Z_TlsFree(1023), 0);
    EXPECT_EQ(Z_TlsSetValue(1023, &value), 0);
    EXPECT_EQ(Z_TlsSetValue(1022, &value), 1);
    // Only by one: with 1021 and 1020 free below, freeing 1022 leaves the
    // count at 1022, so 1021 still takes values.
    EXPECT_EQ(Z_TlsFree(1021), 1);
    EXPECT_EQ(Z_TlsFree(1022), 1);
    EXPECT_EQ(Z_TlsSetValue(1022, &value), 0);
    EXPECT_EQ(Z_TlsSetValue(1021, &value), 1);
    // The count grows again first, then the lowest free slot is reused.
    EXPECT_EQ(Z_TlsAlloc(), 1022u);
    EXPECT_EQ(Z_TlsAlloc(), 1023u);
    EXPECT_EQ(Z_TlsAlloc(), 1020u);
    EXPECT_EQ(Z_TlsAlloc(), 1021u);
    EXPECT_EQ(Z_TlsAlloc(), Z_TLS_OUT_OF_INDEXES);

    // Out-of-range slots.
    for (uint32_t bad : {1024u, 5000u, 0xFFFFFFFFu}) {
        EXPECT_EQ(Z_TlsFree(bad), 0);
        EXPECT_EQ(Z_TlsSetValue(bad, &value), 0);
        EXPECT_EQ(Z_TlsGetValue(bad), nullptr);
    }

    for (uint32_t i = Z_TLS_SLOTS; i-- > 0;) ASSERT_EQ(Z_TlsFree(i), 1) << i;
    // Empty again: a never-allocated slot refuses values.
    EXPECT_EQ(Z_TlsSetValue(0, &value), 0);
    EXPECT_EQ(Z_TlsFree(0), 0);
}

// Threads allocating at once get distinct slots; a slot's value is per thread.
TEST(ThreadSlots, ConcurrentAllocationHandsOutDistinctSlotsWithPerThreadValues) {
    const uint32_t shared = Z_TlsAlloc();
    ASSERT_NE(shared, Z_TLS_OUT_OF_INDEXES);
    int mine = 0;
    ASSERT_EQ(Z_TlsSetValue(shared, &mine), 1);
    std::vector<uint32_t> got[4];
    void* seen_first[4] = {};
    bool own_value_kept[4] = {};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            seen_first[t] = Z_TlsGetValue(shared);
            Z_TlsSetValue(shared, &got[t]);
            for (int i = 0; i < 200; ++i) got[t].push_back(Z_TlsAlloc());
            own_value_kept[t] = Z_TlsGetValue(shared) == &got[t];
        });
    for (auto& t : threads) t.join();
    EXPECT_EQ(Z_TlsGetValue(shared), &mine);
    std::vector<bool> seen(Z_TLS_SLOTS, false);
    seen[shared] = true;
    for (int t = 0; t < 4; ++t) {
        EXPECT_EQ(seen_first[t], nullptr);
        EXPECT_TRUE(own_value_kept[t]);
        for (uint32_t s : got[t]) {
            ASSERT_LT(s, static_cast<uint32_t>(Z_TLS_SLOTS));
            EXPECT_FALSE(seen[s]) << s;
            seen[s] = true;
        }
    }
    for (uint32_t i = Z_TLS_SLOTS; i-- > 0;)
        if (seen[i]) {
            EXPECT_EQ(Z_TlsFree(i), 1) << i;
        }
}

// ---------------------------------------------------------------------------
// Callbacks.

TEST(Callbacks, SettersHandBackPreviousValues) {
    int ua = 0, ub = 0;
    STATUSCALLBACK prev = status_b;
    void* prev_user = &ub;
    ASSERT_EQ(Z_SetStatusCallBack(status_a, &ua, &prev, &prev_user), ST_OK);
    EXPECT_EQ(prev, nullptr);
    EXPECT_EQ(prev_user, nullptr);
    ASSERT_EQ(Z_SetStatusCallBack(status_b, &ub, nullptr, nullptr), ST_OK);  // null outs skipped
    ASSERT_EQ(Z_SetStatusCallBack(nullptr, nullptr, &prev, &prev_user), ST_OK);
    EXPECT_EQ(prev, status_b);
    EXPECT_EQ(prev_user, &ub);
    void* user = &ua;
    EXPECT_EQ(Z_GetStatusCallBack(&user), nullptr);
    EXPECT_EQ(user, nullptr);
    EXPECT_EQ(Z_GetStatusCallBack(nullptr), nullptr);
    EXPECT_EQ(Z_SetStatusCallBack(nullptr, nullptr, nullptr, nullptr), ST_OK);

    COPYSTATUSCALLBACK cprev = nullptr;
    ASSERT_EQ(Z_SetCopyStatusCallBack(status_a, &ua, &cprev, nullptr), ST_OK);
    EXPECT_EQ(cprev, nullptr);
    EXPECT_EQ(Z_GetCopyStatusCallBack(&user), status_a);
    EXPECT_EQ(user, &ua);
    EXPECT_EQ(Z_GetCopyStatusCallBack(nullptr), status_a);

    EXPECT_EQ(Z_VecSetSubstituteFontCallback(font_cb, &ub), ST_OK);
    EXPECT_EQ(Z_VecGetSubstituteFontCallback(&user), font_cb);
    EXPECT_EQ(user, &ub);

    Z_SetCopyStatusCallBack(nullptr, nullptr, &cprev, nullptr);
    EXPECT_EQ(cprev, status_a);
    Z_VecSetSubstituteFontCallback(nullptr, nullptr);
}

namespace {
std::vector<int32_t>* g_percents = nullptr;
int32_t Z_API record_percent(int32_t percent, void* user) {
    g_percents->push_back(percent);
    return percent >= *static_cast<int32_t*>(user) ? -99 : ST_OK;
}
}  // namespace

TEST(Callbacks, ProgressReportsWholePercentagesAndStops) {
    std::vector<int32_t> seen;
    g_percents = &seen;
    int32_t stop_at = 1000;
    Z_SetStatusCallBack(record_percent, &stop_at, nullptr, nullptr);
    {
        zk::Progress p(3);
        EXPECT_EQ(p.start(), ST_OK);
        for (int i = 0; i < 3; ++i) EXPECT_EQ(p.step(), ST_OK);
    }
    EXPECT_EQ(seen, (std::vector<int32_t>{0, 33, 66, 100}));
    seen.clear();
    {
        zk::Progress p(1000);  // many steps per percent: each value once
        p.start();
        for (int i = 0; i < 1000; ++i) p.step();
    }
    ASSERT_EQ(seen.size(), 101u);
    for (int32_t i = 0; i <= 100; ++i) EXPECT_EQ(seen[static_cast<size_t>(i)], i);
    seen.clear();
    stop_at = 50;
    {
        zk::Progress p(4);
        p.start();
        EXPECT_EQ(p.step(), ST_OK);
        EXPECT_EQ(p.step(), -99);  // the callback's result stops the work
    }
    Z_SetStatusCallBack(nullptr, nullptr, nullptr, nullptr);
    {
        zk::Progress p(2);  // no callback: nothing called
        EXPECT_EQ(p.start(), ST_OK);
        EXPECT_EQ(p.step(), ST_OK);
    }
    EXPECT_EQ(seen, (std::vector<int32_t>{0, 25, 50}));
    g_percents = nullptr;
}

// ---------------------------------------------------------------------------
// Memory wrappers.

// Contents survive reallocation both ways; the zeroing variants zero new bytes.
TEST(Memory, ReallocationKeepsContentsAndZeroesGrowthWhereAsked) {
    struct Case {
        size_t first, second;
        int how;  // 0: heap, 1: movable, 2: movable with zeroed growth
    } cases[] = {{16, 4096, 0}, {4096, 16, 0},     {1, 1, 1},  {16, 4096, 2},
                 {4096, 16, 2}, {1000, 100000, 2}, {0, 64, 2}, {100, 5000, 1}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.first << " -> " << c.second << " how " << c.how);
        auto* p = static_cast<uint8_t*>(c.how == 0 ? Z_Calloc(c.first, 1) : Z_OsAllocInit(c.first, 1));
        ASSERT_NE(p, nullptr);
        for (size_t i = 0; i < c.first; ++i) ASSERT_EQ(p[i], 0);
        std::memset(p, 0xC3, c.first);
        auto* q = static_cast<uint8_t*>(c.how == 0   ? Z_Realloc(p, c.second)
                                        : c.how == 1 ? Z_OsReAlloc(p, c.second)
                                                     : Z_OsReAllocInit(p, c.second, 1));
        ASSERT_NE(q, nullptr);
        const size_t kept = std::min(c.first, c.second);
        for (size_t i = 0; i < kept; ++i) ASSERT_EQ(q[i], 0xC3);
        if (c.how == 2) {
            for (size_t i = kept; i < c.second; ++i) ASSERT_EQ(q[i], 0) << i;
        }
        c.how == 0 ? Z_Free(q) : Z_OsFree(q);
    }
    Z_Free(nullptr);
    Z_OsFree(nullptr);
    // A null pointer allocates; the recording variants behave the same.
    Z_Free(Z_Realloc(nullptr, 16));
    Z_OsFreeDump(Z_OsReAlloc(nullptr, 32), __FILE__, __LINE__);
    void* m = Z_ReallocDump(Z_MallocDump(10, __FILE__, __LINE__), 20, __FILE__, __LINE__);
    ASSERT_NE(m, nullptr);
    Z_FreeDump(m, __FILE__, __LINE__);
    Z_Free(Z_CallocDump(2, 2, nullptr, 0));
    void* d = Z_OsReAllocDump(Z_OsAllocDump(8, __FILE__, __LINE__), 16, __FILE__, __LINE__);
    d = Z_OsReAllocInitDump(d, 32, 1, __FILE__, __LINE__);
    ASSERT_NE(d, nullptr);
    Z_OsFree(d);
    Z_OsFree(Z_OsAllocInitDump(8, 0, nullptr, 0));
    Z_DumpMemoryReport("nothing to report");
    Z_DumpMemoryReport(nullptr);
}

// Injected failures and sizes beyond the address space give null; a failed
// reallocation keeps the old block, contents and address.
TEST(Memory, FailedOrImpossibleAllocationsGiveNullAndKeepTheOldBlock) {
    using zk::platform::FaultKind;
    const size_t impossible[] = {SIZE_MAX, SIZE_MAX - 8, SIZE_MAX / 2 + 1};
    void* (*const allocs[])(size_t) = {[](size_t n) { return Z_Malloc(n); }, [](size_t n) { return Z_OsAlloc(n); },
                                       [](size_t n) { return Z_OsAllocInit(n, 1); }};
    for (auto alloc : allocs) {
        EXPECT_EQ(zktest::under_fault(FaultKind::Allocation, 1, [&] { return alloc(64); }), nullptr);
        for (size_t n : impossible) EXPECT_EQ(alloc(n), nullptr) << n;
    }
    EXPECT_EQ(Z_Calloc(SIZE_MAX / 2, 3), nullptr);  // count * size beyond the address space
    EXPECT_EQ(Z_Calloc(3, SIZE_MAX / 2), nullptr);
    struct Re {
        bool heap;
        void* (*re)(void*, size_t);
    } res[] = {{true, [](void* p, size_t n) { return Z_Realloc(p, n); }},
               {false, [](void* p, size_t n) { return Z_OsReAlloc(p, n); }},
               {false, [](void* p, size_t n) { return Z_OsReAllocInit(p, n, 1); }}};
    for (const Re& r : res) {
        auto* p = static_cast<uint8_t*>(r.heap ? Z_Malloc(64) : Z_OsAlloc(64));
        ASSERT_NE(p, nullptr);
        std::memset(p, 0x77, 64);
        EXPECT_EQ(zktest::under_fault(FaultKind::Allocation, 1, [&] { return r.re(p, 1 << 20); }), nullptr);
        for (size_t n : impossible) EXPECT_EQ(r.re(p, n), nullptr) << n;
        for (int i = 0; i < 64; ++i) ASSERT_EQ(p[i], 0x77);
        auto* q = static_cast<uint8_t*>(r.re(p, 128));
        ASSERT_NE(q, nullptr);
        EXPECT_EQ(q[63], 0x77);
        r.heap ? Z_Free(q) : Z_OsFree(q);
    }
}

// ---------------------------------------------------------------------------
// Runtime wrappers.

// The wrappers' own handling of null arguments; the rest is the C library's.
TEST(Runtime, WrappersRefuseNullArguments) {
    char* end = nullptr;
    EXPECT_DOUBLE_EQ(Z_Strtod("2.5e3xyz", &end), 2500.0);
    EXPECT_STREQ(end, "xyz");
    end = reinterpret_cast<char*>(1);
    EXPECT_EQ(Z_Strtod(nullptr, &end), 0.0);
    EXPECT_EQ(end, nullptr);
    EXPECT_EQ(Z_Strtod(nullptr, nullptr), 0.0);
    char text[] = "a,bb";
    EXPECT_EQ(Z_Strtok(text, nullptr), nullptr);
    EXPECT_STREQ(Z_Strtok(text, ","), "a");
    EXPECT_STREQ(Z_Setlocale(LC_NUMERIC, "C"), "C");
}
