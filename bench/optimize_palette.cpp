// Optimized palettes of photographs: speed and quality of the generator
// beside libimagequant (Debian's pngquant, run as a program).
//
// Three photographs that Debian's scikit-image package ships (astronaut,
// coffee, chelsea; python3-skimage puts them in skimage/data, or set
// ZK_PHOTO_DIR) are loaded into 24-bit bitmaps. For each, the generator
// builds a 256-colour palette and its match table; the figures are the
// median time of several runs and the PSNR of the photograph mapped without
// dithering, once to the exactly nearest palette entry and once through the
// match table's cell (the lookup of the library's undithered path).
// pngquant runs on the same PNG file with --nofs 256; its time is the
// program's whole run (process start, PNG decoding and encoding included)
// and its PSNR that of the PNG it writes, and of the photograph mapped to the
// nearest entry of its palette. A copy of the photograph's bytes is timed as
// the baseline. Missing photographs or a missing pngquant print a skip line.
#include <png.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench_support.h"
#include "core/platform/cpu.h"
#include "reduce/match_table.h"
#include "zkernel.h"

extern char** environ;

namespace {

struct Image {
    uint32_t width = 0, height = 0;
    std::vector<uint8_t> rgb;      // 3 bytes a pixel, rows top to bottom
    std::vector<RGBQUAD> palette;  // of an indexed PNG
};

// Reads a PNG as 8-bit RGB (palette expanded, alpha and 16-bit samples
// stripped); false when the file cannot be read.
bool load_png(const std::string& path, Image& out) {
    FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) return false;
    // Warnings (the photographs' colour profiles draw some) are not errors.
    png_structp png =
        png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, [](png_structp, png_const_charp) {});
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    if (!png || !info || setjmp(png_jmpbuf(png))) {
        png_destroy_read_struct(&png, &info, nullptr);
        std::fclose(f);
        return false;
    }
    png_init_io(png, f);
    png_read_info(png, info);
    out.palette.clear();
    png_colorp plte = nullptr;
    int entries = 0;
    if (png_get_PLTE(png, info, &plte, &entries) == PNG_INFO_PLTE)
        for (int i = 0; i < entries; ++i) out.palette.push_back(RGBQUAD{plte[i].blue, plte[i].green, plte[i].red, 0});
    png_set_expand(png);
    png_set_strip_16(png);
    png_set_strip_alpha(png);
    png_set_gray_to_rgb(png);
    png_read_update_info(png, info);
    out.width = png_get_image_width(png, info);
    out.height = png_get_image_height(png, info);
    if (png_get_rowbytes(png, info) != size_t{out.width} * 3) longjmp(png_jmpbuf(png), 1);
    out.rgb.assign(size_t{out.width} * out.height * 3, 0);
    std::vector<png_bytep> rows(out.height);
    for (uint32_t y = 0; y < out.height; ++y) rows[y] = out.rgb.data() + size_t{y} * out.width * 3;
    png_read_image(png, rows.data());
    png_destroy_read_struct(&png, &info, nullptr);
    std::fclose(f);
    return true;
}

double psnr(double squared_error, size_t samples) {
    const double mse = squared_error / static_cast<double>(samples);
    return mse > 0 ? 10.0 * std::log10(255.0 * 255.0 / mse) : INFINITY;
}

uint32_t squared(const uint8_t* p, const RGBQUAD& e) {
    const int dr = p[0] - e.rgbRed, dg = p[1] - e.rgbGreen, db = p[2] - e.rgbBlue;
    return static_cast<uint32_t>(dr * dr + dg * dg + db * db);
}

// PSNR of the image with every pixel replaced by the exactly nearest of the
// entries.
double psnr_nearest(const Image& im, const std::vector<RGBQUAD>& entries) {
    double error = 0;
    for (size_t i = 0; i < im.rgb.size(); i += 3) {
        uint32_t best = UINT32_MAX;
        for (const RGBQUAD& e : entries) best = std::min(best, squared(&im.rgb[i], e));
        error += best;
    }
    return psnr(error, im.rgb.size());
}

// PSNR of the image with every pixel replaced by the entry its match-table
// cell names.
double psnr_table(const Image& im, const RGBQUAD* palette, uint32_t count, const uint32_t* table) {
    zk::reduce::MatchList list;
    zk::reduce::build_match_list(palette, count, list);
    double error = 0;
    for (size_t i = 0; i < im.rgb.size(); i += 3) {
        const uint32_t cell = table[zk::reduce::match_cell(im.rgb[i], im.rgb[i + 1], im.rgb[i + 2])];
        if (cell == 0 || cell > list.count) return NAN;
        error += squared(&im.rgb[i], list.entry[cell - 1]);
    }
    return psnr(error, im.rgb.size());
}

