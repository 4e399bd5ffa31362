// Run-length row speed: a synthetic 300 dpi A4 text page (2480 x 3508
// pixels at 1 bit, white margins, lines of letter-sized blobs made of short
// horizontal and vertical strokes, about 5 % black), a page of random bits
// and a halftone page (a gradient from white to black through an 8 x 8
// ordered dither: every density of run boundaries, up to one per pixel),
// compressed with Z_CompressRows and expanded with Z_ExpandRows, one whole
// page per iteration; the text page's run-length rows reversed with
// Z_FlipCompressedBuffer. Beside them a memcpy of the packed page and one of
// the compressed text page in the same program.
//
// The figures are gigabytes of packed page per second (median of the
// repetitions; the flip in bytes of run-length rows), and the text page's
// run-length size as a share of its packed size. The processor and the
// kernel tier (ZK_CPU_TIER caps it) are printed with them.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>

#include "bench_support.h"
#include "core/platform/cpu.h"
#include "core/run_length.h"
#include "text_page.h"
#include "zkernel.h"

namespace {

constexpr uint32_t kWidth = zkbench::kPageWidth, kHeight = zkbench::kPageHeight;
constexpr size_t kStride = zkbench::kPageStride;
constexpr size_t kPacked = zkbench::kPageBytes;

// A packed page, room for its run-length rows, and a second buffer of each
// for results.
struct Page {
    zkbench::BufferPair packed{kPacked, kPacked};
    zkbench::BufferPair runs{kHeight * zk::rle::compressed_size_bound(kWidth),
                             kHeight* zk::rle::compressed_size_bound(kWidth)};
    size_t run_bytes = 0;
    double black = 0;

    explicit Page(int kind) {
        std::memset(packed.first(), 0, kPacked);
        if (kind == 0)
            zkbench::draw_text_page(packed.first());
        else if (kind == 1)
            fill_noise();
        else
            draw_halftone();
        size_t ones = 0;
        for (uint32_t y = 0; y < kHeight; ++y)
            for (size_t i = 0; i < kWidth / 8; ++i)
                ones += static_cast<size_t>(__builtin_popcount(packed.first()[y * kStride + i]));
        black = static_cast<double>(ones) / (double{kWidth} * kHeight);
        std::memcpy(packed.second(), packed.first(), kPacked);  // the padding expansion leaves
        if (Z_CompressRows(runs.first(), packed.first(), kWidth, kHeight) != ST_OK) std::abort();
        const uint8_t* r = runs.first();
        for (uint32_t y = 0; y < kHeight; ++y) r += zk::rle::row_bytes(r);
        run_bytes = static_cast<size_t>(r - runs.first());
    }

    void fill_noise() {
        std::mt19937 rng(99);
        for (uint32_t y = 0; y < kHeight; ++y)
            for (size_t i = 0; i < kWidth / 8; ++i) packed.first()[y * kStride + i] = static_cast<uint8_t>(rng());
    }

    // Gray rising from the top left corner to the bottom right, dithered
    // with the 8 x 8 Bayer matrix (the 2 x 2 one applied to each bit of the
    // position, the lowest bit weighing most).
    void draw_halftone() {
        int bayer[8][8];
        for (int y = 0; y < 8; ++y)
            for (int x = 0; x < 8; ++x) {
                int v = 0;
                for (int bit = 0; bit < 3; ++bit) {
                    const int a = (x >> bit) & 1, b = (y >> bit) & 1;
                    v = v * 4 + ((a ^ b) << 1 | b);
                }
                bayer[y][x] = v;
            }
        for (uint32_t y = 0; y < kHeight; ++y)
            for (uint32_t x = 0; x < kWidth; ++x) {
                const auto level = static_cast<int>((uint64_t{x} * 64 / kWidth + uint64_t{y} * 64 / kHeight) / 2);
                if (bayer[y % 8][x % 8] < level)
                    packed.first()[y * kStride + x / 8] |= static_cast<uint8_t>(0x80 >> x % 8);
            }
    }
};

constexpr int64_t kPages = 3;

Page& page(int64_t which) {
    static Page text(0), noise(1), halftone(2);
    return which == 0 ? text : which == 1 ? noise : halftone;
}
Page& text_page() { return page(0); }
const char* page_name(int64_t which) { return which == 0 ? "text" : which == 1 ? "noise" : "halftone"; }

void BM_MemcpyPacked(benchmark::State& state) {
    Page& p = text_page();
    for (auto _ : state) {
        std::memcpy(p.packed.second(), p.packed.first(), kPacked);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kPacked));
}

