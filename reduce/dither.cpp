// The dithering engine (see dither.h) and its exports.
//
// Error diffusion keeps, per colour channel, undivided weighted sums of
// error: one row of them for the line being dithered and one for each line
// below that a kernel reaches. A pixel receives its whole sum divided once by
// the kernel's divisor, truncated toward zero, when it is reached; the sums
// of pixels to its right on the same line collect the current-line weights
// until then. Rows are dithered left to right on every line.
//
// A line goes in two passes. The first walks the pixels in order, since each
// depends on the error of the one before: it keeps the current-line weights
// of the last two errors in registers instead of in the sums, and records
// every pixel's error. The second adds the weighted errors of the whole line
// to the sums of the lines below, each sum once, which vectors can do (the
// farthest line below is written, not added to: no earlier line reaches
// it). The integer sums are the same as adding every tap as it comes.
//
// The fixed palettes whose colour is a function of each channel on its own
// (all but the gray ones, when every entry is there) are served by tables
// per channel: from a channel's value before clamping to its error and its
// part of the index, so the pixel-to-pixel chain holds one table load.
#include "reduce/dither.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <new>
#include <type_traits>

#include "bitmap_handle.h"
#include "color/palette.h"
#include "core/platform/cpu.h"
#include "core/platform/x86_intrinsics.h"
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

// Every pixel's error is shared out whole: a sum never holds more than
// 255 * divisor in magnitude, so a divided sum stays within -255..255.
constexpr bool whole(const Kernel& k) {
    int32_t total = 0;
    for (int32_t t = 0; t < k.taps; ++t) total += k.tap[t].weight;
    return total == k.divisor;
}
static_assert(whole(kFloyd) && whole(kStucki) && whole(kBurkes) && whole(kSierra) && whole(kStevensonArce) &&
              whole(kJarvis));

// The weight of a tap of the current line (0 where the kernel has none).
constexpr int32_t current_weight(const Kernel& k, int32_t dx) {
    for (int32_t t = 0; t < k.taps; ++t)
        if (k.tap[t].dy == 0 && k.tap[t].dx == dx) return k.tap[t].weight;
    return 0;
}
// The current line reaches at most two pixels ahead.
constexpr bool near_ahead(const Kernel& k) {
    for (int32_t t = 0; t < k.taps; ++t)
        if (k.tap[t].dy == 0 && (k.tap[t].dx < 1 || k.tap[t].dx > 2)) return false;
    return true;
}
static_assert(near_ahead(kFloyd) && near_ahead(kStucki) && near_ahead(kBurkes) && near_ahead(kSierra) &&
              near_ahead(kStevensonArce) && near_ahead(kJarvis));

// Division of a sum by a divisor that is not a power of two, truncating
// toward zero, as a product and shifts: for |s| <= 255 * d (every sum),
// s / d == (s * m >> k) + (s < 0), with m = 2^k / d + 1 odd and
// |s| * (m * d - 2^k) < 2^k. Then |s| * m / 2^k lies in [|s| / d rounded
// down, the next integer) and is never an integer itself (m is odd and
// |s| < 2^k), so the arithmetic shift of -|s| * m gives one less than the
// truncated quotient. The product m * s is what the error of the pixel
// before contributes scaled, so the chain from pixel to pixel waits for an
// add and two shifts, not a multiplication.
struct Divider {
    int32_t shift;
    int64_t multiplier;
};
constexpr Divider divider_of(int32_t d) {
    const int64_t most = int64_t{255} * d;
    for (int32_t k = 1; k < 40; ++k) {
        const int64_t two = int64_t{1} << k;
        const int64_t m = two / d + 1;
        if (m % 2 == 1 && most * (m * d - two) < two) return {k, m};
    }
    return {0, 0};
}
constexpr bool power_of_two(int32_t d) { return (d & (d - 1)) == 0; }
// The quotient from the scaled sum s * m.
constexpr int64_t unscale(int64_t scaled, Divider v) { return (scaled >> v.shift) - (scaled >> 63); }

// What the error of the pixel before is multiplied by in the sum of the
// next: its weight, scaled by the divider's multiplier where the divisor
// takes one. It fits 32 bits for every error.
constexpr int64_t ahead_factor(const Kernel& k) {
    const int64_t w = current_weight(k, 1);
    return power_of_two(k.divisor) ? w : w * divider_of(k.divisor).multiplier;
}
constexpr bool divides(const Kernel& k) {
    return power_of_two(k.divisor) || (divider_of(k.divisor).shift > 0 && ahead_factor(k) * 255 < (int64_t{1} << 31));
}
static_assert(divides(kFloyd) && divides(kStucki) && divides(kBurkes) && divides(kSierra) && divides(kStevensonArce) &&
              divides(kJarvis));

