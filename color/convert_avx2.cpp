// The hot-pair kernels built for processors with 256-bit integer vectors
// (AVX2). Byte shuffles reach only within a 128-bit lane, so 3-byte pixels
// are loaded a lane at a time (four pixels from each 16-byte load, the lanes
// 12 bytes apart) or, where a byte moves by at most two places, taken from
// three loads two bytes apart by a bitwise select. Each kernel gives the
// same bytes as the general path (a test holds every tier to it).
//
// Groups run forwards when the destination pixel is not larger than the
// source pixel, backwards otherwise; a group reads what it needs before it
// stores, and no access leaves the conversion buffer. Pixels before the
// first group and after the last are converted one at a time.
#include "color/convert.h"

#if ZK_X86_TIERS
// The intrinsics start some results from a deliberately undefined register,
// which g++ 12 reports as a possibly uninitialised use.
#if !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#pragma GCC diagnostic ignored "-Wuninitialized"
#endif
#include <immintrin.h>

#include <cstddef>
#include <cstdint>
#include <utility>

namespace zk {
namespace {

struct alignas(32) Bytes32 {
    uint8_t b[32];
};

// A shuffle control or byte mask from its rule for byte j; 0x80 zeroes.
template <typename F>
constexpr Bytes32 make_bytes(F rule) {
    Bytes32 r{};
    for (int j = 0; j < 32; ++j) r.b[j] = static_cast<uint8_t>(rule(j));
    return r;
}

constexpr int kZero = 0x80;

// One pixel at a time, for the ends of a row.
inline void pixel_bgr24_to_bgr32(uint8_t* row, size_t i, bool swap, uint8_t alpha) {
    const uint8_t c0 = row[3 * i], c1 = row[3 * i + 1], c2 = row[3 * i + 2];
    row[4 * i] = swap ? c2 : c0;
    row[4 * i + 1] = c1;
    row[4 * i + 2] = swap ? c0 : c2;
    row[4 * i + 3] = alpha;
}

// Channels of `step` bytes (the last byte of each taken) to 3-byte pixels.
inline void pixel_narrow(uint8_t* row, size_t i, uint32_t stride, uint32_t step, bool swap) {
    const uint8_t* q = row + stride * i + step - 1;
    const uint8_t c0 = q[0], c1 = q[step], c2 = q[2 * step];
    row[3 * i] = swap ? c2 : c0;
    row[3 * i + 1] = c1;
    row[3 * i + 2] = swap ? c0 : c2;
}

inline uint8_t widen5(uint32_t v) { return static_cast<uint8_t>(v << 3 | v >> 2); }

}  // namespace
}  // namespace zk

// Everything from here to the matching pop is built for 256-bit vectors; it
// runs only where platform::cpu_tier() is AVX2 or higher.
#if defined(__clang__)
#pragma clang attribute push(__attribute__((target("avx2"))), apply_to = function)
#else
#pragma GCC push_options
#pragma GCC target("avx2")
#endif

namespace zk {
namespace {

inline __m256i load(const Bytes32& x) { return _mm256_load_si256(reinterpret_cast<const __m256i*>(x.b)); }
inline __m256i load32(const uint8_t* p) { return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)); }
inline void store32(uint8_t* p, __m256i v) { _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), v); }
// A store to a 32-byte aligned address, around the caches with Stream.
template <bool Stream>
inline void put32(uint8_t* p, __m256i v) {
    if constexpr (Stream)
        _mm256_stream_si256(reinterpret_cast<__m256i*>(p), v);
    else
        store32(p, v);
}

// How far ahead of its loads a streaming kernel asks for source lines: the
// hardware prefetcher alone leaves a single thread well short of the
// memory's speed while the kernel also computes.
constexpr size_t kPrefetchBytes = 2048;

// Pixels before the first whose destination byte is 32-byte aligned, for
// destination pixels of `bytes` bytes (3 or 4; 1 for gray).
inline size_t pixels_to_alignment(const uint8_t* dst, uint32_t bytes) {
    const auto gap = static_cast<size_t>((32 - reinterpret_cast<uintptr_t>(dst) % 32) % 32);
    if (bytes == 3) return gap * 11 % 32;  // 3 * 11 = 1 modulo 32
    return gap / bytes;
}

