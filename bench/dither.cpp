// Dithering speed: a 4096 x 4096 24-bit photograph-like image (smooth
// gradients, hard-edged blocks, a colour wheel, noise) dithered row by row
// through Z_StartDithering / Z_DitherLine / Z_StopDithering on one thread,
// with every method, to the fixed 256-colour palette (arithmetic), to a
// 256-colour palette that is neither fixed nor the cube (the state's own
// match table, filled as colours are met, so each image pays its searches),
// to the same palette through a caller's match table answered beforehand,
// and to the fixed 16-colour palette (4-bit indices). Beside them a memcpy of
// the source image's bytes in the same program.
//
// The figures are megapixels per second (median of the repetitions). The
// kernels are those of the processor's tier; ZK_CPU_TIER=portable, avx2 or
// avx512 caps it. The tier and the processor are printed with the figures.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench_support.h"
#include "core/platform/cpu.h"
#include "zkernel.h"

namespace {

constexpr int32_t kSide = 4096;
constexpr size_t kSourceLine = size_t{kSide} * 3;
constexpr size_t kSourceBytes = kSourceLine * kSide;
constexpr size_t kPixels = size_t{kSide} * kSide;

const char* const kMethodNames[] = {"none",           "floyd",  "stucki",  "burkes",   "sierra",
                                    "stevenson_arce", "jarvis", "ordered", "clustered"};

enum class Target { Fixed256, Custom256, Custom256User, Fixed16 };

struct TargetInfo {
    Target target;
    const char* name;
    uint32_t colors;
    uint32_t bits;  // index width
};

constexpr TargetInfo kTargets[] = {
    {Target::Fixed256, "fixed256", 256, 8},
    {Target::Custom256, "custom256", 256, 8},
    {Target::Custom256User, "custom256_user_table", 256, 8},
    {Target::Fixed16, "fixed16", 16, 4},
};

uint8_t clamp8(double v) { return static_cast<uint8_t>(std::clamp(v, 0.0, 255.0)); }

// The source image in BGR order, and a destination for indices of up to 8
// bits, in one BufferPair.
struct Images {
    zkbench::BufferPair buffers{kSourceBytes, kSourceBytes};
    std::vector<RGBQUAD> custom;
    uint32_t* user_table = nullptr;

    Images() {
        uint8_t* p = buffers.first();
        uint32_t seed = 12345;
        const double pi = 3.14159265358979323846;
        for (int32_t y = 0; y < kSide; ++y)
            for (int32_t x = 0; x < kSide; ++x, p += 3) {
                // Smooth gradients over the whole image.
                double r = x * 255.0 / (kSide - 1);
                double g = y * 255.0 / (kSide - 1);
                double b = 128 + 100 * std::sin((x + 2.0 * y) / 700.0);
                // A colour wheel: hue by angle, saturation by radius.
                const double dx = x - kSide * 0.35, dy = y - kSide * 0.4;
                const double radius = std::sqrt(dx * dx + dy * dy);
                if (radius < kSide * 0.25) {
                    const double hue = (std::atan2(dy, dx) + pi) / (2 * pi) * 6.0;
                    const double sat = radius / (kSide * 0.25);
                    const double f = hue - std::floor(hue);
                    const int sector = static_cast<int>(hue) % 6;
                    const double v = 230, lo = v * (1 - sat), fall = v * (1 - sat * f), rise = v * (1 - sat * (1 - f));
                    const double rgb[6][3] = {{v, rise, lo}, {fall, v, lo}, {lo, v, rise},
                                              {lo, fall, v}, {rise, lo, v}, {v, lo, fall}};
                    r = rgb[sector][0];
                    g = rgb[sector][1];
                    b = rgb[sector][2];
                }
                // Hard-edged blocks of flat colour in the lower right.
                if (x > kSide * 0.6 && y > kSide * 0.55) {
                    const int block = (x / 160) * 7 + (y / 224) * 13;
                    if (block % 3 != 0) {
                        r = (block * 53) % 256;
                        g = (block * 101) % 256;
                        b = (block * 197) % 256;
                    }
                }
                // Sensor-like noise of +-8.
                seed = seed * 1103515245u + 12345u;
                const int noise = static_cast<int>((seed >> 16) % 17) - 8;
                p[0] = clamp8(b + noise);
                p[1] = clamp8(g + noise / 2);
                p[2] = clamp8(r - noise / 2);
            }
        // A palette of 7 x 8 x 4 levels off the fixed palettes' steps and 32
        // grays: neither fixed nor the cube.
        for (uint32_t r = 0; r < 7; ++r)
            for (uint32_t g = 0; g < 8; ++g)
                for (uint32_t b = 0; b < 4; ++b)
                    custom.push_back({static_cast<uint8_t>(10 + b * 78), static_cast<uint8_t>(5 + g * 35),
                                      static_cast<uint8_t>(3 + r * 41), 0});
        for (uint32_t i = 0; i < 32; ++i) {
            const auto v = static_cast<uint8_t>(4 + i * 8);
            custom.push_back({v, v, v, 0});
        }
        user_table = Z_CreateUserMatchTable(custom.data(), 256);
        if (custom.size() != 256 || !user_table) std::abort();
    }
    ~Images() { Z_OsFree(user_table); }
};

Images& images() {
    static Images i;
    return i;
}

void BM_Memcpy(benchmark::State& state) {
    Images& im = images();
    for (auto _ : state) {
        std::memcpy(im.buffers.second(), im.buffers.first(), kSourceBytes);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kSourceBytes));
}

