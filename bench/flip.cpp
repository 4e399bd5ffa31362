// Flip and mirror throughput on conventional 8192 x 8192 bitmaps, each next
// to memcpy of the same bytes between two bitmaps' pixel memory in the same
// program (both touched before timing, separate mappings): top-to-bottom
// flips at 24 and 8 bits, mirrors at 24, 8 and 1 bits. Each figure is the
// image bytes per second; divide by the memcpy of the same depth for the
// ratio.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "geometry/mirror.h"
#include "zkernel.h"

namespace {

constexpr int32_t kSide = 8192;

BitmapHandle make(int32_t bpp) {
    BitmapHandle b{};
    Z_InitBitmap(&b, Z_BITMAPHANDLE_SIZE, kSide, kSide, bpp);
    if (Z_AllocateBitmap(&b, TYPE_CONV) != ST_OK || !b.Data) std::abort();
    for (size_t i = 0; i < b.Size; ++i) b.Data[i] = static_cast<uint8_t>(i * 131u + (i >> 12));
    b.ViewPerspective = VP_TOP_LEFT;
    return b;
}

void BM_Memcpy(benchmark::State& state) {
    const auto bpp = static_cast<int32_t>(state.range(0));
    BitmapHandle src = make(bpp);
    BitmapHandle dst = make(bpp);
    for (auto _ : state) {
        std::memcpy(dst.Data, src.Data, src.Size);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(src.Size));
    Z_FreeBitmap(&dst);
    Z_FreeBitmap(&src);
}

template <int32_t (*Op)(BitmapHandle*)>
void BM_Op(benchmark::State& state) {
    BitmapHandle b = make(static_cast<int32_t>(state.range(0)));
    for (auto _ : state) {
        if (Op(&b) != ST_OK) state.SkipWithError("operation failed");
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(b.Size));
    Z_FreeBitmap(&b);
}

void BM_Flip(benchmark::State& state) { BM_Op<Z_FlipBitmap>(state); }
void BM_Mirror(benchmark::State& state) { BM_Op<Z_ReverseBitmap>(state); }

// The row kernel alone over the same bytes, row by row.
void BM_MirrorKernel(benchmark::State& state) {
    BitmapHandle b = make(static_cast<int32_t>(state.range(0)));
    for (auto _ : state) {
        for (int32_t y = 0; y < kSide; ++y)
            zk::geometry::mirror_line(b.Data + size_t(y) * b.BytesPerLine, kSide, b.BitsPerPixel);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(b.Size));
    Z_FreeBitmap(&b);
}

std::string processor_model() {
    std::ifstream in("/proc/cpuinfo");
    for (std::string line; std::getline(in, line);)
        if (line.rfind("model name", 0) == 0) return line.substr(line.find(':') + 2);
    return "unknown";
}

}  // namespace

BENCHMARK(BM_Memcpy)->Arg(24)->Arg(8)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime()->Repetitions(3);
BENCHMARK(BM_Flip)->Arg(24)->Arg(8)->Unit(benchmark::kMillisecond)->UseRealTime()->Repetitions(3);
BENCHMARK(BM_Mirror)->Arg(24)->Arg(8)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime()->Repetitions(3);

BENCHMARK(BM_MirrorKernel)->Arg(24)->Arg(8)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime()->Repetitions(3);

int main(int argc, char** argv) {
    benchmark::AddCustomContext("processor", processor_model());
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
