// Quarter turns beside memcpy of the same bytes.
//
// Default run (Google Benchmark, real time, bytes per second): 8192 x 8192
// images at 1, 8 and 24 bits, turned clockwise and counter-clockwise
//   - as packed buffers (Z_RotateBuffer90) into a destination touched
//     before timing, and
//   - as conventional bitmaps (Z_RotateBitmap90): square ones turn in their
//     own storage; a bitmap 16 rows shorter builds its result in new storage
//     each time, page faults included (8 and 24 bits, clockwise),
// next to memcpy of the same bytes between touched buffers placed apart.
// The ratios to memcpy are printed at the end.
//
// bench_rotate --large [directory]: a 1 GiB bitmap (32768 x 32768, 8 bits)
// in tiled storage with every tile on disk (16 MiB tiles, one view) is
// turned, then the same image in conventional memory (turned in place) and
// one 16 rows shorter (turned into new storage); prints the times, their
// ratios and the peak resident set measured after the tiled turn
// (before any in-memory image exists). Needs about 2 GiB free in the
// directory (default: the system's temporary directory) and 2 GiB of memory.
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "bench_support.h"
#include "core/platform/cpu.h"
#include "platform/platform.h"
#include "zkernel.h"

namespace {

constexpr int32_t kSide = 8192;

size_t stride(int64_t w, int bpp) { return size_t(((w * bpp + 31) / 8) & ~int64_t{3}); }

long peak_rss_mib() {
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return u.ru_maxrss / 1024;
}

// Source and destination in one block, the destination starting 2 KiB past
// a page boundary (never a few bytes past the source modulo 4 KiB), both
// written once before any timing.
class Buffers {
public:
    explicit Buffers(size_t bytes) {
        const size_t start = (bytes + 4095) / 4096 * 4096 + 2048;
        block_ = static_cast<uint8_t*>(std::aligned_alloc(4096, (start + bytes + 4095) / 4096 * 4096));
        if (!block_) std::abort();
        dst_ = block_ + start;
        for (size_t i = 0; i < bytes; ++i) block_[i] = uint8_t(i * 2654435761u >> 24);
        std::memset(dst_, 0x22, bytes);
    }
    ~Buffers() { std::free(block_); }
    uint8_t* src() const { return block_; }
    uint8_t* dst() const { return dst_; }

private:
    uint8_t* block_ = nullptr;
    uint8_t* dst_ = nullptr;
};

void record(benchmark::State& state, size_t bytes) {
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(bytes));
}

void BM_Memcpy(benchmark::State& state) {
    const int bpp = int(state.range(0));
    const size_t bytes = stride(kSide, bpp) * kSide;
    Buffers b(bytes);
    for (auto _ : state) {
        std::memcpy(b.dst(), b.src(), bytes);
        benchmark::ClobberMemory();
    }
    record(state, bytes);
}

void BM_RotateBuffer90(benchmark::State& state) {
    const int bpp = int(state.range(0));
    const int cw = int(state.range(1));
    const size_t bytes = stride(kSide, bpp) * kSide;
    Buffers b(bytes);
    for (auto _ : state) {
        if (Z_RotateBuffer90(b.src(), b.dst(), cw, kSide, kSide, bpp) != ST_OK) state.SkipWithError("turn failed");
        benchmark::ClobberMemory();
    }
    record(state, bytes);
}

