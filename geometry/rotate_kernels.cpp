// Row reversal and band transposes for right-angle turns.
#include <array>
#include <bit>
#include <cstring>
#include <initializer_list>
#include <utility>

#include "bitmap_handle.h"
#include "core/packed_pixels.h"
#include "core/pixel_format.h"
#include "geometry/rotate.h"

#include "core/platform/x86_intrinsics.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace zk::rotate {
namespace {

constexpr uint64_t byteswap64(uint64_t v) {
    v = (v & 0x00FF00FF00FF00FFull) << 8 | ((v >> 8) & 0x00FF00FF00FF00FFull);
    v = (v & 0x0000FFFF0000FFFFull) << 16 | ((v >> 16) & 0x0000FFFF0000FFFFull);
    return v << 32 | v >> 32;
}

constexpr uint8_t reverse_bits(uint8_t b) {
    b = static_cast<uint8_t>((b & 0xF0) >> 4 | (b & 0x0F) << 4);
    b = static_cast<uint8_t>((b & 0xCC) >> 2 | (b & 0x33) << 2);
    return static_cast<uint8_t>((b & 0xAA) >> 1 | (b & 0x55) << 1);
}

struct ReverseTable {
    uint8_t v[256];
    constexpr ReverseTable() : v() {
        for (int i = 0; i < 256; ++i) v[i] = reverse_bits(static_cast<uint8_t>(i));
    }
};
constexpr ReverseTable kReverse;

void mirror_row1(const uint8_t* src, uint8_t* dst, uint32_t width) {
    const uint32_t bytes = (width + 7) / 8;
    const uint32_t p = (8 - width % 8) % 8;  // unused bits at the end of the span
    for (uint32_t i = 0; i + 1 < bytes; ++i) {
        const uint32_t hi = kReverse.v[src[bytes - 1 - i]];
        const uint32_t lo = kReverse.v[src[bytes - 2 - i]];
        dst[i] = static_cast<uint8_t>(p ? (hi << p) | (lo >> (8 - p)) : hi);
    }
    const uint8_t last = static_cast<uint8_t>(kReverse.v[src[0]] << p);
    const uint8_t keep = static_cast<uint8_t>(0xFFu >> (8 - p) & 0xFFu);  // the p low bits
    dst[bytes - 1] = static_cast<uint8_t>((last & ~keep) | (dst[bytes - 1] & keep));
}

void mirror_bytes(const uint8_t* src, uint8_t* dst, uint32_t width) {
    uint32_t j = 0;
    for (; j + 8 <= width; j += 8) {
        uint64_t v;
        std::memcpy(&v, src + (width - j - 8), 8);
        v = byteswap64(v);
        std::memcpy(dst + j, &v, 8);
    }
    for (; j < width; ++j) dst[j] = src[width - 1 - j];
}

template <size_t E>
void mirror_units(const uint8_t* src, uint8_t* dst, uint32_t width) {
    const uint8_t* s = src + size_t{width} * E;
    for (uint32_t j = 0; j < width; ++j) {
        s -= E;
        std::memcpy(dst + size_t{j} * E, s, E);
    }
}

inline uint64_t load_le64(const uint8_t* p) {
    uint64_t v;
    std::memcpy(&v, p, 8);
    if constexpr (std::endian::native == std::endian::big) v = byteswap64(v);
    return v;
}

inline void store_le64(uint8_t* p, uint64_t v) {
    if constexpr (std::endian::native == std::endian::big) v = byteswap64(v);
    std::memcpy(p, &v, 8);
}

// Exchanges the `bits`-wide fields of words a and b that lie across the
// diagonal: one step of a transpose by block swaps.
inline void swap_blocks(uint64_t& a, uint64_t& b, unsigned bits, uint64_t mask) {
    const uint64_t t = ((a >> bits) ^ b) & mask;
    b ^= t;
    a ^= t << bits;
}

// 8 x 8 bytes: r[b] holds bytes (b, 0..7) little-endian; afterwards r[a]
// holds bytes (0..7, a).
inline void transpose8x8_bytes(uint64_t r[8]) {
    for (int b = 0; b < 8; b += 2) swap_blocks(r[b], r[b + 1], 8, 0x00FF00FF00FF00FFull);
    for (int b : {0, 1, 4, 5}) swap_blocks(r[b], r[b + 2], 16, 0x0000FFFF0000FFFFull);
    for (int b = 0; b < 4; ++b) swap_blocks(r[b], r[b + 4], 32, 0x00000000FFFFFFFFull);
}

// 8 x 8 bits, row i in byte 7-i of x (row 0 the top byte), column 0 the most
// significant bit of each byte: returns the transposed matrix in the same
// layout.
inline uint64_t transpose8x8_bits(uint64_t x) {
    uint64_t t = (x ^ (x >> 7)) & 0x00AA00AA00AA00AAull;
    x ^= t ^ (t << 7);
    t = (x ^ (x >> 14)) & 0x0000CCCC0000CCCCull;
    x ^= t ^ (t << 14);
    t = (x ^ (x >> 28)) & 0x00000000F0F0F0F0ull;
    x ^= t ^ (t << 28);
    return x;
}

#if defined(__SSE2__)
// 16 x 8 bytes: r[i] holds 8 bytes of row i in its low half; afterwards
// x[c] holds byte c of rows 0..15. Four rounds of interleaves, each pairing
// units twice as wide as the last.
inline void transpose16x8(const __m128i (&r)[16], __m128i (&x)[8]) {
    __m128i t[8], u[8], v[8];
#pragma GCC unroll 8
    for (int j = 0; j < 8; ++j) t[j] = _mm_unpacklo_epi8(r[2 * j], r[2 * j + 1]);
#pragma GCC unroll 8
    for (int p = 0; p < 4; ++p) {  // 32-bit unit c of u[2p+h]: rows 4p..4p+3 of column 4h+c
        u[2 * p] = _mm_unpacklo_epi16(t[2 * p], t[2 * p + 1]);
        u[2 * p + 1] = _mm_unpackhi_epi16(t[2 * p], t[2 * p + 1]);
    }
#pragma GCC unroll 8
    for (int q = 0; q < 2; ++q)  // 64-bit units of v[4q+2h+s]: rows 8q..8q+7 of columns 4h+2s, 4h+2s+1
#pragma GCC unroll 8
        for (int h = 0; h < 2; ++h) {
            v[4 * q + 2 * h] = _mm_unpacklo_epi32(u[4 * q + h], u[4 * q + 2 + h]);
            v[4 * q + 2 * h + 1] = _mm_unpackhi_epi32(u[4 * q + h], u[4 * q + 2 + h]);
        }
#pragma GCC unroll 8
    for (int i = 0; i < 4; ++i) {
        x[2 * i] = _mm_unpacklo_epi64(v[i], v[4 + i]);
        x[2 * i + 1] = _mm_unpackhi_epi64(v[i], v[4 + i]);
    }
}
#endif

// One byte column of the band (eight destination rows, g <= 8) from band
// row `k` on; k a multiple of 8.
void transpose1_column(const uint8_t* __restrict col, size_t stride, uint32_t k, uint32_t n, uint32_t g,
                       uint8_t* const* o) {
    // 64 band rows at a time: eight 8 x 8 transposes give 8 bytes of each
    // destination row, stored as one word.
    for (; k + 64 <= n; k += 64) {
        // tile t gives byte t of each row's word: byte a (from the top) of
        // x[t] belongs to destination row a, so the words are the byte
        // transpose of the eight results.
        uint64_t x[8];
        for (uint32_t t = 0; t < 8; ++t) {
            const uint8_t* p = col + (k + 8 * t) * stride;
            uint64_t v = 0;
            for (uint32_t b = 0; b < 8; ++b) v = v << 8 | p[b * stride];
            x[t] = transpose8x8_bits(v);
        }
        transpose8x8_bytes(x);
        for (uint32_t a = 0; a < g; ++a) store_le64(o[a] + (k >> 3), x[7 - a]);
    }
    for (; k < n; k += 8) {
        const uint32_t m = n - k < 8 ? n - k : 8;
        const uint8_t* p = col + k * stride;
        uint64_t x = 0;
        for (uint32_t b = 0; b < m; ++b) x |= uint64_t{p[b * stride]} << (56 - 8 * b);
        x = transpose8x8_bits(x);
        for (uint32_t a = 0; a < g; ++a) o[a][k >> 3] = static_cast<uint8_t>(x >> (56 - 8 * a));
    }
}

#if ZK_X86_TIERS
// The 16 x 8 byte transpose on both lanes at once: the low lanes hold band
// rows k..k+15, the high lanes rows k+16..k+31, each half entering in
// reverse (as in transpose1), so that lane byte i of x[c] is byte column c
// of the i-th row in that order.
__attribute__((target("avx2"), always_inline)) inline void transpose32x8_avx2(const uint8_t* col, size_t stride,
                                                                              uint32_t k, __m256i (&x)[8]) {
    __m256i r[16], t[8], u[8], v[8];
    // Row pointers advance by the stride: no multiply per load.
    const uint8_t* lo_row = col + size_t{k} * stride;
    const uint8_t* hi_row = lo_row + 16 * stride;
#pragma GCC unroll 16
    for (uint32_t i = 0; i < 16; ++i, lo_row += stride, hi_row += stride) {
        const __m128i lo = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(lo_row));
        const __m128i hi = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(hi_row));
        r[i ^ 7] = _mm256_inserti128_si256(_mm256_castsi128_si256(lo), hi, 1);
    }
