// The portable tier of the fast-path kernels, built for the baseline
// instruction set. Each gives the same bytes as the general path (a test
// holds them to it); they only skip the pivot.
//
// `Swap` means that source and destination disagree on whether red comes
// first, so bytes 0 and 2 change places.
#include <cstring>
#include <utility>

#include "color/convert.h"

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
#else
#define ZK_VECTORS 0
#endif

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

template <bool Swap>
ZK_KERNEL void bgr24_to_bgr24(uint8_t* row, uint32_t width) {
    if constexpr (!Swap) return;
    const size_t bytes = 3 * size_t{width};
    size_t i = 0;
#if ZK_VECTORS
    // Five pixels per vector, in place. Each group is loaded before the
    // previous one is stored, so no load reads a pending store; a store's byte
    // 15 (the next pixel's first byte, unchanged) is rewritten by the next.
    const auto swap5 = [](V16 v) {
        return __builtin_shufflevector(v, v, 2, 1, 0, 5, 4, 3, 8, 7, 6, 11, 10, 9, 14, 13, 12, 15);
    };
    if (bytes >= 16) {
        V16 v = load16(row);
        // Eight groups per round: all loads first, then the stores.
        for (; i + 136 <= bytes; i += 120) {
            V16 g[9];
            g[0] = v;
            for (int k = 1; k < 9; ++k) g[k] = load16(row + i + 15 * k);
            for (int k = 0; k < 8; ++k) store16(row + i + 15 * k, swap5(g[k]));
            v = g[8];
        }
        for (; i + 31 <= bytes; i += 15) {
            const V16 next = load16(row + i + 15);
            store16(row + i, swap5(v));
            v = next;
        }
        store16(row + i, swap5(v));
        i += 15;
    }
#endif
    for (; i < bytes; i += 3) {
        const uint8_t t = row[i];
        row[i] = row[i + 2];
        row[i + 2] = t;
    }
}

template <bool Swap>
ZK_KERNEL void bgr24_to_bgr32(uint8_t* row, uint32_t width, uint8_t alpha) {
    uint32_t end = width;
#if ZK_VECTORS
    // Four pixels per vector from the last group back. A group's store
    // (from byte 4i) never reaches the next group's load (up to byte 3i + 3).
    V16 a;
    std::memset(&a, alpha, 16);
    const auto widen4 = [&a](V16 v) {
        if constexpr (Swap)
            return __builtin_shufflevector(v, a, 2, 1, 0, 16, 5, 4, 3, 16, 8, 7, 6, 16, 11, 10, 9, 16);
        else
            return __builtin_shufflevector(v, a, 0, 1, 2, 16, 3, 4, 5, 16, 6, 7, 8, 16, 9, 10, 11, 16);
    };
    // Eight groups per round, loads before stores.
    for (; end >= 32; end -= 32) {
        V16 g[8];
        for (int k = 0; k < 8; ++k) g[k] = load16(row + 3 * (end - 4 * (k + 1)));
        for (int k = 0; k < 8; ++k) store16(row + 4 * (end - 4 * (k + 1)), widen4(g[k]));
    }
    for (; end >= 4; end -= 4) {
        const size_t i = end - 4;
        store16(row + 4 * i, widen4(load16(row + 3 * i)));
    }
#endif
    for (size_t i = end; i-- > 0;) {
        const uint8_t c0 = row[3 * i], c1 = row[3 * i + 1], c2 = row[3 * i + 2];
        row[4 * i] = Swap ? c2 : c0;
        row[4 * i + 1] = c1;
        row[4 * i + 2] = Swap ? c0 : c2;
        row[4 * i + 3] = alpha;
    }
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

// RedFirst: the source is CO_RGB.
template <bool RedFirst>
ZK_KERNEL void bgr24_to_gray8(uint8_t* row, uint32_t width) {
    size_t i = 0;
#if ZK_VECTORS
    // Sixteen pixels per group, forwards in place: a group's 16-byte store
    // ends before the next group's first byte.
    for (; i + 16 <= width; i += 16) {
        const uint8_t* p = row + 3 * i;
        const V16 a = load16(p), b = load16(p + 16), c = load16(p + 32);
        const W16 c0 = __builtin_convertvector(channel_of<0>(a, b, c), W16);
        const W16 c1 = __builtin_convertvector(channel_of<1>(a, b, c), W16);
        const W16 c2 = __builtin_convertvector(channel_of<2>(a, b, c), W16);
        const W16 r = RedFirst ? c0 : c2, bl = RedFirst ? c2 : c0;
        const W16 g = (2 * r + 5 * c1 + bl + 4) >> 3;
        store16(row + i, __builtin_convertvector(g, V16));
    }
#endif
    for (; i < width; ++i) {
        const uint8_t* q = row + 3 * i;
        const uint32_t r = RedFirst ? q[0] : q[2], b = RedFirst ? q[2] : q[0];
        row[i] = static_cast<uint8_t>(gray8(r, q[1], b));
    }
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
void convert_bgr24_to_rgb24(const Plan& p, uint8_t* row) { bgr24_to_bgr24<true>(row, p.width); }
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
void convert_pal8_to_bgr24(const Plan& p, uint8_t* row) { pal8_to_bgr24<false>(row, p.width, p.src_palette); }
void convert_pal8_to_rgb24(const Plan& p, uint8_t* row) { pal8_to_bgr24<true>(row, p.width, p.src_palette); }

}  // namespace portable
}  // namespace zk
