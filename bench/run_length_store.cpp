// Run-length storage: the synthetic text page held as a run-length bitmap.
// Printed: the bytes the store holds against the packed page; a flip of the
// stored page (row-table entries exchanged) beside expanding the page's runs,
// flipping the packed rows and compressing them again; a mirror and a
// quarter turn of the stored page; and a memcpy of the packed page in the
// same program. ZK_CPU_TIER caps the kernel tier.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench_support.h"
#include "core/platform/cpu.h"
#include "core/run_length.h"
#include "text_page.h"
#include "zkernel.h"

namespace {

using zkbench::kPageBytes;
using zkbench::kPageHeight;
using zkbench::kPageStride;
using zkbench::kPageWidth;

struct Page {
    std::vector<uint8_t> packed = std::vector<uint8_t>(kPageBytes, 0);
    std::vector<uint8_t> runs = std::vector<uint8_t>(kPageHeight * zk::rle::compressed_size_bound(kPageWidth));
    BitmapHandle stored{};
    Page() {
        zkbench::draw_text_page(packed.data());
        if (Z_CompressRows(runs.data(), packed.data(), kPageWidth, kPageHeight) != ST_OK) std::abort();
        Z_InitBitmap(&stored, Z_BITMAPHANDLE_SIZE, kPageWidth, kPageHeight, 1);
        if (Z_AllocateBitmap(&stored, TYPE_COMPRESSED) != ST_OK) std::abort();
        for (uint32_t y = 0; y < kPageHeight; ++y)
            if (Z_PutBitmapRow(&stored, packed.data() + y * kPageStride, y, kPageStride) < 0) std::abort();
    }
};

Page& page() {
    static Page p;
    return p;
}

void BM_Memcpy(benchmark::State& state) {
    Page& p = page();
    std::vector<uint8_t> out(kPageBytes);
    for (auto _ : state) {
        std::memcpy(out.data(), p.packed.data(), kPageBytes);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kPageBytes));
}

// The stored page flipped (twice per iteration would hide nothing: each flip
// is a whole pass; the page is left flipped or not, which costs the same).
void BM_StoreFlip(benchmark::State& state) {
    Page& p = page();
    for (auto _ : state)
        if (Z_FlipBitmap(&p.stored) != ST_OK) state.SkipWithError("flip failed");
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kPageBytes));
}

// What a store without its own flip would do: every row expanded, the rows
// put in reverse order, and compressed again.
void BM_ExpandFlipCompress(benchmark::State& state) {
    Page& p = page();
    std::vector<uint8_t> packed(kPageBytes), flipped(kPageBytes), runs(p.runs.size());
    for (auto _ : state) {
        if (Z_ExpandRows(p.runs.data(), packed.data(), kPageWidth, kPageHeight) != ST_OK) state.SkipWithError("x");
        for (uint32_t y = 0; y < kPageHeight; ++y)
            std::memcpy(flipped.data() + size_t{kPageHeight - 1 - y} * kPageStride, packed.data() + y * kPageStride,
                        kPageStride);
        if (Z_CompressRows(runs.data(), flipped.data(), kPageWidth, kPageHeight) != ST_OK) state.SkipWithError("c");
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kPageBytes));
}

void BM_StoreMirror(benchmark::State& state) {
    Page& p = page();
    for (auto _ : state)
        if (Z_ReverseBitmap(&p.stored) != ST_OK) state.SkipWithError("mirror failed");
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kPageBytes));
}

void BM_StoreTurn(benchmark::State& state) {
    Page& p = page();
    for (auto _ : state)
        if (Z_RotateBitmap90(&p.stored, 1) != ST_OK) state.SkipWithError("turn failed");
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kPageBytes));
}

}  // namespace

int main(int argc, char** argv) {
    const auto add = [](const char* name, void (*fn)(benchmark::State&)) {
        zkbench::repeated(benchmark::RegisterBenchmark(name, fn), 5)->Unit(benchmark::kMicrosecond);
    };
    add("memcpy", BM_Memcpy);
    add("store_flip", BM_StoreFlip);
    add("expand_flip_compress", BM_ExpandFlipCompress);
    add("store_mirror", BM_StoreMirror);
    add("store_turn", BM_StoreTurn);
    zkbench::add_context();
    benchmark::Initialize(&argc, argv);
    benchmark::AddCustomContext("kernel tier", zk::platform::cpu_tier_name(zk::platform::cpu_tier()));
    zkbench::RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);

    Page& p = page();
    uint32_t type = 0, reserved = 0, live = 0;
    Z_TrimBitmapHeap(&p.stored);
    Z_GetBitmapMemoryInfo(&p.stored, &type, &reserved, &live, nullptr, nullptr, nullptr);
    const double table = 8.0 * kPageHeight;
    std::printf("\n2480 x 3508 text page at 1 bit (%zu packed bytes) in run-length storage (%s kernels):\n", kPageBytes,
                zk::platform::cpu_tier_name(zk::platform::cpu_tier()));
    std::printf("  held: %u bytes of rows + %.0f of row table = %.1f %% of packed (heap reserves %u)\n", live, table,
                100.0 * (live + table) / double(kPageBytes), reserved);
    reporter.print_ratio("flip, stored page: speed against expand, flip, compress", "store_flip",
                         "expand_flip_compress");
    reporter.print_ratio("flip, stored page, against memcpy of the packed page", "store_flip", "memcpy");
    reporter.print_ratio("mirror, stored page, against memcpy of the packed page", "store_mirror", "memcpy");
    reporter.print_ratio("quarter turn, stored page, against memcpy of the packed page", "store_turn", "memcpy");
    benchmark::Shutdown();
    Z_FreeBitmap(&p.stored);
    return 0;
}