inline __m128i load16(const uint8_t* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }

// Sixteen bytes from `lo` in the low lane and from `hi` in the high lane.
inline __m256i load_lanes(const uint8_t* lo, const uint8_t* hi) {
    return _mm256_inserti128_si256(_mm256_castsi128_si256(load16(lo)), load16(hi), 1);
}

// Output byte q of a 3-byte swap comes from byte q + 2, q or q - 2 as q % 3
// is 0, 1 or 2. Masks for register K of a 96-byte group.
template <int K, int Phase>
constexpr Bytes32 phase_mask() {
    return make_bytes([](int j) { return (32 * K + j) % 3 == Phase ? 0xFF : 0; });
}

// Register K (32 output bytes at `at`) of a 3-byte swap with channels
// `unit` bytes wide (1 or 2): the three loads `unit`*2 bytes apart.
template <int K>
inline __m256i swapped_register(const uint8_t* at, int shift) {
    static constexpr Bytes32 kNext = phase_mask<K, 0>(), kPrev = phase_mask<K, 2>();
    const __m256i next = load32(at + shift), same = load32(at), prev = load32(at - shift);
    return _mm256_blendv_epi8(_mm256_blendv_epi8(same, next, load(kNext)), prev, load(kPrev));
}

// 24-bit order swap, 32 pixels (three registers) per group, forwards. The
// first pixel is swapped alone so that the loads two bytes back stay in the
// row. A group is loaded before the previous one is stored: its loads two
// bytes back then never wait on that store (they take nothing from the two
// bytes it would have changed).
struct SwapGroup {
    __m256i r0, r1, r2;
};

inline SwapGroup load_swapped(const uint8_t* p) {
    return {swapped_register<0>(p, 2), swapped_register<1>(p + 32, 2), swapped_register<2>(p + 64, 2)};
}

// `head` pixels (at least one) are swapped alone first; with Stream they
// bring the destination to a 32-byte boundary.
template <bool Stream = false>
void swap_bgr24(const uint8_t* src, uint8_t* dst, uint32_t width, size_t head = 1) {
    const size_t bytes = 3 * size_t{width};
    const auto swap_pixel = [src, dst](size_t o) { swap_pixel24(src + o, dst + o); };
    size_t o = 0;
    if (width >= head + 33) {
        for (; o < 3 * head; o += 3) swap_pixel(o);
        if (o + 98 <= bytes) {
            SwapGroup g = load_swapped(src + o);
            for (; o + 96 + 98 <= bytes; o += 96) {
                if constexpr (Stream)
                    _mm_prefetch(reinterpret_cast<const char*>(src + o + kPrefetchBytes), _MM_HINT_T0);
                const SwapGroup next = load_swapped(src + o + 96);
                put32<Stream>(dst + o, g.r0);
                put32<Stream>(dst + o + 32, g.r1);
                put32<Stream>(dst + o + 64, g.r2);
                g = next;
            }
            put32<Stream>(dst + o, g.r0);
            put32<Stream>(dst + o + 32, g.r1);
            put32<Stream>(dst + o + 64, g.r2);
            o += 96;
        }
    }
    for (; o < bytes; o += 3) swap_pixel(o);
}

// Eight 3-byte pixels from `s`, four per lane, as 4-byte pixels with `a`.
inline __m256i widen_quads(const uint8_t* s, __m256i widen, __m256i a) {
    return _mm256_or_si256(_mm256_shuffle_epi8(load_lanes(s, s + 12), widen), a);
}

