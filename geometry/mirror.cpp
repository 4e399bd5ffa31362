// Row mirror kernels and Z_MirrorLine.
#include "mirror.h"

#include <array>
#include <bit>
#include <cstddef>
#include <cstring>
#include <utility>

#include "bitmap_handle.h"
#include "core/packed_pixels.h"
#include "core/pixel_format.h"
#include "core/platform/x86_intrinsics.h"

namespace zk::geometry {
namespace {

// Bit order of a byte reversed: entry b has bit k of b in bit 7 - k.
constexpr std::array<uint8_t, 256> make_bit_reverse() {
    std::array<uint8_t, 256> t{};
    for (unsigned b = 0; b < 256; ++b) {
        unsigned r = 0;
        for (unsigned k = 0; k < 8; ++k) r |= ((b >> k) & 1u) << (7 - k);
        t[b] = static_cast<uint8_t>(r);
    }
    return t;
}
constexpr std::array<uint8_t, 256> kBitReverse = make_bit_reverse();

inline uint64_t load64(const uint8_t* p) {
    uint64_t v;
    std::memcpy(&v, p, 8);
    return v;
}
inline void store64(uint8_t* p, uint64_t v) { std::memcpy(p, &v, 8); }

inline uint64_t bswap64(uint64_t v) { return __builtin_bswap64(v); }

// Eight bytes as one number, the first byte most significant.
inline uint64_t load_be64(const uint8_t* p) {
    const uint64_t v = load64(p);
    if constexpr (std::endian::native == std::endian::little) return bswap64(v);
    return v;
}
inline void store_be64(uint8_t* p, uint64_t v) {
    if constexpr (std::endian::native == std::endian::little) v = bswap64(v);
    store64(p, v);
}
// Eight bytes as one number, the first byte least significant.
inline uint64_t load_le64(const uint8_t* p) {
    const uint64_t v = load64(p);
    if constexpr (std::endian::native == std::endian::big) return bswap64(v);
    return v;
}
inline void store_le64(uint8_t* p, uint64_t v) {
    if constexpr (std::endian::native == std::endian::big) v = bswap64(v);
    store64(p, v);
}

// Pixels of `Bits` bits (1, 2 or 4) reversed inside every byte of v.
template <int Bits>
inline uint64_t reverse_in_bytes(uint64_t v) {
    if constexpr (Bits == 1) v = ((v >> 1) & 0x5555555555555555ull) | ((v & 0x5555555555555555ull) << 1);
    if constexpr (Bits <= 2) v = ((v >> 2) & 0x3333333333333333ull) | ((v & 0x3333333333333333ull) << 2);
    return ((v >> 4) & 0x0F0F0F0F0F0F0F0Full) | ((v & 0x0F0F0F0F0F0F0F0Full) << 4);
}

template <int Bits>
inline uint8_t reverse_byte(uint8_t b) {
    if constexpr (Bits == 1) return kBitReverse[b];
    return static_cast<uint8_t>(reverse_in_bytes<Bits>(b));
}

#if ZK_X86_TIERS
// The pixels of a nibble in reverse order (1, 2 or 4 bits per pixel).
template <int Bits>
constexpr uint8_t reverse_nibble(unsigned n) {
    if constexpr (Bits == 1) return static_cast<uint8_t>((n & 1) << 3 | (n & 2) << 1 | (n & 4) >> 1 | (n & 8) >> 3);
    if constexpr (Bits == 2) return static_cast<uint8_t>((n & 3) << 2 | n >> 2);
    return static_cast<uint8_t>(n);
}

struct Nibbles {
    __m256i to_high, to_low;  // a nibble's pixels reversed, placed high / low
};

// 32 bytes with their order and the pixels inside each byte reversed.
template <int Bits>
__attribute__((target("avx2"))) inline __m256i reverse32(__m256i x, const Nibbles& t) {
    const __m256i bytes_back = _mm256_setr_epi8(15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0, 15, 14, 13, 12,
                                                11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0);
    const __m256i nibble = _mm256_set1_epi8(0x0F);
    x = _mm256_permute4x64_epi64(_mm256_shuffle_epi8(x, bytes_back), 0x4E);
    const __m256i lo = _mm256_and_si256(x, nibble);
    const __m256i hi = _mm256_and_si256(_mm256_srli_epi16(x, 4), nibble);
    return _mm256_or_si256(_mm256_shuffle_epi8(t.to_high, lo), _mm256_shuffle_epi8(t.to_low, hi));
}

// 32 bytes from each end at a time: bytes reversed by a lane shuffle and a
// lane exchange, then the pixels inside each byte through two nibble
// lookups. Leaves [*i, *j) to the portable loop.
template <int Bits>
__attribute__((target("avx2"))) void reverse_span_avx2(uint8_t* p, size_t* i, size_t* j) {
    alignas(32) uint8_t high[32], low[32];
    for (unsigned k = 0; k < 32; ++k) {
        high[k] = static_cast<uint8_t>(reverse_nibble<Bits>(k & 15) << 4);
        low[k] = reverse_nibble<Bits>(k & 15);
    }
    const Nibbles t{_mm256_load_si256(reinterpret_cast<const __m256i*>(high)),
                    _mm256_load_si256(reinterpret_cast<const __m256i*>(low))};
    size_t a = *i, b = *j;
    for (; b - a >= 64; a += 32, b -= 32) {
        const __m256i x = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p + a));
        const __m256i y = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p + b - 32));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(p + a), reverse32<Bits>(y, t));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(p + b - 32), reverse32<Bits>(x, t));
    }
    *i = a;
    *j = b;
}
#endif

