// Row conversion: the front end that checks a request and plans it, the
// per-depth fetch and store pieces of the general path, and the exports.
#include "color/convert.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "color/palette.h"

namespace zk {
namespace {

constexpr uint32_t kChunk = 64;

bool valid_depth(int64_t d) {
    return (d >= 0 && d <= 8) || d == 12 || d == 16 || d == 24 || d == 32 || d == 48 || d == 64;
}
bool valid_order(int64_t o) { return o == CO_RGB || o == CO_BGR || o == CO_GRAY || o == CO_ALT_BGR; }
constexpr uint32_t pixel_bits(int32_t depth) { return depth == 0 ? 8u : static_cast<uint32_t>(depth); }
constexpr bool palettized(int32_t depth) { return depth >= 1 && depth <= 8; }

// Orders each depth takes, as source and as destination. Depth 0 and the
// palettized depths carry no colour order of their own.
bool order_allowed(int32_t depth, int64_t order) {
    if (!valid_order(order)) return false;
    switch (depth) {
        case 12: return order == CO_GRAY;
        case 16: return order != CO_ALT_BGR;
        case 24:
        case 48: return order != CO_GRAY;
        case 32:
        case 64: return order == CO_RGB || order == CO_BGR;
        default: return true;
    }
}

// Rescales an unsigned sample of `from` bits to `to` bits: narrowing keeps
// the top bits, widening is floor(v * (2^to - 1) / (2^from - 1)).
constexpr uint32_t rescale(uint32_t v, uint32_t from, uint32_t to) {
    if (from == to) return v;
    if (to < from) return v >> (from - to);
    return static_cast<uint32_t>((uint64_t{v} * ((uint64_t{1} << to) - 1)) / ((uint64_t{1} << from) - 1));
}

struct BitRange {
    uint32_t shift, mask, nb;
};

// Bit-range parameters of a gray sample: low = max(low bit, 0), high = high
// bit or bits - 1, nb = min(high - low + 1, cap), shift = high - nb + 1.
// False when the range leaves no bit or reaches past bit 31.
bool bit_range(uint32_t bits, uint32_t low_bit, uint32_t high_bit, uint32_t cap, BitRange* out) {
    const int64_t low = std::max<int64_t>(static_cast<int32_t>(low_bit), 0);
    const int64_t high = static_cast<int32_t>(high_bit) >= 0 ? static_cast<int32_t>(high_bit) : int64_t{bits} - 1;
    const int64_t nb = std::min<int64_t>(high - low + 1, cap);
    if (nb < 1 || high > 31) return false;
    out->nb = static_cast<uint32_t>(nb);
    out->mask = static_cast<uint32_t>((uint64_t{1} << nb) - 1);
    out->shift = static_cast<uint32_t>(high - nb + 1);
    return true;
}

// ---------------------------------------------------------------------------
// Packed-field access. Fields narrower than a byte are stored from the most
// significant bit; a field may straddle two bytes (depths 3, 5, 6, 7).
inline uint32_t read_bits(const uint8_t* row, uint64_t i, uint32_t bits) {
    const uint64_t p = i * bits;
    const uint8_t* q = row + (p >> 3);
    const uint32_t off = static_cast<uint32_t>(p & 7), mask = (1u << bits) - 1;
    if (off + bits <= 8) return (q[0] >> (8 - off - bits)) & mask;
    const uint32_t w = (uint32_t{q[0]} << 8) | q[1];
    return (w >> (16 - off - bits)) & mask;
}

inline void write_bits(uint8_t* row, uint64_t i, uint32_t bits, uint32_t v) {
    const uint64_t p = i * bits;
    uint8_t* q = row + (p >> 3);
    const uint32_t off = static_cast<uint32_t>(p & 7), mask = (1u << bits) - 1;
    v &= mask;
    if (off + bits <= 8) {
        const uint32_t s = 8 - off - bits;
        q[0] = static_cast<uint8_t>((q[0] & ~(mask << s)) | (v << s));
        return;
    }
    const uint32_t s = 16 - off - bits;
    const uint32_t w = ((uint32_t{q[0]} << 8 | q[1]) & ~(mask << s)) | (v << s);
    q[0] = static_cast<uint8_t>(w >> 8);
    q[1] = static_cast<uint8_t>(w);
}

// 12-bit samples: two in three bytes, sample 2k in bits 0-11 of the word at
// byte 3k, sample 2k+1 in bits 4-15 of the word at byte 3k+1.
inline uint32_t read12(const uint8_t* row, uint64_t i) {
    const uint8_t* q = row + 3 * (i >> 1) + (i & 1);
    const uint32_t w = q[0] | uint32_t{q[1]} << 8;
    return (i & 1) ? w >> 4 : w & 0xFFF;
}

inline void write12(uint8_t* row, uint64_t i, uint32_t v) {
    uint8_t* q = row + 3 * (i >> 1) + (i & 1);
    if (i & 1) {
        q[0] = static_cast<uint8_t>((q[0] & 0x0F) | (v & 0xF) << 4);
        q[1] = static_cast<uint8_t>(v >> 4);
    } else {
        q[0] = static_cast<uint8_t>(v);
        q[1] = static_cast<uint8_t>((q[1] & 0xF0) | (v >> 8 & 0xF));
    }
}

inline uint32_t le16(const uint8_t* p) { return p[0] | uint32_t{p[1]} << 8; }
inline void put16(uint8_t* p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
}

inline void set_colour8(Pivot& px, uint32_t r, uint32_t g, uint32_t b) {
    px.r = static_cast<uint16_t>(r * 257);
    px.g = static_cast<uint16_t>(g * 257);
    px.b = static_cast<uint16_t>(b * 257);
}

// ---------------------------------------------------------------------------
// Fetches: n source pixels from index `first` into the pivot.

using FetchFn = void (*)(const Plan&, const uint8_t*, uint64_t, uint32_t, Pivot*);
using StoreFn = void (*)(const Plan&, uint8_t*, uint64_t, uint32_t, const Pivot*);

void fetch_gray8(const Plan&, const uint8_t* row, uint64_t first, uint32_t n, Pivot* out) {
    for (uint32_t k = 0; k < n; ++k) {
        const uint32_t v = row[first + k];
        set_colour8(out[k], v, v, v);
        out[k].index = static_cast<uint16_t>(v);
    }
}

template <uint32_t Bits>
void fetch_indexed(const Plan& plan, const uint8_t* row, uint64_t first, uint32_t n, Pivot* out) {
    for (uint32_t k = 0; k < n; ++k) {
        const uint32_t i = Bits == 8 ? row[first + k] : read_bits(row, first + k, Bits);
        const RGBQUAD& c = plan.colours[i];
        set_colour8(out[k], c.rgbRed, c.rgbGreen, c.rgbBlue);
        out[k].index = static_cast<uint16_t>(i);
    }
}

// A deep gray sample restricted to its bit range, then widened to what the
// destination consumes: the LUT colour, a 16-bit level, or an 8-bit level.
inline void deep_gray(const Plan& plan, uint32_t sample, Pivot& px) {
    const uint32_t v = (sample >> plan.src_shift) & plan.src_mask;
    if (plan.lut) {
        const RGBQUAD& c = plan.lut[v];
        set_colour8(px, c.rgbRed, c.rgbGreen, c.rgbBlue);
    } else if (plan.wide_gray) {
        const auto l = static_cast<uint16_t>(rescale(v, plan.src_nb, 16));
        px.r = px.g = px.b = l;
        px.level = static_cast<uint16_t>(v);
    } else {
        const uint32_t g = rescale(v, plan.src_nb, 8);
        set_colour8(px, g, g, g);
    }
}

void fetch_gray12(const Plan& plan, const uint8_t* row, uint64_t first, uint32_t n, Pivot* out) {
    for (uint32_t k = 0; k < n; ++k) deep_gray(plan, read12(row, first + k), out[k]);
}

void fetch_16(const Plan& plan, const uint8_t* row, uint64_t first, uint32_t n, Pivot* out) {
    for (uint32_t k = 0; k < n; ++k) {
        const uint32_t w = le16(row + 2 * (first + k));
        if (plan.src_gray16) {
            deep_gray(plan, w, out[k]);
            continue;
        }
        const uint32_t hi = w >> 10 & 31, mid = w >> 5 & 31, lo = w & 31;
        const uint32_t r5 = plan.src_rgb ? lo : hi, b5 = plan.src_rgb ? hi : lo;
        set_colour8(out[k], r5 << 3 | r5 >> 2, mid << 3 | mid >> 2, b5 << 3 | b5 >> 2);
    }
}

template <uint32_t Stride>
void fetch_8bit_channels(const Plan& plan, const uint8_t* row, uint64_t first, uint32_t n, Pivot* out) {
    for (uint32_t k = 0; k < n; ++k) {
        uint8_t p[3];
        std::memcpy(p, row + Stride * (first + k), 3);
        if (plan.src_alt) alt_to_bgr(p);
        if (plan.src_rgb)
            set_colour8(out[k], p[0], p[1], p[2]);
        else
            set_colour8(out[k], p[2], p[1], p[0]);
    }
}

template <uint32_t Stride>
void fetch_16bit_channels(const Plan& plan, const uint8_t* row, uint64_t first, uint32_t n, Pivot* out) {
    for (uint32_t k = 0; k < n; ++k) {
        const uint8_t* q = row + Stride * (first + k);
        uint32_t c0 = le16(q), c1 = le16(q + 2), c2 = le16(q + 4);
        if (plan.src_alt) {
            // The second colour space is defined on 8-bit channels: the high
            // bytes are turned back and widened again.
            uint8_t p[3] = {static_cast<uint8_t>(c0 >> 8), static_cast<uint8_t>(c1 >> 8),
                            static_cast<uint8_t>(c2 >> 8)};
            alt_to_bgr(p);
            c0 = p[0] * 257u;
            c1 = p[1] * 257u;
            c2 = p[2] * 257u;
        }
        out[k].r = static_cast<uint16_t>(plan.src_rgb ? c0 : c2);
        out[k].g = static_cast<uint16_t>(c1);
        out[k].b = static_cast<uint16_t>(plan.src_rgb ? c2 : c0);
    }
}

FetchFn fetch_for(int32_t depth) {
    switch (depth) {
        case 0: return fetch_gray8;
        case 1: return fetch_indexed<1>;
        case 2: return fetch_indexed<2>;
        case 3: return fetch_indexed<3>;
        case 4: return fetch_indexed<4>;
        case 5: return fetch_indexed<5>;
        case 6: return fetch_indexed<6>;
        case 7: return fetch_indexed<7>;
        case 8: return fetch_indexed<8>;
        case 12: return fetch_gray12;
        case 16: return fetch_16;
        case 24: return fetch_8bit_channels<3>;
        case 32: return fetch_8bit_channels<4>;
        case 48: return fetch_16bit_channels<6>;
        default: return fetch_16bit_channels<8>;
    }
}

// ---------------------------------------------------------------------------
// Stores: n pivot pixels to destination pixels from index `first`.

void store_gray8(const Plan&, uint8_t* row, uint64_t first, uint32_t n, const Pivot* in) {
    for (uint32_t k = 0; k < n; ++k)
        row[first + k] = static_cast<uint8_t>(gray8(in[k].r >> 8, in[k].g >> 8, in[k].b >> 8));
}

template <uint32_t Bits>
void store_indexed(const Plan& plan, uint8_t* row, uint64_t first, uint32_t n, const Pivot* in) {
    for (uint32_t k = 0; k < n; ++k) {
        const uint32_t i =
            plan.use_map ? plan.map[in[k].index] : plan.memo->find(plan, in[k].r >> 8, in[k].g >> 8, in[k].b >> 8);
        if (Bits == 8)
            row[first + k] = static_cast<uint8_t>(i);
        else
            write_bits(row, first + k, Bits, i);
    }
}

// The gray sample of a 12/16-bit gray destination, shifted into its field.
inline uint32_t deep_gray_sample(const Plan& plan, const Pivot& px) {
    const uint32_t v = plan.level_from_colour ? rescale(gray8(px.r >> 8, px.g >> 8, px.b >> 8), 8, plan.dst_nb)
                                              : rescale(px.level, plan.level_bits, plan.dst_nb);
    return v << plan.dst_shift;
}

void store_gray12(const Plan& plan, uint8_t* row, uint64_t first, uint32_t n, const Pivot* in) {
    for (uint32_t k = 0; k < n; ++k) write12(row, first + k, deep_gray_sample(plan, in[k]) & 0xFFF);
}

void store_16(const Plan& plan, uint8_t* row, uint64_t first, uint32_t n, const Pivot* in) {
    for (uint32_t k = 0; k < n; ++k) {
        uint32_t w;
        if (plan.dst_gray16) {
            w = deep_gray_sample(plan, in[k]) & 0xFFFF;
        } else {
            const uint32_t r = in[k].r >> 11, g = in[k].g >> 11, b = in[k].b >> 11;
            w = plan.dst_rgb ? (b << 10 | g << 5 | r) : (r << 10 | g << 5 | b);
        }
        put16(row + 2 * (first + k), w);
    }
}

// Destination bytes 0..2 of a colour: in order, or in the second space.
inline void colour_bytes(const Plan& plan, const Pivot& px, uint8_t* p) {
    const auto r = static_cast<uint8_t>(px.r >> 8), g = static_cast<uint8_t>(px.g >> 8),
               b = static_cast<uint8_t>(px.b >> 8);
    p[1] = g;
    if (plan.dst_rgb) {
        p[0] = r;
        p[2] = b;
    } else {
        p[0] = b;
        p[2] = r;
        if (plan.dst_alt) bgr_to_alt(p);
    }
}

template <uint32_t Stride>
void store_8bit_channels(const Plan& plan, uint8_t* row, uint64_t first, uint32_t n, const Pivot* in) {
    for (uint32_t k = 0; k < n; ++k) {
        uint8_t* q = row + Stride * (first + k);
        colour_bytes(plan, in[k], q);
        if (Stride == 4) q[3] = plan.alpha8;
    }
}

template <uint32_t Stride>
void store_16bit_channels(const Plan& plan, uint8_t* row, uint64_t first, uint32_t n, const Pivot* in) {
    for (uint32_t k = 0; k < n; ++k) {
        uint8_t* q = row + Stride * (first + k);
        if (plan.dst_alt) {
            uint8_t p[3];
            colour_bytes(plan, in[k], p);
            put16(q, p[0] * 257u);
            put16(q + 2, p[1] * 257u);
            put16(q + 4, p[2] * 257u);
        } else {
            put16(q, plan.dst_rgb ? in[k].r : in[k].b);
            put16(q + 2, in[k].g);
            put16(q + 4, plan.dst_rgb ? in[k].b : in[k].r);
        }
        if (Stride == 8) put16(q + 6, plan.alpha16);
    }
}

StoreFn store_for(int32_t depth) {
    switch (depth) {
        case 0: return store_gray8;
        case 1: return store_indexed<1>;
        case 2: return store_indexed<2>;
        case 3: return store_indexed<3>;
        case 4: return store_indexed<4>;
        case 5: return store_indexed<5>;
        case 6: return store_indexed<6>;
        case 7: return store_indexed<7>;
        case 8: return store_indexed<8>;
        case 12: return store_gray12;
        case 16: return store_16;
        case 24: return store_8bit_channels<3>;
        case 32: return store_8bit_channels<4>;
        case 48: return store_16bit_channels<6>;
        default: return store_16bit_channels<8>;
    }
}

void run_general(const Plan& plan, uint8_t* row) {
    const FetchFn fetch = fetch_for(plan.src_depth);
    const StoreFn store = store_for(plan.dst_depth);
    Pivot pivot[kChunk];
    // A chunk is read whole before it is written. Walking backwards when the
    // destination pixel is larger (forwards otherwise) keeps every write
    // behind the pixels still to be read; sub-byte and 12-bit writes keep
    // the neighbouring bits.
    if (pixel_bits(plan.dst_depth) > pixel_bits(plan.src_depth)) {
        for (uint64_t end = plan.width; end > 0;) {
            const auto n = static_cast<uint32_t>(std::min<uint64_t>(kChunk, end));
            end -= n;
            fetch(plan, row, end, n, pivot);
            store(plan, row, end, n, pivot);
        }
    } else {
        for (uint64_t first = 0; first < plan.width;) {
            const auto n = static_cast<uint32_t>(std::min<uint64_t>(kChunk, plan.width - first));
            fetch(plan, row, first, n, pivot);
            store(plan, row, first, n, pivot);
            first += n;
        }
    }
}

// Palette mapping of n source entries (absent: index i is gray level i) onto
// a destination palette of m entries. True when the map is the identity.
bool build_index_map(const RGBQUAD* src, uint32_t n, const RGBQUAD* dst, uint32_t m, uint8_t* map) {
    if (src && m >= n && std::memcmp(src, dst, size_t{n} * sizeof(RGBQUAD)) == 0) {
        for (uint32_t i = 0; i < n; ++i) map[i] = static_cast<uint8_t>(i);
        return true;
    }
    bool same = true;
    for (uint32_t i = 0; i < n; ++i) {
        const uint32_t r = src ? src[i].rgbRed : i, g = src ? src[i].rgbGreen : i, b = src ? src[i].rgbBlue : i;
        map[i] = static_cast<uint8_t>(find_palette_index(dst, m, r, g, b) & (m - 1));
        same = same && map[i] == i;
    }
    return same;
}

// Checks a request in the order the callers rely on and fills the plan.
// `same` is set when the conversion leaves the buffer as it is.
int32_t make_plan(const ConvertRequest& rq, Plan& plan, bool* same) {
    *same = false;
    if (!rq.buffer || rq.width <= 0) return ST_BAD_PARAM;
    uint32_t flags = rq.flags & ~(CVT_SRC_GRAY | CVT_DST_GRAY);
    if (rq.src_order == static_cast<int32_t>(CO_GRAY)) flags |= CVT_SRC_GRAY;
    if (rq.dst_order == CO_GRAY) flags |= CVT_DST_GRAY;
    if ((flags & CVT_SRC_RANGE) && (flags & CVT_DST_RANGE)) return ST_BAD_PARAM;
    if ((flags & CVT_SRC_RANGE) && !(flags & CVT_SRC_GRAY)) return ST_BAD_PARAM;
    if ((flags & CVT_DST_RANGE) && !(flags & CVT_DST_GRAY)) return ST_BAD_PARAM;
    if (rq.src_bits == 12 && !(flags & CVT_SRC_GRAY)) return ST_BAD_PARAM;
    if (rq.dst_bits == 12 && !(flags & CVT_DST_GRAY)) return ST_BAD_PARAM;
    const auto low = static_cast<int32_t>(rq.low_bit), high = static_cast<int32_t>(rq.high_bit);
    if ((flags & CVT_SRC_RANGE) && low < 1 && (high == rq.src_bits - 1 || high < 0)) flags &= ~CVT_SRC_RANGE;
    if ((flags & CVT_DST_RANGE) && low < 1 && (int64_t{high} == int64_t{rq.dst_bits} - 1 || high < 0))
        flags &= ~CVT_DST_RANGE;
    if (!valid_depth(rq.src_bits) || !valid_depth(rq.dst_bits)) return ST_BAD_PARAM;
    const int32_t sd = rq.src_bits, dd = static_cast<int32_t>(rq.dst_bits);
    if (!order_allowed(sd, rq.src_order) || !order_allowed(dd, rq.dst_order)) return ST_BAD_PARAM;

    plan.src_depth = sd;
    plan.dst_depth = dd;
    plan.width = static_cast<uint32_t>(rq.width);
    plan.alpha8 = (flags & CVT_OPAQUE_ALPHA) ? static_cast<uint8_t>(rq.alpha_fill) : 0;
    plan.alpha16 = (flags & CVT_OPAQUE_ALPHA) ? static_cast<uint16_t>(rq.alpha_fill) : 0;

    // Colour orders. CO_ALT_BGR matters only where both sides are not in it
    // and the other side is a colour layout (24 or 48 bits).
    const bool src_colour = sd >= 16 && !(sd == 16 && (flags & CVT_SRC_GRAY));
    const bool dst_colour_space = dd == 24 || dd == 48;
    const bool src_alt = rq.src_order == static_cast<int32_t>(CO_ALT_BGR);
    const bool dst_alt = dst_colour_space && rq.dst_order == CO_ALT_BGR;
    plan.src_rgb = src_colour && rq.src_order == static_cast<int32_t>(CO_RGB);
    plan.src_alt = src_alt && !dst_alt;
    plan.dst_rgb = rq.dst_order == CO_RGB;
    plan.dst_alt = dst_alt && !src_alt;
    plan.src_gray16 = sd == 16 && (flags & CVT_SRC_GRAY);
    plan.dst_gray16 = dd == 16 && (flags & CVT_DST_GRAY);

    // Gray destinations of 12 and 16 bits: field width and position.
    const bool deep_dst = dd == 12 || plan.dst_gray16;
    if (deep_dst) {
        BitRange r{0, 0, static_cast<uint32_t>(dd)};
        if ((flags & CVT_DST_RANGE) &&
            !bit_range(static_cast<uint32_t>(dd), rq.low_bit, rq.high_bit, static_cast<uint32_t>(dd), &r))
            return ST_BAD_PARAM;
        plan.dst_nb = r.nb;
        plan.dst_shift = r.shift;
    }

    // Deep gray sources: the bit range and what the samples widen to.
    if (sd == 12 || plan.src_gray16) {
        plan.lut = rq.src_palette;
        plan.wide_gray = !plan.lut && (dd == 48 || dd == 64 || deep_dst);
        const uint32_t cap = plan.lut ? static_cast<uint32_t>(sd) : plan.wide_gray ? 16u : 8u;
        const bool ranged = (flags & CVT_SRC_RANGE) != 0;
        BitRange r{};
        if (!bit_range(static_cast<uint32_t>(sd), ranged ? rq.low_bit : 0xFFFFFFFFu, ranged ? rq.high_bit : 0xFFFFFFFFu,
                       cap, &r))
            return ST_BAD_PARAM;
        plan.src_shift = r.shift;
        plan.src_mask = r.mask;
        plan.src_nb = r.nb;
        plan.level_from_colour = plan.lut != nullptr;
        plan.level_bits = r.nb;
    }

    if (sd >= 1 && sd <= 8) plan.src_palette = rq.src_palette;

    // Palettized destinations: the palette (the fixed one when none is given)
    // and, for sources with at most 256 levels, the index map.
    if (palettized(dd)) {
        plan.dst_palette = rq.dst_palette ? rq.dst_palette : fixed_palette(dd);
        plan.dst_count = 1u << dd;
        if (sd <= 8) {
            const RGBQUAD* src = sd == 0 ? nullptr : rq.src_palette;
            const uint32_t n = sd == 0 ? 256u : 1u << sd;
            plan.use_map = true;
            const bool identity = build_index_map(src, n, plan.dst_palette, plan.dst_count, plan.map);
            if (identity && sd == dd) *same = true;
        }
    }
    return ST_OK;
}

}  // namespace

void alt_to_bgr(uint8_t* p) {
    const int32_t x = p[0], y = p[1], z = p[2];
    // Signed division truncating toward zero, then clamped.
    const auto clamp8 = [](int32_t v) { return static_cast<uint8_t>(std::clamp(v / 8192, 0, 255)); };
    p[0] = clamp8(9467 * x - 1151 * y - 125 * z + 4095);
    p[1] = clamp8(-305 * x + 10232 * y - 1735 * z + 4095);
    p[2] = clamp8(-2156 * x - 6498 * y + 16846 * z + 4095);
}

void bgr_to_alt(uint8_t* p) {
    const uint32_t x = p[0], y = p[1], z = p[2];
    // Every row of coefficients sums to at most 8193: no clamp is needed.
    p[0] = static_cast<uint8_t>((7151 * x + 897 * y + 145 * z + 4095) >> 13);
    p[1] = static_cast<uint8_t>((394 * x + 7067 * y + 731 * z + 4095) >> 13);
    p[2] = static_cast<uint8_t>((1067 * x + 2841 * y + 4284 * z + 4095) >> 13);
}

void IndexMemo::prepare(const RGBQUAD* palette, uint32_t count) {
    std::memset(key, 0, sizeof key);
    search.prepare(palette, count);
}

uint8_t IndexMemo::find(const Plan& plan, uint32_t r, uint32_t g, uint32_t b) {
    const uint32_t colour = r << 16 | g << 8 | b;
    const uint32_t slot = (colour ^ colour >> 12 ^ colour >> 20) & (kSlots - 1);
    if (key[slot] == (colour | 0x1000000u)) return index[slot];
    const auto i = static_cast<uint8_t>(search.find(r, g, b) & (plan.dst_count - 1));
    key[slot] = colour | 0x1000000u;
    index[slot] = i;
    return i;
}

// The general path with what only it needs: the colour of each index and
// the colour-to-index memo (kept out of the callers' frames).
#if defined(__GNUC__)
__attribute__((noinline))
#endif
void run_general_path(Plan& plan, uint8_t* row) {
    if (plan.src_depth <= 8) {
        // The colour of each index: the source palette's for the indices the
        // depth has, gray level i otherwise (and for 8-bit gray).
        const uint32_t n = plan.src_palette ? 1u << plan.src_depth : 0;
        for (uint32_t i = 0; i < 256; ++i) {
            const auto v = static_cast<uint8_t>(i);
            plan.colours[i] = i < n ? plan.src_palette[i] : RGBQUAD{v, v, v, 0};
        }
    }
    IndexMemo memo;
    if (palettized(plan.dst_depth) && !plan.use_map) {
        memo.prepare(plan.dst_palette, plan.dst_count);
        plan.memo = &memo;
    }
    run_general(plan, row);
}

// ---------------------------------------------------------------------------
// The fast-path table.

namespace {

using F = FastFormat;
using platform::CpuTier;

// Rows of one tier (kernels of namespace ns); every tier serves every pair
// of the list but the identity of 24-bit rows, which only the portable tier
// lists (it moves nothing).
// clang-format off
#define ZK_FAST_ROWS(T, ns)                                                                                            \
    {F::Bgr24, F::Rgb24, T, ns::convert_bgr24_to_rgb24},   {F::Rgb24, F::Bgr24, T, ns::convert_bgr24_to_rgb24},        \
    {F::Bgr24, F::Bgr32, T, ns::convert_bgr24_to_bgr32},   {F::Rgb24, F::Rgb32, T, ns::convert_bgr24_to_bgr32},        \
    {F::Bgr24, F::Rgb32, T, ns::convert_bgr24_to_rgb32},   {F::Rgb24, F::Bgr32, T, ns::convert_bgr24_to_rgb32},        \
    {F::Bgr32, F::Bgr24, T, ns::convert_bgr32_to_bgr24},   {F::Rgb32, F::Rgb24, T, ns::convert_bgr32_to_bgr24},        \
    {F::Bgr32, F::Rgb24, T, ns::convert_bgr32_to_rgb24},   {F::Rgb32, F::Bgr24, T, ns::convert_bgr32_to_rgb24},        \
    {F::Bgr48, F::Bgr24, T, ns::convert_bgr48_to_bgr24},   {F::Rgb48, F::Rgb24, T, ns::convert_bgr48_to_bgr24},        \
    {F::Bgr48, F::Rgb24, T, ns::convert_bgr48_to_rgb24},   {F::Rgb48, F::Bgr24, T, ns::convert_bgr48_to_rgb24},        \
    {F::Bgr24, F::Gray8, T, ns::convert_bgr24_to_gray8},   {F::Rgb24, F::Gray8, T, ns::convert_rgb24_to_gray8},        \
    {F::Bgr24, F::Bgr555, T, ns::convert_bgr24_to_bgr555}, {F::Rgb24, F::Rgb555, T, ns::convert_bgr24_to_bgr555},      \
    {F::Bgr24, F::Rgb555, T, ns::convert_bgr24_to_rgb555}, {F::Rgb24, F::Bgr555, T, ns::convert_bgr24_to_rgb555},      \
    {F::Bgr555, F::Bgr24, T, ns::convert_bgr555_to_bgr24}, {F::Rgb555, F::Rgb24, T, ns::convert_bgr555_to_bgr24},      \
    {F::Bgr555, F::Rgb24, T, ns::convert_bgr555_to_rgb24}, {F::Rgb555, F::Bgr24, T, ns::convert_bgr555_to_rgb24},      \
    {F::Pal8, F::Bgr24, T, ns::convert_pal8_to_bgr24},     {F::Pal8, F::Rgb24, T, ns::convert_pal8_to_rgb24}
// clang-format on

constexpr FastPath kFastPaths[] = {
    {F::Bgr24, F::Bgr24, CpuTier::Portable, portable::convert_bgr24_to_bgr24},
    {F::Rgb24, F::Rgb24, CpuTier::Portable, portable::convert_bgr24_to_bgr24},
    ZK_FAST_ROWS(CpuTier::Portable, portable),
#if ZK_X86_TIERS
    ZK_FAST_ROWS(CpuTier::AVX2, avx2),
    ZK_FAST_ROWS(CpuTier::AVX512, avx512),
#endif
};
#undef ZK_FAST_ROWS

constexpr int kTiers = 3;

// For each tier and pair of formats, the position in kFastPaths of the entry
// of the highest tier not above it, or -1.
struct FastPathIndex {
    int8_t at[kTiers][kFastFormats][kFastFormats];
};

constexpr FastPathIndex index_fast_paths() {
    FastPathIndex x{};
    for (auto& tier : x.at)
        for (auto& row : tier)
            for (auto& cell : row) cell = -1;
    for (int t = 0; t < kTiers; ++t)
        for (size_t k = 0; k < std::size(kFastPaths); ++k) {
            const FastPath& p = kFastPaths[k];
            const int pt = static_cast<int>(p.tier);
            int8_t& cell = x.at[t][static_cast<int>(p.src)][static_cast<int>(p.dst)];
            if (pt <= t && (cell < 0 || static_cast<int>(kFastPaths[cell].tier) < pt)) cell = static_cast<int8_t>(k);
        }
    return x;
}

constexpr FastPathIndex kFastPathIndex = index_fast_paths();
static_assert(std::size(kFastPaths) < 128);

// The format of each side of a plan, None where no fast path can serve it.
FastFormat fast_format(int32_t depth, bool rgb, bool source) {
    switch (depth) {
        case 0: return source ? F::None : F::Gray8;
        case 8: return source ? F::Pal8 : F::None;
        case 16: return rgb ? F::Rgb555 : F::Bgr555;
        case 24: return rgb ? F::Rgb24 : F::Bgr24;
        case 32: return rgb ? F::Rgb32 : F::Bgr32;
        case 48: return rgb ? F::Rgb48 : F::Bgr48;
        default: return F::None;
    }
}

const FastPath* fast_path_for(const Plan& plan) {
    if (plan.src_alt || plan.dst_alt || plan.src_gray16 || plan.dst_gray16) return nullptr;
    return find_fast_path(fast_format(plan.src_depth, plan.src_rgb, true),
                          fast_format(plan.dst_depth, plan.dst_rgb, false), platform::cpu_tier());
}

// Requests between plain colour orders (CO_RGB, CO_BGR) without bit ranges
// pass every check of make_plan; when a fast path serves one, its plan is
// filled here directly, which is most of the cost of a short row.
const FastPath* plan_hot_pair(const ConvertRequest& rq, Plan& plan) {
    const auto plain = [](int64_t order) { return order == CO_RGB || order == CO_BGR; };
    if (!rq.buffer || rq.width <= 0 || !plain(rq.src_order) || !plain(rq.dst_order) ||
        (rq.flags & (CVT_SRC_RANGE | CVT_DST_RANGE)) || rq.dst_bits > 64)
        return nullptr;
    const bool src_rgb = rq.src_bits >= 16 && rq.src_order == static_cast<int32_t>(CO_RGB);
    const bool dst_rgb = rq.dst_order == CO_RGB;
    const FastPath* path =
        find_fast_path(fast_format(rq.src_bits, src_rgb, true),
                       fast_format(static_cast<int32_t>(rq.dst_bits), dst_rgb, false), platform::cpu_tier());
    if (!path) return nullptr;
    plan.src_depth = rq.src_bits;
    plan.dst_depth = static_cast<int32_t>(rq.dst_bits);
    plan.width = static_cast<uint32_t>(rq.width);
    plan.src_rgb = src_rgb;
    plan.dst_rgb = dst_rgb;
    plan.alpha8 = (rq.flags & CVT_OPAQUE_ALPHA) ? static_cast<uint8_t>(rq.alpha_fill) : 0;
    plan.alpha16 = (rq.flags & CVT_OPAQUE_ALPHA) ? static_cast<uint16_t>(rq.alpha_fill) : 0;
    if (rq.src_bits == 8) plan.src_palette = rq.src_palette;
    return path;
}

}  // namespace

const char* fast_format_name(FastFormat format) {
    static constexpr const char* kNames[] = {"bgr24", "rgb24",  "bgr32",  "rgb32", "bgr48",
                                             "rgb48", "bgr555", "rgb555", "gray8", "pal8"};
    const auto i = static_cast<size_t>(format);
    return i < std::size(kNames) ? kNames[i] : "none";
}

std::span<const FastPath> fast_paths() { return kFastPaths; }

const FastPath* find_fast_path(FastFormat src, FastFormat dst, platform::CpuTier tier) {
    if (src == F::None || dst == F::None) return nullptr;
    const int k = kFastPathIndex.at[static_cast<int>(tier)][static_cast<int>(src)][static_cast<int>(dst)];
    return k < 0 ? nullptr : &kFastPaths[k];
}

int32_t convert_buffer(const ConvertRequest& request, ConvertPaths paths) {
    Plan plan;
    const bool fast = paths == ConvertPaths::WithFastPaths;
    if (fast) {
        if (const FastPath* path = plan_hot_pair(request, plan)) {
            path->kernel(plan, request.buffer);
            return ST_OK;
        }
    }
    bool same = false;
    const int32_t status = make_plan(request, plan, &same);
    if (status != ST_OK || same) return status;
    if (fast) {
        if (const FastPath* path = fast_path_for(plan)) {
            path->kernel(plan, request.buffer);
            return ST_OK;
        }
    }
    run_general_path(plan, request.buffer);
    return ST_OK;
}

}  // namespace zk

