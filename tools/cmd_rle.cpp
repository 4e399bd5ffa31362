// zk rle: a 1-bit image as run-length rows: its statistics, the move into
// and out of run-length storage checked row by row, and optionally a flip
// done on the runs.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "edit.h"

namespace zk_tool {
namespace {

using Clock = std::chrono::steady_clock;
double ms_since(Clock::time_point t) { return std::chrono::duration<double, std::milli>(Clock::now() - t).count(); }

// Hash of a packed 1-bit row's pixel bits (the padding ignored).
uint64_t row_hash(const uint8_t* row, int32_t width) {
    uint64_t h = 1469598103934665603ull;
    const int32_t bytes = (width + 7) / 8;
    for (int32_t i = 0; i < bytes; ++i) {
        uint8_t v = row[i];
        if (i == bytes - 1 && width % 8) v &= static_cast<uint8_t>(0xFF00 >> (width % 8));
        h = (h ^ v) * 1099511628211ull;
    }
    return h;
}

std::vector<uint64_t> hashes(BitmapHandle* b) {
    std::vector<uint8_t> row(b->BytesPerLine);
    std::vector<uint64_t> out(static_cast<size_t>(b->Height));
    for (int32_t r = 0; r < b->Height; ++r) {
        const int32_t got = Z_GetBitmapRow(b, row.data(), static_cast<uint32_t>(r), b->BytesPerLine);
        if (got < 0) check(got, "reading row " + std::to_string(r));
        out[r] = row_hash(row.data(), b->Width);
    }
    return out;
}

int run(const Args& args) {
    if (args.positional.empty() || args.positional.size() > 2)
        throw UsageError("give an input and optionally an output");
    if (args.positional.size() == 2) format_for_output(args.positional[1]);
    const SaveOptions options = save_options(args);
    Progress progress("reading");
    Bitmap bitmap;
    load_image(args.positional[0], bitmap, &progress);
    BitmapHandle* b = bitmap.get();
    if (b->BitsPerPixel != 1)
        throw Failure(
            ST_BAD_BPP,
            "run-length rows are 1-bit, and this image has " + std::to_string(b->BitsPerPixel) + " bits per pixel",
            "convert it first: zk convert --depth 1 --palette fixed IN OUT");
    progress.step("runs");
    // Statistics, and every row's runs expanded again against its pixels.
    const uint32_t capacity = 4 + 2 * (static_cast<uint32_t>(b->Width) + 2);
    std::vector<uint8_t> runs(capacity), packed(b->BytesPerLine), expanded(b->BytesPerLine + 1);
    uint64_t run_bytes = 0, run_count = 0;
    for (int32_t r = 0; r < b->Height; ++r) {
        const int32_t got = Z_GetBitmapRow(b, packed.data(), static_cast<uint32_t>(r), b->BytesPerLine);
        if (got < 0) check(got, "reading row " + std::to_string(r));
        const int32_t n = Z_GetBitmapRowCompressed(b, runs.data(), static_cast<uint32_t>(r), capacity);
        if (n < 0) check(n, "compressing row " + std::to_string(r));
        run_bytes += static_cast<uint32_t>(n);
        uint32_t count = 0;
        std::memcpy(&count, runs.data(), 4);
        run_count += count;
        check(Z_ExpandRow(runs.data(), expanded.data(), 0, static_cast<uint32_t>(b->Width)), "expanding a row");
        if (row_hash(expanded.data(), b->Width) != row_hash(packed.data(), b->Width))
            throw Failure(ST_BAD_PARAM, "row " + std::to_string(r) + " does not expand to its pixels", "report this");
        progress.rows(r + 1, b->Height);
    }
    std::vector<uint64_t> before = hashes(b);
    auto t = Clock::now();
    check(Z_ChangeBitmapCompression(b, 1), "moving the image into run-length storage");
    const double in_ms = ms_since(t);
    uint32_t type = 0, heap = 0, used = 0;
    check(Z_GetBitmapMemoryInfo(b, &type, &heap, &used, nullptr, nullptr, nullptr), "asking the storage kind");
    double flip_ms = -1;
    if (args.has("flip")) {
        t = Clock::now();
        check(Z_FlipBitmap(b), "flipping the run-length rows");
        flip_ms = ms_since(t);
        std::reverse(before.begin(), before.end());
    }
    if (args.positional.size() == 2) save_image(b, args.positional[1], options, &progress);
    t = Clock::now();
    check(Z_ChangeBitmapCompression(b, 0), "moving the image out of run-length storage");
    const double out_ms = ms_since(t);
    const bool same = hashes(b) == before;
    progress.step("");
    const double packed_bytes = static_cast<double>(b->BytesPerLine) * b->Height;
    std::printf("%s: %d x %d, 1 bit per pixel\n", args.positional[0].c_str(), b->Width, b->Height);
    std::printf("  runs           %llu (%.1f a row)\n", static_cast<unsigned long long>(run_count),
                static_cast<double>(run_count) / b->Height);
    std::printf("  run-length     %llu bytes, %.1f %% of the %.0f packed bytes\n",
                static_cast<unsigned long long>(run_bytes), 100.0 * run_bytes / packed_bytes, packed_bytes);
    std::printf("  storage        %s, rows take %u bytes of a %u-byte heap\n",
                type == TYPE_COMPRESSED ? "run-length" : "not run-length", used, heap);
    std::printf("  into runs      %.2f ms\n", in_ms);
    if (flip_ms >= 0) std::printf("  flip on runs   %.2f ms\n", flip_ms);
    std::printf("  out of runs    %.2f ms\n", out_ms);
    std::printf("  round trip     %s\n", same ? "every row as it was" : "ROWS DIFFER");
    return same ? 0 : 1;
}

}  // namespace

extern const Command kRle = {
    "rle",
    "IN [OUT]",
    "1-bit images as run-length rows: statistics, a checked round trip through run-length storage, and OUT "
    "written from the runs",
    {{"flip", "", "flip the image while it is held as runs (OUT is then flipped)"}, ZK_OUTPUT_OPTIONS},
    "zk rle --flip page.tif flipped.tif",
    run,
};

}  // namespace zk_tool
