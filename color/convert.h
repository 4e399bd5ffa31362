// In-place conversion of one row of pixels between depths, colour orders,
// palettes and gray bit ranges.
//
// A request is first checked and turned into a Plan (every refusal happens
// there, before the buffer is touched). The general path then moves pixels
// in chunks: one fetch per source depth into a common Pivot, one store per
// destination depth out of it. Hot pairs have dedicated kernels
// (the fast-path table below) that a test holds to the general path.
//
// May include: include/zkernel.h, color/palette.h, color/pivot.h, core/platform/cpu.h.
#pragma once

#include <cstdint>
#include <span>

#include "color/palette.h"
#include "color/pivot.h"
#include "core/platform/cpu.h"
#include "zkernel.h"

namespace zk {

struct ConvertRequest {
    uint8_t* buffer = nullptr;        // the row converted in place, or the destination row
    const uint8_t* source = nullptr;  // null: in place; else the source row, which must not overlap buffer
    int32_t width = 0;
    int32_t src_bits = 0;
    uint32_t dst_bits = 0;
    int32_t src_order = 0;
    uint32_t dst_order = 0;
    const RGBQUAD* src_palette = nullptr;  // the LUT for 12/16-bit gray sources
    const RGBQUAD* dst_palette = nullptr;
    uint32_t flags = 0;
    uint32_t low_bit = 0xFFFFFFFFu;
    uint32_t high_bit = 0xFFFFFFFFu;
    uint32_t alpha_fill = 0xFFFF;  // low byte fills 8-bit alpha, the word 16-bit alpha
};

// Which kernels a conversion may use: the fast paths of the processor's tier
// (platform::cpu_tier()) where one serves the request, or the general path.
enum class ConvertPaths { WithFastPaths, GeneralOnly };

// Converts one row: in place in request.buffer (which holds the larger of
// the source and destination rows), or from request.source into
// request.buffer. Every refusal happens before a byte is written.
int32_t convert_buffer(const ConvertRequest& request, ConvertPaths paths = ConvertPaths::WithFastPaths);

// The second colour space of CO_ALT_BGR, on 3-byte pixels (byte 0, 1, 2).
void alt_to_bgr(uint8_t* pixel);
void bgr_to_alt(uint8_t* pixel);

// Everything a conversion needs, worked out once per call: how to read the
// source and how to write the destination.
struct Plan : PixelReader, PixelWriter {
    uint32_t width = 0;
    // Two-buffer kernels may write the destination around the caches (the
    // caller fences).
    bool stream = false;
};

// Per exact colour, the index Z_FindPaletteIndex gave it.
struct IndexMemo {
    static constexpr uint32_t kSlots = 4096;
    PaletteSearch search;
    uint32_t key[kSlots];  // colour | 0x1000000 once filled
    uint8_t index[kSlots];
    void prepare(const RGBQUAD* palette, uint32_t count);
    uint8_t find(const PixelWriter& writer, uint32_t r, uint32_t g, uint32_t b);
};

// ---------------------------------------------------------------------------
// Fast paths: dedicated kernels for hot pairs of pixel layouts, in one table
// of {source, destination, tier, kernel}. Conversion takes the entry of the
// highest tier the processor runs (platform::cpu_tier()); tests hold every
// entry to the general path.

// The layouts fast paths serve, in plain colour orders. The name says the
// order of the bytes (24..48 bits) or of the 5-bit fields from bit 0 (16).
enum class FastFormat : uint8_t { Bgr24, Rgb24, Bgr32, Rgb32, Bgr48, Rgb48, Bgr555, Rgb555, Gray8, Pal8, None };
constexpr int kFastFormats = static_cast<int>(FastFormat::None);

const char* fast_format_name(FastFormat format);

// Converts plan.width pixels of the row in place (8-bit palettized sources
// take plan.src_palette, null for gray level i; 32-bit destinations take
// plan.alpha8 as their fourth byte).
using FastKernel = void (*)(const Plan& plan, uint8_t* row);

// Converts plan.width pixels from `src` into `dst`, rows that do not
// overlap; loads stay inside the source row, stores inside the destination
// row. Written for the pairs whole-bitmap conversions meet most; the others
// run their in-place kernel on staged pieces of the row.
using FastInto = void (*)(const Plan& plan, const uint8_t* src, uint8_t* dst);

struct FastPath {
    FastFormat src, dst;
    platform::CpuTier tier;
    FastKernel kernel;
    FastInto into;  // null: the in-place kernel on a stage
};

// Every entry; per pair of formats at most one per tier.
std::span<const FastPath> fast_paths();

// The entry of the highest tier not above `tier` for the pair; null if none.
const FastPath* find_fast_path(FastFormat src, FastFormat dst, platform::CpuTier tier);

// A conversion checked and planned once and run on many rows of the
// request's width: in place, or from a source row into a destination row
// (the two-buffer form that whole-bitmap conversions use). Large (about
// 30 KiB with its palette memo and stage buffer): keep one per loop.
class RowConverter {
public:
    // Checks and plans the request; its buffer and source are not used.
    int32_t prepare(const ConvertRequest& request, ConvertPaths paths = ConvertPaths::WithFastPaths);
    // Converts the row in place; `row` holds the larger of the two rows.
    void run(uint8_t* row);
    // Converts `src` into `dst` (the same row, or rows that do not overlap).
    // The destination's bits past its last pixel are kept. With `stream`,
    // destination bytes are written around the caches where the processor
    // can (for results far larger than the caches), fenced before return.
    void run(const uint8_t* src, uint8_t* dst, bool stream = false);

private:
    static constexpr uint32_t kStageBytes = 8192;
    Plan plan_;
    const FastPath* fast_ = nullptr;
    bool same_ = false;  // the conversion leaves the pixels as they are
    IndexMemo memo_;
    alignas(64) uint8_t stage_[kStageBytes];
};

// The kernels, named by the pair they convert; each also serves the mirrored
// pair (red and blue exchanged on both sides), which moves the same bytes.
// A tier defines the kernels its table entries use.
// clang-format off
#define ZK_FAST_KERNELS(X)                                                                  \
    X(bgr24_to_bgr24) X(bgr24_to_rgb24) X(bgr24_to_bgr32) X(bgr24_to_rgb32)                 \
    X(bgr32_to_bgr24) X(bgr32_to_rgb24) X(bgr48_to_bgr24) X(bgr48_to_rgb24)                 \
    X(bgr24_to_gray8) X(rgb24_to_gray8) X(bgr24_to_bgr555) X(bgr24_to_rgb555)               \
    X(bgr555_to_bgr24) X(bgr555_to_rgb24) X(pal8_to_bgr24) X(pal8_to_rgb24)
// clang-format on
#define ZK_DECLARE_FAST_KERNEL(name) void convert_##name(const Plan& plan, uint8_t* row);
namespace portable {  // baseline instruction set (convert_fast.cpp)
ZK_FAST_KERNELS(ZK_DECLARE_FAST_KERNEL)
}
#if ZK_X86_TIERS
namespace avx2 {  // 256-bit vectors (convert_avx2.cpp)
ZK_FAST_KERNELS(ZK_DECLARE_FAST_KERNEL)
}
namespace avx512 {  // 512-bit vectors with byte permutes (convert_avx512.cpp)
ZK_FAST_KERNELS(ZK_DECLARE_FAST_KERNEL)
}
#endif
#undef ZK_DECLARE_FAST_KERNEL

// The two-buffer kernels, named likewise (into_<pair>). The 512-bit tier
// takes the AVX2 ones: a row converted into another is bound by memory, and
// staging it through the 512-bit in-place kernels costs two more copies
// (8192^2 24 to 32 bits into a new bitmap: 0.66x of a copy staged, 0.90x
// with the AVX2 kernel).
#define ZK_FAST_INTO_KERNELS(X) \
    X(bgr24_to_rgb24) X(bgr24_to_bgr32) X(bgr24_to_rgb32) X(bgr24_to_gray8) X(rgb24_to_gray8)
#define ZK_DECLARE_INTO_KERNEL(name) void into_##name(const Plan& plan, const uint8_t* src, uint8_t* dst);
#define ZK_AVX2_INTO_KERNEL(name) constexpr FastInto into_##name = avx2::into_##name;
namespace portable {
ZK_FAST_INTO_KERNELS(ZK_DECLARE_INTO_KERNEL)
}
#if ZK_X86_TIERS
namespace avx2 {
ZK_FAST_INTO_KERNELS(ZK_DECLARE_INTO_KERNEL)
}
namespace avx512 {
ZK_FAST_INTO_KERNELS(ZK_AVX2_INTO_KERNEL)
}
#endif
#undef ZK_DECLARE_INTO_KERNEL
#undef ZK_AVX2_INTO_KERNEL

constexpr uint32_t gray8(uint32_t r, uint32_t g, uint32_t b) { return (2 * r + 5 * g + b + 4) >> 3; }

// One 3-byte pixel from s to d (the same pixel, or pixels that do not
// overlap) with bytes 0 and 2 exchanged: the ends of the vector kernels.
inline void swap_pixel24(const uint8_t* s, uint8_t* d) {
    const uint8_t t = s[0];
    d[0] = s[2];
    d[1] = s[1];
    d[2] = t;
}

}  // namespace zk
