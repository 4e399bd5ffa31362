// Sequential row access over an 8192 x 8192 24-bit bitmap (192 MiB) in
// conventional storage, in tiles that are all in memory, and in disk tiles,
// beside a memcpy of the same rows. Read each figure as bytes per second and
// compare gets with BM_memcpy_rows_out and puts with BM_memcpy_rows_in. The disk-tile scan also reports how many
// mappings it made per tile (1 means each tile was mapped once).
#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>
#include <vector>

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
    std::unique_ptr<uint8_t[]> image(new uint8_t[bpl * kSide]);
    std::memset(image.get(), 0x5A, bpl * kSide);
    std::vector<uint8_t> row(bpl, 0x33);
    for (auto _ : state) {
        for (int32_t r = 0; r < kSide; ++r) {
            if (into_image)
                std::memcpy(image.get() + bpl * r, row.data(), bpl);
            else
                std::memcpy(row.data(), image.get() + bpl * r, bpl);
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
    std::vector<uint8_t> row(b.BytesPerLine, 0x33);
    uint32_t type = 0, tiles = 0;
    Z_GetBitmapMemoryInfo(&b, &type, nullptr, &tiles, nullptr, nullptr, nullptr);
    zk::platform::reset_fault_counters();
    for (auto _ : state) {
        for (int32_t r = 0; r < kSide; ++r) {
            if (put)
                Z_PutBitmapRow(&b, row.data(), static_cast<uint32_t>(r), b.BytesPerLine);
            else
                Z_GetBitmapRow(&b, row.data(), static_cast<uint32_t>(r), b.BytesPerLine);
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

BENCHMARK(BM_memcpy_rows_out)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_get_conventional)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_get_memory_tiles)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_memcpy_rows_in)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_put_conventional)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_put_memory_tiles)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_get_disk_tiles)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK_MAIN();