// 24 -> 32 bits, sixteen pixels (two registers of 8) per round, backwards.
// Lane loads read four bytes past their pixels, inside the destination row.
template <bool Swap>
void bgr24_to_bgr32(uint8_t* row, uint32_t width, uint8_t alpha) {
    static constexpr Bytes32 kWiden = make_bytes([](int j) {
        const int p = (j % 16) / 4, c = j % 4;
        return c == 3 ? kZero : 3 * p + (Swap ? 2 - c : c);
    });
    const __m256i a = _mm256_set1_epi32(static_cast<int32_t>(uint32_t{alpha} << 24));
    const __m256i widen = load(kWiden);
    size_t end = width;
    for (; end % 8; --end) pixel_bgr24_to_bgr32(row, end - 1, Swap, alpha);
    for (; end >= 16; end -= 16) {
        const __m256i hi = widen_quads(row + 3 * (end - 8), widen, a), lo = widen_quads(row + 3 * (end - 16), widen, a);
        store32(row + 4 * (end - 8), hi);
        store32(row + 4 * (end - 16), lo);
    }
    if (end) store32(row, widen_quads(row, widen, a));
}

// 24 -> 32 bits from a source row into a destination row that does not
// overlap it, eight pixels per register, forwards; loads stay inside the
// source row.
template <bool Swap, bool Stream = false>
void bgr24_to_bgr32_into(const uint8_t* src, uint8_t* dst, uint32_t width, uint8_t alpha, size_t head = 0) {
    static constexpr Bytes32 kWiden = make_bytes([](int j) {
        const int p = (j % 16) / 4, c = j % 4;
        return c == 3 ? kZero : 3 * p + (Swap ? 2 - c : c);
    });
    const __m256i a = _mm256_set1_epi32(static_cast<int32_t>(uint32_t{alpha} << 24));
    const __m256i widen = load(kWiden);
    const auto one = [src, dst, alpha](size_t i) {
        const uint8_t c0 = src[3 * i], c1 = src[3 * i + 1], c2 = src[3 * i + 2];
        dst[4 * i] = Swap ? c2 : c0;
        dst[4 * i + 1] = c1;
        dst[4 * i + 2] = Swap ? c0 : c2;
        dst[4 * i + 3] = alpha;
    };
    size_t i = 0;
    for (; i < head && i < width; ++i) one(i);
    for (; 3 * i + 28 <= 3 * size_t{width}; i += 8) {
        if constexpr (Stream) _mm_prefetch(reinterpret_cast<const char*>(src + 3 * i + kPrefetchBytes), _MM_HINT_T0);
        put32<Stream>(dst + 4 * i, widen_quads(src + 3 * i, widen, a));
    }
    for (; i < width; ++i) one(i);
}

// 32 -> 24 bits, eight pixels per register, forwards. Each 32-byte store
// ends with eight bytes that the next store replaces; the last stays inside
// the destination row.
template <bool Swap>
void bgr32_to_bgr24(uint8_t* row, uint32_t width) {
    static constexpr Bytes32 kNarrow = make_bytes([](int j) {
        const int l = j % 16, p = l / 3, c = l % 3;
        return l >= 12 ? kZero : 4 * p + (Swap ? 2 - c : c);
    });
    const __m256i narrow = load(kNarrow), pack = _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 7, 7);
    size_t i = 0;
    for (; i + 11 <= width; i += 8)
        store32(row + 3 * i, _mm256_permutevar8x32_epi32(_mm256_shuffle_epi8(load32(row + 4 * i), narrow), pack));
    for (; i < width; ++i) pixel_narrow(row, i, 4, 1, Swap);
}