// Reverses the n bytes at p and the pixels inside each byte: the whole span
// reversed pixel by pixel. 32 bytes from each end at a time where the
// processor has AVX2, eight otherwise and for the rest.
template <int Bits>
void reverse_span(uint8_t* p, size_t n) {
    size_t i = 0, j = n;
#if ZK_X86_TIERS
    if (n >= 64 && platform::cpu_tier() >= platform::CpuTier::AVX2) reverse_span_avx2<Bits>(p, &i, &j);
#endif
    for (; j - i >= 16; i += 8, j -= 8) {
        const uint64_t a = load64(p + i);
        const uint64_t c = load64(p + j - 8);
        store64(p + i, reverse_in_bytes<Bits>(bswap64(c)));
        store64(p + j - 8, reverse_in_bytes<Bits>(bswap64(a)));
    }
    for (; j - i >= 2; ++i, --j) {
        const uint8_t a = p[i];
        p[i] = reverse_byte<Bits>(p[j - 1]);
        p[j - 1] = reverse_byte<Bits>(a);
    }
    if (j - i == 1) p[i] = reverse_byte<Bits>(p[i]);
}

// Moves the n-byte span towards its start by s bits (1..7): each byte takes
// its own bits shifted up and the top s bits of the next byte; the last byte
// is only shifted. Eight bytes per step, most significant byte first.
void shift_span_up(uint8_t* p, size_t n, unsigned s) {
    size_t i = 0;
    for (; i + 9 <= n; i += 8) store_be64(p + i, (load_be64(p + i) << s) | (p[i + 8] >> (8 - s)));
    for (; i + 1 < n; ++i) p[i] = static_cast<uint8_t>((p[i] << s) | (p[i + 1] >> (8 - s)));
    p[n - 1] = static_cast<uint8_t>(p[n - 1] << s);
}

// 1, 2 and 4 bits: reverse the span of whole bytes, then shift the pixels
// back to the start (the unused bits of the last byte came to the front).
template <int Bits>
void mirror_packed(uint8_t* row, uint32_t width) {
    const uint64_t bits = uint64_t{width} * Bits;
    const size_t n = static_cast<size_t>((bits + 7) / 8);
    if (n == 0) return;
    reverse_span<Bits>(row, n);
    const unsigned s = static_cast<unsigned>((8 - bits % 8) % 8);
    if (s) shift_span_up(row, n, s);
}