void BM_RotateBitmap90(benchmark::State& state) {
    const int bpp = int(state.range(0));
    const int cw = int(state.range(1));
    const int32_t height = state.range(2) ? kSide : kSide - 16;
    // Conventional storage however large: no tiling threshold below 2 GiB.
    Z_SetMemoryThresholds(0, 0x7FFFFFFF, 0x7FFFFFFF, -100, 1, 2 | 4 | 8 | 16);
    BitmapHandle bm{};
    Z_InitBitmap(&bm, Z_BITMAPHANDLE_SIZE, kSide, height, bpp);
    if (Z_AllocateBitmap(&bm, TYPE_CONV) != ST_OK || (bm.Flags & BF_TILED)) {
        state.SkipWithError("no conventional bitmap");
        return;
    }
    std::memset(bm.Data, 0x5A, bm.Size);
    bm.ViewPerspective = VP_TOP_LEFT;  // stored rows turn as the picture does
    // One turn before timing: the first result in the process may wait for
    // the kernel to assemble huge pages (compaction), which later ones reuse.
    if (Z_RotateBitmap90(&bm, cw) != ST_OK) state.SkipWithError("turn failed");
    for (auto _ : state) {
        if (Z_RotateBitmap90(&bm, cw) != ST_OK) state.SkipWithError("turn failed");
    }
    record(state, bm.Size);
    Z_FreeBitmap(&bm);
}

BENCHMARK(BM_Memcpy)->Arg(1)->Arg(8)->Arg(24)->UseRealTime()->Unit(benchmark::kMillisecond)->MinTime(0.5);
BENCHMARK(BM_RotateBuffer90)
    ->Args({1, 1})
    ->Args({1, 0})
    ->Args({8, 1})
    ->Args({8, 0})
    ->Args({24, 1})
    ->Args({24, 0})
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond)
    ->MinTime(0.5);
BENCHMARK(BM_RotateBitmap90)
    ->Args({1, 1, 1})
    ->Args({1, 0, 1})
    ->Args({8, 1, 1})
    ->Args({8, 0, 1})
    ->Args({24, 1, 1})
    ->Args({24, 0, 1})
    ->Args({8, 1, 0})
    ->Args({24, 1, 0})
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond)
    ->MinTime(0.5);

// Collects bytes per second per run to print ratios to memcpy at the end.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& r : runs) {
            auto it = r.counters.find("bytes_per_second");
            // A single run, or the median of repetitions (reported last).
            const bool median = r.run_type == Run::RT_Aggregate && r.aggregate_name == "median";
            if (it != r.counters.end() && (r.run_type == Run::RT_Iteration || median))
                rates_[r.run_name.str()] = it->second;
        }
    }
    void print_ratios() const {
        std::printf("\nratio to memcpy of the same bytes (real time):\n");
        for (const auto& [name, rate] : rates_) {
            if (name.rfind("BM_Memcpy", 0) == 0) continue;
            const std::string args = name.substr(name.find('/') + 1);
            const std::string bpp = args.substr(0, args.find('/'));
            auto base = rates_.end();
            for (auto it = rates_.begin(); it != rates_.end(); ++it)
                if (it->first.rfind("BM_Memcpy/" + bpp + "/", 0) == 0) base = it;
            if (base == rates_.end()) continue;
            std::printf("  %-36s %5.2fx\n", name.c_str(), rate / base->second);
        }
    }

private:
    std::map<std::string, double> rates_;
};