// 48 -> 24 bits, the high byte of each channel, 32 pixels (three output
// registers, each from 64 source bytes) per group, forwards. Where red and
// blue change places the 16-bit channels are first swapped by the selects of
// swapped_register (loads four bytes apart); the first pixel is converted
// alone so that those loads stay in the row.
template <bool Swap, int K>
inline __m256i bgr48_register(const uint8_t* s) {
    __m256i a, b;
    if constexpr (Swap) {
        // Masks by the phase of each source word (32K + j / 2 in a, 16 more
        // in b), both bytes of a word alike.
        static constexpr Bytes32 kNextA = make_bytes([](int j) { return (32 * K + j / 2) % 3 == 0 ? 0xFF : 0; }),
                                 kPrevA = make_bytes([](int j) { return (32 * K + j / 2) % 3 == 2 ? 0xFF : 0; }),
                                 kNextB = make_bytes([](int j) { return (32 * K + 16 + j / 2) % 3 == 0 ? 0xFF : 0; }),
                                 kPrevB = make_bytes([](int j) { return (32 * K + 16 + j / 2) % 3 == 2 ? 0xFF : 0; });
        const uint8_t* p = s + 64 * K;
        a = _mm256_blendv_epi8(_mm256_blendv_epi8(load32(p), load32(p + 4), load(kNextA)), load32(p - 4), load(kPrevA));
        b = _mm256_blendv_epi8(_mm256_blendv_epi8(load32(p + 32), load32(p + 36), load(kNextB)), load32(p + 28),
                               load(kPrevB));
    } else {
        a = load32(s + 64 * K);
        b = load32(s + 64 * K + 32);
    }
    const __m256i packed = _mm256_packus_epi16(_mm256_srli_epi16(a, 8), _mm256_srli_epi16(b, 8));
    return _mm256_permute4x64_epi64(packed, 0xD8);
}

template <bool Swap>
void bgr48_to_bgr24(uint8_t* row, uint32_t width) {
    size_t i = 0;
    if (!Swap || width >= 34) {
        if (Swap) pixel_narrow(row, i++, 6, 2, Swap);
        // A group reads source bytes to 6i + 196 (6i + 192 without Swap).
        for (; i + (Swap ? 33 : 32) <= width; i += 32) {
            const uint8_t* s = row + 6 * i;
            uint8_t* d = row + 3 * i;
            // Each register is stored before the next is loaded: its bytes
            // lie below all that the next one reads.
            store32(d, bgr48_register<Swap, 0>(s));
            store32(d + 32, bgr48_register<Swap, 1>(s));
            store32(d + 64, bgr48_register<Swap, 2>(s));
        }
    }
    for (; i < width; ++i) pixel_narrow(row, i, 6, 2, Swap);
}

// 24 bits -> 8-bit gray, 32 pixels per group, forwards. A register holds
// eight pixels, four per lane, each widened to a 32-bit lane of (channel 0,
// 1, 2, 0); one multiply-add of bytes and one of words give 2R + 5G + B.
template <bool RedFirst, bool Stream = false>
void bgr24_to_gray8(const uint8_t* src, uint8_t* dst, uint32_t width, size_t head = 0) {
    static constexpr Bytes32 kExpand = make_bytes([](int j) {
        const int p = (j % 16) / 4, c = j % 4;
        return c == 3 ? kZero : 3 * p + c;
    });
    // Weights of channel bytes 0, 1, 2 (blue 1, green 5, red 2).
    const __m256i weights = _mm256_set1_epi32(RedFirst ? 0x00010502 : 0x00020501);
    const __m256i ones = _mm256_set1_epi16(1), four = _mm256_set1_epi16(4);
    const __m256i expand = load(kExpand), order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
    const auto one = [src, dst](size_t i) {
        const uint8_t* q = src + 3 * i;
        const uint32_t r = RedFirst ? q[0] : q[2], b = RedFirst ? q[2] : q[0];
        dst[i] = static_cast<uint8_t>(gray8(r, q[1], b));
    };
    size_t i = 0;
    for (; i < head && i < width; ++i) one(i);
    for (; i + 34 <= width; i += 32) {
        const uint8_t* s = src + 3 * i;
        if constexpr (Stream) _mm_prefetch(reinterpret_cast<const char*>(s + kPrefetchBytes), _MM_HINT_T0);
        __m256i d[4];
        for (int r = 0; r < 4; ++r) {
            const __m256i px = _mm256_shuffle_epi8(load_lanes(s + 24 * r, s + 24 * r + 12), expand);
            d[r] = _mm256_madd_epi16(_mm256_maddubs_epi16(px, weights), ones);
        }
        const __m256i w01 = _mm256_srli_epi16(_mm256_add_epi16(_mm256_packs_epi32(d[0], d[1]), four), 3);
        const __m256i w23 = _mm256_srli_epi16(_mm256_add_epi16(_mm256_packs_epi32(d[2], d[3]), four), 3);
        put32<Stream>(dst + i, _mm256_permutevar8x32_epi32(_mm256_packus_epi16(w01, w23), order));
    }
    for (; i < width; ++i) one(i);
}

