// A synthetic 300 dpi A4 text page at 1 bit per pixel (2480 x 3508 pixels,
// white margins of an inch, lines of letter-sized blobs made of short
// horizontal and vertical strokes, about 6 % black), for the run-length
// benchmarks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>

namespace zkbench {

constexpr uint32_t kPageWidth = 2480, kPageHeight = 3508;
constexpr size_t kPageStride = (kPageWidth + 31) / 32 * 4;
constexpr size_t kPageBytes = kPageStride * kPageHeight;

// Draws the page into `packed` (kPageBytes, zero on entry; rows kPageStride
// apart, most significant bit first, a set bit black).
//
// 10-point text: lines 54 pixels apart inside the margins, letters 16-26
// pixels wide with an x-height of 20, made of stems and bars 3-4 pixels
// thick, some with an ascender or a descender; words of 2-9 letters;
// paragraphs of 8 lines with an indented first and a short last line, a
// blank line between them.
inline void draw_text_page(uint8_t* packed) {
    const auto box = [packed](uint32_t x, uint32_t y, uint32_t w, uint32_t h) {
        for (uint32_t j = y; j < y + h && j < kPageHeight; ++j)
            for (uint32_t i = x; i < x + w && i < kPageWidth; ++i)
                packed[j * kPageStride + i / 8] |= static_cast<uint8_t>(0x80 >> i % 8);
    };
    std::mt19937 rng(2024);
    auto pick = [&rng](uint32_t lo, uint32_t hi) { return lo + rng() % (hi - lo + 1); };
    const uint32_t left = 300, right = kPageWidth - 300;
    for (uint32_t line = 0, base = 330; base + 30 < kPageHeight - 300; base += 54, ++line) {
        if (line % 9 == 8) continue;
        const uint32_t end = line % 9 == 7 ? pick(left + 300, right) : right;
        for (uint32_t x = left + (line % 9 == 0 ? 80 : 0); x + 26 < end;) {
            const uint32_t letters = pick(2, 9);
            for (uint32_t l = 0; l < letters && x + 26 < end; ++l) {
                const uint32_t w = pick(16, 26), t = 3 + (rng() % 4 == 0), top = base - 20;
                const uint32_t shape = rng() % 6;
                box(x, shape == 4 ? base - 30 : top, t, shape == 4 ? 30 : 20);     // stem, or ascender
                if (shape != 1) box(x + w - t - 2, top, t, shape == 5 ? 28 : 20);  // stem, or descender
                if (shape % 2 == 0) box(x, top, w - 2, t);                         // top bar
                if (shape == 2 || shape == 3) box(x, base - t, w - 2, t);          // bottom bar
                if (shape == 3) box(x, top + 9, w - 2, t);                         // middle bar
                x += w + pick(3, 5);
            }
            x += pick(12, 20);
        }
    }
}

}  // namespace zkbench
