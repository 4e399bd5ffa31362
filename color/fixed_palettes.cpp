// The fixed palettes of depths 1..8 and the calls that hand them out.
//
// The eight tables live back to back in one array, 2-entry table first, so
// that reading four entries from the start of the 2-entry table (as
// Z_CreateBitmapFixedPalette does for a 4-colour bitmap) stays inside it.
#include <array>
#include <cstring>

#include "color/palette.h"

namespace zk {
namespace {

constexpr RGBQUAD rgb(uint32_t r, uint32_t g, uint32_t b) {
    return RGBQUAD{static_cast<uint8_t>(b), static_cast<uint8_t>(g), static_cast<uint8_t>(r), 0};
}

// Offsets of each depth's table: depth k starts after 2 + 4 + ... + 2^(k-1).
constexpr uint32_t table_offset(int32_t bits) { return (1u << bits) - 2u; }
constexpr uint32_t kTotalEntries = table_offset(9);  // 510

// round(255 * x / 7) for the 3-bit levels: 0, 36, 73, 109, 146, 182, 219, 255.
constexpr uint32_t level7(uint32_t x) { return (255 * x + 3) / 7; }

// Rules, R G B per index:
//   1 bit : 0 black, 1 white.
//   2 bits: gray ramp 0, 85, 170, 255.
//   3 bits: index bit 2 red, bit 1 green, bit 0 blue, each 0 or 255.
//   4 bits: the 16-colour table below (literal).
//   5 bits: index = r*8 + g*2 + b, r, g in 0..3, b in 0..1; 85r, 85g, 255b.
//   6 bits: index = r*16 + g*4 + b, r, g, b in 0..3; 85 per level.
//   7 bits: index = r*32 + g*4 + b, r in 0..3, g in 0..7, b in 0..3;
//           85r, level7(g), 85b.
//   8 bits: index = r*32 + g*4 + b, r, g in 0..7, b in 0..3;
//           level7(r), level7(g), 85b.
constexpr std::array<RGBQUAD, kTotalEntries> build_fixed_tables() {
    constexpr uint8_t sixteen[16][3] = {{0, 0, 0},       {128, 0, 0},   {0, 128, 0},   {128, 128, 0},
                                        {0, 0, 128},     {128, 0, 128}, {0, 128, 128}, {128, 128, 128},
                                        {192, 192, 192}, {255, 0, 0},   {0, 255, 0},   {255, 255, 0},
                                        {0, 0, 255},     {255, 0, 255}, {0, 255, 255}, {255, 255, 255}};
    std::array<RGBQUAD, kTotalEntries> t{};
    RGBQUAD* p = t.data() + table_offset(1);
    p[0] = rgb(0, 0, 0);
    p[1] = rgb(255, 255, 255);
    p = t.data() + table_offset(2);
    for (uint32_t i = 0; i < 4; ++i) p[i] = rgb(85 * i, 85 * i, 85 * i);
    p = t.data() + table_offset(3);
    for (uint32_t i = 0; i < 8; ++i) p[i] = rgb((i >> 2 & 1) * 255, (i >> 1 & 1) * 255, (i & 1) * 255);
    p = t.data() + table_offset(4);
    for (uint32_t i = 0; i < 16; ++i) p[i] = rgb(sixteen[i][0], sixteen[i][1], sixteen[i][2]);
    p = t.data() + table_offset(5);
    for (uint32_t i = 0; i < 32; ++i) p[i] = rgb(85 * (i >> 3), 85 * (i >> 1 & 3), 255 * (i & 1));
    p = t.data() + table_offset(6);
    for (uint32_t i = 0; i < 64; ++i) p[i] = rgb(85 * (i >> 4), 85 * (i >> 2 & 3), 85 * (i & 3));
    p = t.data() + table_offset(7);
    for (uint32_t i = 0; i < 128; ++i) p[i] = rgb(85 * (i >> 5), level7(i >> 2 & 7), 85 * (i & 3));
    p = t.data() + table_offset(8);
    for (uint32_t i = 0; i < 256; ++i) p[i] = rgb(level7(i >> 5), level7(i >> 2 & 7), 85 * (i & 3));
    return t;
}

constexpr std::array<RGBQUAD, kTotalEntries> kFixedTables = build_fixed_tables();

static_assert(level7(1) == 36 && level7(3) == 109 && level7(4) == 146 && level7(6) == 219);

RGBQUAD* gray_ramp_block(uint32_t bits) {
    // 2^bits entries of floor(i * 255 / (n - 1)); bits is 1..31.
    const uint64_t n = uint64_t{1} << bits;
    if (n * sizeof(RGBQUAD) > SIZE_MAX) return nullptr;
    auto* p = static_cast<RGBQUAD*>(Z_OsAlloc(static_cast<size_t>(n * sizeof(RGBQUAD))));
    if (!p) return nullptr;
    for (uint64_t i = 0; i < n; ++i) {
        const auto v = static_cast<uint8_t>(i * 255 / (n - 1));
        p[i] = RGBQUAD{v, v, v, 0};
    }
    return p;
}

}  // namespace

const RGBQUAD* fixed_palette(int32_t bits) {
    if (bits < 1 || bits > 8) return nullptr;
    return kFixedTables.data() + table_offset(bits);
}

RGBQUAD* copy_palette_block(const RGBQUAD* source, uint32_t count) {
    if (!source || count == 0) return nullptr;
    if (uint64_t{count} * sizeof(RGBQUAD) > SIZE_MAX) return nullptr;
    auto* p = static_cast<RGBQUAD*>(Z_OsAlloc(size_t{count} * sizeof(RGBQUAD)));
    if (p) std::memcpy(p, source, size_t{count} * sizeof(RGBQUAD));
    return p;
}

}  // namespace zk

