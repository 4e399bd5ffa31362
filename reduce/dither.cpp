// The dithering engine (see dither.h) and its exports.
//
// Error diffusion keeps, per colour channel, undivided weighted sums of
// error: one row of them for the line being dithered and one for each line
// below that a kernel reaches. A pixel receives its whole sum divided once by
// the kernel's divisor, truncated toward zero, when it is reached; the sums
// of pixels to its right on the same line collect the current-line weights
// until then. Rows are dithered left to right on every line.
#include "reduce/dither.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "bitmap_handle.h"
#include "color/palette.h"
#include "core/packed_pixels.h"
#include "core/thread_state.h"

namespace zk::reduce {
namespace {

// ---------------------------------------------------------------------------
// Kernels

struct Tap {
    int32_t dy, dx, weight;  // dy 0 is the current line (dx > 0 only)
};

struct Kernel {
    int32_t divisor;
    int32_t margin;  // horizontal reach on each side
    int32_t rows;    // lines below the current one that receive error
    int32_t taps;
    Tap tap[12];
};

constexpr Kernel kFloyd{16, 1, 1, 4, {{0, 1, 7}, {1, -1, 3}, {1, 0, 5}, {1, 1, 1}}};
constexpr Kernel kStucki{42,
                         2,
                         2,
                         12,
                         {{0, 1, 8},
                          {0, 2, 4},
                          {1, -2, 2},
                          {1, -1, 4},
                          {1, 0, 8},
                          {1, 1, 4},
                          {1, 2, 2},
                          {2, -2, 1},
                          {2, -1, 2},
                          {2, 0, 4},
                          {2, 1, 2},
                          {2, 2, 1}}};
constexpr Kernel kBurkes{32, 2, 1, 7, {{0, 1, 8}, {0, 2, 4}, {1, -2, 2}, {1, -1, 4}, {1, 0, 8}, {1, 1, 4}, {1, 2, 2}}};
constexpr Kernel kSierra{
    32,
    2,
    2,
    10,
    {{0, 1, 5}, {0, 2, 3}, {1, -2, 2}, {1, -1, 4}, {1, 0, 5}, {1, 1, 4}, {1, 2, 2}, {2, -1, 2}, {2, 0, 3}, {2, 1, 2}}};
constexpr Kernel kStevensonArce{200,
                                3,
                                3,
                                12,
                                {{0, 2, 32},
                                 {1, -3, 12},
                                 {1, -1, 26},
                                 {1, 1, 30},
                                 {1, 3, 16},
                                 {2, -2, 12},
                                 {2, 0, 26},
                                 {2, 2, 12},
                                 {3, -3, 5},
                                 {3, -1, 12},
                                 {3, 1, 12},
                                 {3, 3, 5}}};
constexpr Kernel kJarvis{48,
                         2,
                         2,
                         12,
                         {{0, 1, 7},
                          {0, 2, 5},
                          {1, -2, 3},
                          {1, -1, 5},
                          {1, 0, 7},
                          {1, 1, 5},
                          {1, 2, 3},
                          {2, -2, 1},
                          {2, -1, 3},
                          {2, 0, 5},
                          {2, 1, 3},
                          {2, 2, 1}}};

// The kernel of an error-diffusion method, null for the others.
constexpr const Kernel* kernel_of(uint32_t method) {
    switch (method) {
        case DITHER_FLOYD: return &kFloyd;
        case DITHER_STUCKI: return &kStucki;
        case DITHER_BURKES: return &kBurkes;
        case DITHER_SIERRA: return &kSierra;
        case DITHER_STEVENSON_ARCE: return &kStevensonArce;
        case DITHER_JARVIS: return &kJarvis;
        default: return nullptr;
    }
}

// The ordered matrices, used exactly as stored.
constexpr uint8_t kDispersed[8][8] = {
    {0, 128, 32, 160, 8, 136, 40, 168},   {192, 64, 224, 96, 200, 72, 232, 104},
    {48, 176, 16, 144, 56, 184, 24, 152}, {236, 112, 208, 80, 244, 120, 216, 88},
    {12, 140, 44, 172, 4, 132, 36, 164},  {204, 76, 232, 108, 196, 68, 228, 100},
    {60, 188, 28, 156, 52, 180, 20, 148}, {248, 124, 220, 92, 240, 116, 212, 84},
};
constexpr uint8_t kClustered[8][8] = {
    {112, 40, 72, 104, 144, 176, 208, 136}, {88, 8, 16, 48, 192, 232, 240, 168},
    {56, 24, 0, 80, 160, 224, 248, 200},    {96, 64, 32, 120, 128, 216, 184, 152},
    {148, 180, 212, 140, 116, 44, 76, 108}, {196, 236, 244, 172, 92, 12, 20, 52},
    {164, 228, 252, 204, 60, 28, 4, 84},    {132, 220, 188, 156, 100, 68, 36, 124},
};

struct CubeTable {
    RGBQUAD e[256];
    constexpr CubeTable() : e() {
        for (uint32_t i = 0; i < 256; ++i)
            e[i] = i < 216 ? RGBQUAD{static_cast<uint8_t>(i % 6 * 51), static_cast<uint8_t>(i / 6 % 6 * 51),
                                     static_cast<uint8_t>(i / 36 * 51), 0}
                           : RGBQUAD{0, 0, 0, 0};
    }
};
constexpr CubeTable kCube;

constexpr uint32_t gray_of(uint32_t r, uint32_t g, uint32_t b) { return (5 * g + 2 * r + b + 4) >> 3; }

// ---------------------------------------------------------------------------
// The state

struct State {
    void* block;  // the allocation holding this state
    uint32_t line_counter;
    uint32_t color_count;
    uint32_t width;
    uint32_t source_bpp;
    uint32_t method;
    Lookup lookup;
    uint32_t dest_bpp;
    const Kernel* kernel;
    RGBQUAD source_palette[256];
    RGBQUAD dest_palette[256];
    uint32_t* match_table;
    bool owns_table;
    MatchList match_list;
    // Error sums: kernel->rows + 1 rows of (width + 2 * margin) pixels, three
    // channels each (red, green, blue), the current line first.
    int32_t* error_block;
    int32_t* error[4];
    uint32_t error_row_length;  // pixels per row, margins included
    // Decoded colours of the row being dithered (blue, green, red, unused)
    // for sources that are not read in place, and the indices of a row
    // narrower than a byte per pixel before they are packed.
    uint8_t* colour_row;
    uint8_t* index_row;
    PixelReader reader;
    // Ordered offsets per matrix row and column, for the index width.
    int16_t offset[8][8];
    alignas(64) PaletteSearch search;  // over match_list
};

State* state_of(const BitmapHandle& b) { return static_cast<State*>(b.DitherData); }

void free_state(State* s) {
    if (!s) return;
    if (s->owns_table) Z_Free(s->match_table);
    Z_Free(s->error_block);
    Z_Free(s->colour_row);
    Z_Free(s->index_row);
    void* block = s->block;
    s->~State();
    Z_Free(block);
}

// A zero-filled state aligned as it needs, or null.
State* new_state() {
    void* block = Z_Calloc(1, sizeof(State) + alignof(State));
    if (!block) return nullptr;
    const auto at = reinterpret_cast<uintptr_t>(block);
    auto* s = new (reinterpret_cast<void*>((at + alignof(State) - 1) / alignof(State) * alignof(State))) State{};
    s->block = block;
    return s;
}

// Frees a state that never reached the bitmap.
struct StateGuard {
    State* s;
    ~StateGuard() { free_state(s); }
};

// The lookup kind of the fixed palette for a count range, and that palette's
// own index width.
Lookup fixed_lookup(uint32_t colors) {
    const uint32_t bits = index_bits(colors);
    return static_cast<Lookup>(static_cast<uint32_t>(Lookup::Fixed2) + bits - 1);
}

// The index width whose fixed palette a lookup kind serves (the cube: 6).
uint32_t lookup_bits(Lookup k) {
    if (k == Lookup::Cube) return 6;
    return static_cast<uint32_t>(k) - static_cast<uint32_t>(Lookup::Fixed2) + 1;
}

// ---------------------------------------------------------------------------
// Colour to index

inline uint32_t fixed_index(Lookup kind, uint32_t r, uint32_t g, uint32_t b) {
    switch (kind) {
        case Lookup::Fixed2: return gray_of(r, g, b) >> 7;
        case Lookup::Fixed4: return gray_of(r, g, b) >> 6;
        case Lookup::Fixed8: return (r >> 7) * 4 + (g >> 7) * 2 + (b >> 7);
        case Lookup::Fixed16: {
            const uint32_t i = (b >> 7) * 4 + (g >> 7) * 2 + (r >> 7);
            return i ? i + 8 : 0;
        }
        case Lookup::Fixed32: return (r >> 6) * 8 + (g >> 6) * 2 + (b >> 7);
        case Lookup::Fixed64: return (r >> 6) * 16 + (g >> 6) * 4 + (b >> 6);
        case Lookup::Fixed128: return (r >> 6) * 32 + (g >> 5) * 4 + (b >> 6);
        case Lookup::Fixed256: return (r & 0xE0) + ((g & 0xE0) >> 3) + (b >> 6);
        case Lookup::Cube: return (r / 51) * 36 + (g / 51) * 6 + b / 51;
        default: return 0;
    }
}

// The palette index of a colour through the match table, searching the
// nearest selectable entry for a cell not known yet (or holding a position
// the list does not have).
inline uint32_t table_index(State& s, uint32_t r, uint32_t g, uint32_t b) {
    uint32_t& cell = s.match_table[match_cell(r, g, b)];
    uint32_t at = cell;
    if (at == 0 || at > s.match_list.count) {
        at = 1 + s.search.find(r & 0xF8, g & 0xF8, b & 0xF8);
        cell = at;
    }
    return s.match_list.entry[at - 1].rgbReserved;
}

struct FixedLookup {
    Lookup kind;
    uint32_t operator()(uint32_t r, uint32_t g, uint32_t b) const { return fixed_index(kind, r, g, b); }
};

struct TableLookup {
    State* s;
    uint32_t operator()(uint32_t r, uint32_t g, uint32_t b) const { return table_index(*s, r, g, b); }
};

// ---------------------------------------------------------------------------
// Rows

// Where the channels of each source pixel are: a row read in place (24 and
// 32 bits in plain orders) or the decoded colour row.
struct Pixels {
    const uint8_t* p;
    uint32_t stride;
    uint32_t r, g, b;  // byte offsets inside a pixel
};

Pixels decode(State& s, const uint8_t* source) {
    const uint32_t bpp = s.source_bpp;
    if ((bpp == 24 || bpp == 32) && !s.reader.src_alt) {
        const uint32_t stride = bpp / 8;
        return s.reader.src_rgb ? Pixels{source, stride, 0, 1, 2} : Pixels{source, stride, 2, 1, 0};
    }
    const FetchFn fetch = fetch_for(s.reader.src_depth);
    Pivot pivot[64];
    for (uint32_t first = 0; first < s.width; first += 64) {
        const uint32_t n = std::min(64u, s.width - first);
        fetch(s.reader, source, first, n, pivot);
        uint8_t* out = s.colour_row + size_t{first} * 4;
        for (uint32_t k = 0; k < n; ++k) {
            out[4 * k] = static_cast<uint8_t>(pivot[k].b >> 8);
            out[4 * k + 1] = static_cast<uint8_t>(pivot[k].g >> 8);
            out[4 * k + 2] = static_cast<uint8_t>(pivot[k].r >> 8);
        }
    }
    return Pixels{s.colour_row, 4, 2, 1, 0};
}

inline int32_t clamp8(int32_t v) { return v < 0 ? 0 : v > 255 ? 255 : v; }

// Error diffusion of one row with kernel K.
template <const Kernel& K, class Find>
void diffuse(State& s, const Pixels& px, uint8_t* out, Find find) {
    constexpr int32_t M = K.margin;
    int32_t* rows[4];
    for (int32_t i = 0; i <= K.rows; ++i) rows[i] = s.error[i] + 3 * M;
    int32_t* cur = rows[0];
    const uint8_t* src = px.p;
    for (uint32_t x = 0; x < s.width; ++x, src += px.stride) {
        int32_t* e0 = cur + 3 * x;
        const int32_t r = clamp8(src[px.r] + e0[0] / K.divisor);
        const int32_t g = clamp8(src[px.g] + e0[1] / K.divisor);
        const int32_t b = clamp8(src[px.b] + e0[2] / K.divisor);
        const uint32_t index = find(static_cast<uint32_t>(r), static_cast<uint32_t>(g), static_cast<uint32_t>(b));
        out[x] = static_cast<uint8_t>(index);
        const RGBQUAD& d = s.dest_palette[index & 255];
        const int32_t er = r - d.rgbRed, eg = g - d.rgbGreen, eb = b - d.rgbBlue;
        for (int32_t t = 0; t < K.taps; ++t) {
            int32_t* a = rows[K.tap[t].dy] + 3 * (static_cast<int64_t>(x) + K.tap[t].dx);
            a[0] += K.tap[t].weight * er;
            a[1] += K.tap[t].weight * eg;
            a[2] += K.tap[t].weight * eb;
        }
    }
    // The lines move up one; the farthest starts from zero.
    int32_t* done = s.error[0];
    for (int32_t i = 0; i < K.rows; ++i) s.error[i] = s.error[i + 1];
    s.error[K.rows] = done;
    std::memset(done, 0, size_t{s.error_row_length} * 3 * sizeof(int32_t));
}

template <class Find>
void nearest(State& s, const Pixels& px, uint8_t* out, Find find) {
    const uint8_t* src = px.p;
    for (uint32_t x = 0; x < s.width; ++x, src += px.stride)
        out[x] = static_cast<uint8_t>(find(src[px.r], src[px.g], src[px.b]));
}

template <class Find>
void ordered(State& s, const Pixels& px, uint8_t* out, Find find, uint32_t row) {
    const uint8_t* matrix = s.method == DITHER_ORDERED ? kDispersed[row] : kClustered[row];
    const uint8_t* src = px.p;
    if (s.lookup == Lookup::Fixed2) {
        for (uint32_t x = 0; x < s.width; ++x, src += px.stride)
            out[x] = gray_of(src[px.r], src[px.g], src[px.b]) > matrix[x & 7] ? 1 : 0;
        return;
    }
    if (s.lookup == Lookup::Fixed16) {
        for (uint32_t x = 0; x < s.width; ++x, src += px.stride) {
            const uint32_t m = matrix[x & 7];
            const uint32_t i = (m < src[px.b] ? 4u : 0u) | (m < src[px.g] ? 2u : 0u) | (src[px.r] > m ? 1u : 0u);
            out[x] = static_cast<uint8_t>(i ? i + 8 : 0);
        }
        return;
    }
    const int16_t* offset = s.offset[row];
    for (uint32_t x = 0; x < s.width; ++x, src += px.stride) {
        const int32_t d = offset[x & 7];
        out[x] = static_cast<uint8_t>(find(static_cast<uint32_t>(clamp8(src[px.r] + d)),
                                           static_cast<uint32_t>(clamp8(src[px.g] + d)),
                                           static_cast<uint32_t>(clamp8(src[px.b] + d))));
    }
}

template <class Find>
void dither_with(State& s, const Pixels& px, uint8_t* out, Find find) {
    switch (s.method) {
        case DITHER_FLOYD: return diffuse<kFloyd>(s, px, out, find);
        case DITHER_STUCKI: return diffuse<kStucki>(s, px, out, find);
        case DITHER_BURKES: return diffuse<kBurkes>(s, px, out, find);
        case DITHER_SIERRA: return diffuse<kSierra>(s, px, out, find);
        case DITHER_STEVENSON_ARCE: return diffuse<kStevensonArce>(s, px, out, find);
        case DITHER_JARVIS: return diffuse<kJarvis>(s, px, out, find);
        case DITHER_ORDERED:
        case DITHER_CLUSTERED: {
            const uint32_t row = s.line_counter % 8;
            ++s.line_counter;
            return ordered(s, px, out, find, row);
        }
        default: return nearest(s, px, out, find);
    }
}

// Allocates what the state needs for its rows. ST_OK or ST_NO_MEMORY.
int32_t allocate_rows(State& s) {
    const uint64_t width = s.width;
    if (width * 4 > SIZE_MAX / 2) return ST_NO_MEMORY;
    s.colour_row = static_cast<uint8_t*>(Z_Malloc(static_cast<size_t>(std::max<uint64_t>(width * 4, 4))));
    s.index_row = static_cast<uint8_t*>(Z_Malloc(static_cast<size_t>(std::max<uint64_t>(width, 1))));
    if (!s.colour_row || !s.index_row) return ST_NO_MEMORY;
    if (!s.kernel) return ST_OK;
    s.error_row_length = static_cast<uint32_t>(width + 2 * static_cast<uint32_t>(s.kernel->margin));
    const uint64_t row_values = uint64_t{s.error_row_length} * 3;
    const uint64_t bytes = row_values * sizeof(int32_t) * static_cast<uint64_t>(s.kernel->rows + 1);
    if (bytes > SIZE_MAX / 2) return ST_NO_MEMORY;
    s.error_block = static_cast<int32_t*>(Z_Calloc(1, static_cast<size_t>(bytes)));
    if (!s.error_block) return ST_NO_MEMORY;
    for (int32_t i = 0; i <= s.kernel->rows; ++i) s.error[i] = s.error_block + row_values * static_cast<uint64_t>(i);
    return ST_OK;
}

// The colour order rows are read in: what the depth takes, as the engine
// reads it (16, 32 and 64 bits: blue first only for CO_BGR; 24 and 48 bits:
// CO_BGR, CO_RGB, else the second colour space).
uint32_t reading_order(int32_t bpp, uint32_t order) {
    const Packing p = pixel_format(bpp).packing;
    if (p == Packing::Fields || p == Packing::Byte) return CO_BGR;
    if (p == Packing::Gray12) return CO_GRAY;
    if (p == Packing::Word16 && order == CO_GRAY) return CO_GRAY;
    if (bpp == 24 || bpp == 48) return order == CO_BGR || order == CO_RGB ? order : CO_ALT_BGR;
    return order == CO_BGR ? CO_BGR : CO_RGB;
}

}  // namespace

const RGBQUAD* cube_palette() { return kCube.e; }

uint32_t index_bits(uint32_t colors) {
    uint32_t bits = 1;
    while (bits < 8 && (1u << bits) < colors) ++bits;
    return bits;
}

int32_t start_dithering(BitmapHandle& bitmap, uint32_t method, const RGBQUAD* palette, uint32_t colors,
                        uint32_t bits_per_pixel, uint32_t* user_table) {
    if (bitmap.DitherData) return ST_BAD_PARAM;
    const int32_t bpp = bitmap.BitsPerPixel;
    if (!valid_depth(bpp) || bitmap.Width < 0) return ST_BAD_PARAM;
    if (colors == 0 || colors > 256 || method > DITHER_CLUSTERED) return ST_BAD_PARAM;

    StateGuard guard{new_state()};
    State* s = guard.s;
    if (!s) return ST_NO_MEMORY;
    s->color_count = colors;
    s->dest_bpp = bits_per_pixel;
    s->source_bpp = static_cast<uint32_t>(bpp);
    s->method = method;
    s->width = static_cast<uint32_t>(bitmap.Width);
    s->kernel = kernel_of(method);

    // The fixed palette of the count's range serves when no palette is given
    // or the given one is that palette byte for byte (or, for 129..256
    // colours, the cube); any other palette goes through a match table.
    const uint32_t range_bits = index_bits(colors);
    const RGBQUAD* fixed = fixed_palette(static_cast<int32_t>(range_bits));
    const size_t compared = size_t{colors} * sizeof(RGBQUAD);
    const RGBQUAD* dest = palette ? palette : fixed;
    if (user_table) {
        s->lookup = Lookup::UserTable;
        s->match_table = user_table;
    } else if (!palette || std::memcmp(palette, fixed, compared) == 0) {
        s->lookup = fixed_lookup(colors);
    } else if (colors > 128 && std::memcmp(palette, kCube.e, compared) == 0) {
        s->lookup = Lookup::Cube;
    } else {
        s->lookup = Lookup::OwnedTable;
        s->match_table = static_cast<uint32_t*>(Z_Calloc(kMatchCells, sizeof(uint32_t)));
        if (!s->match_table) return ST_NO_MEMORY;
        s->owns_table = true;
    }
    const bool table = s->lookup == Lookup::OwnedTable || s->lookup == Lookup::UserTable;
    if (table) {
        build_match_list(dest, colors, s->match_list);
        // Nothing could be chosen: refused rather than searching nothing.
        if (s->match_list.count == 0) return ST_BAD_PARAM;
        s->search.prepare(s->match_list.entry, s->match_list.count);
    }

    // Rows are decoded through a copy of the source palette taken now.
    if (pixel_format(bpp).indexed) Z_GetBitmapPaletteEntries(&bitmap, 0, 256, s->source_palette);
    std::memcpy(s->dest_palette, dest, compared);
    const bool lut = bitmap.LUT && has(bitmap, BF_LUT_USED);
    const uint32_t order = reading_order(bpp, bitmap.Order);
    int32_t status = prepare_reader(s->reader, bpp, order, s->source_palette, lut ? bitmap.LUT : nullptr, bitmap.LowBit,
                                    bitmap.HighBit);
    // A LUT must hold an entry for every sample the bit range gives.
    if (status == ST_OK && s->reader.lut && uint64_t{bitmap.LUTLength} <= s->reader.src_mask)
        status = prepare_reader(s->reader, bpp, order, s->source_palette, nullptr, bitmap.LowBit, bitmap.HighBit);
    if (status != ST_OK) return status;

    // Ordered offsets floor(m / k) - floor(128 / k), k the palette's own
    // index width for the fixed kinds and the output width otherwise.
    if (method == DITHER_ORDERED || method == DITHER_CLUSTERED) {
        const uint32_t k = std::max(1u, table ? bits_per_pixel : lookup_bits(s->lookup));
        const auto& matrix = method == DITHER_ORDERED ? kDispersed : kClustered;
        for (int y = 0; y < 8; ++y)
            for (int x = 0; x < 8; ++x)
                s->offset[y][x] =
                    static_cast<int16_t>(static_cast<int32_t>(matrix[y][x] / k) - static_cast<int32_t>(128 / k));
    }
    if ((status = allocate_rows(*s)) != ST_OK) return status;
    if (table) seed_match_table(s->match_table, s->match_list);
    bitmap.DitherData = s;
    guard.s = nullptr;
    return ST_OK;
}

void dither_line(BitmapHandle& bitmap, const uint8_t* source, uint8_t* dest) {
    State& s = *state_of(bitmap);
    const Pixels px = decode(s, source);
    const uint32_t bits = s.dest_bpp;
    uint8_t* out = bits == 8 ? dest : s.index_row;
    if (s.lookup == Lookup::OwnedTable || s.lookup == Lookup::UserTable)
        dither_with(s, px, out, TableLookup{&s});
    else
        dither_with(s, px, out, FixedLookup{s.lookup});
    if (bits >= 1 && bits < 8)
        for (uint32_t x = 0; x < s.width; ++x) packed::put_field(dest, x, bits, s.index_row[x]);
}

void stop_dithering(BitmapHandle& bitmap) {
    free_state(state_of(bitmap));
    bitmap.DitherData = nullptr;
}

Lookup testing::lookup_of(const BitmapHandle& bitmap) { return state_of(bitmap)->lookup; }

}  // namespace zk::reduce

