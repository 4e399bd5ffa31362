// The optimized-palette generator (see optimize_palette.h) and
// Z_CreateOptimizedPalette.
//
// Each source is read once, a row at a time through a row stream, each row
// turned into 24-bit BGR by one row converter planned for the source. Every
// pixel counts in a histogram of 5 bits per channel that keeps the sums of
// the 8-bit channels of each bin; while the pixels have no more distinct
// colours than there are entries to fill, those colours are kept as well.
#include "reduce/optimize_palette.h"

#include <algorithm>
#include <cstring>

#include "color/convert.h"
#include "core/bitmap_handle.h"
#include "core/heap_object.h"
#include "reduce/quantize.h"
#include "rows/row_stream.h"

namespace zk::reduce {
namespace {

bool to_fill(const RGBQUAD& e) { return (e.rgbReserved & Z_PAL_FILL) && !(e.rgbReserved & Z_PAL_RESERVED); }

// Whether the pixels are indices into the bitmap's palette (8-bit gray
// bitmaps hold levels).
bool through_palette(const BitmapHandle& b) {
    return pixel_format(b.BitsPerPixel).indexed && !(b.BitsPerPixel == 8 && b.Order == CO_GRAY);
}

// Block of the library's allocator released on every way out.
struct Block {
    void* p = nullptr;
    ~Block() { Z_Free(p); }
};

// What the pixels of all sources add up to.
class Collector {
public:
    explicit Collector(uint32_t limit) : limit_(limit) {}

    // Counts `count` 3-byte BGR pixels.
    void add(const uint8_t* p, uint32_t count) {
        while (count > 0) {
            const uint32_t n = std::min(count, kFlushPixels - pending_);
            if (!many_) note_colours(p, n);
            for (uint32_t i = 0; i < n; ++i, p += 3) {
                const uint32_t b = p[0], g = p[1], r = p[2];
                Partial& x = partial_[match_cell(r, g, b)];
                ++x.n;
                x.r += r;
                x.g += g;
                x.b += b;
            }
            count -= n;
            pending_ += n;
            if (pending_ == kFlushPixels) flush();
        }
    }

    // The histogram with every pixel counted.
    const BinSums* histogram() {
        flush();
        return total_;
    }
    // Whether the pixels have more distinct colours than the limit; else
    // colours(): those colours in the order met.
    bool many() const { return many_; }
    uint32_t distinct() const { return distinct_; }
    RGBQUAD colour(uint32_t i) const {
        const uint32_t c = colours_[i];
        return RGBQUAD{static_cast<uint8_t>(c), static_cast<uint8_t>(c >> 8), static_cast<uint8_t>(c >> 16), 0};
    }

private:
    // Pixels counted in the 32-bit partial sums between flushes into the
    // totals: 255 * 2^24 still fits.
    static constexpr uint32_t kFlushPixels = 1u << 24;
    static constexpr uint32_t kSlots = 1024;  // hash of the distinct colours, at most a quarter full

    struct Partial {
        uint32_t n, r, g, b;
    };

    void flush() {
        for (uint32_t i = 0; i < kHistogramBins; ++i) {
            Partial& x = partial_[i];
            if (x.n == 0) continue;
            total_[i].n += x.n;
            total_[i].r += x.r;
            total_[i].g += x.g;
            total_[i].b += x.b;
            x = Partial{};
        }
        pending_ = 0;
    }

    void note_colours(const uint8_t* p, uint32_t count) {
        for (uint32_t i = 0; i < count && !many_; ++i, p += 3) {
            const uint32_t c = p[0] | p[1] << 8 | p[2] << 16 | 1u << 24;  // never 0, the empty slot
            if (c == last_) continue;
            last_ = c;
            uint32_t s = (c * 2654435761u) >> 22;
            while (slot_[s] != 0 && slot_[s] != c) s = (s + 1) & (kSlots - 1);
            if (slot_[s] == c) continue;
            if (distinct_ == limit_) {
                many_ = true;
                break;
            }
            slot_[s] = c;
            colours_[distinct_++] = c;
        }
    }

