// The portable tier of the fast-path kernels, built for the baseline
// instruction set. Each gives the same bytes as the general path (a test
// holds them to it); they only skip the pivot.
//
// `Swap` means that source and destination disagree on whether red comes
// first, so bytes 0 and 2 change places.
#include <cstring>
#include <utility>

#include "color/convert.h"
#include "core/platform/x86_intrinsics.h"

namespace zk {
namespace {

// Kernels work a block at a time: the block's source pixels are copied to a
// local array first, so that the loop from it into the row has no aliasing
// and the compiler can vectorise it. Blocks run forwards when the destination
// pixel is not larger, backwards otherwise, as the general path does.
constexpr uint32_t kBlock = 512;

#if defined(__GNUC__)
#define ZK_KERNEL __attribute__((always_inline)) inline
#else
#define ZK_KERNEL inline
#endif

// Byte shuffles of 16-byte vectors where the compiler offers them and the
// target has vector registers in its baseline (16-bit lanes are stored as
// little-endian samples); the scalar loops after each
// vector loop finish the row (and are the whole kernel elsewhere).
#if defined(__GNUC__) && (defined(__SSE2__) || defined(__ARM_NEON)) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
#define ZK_VECTORS 1
typedef uint8_t V16 __attribute__((vector_size(16)));
ZK_KERNEL V16 load16(const uint8_t* p) {
    V16 v;
    std::memcpy(&v, p, 16);
    return v;
}
ZK_KERNEL void store16(uint8_t* p, V16 v) { std::memcpy(p, &v, 16); }

// Two-buffer kernels writing a destination far larger than the caches
// store around them where the instruction set can (16-byte aligned
// addresses) and ask for source lines ahead of their loads: a single thread
// otherwise stays well short of the memory's speed.
constexpr size_t kPrefetchBytes = 2048;

template <bool Stream>
ZK_KERNEL void put16(uint8_t* p, V16 v) {
#if ZK_X86_TIERS && defined(__SSE2__)
    if constexpr (Stream) {
        __m128i x;
        std::memcpy(&x, &v, 16);
        _mm_stream_si128(reinterpret_cast<__m128i*>(p), x);
        return;
    }
#endif
    store16(p, v);
}

template <bool Stream>
ZK_KERNEL void ahead(const uint8_t* p) {
    if constexpr (Stream) __builtin_prefetch(p + kPrefetchBytes);
}

typedef uint16_t W16 __attribute__((vector_size(32)));  // sixteen 16-bit lanes

// Channel C of sixteen 3-byte pixels held in a, b, c (48 bytes).
template <int C, size_t... J>
ZK_KERNEL V16 channel_of(V16 a, V16 b, V16 c, std::index_sequence<J...>) {
    constexpr auto in_ab = [](size_t j) { return 3 * j + C < 32 ? static_cast<int>(3 * j + C) : 0; };
    constexpr auto pick = [](size_t j) {
        return 3 * j + C < 32 ? static_cast<int>(j) : static_cast<int>(16 + 3 * j + C - 32);
    };
    const V16 ab = __builtin_shufflevector(a, b, in_ab(J)...);
    return __builtin_shufflevector(ab, c, pick(J)...);
}
template <int C>
ZK_KERNEL V16 channel_of(V16 a, V16 b, V16 c) {
    return channel_of<C>(a, b, c, std::make_index_sequence<16>());
}

// Bytes K*16 .. K*16+15 of sixteen 3-byte pixels whose channels are x, y, z.
template <int K, size_t... J>
ZK_KERNEL V16 interleave_part(V16 x, V16 y, V16 z, std::index_sequence<J...>) {
    // Output byte p = 16K + j is channel p % 3 of pixel p / 3.
    constexpr auto in_xy = [](size_t j) {
        const size_t p = 16 * K + j;
        return p % 3 == 0 ? static_cast<int>(p / 3) : p % 3 == 1 ? static_cast<int>(16 + p / 3) : 0;
    };
    constexpr auto pick = [](size_t j) {
        const size_t p = 16 * K + j;
        return p % 3 == 2 ? static_cast<int>(16 + p / 3) : static_cast<int>(j);
    };
    const V16 xy = __builtin_shufflevector(x, y, in_xy(J)...);
    return __builtin_shufflevector(xy, z, pick(J)...);
}
template <int K>
ZK_KERNEL V16 interleave_part(V16 x, V16 y, V16 z) {
    return interleave_part<K>(x, y, z, std::make_index_sequence<16>());
}

// Interleaves of the low and high halves of two vectors, by bytes and by
// 16-bit pairs: single unpack instructions on every vector instruction set,
// where general byte shuffles are not (SSE2 has none).
ZK_KERNEL V16 zip_lo(V16 a, V16 b) {
    return __builtin_shufflevector(a, b, 0, 16, 1, 17, 2, 18, 3, 19, 4, 20, 5, 21, 6, 22, 7, 23);
}
ZK_KERNEL V16 zip_hi(V16 a, V16 b) {
    return __builtin_shufflevector(a, b, 8, 24, 9, 25, 10, 26, 11, 27, 12, 28, 13, 29, 14, 30, 15, 31);
}
ZK_KERNEL V16 zip_pairs_lo(V16 a, V16 b) {
    return __builtin_shufflevector(a, b, 0, 1, 16, 17, 2, 3, 18, 19, 4, 5, 20, 21, 6, 7, 22, 23);
}
ZK_KERNEL V16 zip_pairs_hi(V16 a, V16 b) {
    return __builtin_shufflevector(a, b, 8, 9, 24, 25, 10, 11, 26, 27, 12, 13, 28, 29, 14, 15, 30, 31);
}

// The three channels of 32 3-byte pixels (96 bytes from p): five rounds of
// interleaving register k with register k + 3 sort the bytes by channel,
// then by pixel. Register 2k holds channel k of pixels 0-15, 2k + 1 of
// pixels 16-31.
struct Channels32 {
    V16 c0, c1, c2, c3, c4, c5;
};

ZK_KERNEL Channels32 interleave_round(const Channels32& x) {
    return {zip_lo(x.c0, x.c3), zip_hi(x.c0, x.c3), zip_lo(x.c1, x.c4),
            zip_hi(x.c1, x.c4), zip_lo(x.c2, x.c5), zip_hi(x.c2, x.c5)};
}

ZK_KERNEL Channels32 split_channels(const uint8_t* p) {
    const Channels32 x{load16(p), load16(p + 16), load16(p + 32), load16(p + 48), load16(p + 64), load16(p + 80)};
    return interleave_round(interleave_round(interleave_round(interleave_round(interleave_round(x)))));
}

// Byte masks of the three phases of a 48-byte run of 3-byte pixels.
template <int K, int Phase, size_t... J>
constexpr V16 phase_bytes(std::index_sequence<J...>) {
    return V16{static_cast<uint8_t>((16 * K + J) % 3 == Phase ? 0xFF : 0)...};
}
template <int K, int Phase>
constexpr V16 phase_bytes() {
    return phase_bytes<K, Phase>(std::make_index_sequence<16>());
}

// 16 bytes of a red-blue exchange at p (16K bytes into a 48-byte run that
// starts on a pixel): byte q takes byte q + 2, q or q - 2 as q % 3 is 0, 1
// or 2, from three loads and bitwise selects.
template <int K>
ZK_KERNEL V16 swapped_bytes(const uint8_t* p) {
    constexpr V16 next = phase_bytes<K, 0>(), same = phase_bytes<K, 1>(), prev = phase_bytes<K, 2>();
    return (load16(p + 2) & next) | (load16(p) & same) | (load16(p - 2) & prev);
}
#else
#define ZK_VECTORS 0
#endif

#if ZK_VECTORS && ZK_X86_TIERS && defined(__SSE2__)
constexpr bool kCanStream = true;
#else
constexpr bool kCanStream = false;
#endif

// Pixels before the first whose destination byte is on a 16-byte boundary,
// for destination pixels of `bytes` bytes (1, 3 or 4).
inline size_t pixels_to_alignment(const uint8_t* dst, uint32_t bytes) {
    const auto gap = static_cast<size_t>((16 - reinterpret_cast<uintptr_t>(dst) % 16) % 16);
    if (bytes == 3) return gap * 11 % 16;  // 3 * 11 = 1 modulo 16
    return gap / bytes;
}

template <uint32_t SrcBytes, uint32_t DstBytes, typename Body>
ZK_KERNEL void by_blocks(uint8_t* row, uint32_t width, Body body) {
    alignas(64) uint8_t local[kBlock * SrcBytes + 16] = {};  // slack for 16-byte loads
    if (DstBytes > SrcBytes) {
        for (uint32_t end = width; end > 0;) {
            const uint32_t n = end < kBlock ? end : kBlock;
            end -= n;
            std::memcpy(local, row + size_t{end} * SrcBytes, size_t{n} * SrcBytes);
            body(local, row + size_t{end} * DstBytes, n);
        }
    } else {
        for (uint32_t first = 0; first < width; first += kBlock) {
            const uint32_t n = width - first < kBlock ? width - first : kBlock;
            std::memcpy(local, row + size_t{first} * SrcBytes, size_t{n} * SrcBytes);
            body(local, row + size_t{first} * DstBytes, n);
        }
    }
}

// Red and blue exchanged, from src to dst: the same row, or rows that do
// not overlap. 16 pixels (48 bytes) per group, forwards; the first pixel is
// swapped alone so that the loads two bytes back stay in the row, and a
// group is loaded before the previous one is stored.
template <bool Stream = false>
ZK_KERNEL void swap_bgr24(const uint8_t* src, uint8_t* dst, uint32_t width, size_t head = 1) {
    (void)head;  // the scalar build swaps every pixel alone
    const size_t bytes = 3 * size_t{width};
    const auto swap_pixel = [src, dst](size_t o) { swap_pixel24(src + o, dst + o); };
    size_t o = 0;
#if ZK_VECTORS
    if (bytes >= 3 * head + 48 + 2) {
        for (; o < 3 * head; o += 3) swap_pixel(o);
        V16 g0 = swapped_bytes<0>(src + o), g1 = swapped_bytes<1>(src + o + 16), g2 = swapped_bytes<2>(src + o + 32);
        for (; o + 48 + 50 <= bytes; o += 48) {
            const uint8_t* n = src + o + 48;
            ahead<Stream>(n);
            const V16 n0 = swapped_bytes<0>(n), n1 = swapped_bytes<1>(n + 16), n2 = swapped_bytes<2>(n + 32);
            put16<Stream>(dst + o, g0);
            put16<Stream>(dst + o + 16, g1);
            put16<Stream>(dst + o + 32, g2);
            g0 = n0;
            g1 = n1;
            g2 = n2;
        }
        put16<Stream>(dst + o, g0);
        put16<Stream>(dst + o + 16, g1);
        put16<Stream>(dst + o + 32, g2);
        o += 48;
    }
#endif
    for (; o < bytes; o += 3) swap_pixel(o);
}

#if ZK_VECTORS
// 32 pixels of 24 bits at s to 32 bits at d: channels split, then
// interleaved again by bytes and by pairs with the alpha byte. Every load
// happens before the first store.
template <bool Swap, bool Stream = false>
ZK_KERNEL void widen32_group(const uint8_t* s, uint8_t* d, V16 alpha) {
    const Channels32 c = split_channels(s);
    // Sixteen pixels from their three channel registers.
    const auto widen16 = [alpha](V16 first, V16 second, V16 third, V16* out) {
        if constexpr (Swap) std::swap(first, third);
        const V16 lo01 = zip_lo(first, second), hi01 = zip_hi(first, second);
        const V16 lo2a = zip_lo(third, alpha), hi2a = zip_hi(third, alpha);
        out[0] = zip_pairs_lo(lo01, lo2a);
        out[1] = zip_pairs_hi(lo01, lo2a);
        out[2] = zip_pairs_lo(hi01, hi2a);
        out[3] = zip_pairs_hi(hi01, hi2a);
    };
    V16 out[8];
    widen16(c.c0, c.c2, c.c4, out);
    widen16(c.c1, c.c3, c.c5, out + 4);
    for (int k = 0; k < 8; ++k) put16<Stream>(d + 16 * k, out[k]);
}
#endif

template <bool Swap>
ZK_KERNEL void widen32_pixel(const uint8_t* src, uint8_t* dst, size_t i, uint8_t alpha) {
    const uint8_t c0 = src[3 * i], c1 = src[3 * i + 1], c2 = src[3 * i + 2];
    dst[4 * i] = Swap ? c2 : c0;
    dst[4 * i + 1] = c1;
    dst[4 * i + 2] = Swap ? c0 : c2;
    dst[4 * i + 3] = alpha;
}

// 24 -> 32 bits in place, 32 pixels per group from the last group back: a
// group's stores (from byte 128g) never reach the loads of the groups
// before it (below byte 96g).
template <bool Swap>
ZK_KERNEL void bgr24_to_bgr32(uint8_t* row, uint32_t width, uint8_t alpha) {
    size_t end = width;
#if ZK_VECTORS
    V16 a;
    std::memset(&a, alpha, 16);
    for (; end % 32; --end) widen32_pixel<Swap>(row, row, end - 1, alpha);
    for (; end >= 32; end -= 32) widen32_group<Swap>(row + 3 * (end - 32), row + 4 * (end - 32), a);
#endif
    for (; end > 0; --end) widen32_pixel<Swap>(row, row, end - 1, alpha);
}

// 24 -> 32 bits from a source row into a destination row that does not
// overlap it, forwards; loads stay inside the source row.
template <bool Swap, bool Stream = false>
ZK_KERNEL void bgr24_to_bgr32_into(const uint8_t* src, uint8_t* dst, uint32_t width, uint8_t alpha, size_t head = 0) {
    size_t i = 0;
    for (; i < head && i < width; ++i) widen32_pixel<Swap>(src, dst, i, alpha);
#if ZK_VECTORS
    V16 a;
    std::memset(&a, alpha, 16);
    for (; i + 32 <= width; i += 32) {
        ahead<Stream>(src + 3 * i);
        widen32_group<Swap, Stream>(src + 3 * i, dst + 4 * i, a);
    }
#endif
    for (; i < width; ++i) widen32_pixel<Swap>(src, dst, i, alpha);
}

template <bool Swap>
ZK_KERNEL void bgr32_to_bgr24(uint8_t* row, uint32_t width) {
    size_t i = 0;
#if ZK_VECTORS
    // Four pixels per vector, forwards in place. The store's last four bytes
    // land on source bytes already read and are rewritten by the next group;
    // the last group stays inside the destination row.
    const auto narrow4 = [](V16 v) {
        if constexpr (Swap)
            return __builtin_shufflevector(v, v, 2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, 3, 7, 11, 15);
        else
            return __builtin_shufflevector(v, v, 0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, 3, 7, 11, 15);
    };
    // Eight groups per round, loads before stores.
    for (; 3 * (i + 28) + 16 <= 3 * size_t{width}; i += 32) {
        V16 g[8];
        for (int k = 0; k < 8; ++k) g[k] = load16(row + 4 * (i + 4 * k));
        for (int k = 0; k < 8; ++k) store16(row + 3 * (i + 4 * k), narrow4(g[k]));
    }
    for (; 3 * i + 16 <= 3 * size_t{width}; i += 4) store16(row + 3 * i, narrow4(load16(row + 4 * i)));
#endif
    for (; i < width; ++i) {
        const uint8_t c0 = row[4 * i], c1 = row[4 * i + 1], c2 = row[4 * i + 2];
        row[3 * i] = Swap ? c2 : c0;
        row[3 * i + 1] = c1;
        row[3 * i + 2] = Swap ? c0 : c2;
    }
}

// RedFirst: the source is CO_RGB. 32 pixels per group, forwards, every
// load of a group before its store (in place the store ends before the next
// group's first byte). Weighted sums in 16-bit lanes of split channels.
template <bool RedFirst, bool Stream = false>
ZK_KERNEL void bgr24_to_gray8(const uint8_t* src, uint8_t* dst, uint32_t width, size_t head = 0) {
    const auto one = [src, dst](size_t i) {
        const uint8_t* q = src + 3 * i;
        const uint32_t r = RedFirst ? q[0] : q[2], b = RedFirst ? q[2] : q[0];
        dst[i] = static_cast<uint8_t>(gray8(r, q[1], b));
    };
    size_t i = 0;
    for (; i < head && i < width; ++i) one(i);
#if ZK_VECTORS
    // Sixteen gray bytes from three channel registers: in 16-bit lanes the
    // even pixels are the low bytes and the odd ones the high bytes, so both
    // are weighed without unpacking and come back interleaved.
    typedef uint16_t W8 __attribute__((vector_size(16)));
    const auto gray16 = [](V16 v0, V16 v1, V16 v2) {
        const W8 w0 = reinterpret_cast<W8&>(v0), w1 = reinterpret_cast<W8&>(v1), w2 = reinterpret_cast<W8&>(v2);
        const W8 r = RedFirst ? w0 : w2, b = RedFirst ? w2 : w0;
        const W8 even = (2 * (r & 0xFF) + 5 * (w1 & 0xFF) + (b & 0xFF) + 4) >> 3;
        const W8 odd = (2 * (r >> 8) + 5 * (w1 >> 8) + (b >> 8) + 4) >> 3;
        const W8 both = even | odd << 8;
        return reinterpret_cast<const V16&>(both);
    };
    for (; i + 32 <= width; i += 32) {
        ahead<Stream>(src + 3 * i);
        const Channels32 c = split_channels(src + 3 * i);
        put16<Stream>(dst + i, gray16(c.c0, c.c2, c.c4));
        put16<Stream>(dst + i + 16, gray16(c.c1, c.c3, c.c5));
    }
#endif
    for (; i < width; ++i) one(i);
}

// 5-5-5 with the channel of byte 2 in bits 10-14 unless Swap.
template <bool Swap>
ZK_KERNEL void bgr24_to_bgr555(uint8_t* row, uint32_t width) {
    size_t i = 0;
#if ZK_VECTORS
    // Sixteen pixels per group, forwards in place (32 bytes out of 48).
    for (; i + 16 <= width; i += 16) {
        const uint8_t* p = row + 3 * i;
        const V16 a = load16(p), b = load16(p + 16), c = load16(p + 32);
        const W16 c0 = __builtin_convertvector(channel_of<0>(a, b, c), W16) >> 3;
        const W16 c1 = __builtin_convertvector(channel_of<1>(a, b, c), W16) >> 3;
        const W16 c2 = __builtin_convertvector(channel_of<2>(a, b, c), W16) >> 3;
        const W16 w = Swap ? (c0 << 10 | c1 << 5 | c2) : (c2 << 10 | c1 << 5 | c0);
        std::memcpy(row + 2 * i, &w, 32);  // little-endian lanes
    }
#endif
    for (; i < width; ++i) {
        const uint8_t* q = row + 3 * i;
        const uint32_t c0 = q[0] >> 3, c1 = q[1] >> 3, c2 = q[2] >> 3;
        const uint32_t w = Swap ? (c0 << 10 | c1 << 5 | c2) : (c2 << 10 | c1 << 5 | c0);
        row[2 * i] = static_cast<uint8_t>(w);
        row[2 * i + 1] = static_cast<uint8_t>(w >> 8);
    }
}

template <bool Swap>
ZK_KERNEL void bgr555_to_bgr24(uint8_t* row, uint32_t width) {
    size_t end = width;
#if ZK_VECTORS
    // Sixteen pixels per group from the last group back: a group's stores
    // (from byte 48g) never reach the next group's loads (below byte 32g).
    for (; end >= 16; end -= 16) {
        const size_t i = end - 16;
        W16 w;
        std::memcpy(&w, row + 2 * i, 32);
        const W16 lo = w & 31, mid = w >> 5 & 31, hi = w >> 10 & 31;
        const V16 x = __builtin_convertvector(lo << 3 | lo >> 2, V16);
        const V16 y = __builtin_convertvector(mid << 3 | mid >> 2, V16);
        const V16 z = __builtin_convertvector(hi << 3 | hi >> 2, V16);
        const V16 c0 = Swap ? z : x, c2 = Swap ? x : z;
        uint8_t* q = row + 3 * i;
        const V16 o0 = interleave_part<0>(c0, y, c2), o1 = interleave_part<1>(c0, y, c2),
                  o2 = interleave_part<2>(c0, y, c2);
        store16(q, o0);
        store16(q + 16, o1);
        store16(q + 32, o2);
    }
#endif
    for (size_t i = end; i-- > 0;) {
        const uint32_t w = row[2 * i] | uint32_t{row[2 * i + 1]} << 8;
        const auto widen = [](uint32_t v) { return static_cast<uint8_t>(v << 3 | v >> 2); };
        const uint8_t lo = widen(w & 31), mid = widen(w >> 5 & 31), hi = widen(w >> 10 & 31);
        row[3 * i] = Swap ? hi : lo;
        row[3 * i + 1] = mid;
        row[3 * i + 2] = Swap ? lo : hi;
    }
}

template <bool Swap>
ZK_KERNEL void bgr48_to_bgr24(uint8_t* row, uint32_t width) {
    size_t i = 0;
#if ZK_VECTORS
    if constexpr (!Swap) {
        // In order the result is every high byte: five pixels and a byte
        // from 32 source bytes, forwards in place.
        const auto high_bytes = [](V16 lo, V16 hi) {
            return __builtin_shufflevector(lo, hi, 1, 3, 5, 7, 9, 11, 13, 15, 17, 19, 21, 23, 25, 27, 29, 31);
        };
        // Four groups per round, loads before stores.
        for (; i + 21 <= width; i += 20) {
            V16 g[8];
            for (int k = 0; k < 4; ++k) {
                g[2 * k] = load16(row + 6 * (i + 5 * k));
                g[2 * k + 1] = load16(row + 6 * (i + 5 * k) + 16);
            }
            for (int k = 0; k < 4; ++k) store16(row + 3 * (i + 5 * k), high_bytes(g[2 * k], g[2 * k + 1]));
        }
        for (; i + 6 <= width && 3 * i + 16 <= 3 * size_t{width}; i += 5)
            store16(row + 3 * i, high_bytes(load16(row + 6 * i), load16(row + 6 * i + 16)));
    }
#endif
    for (; i < width; ++i) {
        const uint8_t c0 = row[6 * i + 1], c1 = row[6 * i + 3], c2 = row[6 * i + 5];
        row[3 * i] = Swap ? c2 : c0;
        row[3 * i + 1] = c1;
        row[3 * i + 2] = Swap ? c0 : c2;
    }
}

template <bool RedFirst>
ZK_KERNEL void pal8_to_bgr24(uint8_t* row, uint32_t width, const RGBQUAD* colours) {
    // Each index's three bytes, laid out once.
    uint8_t table[256][4];
    for (uint32_t i = 0; i < 256; ++i) {
        const auto v = static_cast<uint8_t>(i);
        const RGBQUAD c = colours ? colours[i] : RGBQUAD{v, v, v, 0};  // no palette: gray level i
        table[i][0] = RedFirst ? c.rgbRed : c.rgbBlue;
        table[i][1] = c.rgbGreen;
        table[i][2] = RedFirst ? c.rgbBlue : c.rgbRed;
        table[i][3] = 0;
    }
    by_blocks<1, 3>(row, width, [&table](const uint8_t* s, uint8_t* d, uint32_t n) {
        // Four bytes per pixel; the fourth is the next pixel's first byte and
        // is rewritten by it. The block's last pixel writes only its three.
        for (uint32_t i = 0; i + 1 < n; ++i) std::memcpy(d + 3 * i, table[s[i]], 4);
        std::memcpy(d + 3 * (n - 1), table[s[n - 1]], 3);
    });
}

}  // namespace

namespace portable {

void convert_bgr24_to_bgr24(const Plan&, uint8_t*) {}
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
void convert_pal8_to_bgr24(const Plan& p, uint8_t* row) { pal8_to_bgr24<false>(row, p.width, p.src_palette); }
void convert_pal8_to_rgb24(const Plan& p, uint8_t* row) { pal8_to_bgr24<true>(row, p.width, p.src_palette); }

// With plan.stream (and an instruction set that can) the destination is
// written around the caches from its first 16-byte boundary on.
void into_bgr24_to_rgb24(const Plan& p, const uint8_t* s, uint8_t* d) {
    const size_t head = pixels_to_alignment(d, 3);
    if (kCanStream && p.stream)
        swap_bgr24<kCanStream>(s, d, p.width, head ? head : 16);
    else
        swap_bgr24(s, d, p.width);
}
void into_bgr24_to_bgr32(const Plan& p, const uint8_t* s, uint8_t* d) {
    if (kCanStream && p.stream && reinterpret_cast<uintptr_t>(d) % 4 == 0)
        bgr24_to_bgr32_into<false, kCanStream>(s, d, p.width, p.alpha8, pixels_to_alignment(d, 4));
    else
        bgr24_to_bgr32_into<false>(s, d, p.width, p.alpha8);
}
void into_bgr24_to_rgb32(const Plan& p, const uint8_t* s, uint8_t* d) {
    if (kCanStream && p.stream && reinterpret_cast<uintptr_t>(d) % 4 == 0)
        bgr24_to_bgr32_into<true, kCanStream>(s, d, p.width, p.alpha8, pixels_to_alignment(d, 4));
    else
        bgr24_to_bgr32_into<true>(s, d, p.width, p.alpha8);
}
void into_bgr24_to_gray8(const Plan& p, const uint8_t* s, uint8_t* d) {
    if (kCanStream && p.stream)
        bgr24_to_gray8<false, kCanStream>(s, d, p.width, pixels_to_alignment(d, 1));
    else
        bgr24_to_gray8<false>(s, d, p.width);
}
void into_rgb24_to_gray8(const Plan& p, const uint8_t* s, uint8_t* d) {
    if (kCanStream && p.stream)
        bgr24_to_gray8<true, kCanStream>(s, d, p.width, pixels_to_alignment(d, 1));
    else
        bgr24_to_gray8<true>(s, d, p.width);
}

}  // namespace portable
}  // namespace zk