extern "C" int32_t Z_API Z_ConvertBufferExt(uint8_t* buffer, int32_t width, int32_t srcBits, uint32_t dstBits,
                                            int32_t srcOrder, uint32_t dstOrder, const RGBQUAD* srcPalette,
                                            const RGBQUAD* dstPalette, int32_t flags, uint32_t lowBit,
                                            uint32_t highBit) {
    zk::ConvertRequest rq;
    rq.buffer = buffer;
    rq.width = width;
    rq.src_bits = srcBits;
    rq.dst_bits = dstBits;
    rq.src_order = srcOrder;
    rq.dst_order = dstOrder;
    rq.src_palette = srcPalette;
    rq.dst_palette = dstPalette;
    rq.flags = static_cast<uint32_t>(flags);
    rq.low_bit = lowBit;
    rq.high_bit = highBit;
    return zk::convert_buffer(rq);
}

extern "C" int32_t Z_API Z_ConvertBuffer(uint8_t* buffer, int32_t width, int32_t srcBits, uint32_t dstBits,
                                         int32_t srcOrder, uint32_t dstOrder, const RGBQUAD* srcPalette,
                                         const RGBQUAD* dstPalette) {
    const int32_t flags = (srcOrder == static_cast<int32_t>(CO_GRAY) ? 1 : 0) | (dstOrder == CO_GRAY ? 2 : 0);
    return Z_ConvertBufferExt(buffer, width, srcBits, dstBits, srcOrder, dstOrder, srcPalette, dstPalette, flags,
                              0xFFFFFFFFu, 0xFFFFFFFFu);
}
