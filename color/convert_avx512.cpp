// The hot-pair kernels built for processors with 512-bit vectors and byte
// permutes (AVX-512 BW, VBMI and VNNI). A byte permute picks any byte of two
// 64-byte registers, so a group of 3-byte pixels is reordered, narrowed or
// widened by one instruction per output register; the arithmetic of the
// packed formats runs on 16-bit lanes. Each kernel gives the same bytes as
// the general path (a test holds every tier of fast kernels to it).
//
// Groups are placed so that their destination starts on a 64-byte boundary
// (a store across two cache lines costs about twice an aligned one); the
// pixels before the first such group and after the last are partial groups,
// the same code with byte masks so that no access leaves the row. A group
// loads everything it reads before it stores, and groups run forwards when
// the destination pixel is not larger than the source pixel, backwards
// otherwise, so that a store never reaches bytes still to be read.
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

namespace zk {
namespace {

// Pixel index of the first group whose destination starts on a 64-byte
// boundary (0 when no pixel boundary can be aligned).
uint32_t aligned_start(const uint8_t* row, uint32_t dst_bytes) {
    const auto gap = static_cast<uint32_t>(0u - static_cast<uint32_t>(reinterpret_cast<uintptr_t>(row))) & 63;
    switch (dst_bytes) {
        case 1: return gap;
        case 2: return gap % 2 ? 0 : gap / 2;
        case 3: return (gap * 43) & 63;  // 43 is the inverse of 3 modulo 64
        default: return gap % 4 ? 0 : gap / 4;
    }
}

struct alignas(64) Index {
    uint8_t b[64];
};

// A permute control from its rule for output byte j.
template <typename F>
constexpr Index make_index(F rule) {
    Index r{};
    for (int j = 0; j < 64; ++j) r.b[j] = static_cast<uint8_t>(rule(j));
    return r;
}

// Group bodies are inlined into the loops (a call per group would reload
// the constants and clear the upper register state each time).
#define ZK_GROUP __attribute__((always_inline))

constexpr __mmask64 kOddBytes = 0xAAAAAAAAAAAAAAAAull;

}  // namespace
}  // namespace zk

// Everything from here to the matching pop is built for the wide vectors;
// it runs only where platform::cpu_tier() is AVX512.
#if defined(__clang__)
#pragma clang attribute push(__attribute__((target("avx512f,avx512bw,avx512vbmi,avx512vnni"))), apply_to = function)
#else
#pragma GCC push_options
#pragma GCC target("avx512f,avx512bw,avx512vbmi,avx512vnni")
#endif

