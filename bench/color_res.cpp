// Colour resolution of an 8192 x 8192 24-bit bitmap into a new bitmap
// (Z_ColorResBitmap) beside Z_CopyBitmap of the same source into new
// storage in the same run: the cost of making any new bitmap of those bytes.
// Targets: 32 bits without dithering; 8-bit gray levels (colour
// resolution's gray path into a new record, and Z_GrayScaleBitmap in place),
// beside the caller's 256-level gray ramp reached by nearest entry without
// dithering; and Floyd-Steinberg to
// the fixed 256 colours from conventional, tiled and disk sources (the
// megapixel rate of each is printed). ZK_CPU_TIER caps the kernel tier.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "bench_support.h"
#include "core/platform/cpu.h"
#include "reduce/color_res.h"
#include "zkernel.h"

namespace {

constexpr int32_t kSide = 8192;

// A photograph-like source: gradients with fine noise, filled row by row.
BitmapHandle make_source(uint32_t type) {
    BitmapHandle b{};
    Z_InitBitmap(&b, Z_BITMAPHANDLE_SIZE, kSide, kSide, 24);
    if (Z_AllocateBitmap(&b, type) != ST_OK) std::abort();
    std::string row(b.BytesPerLine, '\0');
    for (uint32_t y = 0; y < static_cast<uint32_t>(kSide); ++y) {
        for (uint32_t x = 0; x < static_cast<uint32_t>(kSide); ++x) {
            const uint32_t n = (x * 2654435761u ^ y * 40503u) >> 28;
            row[3 * x] = static_cast<char>((x >> 5) + n);
            row[3 * x + 1] = static_cast<char>((y >> 5) + n);
            row[3 * x + 2] = static_cast<char>(((x + y) >> 6) + n);
        }
        Z_PutBitmapRow(&b, reinterpret_cast<const uint8_t*>(row.data()), y, b.BytesPerLine);
    }
    return b;
}

BitmapHandle& source(uint32_t type) {
    static BitmapHandle conv = make_source(TYPE_CONV);
    static BitmapHandle tiled{}, disk{};
    if (type == TYPE_TILED) {
        if (!tiled.StructSize) tiled = make_source(TYPE_TILED);
        return tiled;
    }
    if (type == TYPE_DISK) {
        if (!disk.StructSize) disk = make_source(TYPE_DISK);
        return disk;
    }
    return conv;
}

void BM_Copy(benchmark::State& state) {
    BitmapHandle& src = source(TYPE_CONV);
    for (auto _ : state) {
        BitmapHandle dst;
        if (Z_CopyBitmap(&dst, &src, Z_BITMAPHANDLE_SIZE) != ST_OK) state.SkipWithError("copy failed");
        Z_FreeBitmap(&dst);
    }
    state.SetItemsProcessed(state.iterations() * int64_t{kSide} * kSide);
}

// The 256-level gray ramp, for 8-bit gray results.
const RGBQUAD* gray_ramp() {
    static RGBQUAD ramp[256];
    for (int i = 0; i < 256; ++i)
        ramp[i] = RGBQUAD{static_cast<uint8_t>(i), static_cast<uint8_t>(i), static_cast<uint8_t>(i), 0};
    return ramp;
}

void BM_ColorRes(benchmark::State& state, uint32_t type, int32_t bits, uint32_t flags) {
    BitmapHandle& src = source(type);
    const RGBQUAD* palette = (flags & 0xFF) == CRF_USER_PALETTE ? gray_ramp() : nullptr;
    for (auto _ : state) {
        BitmapHandle dst;
        if (Z_ColorResBitmap(&src, &dst, Z_BITMAPHANDLE_SIZE, bits, flags, palette, nullptr, 0, nullptr, nullptr) !=
            ST_OK)
            state.SkipWithError("colour resolution failed");
        Z_FreeBitmap(&dst);
    }
    state.SetItemsProcessed(state.iterations() * int64_t{kSide} * kSide);
}

// Colour resolution's gray-level path (the one Z_GrayScaleBitmap takes) into
// a new record: 8-bit gray levels with the gray ramp as palette.
void BM_GrayLevels(benchmark::State& state) {
    BitmapHandle& src = source(TYPE_CONV);
    for (auto _ : state) {
        BitmapHandle dst;
        zk::reduce::ColorResRequest rq;
        rq.source = &src;
        rq.struct_size = Z_BITMAPHANDLE_SIZE;
        rq.bits = 8;
        rq.gray = true;
        if (zk::reduce::color_res(rq, &dst) != ST_OK) state.SkipWithError("gray levels failed");
        Z_FreeBitmap(&dst);
    }
    state.SetItemsProcessed(state.iterations() * int64_t{kSide} * kSide);
}

// Z_GrayScaleBitmap in place, on a fresh copy of the source each time (the
// copy is not timed).
void BM_GrayScale(benchmark::State& state) {
    BitmapHandle& src = source(TYPE_CONV);
    for (auto _ : state) {
        state.PauseTiming();
        BitmapHandle b;
        if (Z_CopyBitmap(&b, &src, Z_BITMAPHANDLE_SIZE) != ST_OK) state.SkipWithError("copy failed");
        state.ResumeTiming();
        if (Z_GrayScaleBitmap(&b, 8) != ST_OK) state.SkipWithError("gray scale failed");
        state.PauseTiming();
        Z_FreeBitmap(&b);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * int64_t{kSide} * kSide);
}

}  // namespace