#pragma GCC unroll 8
    for (int j = 0; j < 8; ++j) t[j] = _mm256_unpacklo_epi8(r[2 * j], r[2 * j + 1]);
#pragma GCC unroll 4
    for (int p = 0; p < 4; ++p) {
        u[2 * p] = _mm256_unpacklo_epi16(t[2 * p], t[2 * p + 1]);
        u[2 * p + 1] = _mm256_unpackhi_epi16(t[2 * p], t[2 * p + 1]);
    }
#pragma GCC unroll 2
    for (int q = 0; q < 2; ++q)
#pragma GCC unroll 2
        for (int h = 0; h < 2; ++h) {
            v[4 * q + 2 * h] = _mm256_unpacklo_epi32(u[4 * q + h], u[4 * q + 2 + h]);
            v[4 * q + 2 * h + 1] = _mm256_unpackhi_epi32(u[4 * q + h], u[4 * q + 2 + h]);
        }
#pragma GCC unroll 4
    for (int i = 0; i < 4; ++i) {
        x[2 * i] = _mm256_unpacklo_epi64(v[i], v[4 + i]);
        x[2 * i + 1] = _mm256_unpackhi_epi64(v[i], v[4 + i]);
    }
}

// 64 band rows by 64 destination rows at a time from band row *k on: two
// masks of 32 rows make each destination row's 8-byte store. Leaves the
// rest from *k on.
__attribute__((target("avx2"))) void transpose1_avx2(const uint8_t* col, size_t stride, uint32_t n, uint8_t* const* out,
                                                     uint32_t* k_io) {
    uint32_t k = *k_io;
    for (; k + 64 <= n; k += 64) {
        __m256i x0[8], x1[8];
        transpose32x8_avx2(col, stride, k, x0);
        transpose32x8_avx2(col, stride, k + 32, x1);
        for (uint32_t c = 0; c < 8; ++c) {
            __m256i v0 = x0[c], v1 = x1[c];
#pragma GCC unroll 8
            for (uint32_t b = 0; b < 8; ++b) {
                const uint64_t m = uint64_t{static_cast<uint32_t>(_mm256_movemask_epi8(v0))} |
                                   uint64_t{static_cast<uint32_t>(_mm256_movemask_epi8(v1))} << 32;
                store_le64(out[8 * c + b] + (k >> 3), m);
                v0 = _mm256_add_epi8(v0, v0);
                v1 = _mm256_add_epi8(v1, v1);
            }
        }
    }
    *k_io = k;
}
#endif