namespace zk {
namespace {

// Calls group(first pixel, count) over the row in groups of G pixels whose
// boundaries lie at `start` modulo G: forwards, or backwards from the end.
template <uint32_t G, typename Group>
inline void forwards(uint32_t width, uint32_t start, Group group) {
    uint32_t i = start < width ? start : width;
    if (i) group(0, i);
    for (; i + G <= width; i += G) group(i, G);
    if (i < width) group(i, width - i);
}

template <uint32_t G, typename Group>
inline void backwards(uint32_t width, uint32_t start, Group group) {
    const uint32_t head = start < width ? start : width;
    uint32_t end = width;
    if (const uint32_t top = (width - head) % G) {
        end -= top;
        group(end, top);
    }
    for (; end >= head + G; end -= G) group(end - G, G);
    if (head) group(0, head);
}

inline __m512i load(const Index& i) { return _mm512_load_si512(i.b); }

// The first n bytes of a 64-byte register (n may exceed 64).
inline __mmask64 first_bytes(size_t n) { return n >= 64 ? ~__mmask64{0} : (__mmask64{1} << n) - 1; }

// Up to 64 bytes from byte `at` of an area of `size` bytes; zero past it.
inline __m512i load_in(const uint8_t* base, size_t at, size_t size) {
    if (at >= size) return _mm512_setzero_si512();
    if (size - at >= 64) return _mm512_loadu_si512(base + at);
    return _mm512_maskz_loadu_epi8(first_bytes(size - at), base + at);
}

inline void store_in(uint8_t* base, size_t at, size_t size, __m512i v) {
    if (at >= size) return;
    if (size - at >= 64)
        _mm512_storeu_si512(base + at, v);
    else
        _mm512_mask_storeu_epi8(base + at, first_bytes(size - at), v);
}

// Output register K of a 3-byte destination group covers output bytes
// 64K..64K+63; `source` gives the source byte of output byte q, counted from
// the start of the two registers the permute reads (`base`).
template <int K, int Base, typename F>
constexpr Index window_index(F source) {
    return make_index([source](int j) { return source(64 * K + j) - Base; });
}

// ---------------------------------------------------------------------------
// 24-bit order swap: 64 pixels (three registers) per group, forwards.
constexpr int swapped(int q) { return q - q % 3 + 2 - q % 3; }

void swap_bgr24(uint8_t* row, uint32_t width) {
    static constexpr Index k0 = window_index<0, 0>(swapped), k1 = window_index<1, 62>(swapped),
                           k2 = window_index<2, 64>(swapped);
    forwards<64>(width, aligned_start(row, 3), [row](uint32_t i, uint32_t n) ZK_GROUP {
        uint8_t* p = row + 3 * size_t{i};
        const size_t bytes = 3 * size_t{n};
        const __m512i a = load_in(p, 0, bytes), b = load_in(p, 64, bytes), c = load_in(p, 128, bytes),
                      u = load_in(p, 62, bytes), v = load_in(p, 126, bytes);
        store_in(p, 0, bytes, _mm512_permutex2var_epi8(a, load(k0), b));
        store_in(p, 64, bytes, _mm512_permutex2var_epi8(u, load(k1), v));
        store_in(p, 128, bytes, _mm512_permutex2var_epi8(b, load(k2), c));
    });
}

// 24 -> 32 bits: 16 pixels per group, backwards. The permute writes the
// three colour bytes of each pixel into the alpha register.
template <bool Swap>
void bgr24_to_bgr32(uint8_t* row, uint32_t width, uint8_t alpha) {
    static constexpr Index kWiden = make_index([](int j) {
        const int p = j / 4, c = j % 4;
        return c == 3 ? 0 : 3 * p + (Swap ? 2 - c : c);
    });
    constexpr __mmask64 kColour = 0x7777777777777777ull;
    const __m512i a = _mm512_set1_epi8(static_cast<char>(alpha));
    backwards<16>(width, aligned_start(row, 4), [row, a](uint32_t i, uint32_t n) ZK_GROUP {
        // A whole group reads 64 bytes from 3i, all below its own stores.
        const __m512i v = load_in(row + 3 * size_t{i}, 0, n == 16 ? 64 : 3 * size_t{n});
        store_in(row + 4 * size_t{i}, 0, 4 * size_t{n}, _mm512_mask_permutexvar_epi8(a, kColour, load(kWiden), v));
    });
}

// 32 -> 24 bits: 64 pixels per group, forwards.
template <bool Swap>
void bgr32_to_bgr24(uint8_t* row, uint32_t width) {
    constexpr auto source = [](int q) { return 4 * (q / 3) + (Swap ? 2 - q % 3 : q % 3); };
    static constexpr Index k0 = window_index<0, 0>(source), k1 = window_index<1, 64>(source),
                           k2 = window_index<2, 128>(source);
    forwards<64>(width, aligned_start(row, 3), [row](uint32_t i, uint32_t n) ZK_GROUP {
        const uint8_t* s = row + 4 * size_t{i};
        uint8_t* d = row + 3 * size_t{i};
        const size_t in = 4 * size_t{n}, out = 3 * size_t{n};
        const __m512i s0 = load_in(s, 0, in), s1 = load_in(s, 64, in), s2 = load_in(s, 128, in),
                      s3 = load_in(s, 192, in);
        store_in(d, 0, out, _mm512_permutex2var_epi8(s0, load(k0), s1));
        store_in(d, 64, out, _mm512_permutex2var_epi8(s1, load(k1), s2));
        store_in(d, 128, out, _mm512_permutex2var_epi8(s2, load(k2), s3));
    });
}

// 48 -> 24 bits, the high byte of each channel: 64 pixels per group,
// forwards. Output register K holds the high bytes of source bytes 128K to
// 128K + 127. A load one byte further on puts the high bytes of the first 64
// of them in its even bytes; a bitwise select takes those and the odd (high)
// bytes of the next 64, and one single-register permute puts them in order
// (two-register permutes cost twice as much). Where red and blue change
// places that order is swapped in the registers (a swapped output register
// reads high bytes 131 apart, more than one permute sees).
template <bool Swap>
void bgr48_to_bgr24(uint8_t* row, uint32_t width) {
    static constexpr Index kOrder = make_index([](int j) { return j < 32 ? 2 * j : 2 * (j - 32) + 1; });
    static constexpr Index s0 = window_index<0, 0>(swapped), s1 = window_index<1, 0>(swapped),
                           s1_last = window_index<1, 128>(swapped), s2 = window_index<2, 64>(swapped);
    forwards<64>(width, aligned_start(row, 3), [row](uint32_t i, uint32_t n) ZK_GROUP {
        const uint8_t* s = row + 6 * size_t{i};
        uint8_t* d = row + 3 * size_t{i};
        const size_t in = 6 * size_t{n}, out = 3 * size_t{n};
        const __m512i even = _mm512_set1_epi16(0x00FF);
        __m512i h[3];
        for (int k = 0; k < 3; ++k) {
            const size_t at = 128 * size_t(k);
            // Even bytes from the shifted load, odd bytes from the next 64.
            h[k] = _mm512_permutexvar_epi8(
                load(kOrder), _mm512_ternarylogic_epi32(even, load_in(s, at + 1, in), load_in(s, at + 64, in), 0xCA));
        }
        if constexpr (Swap) {
            // Output register 1 takes byte 63 from h[0] and byte 128 from h[2].
            const __m512i o1 = _mm512_mask_permutexvar_epi8(_mm512_permutex2var_epi8(h[0], load(s1), h[1]),
                                                            __mmask64{1} << 62, load(s1_last), h[2]);
            h[0] = _mm512_permutex2var_epi8(h[0], load(s0), h[1]);
            h[2] = _mm512_permutex2var_epi8(h[1], load(s2), h[2]);
            h[1] = o1;
        }
        store_in(d, 0, out, h[0]);
        store_in(d, 64, out, h[1]);
        store_in(d, 128, out, h[2]);
    });
}

// 24 bits -> 8-bit gray, 64 pixels per group, forwards. Sixteen pixels at
// a time are permuted into 32-bit lanes (channel 0, 1, 2, 1) and one dot
// product of bytes per lane gives 32 * (4 + 2R + 5G + B), below 2^16, whose
// byte 1 is the gray level (green is repeated because its weight, 160, does
// not fit a signed byte). The four registers of a group, three of them
// shifted so that each gray level lands in its own byte of the lane, are
// merged by bitwise selects: lane k then holds pixels k, 16 + k, 32 + k,
// 48 + k, which a last permute puts in order.
// Sixteen pixels from byte Skip of the 64 bytes read at `at`.
template <bool RedFirst, int Skip>
inline __m512i gray_lanes(const uint8_t* s, size_t at, size_t in) {
    static constexpr Index kExpand = make_index([](int j) { return Skip + 3 * (j / 4) + (j % 4 == 3 ? 1 : j % 4); });
    // Weights of channel bytes 0, 1, 2 and of the repeated byte 1.
    constexpr int32_t kWeights = RedFirst ? 0x50205040 : 0x50405020;
    return _mm512_dpbusd_epi32(_mm512_set1_epi32(4 * 32), _mm512_permutexvar_epi8(load(kExpand), load_in(s, at, in)),
                               _mm512_set1_epi32(kWeights));
}

template <bool RedFirst>
void bgr24_to_gray8(uint8_t* row, uint32_t width) {
    static constexpr Index kOrder = make_index([](int j) { return 4 * (j % 16) + j / 16; });
    forwards<64>(width, aligned_start(row, 1), [row](uint32_t i, uint32_t n) ZK_GROUP {
        const uint8_t* s = row + 3 * size_t{i};
        const size_t in = 3 * size_t{n};
        // The last sixteen pixels are read with the group's last 64 bytes.
        const __m512i v0 = gray_lanes<RedFirst, 0>(s, 0, in), v1 = gray_lanes<RedFirst, 0>(s, 48, in),
                      v2 = gray_lanes<RedFirst, 0>(s, 96, in), v3 = gray_lanes<RedFirst, 16>(s, 128, in);
        // Bytes 2 and 3 of each lane are 0; byte 0 holds low bits. v0 >> 8
        // gives byte 0, v1 byte 1, v2 << 8 byte 2 and v3 << 16 byte 3.
        const __m512i b01 =
            _mm512_ternarylogic_epi32(_mm512_set1_epi32(0x000000FF), _mm512_srli_epi32(v0, 8), v1, 0xCA);
        const __m512i b23 = _mm512_ternarylogic_epi32(_mm512_set1_epi32(0x00FF0000), _mm512_slli_epi32(v2, 8),
                                                      _mm512_slli_epi32(v3, 16), 0xCA);
        store_in(row + i, 0, n, _mm512_permutexvar_epi8(load(kOrder), _mm512_or_si512(b01, b23)));
    });
}

// 24 -> 16 bits 5-5-5, 64 pixels per group, forwards. Lanes hold (low-field
// channel, green) and (0, high-field channel); shifts put each channel's top
// five bits in place and two bitwise selects merge them. The 32 pixels of an
// output register lie in 96 source bytes, read as bytes 0-63 (pixels 0-20)
// and 32-95 (pixels 21-31): two single-register permutes per lane register
// cost less than one two-register permute.
template <bool Swap>
inline __m512i bgr555_words(__m512i x, __m512i y) {
    // Without Swap byte 0 of a pixel goes to bits 0-4 and byte 2 to 10-14.
    constexpr int kLow = Swap ? 2 : 0, kHigh = Swap ? 0 : 2;
    constexpr auto low_green = [](int j) { return 3 * (j / 2) + (j % 2 == 0 ? kLow : 1); };
    constexpr auto high_field = [](int j) { return 3 * (j / 2) + kHigh; };
    static constexpr Index kLowGreenX = make_index([low_green](int j) { return j < 42 ? low_green(j) : 0; }),
                           kLowGreenY = make_index([low_green](int j) { return j < 42 ? 0 : low_green(j) - 32; }),
                           kHighX = make_index([high_field](int j) { return j < 42 ? high_field(j) : 0; }),
                           kHighY = make_index([high_field](int j) { return j < 42 ? 0 : high_field(j) - 32; });
    constexpr __mmask64 kFromY = ~((__mmask64{1} << 42) - 1);
    const __m512i lg =
        _mm512_mask_permutexvar_epi8(_mm512_permutexvar_epi8(load(kLowGreenX), x), kFromY, load(kLowGreenY), y);
    const __m512i hi = _mm512_mask_permutexvar_epi8(_mm512_maskz_permutexvar_epi8(kOddBytes & ~kFromY, load(kHighX), x),
                                                    kOddBytes & kFromY, load(kHighY), y);
    // Bits 0-4 from lg >> 3, bits 5-9 from lg >> 6 (whose bits 10-15 are 0),
    // then bits 10-14 from hi >> 1.
    const __m512i low_mid =
        _mm512_ternarylogic_epi32(_mm512_set1_epi16(0x001F), _mm512_srli_epi16(lg, 3), _mm512_srli_epi16(lg, 6), 0xCA);
    return _mm512_ternarylogic_epi32(low_mid, _mm512_srli_epi16(hi, 1), _mm512_set1_epi16(0x7C00), 0xF8);
}

template <bool Swap>
void bgr24_to_bgr555(uint8_t* row, uint32_t width) {
    // Groups placed so that their source starts a cache line: the four
    // loads cost more than the two stores when they straddle lines.
    forwards<64>(width, aligned_start(row, 3), [row](uint32_t i, uint32_t n) ZK_GROUP {
        const uint8_t* s = row + 3 * size_t{i};
        uint8_t* d = row + 2 * size_t{i};
        const size_t in = 3 * size_t{n}, out = 2 * size_t{n};
        const __m512i w0 = bgr555_words<Swap>(load_in(s, 0, in), load_in(s, 32, in));
        const __m512i w1 = bgr555_words<Swap>(load_in(s, 96, in), load_in(s, 128, in));
        store_in(d, 0, out, w0);
        store_in(d, 64, out, w1);
    });
}

// 16 bits 5-5-5 -> 24, 64 pixels per group, backwards. A 64-entry byte table
// widens a 5-bit channel ((v << 3) | (v >> 2); the sixth index bit is
// ignored by doubling the table), looked up with the channel in the low bits
// of the even bytes (bits 0-4 of the pixel) or of the odd bytes (green, bits
// 5-9); bits 10-14 are widened by a multiply. Output register K is made from
// the 32 pixels from pixel kWindow[K], which hold all of its pixels.
constexpr int kWindow[3] = {0, 21, 32};

template <int K>
constexpr Index bgr555_out() {
    // Channels 0 and 1 from the even and odd bytes of x, channel 2 from the
    // even bytes of y.
    return make_index([](int j) {
        const int q = 64 * K + j, l = q / 3 - kWindow[K], c = q % 3;
        return c == 2 ? 64 + 2 * l : 2 * l + c;
    });
}

template <bool Swap, int K>
inline __m512i bgr555_to_bgr24_part(const uint8_t* s, size_t in) {
    static constexpr Index kWiden = make_index([](int j) { return (j & 31) << 3 | (j & 31) >> 2; });
    static constexpr Index kOut = bgr555_out<K>();
    const __m512i widen = load(kWiden);
    const __m512i w = load_in(s, 2 * kWindow[K], in);
    const __m512i low = _mm512_permutexvar_epi8(w, widen);
    // Bits 10-14 by arithmetic, to share the work between the vector units:
    // v << 10 times 528 (= 33 << 4) over 2^16 is (v * 33) >> 2.
    const __m512i high = _mm512_mulhi_epu16(_mm512_and_si512(w, _mm512_set1_epi16(0x7C00)), _mm512_set1_epi16(528));
    const __m512i x = _mm512_mask_permutexvar_epi8(Swap ? high : low, kOddBytes, _mm512_slli_epi16(w, 3), widen);
    return _mm512_permutex2var_epi8(x, load(kOut), Swap ? low : high);
}

template <bool Swap>
void bgr555_to_bgr24(uint8_t* row, uint32_t width) {
    backwards<64>(width, aligned_start(row, 3), [row](uint32_t i, uint32_t n) ZK_GROUP {
        const uint8_t* s = row + 2 * size_t{i};
        uint8_t* d = row + 3 * size_t{i};
        const size_t in = 2 * size_t{n}, out = 3 * size_t{n};
        const __m512i o0 = bgr555_to_bgr24_part<Swap, 0>(s, in), o1 = bgr555_to_bgr24_part<Swap, 1>(s, in),
                      o2 = bgr555_to_bgr24_part<Swap, 2>(s, in);
        store_in(d, 0, out, o0);
        store_in(d, 64, out, o1);
        store_in(d, 128, out, o2);
    });
}

// 8-bit palettized -> 24 bits, 64 pixels per group, backwards. Each output
// channel of the 256 colours is a 256-byte table in four registers; an index
// looks up both halves (its low seven bits) and its top bit chooses.
struct ChannelTables {
    __m512i t[3][4];  // output byte 0, 1, 2
};

void channel_tables(const RGBQUAD* colours, bool red_first, ChannelTables& out) {
    for (int k = 0; k < 3; ++k) {
        // Byte offset of the channel in an RGBQUAD (blue, green, red, reserved).
        const int c = k == 1 ? 1 : ((k == 0) == red_first ? 2 : 0);
        alignas(64) uint8_t pick[64];
        for (int j = 0; j < 64; ++j) pick[j] = static_cast<uint8_t>(4 * (j & 31) + c);
        const __m512i sel = _mm512_load_si512(pick);
        for (int q = 0; q < 4; ++q) {
            if (!colours) {  // index i is gray level i
                alignas(64) uint8_t ramp[64];
                for (int j = 0; j < 64; ++j) ramp[j] = static_cast<uint8_t>(64 * q + j);
                out.t[k][q] = _mm512_load_si512(ramp);
                continue;
            }
            const auto* e = reinterpret_cast<const uint8_t*>(colours + 64 * q);
            const __m512i lo = _mm512_permutex2var_epi8(_mm512_loadu_si512(e), sel, _mm512_loadu_si512(e + 64));
            const __m512i hi = _mm512_permutex2var_epi8(_mm512_loadu_si512(e + 128), sel, _mm512_loadu_si512(e + 192));
            out.t[k][q] = _mm512_inserti64x4(lo, _mm512_castsi512_si256(hi), 1);
        }
    }
}

inline __m512i look_up(const __m512i* t, __m512i index, __mmask64 upper) {
    return _mm512_mask_blend_epi8(upper, _mm512_permutex2var_epi8(t[0], index, t[1]),
                                  _mm512_permutex2var_epi8(t[2], index, t[3]));
}

template <int K>
constexpr __mmask64 third_channel() {
    __mmask64 m = 0;
    for (int j = 0; j < 64; ++j)
        if ((64 * K + j) % 3 == 2) m |= __mmask64{1} << j;
    return m;
}

// Output register K of a group from its three channel registers.
template <int K>
inline __m512i interleave(__m512i c0, __m512i c1, __m512i c2) {
    static constexpr Index kTwo = make_index([](int j) {
        const int q = 64 * K + j;
        return q % 3 == 1 ? 64 + q / 3 : q / 3;
    });
    static constexpr Index kThird = make_index([](int j) { return (64 * K + j) / 3; });
    const __m512i two = _mm512_permutex2var_epi8(c0, load(kTwo), c1);
    return _mm512_mask_permutexvar_epi8(two, third_channel<K>(), load(kThird), c2);
}

void pal8_to_bgr24(uint8_t* row, uint32_t width, const RGBQUAD* colours, bool red_first) {
    ChannelTables tables;
    channel_tables(colours, red_first, tables);
    backwards<64>(width, aligned_start(row, 3), [row, &tables](uint32_t i, uint32_t n) ZK_GROUP {
        const __m512i index = load_in(row + i, 0, n);
        const __mmask64 upper = _mm512_movepi8_mask(index);
        const __m512i c0 = look_up(tables.t[0], index, upper), c1 = look_up(tables.t[1], index, upper),
                      c2 = look_up(tables.t[2], index, upper);
        uint8_t* d = row + 3 * size_t{i};
        const size_t out = 3 * size_t{n};
        store_in(d, 0, out, interleave<0>(c0, c1, c2));
        store_in(d, 64, out, interleave<1>(c0, c1, c2));
        store_in(d, 128, out, interleave<2>(c0, c1, c2));
    });
}

}  // namespace

namespace avx512 {

void convert_bgr24_to_rgb24(const Plan& p, uint8_t* row) { swap_bgr24(row, p.width); }
void convert_bgr24_to_bgr32(const Plan& p, uint8_t* row) { bgr24_to_bgr32<false>(row, p.width, p.alpha8); }
void convert_bgr24_to_rgb32(const Plan& p, uint8_t* row) { bgr24_to_bgr32<true>(row, p.width, p.alpha8); }
void convert_bgr32_to_bgr24(const Plan& p, uint8_t* row) { bgr32_to_bgr24<false>(row, p.width); }
void convert_bgr32_to_rgb24(const Plan& p, uint8_t* row) { bgr32_to_bgr24<true>(row, p.width); }
void convert_bgr48_to_bgr24(const Plan& p, uint8_t* row) { bgr48_to_bgr24<false>(row, p.width); }
void convert_bgr48_to_rgb24(const Plan& p, uint8_t* row) { bgr48_to_bgr24<true>(row, p.width); }
void convert_bgr24_to_gray8(const Plan& p, uint8_t* row) { bgr24_to_gray8<false>(row, p.width); }
void convert_rgb24_to_gray8(const Plan& p, uint8_t* row) { bgr24_to_gray8<true>(row, p.width); }
void convert_bgr24_to_bgr555(const Plan& p, uint8_t* row) { bgr24_to_bgr555<false>(row, p.width); }
void convert_bgr24_to_rgb555(const Plan& p, uint8_t* row) { bgr24_to_bgr555<true>(row, p.width); }
void convert_bgr555_to_bgr24(const Plan& p, uint8_t* row) { bgr555_to_bgr24<false>(row, p.width); }
void convert_bgr555_to_rgb24(const Plan& p, uint8_t* row) { bgr555_to_bgr24<true>(row, p.width); }
void convert_pal8_to_bgr24(const Plan& p, uint8_t* row) { pal8_to_bgr24(row, p.width, p.src_palette, false); }
void convert_pal8_to_rgb24(const Plan& p, uint8_t* row) { pal8_to_bgr24(row, p.width, p.src_palette, true); }

}  // namespace avx512
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