// The taps of one line below: offsets into the error line (three values
// per pixel) and weights.
struct LineTaps {
    int32_t n;
    int32_t offset[7];
    int32_t weight[7];
};
constexpr LineTaps line_taps(const Kernel& k, int32_t dy) {
    LineTaps t{};
    for (int32_t i = 0; i < k.taps; ++i)
        if (k.tap[i].dy == dy) {
            t.offset[t.n] = -3 * k.tap[i].dx;
            t.weight[t.n] = k.tap[i].weight;
            ++t.n;
        }
    return t;
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

struct State;
struct Pixels;
using RowFn = void (*)(State& s, const Pixels& px, uint8_t* out);

// The per-channel tables of a fixed palette whose colour splits by channel,
// indexed by a channel's value before clamping plus 255 (-255..510: a
// source value and a divided sum, or an ordered offset). Channels red,
// green, blue.
constexpr int32_t kSplitBias = 255;
constexpr int32_t kSplitValues = 766;
struct SplitTables {
    int16_t error[3][kSplitValues];  // clamped value minus the chosen colour's channel
    int32_t ahead[3][kSplitValues];  // the error times the kernel's ahead_factor
    uint8_t part[3][kSplitValues];   // the channel's part of the index
};

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
    RowFn row;   // dithers one decoded row
    bool split;  // a fixed palette served by `tables`
    bool wide;   // the lines below are added to with 256-bit vectors
    RGBQUAD source_palette[256];
    RGBQUAD dest_palette[256];
    uint32_t* match_table;
    bool owns_table;
    MatchList match_list;
    // Error sums: kernel->rows + 1 rows of (width + 2 * margin) pixels, three
    // channels each (red, green, blue), the current line first. Only the
    // width's pixels are read and written.
    int32_t* error_block;
    int32_t* error[4];
    uint32_t error_row_length;  // pixels per row, margins included
    // The errors of the line just dithered (red, green, blue per pixel),
    // between margins of zeros.
    int32_t* error_line;
    // Decoded colours of the row being dithered (blue, green, red, unused)
    // for sources that are not read in place, and the indices of a row
    // narrower than a byte per pixel before they are packed.
    uint8_t* colour_row;
    uint8_t* index_row;
    PixelReader reader;
    // Ordered offsets per matrix row and column, for the index width.
    int16_t offset[8][8];
    SplitTables tables;
    alignas(64) PaletteSearch search;  // over match_list
};

State* state_of(const BitmapHandle& b) { return static_cast<State*>(b.DitherData); }

