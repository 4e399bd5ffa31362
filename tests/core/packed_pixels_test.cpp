// core/packed_pixels.h against a bit-by-bit model of the packed layouts:
// every depth it reads and writes, every pixel of a 40-byte row, every value,
// on rows of zeros, of ones and of noise.
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <utility>

#include "core/packed_pixels.h"

namespace {

constexpr size_t kRowBytes = 40;
using Row = std::array<uint8_t, kRowBytes>;

// Where bit k (0 the least significant) of pixel i lies: its byte and mask.
// Fields run from the most significant bit of each byte, the value's top bit
// first; 12-bit sample i is bits 4 (i & 1) .. 4 (i & 1) + 11 of the
// little-endian word at byte 3 (i / 2) + (i & 1).
std::pair<size_t, uint8_t> place(int32_t bpp, uint64_t i, uint32_t k) {
    if (bpp == 12) {
        const uint64_t bit = 4 * (i & 1) + k;
        return {3 * (i / 2) + (i & 1) + bit / 8, static_cast<uint8_t>(1u << bit % 8)};
    }
    const uint64_t bit = i * static_cast<uint32_t>(bpp) + static_cast<uint32_t>(bpp) - 1 - k;
    return {bit / 8, static_cast<uint8_t>(0x80u >> bit % 8)};
}

uint32_t model_get(const Row& row, int32_t bpp, uint64_t i) {
    uint32_t v = 0;
    for (uint32_t k = 0; k < static_cast<uint32_t>(bpp); ++k) {
        const auto [byte, mask] = place(bpp, i, k);
        if (row[byte] & mask) v |= 1u << k;
    }
    return v;
}

void model_put(Row& row, int32_t bpp, uint64_t i, uint32_t v) {
    for (uint32_t k = 0; k < static_cast<uint32_t>(bpp); ++k) {
        const auto [byte, mask] = place(bpp, i, k);
        row[byte] = static_cast<uint8_t>((v >> k & 1u) ? row[byte] | mask : row[byte] & ~mask);
    }
}

TEST(PackedPixels, EveryDepthPixelAndValueAgainstABitModel) {
    for (int32_t d = -1; d <= zk::kMaxDepth + 1; ++d)
        EXPECT_EQ(zk::packed::packed_depth(d), (d >= 1 && d <= 8) || d == 12) << d;
    Row zeros{}, ones, noise;
    ones.fill(0xFF);
    uint32_t seed = 0x2545F491u;
    for (uint8_t& b : noise) b = static_cast<uint8_t>((seed = seed * 1103515245u + 12345u) >> 24);
    for (const int32_t bpp : {1, 2, 3, 4, 5, 6, 7, 8, 12}) {
        const uint64_t pixels = kRowBytes * 8 / static_cast<uint32_t>(bpp);
        for (const Row& start : {zeros, ones, noise}) {
            for (uint64_t i = 0; i < pixels; ++i) {
                ASSERT_EQ(zk::packed::get(start.data(), i, bpp), model_get(start, bpp, i)) << bpp << " " << i;
                // Bits above the depth's are ignored (given at odd pixels).
                const uint32_t junk = (i & 1) ? ~0u << bpp : 0;
                for (uint32_t v = 0; v < (1u << bpp); ++v) {
                    Row got = start, want = start;
                    zk::packed::put(got.data(), i, bpp, v | junk);
                    model_put(want, bpp, i, v);
                    ASSERT_EQ(got, want) << bpp << " bits, pixel " << i << ", value " << v;
                    ASSERT_EQ(zk::packed::get(got.data(), i, bpp), v) << bpp << " " << i;
                }
            }
        }
    }
}

}  // namespace