// 24 -> 16 bits 5-5-5, sixteen pixels (two registers of 8) per group,
// forwards. Each lane's four pixels become words (low-field channel, green)
// and (0, high-field channel); shifts and masks place the fields and a
// shift by eight bytes brings the second half onto the first.
template <bool Swap>
inline __m256i bgr555_quads(const uint8_t* s) {
    constexpr int kLow = Swap ? 2 : 0, kHigh = Swap ? 0 : 2;
    static constexpr Bytes32 kSplit = make_bytes([](int j) {
        const int l = j % 16, p = (l % 8) / 2;
        if (l < 8) return 3 * p + (l % 2 ? 1 : kLow);
        return l % 2 ? 3 * p + kHigh : kZero;
    });
    const __m256i v = _mm256_shuffle_epi8(load_lanes(s, s + 12), load(kSplit));
    const __m256i low_mid = _mm256_or_si256(_mm256_and_si256(_mm256_srli_epi16(v, 3), _mm256_set1_epi16(0x001F)),
                                            _mm256_and_si256(_mm256_srli_epi16(v, 6), _mm256_set1_epi16(0x03E0)));
    const __m256i high = _mm256_and_si256(_mm256_srli_epi16(v, 1), _mm256_set1_epi16(0x7C00));
    return _mm256_or_si256(low_mid, _mm256_bsrli_epi128(high, 8));  // four words in the low half of each lane
}

template <bool Swap>
void bgr24_to_bgr555(uint8_t* row, uint32_t width) {
    size_t i = 0;
    for (; i + 18 <= width; i += 16) {
        const uint8_t* s = row + 3 * i;
        const __m256i q0 = bgr555_quads<Swap>(s), q1 = bgr555_quads<Swap>(s + 24);
        // Pixels 0-3, 8-11 | 4-7, 12-15 -> 0-3, 4-7, 8-11, 12-15.
        store32(row + 2 * i, _mm256_permute4x64_epi64(_mm256_unpacklo_epi64(q0, q1), 0xD8));
    }
    for (; i < width; ++i) {
        const uint8_t* q = row + 3 * i;
        const uint32_t c0 = q[0] >> 3, c1 = q[1] >> 3, c2 = q[2] >> 3;
        const uint32_t w = Swap ? (c0 << 10 | c1 << 5 | c2) : (c2 << 10 | c1 << 5 | c0);
        row[2 * i] = static_cast<uint8_t>(w);
        row[2 * i + 1] = static_cast<uint8_t>(w >> 8);
    }
}

// 16 bits 5-5-5 -> 24, sixteen pixels per group, backwards. The three
// channels are widened in 16-bit lanes ((v << 3) | (v >> 2)) and held as
// words (byte 0, byte 1) and (byte 2, 0); each lane's eight pixels are then
// laid out as 16 + 8 bytes by shuffles of both.
template <int Part>
constexpr Bytes32 bgr555_out(bool second) {
    // Output byte 16 * Part + l of a lane's eight pixels.
    return make_bytes([second](int j) {
        const int q = 16 * Part + j % 16, p = q / 3, c = q % 3;
        if (q >= 24) return kZero;
        if (c == 2) return second ? 2 * p : kZero;
        return second ? kZero : 2 * p + c;
    });
}

inline __m256i widen(__m256i v) { return _mm256_or_si256(_mm256_slli_epi16(v, 3), _mm256_srli_epi16(v, 2)); }

