// Row conversion: the front end that checks a request and plans it, the
// general path over the per-depth pieces of pivot.h, the fast-path table,
// the two-buffer form and the exports.
#include "color/convert.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "color/palette.h"
#include "core/platform/streaming.h"
#include "core/platform/x86_intrinsics.h"

namespace zk {
namespace {

constexpr uint32_t kChunk = 64;

constexpr uint32_t pixel_bits(int32_t depth) { return pixel_format(depth).bits; }
constexpr bool palettized(int32_t depth) { return pixel_format(depth).indexed; }

// The general path from `src` to `dst`, which are the same row or rows that
// do not overlap.
void run_general(const Plan& plan, const uint8_t* src, uint8_t* dst) {
    const FetchFn fetch = fetch_for(plan.src_depth);
    const StoreFn store = store_for(plan.dst_depth);
    Pivot pivot[kChunk];
    // A chunk is read whole before it is written. Walking backwards when the
    // destination pixel is larger (forwards otherwise) keeps every write in
    // place behind the pixels still to be read; sub-byte and 12-bit writes
    // keep the neighbouring bits.
    if (pixel_bits(plan.dst_depth) > pixel_bits(plan.src_depth)) {
        for (uint64_t end = plan.width; end > 0;) {
            const auto n = static_cast<uint32_t>(std::min<uint64_t>(kChunk, end));
            end -= n;
            fetch(plan, src, end, n, pivot);
            store(plan, dst, end, n, pivot);
        }
    } else {
        for (uint64_t first = 0; first < plan.width;) {
            const auto n = static_cast<uint32_t>(std::min<uint64_t>(kChunk, plan.width - first));
            fetch(plan, src, first, n, pivot);
            store(plan, dst, first, n, pivot);
            first += n;
        }
    }
}

// Copies `bits` bits from the start of src to dst; the bits of dst's last
// byte past them are kept.
void copy_bits(const uint8_t* src, uint8_t* dst, uint64_t bits) {
    const auto whole = static_cast<size_t>(bits >> 3);
    std::memcpy(dst, src, whole);
    if (const uint32_t rest = bits & 7) {
        const auto keep = static_cast<uint8_t>(0xFFu >> rest);
        dst[whole] = static_cast<uint8_t>((src[whole] & ~keep) | (dst[whole] & keep));
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
    if (rq.width <= 0) return ST_BAD_PARAM;
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
    if (!convertible_depth(rq.src_bits) || !convertible_depth(rq.dst_bits)) return ST_BAD_PARAM;
    const int32_t sd = rq.src_bits, dd = static_cast<int32_t>(rq.dst_bits);
    if (!takes_order(sd, rq.src_order) || !takes_order(dd, rq.dst_order)) return ST_BAD_PARAM;

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

uint8_t IndexMemo::find(const PixelWriter& writer, uint32_t r, uint32_t g, uint32_t b) {
    const uint32_t colour = r << 16 | g << 8 | b;
    const uint32_t slot = (colour ^ colour >> 12 ^ colour >> 20) & (kSlots - 1);
    if (key[slot] == (colour | 0x1000000u)) return index[slot];
    const auto i = static_cast<uint8_t>(search.find(r, g, b) & (writer.dst_count - 1));
    key[slot] = colour | 0x1000000u;
    index[slot] = i;
    return i;
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
    {F::Bgr24, F::Rgb24, T, ns::convert_bgr24_to_rgb24, ns::into_bgr24_to_rgb24},                                      \
    {F::Rgb24, F::Bgr24, T, ns::convert_bgr24_to_rgb24, ns::into_bgr24_to_rgb24},                                      \
    {F::Bgr24, F::Bgr32, T, ns::convert_bgr24_to_bgr32, ns::into_bgr24_to_bgr32},                                      \
    {F::Rgb24, F::Rgb32, T, ns::convert_bgr24_to_bgr32, ns::into_bgr24_to_bgr32},                                      \
    {F::Bgr24, F::Rgb32, T, ns::convert_bgr24_to_rgb32, ns::into_bgr24_to_rgb32},                                      \
    {F::Rgb24, F::Bgr32, T, ns::convert_bgr24_to_rgb32, ns::into_bgr24_to_rgb32},                                      \
    {F::Bgr32, F::Bgr24, T, ns::convert_bgr32_to_bgr24, nullptr},   {F::Rgb32, F::Rgb24, T, ns::convert_bgr32_to_bgr24, nullptr},  \
    {F::Bgr32, F::Rgb24, T, ns::convert_bgr32_to_rgb24, nullptr},   {F::Rgb32, F::Bgr24, T, ns::convert_bgr32_to_rgb24, nullptr},  \
    {F::Bgr48, F::Bgr24, T, ns::convert_bgr48_to_bgr24, nullptr},   {F::Rgb48, F::Rgb24, T, ns::convert_bgr48_to_bgr24, nullptr},  \
    {F::Bgr48, F::Rgb24, T, ns::convert_bgr48_to_rgb24, nullptr},   {F::Rgb48, F::Bgr24, T, ns::convert_bgr48_to_rgb24, nullptr},  \
    {F::Bgr24, F::Gray8, T, ns::convert_bgr24_to_gray8, ns::into_bgr24_to_gray8},                                      \
    {F::Rgb24, F::Gray8, T, ns::convert_rgb24_to_gray8, ns::into_rgb24_to_gray8},                                      \
    {F::Bgr24, F::Bgr555, T, ns::convert_bgr24_to_bgr555, nullptr}, {F::Rgb24, F::Rgb555, T, ns::convert_bgr24_to_bgr555, nullptr},\
    {F::Bgr24, F::Rgb555, T, ns::convert_bgr24_to_rgb555, nullptr}, {F::Rgb24, F::Bgr555, T, ns::convert_bgr24_to_rgb555, nullptr},\
    {F::Bgr555, F::Bgr24, T, ns::convert_bgr555_to_bgr24, nullptr}, {F::Rgb555, F::Rgb24, T, ns::convert_bgr555_to_bgr24, nullptr},\
    {F::Bgr555, F::Rgb24, T, ns::convert_bgr555_to_rgb24, nullptr}, {F::Rgb555, F::Bgr24, T, ns::convert_bgr555_to_rgb24, nullptr},\
    {F::Pal8, F::Bgr24, T, ns::convert_pal8_to_bgr24, nullptr},     {F::Pal8, F::Rgb24, T, ns::convert_pal8_to_rgb24, nullptr}
// clang-format on

constexpr FastPath kFastPaths[] = {
    {F::Bgr24, F::Bgr24, CpuTier::Portable, portable::convert_bgr24_to_bgr24, nullptr},
    {F::Rgb24, F::Rgb24, CpuTier::Portable, portable::convert_bgr24_to_bgr24, nullptr},
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
    if (rq.width <= 0 || !plain(rq.src_order) || !plain(rq.dst_order) || (rq.flags & (CVT_SRC_RANGE | CVT_DST_RANGE)) ||
        rq.dst_bits > 64)
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

int32_t RowConverter::prepare(const ConvertRequest& request, ConvertPaths paths) {
    fast_ = nullptr;
    same_ = false;
    plan_ = Plan{};
    const bool fast = paths == ConvertPaths::WithFastPaths;
    if (fast && (fast_ = plan_hot_pair(request, plan_)) != nullptr) return ST_OK;
    const int32_t status = make_plan(request, plan_, &same_);
    if (status != ST_OK || same_) return status;
    if (fast && (fast_ = fast_path_for(plan_)) != nullptr) return ST_OK;

    // What only the general path needs: the colour of each index (the source
    // palette's for the indices the depth has, gray level i otherwise and for
    // 8-bit gray) and the colour-to-index memo.
    if (plan_.src_depth <= 8) set_index_colours(plan_);
    if (palettized(plan_.dst_depth) && !plan_.use_map) {
        memo_.prepare(plan_.dst_palette, plan_.dst_count);
        plan_.memo = &memo_;
    }
    return ST_OK;
}

void RowConverter::run(uint8_t* row) {
    if (same_) return;
    if (fast_)
        fast_->kernel(plan_, row);
    else
        run_general(plan_, row, row);
}

void RowConverter::run(const uint8_t* src, uint8_t* dst, bool stream) {
    if (src == dst) return run(dst);
    const uint64_t width = plan_.width;
    if (same_) return copy_bits(src, dst, width * pixel_bits(plan_.src_depth));
    if (!fast_) return run_general(plan_, src, dst);
    if (fast_->into) {
        plan_.stream = stream;
        fast_->into(plan_, src, dst);
        plan_.stream = false;
        if (stream) platform::fence_streams();
        return;
    }
    // Fast kernels convert in place: each stage of pixels is copied into a
    // buffer that stays in the first-level cache, converted there and written
    // out, so memory sees one read of the source and one write of the
    // destination. Fast formats are whole bytes; a stage's destination is a
    // whole number of 64-byte lines.
    const uint32_t src_bytes = pixel_bits(plan_.src_depth) / 8, dst_bytes = pixel_bits(plan_.dst_depth) / 8;
    const uint32_t per_stage = kStageBytes / std::max(src_bytes, dst_bytes) / 64 * 64;
    for (uint64_t first = 0; first < width; first += per_stage) {
        const auto n = static_cast<uint32_t>(std::min<uint64_t>(per_stage, width - first));
        std::memcpy(stage_, src + first * src_bytes, size_t{n} * src_bytes);
        plan_.width = n;
        fast_->kernel(plan_, stage_);
        platform::write_out(dst + first * dst_bytes, stage_, size_t{n} * dst_bytes, stream);
    }
    plan_.width = static_cast<uint32_t>(width);
    if (stream) platform::fence_streams();
}

namespace {

// The general path and the set-up only it needs, kept out of the frame of a
// hot pair's short row.
#if defined(__GNUC__)
__attribute__((noinline))
#endif
int32_t
convert_planned(const ConvertRequest& request, ConvertPaths paths) {
    RowConverter converter;
    const int32_t status = converter.prepare(request, paths);
    if (status != ST_OK) return status;
    if (request.source)
        converter.run(request.source, request.buffer);
    else
        converter.run(request.buffer);
    return ST_OK;
}

}  // namespace

int32_t convert_buffer(const ConvertRequest& request, ConvertPaths paths) {
    if (!request.buffer) return ST_BAD_PARAM;
    if (paths == ConvertPaths::WithFastPaths && !request.source) {
        Plan plan;
        if (const FastPath* path = plan_hot_pair(request, plan)) {
            path->kernel(plan, request.buffer);
            return ST_OK;
        }
    }
    return convert_planned(request, paths);
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