void free_state(State* s) {
    if (!s) return;
    if (s->owns_table) Z_Free(s->match_table);
    Z_Free(s->error_block);
    Z_Free(s->error_line);
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

// The fixed formulas other than the gray ones are a sum of one part per
// channel (0 at 0), then a last step that only the 16-colour palette takes:
// no channel set is entry 0, the others are entries 9..15.
constexpr uint32_t channel_part(Lookup kind, int channel, uint32_t v) {
    const uint32_t r = channel == 0 ? v : 0, g = channel == 1 ? v : 0, b = channel == 2 ? v : 0;
    switch (kind) {
        case Lookup::Fixed8: return (r >> 7) * 4 + (g >> 7) * 2 + (b >> 7);
        case Lookup::Fixed16: return (b >> 7) * 4 + (g >> 7) * 2 + (r >> 7);
        case Lookup::Fixed32: return (r >> 6) * 8 + (g >> 6) * 2 + (b >> 7);
        case Lookup::Fixed64: return (r >> 6) * 16 + (g >> 6) * 4 + (b >> 6);
        case Lookup::Fixed128: return (r >> 6) * 32 + (g >> 5) * 4 + (b >> 6);
        case Lookup::Fixed256: return (r & 0xE0) + ((g & 0xE0) >> 3) + (b >> 6);
        case Lookup::Cube: return (r / 51) * 36 + (g / 51) * 6 + b / 51;
        default: return 0;
    }
}
// (Arithmetic, not a choice: in a dithered row the choice goes either way
// at random and is mispredicted.)
constexpr uint32_t finish_index(bool sixteen, uint32_t sum) {
    return !sixteen ? sum : sum + 8 * static_cast<uint32_t>(sum != 0);
}
constexpr bool summed(Lookup kind) { return kind != Lookup::Fixed2 && kind != Lookup::Fixed4; }

template <Lookup Kind>
inline uint32_t fixed_index(uint32_t r, uint32_t g, uint32_t b) {
    if constexpr (Kind == Lookup::Fixed2) return gray_of(r, g, b) >> 7;
    if constexpr (Kind == Lookup::Fixed4) return gray_of(r, g, b) >> 6;
    if constexpr (summed(Kind))
        return finish_index(Kind == Lookup::Fixed16,
                            channel_part(Kind, 0, r) + channel_part(Kind, 1, g) + channel_part(Kind, 2, b));
    return 0;
}

inline uint32_t fixed_index(Lookup kind, uint32_t r, uint32_t g, uint32_t b) {
    switch (kind) {
        case Lookup::Fixed2: return fixed_index<Lookup::Fixed2>(r, g, b);
        case Lookup::Fixed4: return fixed_index<Lookup::Fixed4>(r, g, b);
        case Lookup::Fixed8: return fixed_index<Lookup::Fixed8>(r, g, b);
        case Lookup::Fixed16: return fixed_index<Lookup::Fixed16>(r, g, b);
        case Lookup::Fixed32: return fixed_index<Lookup::Fixed32>(r, g, b);
        case Lookup::Fixed64: return fixed_index<Lookup::Fixed64>(r, g, b);
        case Lookup::Fixed128: return fixed_index<Lookup::Fixed128>(r, g, b);
        case Lookup::Fixed256: return fixed_index<Lookup::Fixed256>(r, g, b);
        case Lookup::Cube: return fixed_index<Lookup::Cube>(r, g, b);
        default: return 0;
    }
}

// Values of the pixel-to-pixel chain are kept as wide as a pointer, so that
// a table index needs no widening on the way.
using Wide = ptrdiff_t;

template <class T>
inline T clamp8(T v) {
    return v < 0 ? 0 : v > 255 ? 255 : v;
}

inline uint8_t channel_of(const RGBQUAD& e, int channel) {
    return channel == 0 ? e.rgbRed : channel == 1 ? e.rgbGreen : e.rgbBlue;
}

// Fills the split tables of a summed fixed kind and says whether they give
// what the formula and the state's palette give for every colour. Each
// channel's table takes its colour from the entry the channel alone
// selects, so it depends on the channel's part only; the index depends on
// the three parts only; so checking every combination of the parts that
// occur (at most 8 x 8 x 8) checks every colour. A palette with fewer
// entries than its range has zeros where entries are missing and fails.
bool build_split(State& s) {
    const Lookup kind = s.lookup;
    if (!summed(kind)) return false;
    const bool sixteen = kind == Lookup::Fixed16;
    uint8_t part[3][256];
    uint8_t level[3][256];  // by part
    uint8_t first[3][256];  // a value with the part
    bool seen[3][256] = {};
    for (int c = 0; c < 3; ++c)
        for (uint32_t v = 0; v < 256; ++v) {
            const uint32_t p = channel_part(kind, c, v);
            if (p > 255) return false;
            part[c][v] = static_cast<uint8_t>(p);
            if (seen[c][p]) continue;
            seen[c][p] = true;
            first[c][p] = static_cast<uint8_t>(v);
            level[c][p] = channel_of(s.dest_palette[finish_index(sixteen, p) & 255], c);
        }
    for (uint32_t pr = 0; pr < 256; ++pr) {
        if (!seen[0][pr]) continue;
        for (uint32_t pg = 0; pg < 256; ++pg) {
            if (!seen[1][pg]) continue;
            for (uint32_t pb = 0; pb < 256; ++pb) {
                if (!seen[2][pb]) continue;
                const uint32_t r = first[0][pr], g = first[1][pg], b = first[2][pb];
                const uint32_t index = fixed_index(kind, r, g, b);
                if (finish_index(sixteen, pr + pg + pb) != index) return false;
                const RGBQUAD& d = s.dest_palette[index & 255];
                if (d.rgbRed != level[0][pr] || d.rgbGreen != level[1][pg] || d.rgbBlue != level[2][pb]) return false;
            }
        }
    }
    const int64_t ahead = s.kernel ? ahead_factor(*s.kernel) : 0;
    for (int c = 0; c < 3; ++c)
        for (int32_t t = -kSplitBias; t < kSplitValues - kSplitBias; ++t) {
            const auto v = static_cast<uint32_t>(clamp8(t));
            s.tables.part[c][t + kSplitBias] = part[c][v];
            const int32_t error = static_cast<int32_t>(v) - level[c][part[c][v]];
            s.tables.error[c][t + kSplitBias] = static_cast<int16_t>(error);
            s.tables.ahead[c][t + kSplitBias] = static_cast<int32_t>(ahead * error);
        }
    return true;
}

// How a colour becomes an index. Both forms take channels before clamping
// (-255..510): `shifted` (nearest colour, ordered) returns the index;
// `diffused<A>` (error diffusion) also gives each clamped channel's error
// against the chosen colour, and that error times A.

// A split fixed palette.
template <bool Sixteen>
struct SplitMap {
    const SplitTables& t;
    explicit SplitMap(const State& s) : t(s.tables) {}
    template <int64_t A>
    uint32_t diffused(Wide r, Wide g, Wide b, Wide (&e)[3], int64_t (&a)[3]) const {
        r += kSplitBias;
        g += kSplitBias;
        b += kSplitBias;
        e[0] = t.error[0][r];
        e[1] = t.error[1][g];
        e[2] = t.error[2][b];
        if constexpr (A != 0) {
            a[0] = t.ahead[0][r];
            a[1] = t.ahead[1][g];
            a[2] = t.ahead[2][b];
        }
        return finish_index(Sixteen, uint32_t{t.part[0][r]} + t.part[1][g] + t.part[2][b]);
    }
};

// A fixed palette by its formula and the state's copy of the palette; the
// kind is the template argument, or read from the state for AnyFixedMap.
template <Lookup Kind>
struct FixedMap {
    const RGBQUAD* palette;
    Lookup kind;
    explicit FixedMap(const State& s) : palette(s.dest_palette), kind(s.lookup) {}
    uint32_t index(uint32_t r, uint32_t g, uint32_t b) const {
        if constexpr (Kind == Lookup::OwnedTable)
            return fixed_index(kind, r, g, b);
        else
            return fixed_index<Kind>(r, g, b);
    }
    uint32_t shifted(int32_t r, int32_t g, int32_t b) const {
        return index(static_cast<uint32_t>(clamp8(r)), static_cast<uint32_t>(clamp8(g)),
                     static_cast<uint32_t>(clamp8(b)));
    }
    template <int64_t A>
    uint32_t diffused(Wide r, Wide g, Wide b, Wide (&e)[3], int64_t (&a)[3]) const {
        r = clamp8(r);
        g = clamp8(g);
        b = clamp8(b);
        const uint32_t i = index(static_cast<uint32_t>(r), static_cast<uint32_t>(g), static_cast<uint32_t>(b));
        const RGBQUAD& d = palette[i & 255];
        e[0] = r - d.rgbRed;
        e[1] = g - d.rgbGreen;
        e[2] = b - d.rgbBlue;
        for (int c = 0; c < 3; ++c) a[c] = A * e[c];
        return i;
    }
};
using AnyFixedMap = FixedMap<Lookup::OwnedTable>;  // the kind read from the state

// A match table: the cell's entry, searching the nearest selectable entry
// for a cell not known yet (or holding a position the list does not have).
// The listed entry holds the palette entry's colour and, in its fourth
// byte, its index.
struct TableMap {
    uint32_t* table;
    const RGBQUAD* entry;
    uint32_t count;
    const PaletteSearch& search;
    explicit TableMap(State& s)
        : table(s.match_table), entry(s.match_list.entry), count(s.match_list.count), search(s.search) {}
    const RGBQUAD& find(uint32_t r, uint32_t g, uint32_t b) const {
        uint32_t& cell = table[match_cell(r, g, b)];
        uint32_t at = cell;
        if (at - 1 >= count) [[unlikely]] {
            at = 1 + search.find(r & 0xF8, g & 0xF8, b & 0xF8);
            cell = at;
        }
        return entry[at - 1];
    }
    uint32_t shifted(int32_t r, int32_t g, int32_t b) const {
        return find(static_cast<uint32_t>(clamp8(r)), static_cast<uint32_t>(clamp8(g)),
                    static_cast<uint32_t>(clamp8(b)))
            .rgbReserved;
    }
    template <int64_t A>
    uint32_t diffused(Wide r, Wide g, Wide b, Wide (&e)[3], int64_t (&a)[3]) const {
        r = clamp8(r);
        g = clamp8(g);
        b = clamp8(b);
        const RGBQUAD& d = find(static_cast<uint32_t>(r), static_cast<uint32_t>(g), static_cast<uint32_t>(b));
        e[0] = r - d.rgbRed;
        e[1] = g - d.rgbGreen;
        e[2] = b - d.rgbBlue;
        for (int c = 0; c < 3; ++c) a[c] = A * e[c];
        return d.rgbReserved;
    }
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

// The lines below receive the errors of the line just dithered: sum[i] of
// line DY gets the weighted errors at i - 3 dx for each of its taps (the
// farthest line, which nothing reached before, is set). `i` runs over the
// width's values from `begin`; the error line's zero margins stand for the
// pixels outside the row.
template <const Kernel& K, int32_t DY, bool Fresh>
void spread_portable(int32_t* sum, const int32_t* e, size_t begin, size_t n) {
    constexpr LineTaps T = line_taps(K, DY);
    for (size_t i = begin; i < n; ++i) {
        const int32_t* at = e + i;
        int32_t acc = 0;
#pragma GCC unroll 8
        for (int32_t t = 0; t < T.n; ++t) acc += T.weight[t] * at[T.offset[t]];
        sum[i] = Fresh ? acc : sum[i] + acc;
    }
}

#if ZK_X86_TIERS
// The same, eight values at a time; returns how many values it did.
template <const Kernel& K, int32_t DY, bool Fresh>
__attribute__((target("avx2"))) size_t spread_avx2(int32_t* sum, const int32_t* e, size_t n) {
    constexpr LineTaps T = line_taps(K, DY);
    size_t i = 0;
    for (; i + 8 <= n; i += 8) {
        const int32_t* at = e + i;
        __m256i acc = _mm256_setzero_si256();
#pragma GCC unroll 8
        for (int32_t t = 0; t < T.n; ++t) {
            const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(at + T.offset[t]));
            acc = _mm256_add_epi32(acc, _mm256_mullo_epi32(v, _mm256_set1_epi32(T.weight[t])));
        }
        if (!Fresh) acc = _mm256_add_epi32(acc, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(sum + i)));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(sum + i), acc);
    }
    return i;
}
#endif

