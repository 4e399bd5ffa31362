// Copy throughput of conventional 8192 x 8192 24-bit bitmaps (192 MiB), each
// beside a memcpy of the same bytes in this program:
//   - Z_CopyBitmap into fresh storage: the copy allocates its destination,
//     so the first touch of every page is part of the figure; read it against
//     "malloc+memcpy" (memcpy into freshly allocated memory) and against
//     "memcpy into touched memory" (the bandwidth ceiling);
//   - Z_CopyBitmapData into a bitmap whose pages were written before timing,
//     against memcpy into touched memory and memcpy between the pixel memory
//     of two touched bitmaps;
//   - a 1-bit rectangle from column 3 (every output byte built from two
//     shifted source bytes) into fresh storage, against memcpy of its
//     result's bytes into touched memory.
// Each figure is the median of five repetitions of real elapsed time; the
// program ends with the ratios baseline time / figure time (1.0 = as fast as
// the baseline) and their range over the repetitions.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>

#include "bench_support.h"
#include "zkernel.h"

namespace {

constexpr int32_t kSide = 8192;
constexpr uint32_t kRectColumn = 3;
constexpr uint32_t kRectWidth = kSide - 8;

size_t row_bytes(uint32_t width, int32_t bpp) { return ((size_t{width} * static_cast<uint32_t>(bpp) + 31) >> 3) & ~3u; }
size_t image_bytes() { return row_bytes(kSide, 24) * kSide; }
size_t rect_bytes() { return row_bytes(kRectWidth, 1) * kSide; }

struct Bitmap {
    BitmapHandle b{};
    Bitmap(int32_t bpp, bool pattern) {
        Z_InitBitmap(&b, Z_BITMAPHANDLE_SIZE, kSide, kSide, bpp);
        if (Z_AllocateBitmap(&b, TYPE_CONV) != ST_OK || !b.Data) std::abort();
        // Every page is written: the pattern, or a fill for a destination.
        for (size_t i = 0; i < b.Size; ++i) b.Data[i] = pattern ? static_cast<uint8_t>(i * 131u + (i >> 12)) : 0x5A;
    }
    ~Bitmap() { Z_FreeBitmap(&b); }
};

BitmapHandle& source(int32_t bpp) {
    static Bitmap rgb(24, true), one(1, true);
    return bpp == 24 ? rgb.b : one.b;
}

BitmapHandle& touched_destination() {
    static Bitmap d(24, false);
    return d.b;
}

zkbench::BufferPair& buffers(size_t n) {
    static std::map<size_t, std::unique_ptr<zkbench::BufferPair>> pairs;
    auto& p = pairs[n];
    if (!p) p = std::make_unique<zkbench::BufferPair>(n, n);
    return *p;
}

void BM_MemcpyTouched(benchmark::State& state) {
    const auto n = static_cast<size_t>(state.range(0));
    zkbench::BufferPair& p = buffers(n);
    for (auto _ : state) {
        std::memcpy(p.second(), p.first(), n);
        benchmark::DoNotOptimize(p.second());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(n));
}

// The destination is new memory from malloc each time, freed after the copy.
// Only for sizes above the C library's largest mapping threshold (32 MiB for
// glibc), which it serves by a new mapping every time, so that the pages
// fault in as memcpy reaches them; smaller blocks are recycled, touched.
void BM_MallocMemcpy(benchmark::State& state) {
    const auto n = static_cast<size_t>(state.range(0));
    const uint8_t* src = buffers(n).first();
    for (auto _ : state) {
        auto* dst = static_cast<uint8_t*>(std::malloc(n));
        if (!dst) {
            state.SkipWithError("malloc failed");
            break;
        }
        std::memcpy(dst, src, n);
        benchmark::DoNotOptimize(dst);
        benchmark::ClobberMemory();
        std::free(dst);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(n));
}

// The copy allocates its destination: what an application pays for a new
// copy of an image, freeing included (as free is in malloc+memcpy).
void BM_CopyBitmapFresh(benchmark::State& state) {
    BitmapHandle& src = source(24);
    for (auto _ : state) {
        BitmapHandle dst;
        if (Z_CopyBitmap(&dst, &src, Z_BITMAPHANDLE_SIZE) != ST_OK) {
            state.SkipWithError("copy failed");
            break;
        }
        benchmark::DoNotOptimize(dst.Data);
        benchmark::ClobberMemory();
        Z_FreeBitmap(&dst);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(src.Size));
}

void BM_CopyBitmapDataTouched(benchmark::State& state) {
    BitmapHandle& src = source(24);
    BitmapHandle& dst = touched_destination();
    for (auto _ : state) {
        if (Z_CopyBitmapData(&dst, &src) != ST_OK) {
            state.SkipWithError("copy failed");
            break;
        }
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(src.Size));
}

// memcpy between the pixel memory of two touched conventional bitmaps: the
// ceiling of the row copy on the memory that storage maps.
void BM_MemcpyBitmapMemory(benchmark::State& state) {
    BitmapHandle& src = source(24);
    BitmapHandle& dst = touched_destination();
    for (auto _ : state) {
        std::memcpy(dst.Data, src.Data, src.Size);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(src.Size));
}

void BM_CopyRect1BitFresh(benchmark::State& state) {
    BitmapHandle& src = source(1);
    for (auto _ : state) {
        BitmapHandle dst;
        if (Z_CopyBitmapRect(&dst, &src, Z_BITMAPHANDLE_SIZE, kRectColumn, 0, kRectWidth, kSide) != ST_OK) {
            state.SkipWithError("copy failed");
            break;
        }
        if (dst.Size != rect_bytes()) state.SkipWithError("unexpected result size");
        benchmark::ClobberMemory();
        Z_FreeBitmap(&dst);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(rect_bytes()));
    state.counters["Mpixel/s"] = benchmark::Counter(static_cast<double>(kRectWidth) * kSide * 1e-6,
                                                    benchmark::Counter::kIsIterationInvariantRate);
}

const char* const kTouched = "memcpy into touched memory";
const char* const kMalloc = "malloc+memcpy";
const char* const kCopyFresh = "Z_CopyBitmap into fresh storage, 8192x8192x24";
const char* const kBitmapMemory = "memcpy between touched bitmaps, 8192x8192x24";
const char* const kCopyData = "Z_CopyBitmapData into a touched bitmap, 8192x8192x24";
const char* const kRect = "Z_CopyBitmapRect into fresh storage, 1-bit from column 3";

}  // namespace

