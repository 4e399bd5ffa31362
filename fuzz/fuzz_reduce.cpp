// Drives colour reduction. The dithering engine runs with every method and
// every way a colour becomes an index (no palette with any count, a given
// fixed palette, the cube, a random palette with reserved entries through
// the state's match table, a caller's match table answered, empty or full
// of stray cells) on rows of every source depth and colour order, with
// random bit ranges, lookup tables and signed data, and widths 0..300. Rows
// are held in blocks of exactly their size, so reading or writing past
// them is caught. Every row must give the same indices with the portable
// kernels as with the processor's tier; indices must be those the palette
// allows (below the count for a match table and never a reserved entry,
// below 216 for the cube); the bits of a destination row past its indices,
// and the source row, must be kept; a caller's match table may only gain
// cells that name a selectable entry.
//
// Z_ColorResBitmap converts small bitmaps of every depth, held in every
// storage kind, to every depth (and some that are not) with random palette
// flags, palettes, counts and dither methods, into no record, another record
// or the source's own, with a row callback that may stop it. A failure must
// leave the source record and its pixels as they were, byte for byte; a
// success must give the requested depth and size. Temporary files go to a
// private directory, which must be empty once the bitmaps are freed.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "core/platform/cpu.h"
#include "fuzz_input.h"
#include "fuzz_storage.h"
#include "zkernel.h"