// 3, 5, 6 and 7 bits (pixels that may straddle two bytes): the fields of
// pixel i and pixel width-1-i exchanged where they lie, every other bit kept.
template <int Bits>
void mirror_fields(uint8_t* row, uint32_t width) {
    if (width < 2) return;
    for (uint64_t i = 0, j = width - 1u; i < j; ++i, --j) {
        const uint32_t a = packed::get_field(row, i, Bits);
        packed::put_field(row, i, Bits, packed::get_field(row, j, Bits));
        packed::put_field(row, j, Bits, a);
    }
}

// 12 bits: samples i and width-1-i exchanged, the neighbours' bits kept.
// Two samples from each end are read before any is written: a sample shares
// a byte with the next one, and reading a pair of bytes just after one of
// them was stored waits for the store.
void mirror12(uint8_t* row, uint32_t width) {
    if (width < 2) return;
    uint64_t i = 0, j = width - 1u;
    for (; i + 3 <= j; i += 2, j -= 2) {
        const uint32_t a0 = packed::get12(row, i), a1 = packed::get12(row, i + 1);
        const uint32_t b0 = packed::get12(row, j), b1 = packed::get12(row, j - 1);
        packed::put12(row, i, b0);
        packed::put12(row, i + 1, b1);
        packed::put12(row, j, a0);
        packed::put12(row, j - 1, a1);
    }
    if (i < j) {
        const uint32_t a = packed::get12(row, i);
        packed::put12(row, i, packed::get12(row, j));
        packed::put12(row, j, a);
    }
}

// 8, 16, 32 and 64 bits: eight bytes from each end at a time, reversed as
// units of 1, 2, 4 or 8 bytes.
template <int Unit>
inline uint64_t reverse_units(uint64_t v) {
    if constexpr (Unit == 1) return bswap64(v);
    if constexpr (Unit == 2) {
        v = bswap64(v);
        return ((v >> 8) & 0x00FF00FF00FF00FFull) | ((v & 0x00FF00FF00FF00FFull) << 8);
    }
    if constexpr (Unit == 4) return (v >> 32) | (v << 32);
    return v;
}
#if ZK_X86_TIERS
// Lane shuffle reversing the units of `Unit` bytes inside each 16-byte lane.
template <int Unit>
constexpr std::array<uint8_t, 32> units_back() {
    std::array<uint8_t, 32> t{};
    for (int k = 0; k < 32; ++k) t[k] = static_cast<uint8_t>((15 - k % 16) / Unit * Unit + k % Unit);
    return t;
}

// 32 bytes from each end at a time: units reversed inside each lane, then
// the two lanes exchanged. Leaves [*i, *j) to the portable loop.
template <int Unit>
__attribute__((target("avx2"))) void mirror_units_avx2(uint8_t* row, size_t* i, size_t* j) {
    static constexpr std::array<uint8_t, 32> kBack = units_back<Unit>();
    const __m256i back = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(kBack.data()));
    size_t a = *i, b = *j;
    for (; b - a >= 64; a += 32, b -= 32) {
        const __m256i x = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(row + a));
        const __m256i y = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(row + b - 32));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(row + a),
                            _mm256_permute4x64_epi64(_mm256_shuffle_epi8(y, back), 0x4E));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(row + b - 32),
                            _mm256_permute4x64_epi64(_mm256_shuffle_epi8(x, back), 0x4E));
    }
    *i = a;
    *j = b;
}

// The same with 64 bytes from each end and one byte permute each, where the
// processor has the 512-bit tier.
template <int Unit>
constexpr std::array<uint8_t, 64> units_back64() {
    std::array<uint8_t, 64> t{};
    for (int k = 0; k < 64; ++k) t[k] = static_cast<uint8_t>((63 - k) / Unit * Unit + k % Unit);
    return t;
}

template <int Unit>
__attribute__((target("avx512f,avx512bw,avx512vbmi"))) void mirror_units_avx512(uint8_t* row, size_t* i, size_t* j) {
    static constexpr std::array<uint8_t, 64> kBack = units_back64<Unit>();
    const __m512i back = _mm512_loadu_si512(kBack.data());
    size_t a = *i, b = *j;
    for (; b - a >= 128; a += 64, b -= 64) {
        const __m512i x = _mm512_loadu_si512(row + a);
        const __m512i y = _mm512_loadu_si512(row + b - 64);
        _mm512_storeu_si512(row + a, _mm512_permutexvar_epi8(back, y));
        _mm512_storeu_si512(row + b - 64, _mm512_permutexvar_epi8(back, x));
    }
    *i = a;
    *j = b;
}
#endif