// One whole image per iteration: start, every row, stop.
void BM_Dither(benchmark::State& state, uint32_t method, TargetInfo t) {
    Images& im = images();
    const size_t dest_line = (size_t{kSide} * t.bits + 7) / 8;
    const RGBQUAD* palette = t.target == Target::Fixed256 || t.target == Target::Fixed16 ? nullptr : im.custom.data();
    uint32_t* table = t.target == Target::Custom256User ? im.user_table : nullptr;
    BitmapHandle b;
    if (Z_InitBitmap(&b, Z_BITMAPHANDLE_SIZE, kSide, kSide, 24) != ST_OK) std::abort();
    b.Order = CO_BGR;
    b.DitherMethod = method;
    for (auto _ : state) {
        if (Z_StartDitheringExt(&b, palette, t.colors, t.bits, table) != ST_OK) {
            state.SkipWithError("start failed");
            break;
        }
        const uint8_t* src = im.buffers.first();
        uint8_t* dst = im.buffers.second();
        for (int32_t y = 0; y < kSide; ++y, src += kSourceLine, dst += dest_line) Z_DitherLine(&b, src, dst);
        Z_StopDithering(&b);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kPixels));
}

std::string key(uint32_t method, const TargetInfo& t) {
    return std::string("dither/") + t.name + "/" + kMethodNames[method];
}

}  // namespace

int main(int argc, char** argv) {
    zkbench::repeated(benchmark::RegisterBenchmark("memcpy_source", BM_Memcpy), 3)->Unit(benchmark::kMillisecond);
    for (const TargetInfo& t : kTargets)
        for (uint32_t method = 0; method <= DITHER_CLUSTERED; ++method)
            zkbench::repeated(benchmark::RegisterBenchmark(key(method, t).c_str(), BM_Dither, method, t), 3)
                ->Unit(benchmark::kMillisecond);
    zkbench::add_context();
    benchmark::Initialize(&argc, argv);
    benchmark::AddCustomContext("kernel tier", zk::platform::cpu_tier_name(zk::platform::cpu_tier()));
    zkbench::RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);

    std::printf(
        "\n%s x %s 24-bit image, megapixels per second (median; range over the repetitions), %s kernels, "
        "processor supports %s, %s:\n",
        std::to_string(kSide).c_str(), std::to_string(kSide).c_str(),
        zk::platform::cpu_tier_name(zk::platform::cpu_tier()),
        zk::platform::cpu_tier_name(zk::platform::cpu_tier_supported()), zkbench::processor_model().c_str());
    auto mps = [](double seconds) { return seconds > 0 ? kPixels / seconds / 1e6 : 0.0; };
    auto line = [&](const char* label, const zkbench::RatioReporter::Times* t) {
        if (t)
            std::printf("  %-44s %8.1f (%.1f-%.1f), by processor time %.1f\n", label, mps(t->median), mps(t->max),
                        mps(t->min), mps(t->cpu_median));
    };
    line("memcpy of the source (3-byte pixels)", reporter.find("memcpy_source"));
    for (const TargetInfo& t : kTargets)
        for (uint32_t method = 0; method <= DITHER_CLUSTERED; ++method)
            line(key(method, t).c_str(), reporter.find(key(method, t)));
    benchmark::Shutdown();
    return 0;
}