int main(int argc, char** argv) {
    zkbench::repeated(benchmark::RegisterBenchmark("copy", BM_Copy), 3)->Unit(benchmark::kMillisecond);
    zkbench::repeated(benchmark::RegisterBenchmark("to32", BM_ColorRes, TYPE_CONV, 32, CRF_BYTE_ORDER_BGR), 3)
        ->Unit(benchmark::kMillisecond);
    zkbench::repeated(
        benchmark::RegisterBenchmark("gray8", BM_ColorRes, TYPE_CONV, 8, CRF_USER_PALETTE | CRF_DITHER(DITHER_NONE)), 3)
        ->Unit(benchmark::kMillisecond);
    zkbench::repeated(benchmark::RegisterBenchmark("graylevels", BM_GrayLevels), 3)->Unit(benchmark::kMillisecond);
    zkbench::repeated(benchmark::RegisterBenchmark("grayscale", BM_GrayScale), 3)->Unit(benchmark::kMillisecond);
    const struct {
        const char* name;
        uint32_t type;
    } kinds[] = {{"conventional", TYPE_CONV}, {"tiled", TYPE_TILED}, {"disk", TYPE_DISK}};
    for (const auto& k : kinds)
        zkbench::repeated(benchmark::RegisterBenchmark((std::string("floyd256/") + k.name).c_str(), BM_ColorRes, k.type,
                                                       8, CRF_FIXED_PALETTE | CRF_DITHER(DITHER_FLOYD)),
                          3)
            ->Unit(benchmark::kMillisecond);
    zkbench::add_context();
    benchmark::Initialize(&argc, argv);
    benchmark::AddCustomContext("kernel tier", zk::platform::cpu_tier_name(zk::platform::cpu_tier()));
    zkbench::RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    std::printf("\n8192 x 8192 24-bit source, time of Z_CopyBitmap / time of each (%s kernels):\n",
                zk::platform::cpu_tier_name(zk::platform::cpu_tier()));
    reporter.print_ratio("to 32 bits", "to32", "copy");
    reporter.print_ratio("to 8-bit gray levels, into a new record", "graylevels", "copy");
    reporter.print_ratio("Z_GrayScaleBitmap to 8 bits, in place", "grayscale", "copy");
    reporter.print_ratio("to the caller's gray ramp, nearest entry", "gray8", "copy");
    for (const auto& k : kinds)
        reporter.print_ratio(std::string("Floyd-Steinberg, fixed 256, ") + k.name, std::string("floyd256/") + k.name,
                             "copy");
    benchmark::Shutdown();
    return 0;
}