template <int Unit>
void mirror_units(uint8_t* row, uint32_t width) {
    size_t i = 0, j = static_cast<size_t>(uint64_t{width} * Unit);
#if ZK_X86_TIERS
    if (j >= 128 && platform::cpu_tier() >= platform::CpuTier::AVX512) mirror_units_avx512<Unit>(row, &i, &j);
    if (j - i >= 64 && platform::cpu_tier() >= platform::CpuTier::AVX2) mirror_units_avx2<Unit>(row, &i, &j);
#endif
    for (; j - i >= 16; i += 8, j -= 8) {
        const uint64_t a = load64(row + i);
        const uint64_t c = load64(row + j - 8);
        store64(row + i, reverse_units<Unit>(c));
        store64(row + j - 8, reverse_units<Unit>(a));
    }
    // Fewer than 16 bytes left: whole units from both ends.
    for (; j - i >= 2 * Unit; i += Unit, j -= Unit) {
        uint8_t t[Unit];
        std::memcpy(t, row + i, Unit);
        std::memcpy(row + i, row + j - Unit, Unit);
        std::memcpy(row + j - Unit, t, Unit);
    }
}

// 24 and 48 bits: k pixels of src reversed into dst (which has 8 bytes to
// spare at the end), out of place. 24 bits go two pixels per 8-byte load:
// the load ends with the pair and so starts 2 bytes before it, which the
// last pair (at the start of src) may not do.
template <int Unit>
void reverse_into(uint8_t* dst, const uint8_t* src, size_t k) {
    size_t m = 0;  // pixels written
    if constexpr (Unit == 3) {
        for (; m + 2 <= k && 3 * (k - m - 2) >= 2; m += 2) {
            const uint64_t x = load_le64(src + 3 * (k - m - 2) - 2);
            const uint64_t first = (x >> 16) & 0xFFFFFFu;  // pixel k-m-2
            const uint64_t second = x >> 40;               // pixel k-m-1
            store_le64(dst + 3 * m, second | (first << 24));
        }
    }
    for (; m < k; ++m) std::memcpy(dst + Unit * m, src + Unit * (k - 1 - m), Unit);
}
template <int Unit>
void mirror_odd_units(uint8_t* row, uint32_t width) {
    constexpr size_t kChunk = 32;  // pixels per end and step
    uint8_t left[Unit * kChunk + 8];
    uint8_t right[Unit * kChunk + 8];
    size_t i = 0, j = width;  // pixels [i, j) are still to be mirrored
    for (; j - i >= 2 * kChunk; i += kChunk, j -= kChunk) {
        reverse_into<Unit>(left, row + Unit * i, kChunk);
        reverse_into<Unit>(right, row + Unit * (j - kChunk), kChunk);
        std::memcpy(row + Unit * i, right, Unit * kChunk);
        std::memcpy(row + Unit * (j - kChunk), left, Unit * kChunk);
    }
    if (j - i >= 2) {
        uint8_t middle[Unit * 2 * kChunk + 8];
        reverse_into<Unit>(middle, row + Unit * i, j - i);
        std::memcpy(row + Unit * i, middle, Unit * (j - i));
    }
}

#if ZK_X86_TIERS
// 24 bits where the processor has AVX2: 16 pixels (48 bytes, three 16-byte
// blocks) from each end at a time. Reversed pixel m of a group is source
// byte 45 - 3m + c for its byte c; each output block gathers its bytes from
// up to three source blocks, one byte shuffle per source block (index 0x80
// gives 0).
struct Gather24 {
    uint8_t index[3][3][16];  // [output block][source block][byte]
};
constexpr Gather24 make_gather24() {
    Gather24 g{};
    for (int k = 0; k < 3; ++k)
        for (int b = 0; b < 3; ++b)
            for (int i = 0; i < 16; ++i) {
                const int o = 16 * k + i, m = o / 3, c = o % 3, s = 45 - 3 * m + c;
                g.index[k][b][i] = static_cast<uint8_t>(s / 16 == b ? s % 16 : 0x80);
            }
    return g;
}
constexpr Gather24 kGather24 = make_gather24();