// The band is n rows of `stride` bytes from `band`; reads may run up to 8
// bytes past a row's pixels (the band block has that slack).
void transpose1(const uint8_t* __restrict band, size_t stride, uint32_t n, uint32_t d0, uint32_t g,
                uint8_t* const* out) {
    const uint8_t* col = band + (d0 >> 3);
    uint32_t k = 0;
#if ZK_X86_TIERS
    if (g == 64 && platform::cpu_tier() >= platform::CpuTier::AVX2) transpose1_avx2(col, stride, n, out, &k);
#endif
#if defined(__SSE2__)
    if (g == 64) {
        // 16 band rows by 8 bytes, transposed so that each vector holds one
        // byte column of the 16 rows; the top bit of its bytes is then one
        // destination row's 16 pixels, taken by a byte mask and shifted out
        // a bit at a time. The rows enter in reverse within each half so
        // that the mask's low byte has the first row in its top bit. Four
        // such masks side by side (64 band rows) make each destination
        // row's 8-byte store.
        for (; k + 64 <= n; k += 64) {
            __m128i x[4][8];
            for (uint32_t q = 0; q < 4; ++q) {
                __m128i r[16];
                const uint8_t* row = col + size_t{k + 16 * q} * stride;
#pragma GCC unroll 16
                for (uint32_t i = 0; i < 16; ++i, row += stride)
                    r[i ^ 7] = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(row));
                transpose16x8(r, x[q]);
            }
            for (uint32_t c = 0; c < 8; ++c) {
                __m128i v0 = x[0][c], v1 = x[1][c], v2 = x[2][c], v3 = x[3][c];
#pragma GCC unroll 8
                for (uint32_t b = 0; b < 8; ++b) {
                    const uint64_t m = uint64_t{static_cast<uint16_t>(_mm_movemask_epi8(v0))} |
                                       uint64_t{static_cast<uint16_t>(_mm_movemask_epi8(v1))} << 16 |
                                       uint64_t{static_cast<uint16_t>(_mm_movemask_epi8(v2))} << 32 |
                                       uint64_t{static_cast<uint16_t>(_mm_movemask_epi8(v3))} << 48;
                    store_le64(out[8 * c + b] + (k >> 3), m);
                    v0 = _mm_add_epi8(v0, v0);
                    v1 = _mm_add_epi8(v1, v1);
                    v2 = _mm_add_epi8(v2, v2);
                    v3 = _mm_add_epi8(v3, v3);
                }
            }
        }
        for (; k + 16 <= n; k += 16) {
            __m128i r[16], x[8];
            const uint8_t* row = col + size_t{k} * stride;
#pragma GCC unroll 16
            for (uint32_t i = 0; i < 16; ++i, row += stride)
                r[i ^ 7] = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(row));
            transpose16x8(r, x);
            for (uint32_t c = 0; c < 8; ++c) {
                __m128i v = x[c];
#pragma GCC unroll 8
                for (uint32_t b = 0; b < 8; ++b) {
                    const auto m = static_cast<uint16_t>(_mm_movemask_epi8(v));
                    v = _mm_add_epi8(v, v);
                    std::memcpy(out[8 * c + b] + (k >> 3), &m, 2);
                }
            }
        }
    }