template <bool Swap>
void bgr555_to_bgr24(uint8_t* row, uint32_t width) {
    static constexpr Bytes32 kA0 = bgr555_out<0>(false), kA1 = bgr555_out<0>(true), kB0 = bgr555_out<1>(false),
                             kB1 = bgr555_out<1>(true);
    const __m256i five = _mm256_set1_epi16(0x1F);
    size_t end = width;
    for (; end % 16; --end) {
        const size_t i = end - 1;
        const uint32_t w = row[2 * i] | uint32_t{row[2 * i + 1]} << 8;
        const uint8_t lo = widen5(w & 31), mid = widen5(w >> 5 & 31), hi = widen5(w >> 10 & 31);
        row[3 * i] = Swap ? hi : lo;
        row[3 * i + 1] = mid;
        row[3 * i + 2] = Swap ? lo : hi;
    }
    for (; end >= 16; end -= 16) {
        const size_t i = end - 16;
        const __m256i w = load32(row + 2 * i);
        const __m256i lo = widen(_mm256_and_si256(w, five)),
                      mid = widen(_mm256_and_si256(_mm256_srli_epi16(w, 5), five)),
                      hi = widen(_mm256_and_si256(_mm256_srli_epi16(w, 10), five));
        const __m256i x = _mm256_or_si256(Swap ? hi : lo, _mm256_slli_epi16(mid, 8));
        const __m256i y = Swap ? lo : hi;
        const __m256i a = _mm256_or_si256(_mm256_shuffle_epi8(x, load(kA0)), _mm256_shuffle_epi8(y, load(kA1)));
        const __m256i b = _mm256_or_si256(_mm256_shuffle_epi8(x, load(kB0)), _mm256_shuffle_epi8(y, load(kB1)));
        uint8_t* d = row + 3 * i;
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d), _mm256_castsi256_si128(a));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(d + 16), _mm256_castsi256_si128(b));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d + 24), _mm256_extracti128_si256(a, 1));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(d + 40), _mm256_extracti128_si256(b, 1));
    }
}

// 8-bit palettized -> 24 bits, eight pixels per group, backwards: each
// index gathers its colour's three bytes (a 32-bit table entry) and a
// shuffle and a lane permute pack them.
void pal8_to_bgr24(uint8_t* row, uint32_t width, const RGBQUAD* colours, bool red_first) {
    alignas(32) int32_t table[256];
    for (uint32_t i = 0; i < 256; ++i) {
        const auto v = static_cast<uint8_t>(i);
        const RGBQUAD c = colours ? colours[i] : RGBQUAD{v, v, v, 0};  // no palette: gray level i
        const uint32_t b0 = red_first ? c.rgbRed : c.rgbBlue, b2 = red_first ? c.rgbBlue : c.rgbRed;
        table[i] = static_cast<int32_t>(b0 | uint32_t{c.rgbGreen} << 8 | b2 << 16);
    }
    static constexpr Bytes32 kNarrow = make_bytes([](int j) {
        const int l = j % 16;
        return l >= 12 ? kZero : 4 * (l / 3) + l % 3;
    });
    const __m256i narrow = load(kNarrow), pack = _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 7, 7);
    size_t end = width;
    for (; end % 8; --end) {
        const auto e = static_cast<uint32_t>(table[row[end - 1]]);
        uint8_t* d = row + 3 * (end - 1);
        d[0] = static_cast<uint8_t>(e);
        d[1] = static_cast<uint8_t>(e >> 8);
        d[2] = static_cast<uint8_t>(e >> 16);
    }
    for (; end >= 8; end -= 8) {
        const size_t i = end - 8;
        const __m256i index = _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(row + i)));
        const __m256i v =
            _mm256_permutevar8x32_epi32(_mm256_shuffle_epi8(_mm256_i32gather_epi32(table, index, 4), narrow), pack);
        uint8_t* d = row + 3 * i;
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d), _mm256_castsi256_si128(v));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(d + 16), _mm256_extracti128_si256(v, 1));
    }
}

}  // namespace