// ---------------------------------------------------------------------------
double seconds_since(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// Fills an 8-bit bitmap row by row (row r: byte x = (x * 7 + r) mod 251).
bool fill(BitmapHandle& b) {
    std::vector<uint8_t> row(b.BytesPerLine);
    for (int32_t r = 0; r < b.Height; ++r) {
        for (size_t x = 0; x < row.size(); ++x) row[x] = uint8_t((x * 7 + size_t(r)) % 251);
        if (Z_PutBitmapRow(&b, row.data(), uint32_t(r), uint32_t(row.size())) != int32_t(row.size())) return false;
    }
    return true;
}

// A few pixels of the turned image against the rule of fill().
bool check(BitmapHandle& b, int32_t old_h) {
    std::vector<uint8_t> row(b.BytesPerLine);
    for (int32_t y : {0, 1, 12345, b.Height - 1}) {
        if (Z_GetBitmapRow(&b, row.data(), uint32_t(y), uint32_t(row.size())) != int32_t(row.size())) return false;
        for (int32_t x : {0, 7, 4097, b.Width - 1}) {
            // clockwise: pixel (x, y) came from source row old_h-1-x, column y
            const size_t src_row = size_t(old_h - 1 - x);
            if (row[size_t(x)] != uint8_t((size_t(y) * 7 + src_row) % 251)) return false;
        }
    }
    return true;
}

int run_large(const char* dir) {
    constexpr int32_t kBig = 32768;  // 1 GiB at 8 bits
    std::printf("processor: %s, kernel tier: %s\n", zkbench::processor_model().c_str(),
                zk::platform::cpu_tier_name(zk::platform::cpu_tier()));
    if (dir) {
        std::wstring wide = zk::platform::from_utf8(std::string(dir) + "/");
        if (Z_SetTempDirectory(wide.c_str()) != ST_OK) {
            std::fprintf(stderr, "cannot use %s\n", dir);
            return 1;
        }
    }
    // Tiled storage (no conventional block), 16 MiB tiles, none in memory,
    // one disk tile mapped.
    Z_SetMemoryThresholds(0, 0, 0, 0, 1, 2 | 4 | 8 | 16);
    BitmapHandle b{};
    Z_InitBitmap(&b, Z_BITMAPHANDLE_SIZE, kBig, kBig, 8);
    b.ViewPerspective = VP_TOP_LEFT;
    if (const int32_t a = Z_AllocateBitmap(&b, TYPE_CONV); a != ST_OK || !(b.Flags & BF_TILED)) {
        std::fprintf(stderr, "no tiled bitmap (%d, flags %#x)\n", a, b.Flags);
        return 1;
    }
    if (!fill(b)) return 1;
    const long rss_before = peak_rss_mib();
    auto t0 = std::chrono::steady_clock::now();
    int32_t r = Z_RotateBitmap90(&b, 1);
    const double tiled = seconds_since(t0);
    const long rss_after = peak_rss_mib();
    if (r != ST_OK || !(b.Flags & BF_TILED) || !check(b, kBig)) {
        std::fprintf(stderr, "tiled turn failed (%d)\n", r);
        return 1;
    }
    Z_FreeBitmap(&b);
    std::printf("tiled, disk tiles: %.2f s, peak RSS %ld MiB before the turn, %ld MiB after it\n", tiled, rss_before,
                rss_after);

    // In memory: the square image (turned in its own storage), then one 16
    // rows shorter (its result built in new storage).
    Z_SetMemoryThresholds(0, 0x7FFFFFFF, 0x7FFFFFFF, -100, 1, 2 | 4 | 8 | 16);
    double memory[2] = {0, 0};
    for (int shorter = 0; shorter < 2; ++shorter) {
        const int32_t h = kBig - 16 * shorter;
        BitmapHandle m{};
        Z_InitBitmap(&m, Z_BITMAPHANDLE_SIZE, kBig, h, 8);
        m.ViewPerspective = VP_TOP_LEFT;
        if (Z_AllocateBitmap(&m, TYPE_CONV) != ST_OK || (m.Flags & BF_TILED) || !fill(m)) return 1;
        t0 = std::chrono::steady_clock::now();
        r = Z_RotateBitmap90(&m, 1);
        memory[shorter] = seconds_since(t0);
        if (r != ST_OK || !check(m, h)) return 1;
        Z_FreeBitmap(&m);
    }
    std::printf("conventional memory: %.2f s in place, %.2f s into new storage (16 rows shorter)\n", memory[0],
                memory[1]);
    std::printf("tiled / memory: %.2fx (in place), %.2fx (new storage)\n", tiled / memory[0], tiled / memory[1]);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc >= 2 && std::strcmp(argv[1], "--large") == 0) return run_large(argc >= 3 ? argv[2] : nullptr);
    benchmark::Initialize(&argc, argv);
    std::printf("processor: %s, kernel tier: %s\n", zkbench::processor_model().c_str(),
                zk::platform::cpu_tier_name(zk::platform::cpu_tier()));
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.print_ratios();
    benchmark::Shutdown();
    return 0;
}