#endif
    for (uint32_t j = 0; j * 8 < g; ++j)
        transpose1_column(col + j, stride, k, n, g - 8 * j < 8 ? g - 8 * j : 8, out + 8 * j);
}

void transpose8(const uint8_t* __restrict band, size_t stride, uint32_t n, uint32_t d0, uint32_t g,
                uint8_t* const* out) {
    uint8_t* o[8];
    for (uint32_t a = 0; a < g; ++a) o[a] = out[a];
    uint32_t k = 0;
    if (g == 8) {
#if defined(__SSE2__)
        for (; k + 16 <= n; k += 16) {
            const uint8_t* p = band + k * stride + d0;
            __m128i r[16], x[8];
#pragma GCC unroll 16
            for (uint32_t i = 0; i < 16; ++i) r[i] = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(p + i * stride));
            transpose16x8(r, x);
            for (int a = 0; a < 8; ++a) _mm_storeu_si128(reinterpret_cast<__m128i*>(o[a] + k), x[a]);
        }
#endif
        for (; k + 8 <= n; k += 8) {
            const uint8_t* p = band + k * stride + d0;
            uint64_t r[8];
            for (uint32_t b = 0; b < 8; ++b) r[b] = load_le64(p + b * stride);
            transpose8x8_bytes(r);
            for (int a = 0; a < 8; ++a) store_le64(o[a] + k, r[a]);
        }
    }
    for (; k < n; ++k)
        for (uint32_t a = 0; a < g; ++a) o[a][k] = band[k * stride + d0 + a];
}

#if ZK_X86_TIERS
// 8 x 8 pixels of 3 bytes at a time, from band row *k on: each band row's 24
// bytes (read as 32) are spread into eight 32-bit lanes, the 8 x 8 lanes
// are transposed, and each result is packed back to 24 bytes. A strip takes
// 32-byte stores whose last 8 bytes the next block overwrites, and exact
// ones where fewer than 3 pixels would follow. Leaves the rest from *k on.
__attribute__((target("avx2"))) void transpose24_avx2(const uint8_t* p, size_t stride, uint32_t n, uint8_t* const* o,
                                                      uint32_t* k_io) {
    const __m256i spread_lanes = _mm256_setr_epi32(0, 1, 2, 0, 3, 4, 5, 0);
    const __m256i spread = _mm256_setr_epi8(0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1, 0, 1, 2, -1, 3, 4, 5,
                                            -1, 6, 7, 8, -1, 9, 10, 11, -1);
    const __m256i pack = _mm256_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1, 0, 1, 2, 4, 5, 6, 8,
                                          9, 10, 12, 13, 14, -1, -1, -1, -1);
    const __m256i pack_lanes = _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 3, 7);
    uint32_t k = *k_io;
    for (; k + 8 <= n; k += 8) {
        __m256i r[8];
        const uint8_t* row = p + size_t{k} * stride;
#pragma GCC unroll 8
        for (uint32_t i = 0; i < 8; ++i, row += stride) {
            const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(row));
            r[i] = _mm256_shuffle_epi8(_mm256_permutevar8x32_epi32(v, spread_lanes), spread);
        }
        // Lane c of r[i] is pixel c of band row k+i; afterwards lane i of
        // col[c] is that pixel.
        __m256i t[8], u[8], col[8];