int main(int argc, char** argv) {
    using zkbench::repeated;
    const std::string big = std::to_string(image_bytes()), small = std::to_string(rect_bytes());
    for (size_t n : {image_bytes(), rect_bytes()})
        repeated(benchmark::RegisterBenchmark(kTouched, BM_MemcpyTouched))
            ->Arg(static_cast<int64_t>(n))
            ->Unit(benchmark::kMillisecond);
    // Fresh memory is timed after a warm-up of the same loop: the first pages
    // a process (or a virtual machine) ever gets can cost far more than pages
    // the system has handed out before, and that one-off cost is not the copy's.
    repeated(benchmark::RegisterBenchmark(kMalloc, BM_MallocMemcpy))
        ->Arg(static_cast<int64_t>(image_bytes()))
        ->MinWarmUpTime(0.5)
        ->Unit(benchmark::kMillisecond);
    repeated(benchmark::RegisterBenchmark(kCopyFresh, BM_CopyBitmapFresh))
        ->MinWarmUpTime(0.5)
        ->Unit(benchmark::kMillisecond);
    repeated(benchmark::RegisterBenchmark(kBitmapMemory, BM_MemcpyBitmapMemory))->Unit(benchmark::kMillisecond);
    repeated(benchmark::RegisterBenchmark(kCopyData, BM_CopyBitmapDataTouched))->Unit(benchmark::kMillisecond);
    repeated(benchmark::RegisterBenchmark(kRect, BM_CopyRect1BitFresh))
        ->MinWarmUpTime(0.5)
        ->Unit(benchmark::kMillisecond);

    zkbench::add_context();
    benchmark::Initialize(&argc, argv);
    zkbench::RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);

    std::printf("\nbaseline time / copy time, median (range over repetitions):\n");
    const std::string touched_big = std::string(kTouched) + "/" + big, malloc_big = std::string(kMalloc) + "/" + big;
    reporter.print_ratio(kCopyFresh, kCopyFresh, touched_big);
    reporter.print_ratio(kCopyFresh, kCopyFresh, malloc_big);
    reporter.print_ratio(kCopyData, kCopyData, touched_big);
    reporter.print_ratio(kCopyData, kCopyData, kBitmapMemory);
    reporter.print_ratio(kBitmapMemory, kBitmapMemory, touched_big);
    reporter.print_ratio(kRect, kRect, std::string(kTouched) + "/" + small);
    std::printf("(%s; transparent huge pages: %s)\n", zkbench::processor_model().c_str(),
                zkbench::huge_page_setting().c_str());
    benchmark::Shutdown();
    return 0;
}