namespace {

using zkfuzz::check;
using zkfuzz::Reader;

constexpr int32_t kDepths[] = {1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 24, 32, 48, 64};
constexpr uint32_t kOrders[] = {CO_RGB, CO_BGR, CO_GRAY, CO_ALT_BGR, 3, 4};

uint32_t index_bits(uint32_t colors) {
    uint32_t bits = 1;
    while (bits < 8 && (1u << bits) < colors) ++bits;
    return bits;
}

// Deterministic bytes from a seed the input gives.
struct Noise {
    uint32_t seed;
    uint8_t next() { return static_cast<uint8_t>((seed = seed * 1103515245u + 12345u) >> 24); }
    void fill(uint8_t* p, size_t n) {
        for (size_t i = 0; i < n; ++i) p[i] = next();
    }
};

std::vector<RGBQUAD> cube() {
    std::vector<RGBQUAD> p(256, RGBQUAD{0, 0, 0, 0});
    for (uint32_t i = 0; i < 216; ++i)
        p[i] = {static_cast<uint8_t>(i % 6 * 51), static_cast<uint8_t>(i / 6 % 6 * 51),
                static_cast<uint8_t>(i / 36 * 51), 0};
    return p;
}

enum class Kind { Fixed, GivenFixed, Cube, Custom, UserTable };

struct Setup {
    int32_t width;
    uint32_t rows;
    int32_t bpp;
    uint32_t order;
    uint32_t method;
    uint32_t low, high;
    bool lut;
    uint32_t lut_length;
    bool signed_data;
    Kind kind;
    uint32_t colors;
    uint32_t dest_bits;
    uint32_t table_fill;                  // user table: 0 zeros, 1 answered, 2 stray cells
    std::vector<RGBQUAD> palette;         // given palette (empty: none)
    std::vector<RGBQUAD> source_palette;  // the bitmap's
    std::vector<RGBQUAD> lut_entries;
    std::vector<std::vector<uint8_t>> source;  // exact rows
};

struct Result {
    int32_t started;
    std::vector<std::vector<uint8_t>> dest;
    std::vector<uint32_t> table;
};

// Runs the whole sequence with the tier capped at `tier`.
Result run(const Setup& s, zk::platform::CpuTier tier, const std::vector<uint32_t>& table_in) {
    Result r;
    r.table = table_in;
    BitmapHandle b;
    check(Z_InitBitmap(&b, Z_BITMAPHANDLE_SIZE, s.width, static_cast<int32_t>(s.rows), s.bpp) == ST_OK);
    b.Order = s.order;
    b.DitherMethod = s.method;
    b.LowBit = s.low;
    b.HighBit = s.high;
    // The record points at the target's own blocks; it is never freed by
    // the library (only its dithering state is).
    b.Palette = s.source_palette.empty() ? nullptr : const_cast<RGBQUAD*>(s.source_palette.data());
    b.ColorCount = static_cast<uint32_t>(s.source_palette.size());
    if (s.lut) {
        b.LUT = const_cast<RGBQUAD*>(s.lut_entries.data());
        b.LUTLength = s.lut_length;
        b.Flags |= BF_LUT_USED;
    }
    const zk::platform::CpuTier previous = zk::platform::set_cpu_tier_cap(tier);
    r.started = Z_StartDitheringExt(&b, s.palette.empty() ? nullptr : s.palette.data(), s.colors, s.dest_bits,
                                    s.kind == Kind::UserTable ? r.table.data() : nullptr);
    zk::platform::set_cpu_tier_cap(previous);
    if (r.started != ST_OK) {
        check(b.DitherData == nullptr);
        return r;
    }
    check(b.DitherData != nullptr);
    // A second start is refused and keeps the first state.
    void* state = b.DitherData;
    check(Z_StartDithering(&b, nullptr, 2) == ST_BAD_PARAM && b.DitherData == state);
    if (s.signed_data) b.Flags |= BF_SIGNED;
    const size_t dest_bytes = s.dest_bits <= 8 ? (size_t(s.width) * s.dest_bits + 7) / 8 : 0;
    Noise fill{s.width * 31u + s.rows};
    for (const std::vector<uint8_t>& row : s.source) {
        // Exact blocks, at least one byte so that a row of width 0 is a row.
        std::vector<uint8_t> source(row);
        std::vector<uint8_t> dest(dest_bytes ? dest_bytes : 1);
        fill.fill(dest.data(), dest.size());
        const std::vector<uint8_t> before = dest;
        const int32_t status = Z_DitherLine(&b, source.data(), dest.data());
        check(source == row);
        if (s.signed_data) {
            check(status == ST_SIGNED_DATA && dest == before);
            continue;
        }
        check(status == ST_OK);
        if (s.dest_bits == 0 || s.dest_bits > 8) check(dest == before);
        // The bits past the last index are kept.
        const uint64_t used = uint64_t(s.width) * s.dest_bits;
        if (s.dest_bits >= 1 && s.dest_bits <= 8 && used % 8) {
            const uint8_t keep = static_cast<uint8_t>(0xFFu >> (used % 8));
            check((dest[used / 8] & keep) == (before[used / 8] & keep));
        }
        r.dest.push_back(dest);
    }
    check(Z_StopDithering(&b) == ST_OK && b.DitherData == nullptr);
    return r;
}

uint32_t field(const std::vector<uint8_t>& row, uint32_t x, uint32_t bits) {
    const uint64_t bit = uint64_t(x) * bits;
    const uint32_t hi = row[bit / 8], lo = bit / 8 + 1 < row.size() ? row[bit / 8 + 1] : 0;
    return ((hi << 8 | lo) >> (16 - bit % 8 - bits)) & ((1u << bits) - 1);
}

void dither_case(Reader& in) {
    Setup s;
    s.method = in.take(1) % 9;
    s.width = static_cast<int32_t>(in.take(2) % 301);
    s.rows = 1 + in.take(1) % 6;
    s.bpp = kDepths[in.take(1) % 14];
    s.order = kOrders[in.take(1) % 6];
    const uint32_t range = in.take(1);
    s.low = range & 1 ? in.take(1) % 20 : ~0u;
    s.high = range & 2 ? in.take(1) % 20 : ~0u;
    s.lut = range & 4;
    s.signed_data = (range & 0x38) == 0x38;
    s.kind = static_cast<Kind>(in.take(1) % 5);
    s.colors = 1 + in.take(1) % 256;
    if (s.kind == Kind::Cube) s.colors = 129 + s.colors % 128;
    const uint32_t bits_choice = in.take(1) % 18;
    s.dest_bits = bits_choice < 8 ? index_bits(s.colors) : bits_choice - 8;  // mostly the count's width; 0..9
    s.table_fill = in.take(1) % 3;
    Noise noise{in.take(4)};

    // The palette to dither to.
    const uint32_t range_bits = index_bits(s.colors);
    std::vector<RGBQUAD> selectable;  // the custom palette's selectable entries
    switch (s.kind) {
        case Kind::Fixed: break;
        case Kind::GivenFixed: {
            const RGBQUAD* fixed = Z_IntGetFixedPalette(static_cast<int32_t>(range_bits));
            s.palette.assign(fixed, fixed + s.colors);
            break;
        }
        case Kind::Cube:
            s.palette = cube();
            s.palette.resize(s.colors);
            break;
        case Kind::Custom:
        case Kind::UserTable: {
            s.palette.resize(s.colors);
            const uint32_t reserve = noise.next() % 4;  // 0: none, 3: most
            for (RGBQUAD& e : s.palette) {
                noise.fill(reinterpret_cast<uint8_t*>(&e), 3);
                const uint8_t roll = noise.next();
                e.rgbReserved = roll % 4 < reserve ? static_cast<uint8_t>(1 + roll / 4 % 3) : 0;
            }
            break;
        }
    }
    uint32_t listed = 0;  // selectable entries
    for (const RGBQUAD& e : s.palette) listed += (e.rgbReserved & (Z_PAL_RESERVED | Z_PAL_FILL)) == 0;
    const bool table_kind = s.kind == Kind::Custom || s.kind == Kind::UserTable;

    std::vector<uint32_t> table;
    if (s.kind == Kind::UserTable) {
        uint32_t* answered = s.table_fill == 1 ? Z_CreateUserMatchTable(s.palette.data(), s.colors) : nullptr;
        check((answered != nullptr) == (s.table_fill == 1 && listed > 0));
        if (answered) {
            table.assign(answered, answered + Z_MATCH_TABLE_CELLS);
            Z_OsFree(answered);
            for (const uint32_t cell : table) check(cell >= 1 && cell <= listed);
        } else {
            table.assign(Z_MATCH_TABLE_CELLS, 0);
            if (s.table_fill == 2)
                for (uint32_t& cell : table)
                    cell = noise.next() < 64 ? uint32_t(noise.next()) << (noise.next() % 25) : 0;
        }
    }

    // The source: palette, lookup table, rows.
    if (s.bpp <= 8 && noise.next() % 8) {
        s.source_palette.resize(noise.next() % 300);
        noise.fill(reinterpret_cast<uint8_t*>(s.source_palette.data()), s.source_palette.size() * 4);
    }
    if (s.lut) {
        s.lut_length = 1u + noise.next() * 257u % 70000u;
        s.lut_entries.resize(s.lut_length);
        noise.fill(reinterpret_cast<uint8_t*>(s.lut_entries.data()), s.lut_entries.size() * 4);
    }
    const size_t row_bytes = (size_t(s.width) * uint32_t(s.bpp) + 7) / 8;
    for (uint32_t y = 0; y < s.rows; ++y) {
        s.source.emplace_back(row_bytes ? row_bytes : 1);
        if (in.n >= row_bytes) {
            std::memcpy(s.source.back().data(), in.p, row_bytes);
            in.p += row_bytes;
            in.n -= row_bytes;
        } else {
            noise.fill(s.source.back().data(), s.source.back().size());
        }
    }

    const Result tiered = run(s, zk::platform::cpu_tier(), table);
    const Result portable = run(s, zk::platform::CpuTier::Portable, table);
    check(tiered.started == portable.started);
    check(tiered.dest == portable.dest && tiered.table == portable.table);
    // A palette with no selectable entry is refused, and a gray bit range
    // the depth does not have; nothing else is.
    const bool ranged = s.bpp == 12 || (s.bpp == 16 && s.order == CO_GRAY);
    if (table_kind && listed == 0)
        check(tiered.started == ST_BAD_PARAM);
    else if (!ranged)
        check(tiered.started == ST_OK);
    else
        check(tiered.started == ST_OK || tiered.started == ST_BAD_PARAM);
    if (tiered.started != ST_OK || s.signed_data) return;

    // The indices, where they are whole (the width holds the count's).
    if (s.dest_bits >= range_bits && s.dest_bits <= 8)
        for (const std::vector<uint8_t>& row : tiered.dest)
            for (uint32_t x = 0; x < uint32_t(s.width); ++x) {
                const uint32_t index = field(row, x, s.dest_bits);
                check(index < (1u << range_bits));
                if (s.kind == Kind::Cube) check(index < 216);
                if (table_kind) {
                    check(index < s.colors);
                    check((s.palette[index].rgbReserved & (Z_PAL_RESERVED | Z_PAL_FILL)) == 0);
                }
            }
    // A caller's table only gains cells naming a selectable entry.
    if (s.kind == Kind::UserTable)
        for (uint32_t c = 0; c < Z_MATCH_TABLE_CELLS; ++c)
            if (tiered.table[c] != table[c]) check(tiered.table[c] >= 1 && tiered.table[c] <= listed);
}

// ---------------------------------------------------------------------------
// Colour resolution

// The record and every row of a bitmap.
struct Snapshot {
    BitmapHandle record;
    std::vector<uint8_t> rows;
    std::vector<uint8_t> palette;
};

Snapshot snapshot(BitmapHandle& b) {
    Snapshot s;
    const uint32_t line = b.BytesPerLine;
    s.rows.resize(size_t(line) * uint32_t(b.Height));
    for (int32_t y = 0; y < b.Height; ++y)
        check(Z_GetBitmapRow(&b, s.rows.data() + size_t(y) * line, uint32_t(y), line) == int32_t(line));
    if (b.Palette && b.ColorCount <= 256) {
        const auto* p = reinterpret_cast<const uint8_t*>(b.Palette);
        s.palette.assign(p, p + size_t(b.ColorCount) * sizeof(RGBQUAD));
    }
    std::memcpy(&s.record, &b, sizeof b);  // after the reads, which move the row cursor
    return s;
}

// The record byte for byte (with `cursor`, also its row cursor), rows and
// palette.
bool same(BitmapHandle& b, const Snapshot& s, bool cursor) {
    BitmapHandle record = s.record;
    if (!cursor) {
        record.CurRow = b.CurRow;
        record.CurRowOffset = b.CurRowOffset;
    }
    if (std::memcmp(&b, &record, sizeof b) != 0) return false;
    const Snapshot now = snapshot(b);
    return now.rows == s.rows && now.palette == s.palette;
}

// Stops the conversion at a chosen row, or never.
struct Stopper {
    uint32_t rows_left;
    int32_t status;
    bool stops;
};

int32_t Z_API row_seen(BitmapHandle* bitmap, uint8_t* row, uint32_t rows, void* user) {
    check(bitmap != nullptr && row != nullptr && rows == 1);
    auto* s = static_cast<Stopper*>(user);
    if (!s->stops) return ST_OK;
    if (s->rows_left == 0) return s->status;
    --s->rows_left;
    return ST_OK;
}

constexpr int32_t kNotDepths[] = {0, 9, 10, 100, -8};
constexpr uint32_t kFlagBits[] = {CRF_FIXED_PALETTE,
                                  CRF_OPTIMIZED_PALETTE,
                                  CRF_BYTE_ORDER_BGR,
                                  CRF_PRESET_PALETTE,
                                  CRF_USER_PALETTE,
                                  CRF_USER_MATCH_TABLE,
                                  CRF_CUBE_PALETTE,
                                  CRF_BYTE_ORDER_GRAY,
                                  CRF_NO_MATCH_TABLE,
                                  CRF_BYTE_ORDER_ALT,
                                  0x100u,
                                  0x400u};

void color_res_case(Reader& in) {
    const int32_t bpp = kDepths[in.take(1) % 14];
    const int32_t width = 1 + int32_t(in.take(1) % 40), height = 1 + int32_t(in.take(1) % 24);
    const uint32_t kind = in.take(1) % 5;  // conventional, memory tiles, disk tiles, disk, runs
    const uint32_t mode = in.take(1) % 3;  // no destination, another record, in place
    const uint32_t target_choice = in.take(1);
    const int32_t target = target_choice < 240 ? kDepths[target_choice % 14] : kNotDepths[target_choice % 5];
    const uint32_t flag_bits = in.take(2);
    uint32_t flags = CRF_DITHER(in.take(1) % 10);
    for (uint32_t i = 0; i < 12; ++i)
        if (flag_bits >> i & 1) flags |= kFlagBits[i];
    const uint32_t palette_choice = in.take(1) % 7;  // 0 none; 1, 5 entries; 2, 4, 6 a handle; 3 both
    const bool given_entries = palette_choice % 2 == 1, given_handle = palette_choice >= 2 && palette_choice != 5;
    const uint32_t colors = in.take(2) % 300;
    const uint32_t source_bits = in.take(1);
    Stopper stopper{in.take(1) % 30, -int32_t(in.take(1) % 40) - 1, in.take(1) % 4 == 1};
    Noise noise{in.take(4)};
    zkfuzz::PrivateTempDir& temp = zkfuzz::PrivateTempDir::get();

    BitmapHandle src;
    check(Z_InitBitmap(&src, Z_BITMAPHANDLE_SIZE, width, height, bpp) == ST_OK);
    src.Order = kOrders[source_bits % 6];
    // Tiles of about a third of the image (at least a row); the thresholds
    // stay until the end, since the result is built with them too.
    const zkfuzz::SavedThresholds saved;
    const auto tile = int32_t(src.Size / 3 > src.BytesPerLine ? src.Size / 3 : src.BytesPerLine);
    check(zkfuzz::allocate_kind(src, kind, tile, tile) == ST_OK);
    std::vector<uint8_t> row(src.BytesPerLine);
    for (int32_t y = 0; y < height; ++y) {
        noise.fill(row.data(), row.size());
        check(Z_PutBitmapRow(&src, row.data(), uint32_t(y), uint32_t(row.size())) == int32_t(row.size()));
    }
    if (bpp <= 8 && source_bits & 8) {
        std::vector<RGBQUAD> entries(1u << bpp);
        noise.fill(reinterpret_cast<uint8_t*>(entries.data()), entries.size() * 4);
        check(Z_SetBitmapNewPalette(&src, entries.data(), uint32_t(entries.size())) == 1);
    }
    if (source_bits & 16) src.Flags |= BF_SIGNED;
    if (source_bits & 32) {
        src.LowBit = noise.next() % 18;
        src.HighBit = noise.next() % 18;
    }
    if (source_bits & 64 && bpp >= 12 && bpp <= 16) {
        src.LUTLength = 1u << bpp;
        src.LUT = static_cast<RGBQUAD*>(Z_OsAlloc(src.LUTLength * sizeof(RGBQUAD)));
        check(src.LUT != nullptr);
        noise.fill(reinterpret_cast<uint8_t*>(src.LUT), src.LUTLength * sizeof(RGBQUAD));
        src.Flags |= BF_LUT_USED;
    }

    // The caller's palette, with reserved entries: as entries, as many as
    // the largest count takes, or as a handle of any size.
    std::vector<RGBQUAD> entries(256);
    for (RGBQUAD& e : entries) {
        noise.fill(reinterpret_cast<uint8_t*>(&e), 3);
        e.rgbReserved = noise.next() % 5 == 0 ? static_cast<uint8_t>(1 + noise.next() % 3) : 0;
    }
    HPALETTE handle = given_handle ? Z_CreatePalette(entries.data(), 1u + noise.next()) : nullptr;
    check(!given_handle || handle != nullptr);
    // The thread's match table, for CRF_USER_MATCH_TABLE.
    std::vector<uint32_t> table(Z_MATCH_TABLE_CELLS, 0);
    if (noise.next() % 2)
        for (uint32_t& cell : table) cell = noise.next() < 32 ? noise.next() : 0;
    uint32_t* previous_table = Z_SetUserMatchTable(noise.next() % 4 ? table.data() : nullptr);

    const Snapshot before = snapshot(src);
    BitmapHandle dst;
    std::memset(&dst, 0xA5, sizeof dst);  // overwritten, not freed
    BitmapHandle* out = mode == 0 ? nullptr : mode == 1 ? &dst : &src;
    const int32_t status =
        Z_ColorResBitmap(&src, out, Z_BITMAPHANDLE_SIZE, target, flags, given_entries ? entries.data() : nullptr,
                         handle, colors, &row_seen, &stopper);
    Z_SetUserMatchTable(previous_table);
    if (handle) Z_DeletePalette(handle);

    if (status != ST_OK) {
        // The source is as it was (a destination record holds nothing to
        // free).
        check(same(src, before, true));
    } else {
        // A source that is not the destination is only read.
        if (mode != 2) check(same(src, before, false));
        if (mode == 1) {
            check(dst.BitsPerPixel == target && dst.Width == width && dst.Height == height);
            // A palette of at most the count asked for (0 or more than the
            // depth holds: all it holds); an exact optimized palette may
            // have fewer entries.
            const uint32_t most = target >= 1 && target <= 8 ? 1u << target : 0;
            if (most)
                check(dst.Palette && dst.ColorCount >= 1 &&
                      dst.ColorCount <= (colors == 0 || colors > most ? most : colors));
            Z_FreeBitmap(&dst);
        }
        if (mode == 2) check(src.BitsPerPixel == target && src.Width == width && src.Height == height);
    }
    Z_FreeBitmap(&src);
    temp.check_clean();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Reader in{data, size};
    if (in.take(1) % 2)
        color_res_case(in);
    else
        dither_case(in);
    return 0;
}
