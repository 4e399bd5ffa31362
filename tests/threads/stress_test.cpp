// Several threads at once, each with its own settings (thresholds,
// temporary directory, default dithering, status callback, I/O routines,
// thread slots), each allocating, converting, dithering, turning, flipping,
// resizing and freeing its own bitmaps. Every thread's results must equal
// the same work done alone first, and its settings and callbacks must see
// only its own work. The test runs under ThreadSanitizer in the test script;
// under AddressSanitizer, short-lived threads must leave nothing behind.
#include <atomic>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "test_support.h"

namespace {

constexpr int kThreads = 4;

// FNV-1a over bytes.
uint64_t mix(uint64_t h, const uint8_t* p, size_t n) {
    for (size_t i = 0; i < n; ++i) h = (h ^ p[i]) * 1099511628211ull;
    return h;
}

uint64_t digest(BitmapHandle& b, uint64_t h) {
    std::vector<uint8_t> row(b.BytesPerLine);
    for (uint32_t y = 0; y < uint32_t(b.Height); ++y) {
        EXPECT_EQ(Z_GetBitmapRow(&b, row.data(), y, b.BytesPerLine), int32_t(b.BytesPerLine));
        h = mix(h, row.data(), row.size());
    }
    const int32_t dims[3] = {b.Width, b.Height, b.BitsPerPixel};
    return mix(h, reinterpret_cast<const uint8_t*>(dims), sizeof dims);
}

struct Counter {
    std::atomic<int> calls{0};
    std::thread::id owner;
    std::atomic<int> strangers{0};
};

int32_t Z_API count_progress(int32_t, void* user) {
    auto* c = static_cast<Counter*>(user);
    ++c->calls;
    if (std::this_thread::get_id() != c->owner) ++c->strangers;
    return ST_OK;
}

int32_t Z_API counting_write(Z_FILE file, const void* buffer, uint32_t count, void* user) {
    ++*static_cast<std::atomic<int>*>(user);
    return Z_OsWrite(file, buffer, count, nullptr);
}

// One thread's work, a function of its number only; returns the digest of
// every result.
uint64_t work(int t, const std::wstring& temp, Counter& progress, std::atomic<int>& writes) {
    // Thread t: tiles of a few rows for odd t, memory for even; its own
    // directory, dithering method and callback.
    EXPECT_EQ(Z_SetMemoryThresholds(0, 0, t % 2 ? 4096 : 0x7FFFFFFF, t % 2 ? 1 : -100, 1, 4 | 8 | 16), ST_OK);
    EXPECT_EQ(Z_SetTempDirectory(temp.c_str()), ST_OK);
    EXPECT_EQ(Z_DefaultDithering(uint32_t(t + 1)), ST_OK);
    progress.owner = std::this_thread::get_id();
    EXPECT_EQ(Z_SetStatusCallBack(count_progress, &progress, nullptr, nullptr), ST_OK);
    EXPECT_EQ(Z_RedirectIO(nullptr, nullptr, counting_write, nullptr, nullptr, &writes), ST_OK);

    uint64_t h = 14695981039346656037ull;
    for (int round = 0; round < 3; ++round) {
        BitmapHandle b{};
        EXPECT_EQ(Z_InitBitmap(&b, Z_BITMAPHANDLE_SIZE, 61 + t, 47 + round, 24), ST_OK);
        EXPECT_EQ(Z_AllocateBitmap(&b, t == 3 ? TYPE_DISK : TYPE_CONV), ST_OK);
        for (uint32_t y = 0; y < uint32_t(b.Height); ++y) {
            const auto row = zktest::random_bytes(b.BytesPerLine, uint32_t(t * 1000 + round * 100) + y);
            EXPECT_EQ(Z_PutBitmapRow(&b, row.data(), y, b.BytesPerLine), int32_t(b.BytesPerLine));
        }
        BitmapHandle c;
        EXPECT_EQ(Z_ColorResBitmap(&b, &c, Z_BITMAPHANDLE_SIZE, 8, CRF_OPTIMIZED_PALETTE | CRF_DITHER(uint32_t(t + 1)),
                                   nullptr, nullptr, 0, nullptr, nullptr),
                  ST_OK);
        h = digest(c, h);
        EXPECT_EQ(Z_RotateBitmap90(&c, round % 2), ST_OK);
        EXPECT_EQ(Z_FlipBitmap(&c), ST_OK);
        h = digest(c, h);
        EXPECT_EQ(Z_ColorResBitmap(&b, &b, Z_BITMAPHANDLE_SIZE, 4, CRF_FIXED_PALETTE | CRF_DITHER(DITHER_ORDERED),
                                   nullptr, nullptr, 0, nullptr, nullptr),
                  ST_OK);
        h = digest(b, h);
        EXPECT_EQ(Z_GrayScaleBitmap(&c, 16), ST_OK);
        EXPECT_EQ(Z_ReverseBitmap(&c), ST_OK);
        h = digest(c, h);
        // A streaming resize of the gray rows to two thirds.
        ResizeHandle r = nullptr;
        const int32_t w2 = c.Width * 2 / 3, h2 = c.Height * 2 / 3;
        if (Z_StartResize(c.Width, c.Height, w2, h2, &r) == ST_OK) {
            std::vector<uint8_t> row(size_t(c.BytesPerLine) * 2 + 64);
            for (int32_t y = 0; y < c.Height; ++y) {
                Z_GetBitmapRow(&c, row.data(), uint32_t(y), c.BytesPerLine);
                int32_t width = 0, copies = 0;
                EXPECT_GE(Z_Resize(row.data(), y, 16, &width, &copies, r), 0);
                if (copies > 0) h = mix(h, row.data(), size_t(width) * 2);
                h = mix(h, reinterpret_cast<const uint8_t*>(&copies), sizeof copies);
            }
            Z_StopResize(r);
        } else {
            ADD_FAILURE() << "resize refused";
        }
        Z_FreeBitmap(&c);
        Z_FreeBitmap(&b);
    }
    // The thread's own settings are still its own.
    EXPECT_EQ(Z_GetDefaultDithering(), uint32_t(t + 1));
    void* mine = nullptr;
    EXPECT_EQ(Z_GetStatusCallBack(&mine), count_progress);
    EXPECT_EQ(mine, &progress);
    Z_SetStatusCallBack(nullptr, nullptr, nullptr, nullptr);
    Z_RedirectIO(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    return h;
}

}  // namespace

TEST(Threads, EachThreadWorksAloneWhateverTheOthersDo) {
    zktest::PrivateTempDir dir;
    std::vector<std::wstring> temps;
    for (int t = 0; t < kThreads; ++t) {
        const std::string p = dir.path() + "t" + std::to_string(t) + "/";
        std::filesystem::create_directories(p);
        temps.push_back(std::wstring(p.begin(), p.end()));
    }
    // Each thread's work done alone, one after the other.
    uint64_t alone[kThreads];
    for (int t = 0; t < kThreads; ++t) {
        Counter c;
        std::atomic<int> writes{0};
        std::thread th([&] { alone[t] = work(t, temps[t], c, writes); });
        th.join();
    }
    // Then all at once, also using process-wide thread slots.
    const uint32_t slot = Z_TlsAlloc();
    ASSERT_NE(slot, Z_TLS_OUT_OF_INDEXES);
    Counter counters[kThreads];
    std::atomic<int> writes[kThreads];
    uint64_t together[kThreads];
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        writes[t] = 0;
        threads.emplace_back([&, t] {
            int mine = t;
            EXPECT_EQ(Z_TlsSetValue(slot, &mine), 1);
            together[t] = work(t, temps[t], counters[t], writes[t]);
            EXPECT_EQ(Z_TlsGetValue(slot), &mine);
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(Z_TlsFree(slot), 1);
    for (int t = 0; t < kThreads; ++t) {
        SCOPED_TRACE(t);
        EXPECT_EQ(together[t], alone[t]);
        EXPECT_GT(counters[t].calls.load(), 0);
        EXPECT_EQ(counters[t].strangers.load(), 0);
        if (t == 3) {
            EXPECT_GT(writes[t].load(), 0) << "disk storage writes through the thread's routines";
        }
        if (t % 2 == 0) {
            EXPECT_EQ(writes[t].load(), 0) << "memory storage writes no file";
        }
        EXPECT_TRUE(std::filesystem::is_empty(std::string(temps[t].begin(), temps[t].end())));
    }
}

// A thousand short-lived threads, each with settings and a slot value of its
// own: the per-thread blocks go with the threads (LeakSanitizer checks the
// process at exit in the sanitizer build).
TEST(Threads, ShortLivedThreadsLeaveNothing) {
    const uint32_t slot = Z_TlsAlloc();
    ASSERT_NE(slot, Z_TLS_OUT_OF_INDEXES);
    std::atomic<int> ok{0};
    for (int batch = 0; batch < 100; ++batch) {
        std::vector<std::thread> threads;
        for (int k = 0; k < 10; ++k)
            threads.emplace_back([&, k] {
                int value = k;
                const bool set = Z_SetMemoryThresholds(0, 0, 1 << (12 + k % 8), -100, 1, 4 | 8 | 16) == ST_OK &&
                                 Z_DefaultDithering(uint32_t(k % 9)) == ST_OK && Z_TlsSetValue(slot, &value) == 1;
                BitmapHandle b{};
                const bool used =
                    Z_InitBitmap(&b, Z_BITMAPHANDLE_SIZE, 9, 9, 8) == ST_OK && Z_AllocateBitmap(&b, TYPE_CONV) == ST_OK;
                Z_FreeBitmap(&b);
                if (set && used && Z_GetDefaultDithering() == uint32_t(k % 9) && Z_TlsGetValue(slot) == &value) ++ok;
            });
        for (auto& th : threads) th.join();
    }
    EXPECT_EQ(ok.load(), 1000);
    EXPECT_EQ(Z_TlsFree(slot), 1);
}