using zk::kStructSize;

extern "C" int32_t Z_API Z_StartDitheringExt(BitmapHandle* bitmap, const RGBQUAD* palette, uint32_t colors,
                                             uint32_t bitsPerPixel, uint32_t* userMatchTable) {
    if (!bitmap) return ST_BAD_PARAM;
    if (bitmap->StructSize != kStructSize) return ST_BAD_STRUCT_SIZE;
    return zk::reduce::start_dithering(*bitmap, bitmap->DitherMethod, palette, colors, bitsPerPixel, userMatchTable);
}

extern "C" int32_t Z_API Z_StartDithering(BitmapHandle* bitmap, const RGBQUAD* palette, uint32_t colors) {
    if (colors == 0 || colors > 256) return ST_BAD_PARAM;
    return Z_StartDitheringExt(bitmap, palette, colors, zk::reduce::index_bits(colors), nullptr);
}

extern "C" int32_t Z_API Z_DitherLine(BitmapHandle* bitmap, const uint8_t* sourceRow, uint8_t* destRow) {
    if (!bitmap || !sourceRow || !destRow) return ST_BAD_PARAM;
    if (bitmap->StructSize != kStructSize) return ST_BAD_STRUCT_SIZE;
    if (!bitmap->DitherData) return ST_BAD_PARAM;
    if (bitmap->Flags & BF_SIGNED) return ST_SIGNED_DATA;
    zk::reduce::dither_line(*bitmap, sourceRow, destRow);
    return ST_OK;
}