template <const Kernel& K, int32_t DY>
void spread_line(State& s, const int32_t* e, size_t n) {
    constexpr bool fresh = DY == K.rows;
    int32_t* sum = s.error[DY] + 3 * K.margin;
    size_t i = 0;
#if ZK_X86_TIERS
    if (s.wide) i = spread_avx2<K, DY, fresh>(sum, e, n);
#endif
    spread_portable<K, DY, fresh>(sum, e, i, n);
}

// Error diffusion of one row with kernel K.
template <const Kernel& K, class Map>
void diffuse(State& s, const Pixels& px, uint8_t* out) {
    constexpr int32_t D = K.divisor;
    constexpr int32_t W2 = current_weight(K, 2);
    constexpr int64_t A = ahead_factor(K);
    constexpr Divider V = divider_of(D);
    const Map map(s);
    const int32_t* sum = s.error[0] + 3 * K.margin;
    int32_t* err = s.error_line + 3 * K.margin;
    // Per channel: the last pixel's error, the one before, and the last
    // times A; that product is added last, as it is the one the chain from
    // pixel to pixel waits for.
    Wide e1[3] = {}, e2[3] = {};
    int64_t a1[3] = {};
    // Locals, so that the stores of indices are not taken to change them.
    const uint8_t* src = px.p;
    const uint32_t width = s.width, stride = px.stride, at_r = px.r, at_g = px.g, at_b = px.b;
    for (uint32_t x = 0; x < width; ++x, src += stride, sum += 3, err += 3) {
        Wide q[3];
        for (int c = 0; c < 3; ++c) {
            const int64_t base = int64_t{sum[c]} + W2 * e2[c];
            if constexpr (power_of_two(D)) {
                q[c] = static_cast<Wide>((base + a1[c]) / D);
            } else {
                const int64_t scaled = base * V.multiplier + a1[c];
                q[c] = static_cast<Wide>(unscale(scaled, V));
            }
        }
        Wide e[3];
        int64_t a[3] = {};
        out[x] =
            static_cast<uint8_t>(map.template diffused<A>(src[at_r] + q[0], src[at_g] + q[1], src[at_b] + q[2], e, a));
        for (int c = 0; c < 3; ++c) {
            err[c] = static_cast<int32_t>(e[c]);
            e2[c] = e1[c];
            e1[c] = e[c];
            a1[c] = a[c];
        }
    }
    const int32_t* line = s.error_line + 3 * K.margin;
    const size_t n = size_t{width} * 3;
    spread_line<K, 1>(s, line, n);
    if constexpr (K.rows >= 2) spread_line<K, 2>(s, line, n);
    if constexpr (K.rows >= 3) spread_line<K, 3>(s, line, n);
    // The lines move up one; the farthest is set by the next line.
    int32_t* done = s.error[0];
    for (int32_t i = 0; i < K.rows; ++i) s.error[i] = s.error[i + 1];
    s.error[K.rows] = done;
}