    Partial partial_[kHistogramBins] = {};
    BinSums total_[kHistogramBins] = {};
    uint32_t pending_ = 0;
    uint32_t limit_;
    uint32_t slot_[kSlots] = {};
    uint32_t colours_[256] = {};
    uint32_t distinct_ = 0;
    uint32_t last_ = 0;
    bool many_ = false;
};

// Counts every pixel of one checked source.
int32_t read_source(BitmapHandle& b, Collector& collector) {
    if (b.Width == 0 || b.Height == 0) return ST_OK;
    const bool gray_levels = b.BitsPerPixel == 8 && b.Order == CO_GRAY;
    ConvertRequest rq;
    rq.width = b.Width;
    rq.src_bits = gray_levels ? 0 : b.BitsPerPixel;
    rq.dst_bits = 24;
    rq.src_order = static_cast<int32_t>(b.Order);
    rq.dst_order = CO_BGR;

    // The converter reads as many palette entries as the depth has indices:
    // a shorter palette is read through a copy padded with black.
    RGBQUAD colours[256] = {};
    if (through_palette(b) && b.Palette) {
        std::memcpy(colours, b.Palette, sizeof(RGBQUAD) * std::min(b.ColorCount, 256u));
        rq.src_palette = colours;
    }
    // Deep gray: the bit window, and the LUT while it is in force (indexed by
    // samples of up to the depth's bits; a shorter one is padded likewise).
    Block lut;
    const PixelFormat& f = pixel_format(b.BitsPerPixel);
    if (f.gray_bits > 8 && b.Order == CO_GRAY) {
        rq.flags |= CVT_SRC_RANGE;
        rq.low_bit = b.LowBit;
        rq.high_bit = b.HighBit;
        if ((b.Flags & BF_LUT_USED) && b.LUT && b.LUTLength > 0) {
            const uint32_t need = 1u << f.gray_bits;
            if (b.LUTLength >= need) {
                rq.src_palette = b.LUT;
            } else {
                lut.p = Z_Calloc(need, sizeof(RGBQUAD));
                if (!lut.p) return ST_NO_MEMORY;
                std::memcpy(lut.p, b.LUT, sizeof(RGBQUAD) * b.LUTLength);
                rq.src_palette = static_cast<const RGBQUAD*>(lut.p);
            }
        }
    }

    const HeapObject<RowConverter> converter;
    if (!converter) return ST_NO_MEMORY;
    if (const int32_t status = converter->prepare(rq); status != ST_OK) return status;
    const ImageSize row_size = image_size(b.Width, 1, 24);
    if (row_size.status != ST_OK) return row_size.status;
    Block row;
    row.p = Z_Malloc(row_size.bytes_per_line);
    if (!row.p) return ST_NO_MEMORY;
    auto* bgr = static_cast<uint8_t*>(row.p);

    rows::RowStream in(b);
    for (uint32_t y = 0; y < static_cast<uint32_t>(b.Height); ++y) {
        const uint8_t* src = in.read(y);
        if (!src) return in.status();
        converter->run(src, bgr);
        collector.add(bgr, static_cast<uint32_t>(b.Width));
    }
    return ST_OK;
}

int32_t check_source(const BitmapHandle& b) {
    if (!allocated(&b) || !valid_depth(b.BitsPerPixel) || !geometry_consistent(b)) return ST_INVALID_BITMAP;
    if (b.Flags & BF_SIGNED) return ST_SIGNED_DATA;
    return ST_OK;
}

}  // namespace

int32_t optimize_palette(BitmapHandle* const* sources, uint32_t n, RGBQUAD* palette, uint32_t count,
                         uint32_t* match_table, PaletteChoice* choice) {
    if (!sources || n == 0 || !palette || count == 0 || count > 256 || !choice) return ST_BAD_PARAM;
    uint32_t fill_at[256], to_fill_count = 0, fixed_count = 0;
    RGBQUAD fixed[256];
    for (uint32_t i = 0; i < count; ++i) {
        if (to_fill(palette[i]))
            fill_at[to_fill_count++] = i;
        else if (selectable(palette[i]))
            fixed[fixed_count++] = palette[i];
    }
    if (to_fill_count == 0) return ST_BAD_PARAM;
    for (uint32_t s = 0; s < n; ++s)
        if (!sources[s]) return ST_BAD_PARAM;
    for (uint32_t s = 0; s < n; ++s)
        if (sources[s]->StructSize != kStructSize) return ST_BAD_STRUCT_SIZE;
    for (uint32_t s = 0; s < n; ++s)
        if (const int32_t status = check_source(*sources[s]); status != ST_OK) return status;

    RGBQUAD chosen[256];
    uint32_t made = 0;
    bool exact = false;
    const BitmapHandle& first = *sources[0];
    if (n == 1 && through_palette(first) && first.Palette && first.ColorCount > 0 &&
        first.ColorCount <= to_fill_count) {
        made = first.ColorCount;
        std::memcpy(chosen, first.Palette, sizeof(RGBQUAD) * made);
        exact = true;
    } else {
        // About 1.5 MiB: the histogram's partial sums and totals.
        const HeapObject<Collector> collector(to_fill_count);
        if (!collector) return ST_NO_MEMORY;
        for (uint32_t s = 0; s < n; ++s)
            if (const int32_t status = read_source(*sources[s], *collector.get()); status != ST_OK) return status;
        if (!collector->many()) {
            made = collector->distinct();
            for (uint32_t i = 0; i < made; ++i) chosen[i] = collector->colour(i);
            exact = true;
        } else if (const int32_t status =
                       quantize_histogram(collector->histogram(), fixed, fixed_count, to_fill_count, chosen, &made);
                   status != ST_OK) {
            return status;
        }
    }

    RGBQUAD result[256];
    std::memcpy(result, palette, sizeof(RGBQUAD) * count);
    for (uint32_t i = 0; i < made; ++i) {
        result[fill_at[i]] = chosen[i];
        result[fill_at[i]].rgbReserved = 0;
    }
    if (match_table) {
        MatchList list;
        build_match_list(result, count, list);
        std::memset(match_table, 0, sizeof(uint32_t) * kMatchCells);
        if (list.count > 0) {
            seed_match_table(match_table, list);
            if (const int32_t status = fill_match_table(match_table, list); status != ST_OK) return status;
        }
    }
    std::memcpy(palette, result, sizeof(RGBQUAD) * count);
    choice->used = made;
    choice->exact = exact;
    return ST_OK;
}

}  // namespace zk::reduce

extern "C" int32_t Z_API Z_CreateOptimizedPalette(BitmapHandle* bitmap, RGBQUAD* palette, uint32_t count,
                                                  uint32_t* colorsUsed, int32_t* exact, uint32_t* matchTable) {
    if (!bitmap) return ST_BAD_PARAM;
    BitmapHandle* const sources[] = {bitmap};
    zk::reduce::PaletteChoice choice;
    const int32_t status = zk::reduce::optimize_palette(sources, 1, palette, count, matchTable, &choice);
    if (status != ST_OK) return status;
    if (colorsUsed) *colorsUsed = choice.used;
    if (exact) *exact = choice.exact ? 1 : 0;
    return ST_OK;
}