extern "C" int32_t Z_API Z_StopDithering(BitmapHandle* bitmap) {
    if (!bitmap) return ST_BAD_PARAM;
    if (bitmap->StructSize != kStructSize) return ST_BAD_STRUCT_SIZE;
    zk::reduce::stop_dithering(*bitmap);
    return ST_OK;
}

extern "C" uint32_t* Z_API Z_CreateUserMatchTable(const RGBQUAD* palette, uint32_t colors) {
    if (!palette || colors == 0 || colors > 256) return nullptr;
    zk::reduce::MatchList list;
    zk::reduce::build_match_list(palette, colors, list);
    if (list.count == 0) return nullptr;
    auto* table = static_cast<uint32_t*>(Z_OsAllocInit(zk::reduce::kMatchCells * sizeof(uint32_t), 1));
    if (!table) return nullptr;
    zk::reduce::seed_match_table(table, list);
    if (zk::reduce::fill_match_table(table, list) != ST_OK) {
        Z_OsFree(table);
        return nullptr;
    }
    return table;
}

extern "C" uint32_t* Z_API Z_SetUserMatchTable(uint32_t* table) {
    zk::ThreadState& s = zk::thread_state();
    auto* previous = static_cast<uint32_t*>(s.user_match_table);
    s.user_match_table = table;
    return previous;
}

extern "C" uint32_t* Z_API Z_GetUserMatchTable(void) {
    return static_cast<uint32_t*>(zk::thread_state().user_match_table);
}