template <class Map>
void nearest(State& s, const Pixels& px, uint8_t* out) {
    const Map map(s);
    const uint8_t* src = px.p;
    const uint32_t width = s.width, stride = px.stride, at_r = px.r, at_g = px.g, at_b = px.b;
    for (uint32_t x = 0; x < width; ++x, src += stride)
        out[x] = static_cast<uint8_t>(map.shifted(src[at_r], src[at_g], src[at_b]));
}

template <class Map>
void ordered(State& s, const Pixels& px, uint8_t* out) {
    const uint32_t row = s.line_counter % 8;
    ++s.line_counter;
    const uint8_t* matrix = s.method == DITHER_ORDERED ? kDispersed[row] : kClustered[row];
    const uint8_t* src = px.p;
    const uint32_t width = s.width, stride = px.stride, at_r = px.r, at_g = px.g, at_b = px.b;
    if constexpr (std::is_same_v<Map, FixedMap<Lookup::Fixed2>>) {
        for (uint32_t x = 0; x < width; ++x, src += stride)
            out[x] = gray_of(src[at_r], src[at_g], src[at_b]) > matrix[x & 7] ? 1 : 0;
    } else if constexpr (std::is_same_v<Map, FixedMap<Lookup::Fixed16>>) {
        for (uint32_t x = 0; x < width; ++x, src += stride) {
            const uint32_t m = matrix[x & 7];
            const uint32_t i = (m < src[at_b] ? 4u : 0u) | (m < src[at_g] ? 2u : 0u) | (src[at_r] > m ? 1u : 0u);
            out[x] = static_cast<uint8_t>(finish_index(true, i));
        }
    } else {
        const Map map(s);
        int16_t offset[8];
        std::memcpy(offset, s.offset[row], sizeof offset);
        for (uint32_t x = 0; x < width; ++x, src += stride) {
            const int32_t d = offset[x & 7];
            out[x] = static_cast<uint8_t>(map.shifted(src[at_r] + d, src[at_g] + d, src[at_b] + d));
        }
    }
}