#pragma GCC unroll 4
        for (int h = 0; h < 8; h += 4) {
            t[h] = _mm256_unpacklo_epi32(r[h], r[h + 1]);
            t[h + 1] = _mm256_unpackhi_epi32(r[h], r[h + 1]);
            t[h + 2] = _mm256_unpacklo_epi32(r[h + 2], r[h + 3]);
            t[h + 3] = _mm256_unpackhi_epi32(r[h + 2], r[h + 3]);
            u[h] = _mm256_unpacklo_epi64(t[h], t[h + 2]);          // pixels 0 and 4
            u[h + 1] = _mm256_unpackhi_epi64(t[h], t[h + 2]);      // 1 and 5
            u[h + 2] = _mm256_unpacklo_epi64(t[h + 1], t[h + 3]);  // 2 and 6
            u[h + 3] = _mm256_unpackhi_epi64(t[h + 1], t[h + 3]);  // 3 and 7
        }
#pragma GCC unroll 4
        for (int c = 0; c < 4; ++c) {
            col[c] = _mm256_permute2x128_si256(u[c], u[c + 4], 0x20);
            col[c + 4] = _mm256_permute2x128_si256(u[c], u[c + 4], 0x31);
        }
        const size_t at = size_t{k} * 3;
#pragma GCC unroll 8
        for (int a = 0; a < 8; ++a) {
            const __m256i x = _mm256_permutevar8x32_epi32(_mm256_shuffle_epi8(col[a], pack), pack_lanes);
            if (k + 11 <= n) {
                _mm256_storeu_si256(reinterpret_cast<__m256i*>(o[a] + at), x);
            } else {
                _mm_storeu_si128(reinterpret_cast<__m128i*>(o[a] + at), _mm256_castsi256_si128(x));
                _mm_storel_epi64(reinterpret_cast<__m128i*>(o[a] + at + 16), _mm256_extracti128_si256(x, 1));
            }
        }
    }
    *k_io = k;
}
#endif

#if ZK_X86_TIERS
#define ZK_TILE_TARGET __attribute__((target("avx512f,avx512bw,avx512vbmi,gfni")))

// Exchanges bit m of the register index with bit m of the 64-bit word
// index over v[0..7], for m = 1, 2 and 4: afterwards word i of v[g] is what
// word g of v[i] was.
ZK_TILE_TARGET inline void transpose8x8_words(__m512i (&v)[8]) {
#pragma GCC unroll 4
    for (int i = 0; i < 8; i += 2) {
        const __m512i a = v[i], b = v[i + 1];
        v[i] = _mm512_unpacklo_epi64(a, b);
        v[i + 1] = _mm512_unpackhi_epi64(a, b);
    }
    const __m512i lo2 = _mm512_setr_epi64(0, 1, 8, 9, 4, 5, 12, 13),
                  hi2 = _mm512_setr_epi64(2, 3, 10, 11, 6, 7, 14, 15);
#pragma GCC unroll 4
    for (int i : {0, 1, 4, 5}) {
        const __m512i a = v[i], b = v[i + 2];
        v[i] = _mm512_permutex2var_epi64(a, lo2, b);
        v[i + 2] = _mm512_permutex2var_epi64(a, hi2, b);
    }
#pragma GCC unroll 4
    for (int i = 0; i < 4; ++i) {
        const __m512i a = v[i], b = v[i + 4];
        v[i] = _mm512_shuffle_i64x2(a, b, 0x44);
        v[i + 4] = _mm512_shuffle_i64x2(a, b, 0xEE);
    }
}

// Exchanges bit m of the register index with bit m of the byte index within
// each 64-bit word over v[0..7], for m = 1, 2 and 4, with shifts and
// blends (no shuffles): afterwards byte b of each word of v[i] is what byte
// i of that word of v[b] was.
ZK_TILE_TARGET inline void transpose8x8_word_bytes(__m512i (&v)[8]) {
#pragma GCC unroll 4
    for (int i = 0; i < 8; i += 2) {
        const __m512i a = v[i], b = v[i + 1];
        v[i] = _mm512_mask_blend_epi8(0xAAAAAAAAAAAAAAAAull, a, _mm512_slli_epi16(b, 8));
        v[i + 1] = _mm512_mask_blend_epi8(0xAAAAAAAAAAAAAAAAull, _mm512_srli_epi16(a, 8), b);
    }
#pragma GCC unroll 4
    for (int i : {0, 1, 4, 5}) {
        const __m512i a = v[i], b = v[i + 2];
        v[i] = _mm512_mask_blend_epi16(0xAAAAAAAAu, a, _mm512_slli_epi32(b, 16));
        v[i + 2] = _mm512_mask_blend_epi16(0xAAAAAAAAu, _mm512_srli_epi32(a, 16), b);
    }
#pragma GCC unroll 4
    for (int i = 0; i < 4; ++i) {
        const __m512i a = v[i], b = v[i + 4];
        v[i] = _mm512_mask_blend_epi32(0xAAAA, a, _mm512_slli_epi64(b, 32));
        v[i + 4] = _mm512_mask_blend_epi32(0xAAAA, _mm512_srli_epi64(a, 32), b);
    }
}