__attribute__((target("avx2"))) inline void reverse48(const __m128i (&in)[3], __m128i (&out)[3],
                                                      const __m128i (&index)[3][3]) {
    for (int k = 0; k < 3; ++k)
        out[k] = _mm_or_si128(_mm_or_si128(_mm_shuffle_epi8(in[0], index[k][0]), _mm_shuffle_epi8(in[1], index[k][1])),
                              _mm_shuffle_epi8(in[2], index[k][2]));
}

__attribute__((target("avx2"))) void mirror24_avx2(uint8_t* row, uint32_t width) {
    __m128i index[3][3];
    for (int k = 0; k < 3; ++k)
        for (int b = 0; b < 3; ++b)
            index[k][b] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(kGather24.index[k][b]));
    size_t i = 0, j = width;  // pixels [i, j) are still to be mirrored
    for (; j - i >= 32; i += 16, j -= 16) {
        uint8_t* left = row + 3 * i;
        uint8_t* right = row + 3 * (j - 16);
        __m128i l[3], r[3], nl[3], nr[3];
        for (int b = 0; b < 3; ++b) {
            l[b] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(left + 16 * b));
            r[b] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(right + 16 * b));
        }
        reverse48(r, nl, index);
        reverse48(l, nr, index);
        for (int b = 0; b < 3; ++b) {
            _mm_storeu_si128(reinterpret_cast<__m128i*>(left + 16 * b), nl[b]);
            _mm_storeu_si128(reinterpret_cast<__m128i*>(right + 16 * b), nr[b]);
        }
    }
    mirror_odd_units<3>(row + 3 * i, static_cast<uint32_t>(j - i));
}
#endif

#if ZK_X86_TIERS
// 24 bits where the processor has the 512-bit tier: 32 pixels (96 bytes)
// from each end at a time, each reversed by two two-register byte permutes
// (output byte 3m + c is source byte 93 - 3m + c); the middle goes to the
// AVX2 kernel.
constexpr std::array<uint8_t, 128> make_back96() {
    std::array<uint8_t, 128> t{};
    for (int o = 0; o < 96; ++o) t[o] = static_cast<uint8_t>(93 - 3 * (o / 3) + o % 3);
    return t;
}
constexpr std::array<uint8_t, 128> kBack96 = make_back96();

#define ZK_MIRROR512_TARGET __attribute__((target("avx512f,avx512bw,avx512vbmi")))

// The 96 bytes at p reversed pixel by pixel, as 64 + 32 bytes.
ZK_MIRROR512_TARGET inline void reverse96(const uint8_t* p, __m512i lo_index, __m512i hi_index, __m512i* lo,
                                          __m256i* hi) {
    const __m512i a = _mm512_loadu_si512(p);
    const __m512i b = _mm512_castsi256_si512(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(p + 64)));
    *lo = _mm512_permutex2var_epi8(a, lo_index, b);
    *hi = _mm512_castsi512_si256(_mm512_permutex2var_epi8(a, hi_index, b));
}

ZK_MIRROR512_TARGET void mirror24_avx512(uint8_t* row, uint32_t width) {
    const __m512i lo_index = _mm512_loadu_si512(kBack96.data());
    const __m512i hi_index = _mm512_loadu_si512(kBack96.data() + 64);
    size_t i = 0, j = width;  // pixels [i, j) are still to be mirrored
    for (; j - i >= 64; i += 32, j -= 32) {
        uint8_t* left = row + 3 * i;
        uint8_t* right = row + 3 * (j - 32);
        __m512i l0, r0;
        __m256i l1, r1;
        reverse96(left, lo_index, hi_index, &l0, &l1);
        reverse96(right, lo_index, hi_index, &r0, &r1);
        _mm512_storeu_si512(left, r0);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(left + 64), r1);
        _mm512_storeu_si512(right, l0);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(right + 64), l1);
    }
    mirror24_avx2(row + 3 * i, static_cast<uint32_t>(j - i));
}
#undef ZK_MIRROR512_TARGET
#endif