double seconds_since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

// Runs pngquant on `input`, writing `output`; the wall time (and in *cpu the
// processor time it used), or a negative value when it did not run or failed.
double run_pngquant(const std::string& input, const std::string& output, double* cpu) {
    std::vector<std::string> args = {"pngquant", "--nofs", "--force", "--output", output, "256", "--", input};
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    const auto start = std::chrono::steady_clock::now();
    pid_t pid = 0;
    if (posix_spawnp(&pid, "pngquant", nullptr, nullptr, argv.data(), environ) != 0) return -1;
    int status = 0;
    rusage usage{};
    if (wait4(pid, &status, 0, &usage) != pid) return -1;
    const double t = seconds_since(start);
    const auto secs = [](const timeval& v) { return static_cast<double>(v.tv_sec) + v.tv_usec * 1e-6; };
    *cpu = secs(usage.ru_utime) + secs(usage.ru_stime);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? t : -1;
}

std::string photo_dir() {
    if (const char* dir = std::getenv("ZK_PHOTO_DIR")) return dir;
    for (const char* dir : {"/usr/lib/python3/dist-packages/skimage/data", "/usr/share/skimage/data"})
        if (access((std::string(dir) + "/astronaut.png").c_str(), R_OK) == 0) return dir;
    return "/usr/lib/python3/dist-packages/skimage/data";
}

struct Ours {
    double seconds = 0, seconds_no_table = 0, psnr_nearest = 0, psnr_table = 0, copy_seconds = 0;
    double psnr_preset = 0;  // nearest, with black and white kept at the ends and 254 entries filled
    uint32_t used = 0;
};

bool measure_ours(const Image& im, Ours& out) {
    BitmapHandle b{};
    if (Z_CreateBitmap(&b, Z_BITMAPHANDLE_SIZE, TYPE_CONV, static_cast<int32_t>(im.width),
                       static_cast<int32_t>(im.height), 24, CO_RGB, nullptr, VP_TOP_LEFT, nullptr, 0) != ST_OK)
        return false;
    for (uint32_t y = 0; y < im.height; ++y)
        Z_PutBitmapRow(&b, im.rgb.data() + size_t{y} * im.width * 3, y, im.width * 3);
    std::vector<uint32_t> table(Z_MATCH_TABLE_CELLS);
    RGBQUAD palette[256];
    const auto fresh = [&] {
        for (RGBQUAD& e : palette) e = RGBQUAD{0, 0, 0, Z_PAL_FILL};
    };
    constexpr int kRuns = 9;
    std::vector<double> with_table, without_table, copies;
    std::vector<uint8_t> copy(im.rgb.size());
    bool ok = true;
    for (int run = 0; run < kRuns && ok; ++run) {
        fresh();
        auto start = std::chrono::steady_clock::now();
        ok = Z_CreateOptimizedPalette(&b, palette, 256, nullptr, nullptr, nullptr) == ST_OK;
        without_table.push_back(seconds_since(start));
        fresh();
        int32_t exact = 0;
        start = std::chrono::steady_clock::now();
        ok = ok && Z_CreateOptimizedPalette(&b, palette, 256, &out.used, &exact, table.data()) == ST_OK;
        with_table.push_back(seconds_since(start));
        start = std::chrono::steady_clock::now();
        std::memcpy(copy.data(), im.rgb.data(), im.rgb.size());
        copies.push_back(seconds_since(start));
    }
    RGBQUAD preset[256];
    for (RGBQUAD& e : preset) e = RGBQUAD{0, 0, 0, Z_PAL_FILL};
    preset[0] = RGBQUAD{0, 0, 0, 0};
    preset[255] = RGBQUAD{255, 255, 255, 0};
    uint32_t preset_used = 0;
    ok = ok && Z_CreateOptimizedPalette(&b, preset, 256, &preset_used, nullptr, nullptr) == ST_OK;
    Z_FreeBitmap(&b);
    if (!ok) return false;
    std::vector<RGBQUAD> preset_entries;
    for (const RGBQUAD& e : preset)
        if (e.rgbReserved == 0) preset_entries.push_back(e);
    out.psnr_preset = psnr_nearest(im, preset_entries);
    out.seconds = median(with_table);
    out.seconds_no_table = median(without_table);
    out.copy_seconds = median(copies);
    out.psnr_nearest = psnr_nearest(im, std::vector<RGBQUAD>(palette, palette + out.used));
    out.psnr_table = psnr_table(im, palette, 256, table.data());
    return true;
}

}  // namespace

