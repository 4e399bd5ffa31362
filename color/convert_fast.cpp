// Dedicated kernels for the hot pairs of depths. Each gives the same bytes as
// the general path (a test holds them to it); they only skip the pivot.
//
// `Swap` means that source and destination disagree on whether red comes
// first, so bytes 0 and 2 change places.
#include <cstring>

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
// target has vector registers in its baseline; the scalar loops after each
// vector loop finish the row (and are the whole kernel elsewhere).
#if defined(__GNUC__) && (defined(__SSE2__) || defined(__ARM_NEON))
#define ZK_VECTORS 1
typedef uint8_t V16 __attribute__((vector_size(16)));
ZK_KERNEL V16 load16(const uint8_t* p) {
    V16 v;
    std::memcpy(&v, p, 16);
    return v;
}
ZK_KERNEL void store16(uint8_t* p, V16 v) { std::memcpy(p, &v, 16); }
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
ZK_KERNEL void convert_bgr24_to_bgr24(uint8_t* row, uint32_t width) {
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
ZK_KERNEL void convert_bgr24_to_bgr32(uint8_t* row, uint32_t width, uint8_t alpha) {
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
ZK_KERNEL void convert_bgr32_to_bgr24(uint8_t* row, uint32_t width) {
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
ZK_KERNEL void convert_bgr24_to_gray8(uint8_t* row, uint32_t width) {
    by_blocks<3, 1>(row, width, [](const uint8_t* s, uint8_t* d, uint32_t n) {
        for (uint32_t i = 0; i < n; ++i) {
            const uint16_t r = RedFirst ? s[3 * i] : s[3 * i + 2], b = RedFirst ? s[3 * i + 2] : s[3 * i];
            d[i] = static_cast<uint8_t>((2 * r + 5 * s[3 * i + 1] + b + 4) >> 3);
        }
    });
}

// 5-5-5 with the channel of byte 2 in bits 10-14 unless Swap.
template <bool Swap>
ZK_KERNEL void convert_bgr24_to_bgr555(uint8_t* row, uint32_t width) {
    by_blocks<3, 2>(row, width, [](const uint8_t* s, uint8_t* d, uint32_t n) {
        for (uint32_t i = 0; i < n; ++i) {
            const uint16_t c0 = s[3 * i] >> 3, c1 = s[3 * i + 1] >> 3, c2 = s[3 * i + 2] >> 3;
            const uint16_t w = static_cast<uint16_t>(Swap ? (c0 << 10 | c1 << 5 | c2) : (c2 << 10 | c1 << 5 | c0));
            d[2 * i] = static_cast<uint8_t>(w);
            d[2 * i + 1] = static_cast<uint8_t>(w >> 8);
        }
    });
}

template <bool Swap>
ZK_KERNEL void convert_bgr555_to_bgr24(uint8_t* row, uint32_t width) {
    by_blocks<2, 3>(row, width, [](const uint8_t* s, uint8_t* d, uint32_t n) {
        for (uint32_t i = 0; i < n; ++i) {
            const uint16_t w = static_cast<uint16_t>(s[2 * i] | s[2 * i + 1] << 8);
            const uint16_t lo = w & 31, mid = w >> 5 & 31, hi = w >> 10 & 31;
            const auto wlo = static_cast<uint8_t>(lo << 3 | lo >> 2), wmid = static_cast<uint8_t>(mid << 3 | mid >> 2),
                       whi = static_cast<uint8_t>(hi << 3 | hi >> 2);
            d[3 * i] = Swap ? whi : wlo;
            d[3 * i + 1] = wmid;
            d[3 * i + 2] = Swap ? wlo : whi;
        }
    });
}

template <bool Swap>
ZK_KERNEL void convert_bgr48_to_bgr24(uint8_t* row, uint32_t width) {
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
ZK_KERNEL void convert_pal8_to_bgr24(uint8_t* row, uint32_t width, const RGBQUAD* colours) {
    // Each index's three bytes, laid out once.
    uint8_t table[256][4];
    for (uint32_t i = 0; i < 256; ++i) {
        table[i][0] = RedFirst ? colours[i].rgbRed : colours[i].rgbBlue;
        table[i][1] = colours[i].rgbGreen;
        table[i][2] = RedFirst ? colours[i].rgbBlue : colours[i].rgbRed;
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

ZK_TARGET_CLONES bool run_fast_path(const Plan& plan, uint8_t* row) {
    if (plan.src_alt || plan.dst_alt) return false;
    const bool swap = plan.src_rgb != plan.dst_rgb;
    const uint32_t w = plan.width;
    switch (plan.src_depth * 100 + plan.dst_depth) {
        case 2424:
            swap ? convert_bgr24_to_bgr24<true>(row, w) : convert_bgr24_to_bgr24<false>(row, w);
            return true;
        case 2432:
            swap ? convert_bgr24_to_bgr32<true>(row, w, plan.alpha8)
                 : convert_bgr24_to_bgr32<false>(row, w, plan.alpha8);
            return true;
        case 3224:
            swap ? convert_bgr32_to_bgr24<true>(row, w) : convert_bgr32_to_bgr24<false>(row, w);
            return true;
        case 2400:
            plan.src_rgb ? convert_bgr24_to_gray8<true>(row, w) : convert_bgr24_to_gray8<false>(row, w);
            return true;
        case 2416:
            if (plan.dst_gray16) return false;
            swap ? convert_bgr24_to_bgr555<true>(row, w) : convert_bgr24_to_bgr555<false>(row, w);
            return true;
        case 1624:
            if (plan.src_gray16) return false;
            swap ? convert_bgr555_to_bgr24<true>(row, w) : convert_bgr555_to_bgr24<false>(row, w);
            return true;
        case 4824:
            swap ? convert_bgr48_to_bgr24<true>(row, w) : convert_bgr48_to_bgr24<false>(row, w);
            return true;
        case 824:
            plan.dst_rgb ? convert_pal8_to_bgr24<true>(row, w, plan.colours)
                         : convert_pal8_to_bgr24<false>(row, w, plan.colours);
            return true;
        default:
            return false;
    }
}

}  // namespace zk
