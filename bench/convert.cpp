// Row conversion speed on rows of 4,096 pixels, each next to memcpy of the
// destination row's bytes in the same program. At the end the program prints
// the ratio memcpy time / conversion time (1.0 = as fast as memcpy).
//
// The kernels timed in place without restoring the row do the same work
// whatever the bytes hold; 24 -> 8 with a custom palette depends on the
// colours, so its row is restored from a copy before each conversion (that
// copy is included in its figure).
//
// The kernels are those of the processor's tier; ZK_CPU_TIER=portable, avx2
// or avx512 caps it, so that the tiers can be compared on one machine. The
// tier and the processor are printed with the figures.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "bench_support.h"
#include "color/convert.h"
#include "core/platform/cpu.h"
#include "zkernel.h"

namespace {

constexpr int32_t kWidth = 4096;

std::vector<uint8_t> random_row(size_t n, uint32_t seed) {
    std::mt19937 rng(seed);
    std::vector<uint8_t> v(n);
    for (auto& b : v) b = static_cast<uint8_t>(rng() >> 24);
    return v;
}

struct Pair {
    const char* name;
    int32_t src_bits;
    uint32_t dst_bits;
    uint32_t src_order, dst_order;
    bool palette;
};

const Pair kPairs[] = {
    {"bgr24_to_rgb24", 24, 24, CO_BGR, CO_RGB, false},  {"bgr24_to_bgr32", 24, 32, CO_BGR, CO_BGR, false},
    {"bgr32_to_bgr24", 32, 24, CO_BGR, CO_BGR, false},  {"bgr48_to_bgr24", 48, 24, CO_BGR, CO_BGR, false},
    {"bgr24_to_gray8", 24, 0, CO_BGR, CO_BGR, false},   {"bgr24_to_bgr555", 24, 16, CO_BGR, CO_BGR, false},
    {"bgr555_to_bgr24", 16, 24, CO_BGR, CO_BGR, false}, {"pal8_to_bgr24", 8, 24, CO_BGR, CO_BGR, true},
};

std::vector<RGBQUAD> custom_palette() {
    std::vector<RGBQUAD> p(256);
    std::mt19937 rng(77);
    for (auto& e : p)
        e = RGBQUAD{static_cast<uint8_t>(rng()), static_cast<uint8_t>(rng()), static_cast<uint8_t>(rng()), 0};
    return p;
}

size_t dst_row_bytes(uint32_t bits) { return size_t{kWidth} * (bits == 0 ? 8 : bits) / 8; }

void BM_Convert(benchmark::State& state, Pair pair) {
    const auto size =
        static_cast<size_t>(Z_CalcConvertSize(kWidth, static_cast<uint32_t>(pair.src_bits), kWidth, pair.dst_bits));
    std::vector<uint8_t> row = random_row(size, 1);
    const std::vector<RGBQUAD> pal = custom_palette();
    for (auto _ : state) {
        const int32_t st =
            Z_ConvertBuffer(row.data(), kWidth, pair.src_bits, pair.dst_bits, static_cast<int32_t>(pair.src_order),
                            pair.dst_order, pair.palette ? pal.data() : nullptr, nullptr);
        benchmark::DoNotOptimize(st);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * dst_row_bytes(pair.dst_bits)));
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kWidth));
}

void BM_Memcpy(benchmark::State& state) {
    const auto n = static_cast<size_t>(state.range(0));
    // Source and destination half a page apart modulo 4 KiB (two vectors
    // of these sizes would sit 16 bytes apart, where memcpy collapses).
    zkbench::BufferPair p(n, n);
    const std::vector<uint8_t> random = random_row(n, 2);
    std::memcpy(p.first(), random.data(), n);
    for (auto _ : state) {
        std::memcpy(p.second(), p.first(), n);
        benchmark::DoNotOptimize(p.second());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * n));
}

// 24 -> 8 against a custom 256-colour palette: nearest colour per pixel.
void BM_Bgr24ToPal8Custom(benchmark::State& state) {
    const size_t n = 3 * kWidth;
    zkbench::BufferPair p(n, n);  // the restoring copy, placed as in BM_Memcpy
    const std::vector<uint8_t> source = random_row(n, 3);
    std::memcpy(p.first(), source.data(), n);
    const std::vector<RGBQUAD> pal = custom_palette();
    for (auto _ : state) {
        std::memcpy(p.second(), p.first(), n);
        const int32_t st = Z_ConvertBuffer(p.second(), kWidth, 24, 8, CO_BGR, CO_BGR, nullptr, pal.data());
        benchmark::DoNotOptimize(st);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kWidth));
}

// Collects real time per run so that ratios can be printed at the end.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const auto& r : runs)
            if (r.run_type == Run::RT_Iteration) times[r.benchmark_name()] = r.GetAdjustedRealTime();
        ConsoleReporter::ReportRuns(runs);
    }
    std::map<std::string, double> times;
};

}  // namespace

int main(int argc, char** argv) {
    for (const Pair& p : kPairs)
        benchmark::RegisterBenchmark((std::string("convert/") + p.name).c_str(), BM_Convert, p);
    for (uint32_t bits : {0u, 16u, 24u, 32u})
        benchmark::RegisterBenchmark("memcpy", BM_Memcpy)->Arg(static_cast<int64_t>(dst_row_bytes(bits)));
    benchmark::RegisterBenchmark("convert/bgr24_to_pal8_custom", BM_Bgr24ToPal8Custom);
    zkbench::add_context();
    benchmark::Initialize(&argc, argv);
    benchmark::AddCustomContext("kernel tier", zk::platform::cpu_tier_name(zk::platform::cpu_tier()));
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);

    std::printf(
        "\nratio memcpy(destination row) / conversion, rows of %d pixels (%s kernels, processor supports %s):\n",
        kWidth, zk::platform::cpu_tier_name(zk::platform::cpu_tier()),
        zk::platform::cpu_tier_name(zk::platform::cpu_tier_supported()));
    for (const Pair& p : kPairs) {
        const auto c = reporter.times.find(std::string("convert/") + p.name);
        const auto m = reporter.times.find("memcpy/" + std::to_string(dst_row_bytes(p.dst_bits)));
        if (c == reporter.times.end() || m == reporter.times.end()) continue;
        std::printf("  %-18s %.2f\n", p.name, m->second / c->second);
    }
    const auto pal = reporter.times.find("convert/bgr24_to_pal8_custom");
    if (pal != reporter.times.end())
        std::printf("  %-18s %.1f megapixels/s (custom 256-colour palette)\n", "bgr24_to_pal8",
                    kWidth / pal->second * 1e3);
    benchmark::Shutdown();
    return 0;
}
