// An image larger than 4 GiB held in tiled storage with disk tiles: an
// 80,000 x 60,000 8-bit bitmap (4.8 GB) is allocated with no memory tiles and
// one view, every row is written and read back and checked, and the program
// prints the time of each pass, the mappings made and the peak resident set.
// Beside each pass it times the same row loop against memory (each row
// copied into or out of a touched 64 MiB ring with memcpy, three times, range
// printed), so each figure reads as a ratio to memory bandwidth, and it
// prints the processor.
//
// Usage: bench_big_image [temporary directory [passes]]   (needs ~4.8 GB free
// there; one write and read pass by default, which takes tens of seconds)
// A 64-bit build only; not a test and not run by ctest.
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench_support.h"
#include "platform/platform.h"
#include "zkernel.h"

namespace {

constexpr int32_t kWidth = 80000;
constexpr int32_t kHeight = 60000;

long peak_rss_kib() {
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return u.ru_maxrss;  // KiB on Linux
}

double seconds_since(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// Row r holds the pattern from offset r % 251 with the row index in its
// first four bytes: every row differs and a misplaced row is caught.
const uint8_t* expected_row(const std::vector<uint8_t>& pattern, std::vector<uint8_t>& row, uint32_t r) {
    std::memcpy(row.data(), pattern.data() + r % 251, row.size());
    std::memcpy(row.data(), &r, sizeof r);
    return row.data();
}

struct Range {
    double min = 0, max = 0;
};

// The pass's row loop with a touched memory ring in place of the bitmap:
// rows built and copied in (write) or copied out and compared (read). Real
// time of the best and worst of three runs.
Range memcpy_baseline(const std::vector<uint8_t>& pattern, size_t bpl, bool write) {
    constexpr size_t kRing = size_t{64} << 20;
    const size_t rows_in_ring = kRing / bpl;
    zkbench::BufferPair ring(rows_in_ring * bpl, bpl);
    std::vector<uint8_t> want(bpl);
    uint8_t* row = ring.second();
    Range r{1e30, 0};
    for (int run = 0; run < 3; ++run) {
        uint64_t bad = 0;
        const auto t0 = std::chrono::steady_clock::now();
        for (uint32_t y = 0; y < static_cast<uint32_t>(kHeight); ++y) {
            uint8_t* slot = ring.first() + (y % rows_in_ring) * bpl;
            if (write) {
                std::memcpy(slot, expected_row(pattern, want, y), bpl);
            } else {
                std::memcpy(row, slot, bpl);
                bad += std::memcmp(row, expected_row(pattern, want, y), bpl) != 0;
            }
        }
        const double s = seconds_since(t0);
        benchmark::DoNotOptimize(bad);
        r.min = std::min(r.min, s);
        r.max = std::max(r.max, s);
    }
    return r;
}

}  // namespace

int main(int argc, char** argv) {
    if (sizeof(void*) < 8) {
        std::printf("big_image needs a 64-bit build\n");
        return 0;
    }
    const int passes = argc > 2 ? std::max(1, std::atoi(argv[2])) : 1;
    std::printf("%s\n", zkbench::processor_model().c_str());
    if (argc > 1) {
        const std::wstring dir = zk::platform::from_utf8(argv[1]);
        if (Z_SetTempDirectory(dir.c_str()) != ST_OK) {
            std::printf("bad temporary directory %s\n", argv[1]);
            return 1;
        }
    }
    // No memory tiles, one mapped view (the default).
    Z_SetMemoryThresholds(0, 0, 0, 0, 1, 8 | 16);

    BitmapHandle b{};
    Z_InitBitmap(&b, Z_BITMAPHANDLE_SIZE, kWidth, kHeight, 8);
    auto t0 = std::chrono::steady_clock::now();
    const int32_t status = Z_AllocateBitmap(&b, TYPE_CONV);
    if (status != ST_OK) {
        std::printf("allocation failed: %d\n", status);
        return 1;
    }
    uint32_t type = 0, tile = 0, count = 0, mem = 0, max_mapped = 0;
    Z_GetBitmapMemoryInfo(&b, &type, &tile, &count, &mem, &max_mapped, nullptr);
    std::printf("size %zu bytes, type %u, %u tiles of %u bytes, %u in memory, %u mapped at most (%.2f s)\n", b.Size,
                type, count, tile, mem, max_mapped, seconds_since(t0));

    std::vector<uint8_t> pattern(kWidth + 256);
    for (size_t i = 0; i < pattern.size(); ++i) pattern[i] = static_cast<uint8_t>(i * 131 + (i >> 9));
    std::vector<uint8_t> row(b.BytesPerLine), want(b.BytesPerLine);

    const double gb = double(b.Size) / 1e9;
    uint64_t bad = 0;
    long peak_kib = 0;  // before the first memory baseline adds its ring
    for (int pass = 1; pass <= passes; ++pass) {
        zk::platform::reset_fault_counters();
        t0 = std::chrono::steady_clock::now();
        for (uint32_t r = 0; r < static_cast<uint32_t>(kHeight); ++r) {
            if (Z_PutBitmapRow(&b, expected_row(pattern, want, r), r, b.BytesPerLine) != int32_t(b.BytesPerLine)) {
                std::printf("put failed at row %u\n", r);
                return 1;
            }
        }
        const double write_s = seconds_since(t0);
        const long write_maps = zk::platform::fault_calls(zk::platform::FaultKind::Mapping);

        zk::platform::reset_fault_counters();
        t0 = std::chrono::steady_clock::now();
        for (uint32_t r = 0; r < static_cast<uint32_t>(kHeight); ++r) {
            if (Z_GetBitmapRow(&b, row.data(), r, b.BytesPerLine) != int32_t(b.BytesPerLine) ||
                std::memcmp(row.data(), expected_row(pattern, want, r), row.size()) != 0)
                ++bad;
        }
        const double read_s = seconds_since(t0);
        const long read_maps = zk::platform::fault_calls(zk::platform::FaultKind::Mapping);

        if (pass == 1) peak_kib = peak_rss_kib();
        const Range write_mem = memcpy_baseline(pattern, b.BytesPerLine, true);
        const Range read_mem = memcpy_baseline(pattern, b.BytesPerLine, false);
        std::printf(
            "pass %d write: %.2f s (%.2f GB/s), %ld mappings; same rows into memory %.2f-%.2f s (ratio %.3f-%.3f)\n",
            pass, write_s, gb / write_s, write_maps, write_mem.min, write_mem.max, write_mem.min / write_s,
            write_mem.max / write_s);
        std::printf(
            "pass %d read+verify: %.2f s (%.2f GB/s), %ld mappings, %llu bad rows; same rows from memory "
            "%.2f-%.2f s (ratio %.3f-%.3f)\n",
            pass, read_s, gb / read_s, read_maps, static_cast<unsigned long long>(bad), read_mem.min, read_mem.max,
            read_mem.min / read_s, read_mem.max / read_s);
    }
    std::printf("peak RSS of the bitmap passes: %.1f MiB\n", double(peak_kib) / 1024.0);
    Z_FreeBitmap(&b);
    return bad == 0 ? 0 : 1;
}
