// The fetch and store pieces of each depth (see pivot.h).
#include "color/pivot.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include "color/convert.h"
#include "core/packed_pixels.h"

namespace zk {
namespace {

// Rescales an unsigned sample of `from` bits to `to` bits: narrowing keeps
// the top bits, widening is floor(v * (2^to - 1) / (2^from - 1)).
constexpr uint32_t rescale(uint32_t v, uint32_t from, uint32_t to) {
    if (from == to) return v;
    if (to < from) return v >> (from - to);
    return static_cast<uint32_t>((uint64_t{v} * ((uint64_t{1} << to) - 1)) / ((uint64_t{1} << from) - 1));
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
    px.a = 0xFFFF;
}

// ---------------------------------------------------------------------------
// Fetches: n source pixels from index `first` into the pivot.

void fetch_gray8(const PixelReader&, const uint8_t* row, uint64_t first, uint32_t n, Pivot* out) {
    for (uint32_t k = 0; k < n; ++k) {
        const uint32_t v = row[first + k];
        set_colour8(out[k], v, v, v);
        out[k].index = static_cast<uint16_t>(v);
    }
}

template <uint32_t Bits>
void fetch_indexed(const PixelReader& reader, const uint8_t* row, uint64_t first, uint32_t n, Pivot* out) {
    for (uint32_t k = 0; k < n; ++k) {
        const uint32_t i = Bits == 8 ? row[first + k] : packed::get_field(row, first + k, Bits);
        const RGBQUAD& c = reader.colours[i];
        set_colour8(out[k], c.rgbRed, c.rgbGreen, c.rgbBlue);
        out[k].index = static_cast<uint16_t>(i);
    }
}

// A deep gray sample restricted to its bit range, then widened to what the
// destination consumes: the LUT colour, a 16-bit level, or an 8-bit level.
inline void deep_gray(const PixelReader& reader, uint32_t sample, Pivot& px) {
    const uint32_t v = (sample >> reader.src_shift) & reader.src_mask;
    if (reader.lut) {
        const RGBQUAD& c = reader.lut[v];
        set_colour8(px, c.rgbRed, c.rgbGreen, c.rgbBlue);
    } else if (reader.wide_gray) {
        const auto l = static_cast<uint16_t>(rescale(v, reader.src_nb, 16));
        px.r = px.g = px.b = l;
        px.a = 0xFFFF;
        px.level = static_cast<uint16_t>(v);
    } else {
        const uint32_t g = rescale(v, reader.src_nb, 8);
        set_colour8(px, g, g, g);
    }
}

void fetch_gray12(const PixelReader& reader, const uint8_t* row, uint64_t first, uint32_t n, Pivot* out) {
    for (uint32_t k = 0; k < n; ++k) deep_gray(reader, packed::get12(row, first + k), out[k]);
}

void fetch_16(const PixelReader& reader, const uint8_t* row, uint64_t first, uint32_t n, Pivot* out) {
    for (uint32_t k = 0; k < n; ++k) {
        const uint32_t w = le16(row + 2 * (first + k));
        if (reader.src_gray16) {
            deep_gray(reader, w, out[k]);
            continue;
        }
        const uint32_t hi = w >> 10 & 31, mid = w >> 5 & 31, lo = w & 31;
        const uint32_t r5 = reader.src_rgb ? lo : hi, b5 = reader.src_rgb ? hi : lo;
        set_colour8(out[k], r5 << 3 | r5 >> 2, mid << 3 | mid >> 2, b5 << 3 | b5 >> 2);
    }
}

template <uint32_t Stride, bool Alpha>
void fetch_8bit_channels(const PixelReader& reader, const uint8_t* row, uint64_t first, uint32_t n, Pivot* out) {
    for (uint32_t k = 0; k < n; ++k) {
        const uint8_t* q = row + Stride * (first + k);
        uint8_t p[3];
        std::memcpy(p, q, 3);
        if (reader.src_alt) alt_to_bgr(p);
        if (reader.src_rgb)
            set_colour8(out[k], p[0], p[1], p[2]);
        else
            set_colour8(out[k], p[2], p[1], p[0]);
        if (Alpha) out[k].a = static_cast<uint16_t>(q[3] * 257);
    }
}

template <uint32_t Stride, bool Alpha>
void fetch_16bit_channels(const PixelReader& reader, const uint8_t* row, uint64_t first, uint32_t n, Pivot* out) {
    for (uint32_t k = 0; k < n; ++k) {
        const uint8_t* q = row + Stride * (first + k);
        uint32_t c0 = le16(q), c1 = le16(q + 2), c2 = le16(q + 4);
        if (reader.src_alt) {
            // The second colour space is defined on 8-bit channels: the high
            // bytes are turned back and widened again.
            uint8_t p[3] = {static_cast<uint8_t>(c0 >> 8), static_cast<uint8_t>(c1 >> 8),
                            static_cast<uint8_t>(c2 >> 8)};
            alt_to_bgr(p);
            c0 = p[0] * 257u;
            c1 = p[1] * 257u;
            c2 = p[2] * 257u;
        }
        out[k].r = static_cast<uint16_t>(reader.src_rgb ? c0 : c2);
        out[k].g = static_cast<uint16_t>(c1);
        out[k].b = static_cast<uint16_t>(reader.src_rgb ? c2 : c0);
        out[k].a = Alpha ? static_cast<uint16_t>(le16(q + 6)) : uint16_t{0xFFFF};
    }
}

// ---------------------------------------------------------------------------
// Stores: n pivot pixels to destination pixels from index `first`.

void store_gray8(const PixelWriter&, uint8_t* row, uint64_t first, uint32_t n, const Pivot* in) {
    for (uint32_t k = 0; k < n; ++k)
        row[first + k] = static_cast<uint8_t>(gray8(in[k].r >> 8, in[k].g >> 8, in[k].b >> 8));
}

template <uint32_t Bits>
void store_indexed(const PixelWriter& writer, uint8_t* row, uint64_t first, uint32_t n, const Pivot* in) {
    for (uint32_t k = 0; k < n; ++k) {
        const uint32_t i = writer.use_map ? writer.map[in[k].index]
                                          : writer.memo->find(writer, in[k].r >> 8, in[k].g >> 8, in[k].b >> 8);
        if (Bits == 8)
            row[first + k] = static_cast<uint8_t>(i);
        else
            packed::put_field(row, first + k, Bits, i);
    }
}

// The gray sample of a 12/16-bit gray destination, shifted into its field.
inline uint32_t deep_gray_sample(const PixelWriter& writer, const Pivot& px) {
    const uint32_t v = writer.level_from_colour ? rescale(gray8(px.r >> 8, px.g >> 8, px.b >> 8), 8, writer.dst_nb)
                                                : rescale(px.level, writer.level_bits, writer.dst_nb);
    return v << writer.dst_shift;
}

void store_gray12(const PixelWriter& writer, uint8_t* row, uint64_t first, uint32_t n, const Pivot* in) {
    for (uint32_t k = 0; k < n; ++k) packed::put12(row, first + k, deep_gray_sample(writer, in[k]) & 0xFFF);
}

void store_16(const PixelWriter& writer, uint8_t* row, uint64_t first, uint32_t n, const Pivot* in) {
    for (uint32_t k = 0; k < n; ++k) {
        uint32_t w;
        if (writer.dst_gray16) {
            w = deep_gray_sample(writer, in[k]) & 0xFFFF;
        } else {
            const uint32_t r = in[k].r >> 11, g = in[k].g >> 11, b = in[k].b >> 11;
            w = writer.dst_rgb ? (b << 10 | g << 5 | r) : (r << 10 | g << 5 | b);
        }
        put16(row + 2 * (first + k), w);
    }
}

// Destination bytes 0..2 of a colour: in order, or in the second space.
inline void colour_bytes(const PixelWriter& writer, const Pivot& px, uint8_t* p) {
    const auto r = static_cast<uint8_t>(px.r >> 8), g = static_cast<uint8_t>(px.g >> 8),
               b = static_cast<uint8_t>(px.b >> 8);
    p[1] = g;
    if (writer.dst_rgb) {
        p[0] = r;
        p[2] = b;
    } else {
        p[0] = b;
        p[2] = r;
        if (writer.dst_alt) bgr_to_alt(p);
    }
}

template <uint32_t Stride>
void store_8bit_channels(const PixelWriter& writer, uint8_t* row, uint64_t first, uint32_t n, const Pivot* in) {
    for (uint32_t k = 0; k < n; ++k) {
        uint8_t* q = row + Stride * (first + k);
        colour_bytes(writer, in[k], q);
        if (Stride == 4) q[3] = writer.alpha8;
    }
}

template <uint32_t Stride>
void store_16bit_channels(const PixelWriter& writer, uint8_t* row, uint64_t first, uint32_t n, const Pivot* in) {
    for (uint32_t k = 0; k < n; ++k) {
        uint8_t* q = row + Stride * (first + k);
        if (writer.dst_alt) {
            uint8_t p[3];
            colour_bytes(writer, in[k], p);
            put16(q, p[0] * 257u);
            put16(q + 2, p[1] * 257u);
            put16(q + 4, p[2] * 257u);
        } else {
            put16(q, writer.dst_rgb ? in[k].r : in[k].b);
            put16(q + 2, in[k].g);
            put16(q + 4, writer.dst_rgb ? in[k].b : in[k].r);
        }
        if (Stride == 8) put16(q + 6, writer.alpha16);
    }
}

// Each depth's pieces, chosen by its entry in the pixel-format table.
template <int32_t Depth>
constexpr FetchFn fetch_of() {
    constexpr PixelFormat f = pixel_format(Depth);
    if constexpr (f.packing == Packing::Fields || (f.packing == Packing::Byte && f.indexed))
        return fetch_indexed<f.bits>;
    else if constexpr (f.packing == Packing::Byte)
        return fetch_gray8;
    else if constexpr (f.packing == Packing::Gray12)
        return fetch_gray12;
    else if constexpr (f.packing == Packing::Word16)
        return fetch_16;
    else if constexpr (f.packing == Packing::Channels8)
        return fetch_8bit_channels<f.bits / 8, f.alpha>;
    else if constexpr (f.packing == Packing::Channels16)
        return fetch_16bit_channels<f.bits / 8, f.alpha>;
    else
        return nullptr;
}

template <int32_t Depth>
constexpr StoreFn store_of() {
    constexpr PixelFormat f = pixel_format(Depth);
    if constexpr (f.packing == Packing::Fields || (f.packing == Packing::Byte && f.indexed))
        return store_indexed<f.bits>;
    else if constexpr (f.packing == Packing::Byte)
        return store_gray8;
    else if constexpr (f.packing == Packing::Gray12)
        return store_gray12;
    else if constexpr (f.packing == Packing::Word16)
        return store_16;
    else if constexpr (f.packing == Packing::Channels8)
        return store_8bit_channels<f.bits / 8>;
    else if constexpr (f.packing == Packing::Channels16)
        return store_16bit_channels<f.bits / 8>;
    else
        return nullptr;
}

template <size_t... D>
constexpr auto fetch_table(std::index_sequence<D...>) {
    return std::array<FetchFn, sizeof...(D)>{fetch_of<static_cast<int32_t>(D)>()...};
}
template <size_t... D>
constexpr auto store_table(std::index_sequence<D...>) {
    return std::array<StoreFn, sizeof...(D)>{store_of<static_cast<int32_t>(D)>()...};
}

constexpr auto kFetch = fetch_table(std::make_index_sequence<kMaxDepth + 1>());
constexpr auto kStore = store_table(std::make_index_sequence<kMaxDepth + 1>());

}  // namespace

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

int32_t prepare_reader(PixelReader& reader, int32_t depth, uint32_t order, const RGBQUAD* palette, const RGBQUAD* lut,
                       uint32_t low_bit, uint32_t high_bit) {
    reader = PixelReader{};
    const PixelFormat& f = pixel_format(depth);
    if (!f.bitmap || !takes_order(depth, order)) return ST_BAD_PARAM;
    reader.src_depth = depth;
    const bool gray = order == CO_GRAY;
    reader.src_gray16 = f.packing == Packing::Word16 && gray;
    reader.src_rgb = depth >= 16 && !reader.src_gray16 && order == CO_RGB;
    reader.src_alt = order == CO_ALT_BGR && (f.packing == Packing::Channels8 || f.packing == Packing::Channels16);
    if (f.gray_bits != 0 && gray) {
        reader.lut = lut;
        BitRange r{};
        if (!bit_range(f.bits, low_bit, high_bit, lut ? f.bits : 8u, &r)) return ST_BAD_PARAM;
        reader.src_shift = r.shift;
        reader.src_mask = r.mask;
        reader.src_nb = r.nb;
    }
    if (f.indexed) {
        reader.src_palette = palette;
        set_index_colours(reader);
    }
    return ST_OK;
}

void set_index_colours(PixelReader& reader) {
    const uint32_t n = reader.src_palette ? 1u << pixel_format(reader.src_depth).bits : 0;
    for (uint32_t i = 0; i < 256; ++i) {
        const auto v = static_cast<uint8_t>(i);
        reader.colours[i] = i < n ? reader.src_palette[i] : RGBQUAD{v, v, v, 0};
    }
}

FetchFn fetch_for(int32_t depth) { return depth >= 0 && depth <= kMaxDepth ? kFetch[depth] : nullptr; }
StoreFn store_for(int32_t depth) { return depth >= 0 && depth <= kMaxDepth ? kStore[depth] : nullptr; }

}  // namespace zk