void mirror24(uint8_t* row, uint32_t width) {
#if ZK_X86_TIERS
    if (width >= 64 && platform::cpu_tier() >= platform::CpuTier::AVX512) {
        mirror24_avx512(row, width);
        return;
    }
    if (width >= 32 && platform::cpu_tier() >= platform::CpuTier::AVX2) {
        mirror24_avx2(row, width);
        return;
    }
#endif
    mirror_odd_units<3>(row, width);
}

// A depth's mirror kernel and whether it clears the bits past the last
// pixel of its byte (the whole-byte reversal of 1, 2 and 4 bits does).
struct MirrorKernel {
    void (*run)(uint8_t* row, uint32_t width) = nullptr;
    bool clears_tail = false;
};

// Whole-byte units: reversed in place where the unit is a power of two, out
// of place through a stack buffer otherwise (3 bytes with its own vector
// kernels).
template <int Unit>
constexpr MirrorKernel units_kernel() {
    if constexpr ((Unit & (Unit - 1)) == 0)
        return {mirror_units<Unit>, false};
    else if constexpr (Unit == 3)
        return {mirror24, false};
    else
        return {mirror_odd_units<Unit>, false};
}

// Each depth's kernel, chosen by its entry in the pixel-format table.
template <int32_t Depth>
constexpr MirrorKernel mirror_kernel_of() {
    constexpr PixelFormat f = pixel_format(Depth);
    if constexpr (!f.bitmap)
        return {};
    else if constexpr (f.packing == Packing::Fields && 8 % f.bits == 0)
        return {mirror_packed<f.bits>, true};
    else if constexpr (f.packing == Packing::Fields)
        return {mirror_fields<f.bits>, false};
    else if constexpr (f.packing == Packing::Gray12)
        return {mirror12, false};
    else
        return units_kernel<f.bits / 8>();
}

template <size_t... D>
constexpr auto mirror_table(std::index_sequence<D...>) {
    return std::array<MirrorKernel, sizeof...(D)>{mirror_kernel_of<static_cast<int32_t>(D)>()...};
}

constexpr auto kMirror = mirror_table(std::make_index_sequence<kMaxDepth + 1>());

const MirrorKernel& mirror_kernel(int32_t bpp) {
    static constexpr MirrorKernel kNone{};
    return bpp >= 0 && bpp <= kMaxDepth ? kMirror[static_cast<size_t>(bpp)] : kNone;
}

}  // namespace

void mirror_line(uint8_t* row, uint32_t width, int32_t bpp) {
    const MirrorKernel& k = mirror_kernel(bpp);
    if (k.run) k.run(row, width);
}

void mirror_row_exact(uint8_t* row, uint32_t width, int32_t bpp) {
    const MirrorKernel& k = mirror_kernel(bpp);
    if (!k.run) return;
    const uint64_t bits = uint64_t{width} * pixel_format(bpp).bits;
    const unsigned used = static_cast<unsigned>(bits % 8);
    if (!k.clears_tail || used == 0) {
        k.run(row, width);
        return;
    }
    // The kernel clears the bits past the last pixel: put them back.
    const size_t last = static_cast<size_t>(bits / 8);
    const uint8_t spare = static_cast<uint8_t>(0xFFu >> used);
    const uint8_t kept = row[last] & spare;
    k.run(row, width);
    row[last] = static_cast<uint8_t>((row[last] & ~spare) | kept);
}

}  // namespace zk::geometry

extern "C" int32_t Z_API Z_MirrorLine(uint8_t* buffer, uint32_t width, int32_t bitsPerPixel) {
    if (!buffer) return ST_BAD_PARAM;
    zk::geometry::mirror_line(buffer, width, bitsPerPixel);
    return ST_OK;
}