void BM_MemcpyRuns(benchmark::State& state) {
    Page& p = text_page();
    for (auto _ : state) {
        std::memcpy(p.runs.second(), p.runs.first(), p.run_bytes);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * p.run_bytes));
}

void BM_Compress(benchmark::State& state, int64_t which) {
    Page& p = page(which);
    for (auto _ : state) {
        if (Z_CompressRows(p.runs.second(), p.packed.first(), kWidth, kHeight) != ST_OK) state.SkipWithError("failed");
        benchmark::ClobberMemory();
    }
    if (std::memcmp(p.runs.second(), p.runs.first(), p.run_bytes) != 0) state.SkipWithError("rows differ");
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kPacked));
}

void BM_Expand(benchmark::State& state, int64_t which) {
    Page& p = page(which);
    for (auto _ : state) {
        if (Z_ExpandRows(p.runs.first(), p.packed.second(), kWidth, kHeight) != ST_OK) state.SkipWithError("failed");
        benchmark::ClobberMemory();
    }
    if (std::memcmp(p.packed.second(), p.packed.first(), kPacked) != 0) state.SkipWithError("pixels differ");
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kPacked));
}

void BM_Flip(benchmark::State& state) {
    Page& p = text_page();
    for (auto _ : state) {
        if (Z_FlipCompressedBuffer(p.runs.first(), p.runs.second(), kHeight) != ST_OK) state.SkipWithError("failed");
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * p.run_bytes));
}

}  // namespace

int main(int argc, char** argv) {
    using zkbench::repeated;
    repeated(benchmark::RegisterBenchmark("memcpy_packed_page", BM_MemcpyPacked))->Unit(benchmark::kMicrosecond);
    for (int64_t which = 0; which < kPages; ++which) {
        const std::string name = page_name(which);
        repeated(benchmark::RegisterBenchmark(("compress/" + name).c_str(), BM_Compress, which))
            ->Unit(benchmark::kMicrosecond);
        repeated(benchmark::RegisterBenchmark(("expand/" + name).c_str(), BM_Expand, which))
            ->Unit(benchmark::kMicrosecond);
    }
    repeated(benchmark::RegisterBenchmark("memcpy_text_runs", BM_MemcpyRuns))->Unit(benchmark::kMicrosecond);
    repeated(benchmark::RegisterBenchmark("flip/text", BM_Flip))->Unit(benchmark::kMicrosecond);
    zkbench::add_context();
    benchmark::Initialize(&argc, argv);
    benchmark::AddCustomContext("kernel tier", zk::platform::cpu_tier_name(zk::platform::cpu_tier()));
    zkbench::RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);

    std::printf("\n%u x %u 1-bit page (%zu packed bytes), %s kernels, processor supports %s, %s:\n", kWidth, kHeight,
                kPacked, zk::platform::cpu_tier_name(zk::platform::cpu_tier()),
                zk::platform::cpu_tier_name(zk::platform::cpu_tier_supported()), zkbench::processor_model().c_str());
    for (int64_t which = 0; which < kPages; ++which)
        std::printf("  %-8s page: %.2f %% black, run-length rows %zu bytes = %.1f %% of packed\n", page_name(which),
                    100 * page(which).black, page(which).run_bytes, 100.0 * page(which).run_bytes / kPacked);
    auto line = [&](const char* label, const std::string& key, size_t bytes) {
        if (const auto* t = reporter.find(key))
            std::printf("  %-34s %7.3f ms, %6.2f GB/s (%.2f-%.2f), by processor time %.2f\n", label, t->median * 1e3,
                        bytes / t->median / 1e9, bytes / t->max / 1e9, bytes / t->min / 1e9,
                        t->cpu_median > 0 ? bytes / t->cpu_median / 1e9 : 0.0);
    };
    line("memcpy of the packed page", "memcpy_packed_page", kPacked);
    for (int64_t which = 0; which < kPages; ++which)
        for (const char* op : {"compress", "expand"}) {
            const std::string key = std::string(op) + "/" + page_name(which);
            line(key.c_str(), key, kPacked);
        }
    line("memcpy of the text page's runs", "memcpy_text_runs", text_page().run_bytes);
    line("flip/text (bytes of runs)", "flip/text", text_page().run_bytes);
    std::printf("\nRatios to a copy of the same bytes:\n");
    for (int64_t which = 0; which < kPages; ++which)
        for (const char* op : {"compress", "expand"}) {
            const std::string key = std::string(op) + "/" + page_name(which);
            reporter.print_ratio(key, key, "memcpy_packed_page");
        }
    reporter.print_ratio("flip/text", "flip/text", "memcpy_text_runs");
    benchmark::Shutdown();
    return 0;
}