extern "C" const RGBQUAD* Z_API Z_IntGetFixedPalette(int32_t bits) { return zk::fixed_palette(bits); }

extern "C" int32_t Z_API Z_GetFixedPalette(RGBQUAD* entries, uint32_t bits) {
    if (!entries || bits >= 9) return ST_BAD_PARAM;
    if (bits == 0) {
        for (uint32_t i = 0; i < 256; ++i) {
            const auto v = static_cast<uint8_t>(i);
            entries[i] = RGBQUAD{v, v, v, 0};
        }
        return ST_OK;
    }
    std::memcpy(entries, zk::fixed_palette(static_cast<int32_t>(bits)), (size_t{1} << bits) * sizeof(RGBQUAD));
    return ST_OK;
}

extern "C" RGBQUAD* Z_API Z_CreateFixedPalette(uint32_t bits) {
    if (bits > 8) return nullptr;
    const int32_t depth = bits == 0 ? 1 : static_cast<int32_t>(bits);
    return zk::copy_palette_block(zk::fixed_palette(depth), 1u << depth);
}

extern "C" int32_t Z_API Z_CreateBitmapFixedPalette(BitmapHandle* bitmap) {
    if (!bitmap) return ST_BAD_PARAM;
    int32_t depth = 0;
    switch (bitmap->ColorCount) {
        // A 4-colour bitmap is served from the start of the 2-entry table on
        // purpose: black, white, then the first two entries of the 4-entry
        // table. Callers rely on that palette.
        case 2:
        case 4: depth = 1; break;
        case 8: depth = 3; break;
        case 16: depth = 4; break;
        case 32: depth = 5; break;
        case 64: depth = 6; break;
        case 128: depth = 7; break;
        case 256: depth = 8; break;
        default: return 0;
    }
    // ColorCount is left alone. The pointer it replaces is overwritten, not
    // freed: a duplicate made without its own palette shares its source's
    // block, which must outlive this call. A failed allocation keeps it.
    RGBQUAD* block = zk::copy_palette_block(zk::fixed_palette(depth), bitmap->ColorCount);
    if (!block) return ST_NO_MEMORY;
    bitmap->Palette = block;
    return ST_OK;
}

extern "C" RGBQUAD* Z_API Z_CreateGrayPalette(int32_t bits) {
    uint32_t b = bits == 0 ? 8u : static_cast<uint32_t>(bits) % 32u;
    // 32, 64, ... reduce to a single entry whose ramp would divide by zero.
    if (b == 0) return nullptr;
    return zk::gray_ramp_block(b);
}

extern "C" int32_t Z_API Z_CreateBitmapGrayPalette(BitmapHandle* bitmap) {
    if (!bitmap) return ST_BAD_PARAM;
    if (bitmap->BitsPerPixel < 1 || bitmap->BitsPerPixel > 8) return ST_BAD_BPP;
    bitmap->ColorCount = 1u << bitmap->BitsPerPixel;
    // The pointer it replaces is overwritten, not freed: a duplicate made
    // without its own palette shares its source's block.
    bitmap->Palette = zk::gray_ramp_block(static_cast<uint32_t>(bitmap->BitsPerPixel));
    return bitmap->Palette ? ST_OK : ST_NO_MEMORY;
}
