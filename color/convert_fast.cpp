// Dedicated kernels for the hot pairs of depths. Each gives the same bytes as
// the general path (a test holds them to it); they only skip the pivot.
//
// `Swap` means that source and destination disagree on whether red comes
// first, so bytes 0 and 2 change places.
#include <cstring>

#include "color/convert.h"

namespace zk {
namespace {

template <bool Swap>
void convert_bgr24_to_bgr24(uint8_t* row, uint32_t width) {
    if constexpr (Swap) {
        for (uint32_t i = 0; i < width; ++i, row += 3) {
            const uint8_t t = row[0];
            row[0] = row[2];
            row[2] = t;
        }
    }
}

// Destination larger: walk from the last pixel back.
template <bool Swap>
void convert_bgr24_to_bgr32(uint8_t* row, uint32_t width, uint8_t alpha) {
    const uint8_t* s = row + 3 * size_t{width};
    uint8_t* d = row + 4 * size_t{width};
    for (uint32_t i = 0; i < width; ++i) {
        s -= 3;
        d -= 4;
        const uint8_t c0 = s[0], c1 = s[1], c2 = s[2];
        d[0] = Swap ? c2 : c0;
        d[1] = c1;
        d[2] = Swap ? c0 : c2;
        d[3] = alpha;
    }
}

template <bool Swap>
void convert_bgr32_to_bgr24(uint8_t* row, uint32_t width) {
    const uint8_t* s = row;
    uint8_t* d = row;
    for (uint32_t i = 0; i < width; ++i, s += 4, d += 3) {
        const uint8_t c0 = s[0], c1 = s[1], c2 = s[2];
        d[0] = Swap ? c2 : c0;
        d[1] = c1;
        d[2] = Swap ? c0 : c2;
    }
}

// RedFirst: the source is CO_RGB.
template <bool RedFirst>
void convert_bgr24_to_gray8(uint8_t* row, uint32_t width) {
    const uint8_t* s = row;
    for (uint32_t i = 0; i < width; ++i, s += 3) {
        const uint32_t r = RedFirst ? s[0] : s[2], b = RedFirst ? s[2] : s[0];
        row[i] = static_cast<uint8_t>(gray8(r, s[1], b));
    }
}

// 5-5-5 with the channel of byte 2 in bits 10-14 unless Swap.
template <bool Swap>
void convert_bgr24_to_bgr555(uint8_t* row, uint32_t width) {
    const uint8_t* s = row;
    uint8_t* d = row;
    for (uint32_t i = 0; i < width; ++i, s += 3, d += 2) {
        const uint32_t c0 = s[0] >> 3, c1 = s[1] >> 3, c2 = s[2] >> 3;
        const uint32_t w = Swap ? (c0 << 10 | c1 << 5 | c2) : (c2 << 10 | c1 << 5 | c0);
        d[0] = static_cast<uint8_t>(w);
        d[1] = static_cast<uint8_t>(w >> 8);
    }
}

constexpr uint8_t widen5(uint32_t v) { return static_cast<uint8_t>(v << 3 | v >> 2); }

template <bool Swap>
void convert_bgr555_to_bgr24(uint8_t* row, uint32_t width) {
    const uint8_t* s = row + 2 * size_t{width};
    uint8_t* d = row + 3 * size_t{width};
    for (uint32_t i = 0; i < width; ++i) {
        s -= 2;
        d -= 3;
        const uint32_t w = s[0] | uint32_t{s[1]} << 8;
        const uint8_t lo = widen5(w & 31), mid = widen5(w >> 5 & 31), hi = widen5(w >> 10 & 31);
        d[0] = Swap ? hi : lo;
        d[1] = mid;
        d[2] = Swap ? lo : hi;
    }
}

template <bool Swap>
void convert_bgr48_to_bgr24(uint8_t* row, uint32_t width) {
    const uint8_t* s = row;
    uint8_t* d = row;
    for (uint32_t i = 0; i < width; ++i, s += 6, d += 3) {
        const uint8_t c0 = s[1], c1 = s[3], c2 = s[5];
        d[0] = Swap ? c2 : c0;
        d[1] = c1;
        d[2] = Swap ? c0 : c2;
    }
}

template <bool RedFirst>
void convert_pal8_to_bgr24(uint8_t* row, uint32_t width, const RGBQUAD* colours) {
    // Three bytes per index, laid out once, then copied per pixel backwards.
    uint8_t table[256][4];
    for (uint32_t i = 0; i < 256; ++i) {
        table[i][0] = RedFirst ? colours[i].rgbRed : colours[i].rgbBlue;
        table[i][1] = colours[i].rgbGreen;
        table[i][2] = RedFirst ? colours[i].rgbBlue : colours[i].rgbRed;
    }
    uint8_t* d = row + 3 * size_t{width};
    for (uint32_t i = width; i-- > 0;) {
        d -= 3;
        const uint8_t* c = table[row[i]];
        d[2] = c[2];
        d[1] = c[1];
        d[0] = c[0];
    }
}

}  // namespace

bool run_fast_path(const Plan& plan, uint8_t* row) {
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