// Loads 64 bytes at `col` of the eight rows r[0..7] and exchanges the
// register index with the byte index within each word (the first step of
// both tile kernels).
ZK_TILE_TARGET inline void load_rows_exchanged(const uint8_t* const* r, size_t col, __m512i (&v)[8]) {
#pragma GCC unroll 8
    for (int i = 0; i < 8; ++i) v[i] = _mm512_loadu_si512(r[i] + col);
    transpose8x8_word_bytes(v);
}

// Transposes the 64-bit words of the eight registers in[0..7] and stores
// register j at out + j * out_step (the last step of both tile kernels).
ZK_TILE_TARGET inline void store_words_exchanged(const __m512i* in, uint8_t* out, size_t out_step) {
    __m512i v[8];
#pragma GCC unroll 8
    for (int k = 0; k < 8; ++k) v[k] = in[k];
    transpose8x8_words(v);
#pragma GCC unroll 8
    for (int j = 0; j < 8; ++j) _mm512_storeu_si512(out + j * out_step, v[j]);
}

// 512 band rows by 512 pixels (64 bytes of each band row, so every source
// line is read whole and every destination strip gets 64 whole bytes).
// Indices: band row r = 64 kb + 8 R + i, pixel x = 64 g + 8 c + j, where
// (g, c) is the byte of the pixel in its band row (word g, byte c) and j
// its bit from the top; destination row x receives band row r as bit i of
// its byte (kb, R) (word kb, byte R). Each step exchanges three index bits
// of the register with three of the byte, between eight registers:
//   1. eight band rows (kb, R): i <-> c; the bit-matrix product turns each
//      word's 8 x 8 bits (byte i <-> bit j); a byte permute exchanges the
//      word and byte indices (g, j -> j, g);
//   2. per (kb, c), the eight R: R <-> g;
//   3. per (g, c), the eight kb: kb <-> j, giving destination rows
//      (g, c, 0..7).
// The steps meet in a scratch block of 64 + 512 registers.
ZK_TILE_TARGET void turn1_tile_avx512(const uint8_t* const* rows, size_t col, uint8_t* out, size_t out_stride,
                                      __m512i* scratch) {
    // Byte 8 q + b takes byte 8 b + q: the 8 x 8 byte transpose within each
    // register.
    alignas(64) static constexpr uint8_t kBytes[64] = {0, 8,  16, 24, 32, 40, 48, 56, 1, 9,  17, 25, 33, 41, 49, 57,
                                                       2, 10, 18, 26, 34, 42, 50, 58, 3, 11, 19, 27, 35, 43, 51, 59,
                                                       4, 12, 20, 28, 36, 44, 52, 60, 5, 13, 21, 29, 37, 45, 53, 61,
                                                       6, 14, 22, 30, 38, 46, 54, 62, 7, 15, 23, 31, 39, 47, 55, 63};
    const __m512i bytes = _mm512_load_si512(kBytes);
    // Byte j of the product of an 8 x 8 bit matrix (word) with 0x80 >> j
    // is column j of the matrix with row i in bit 7 - i: its transpose, in
    // the pixel order of the rows.
    const __m512i unit = _mm512_set1_epi64(0x0102040810204080);
    __m512i* first = scratch;        // [c][R], one k-block at a time
    __m512i* second = scratch + 64;  // [g][c][kb]
    for (uint32_t kb = 0; kb < 8; ++kb) {
        for (uint32_t R = 0; R < 8; ++R) {
            __m512i v[8];
            load_rows_exchanged(rows + 64 * kb + 8 * R, col, v);
#pragma GCC unroll 8
            for (int c = 0; c < 8; ++c)
                first[8 * c + R] = _mm512_permutexvar_epi8(bytes, _mm512_gf2p8affine_epi64_epi8(unit, v[c], 0));
        }
        for (uint32_t c = 0; c < 8; ++c) {
            __m512i v[8];
#pragma GCC unroll 8
            for (int R = 0; R < 8; ++R) v[R] = first[8 * c + R];
            transpose8x8_word_bytes(v);
#pragma GCC unroll 8
            for (int g = 0; g < 8; ++g) second[64 * g + 8 * c + kb] = v[g];
        }
    }
    for (uint32_t gc = 0; gc < 64; ++gc) store_words_exchanged(second + 8 * gc, out + 8 * gc * out_stride, out_stride);
}