template <class Map>
RowFn diffuse_for(uint32_t method) {
    switch (method) {
        case DITHER_FLOYD: return &diffuse<kFloyd, Map>;
        case DITHER_STUCKI: return &diffuse<kStucki, Map>;
        case DITHER_BURKES: return &diffuse<kBurkes, Map>;
        case DITHER_SIERRA: return &diffuse<kSierra, Map>;
        case DITHER_STEVENSON_ARCE: return &diffuse<kStevensonArce, Map>;
        case DITHER_JARVIS: return &diffuse<kJarvis, Map>;
        default: return nullptr;
    }
}

template <class Map>
RowFn row_for(uint32_t method) {
    if (method == DITHER_ORDERED || method == DITHER_CLUSTERED) return &ordered<Map>;
    if (method == DITHER_NONE) return &nearest<Map>;
    return diffuse_for<Map>(method);
}

// A fixed kind: error diffusion through the split tables where the palette
// allows (else the formula and the palette), the rest by the formula.
template <Lookup Kind>
RowFn fixed_row(const State& s) {
    if (!s.kernel) return row_for<FixedMap<Kind>>(s.method);
    if (s.split) return diffuse_for<SplitMap<Kind == Lookup::Fixed16>>(s.method);
    if constexpr (summed(Kind))
        return diffuse_for<AnyFixedMap>(s.method);
    else
        return diffuse_for<FixedMap<Kind>>(s.method);
}

