// Sequential row access over an 8192 x 8192 24-bit bitmap (192 MiB) in
// conventional storage, in tiles that are all in memory, and in disk tiles,
// beside a memcpy of the same rows between a touched 192 MiB image and one
// row buffer: gets are read against BM_memcpy_rows_out, puts against
// BM_memcpy_rows_in. Every image is written before timing and every row
// buffer sits half a page off the image's page boundaries. The disk-tile scan
// also reports how many mappings it made per tile (1 means each tile was
// mapped once). Figures are medians of five repetitions of real elapsed
// time; the program ends with the ratios memcpy time / access time.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "bench_support.h"
#include "platform/platform.h"
#include "zkernel.h"

namespace {

constexpr int32_t kSide = 8192;

struct Image {
    BitmapHandle b{};
    bool ok = false;
    Image(uint32_t type, int32_t max_mem_tiles) {
        int32_t saved = 0;
        Z_GetMemoryThresholds(nullptr, nullptr, nullptr, &saved, nullptr);
        Z_SetMemoryThresholds(0, 0, 0, max_mem_tiles, 1, 8);
        ok = Z_InitBitmap(&b, Z_BITMAPHANDLE_SIZE, kSide, kSide, 24) == ST_OK && Z_AllocateBitmap(&b, type) == ST_OK;
        Z_SetMemoryThresholds(0, 0, 0, saved, 1, 8);
        std::vector<uint8_t> row(b.BytesPerLine, 0x5A);
        for (int32_t r = 0; ok && r < kSide; ++r) Z_PutBitmapRow(&b, row.data(), r, b.BytesPerLine);
    }
    ~Image() { Z_FreeBitmap(&b); }
};

Image& conventional() {
    static Image i(TYPE_CONV, -100);
    return i;
}
Image& memory_tiles() {
    static Image i(TYPE_TILED, -100);
    return i;
}
Image& disk_tiles() {
    static Image i(TYPE_TILED, 0);
    return i;
}

// memcpy of the same rows between a 192 MiB image and one row buffer: out of
// the image (the baseline of a get) or into it (the baseline of a put).
void memcpy_rows(benchmark::State& state, bool into_image) {
    const size_t bpl = size_t{kSide} * 3;
    static zkbench::BufferPair buffers(bpl * kSide, bpl);
    uint8_t* image = buffers.first();
    uint8_t* row = buffers.second();
    for (auto _ : state) {
        for (int32_t r = 0; r < kSide; ++r) {
            if (into_image)
                std::memcpy(image + bpl * r, row, bpl);
            else
                std::memcpy(row, image + bpl * r, bpl);
            benchmark::ClobberMemory();
        }
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(bpl) * kSide);
}
void BM_memcpy_rows_out(benchmark::State& s) { memcpy_rows(s, false); }
void BM_memcpy_rows_in(benchmark::State& s) { memcpy_rows(s, true); }

void scan(benchmark::State& state, Image& img, bool put) {
    if (!img.ok) {
        state.SkipWithError("allocation failed");
        return;
    }
    BitmapHandle& b = img.b;
    // Storage views start on page boundaries; the row sits half a page off.
    zkbench::BufferPair placed(4096, b.BytesPerLine);
    uint8_t* row = placed.second();
    uint32_t type = 0, tiles = 0;
    Z_GetBitmapMemoryInfo(&b, &type, nullptr, &tiles, nullptr, nullptr, nullptr);
    zk::platform::reset_fault_counters();
    for (auto _ : state) {
        for (int32_t r = 0; r < kSide; ++r) {
            if (put)
                Z_PutBitmapRow(&b, row, static_cast<uint32_t>(r), b.BytesPerLine);
            else
                Z_GetBitmapRow(&b, row, static_cast<uint32_t>(r), b.BytesPerLine);
            benchmark::ClobberMemory();
        }
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(b.BytesPerLine) * kSide);
    if (b.Flags & BF_TILED) {
        state.counters["tiles"] = tiles;
        state.counters["maps_per_tile_per_scan"] =
            double(zk::platform::fault_calls(zk::platform::FaultKind::Mapping)) / double(state.iterations()) / tiles;
    }
}

void BM_get_conventional(benchmark::State& s) { scan(s, conventional(), false); }
void BM_put_conventional(benchmark::State& s) { scan(s, conventional(), true); }
void BM_get_memory_tiles(benchmark::State& s) { scan(s, memory_tiles(), false); }
void BM_put_memory_tiles(benchmark::State& s) { scan(s, memory_tiles(), true); }
void BM_get_disk_tiles(benchmark::State& s) { scan(s, disk_tiles(), false); }

}  // namespace

int main(int argc, char** argv) {
    using zkbench::repeated;
    repeated(benchmark::RegisterBenchmark("BM_memcpy_rows_out", BM_memcpy_rows_out))->Unit(benchmark::kMillisecond);
    repeated(benchmark::RegisterBenchmark("BM_get_conventional", BM_get_conventional))->Unit(benchmark::kMillisecond);
    repeated(benchmark::RegisterBenchmark("BM_get_memory_tiles", BM_get_memory_tiles))->Unit(benchmark::kMillisecond);
    repeated(benchmark::RegisterBenchmark("BM_memcpy_rows_in", BM_memcpy_rows_in))->Unit(benchmark::kMillisecond);
    repeated(benchmark::RegisterBenchmark("BM_put_conventional", BM_put_conventional))->Unit(benchmark::kMillisecond);
    repeated(benchmark::RegisterBenchmark("BM_put_memory_tiles", BM_put_memory_tiles))->Unit(benchmark::kMillisecond);
    repeated(benchmark::RegisterBenchmark("BM_get_disk_tiles", BM_get_disk_tiles))
        ->Unit(benchmark::kMillisecond)
        ->Iterations(3);
    zkbench::add_context();
    benchmark::Initialize(&argc, argv);
    zkbench::RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    std::printf("\nmemcpy time / access time, median (range over repetitions):\n");
    for (const char* get : {"BM_get_conventional", "BM_get_memory_tiles", "BM_get_disk_tiles"})
        reporter.print_ratio(get, get, "BM_memcpy_rows_out");
    for (const char* put : {"BM_put_conventional", "BM_put_memory_tiles"})
        reporter.print_ratio(put, put, "BM_memcpy_rows_in");
    std::printf("(%s)\n", zkbench::processor_model().c_str());
    benchmark::Shutdown();
    return 0;
}