// 64 band rows by 64 pixels at 8 bits: band row r = 8 R + i, pixel
// x = 8 g + c (word g, byte c of the band row's 64 bytes); destination row x
// receives band row r as its byte (R, i) (word R, byte i). Two steps, each
// an exchange of three index bits between eight registers:
//   1. eight band rows (R): i <-> c, by shifts and blends;
//   2. per c, the eight R: R <-> g, by word permutes, giving destination
//      rows (0..7, c).
// The steps meet in a scratch block of 64 registers.
ZK_TILE_TARGET void turn8_tile_avx512(const uint8_t* const* rows, size_t col, uint8_t* out, size_t out_stride,
                                      __m512i* scratch) {
    for (uint32_t R = 0; R < 8; ++R) {
        __m512i v[8];
        load_rows_exchanged(rows + 8 * R, col, v);
#pragma GCC unroll 8
        for (int c = 0; c < 8; ++c) scratch[8 * c + R] = v[c];
    }
    for (uint32_t c = 0; c < 8; ++c) store_words_exchanged(scratch + 8 * c, out + c * out_stride, 8 * out_stride);
}

ZK_TILE_TARGET void store_runs_avx512(const uint8_t* stage, size_t stride, size_t bytes, uint8_t* const* dst,
                                      uint32_t count, bool stream) {
    for (uint32_t x = 0; x < count; ++x, stage += stride) {
        uint8_t* q = dst[x];
        if (stream && reinterpret_cast<uintptr_t>(q) % 64 == 0) {
            for (size_t o = 0; o < bytes; o += 64)
                _mm512_stream_si512(reinterpret_cast<__m512i*>(q + o), _mm512_load_si512(stage + o));
        } else {
            for (size_t o = 0; o < bytes; o += 64) _mm512_storeu_si512(q + o, _mm512_load_si512(stage + o));
        }
    }
}

void turn1_tile(const uint8_t* const* rows, size_t col, uint8_t* out, size_t out_stride, void* scratch) {
    turn1_tile_avx512(rows, col, out, out_stride, static_cast<__m512i*>(scratch));
}
void turn8_tile(const uint8_t* const* rows, size_t col, uint8_t* out, size_t out_stride, void* scratch) {
    turn8_tile_avx512(rows, col, out, out_stride, static_cast<__m512i*>(scratch));
}
#undef ZK_TILE_TARGET
#endif

template <size_t E>
void transpose_units(const uint8_t* __restrict band, size_t stride, uint32_t n, uint32_t d0, uint32_t g,
                     uint8_t* const* out) {
    // Band row by band row: its g pixels are read together and go to g
    // strips, so each band row's bytes are read once from a line already in
    // cache. Whole words where a unit is 3 or 6 bytes: each store spills
    // into the next unit's place, which the next band row's store
    // overwrites; the last unit of a strip is stored exactly.
    constexpr size_t W = E == 3 ? 4 : E == 6 ? 8 : E;
    uint8_t* o[8];
    for (uint32_t a = 0; a < g; ++a) o[a] = out[a];
    const uint8_t* p = band + size_t{d0} * E;
    uint32_t k = 0;
#if ZK_X86_TIERS
    if (E == 3 && g == 8 && platform::cpu_tier() >= platform::CpuTier::AVX2) {
        transpose24_avx2(p, stride, n, o, &k);
        p += size_t{k} * stride;
    }
#endif
    if (g == 8) {
        for (; k + 1 < n; ++k, p += stride)
#pragma GCC unroll 8
            for (uint32_t a = 0; a < 8; ++a) std::memcpy(o[a] + size_t{k} * E, p + a * E, W);
    }
    for (; k < n; ++k, p += stride) {
        for (uint32_t a = 0; a < g; ++a) {
            if (k + 1 < n)
                std::memcpy(o[a] + size_t{k} * E, p + a * E, W);
            else
                std::memcpy(o[a] + size_t{k} * E, p + a * E, E);
        }
    }
}

// Depths whose pixels are reached one at a time through core/packed_pixels.h
// (fields of 2..7 bits, 12-bit samples): pixel i of a row, read and stored
// with every other bit kept.
template <int Bits>
struct FieldPixels {
    static uint32_t get(const uint8_t* row, uint64_t i) { return packed::get_field(row, i, Bits); }
    static void put(uint8_t* row, uint64_t i, uint32_t v) { packed::put_field(row, i, Bits, v); }
};
struct Gray12Pixels {
    static uint32_t get(const uint8_t* row, uint64_t i) { return packed::get12(row, i); }
    static void put(uint8_t* row, uint64_t i, uint32_t v) { packed::put12(row, i, v); }
};

template <class Px>
void mirror_pixels(const uint8_t* src, uint8_t* dst, uint32_t width) {
    for (uint32_t j = 0; j < width; ++j) Px::put(dst, j, Px::get(src, width - 1 - j));
}

// Pixel by pixel. At 4 bits the bits after an odd strip's last pixel are
// cleared (1 bit clears them too, a whole byte at a time); at other depths
// they keep their values.
template <class Px, bool ClearOddNibble>
void transpose_pixels(const uint8_t* band, size_t stride, uint32_t n, uint32_t d0, uint32_t g, uint8_t* const* out) {
    for (uint32_t a = 0; a < g; ++a)
        for (uint32_t k = 0; k < n; ++k) Px::put(out[a], k, Px::get(band + k * stride, d0 + a));
    if constexpr (ClearOddNibble)
        if (n & 1)
            for (uint32_t a = 0; a < g; ++a) out[a][n >> 1] &= 0xF0;
}