// The row function for the state's method and lookup.
RowFn choose_row(const State& s) {
    switch (s.lookup) {
        case Lookup::Fixed2: return fixed_row<Lookup::Fixed2>(s);
        case Lookup::Fixed4: return fixed_row<Lookup::Fixed4>(s);
        case Lookup::Fixed8: return fixed_row<Lookup::Fixed8>(s);
        case Lookup::Fixed16: return fixed_row<Lookup::Fixed16>(s);
        case Lookup::Fixed32: return fixed_row<Lookup::Fixed32>(s);
        case Lookup::Fixed64: return fixed_row<Lookup::Fixed64>(s);
        case Lookup::Fixed128: return fixed_row<Lookup::Fixed128>(s);
        case Lookup::Fixed256: return fixed_row<Lookup::Fixed256>(s);
        case Lookup::Cube: return fixed_row<Lookup::Cube>(s);
        default: return row_for<TableMap>(s.method);
    }
}

// Packs the whole bytes of a row of indices of a width that divides 8;
// returns how many indices went.
template <uint32_t Bits>
uint32_t pack_whole_bytes(const uint8_t* index, uint32_t n, uint8_t* dest) {
    constexpr uint32_t per = 8 / Bits, mask = (1u << Bits) - 1;
    const uint32_t bytes = n / per;
    for (uint32_t i = 0; i < bytes; ++i, index += per) {
        uint32_t v = 0;
        for (uint32_t k = 0; k < per; ++k) v |= (index[k] & mask) << (8 - Bits * (k + 1));
        dest[i] = static_cast<uint8_t>(v);
    }
    return bytes * per;
}

// Packs a row of indices into fields of `bits` (1..7) from the most
// significant bit; the bits of the last byte past them are kept.
void pack_indices(const uint8_t* index, uint32_t n, uint32_t bits, uint8_t* dest) {
    // Widths that fill whole bytes: those bytes at once.
    uint32_t done = 0;
    if (bits == 4) done = pack_whole_bytes<4>(index, n, dest);
    if (bits == 2) done = pack_whole_bytes<2>(index, n, dest);
    if (bits == 1) done = pack_whole_bytes<1>(index, n, dest);
    index += done;
    dest += done * bits / 8;
    n -= done;
    const uint32_t mask = (1u << bits) - 1;
    uint32_t acc = 0, held = 0;  // bits not yet stored, in the low `held` bits
    for (uint32_t x = 0; x < n; ++x) {
        acc = (acc << bits | (index[x] & mask)) & 0xFFFFu;
        held += bits;
        if (held >= 8) {
            held -= 8;
            *dest++ = static_cast<uint8_t>(acc >> held);
        }
    }
    if (held) {
        const uint32_t keep = 0xFFu >> held;
        *dest = static_cast<uint8_t>((acc << (8 - held) & ~keep) | (*dest & keep));
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
    s.error_line = static_cast<int32_t*>(Z_Calloc(static_cast<size_t>(row_values), sizeof(int32_t)));
    if (!s.error_block || !s.error_line) return ST_NO_MEMORY;
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
    s->split = s->kernel && !table && build_split(*s);
    s->wide = platform::cpu_tier() >= platform::CpuTier::AVX2;
    s->row = choose_row(*s);
    bitmap.DitherData = s;
    guard.s = nullptr;
    return ST_OK;
}

void dither_line(BitmapHandle& bitmap, const uint8_t* source, uint8_t* dest) {
    State& s = *state_of(bitmap);
    const Pixels px = decode(s, source);
    const uint32_t bits = s.dest_bpp;
    uint8_t* out = bits == 8 ? dest : s.index_row;
    s.row(s, px, out);
    if (bits >= 1 && bits < 8) pack_indices(s.index_row, s.width, bits, dest);
}

void stop_dithering(BitmapHandle& bitmap) {
    free_state(state_of(bitmap));
    bitmap.DitherData = nullptr;
}

Lookup testing::lookup_of(const BitmapHandle& bitmap) { return state_of(bitmap)->lookup; }

bool testing::split_of(const BitmapHandle& bitmap) { return state_of(bitmap)->split; }

int32_t testing::divided(uint32_t method, int32_t sum) {
    const Kernel* k = kernel_of(method);
    if (!k) return 0;
    if (power_of_two(k->divisor)) return sum / k->divisor;
    const Divider v = divider_of(k->divisor);
    return static_cast<int32_t>(unscale(sum * v.multiplier, v));
}

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
