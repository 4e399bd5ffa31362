// Drives right-angle turns, flips and mirrors of bitmaps of any depth and of
// sizes up to a few whole tiles of the tile kernels (1100 pixels a side at 1
// bit, 200 at 8), held conventionally, in memory tiles, in tiles on disk and
// in a disk file. After every quarter turn the pixels must be those of the
// same turn done on a copy of the rows in a buffer by the portable kernels;
// once the sequence has run, its inverse, in reverse order, must give back
// the first pixels. Temporary files go to a private directory, which must be
// empty once the bitmap is freed.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "core/platform/cpu.h"
#include "fuzz_input.h"
#include "fuzz_storage.h"
#include "zkernel.h"

namespace {

using zkfuzz::check;
using zkfuzz::Reader;

constexpr int32_t kDepths[] = {1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 24, 32, 48, 64};

size_t stride(int64_t w, int32_t bpp) { return size_t(((w * bpp + 31) / 8) & ~int64_t{3}); }

// The rows' pixel bits (the bits past the last pixel of a row cleared:
// turns do not promise them).
std::vector<uint8_t> pixels(BitmapHandle& b) {
    const size_t line = b.BytesPerLine;
    std::vector<uint8_t> out(line * size_t(b.Height));
    const uint64_t bits = uint64_t(b.Width) * uint32_t(b.BitsPerPixel);
    for (int32_t y = 0; y < b.Height; ++y) {
        uint8_t* row = out.data() + size_t(y) * line;
        check(Z_GetBitmapRow(&b, row, uint32_t(y), uint32_t(line)) == int32_t(line));
        for (uint64_t bit = bits; bit < uint64_t(line) * 8; ++bit) {
            // Depths below 8 fill a byte from its top bit; deeper ones (and
            // 12 bits) from its low bit.
            const uint32_t shift = b.BitsPerPixel < 8 ? 7 - uint32_t(bit % 8) : uint32_t(bit % 8);
            row[bit / 8] = uint8_t(row[bit / 8] & ~(1u << shift));
        }
    }
    return out;
}

// The quarter turn of `before` (the bitmap's pixels) as the portable buffer
// kernels give it, in rows of the turned bitmap's length.
std::vector<uint8_t> portable_turn(const std::vector<uint8_t>& before, int32_t w, int32_t h, int32_t bpp, bool cw) {
    namespace pf = zk::platform;
    const size_t from = stride(w, bpp), to = stride(h, bpp);
    std::vector<uint8_t> packed(from * size_t(h)), turned(to * size_t(w));
    for (int32_t y = 0; y < h; ++y)  // bitmap rows are already at the buffer length
        std::copy_n(before.data() + size_t(y) * from, from, packed.data() + size_t(y) * from);
    const pf::CpuTier previous = pf::set_cpu_tier_cap(pf::CpuTier::Portable);
    const int32_t r = Z_RotateBuffer90(packed.data(), turned.data(), cw, w, h, bpp);
    pf::set_cpu_tier_cap(previous);
    check(r == ST_OK);
    return turned;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Reader in{data, size};
    const int32_t bpp = kDepths[in.take(1) % 14];
    const uint32_t most = bpp == 1 ? 1100 : bpp == 8 ? 200 : 80;
    const int32_t width = int32_t(in.take(2) % most) + 1;
    const int32_t height = in.take(1) % 2 ? width : int32_t(in.take(2) % most) + 1;  // squares often
    const uint32_t kind = in.take(1) % 5;  // conventional, memory tiles, disk tiles, disk, runs
    zkfuzz::PrivateTempDir& temp = zkfuzz::PrivateTempDir::get();

    BitmapHandle b;
    check(Z_InitBitmap(&b, Z_BITMAPHANDLE_SIZE, width, height, bpp) == ST_OK);
    // Tiles of about a quarter of the image (at least a row), in memory or
    // on disk with one mapped at a time; the thresholds stay until the end,
    // since results built into new storage take them too.
    const zkfuzz::SavedThresholds saved;
    const auto tile = int32_t(b.Size / 4 > b.BytesPerLine ? b.Size / 4 : b.BytesPerLine);
    check(zkfuzz::allocate_kind(b, kind, tile, tile) == ST_OK);
    b.ViewPerspective = VP_TOP_LEFT;

    std::vector<uint8_t> row(b.BytesPerLine);
    uint32_t seed = in.take(4) | 1u;
    for (int32_t y = 0; y < height; ++y) {
        for (auto& v : row) v = uint8_t((seed = seed * 1103515245u + 12345u) >> 24);
        check(Z_PutBitmapRow(&b, row.data(), uint32_t(y), uint32_t(row.size())) == int32_t(row.size()));
    }
    const std::vector<uint8_t> first = pixels(b);

    std::vector<uint32_t> done;
    for (int steps = 0; in.n && steps < 6; ++steps) {
        const uint32_t op = in.take(1) % 5;  // clockwise, counter-clockwise, half, flip, mirror
        if (op < 2) {
            const std::vector<uint8_t> before = pixels(b);
            const int32_t w = b.Width, h = b.Height;
            check(Z_RotateBitmap90(&b, op == 0) == ST_OK);
            check(b.Width == h && b.Height == w);
            check(pixels(b) == portable_turn(before, w, h, bpp, op == 0));
        } else {
            check((op == 2   ? Z_RotateBitmap(&b, 18000, 0, 0)
                   : op == 3 ? Z_FlipBitmap(&b)
                             : Z_ReverseBitmap(&b)) == ST_OK);
        }
        done.push_back(op);
    }
    for (size_t k = done.size(); k-- > 0;) {
        const uint32_t op = done[k];
        const int32_t r = op < 2    ? Z_RotateBitmap90(&b, op == 1)
                          : op == 2 ? Z_RotateBitmap(&b, 18000, 0, 0)
                          : op == 3 ? Z_FlipBitmap(&b)
                                    : Z_ReverseBitmap(&b);
        check(r == ST_OK);
    }
    check(b.Width == width && b.Height == height && pixels(b) == first);
    Z_FreeBitmap(&b);
    temp.check_clean();
    return 0;
}