// Tile kernels of the 512-bit tier. 1 bit: results for two tiles of band
// rows (128 bytes) before they are stored; 8 bits: eight (512 bytes).
#if ZK_X86_TIERS
constexpr TileKernel kOneBitTiles = {512, 2, (64 + 512) * 64, turn1_tile};
constexpr TileKernel kEightBitTiles = {64, 8, 64 * 64, turn8_tile};
constexpr const TileKernel* kOneBitTileKernel = &kOneBitTiles;
constexpr const TileKernel* kEightBitTileKernel = &kEightBitTiles;
#else
constexpr const TileKernel* kOneBitTileKernel = nullptr;
constexpr const TileKernel* kEightBitTileKernel = nullptr;
#endif

// A depth's row reversal, strip transpose and tile kernel (null: none; used
// only where the processor has the 512-bit tier).
struct TurnKernels {
    void (*mirror)(const uint8_t* src, uint8_t* dst, uint32_t width) = nullptr;
    void (*transpose)(const uint8_t* band, size_t stride, uint32_t n, uint32_t d0, uint32_t g,
                      uint8_t* const* out) = nullptr;
    const TileKernel* tiles = nullptr;
};

// Each depth's kernels, chosen by its entry in the pixel-format table: 1 bit
// by whole bytes, 8 bits by bytes, wider pixels by units of their bytes, the
// other fields and 12-bit samples pixel by pixel.
template <int32_t Depth>
constexpr TurnKernels turn_kernels_of() {
    constexpr PixelFormat f = pixel_format(Depth);
    if constexpr (!f.bitmap)
        return {};
    else if constexpr (f.packing == Packing::Fields && f.bits == 1)
        return {mirror_row1, transpose1, kOneBitTileKernel};
    else if constexpr (f.packing == Packing::Fields)
        return {mirror_pixels<FieldPixels<f.bits>>, transpose_pixels<FieldPixels<f.bits>, f.bits == 4>};
    else if constexpr (f.packing == Packing::Gray12)
        return {mirror_pixels<Gray12Pixels>, transpose_pixels<Gray12Pixels, false>};
    else if constexpr (f.packing == Packing::Byte)
        return {mirror_bytes, transpose8, kEightBitTileKernel};
    else
        return {mirror_units<f.bits / 8>, transpose_units<f.bits / 8>};
}

template <size_t... D>
constexpr auto turn_table(std::index_sequence<D...>) {
    return std::array<TurnKernels, sizeof...(D)>{turn_kernels_of<static_cast<int32_t>(D)>()...};
}

constexpr auto kTurn = turn_table(std::make_index_sequence<kMaxDepth + 1>());

const TurnKernels& turn_kernels(int32_t bpp) {
    static constexpr TurnKernels kNone{};
    return bpp >= 0 && bpp <= kMaxDepth ? kTurn[static_cast<size_t>(bpp)] : kNone;
}

}  // namespace

void mirror_row(const uint8_t* src, uint8_t* dst, uint32_t width, int32_t bpp) {
    const TurnKernels& k = turn_kernels(bpp);
    if (width != 0 && k.mirror) k.mirror(src, dst, width);
}

void transpose_strip(int32_t bpp, const uint8_t* band, size_t stride, uint32_t n, uint32_t d0, uint32_t g,
                     uint8_t* const* out) {
    const TurnKernels& k = turn_kernels(bpp);
    if (k.transpose) k.transpose(band, stride, n, d0, g, out);
}

const TileKernel* tile_kernel(int32_t bpp) {
#if ZK_X86_TIERS
    if (platform::cpu_tier() < platform::CpuTier::AVX512) return nullptr;
#endif
    return turn_kernels(bpp).tiles;
}

void store_runs(const uint8_t* stage, size_t stride, size_t bytes, uint8_t* const* dst, uint32_t count, bool stream) {
#if ZK_X86_TIERS
    store_runs_avx512(stage, stride, bytes, dst, count, stream);
#else
    (void)stage, (void)stride, (void)bytes, (void)dst, (void)count, (void)stream;
#endif
}

uint32_t band_rows(uint64_t row_bytes, uint64_t budget) {
    uint64_t rows = row_bytes ? budget / row_bytes : budget;
    if (rows > (uint64_t{1} << 30)) rows = uint64_t{1} << 30;
    rows &= ~uint64_t{7};
    return rows < 8 ? 8 : static_cast<uint32_t>(rows);
}

}  // namespace zk::rotate
