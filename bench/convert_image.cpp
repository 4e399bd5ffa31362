// Whole-image conversion: an 8192 x 8192 24-bit bitmap converted into a
// second bitmap (BGR -> RGB, 24 bits -> 8-bit gray, 24 -> 32 bits), beside a
// memcpy of the source image's bytes into touched memory in the same
// program, and beside the row-by-row way a caller has without the
// two-buffer form (each row read into a buffer, converted in place, stored).
// Every bitmap is conventional storage, written once before timing.
//
// The kernels are those of the processor's tier; ZK_CPU_TIER=portable, avx2
// or avx512 caps it. The tier and the processor are printed with the figures.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench_support.h"
#include "color/convert_bitmap.h"
#include "core/platform/cpu.h"
#include "zkernel.h"

namespace {

constexpr int32_t kSide = 8192;

struct Target {
    const char* name;
    int32_t bits;       // destination bitmap depth
    uint32_t dst_bits;  // conversion depth (0: gray levels in an 8-bit bitmap)
    uint32_t dst_order;
};

constexpr Target kTargets[] = {
    {"bgr24_to_rgb24", 24, 24, CO_RGB},
    {"bgr24_to_gray8", 8, 0, CO_GRAY},
    {"bgr24_to_bgr32", 32, 32, CO_BGR},
};

BitmapHandle make(int32_t bpp, uint8_t seed) {
    BitmapHandle b{};
    Z_InitBitmap(&b, Z_BITMAPHANDLE_SIZE, kSide, kSide, bpp);
    if (Z_AllocateBitmap(&b, TYPE_CONV) != ST_OK || !b.Data) std::abort();
    for (size_t i = 0; i < b.Size; ++i) b.Data[i] = static_cast<uint8_t>(i * 131u + (i >> 12) + seed);
    return b;
}

struct Images {
    BitmapHandle source = make(24, 1);
    BitmapHandle copy = make(24, 2);
    ~Images() {
        Z_FreeBitmap(&source);
        Z_FreeBitmap(&copy);
    }
};

Images& images() {
    static Images i;
    return i;
}

void BM_Memcpy(benchmark::State& state) {
    Images& im = images();
    for (auto _ : state) {
        std::memcpy(im.copy.Data, im.source.Data, im.source.Size);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * im.source.Size));
}

zk::ConvertRequest request_for(const Target& t) {
    zk::ConvertRequest rq;
    rq.src_order = CO_BGR;
    rq.dst_order = t.dst_order;
    rq.flags = t.dst_order == CO_GRAY ? CVT_DST_GRAY : 0;
    return rq;
}

void BM_ConvertImage(benchmark::State& state, Target t) {
    Images& im = images();
    BitmapHandle dst = make(t.bits, 3);
    for (auto _ : state) {
        if (zk::convert_bitmap_rows(im.source, dst, request_for(t)) != ST_OK) state.SkipWithError("conversion failed");
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * im.source.Size));
    Z_FreeBitmap(&dst);
}

// Without the two-buffer form: read, convert in place, store, row by row.
void BM_RowByRow(benchmark::State& state, Target t) {
    Images& im = images();
    BitmapHandle dst = make(t.bits, 3);
    const int32_t size = Z_CalcConvertSize(kSide, 24, kSide, t.dst_bits);
    std::vector<uint8_t> row(static_cast<size_t>(size));
    for (auto _ : state) {
        for (uint32_t y = 0; y < static_cast<uint32_t>(kSide); ++y) {
            Z_GetBitmapRow(&im.source, row.data(), y, im.source.BytesPerLine);
            Z_ConvertBufferExt(row.data(), kSide, 24, t.dst_bits, CO_BGR, t.dst_order, nullptr, nullptr,
                               static_cast<int32_t>(request_for(t).flags), 0xFFFFFFFFu, 0xFFFFFFFFu);
            Z_PutBitmapRow(&dst, row.data(), y, dst.BytesPerLine);
        }
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * im.source.Size));
    Z_FreeBitmap(&dst);
}

}  // namespace

int main(int argc, char** argv) {
    zkbench::repeated(benchmark::RegisterBenchmark("memcpy_source", BM_Memcpy))->Unit(benchmark::kMillisecond);
    for (const Target& t : kTargets) {
        zkbench::repeated(benchmark::RegisterBenchmark((std::string("image/") + t.name).c_str(), BM_ConvertImage, t))
            ->Unit(benchmark::kMillisecond);
        zkbench::repeated(benchmark::RegisterBenchmark((std::string("row_by_row/") + t.name).c_str(), BM_RowByRow, t))
            ->Unit(benchmark::kMillisecond);
    }
    zkbench::add_context();
    benchmark::Initialize(&argc, argv);
    benchmark::AddCustomContext("kernel tier", zk::platform::cpu_tier_name(zk::platform::cpu_tier()));
    zkbench::RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    std::printf(
        "\nwhole 8192 x 8192 images, time of memcpy(source image) / time of each (%s kernels, "
        "processor supports %s):\n",
        zk::platform::cpu_tier_name(zk::platform::cpu_tier()),
        zk::platform::cpu_tier_name(zk::platform::cpu_tier_supported()));
    for (const Target& t : kTargets) {
        reporter.print_ratio(std::string("bitmap to bitmap ") + t.name, std::string("image/") + t.name,
                             "memcpy_source");
        reporter.print_ratio(std::string("row by row ") + t.name, std::string("row_by_row/") + t.name, "memcpy_source");
    }
    benchmark::Shutdown();
    return 0;
}