int main() {
    namespace pf = zk::platform;
    std::printf("processor: %s\nkernel tier: %s (processor supports %s)\n", zkbench::processor_model().c_str(),
                pf::cpu_tier_name(pf::cpu_tier()), pf::cpu_tier_name(pf::cpu_tier_supported()));
    const std::string dir = photo_dir();
    char temp_template[] = "/tmp/zk_bench_palette_XXXXXX";
    const char* temp = mkdtemp(temp_template);
    std::printf(
        "\n256 colours, no dithering. ours: generator with its match table (without it), median of 9 runs;\n"
        "PSNR nearest = each pixel to the nearest entry, table = through the match table's cell.\n"
        "pngquant --nofs 256: whole program run (start, PNG decode and encode), median of 3;\n"
        "PSNR of its output PNG, and of each pixel to the nearest entry of its palette.\n\n");
    std::printf("%-10s %9s | %16s %7s %8s %8s | %9s %8s %8s | %7s %7s\n", "photo", "size", "ours ms", "colours",
                "nearest", "table", "pq ms", "output", "nearest", "time", "dB");
    int missing = 0;
    for (const char* name : {"astronaut", "coffee", "chelsea"}) {
        const std::string path = dir + "/" + name + ".png";
        Image im;
        if (!load_png(path, im)) {
            std::printf("%-10s skipped: cannot read %s (install python3-skimage or set ZK_PHOTO_DIR)\n", name,
                        path.c_str());
            ++missing;
            continue;
        }
        Ours ours;
        if (!measure_ours(im, ours)) {
            std::printf("%-10s the generator failed\n", name);
            return 1;
        }
        const std::string size = std::to_string(im.width) + "x" + std::to_string(im.height);
        char ours_ms[32];
        std::snprintf(ours_ms, sizeof ours_ms, "%.2f (%.2f)", ours.seconds * 1e3, ours.seconds_no_table * 1e3);
        std::printf("%-10s %9s | %16s %7u %8.2f %8.2f |", name, size.c_str(), ours_ms, ours.used, ours.psnr_nearest,
                    ours.psnr_table);

        std::vector<double> times, cpu_times;
        const std::string output = std::string(temp ? temp : "/tmp") + "/" + name + "-pq.png";
        for (int run = 0; run < 3; ++run) {
            double cpu = 0;
            const double t = run_pngquant(path, output, &cpu);
            if (t < 0) break;
            times.push_back(t);
            cpu_times.push_back(cpu);
        }
        Image quantised;
        if (times.empty() || !load_png(output, quantised) || quantised.width != im.width ||
            quantised.height != im.height) {
            std::printf(" pngquant skipped: not installed or failed (apt-get install pngquant)\n");
            continue;
        }
        double error = 0;
        for (size_t i = 0; i < im.rgb.size(); ++i) {
            const double d = static_cast<double>(im.rgb[i]) - quantised.rgb[i];
            error += d * d;
        }
        const double pq_output = psnr(error, im.rgb.size());
        const double pq_nearest = quantised.palette.empty() ? NAN : psnr_nearest(im, quantised.palette);
        const double pq = median(times);
        std::printf(" %9.2f %8.2f %8.2f | %6.3fx %+7.2f\n", pq * 1e3, pq_output, pq_nearest, ours.seconds / pq,
                    ours.psnr_nearest - pq_output);
        std::remove(output.c_str());
        std::printf("%-10s ours with black and white kept (254 filled): nearest %.2f dB\n", "", ours.psnr_preset);
        std::printf(
            "%-10s pngquant processor time %.2f ms; copy of the photograph's %zu bytes %.3f ms (ours %.0fx that)\n", "",
            median(cpu_times) * 1e3, im.rgb.size(), ours.copy_seconds * 1e3, ours.seconds / ours.copy_seconds);
    }
    if (temp) rmdir(temp);
    std::printf("\ntime = our time (with match table) / pngquant's; dB = our nearest PSNR - pngquant's output PSNR\n");
    if (missing) std::printf("%d photograph(s) skipped\n", missing);
    return 0;
}