namespace avx2 {

void convert_bgr24_to_rgb24(const Plan& p, uint8_t* row) { swap_bgr24(row, row, p.width); }
void convert_bgr24_to_bgr32(const Plan& p, uint8_t* row) { bgr24_to_bgr32<false>(row, p.width, p.alpha8); }
void convert_bgr24_to_rgb32(const Plan& p, uint8_t* row) { bgr24_to_bgr32<true>(row, p.width, p.alpha8); }
void convert_bgr32_to_bgr24(const Plan& p, uint8_t* row) { bgr32_to_bgr24<false>(row, p.width); }
void convert_bgr32_to_rgb24(const Plan& p, uint8_t* row) { bgr32_to_bgr24<true>(row, p.width); }
void convert_bgr48_to_bgr24(const Plan& p, uint8_t* row) { bgr48_to_bgr24<false>(row, p.width); }
void convert_bgr48_to_rgb24(const Plan& p, uint8_t* row) { bgr48_to_bgr24<true>(row, p.width); }
void convert_bgr24_to_gray8(const Plan& p, uint8_t* row) { bgr24_to_gray8<false>(row, row, p.width); }
void convert_rgb24_to_gray8(const Plan& p, uint8_t* row) { bgr24_to_gray8<true>(row, row, p.width); }
void convert_bgr24_to_bgr555(const Plan& p, uint8_t* row) { bgr24_to_bgr555<false>(row, p.width); }
void convert_bgr24_to_rgb555(const Plan& p, uint8_t* row) { bgr24_to_bgr555<true>(row, p.width); }
void convert_bgr555_to_bgr24(const Plan& p, uint8_t* row) { bgr555_to_bgr24<false>(row, p.width); }
void convert_bgr555_to_rgb24(const Plan& p, uint8_t* row) { bgr555_to_bgr24<true>(row, p.width); }
void convert_pal8_to_bgr24(const Plan& p, uint8_t* row) { pal8_to_bgr24(row, p.width, p.src_palette, false); }
void convert_pal8_to_rgb24(const Plan& p, uint8_t* row) { pal8_to_bgr24(row, p.width, p.src_palette, true); }

// With plan.stream the destination is written around the caches from its
// first 32-byte boundary on (4-byte pixels need a destination on a 4-byte
// boundary).
void into_bgr24_to_rgb24(const Plan& p, const uint8_t* s, uint8_t* d) {
    const size_t head = pixels_to_alignment(d, 3);
    if (p.stream)
        swap_bgr24<true>(s, d, p.width, head ? head : 32);
    else
        swap_bgr24(s, d, p.width);
}
void into_bgr24_to_bgr32(const Plan& p, const uint8_t* s, uint8_t* d) {
    if (p.stream && reinterpret_cast<uintptr_t>(d) % 4 == 0)
        bgr24_to_bgr32_into<false, true>(s, d, p.width, p.alpha8, pixels_to_alignment(d, 4));
    else
        bgr24_to_bgr32_into<false>(s, d, p.width, p.alpha8);
}
void into_bgr24_to_rgb32(const Plan& p, const uint8_t* s, uint8_t* d) {
    if (p.stream && reinterpret_cast<uintptr_t>(d) % 4 == 0)
        bgr24_to_bgr32_into<true, true>(s, d, p.width, p.alpha8, pixels_to_alignment(d, 4));
    else
        bgr24_to_bgr32_into<true>(s, d, p.width, p.alpha8);
}
void into_bgr24_to_gray8(const Plan& p, const uint8_t* s, uint8_t* d) {
    if (p.stream)
        bgr24_to_gray8<false, true>(s, d, p.width, pixels_to_alignment(d, 1));
    else
        bgr24_to_gray8<false>(s, d, p.width);
}
void into_rgb24_to_gray8(const Plan& p, const uint8_t* s, uint8_t* d) {
    if (p.stream)
        bgr24_to_gray8<true, true>(s, d, p.width, pixels_to_alignment(d, 1));
    else
        bgr24_to_gray8<true>(s, d, p.width);
}

}  // namespace avx2
}  // namespace zk

#if defined(__clang__)
#pragma clang attribute pop
#else
#pragma GCC pop_options
#endif

#if !defined(__clang__)
#pragma GCC diagnostic pop
#endif

#endif
