// Colour resolution: a bitmap converted to another depth, its palette fixed,
// the cube, the caller's or optimized, its rows dithered or converted from
// storage into storage a row at a time (any storage kind, never the whole
// image in memory). The source is read through a private copy of its
// record, so the result can replace the source itself; nothing of the
// caller's changes until the result is complete.
#include <algorithm>
#include <cstring>

#include "bitmap_handle.h"
#include "color/convert_bitmap.h"
#include "color/palette.h"
#include "core/thread_state.h"
#include "reduce/color_res.h"
#include "reduce/dither.h"
#include "reduce/optimize_palette.h"
#include "rows/row_stream.h"

namespace zk::reduce {
namespace {

constexpr uint32_t kSelectorMask = 0x2FF & ~(CRF_BYTE_ORDER_BGR | CRF_BYTE_ORDER_GRAY);
constexpr uint32_t kOrderMask = CRF_BYTE_ORDER_BGR | CRF_BYTE_ORDER_GRAY | CRF_BYTE_ORDER_ALT;

enum class Choice { Fixed, Cube, Caller, Optimized };

// The palette a selector asks for; false for a selector the call refuses.
bool palette_choice(uint32_t selector, int32_t bits, Choice* choice) {
    switch (selector) {
        case CRF_FIXED_PALETTE: *choice = Choice::Fixed; return true;
        case CRF_FIXED_PALETTE | CRF_CUBE_PALETTE: *choice = bits == 8 ? Choice::Cube : Choice::Fixed; return true;
        case CRF_CUBE_PALETTE: *choice = Choice::Cube; return bits == 8;
        case CRF_USER_PALETTE:
        case CRF_USER_PALETTE | CRF_USER_MATCH_TABLE: *choice = Choice::Caller; return true;
        default: break;
    }
    const uint32_t optimized = selector & ~(CRF_OPTIMIZED_PALETTE | CRF_PRESET_PALETTE | CRF_NO_MATCH_TABLE);
    *choice = Choice::Optimized;
    return optimized == 0;
}

// The colour order of a destination deeper than 8 bits: ST_OK, ST_BAD_BPP
// or ST_BAD_PARAM.
int32_t order_choice(uint32_t flags, int32_t bits, uint32_t* order) {
    switch (flags & kOrderMask) {
        case 0: *order = CO_RGB; return ST_OK;
        case CRF_BYTE_ORDER_BGR: *order = CO_BGR; return ST_OK;
        case CRF_BYTE_ORDER_GRAY: *order = CO_GRAY; return bits > 23 ? ST_BAD_BPP : ST_OK;
        case CRF_BYTE_ORDER_GRAY | CRF_BYTE_ORDER_BGR: *order = bits < 24 ? CO_GRAY : CO_BGR; return ST_OK;
        case CRF_BYTE_ORDER_ALT: *order = CO_ALT_BGR; return bits > 47 ? ST_BAD_BPP : ST_OK;
        default: return ST_BAD_PARAM;
    }
}

// Whether the entries left to fill form one run of neighbours.
bool one_run(const RGBQUAD* p, uint32_t count) {
    uint32_t runs = 0;
    for (uint32_t i = 0; i < count; ++i)
        if ((p[i].rgbReserved & 3) == Z_PAL_FILL && (i == 0 || (p[i - 1].rgbReserved & 3) != Z_PAL_FILL)) ++runs;
    return runs <= 1;
}

// Progress and the caller's row callback, after each converted row.
struct RowReport {
    Progress progress;
    COLORRESCALLBACK callback;
    void* user;
    BitmapHandle* target;  // the record the callback sees
    static int32_t call(void* context, uint32_t, uint8_t* row) {
        auto* r = static_cast<RowReport*>(context);
        if (r->callback)
            if (const int32_t s = r->callback(r->target, row, 1, r->user); s != ST_OK) return s;
        return r->progress.step();
    }
};

// A match table of the library's allocator, freed with its owner.
struct TableBlock {
    uint32_t* cells = nullptr;
    ~TableBlock() { Z_Free(cells); }
};

// Ends a dithering sequence started on a record on every way out.
struct DitherScope {
    BitmapHandle* b = nullptr;
    ~DitherScope() {
        if (b) stop_dithering(*b);
    }
};

int32_t dither_rows(BitmapHandle& source, BitmapHandle& result, RowReport& report) {
    rows::RowStream in(source), out(result);
    for (uint32_t y = 0; y < static_cast<uint32_t>(source.Height); ++y) {
        const uint8_t* src = in.read(y);
        if (!src) return in.status();
        uint8_t* dst = out.write(y, true);
        if (!dst) return out.status();
        dither_line(source, src, dst);
        if (const int32_t s = RowReport::call(&report, y, dst); s != ST_OK) return s;
        if (const int32_t s = out.commit(); s != ST_OK) return s;
    }
    return ST_OK;
}

}  // namespace

int32_t color_res(const ColorResRequest& rq, BitmapHandle* dst) {
    BitmapHandle* const src = rq.source;
    if (!src) return ST_BAD_PARAM;
    if (src->StructSize != kStructSize || rq.struct_size != kStructSize) return ST_BAD_STRUCT_SIZE;
    if (dst && dst != src) dst->StructSize = kStructSize;
    if (has(*src, BF_SIGNED) && !has(*src, BF_LUT_USED)) return ST_SIGNED_DATA;
    if (!allocated(src) || !geometry_consistent(*src)) return ST_BAD_PARAM;
    if (rq.palette && rq.palette_handle) return ST_BAD_PARAM;
    const int32_t bits = rq.bits;
    if (!valid_depth(bits)) return ST_BAD_PARAM;
    uint32_t flags = rq.flags;
    if (bits == 12) flags = (flags & CRF_BYTE_ORDER_BGR) | CRF_BYTE_ORDER_GRAY;
    if (rq.gray) {
        if (bits != 8 && bits != 12 && bits != 16) return ST_BAD_BPP;
        flags = CRF_BYTE_ORDER_GRAY;
    }

    // The destination's palette or colour order.
    const bool indexed = pixel_format(bits).indexed;
    Choice choice = Choice::Fixed;
    uint32_t order = CO_BGR;
    uint32_t count = 0;
    RGBQUAD palette[256] = {};
    if (indexed && rq.gray) {
        count = 256;
        for (uint32_t i = 0; i < count; ++i) {
            const auto v = static_cast<uint8_t>(i);
            palette[i] = RGBQUAD{v, v, v, 0};
        }
    } else if (indexed) {
        const uint32_t selector = rq.palette_handle ? CRF_USER_PALETTE : flags & kSelectorMask;
        if (!palette_choice(selector, bits, &choice)) return ST_BAD_PARAM;
        const uint32_t most = 1u << bits;
        count = rq.colors == 0 || rq.colors > most ? most : rq.colors;
        const bool given = rq.palette || rq.palette_handle;
        if (choice == Choice::Caller && !given) return ST_BAD_PARAM;
        if (choice == Choice::Fixed) std::memcpy(palette, fixed_palette(bits), count * sizeof(RGBQUAD));
        if (choice == Choice::Cube) std::memcpy(palette, cube_palette(), count * sizeof(RGBQUAD));
        if (choice == Choice::Caller || (choice == Choice::Optimized && given)) {
            // Entries a palette handle lacks are left to be filled.
            for (uint32_t i = 0; i < count; ++i) palette[i].rgbReserved = Z_PAL_FILL;
            if (rq.palette)
                std::memcpy(palette, rq.palette, count * sizeof(RGBQUAD));
            else
                Z_GetPaletteEntries(rq.palette_handle, 0, count, palette);
        } else if (choice == Choice::Optimized) {
            for (uint32_t i = 0; i < count; ++i) palette[i] = RGBQUAD{0, 0, 0, Z_PAL_FILL};
        }
        if (choice == Choice::Optimized && (flags & CRF_PRESET_PALETTE)) {
            palette[0] = RGBQUAD{0, 0, 0, 0};
            if (count > 1) palette[count - 1] = RGBQUAD{255, 255, 255, 0};
        }
    } else if (const int32_t s = order_choice(flags, bits, &order); s != ST_OK) {
        return s;
    }

    // A private copy of the source record: streams and the dithering state
    // work on it, so the caller's record stays as it is until the end.
    BitmapHandle source;
    std::memcpy(&source, src, sizeof source);
    source.DitherData = nullptr;
    const int32_t src_bits = source.BitsPerPixel;

    // Optimized palettes: the entries to fill, and whether rows are then
    // dithered or (for an exact result in one run) converted.
    bool dither = indexed && !rq.gray && (src_bits > bits || src_bits > 8 || source.ColorCount > count);
    TableBlock table;
    bool exact = false;
    if (choice == Choice::Optimized && indexed) {
        uint32_t to_fill = 0;
        for (uint32_t i = 0; i < count; ++i) to_fill += (palette[i].rgbReserved & 3) == Z_PAL_FILL;
        const bool run = one_run(palette, count);
        dither = bits < src_bits || to_fill <= source.ColorCount || !run;
        if (to_fill > 0) {
            if (run && !(flags & CRF_NO_MATCH_TABLE)) {
                table.cells = static_cast<uint32_t*>(Z_Malloc(kMatchCells * sizeof(uint32_t)));
                if (!table.cells) return ST_NO_MEMORY;
            }
            BitmapHandle* sources[] = {&source};
            PaletteChoice made;
            if (const int32_t s = optimize_palette(sources, 1, palette, count, table.cells, &made); s != ST_OK)
                return s;
            if (made.exact && run) {
                count = count - to_fill + made.used;
                dither = false;
                exact = true;
            }
        }
    }

    // A palettized result converted by nearest colour needs all 2^bits
    // entries; a shorter palette is reached through the dithering engine
    // without dithering, unless every source colour has its own entry (an
    // exact match is found before the padding, which is neither white nor
    // black and so never taken by the white and black probes).
    uint32_t method = flags >> 16 & 0xFF;
    if (indexed && !dither && count < (1u << bits) && !exact) {
        dither = true;
        method = DITHER_NONE;
    }
    for (uint32_t i = count; indexed && i < 256; ++i) palette[i] = RGBQUAD{1, 2, 3, 0};

    // The result, in the source's kind.
    rows::Replacement replacement;
    if (const int32_t s = replacement.build_like(source, source.Width, source.Height, bits); s != ST_OK) return s;
    BitmapHandle& result = replacement.result();
    result.Flags &= ~BF_SIGNED;
    Z_FreeGrayParams(&result);
    if (indexed) {
        if (!Z_SetBitmapNewPalette(&result, palette, count) || !result.Palette) return ST_NO_MEMORY;
        result.Order = CO_BGR;
    } else {
        Z_SetBitmapNewPalette(&result, nullptr, 0);
        result.ColorCount = 0;
        result.Order = order;
        if (order == CO_GRAY) Z_InitGrayParams(&result);
    }

    RowReport report{Progress(static_cast<uint32_t>(source.Height)), rq.callback, rq.user, &result};
    DitherScope scope;
    if (dither) {
        // Selectable entries only: a palette whose every entry is left to
        // fill or reserved cannot be dithered to.
        uint32_t* user = table.cells;
        if (choice == Choice::Caller && (flags & CRF_USER_MATCH_TABLE))
            user = static_cast<uint32_t*>(thread_state().user_match_table);
        if (const int32_t s = start_dithering(source, method, palette, count, static_cast<uint32_t>(bits), user);
            s != ST_OK)
            return s;
        scope.b = &source;
    }
    if (const int32_t s = report.progress.start(); s != ST_OK) return s;
    int32_t status;
    if (dither) {
        status = dither_rows(source, result, report);
    } else {
        ConvertRequest request;
        const bool gray_source = source.Order == CO_GRAY && src_bits > 8;
        request.src_order = static_cast<int32_t>(src_bits <= 8 ? CO_BGR : source.Order);
        // An 8-bit gray result is written as gray levels, which its ramp
        // palette shows as they are.
        request.dst_order = indexed ? (rq.gray ? CO_GRAY : CO_BGR) : order;
        request.src_palette = src_bits <= 8                             ? source.Palette
                              : gray_source && has(source, BF_LUT_USED) ? source.LUT
                                                                        : nullptr;
        request.dst_palette = indexed && !rq.gray ? palette : nullptr;
        if (gray_source) {
            request.flags |= CVT_SRC_RANGE;
            request.low_bit = source.LowBit;
            request.high_bit = source.HighBit;
        }
        status =
            convert_bitmap_rows(source, result, request, RowHook{RowReport::call, &report}, DestinationPages::Fresh);
    }
    if (status != ST_OK) return status;

    if (!dst) return ST_OK;  // only the callback wanted the rows
    if (dst == src)
        replacement.commit(*src);
    else
        replacement.hand_over(*dst);
    return ST_OK;
}

}  // namespace zk::reduce

extern "C" int32_t Z_API Z_ColorResBitmap(BitmapHandle* src, BitmapHandle* dst, uint32_t structSize,
                                          int32_t bitsPerPixel, uint32_t flags, const RGBQUAD* palette,
                                          HPALETTE paletteHandle, uint32_t colors, COLORRESCALLBACK callback,
                                          void* userData) {
    zk::reduce::ColorResRequest rq;
    rq.source = src;
    rq.struct_size = structSize;
    rq.bits = bitsPerPixel;
    rq.flags = flags;
    rq.palette = palette;
    rq.palette_handle = paletteHandle;
    rq.colors = colors;
    rq.callback = callback;
    rq.user = userData;
    return zk::reduce::color_res(rq, dst);
}
