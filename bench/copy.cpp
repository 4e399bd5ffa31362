// Copy throughput: Z_CopyBitmap of a conventional 8192 x 8192 24-bit bitmap
// next to memcpy of the same bytes (into warm memory and into freshly
// allocated memory, which is what a copy into a new bitmap has to pay for),
// the row copy into an existing bitmap, and a 1-bit rectangle that starts
// inside a byte.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "zkernel.h"

namespace {

constexpr int32_t kSide = 8192;

BitmapHandle make_source(int32_t bpp) {
    BitmapHandle b{};
    Z_InitBitmap(&b, Z_BITMAPHANDLE_SIZE, kSide, kSide, bpp);
    if (Z_AllocateBitmap(&b, TYPE_CONV) != ST_OK || !b.Data) std::abort();
    for (size_t i = 0; i < b.Size; ++i) b.Data[i] = static_cast<uint8_t>(i * 131u + (i >> 12));
    return b;
}

size_t image_bytes() { return static_cast<size_t>(((kSide * 24 + 31) >> 3) & ~3) * kSide; }

void BM_MemcpyWarm(benchmark::State& state) {
    const size_t n = image_bytes();
    std::vector<uint8_t> src(n, 1), dst(n, 2);
    for (auto _ : state) {
        std::memcpy(dst.data(), src.data(), n);
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(n));
}

void BM_MemcpyFresh(benchmark::State& state) {
    const size_t n = image_bytes();
    std::vector<uint8_t> src(n, 1);
    for (auto _ : state) {
        auto* dst = static_cast<uint8_t*>(std::malloc(n));
        std::memcpy(dst, src.data(), n);
        benchmark::DoNotOptimize(dst);
        benchmark::ClobberMemory();
        std::free(dst);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(n));
}

void BM_CopyBitmap24(benchmark::State& state) {
    BitmapHandle src = make_source(24);
    for (auto _ : state) {
        BitmapHandle dst;
        if (Z_CopyBitmap(&dst, &src, Z_BITMAPHANDLE_SIZE) != ST_OK) state.SkipWithError("copy failed");
        benchmark::DoNotOptimize(dst.Data);
        Z_FreeBitmap(&dst);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(src.Size));
    Z_FreeBitmap(&src);
}

void BM_CopyBitmapData24(benchmark::State& state) {
    BitmapHandle src = make_source(24);
    BitmapHandle dst{};
    Z_InitBitmap(&dst, Z_BITMAPHANDLE_SIZE, kSide, kSide, 24);
    Z_AllocateBitmap(&dst, TYPE_CONV);
    for (auto _ : state) {
        if (Z_CopyBitmapData(&dst, &src) != ST_OK) state.SkipWithError("copy failed");
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(src.Size));
    Z_FreeBitmap(&dst);
    Z_FreeBitmap(&src);
}

// memcpy between the pixel memory of two conventional bitmaps: the ceiling
// for the row copy, set by the kind of memory the storage maps.
void BM_MemcpyBitmapMemory24(benchmark::State& state) {
    BitmapHandle src = make_source(24);
    BitmapHandle dst{};
    Z_InitBitmap(&dst, Z_BITMAPHANDLE_SIZE, kSide, kSide, 24);
    Z_AllocateBitmap(&dst, TYPE_CONV);
    for (auto _ : state) {
        std::memcpy(dst.Data, src.Data, src.Size);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(src.Size));
    Z_FreeBitmap(&dst);
    Z_FreeBitmap(&src);
}

// A 1-bit rectangle from column 3: every output byte is built from two
// shifted source bytes. Bytes and pixels per second of the result.
void BM_CopyRect1BitOddColumn(benchmark::State& state) {
    BitmapHandle src = make_source(1);
    const uint32_t width = kSide - 8;
    size_t bytes = 0;
    for (auto _ : state) {
        BitmapHandle dst;
        if (Z_CopyBitmapRect(&dst, &src, Z_BITMAPHANDLE_SIZE, 3, 0, width, kSide) != ST_OK)
            state.SkipWithError("copy failed");
        bytes = dst.Size;
        Z_FreeBitmap(&dst);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(bytes));
    state.counters["Mpixel/s"] =
        benchmark::Counter(static_cast<double>(width) * kSide * 1e-6, benchmark::Counter::kIsIterationInvariantRate);
    Z_FreeBitmap(&src);
}

}  // namespace

BENCHMARK(BM_MemcpyWarm)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_MemcpyFresh)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_CopyBitmap24)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_MemcpyBitmapMemory24)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_CopyBitmapData24)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_CopyRect1BitOddColumn)->Unit(benchmark::kMillisecond)->UseRealTime();

BENCHMARK_MAIN();
