// Bitmap palettes: access, replacement and copying, the nearest-colour
// search, the gray tests, and the library's own palette objects (HPALETTE).
#include <algorithm>
#include <cstring>
#include <new>

#include "core/platform/x86_intrinsics.h"

#include "bitmap_handle.h"
#include "color/palette.h"

// A palette handle where there is no GDI: a fixed array of up to 256 entries
// and the number in use. The reserved byte of each entry is kept as given.
struct Z_PaletteObject {
    uint32_t count;
    RGBQUAD entries[256];
};

namespace zk {
namespace {

constexpr uint32_t kNoIndex = 0xFFFFFFFFu;

// 3-bit code of which channel dominates: bit 2 red below blue, bit 1 green
// below both, bit 0 green above both.
constexpr uint32_t channel_class(uint32_t r, uint32_t g, uint32_t b) {
    const uint32_t hi = std::max(r, b), lo = std::min(r, b);
    return (r < b ? 4u : 0u) | (g < lo ? 2u : 0u) | (g >= lo && g > hi ? 1u : 0u);
}

bool is_white(const RGBQUAD& e) { return (e.rgbRed & e.rgbGreen & e.rgbBlue) == 255; }
bool is_black(const RGBQUAD& e) { return e.rgbRed == 0 && e.rgbGreen == 0 && e.rgbBlue == 0; }
bool same_rgb(const RGBQUAD& a, const RGBQUAD& b) {
    return a.rgbRed == b.rgbRed && a.rgbGreen == b.rgbGreen && a.rgbBlue == b.rgbBlue;
}

}  // namespace

uint32_t find_palette_index(const RGBQUAD* entries, uint32_t count, uint32_t red, uint32_t green, uint32_t blue) {
    if (!entries) return 0;
    if (count == 0) return kNoIndex;
    // White is looked for at the end first, black at the start first.
    if (red != 0 || green != 0 || blue != 0) {
        if ((red & green & blue) == 255) {
            if (is_white(entries[count - 1])) return count - 1;
            if (is_white(entries[0])) return 0;
        }
    } else {
        if (is_black(entries[0])) return 0;
        if (is_black(entries[count - 1])) return count - 1;
    }
    const uint32_t target_class = channel_class(red, green, blue);
    uint32_t best = kNoIndex, best_distance = 0xFFFFFFFFu;
    for (uint32_t i = 0; i < count && best_distance != 0; ++i) {
        const RGBQUAD& e = entries[i];
        const uint32_t dg = e.rgbGreen - green, dr = e.rgbRed - red, db = e.rgbBlue - blue;
        const uint32_t d = dg * dg + dr * dr + db * db;  // unsigned, wrapping
        if (d < best_distance ||
            (d == best_distance && channel_class(e.rgbRed, e.rgbGreen, e.rgbBlue) == target_class)) {
            best = i;
            best_distance = d;
        }
    }
    return best;
}

namespace {

// Entries past the palette's count are filled with this channel value and a
// class no colour has: their distances (at least 3 * 345^2) exceed any real
// one (at most 3 * 255^2), so every search runs over all 256 slots, a loop
// of fixed length the compiler vectorises.
constexpr int32_t kUnusedChannel = 600;
constexpr int32_t kUnusedClass = 8;

// The distance part of PaletteSearch::find. The scan's choice among the
// entries at the smallest distance D is folded into one key per entry so
// that a single minimum finds it: an exact entry (D = 0) keys as its index
// (the first wins); otherwise D << 9 plus 255 - i for an entry of the
// target's class (the last wins) or 256 + i for another (the first wins,
// and only when no entry at D has the class). Keys stay below 2^31.
uint32_t nearest_by_distance(const PaletteSearch::Channels& c, uint32_t red, uint32_t green, uint32_t blue) {
    const auto R = static_cast<int32_t>(red), G = static_cast<int32_t>(green), B = static_cast<int32_t>(blue);
    const auto target = static_cast<int32_t>(channel_class(red, green, blue));
    int32_t best = INT32_MAX;
    for (int32_t i = 0; i < 256; ++i) {
        const int32_t dr = c.r[i] - R, dg = c.g[i] - G, db = c.b[i] - B;
        const int32_t d = dg * dg + dr * dr + db * db;
        const int32_t tie = c.cls[i] == target ? 255 - i : 256 + i;
        const int32_t key = d == 0 ? i : (d << 9 | tie);
        best = std::min(best, key);
    }
    if (best < 512) return static_cast<uint32_t>(best);
    const int32_t tie = best & 511;
    return static_cast<uint32_t>(tie < 256 ? 255 - tie : tie - 256);
}

#if ZK_X86_TIERS
// The entry a vector search's smallest key names. The vector keys do not
// hold the index of an exact entry (D = 0 keys as 255 - i or 256 + i there),
// so one is looked for afterwards: the first, as the scan stops at it.
uint32_t index_of_key(const PaletteSearch::Channels& c, int32_t key, uint32_t red, uint32_t green, uint32_t blue) {
    if (key < 512) {
        for (uint32_t i = 0; i < 256; ++i)
            if (c.r[i] == static_cast<int32_t>(red) && c.g[i] == static_cast<int32_t>(green) &&
                c.b[i] == static_cast<int32_t>(blue))
                return i;
    }
    const int32_t tie = key & 511;
    return static_cast<uint32_t>(tie < 256 ? 255 - tie : tie - 256);
}

// The same minimum with 512-bit vectors, sixteen entries at a time: one
// 16-bit multiply-add gives dr^2 + dg^2, another db^2.
__attribute__((target("avx512f,avx512bw"))) uint32_t nearest_avx512(const PaletteSearch::Channels& c, uint32_t red,
                                                                    uint32_t green, uint32_t blue) {
    const __m512i rg = _mm512_set1_epi32(static_cast<int32_t>(red | green << 16));
    const __m512i b0 = _mm512_set1_epi32(static_cast<int32_t>(blue));
    const __m512i target = _mm512_set1_epi32(static_cast<int32_t>(channel_class(red, green, blue)));
    const __m512i sixteen = _mm512_set1_epi32(16);
    __m512i index = _mm512_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
    __m512i best = _mm512_set1_epi32(INT32_MAX);
    for (int i = 0; i < 256; i += 16) {
        const __m512i x = _mm512_sub_epi16(_mm512_load_si512(c.red_green + 2 * i), rg);
        const __m512i y = _mm512_sub_epi16(_mm512_load_si512(c.blue_zero + 2 * i), b0);
        const __m512i d = _mm512_add_epi32(_mm512_madd_epi16(x, x), _mm512_madd_epi16(y, y));
        const __mmask16 same_class = _mm512_cmpeq_epi32_mask(_mm512_load_si512(c.cls + i), target);
        const __m512i tie = _mm512_mask_sub_epi32(_mm512_add_epi32(index, _mm512_set1_epi32(256)), same_class,
                                                  _mm512_set1_epi32(255), index);
        best = _mm512_min_epi32(best, _mm512_or_si512(_mm512_slli_epi32(d, 9), tie));
        index = _mm512_add_epi32(index, sixteen);
    }
    return index_of_key(c, _mm512_reduce_min_epi32(best), red, green, blue);
}

// The same with 256-bit vectors, eight entries at a time.
__attribute__((target("avx2"))) uint32_t nearest_avx2(const PaletteSearch::Channels& c, uint32_t red, uint32_t green,
                                                      uint32_t blue) {
    const __m256i rg = _mm256_set1_epi32(static_cast<int32_t>(red | green << 16));
    const __m256i b0 = _mm256_set1_epi32(static_cast<int32_t>(blue));
    const __m256i target = _mm256_set1_epi32(static_cast<int32_t>(channel_class(red, green, blue)));
    const __m256i other = _mm256_set1_epi32(256), own = _mm256_set1_epi32(255), eight = _mm256_set1_epi32(8);
    __m256i index = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
    __m256i best = _mm256_set1_epi32(INT32_MAX);
    for (int i = 0; i < 256; i += 8) {
        const __m256i x =
            _mm256_sub_epi16(_mm256_load_si256(reinterpret_cast<const __m256i*>(c.red_green + 2 * i)), rg);
        const __m256i y =
            _mm256_sub_epi16(_mm256_load_si256(reinterpret_cast<const __m256i*>(c.blue_zero + 2 * i)), b0);
        const __m256i d = _mm256_add_epi32(_mm256_madd_epi16(x, x), _mm256_madd_epi16(y, y));
        const __m256i same_class =
            _mm256_cmpeq_epi32(_mm256_load_si256(reinterpret_cast<const __m256i*>(c.cls + i)), target);
        const __m256i tie =
            _mm256_blendv_epi8(_mm256_add_epi32(index, other), _mm256_sub_epi32(own, index), same_class);
        best = _mm256_min_epi32(best, _mm256_or_si256(_mm256_slli_epi32(d, 9), tie));
        index = _mm256_add_epi32(index, eight);
    }
    __m128i m = _mm_min_epi32(_mm256_castsi256_si128(best), _mm256_extracti128_si256(best, 1));
    m = _mm_min_epi32(m, _mm_shuffle_epi32(m, 0x4E));
    m = _mm_min_epi32(m, _mm_shuffle_epi32(m, 0xB1));
    return index_of_key(c, _mm_cvtsi128_si32(m), red, green, blue);
}

#endif

}  // namespace

void PaletteSearch::prepare(const RGBQUAD* entries, uint32_t count) {
    entries_ = entries;
    count_ = std::min(count, 256u);
    for (uint32_t i = 0; i < 256; ++i) {
        if (i >= count_) {
            c_.r[i] = c_.g[i] = c_.b[i] = kUnusedChannel;
            c_.cls[i] = kUnusedClass;
            continue;
        }
        c_.r[i] = entries[i].rgbRed;
        c_.g[i] = entries[i].rgbGreen;
        c_.b[i] = entries[i].rgbBlue;
        c_.cls[i] = static_cast<int32_t>(channel_class(entries[i].rgbRed, entries[i].rgbGreen, entries[i].rgbBlue));
    }
    for (uint32_t i = 0; i < 256; ++i) {
        c_.red_green[2 * i] = static_cast<int16_t>(c_.r[i]);
        c_.red_green[2 * i + 1] = static_cast<int16_t>(c_.g[i]);
        c_.blue_zero[2 * i] = static_cast<int16_t>(c_.b[i]);
        c_.blue_zero[2 * i + 1] = 0;
    }
    tier_ = platform::cpu_tier();
}

// The scan keeps the first entry at the smallest distance D and moves to a
// later entry at D only when its channel-order class is the target's; it
// stops at the first exact match. So: D = 0 gives the first exact entry;
// otherwise the last entry at D with the target's class, or else the first
// entry at D. The probes for white and black come first, as in the scan.
uint32_t PaletteSearch::find(uint32_t red, uint32_t green, uint32_t blue) const {
    if (!entries_ || count_ == 0 || (red | green | blue) > 255)
        return find_palette_index(entries_, count_, red, green, blue);
    if (red != 0 || green != 0 || blue != 0) {
        if ((red & green & blue) == 255) {
            if (is_white(entries_[count_ - 1])) return count_ - 1;
            if (is_white(entries_[0])) return 0;
        }
    } else {
        if (is_black(entries_[0])) return 0;
        if (is_black(entries_[count_ - 1])) return count_ - 1;
    }
#if ZK_X86_TIERS
    if (tier_ == platform::CpuTier::AVX512) return nearest_avx512(c_, red, green, blue);
    if (tier_ == platform::CpuTier::AVX2) return nearest_avx2(c_, red, green, blue);
#endif
    return nearest_by_distance(c_, red, green, blue);
}

}  // namespace zk

using zk::kStructSize;

// ---------------------------------------------------------------------------
// Bitmap palette access

extern "C" uint32_t Z_API Z_GetBitmapPaletteEntries(const BitmapHandle* bitmap, uint32_t first, uint32_t count,
                                                    RGBQUAD* entries) {
    if (!bitmap || !entries || !bitmap->Palette || first >= bitmap->ColorCount) return 0;
    const uint64_t end = std::min<uint64_t>(uint64_t{first} + count, bitmap->ColorCount);
    const auto n = static_cast<uint32_t>(end - first);
    std::memmove(entries, bitmap->Palette + first, size_t{n} * sizeof(RGBQUAD));
    return n;
}

extern "C" int32_t Z_API Z_GetBitmapColors(const BitmapHandle* bitmap, uint32_t first, uint32_t count,
                                           RGBQUAD* entries) {
    if (!bitmap) return ST_INVALID_BITMAP;
    if (bitmap->StructSize != kStructSize) return ST_BAD_STRUCT_SIZE;
    if (count == 0 || bitmap->BitsPerPixel >= 9) return ST_BAD_PARAM;
    return Z_GetBitmapPaletteEntries(bitmap, first, count, entries) == count ? ST_OK : ST_BAD_PARAM;
}

extern "C" int32_t Z_API Z_PutBitmapColors(BitmapHandle* bitmap, int32_t first, int32_t count, const RGBQUAD* entries) {
    if (!bitmap || !(bitmap->Flags & BF_ALLOCATED)) return ST_INVALID_BITMAP;
    if (bitmap->StructSize != kStructSize) return ST_BAD_STRUCT_SIZE;
    if (first < 0 || int64_t{first} + count > static_cast<int32_t>(bitmap->ColorCount) || bitmap->BitsPerPixel > 8)
        return ST_BAD_PARAM;
    if (count <= 0) return ST_OK;
    if (!entries) return ST_BAD_PARAM;
    if (!bitmap->Palette) {
        // A missing palette is made first, zero-filled, of ColorCount entries.
        auto* block = static_cast<RGBQUAD*>(Z_OsAllocInit(size_t{bitmap->ColorCount} * sizeof(RGBQUAD), 1));
        if (!block) return ST_NO_MEMORY;
        bitmap->Palette = block;
    }
    std::memmove(bitmap->Palette + first, entries, size_t(count) * sizeof(RGBQUAD));
    return ST_OK;
}

extern "C" RGBQUAD* Z_API Z_CreateNewPalette(const RGBQUAD* entries, uint32_t count) {
    if (!entries || count > 256) return nullptr;
    return zk::copy_palette_block(entries, count);
}

extern "C" int32_t Z_API Z_SetBitmapNewPalette(BitmapHandle* bitmap, const RGBQUAD* entries, uint32_t count) {
    if (!bitmap) return 0;
    Z_OsFree(bitmap->Palette);
    bitmap->Palette = nullptr;
    if (!entries) return 1;
    bitmap->ColorCount = count;
    bitmap->Palette = Z_CreateNewPalette(entries, count);
    return bitmap->Palette ? 1 : 0;
}

extern "C" int32_t Z_API Z_CopyBitmapPalette(BitmapHandle* dst, const BitmapHandle* src) {
    if (!dst || !src) return ST_BAD_PARAM;
    if (dst->StructSize != kStructSize || src->StructSize != kStructSize) return ST_BAD_STRUCT_SIZE;
    if (dst == src) return src->Palette ? 1 : ST_OK;  // nothing to copy onto itself
    Z_OsFree(dst->Palette);
    dst->Palette = nullptr;
    if (!src->Palette) {
        dst->ColorCount = 0;
        return ST_OK;
    }
    dst->ColorCount = src->ColorCount;
    dst->Palette = zk::copy_palette_block(src->Palette, src->ColorCount);
    return dst->Palette ? 1 : 0;
}

extern "C" int32_t Z_API Z_CompareBitmapToPalette(const BitmapHandle* bitmap, const RGBQUAD* entries, uint32_t count) {
    if (!bitmap) return 0;
    RGBQUAD local[256];
    const uint32_t n = Z_GetBitmapPaletteEntries(bitmap, 0, std::min(count, 256u), local);
    if (n == 0) return 1;
    if (!entries) return 0;
    for (uint32_t i = 0; i < n; ++i)
        if (!zk::same_rgb(local[i], entries[i])) return 0;
    return 1;
}

extern "C" uint32_t Z_API Z_FindPaletteIndex(const RGBQUAD* entries, uint32_t count, uint32_t red, uint32_t green,
                                             uint32_t blue) {
    return zk::find_palette_index(entries, count, red, green, blue);
}

// ---------------------------------------------------------------------------
// Gray tests

extern "C" int32_t Z_API Z_IsGrayScalePalette(const RGBQUAD* entries, uint32_t count) {
    if (!entries) return ST_BAD_PARAM;
    for (uint32_t i = 0; i < count; ++i)
        if (entries[i].rgbRed != entries[i].rgbGreen || entries[i].rgbRed != entries[i].rgbBlue) return GRAY_NO;
    const uint8_t v0 = entries[0].rgbRed;
    if (count < 2) return v0 == 0 ? GRAY_ORDERED : v0 == 255 ? GRAY_ORDERED_INVERSE : GRAY_NOT_ORDERED;
    // The step is truncated, so a ramp whose count does not divide 255 ends
    // below 255; expected values wrap at 8 bits.
    const auto step = static_cast<uint8_t>(255u / (count - 1));
    const auto delta = static_cast<uint8_t>(v0 == 0 ? step : 256u - step);
    uint8_t expected = v0 == 0 ? 0 : 255;
    for (uint32_t i = 0; i < count; ++i, expected = static_cast<uint8_t>(expected + delta))
        if (entries[i].rgbRed != expected) return GRAY_NOT_ORDERED;
    return v0 == 0 ? GRAY_ORDERED : GRAY_ORDERED_INVERSE;
}

extern "C" int32_t Z_API Z_IsGrayScaleBitmap(const BitmapHandle* bitmap) {
    if (!bitmap) return ST_BAD_PARAM;
    if (bitmap->StructSize != kStructSize) return ST_BAD_STRUCT_SIZE;
    if (bitmap->Order != CO_GRAY) {
        if (bitmap->BitsPerPixel > 8 || bitmap->ColorCount == 0) return GRAY_NO;
        RGBQUAD local[256];
        const uint32_t n = Z_GetBitmapPaletteEntries(bitmap, 0, 256, local);
        if (n < bitmap->ColorCount) return GRAY_NO;
        return Z_IsGrayScalePalette(local, n);
    }
    // A LUT without entries is treated like no LUT.
    if (!bitmap->LUT || !(bitmap->Flags & BF_LUT_USED) || bitmap->LUTLength == 0) return GRAY_ORDERED;
    // Significant bits as the gray parameters give them.
    const int32_t bpp = bitmap->BitsPerPixel;
    const int32_t low = std::max(static_cast<int32_t>(bitmap->LowBit), 0);
    const int32_t high = static_cast<int32_t>(bitmap->HighBit) < 0 ? bpp - 1 : static_cast<int32_t>(bitmap->HighBit);
    const int32_t nb = std::clamp(std::min(high - low + 1, bpp), 0, 31);
    const uint32_t checked = std::min<uint32_t>(1u << nb, bitmap->LUTLength);
    for (uint32_t i = 0; i < checked; ++i) {
        const RGBQUAD& e = bitmap->LUT[i];
        if (e.rgbRed != e.rgbGreen || e.rgbRed != e.rgbBlue) return GRAY_NO;
    }
    const uint32_t lowest = (bitmap->Flags & BF_SIGNED) ? bitmap->LUTLength / 2 : 0;
    const uint8_t v = bitmap->LUT[lowest].rgbRed;
    return v == 0 ? GRAY_ORDERED : v == 255 ? GRAY_ORDERED_INVERSE : GRAY_NOT_ORDERED;
}

// ---------------------------------------------------------------------------
// Palette objects

extern "C" HPALETTE Z_API Z_CreatePalette(const RGBQUAD* entries, uint32_t count) {
    // A palette of no entries cannot be made, as with the display system.
    if (!entries || count == 0 || count > 256) return nullptr;
    auto* palette = static_cast<Z_PaletteObject*>(Z_Malloc(sizeof(Z_PaletteObject)));
    if (!palette) return nullptr;
    palette->count = count;
    std::memcpy(palette->entries, entries, size_t{count} * sizeof(RGBQUAD));
    return palette;
}

extern "C" uint32_t Z_API Z_GetPaletteSize(HPALETTE palette) { return palette ? palette->count : 0; }

extern "C" uint32_t Z_API Z_GetPaletteEntries(HPALETTE palette, uint32_t first, uint32_t count, RGBQUAD* entries) {
    if (!entries || !palette || first >= palette->count) return 0;
    const uint32_t n = std::min(count, palette->count - first);
    std::memmove(entries, palette->entries + first, size_t{n} * sizeof(RGBQUAD));
    return n;
}

extern "C" uint32_t Z_API Z_SetPaletteEntries(HPALETTE palette, uint32_t first, uint32_t count,
                                              const RGBQUAD* entries) {
    if (!entries || !palette || first >= palette->count) return 0;
    const uint32_t n = std::min(count, palette->count - first);
    std::memmove(palette->entries + first, entries, size_t{n} * sizeof(RGBQUAD));
    return n;
}

extern "C" HPALETTE Z_API Z_DupPalette(HPALETTE palette) {
    const uint32_t n = Z_GetPaletteSize(palette);
    if (n == 0) return nullptr;
    auto* copy = static_cast<RGBQUAD*>(Z_Malloc(size_t{n} * sizeof(RGBQUAD)));
    if (!copy) return nullptr;
    Z_GetPaletteEntries(palette, 0, n, copy);
    HPALETTE result = Z_CreatePalette(copy, n);
    Z_Free(copy);
    return result;
}

extern "C" int32_t Z_API Z_DeletePalette(HPALETTE palette) {
    if (!palette) return 0;
    Z_Free(palette);
    return 1;
}

// There is no display palette to read here: a device without one.
extern "C" HPALETTE Z_API Z_CreateSystemPalette(void) { return nullptr; }

extern "C" int32_t Z_API Z_SetBitmapPalette(BitmapHandle* bitmap, HPALETTE palette) {
    if (!bitmap) return ST_INVALID_BITMAP;
    if (bitmap->StructSize != kStructSize) return ST_BAD_STRUCT_SIZE;
    if (!palette) return ST_BAD_PARAM;
    const uint32_t n = Z_GetPaletteSize(palette);
    if (n < 2 || n > 256) return ST_BAD_PARAM;
    Z_OsFree(bitmap->Palette);
    bitmap->Palette = static_cast<RGBQUAD*>(Z_OsAlloc(size_t{n} * sizeof(RGBQUAD)));
    if (!bitmap->Palette) return ST_NO_MEMORY;
    Z_GetPaletteEntries(palette, 0, n, bitmap->Palette);
    bitmap->ColorCount = n;
    return ST_OK;
}

extern "C" HPALETTE Z_API Z_DupBitmapPalette(const BitmapHandle* bitmap) {
    if (!bitmap || bitmap->StructSize != kStructSize || !bitmap->Palette) return nullptr;
    return Z_CreatePalette(bitmap->Palette, bitmap->ColorCount);
}

// Nearest entry by Euclidean distance in RGB, the first entry winning a tie.
// 0xFFFFFFFF (no index) when the bitmap has no usable palette; 0 for a null
// bitmap.
extern "C" uint32_t Z_API Z_GetNearestPaletteIndex(const BitmapHandle* bitmap, COLORREF colour) {
    if (!bitmap) return 0;
    if (!bitmap->Palette || bitmap->ColorCount == 0 || bitmap->ColorCount > 256) return 0xFFFFFFFFu;
    const int32_t r = static_cast<int32_t>(colour & 0xFF), g = static_cast<int32_t>(colour >> 8 & 0xFF),
                  b = static_cast<int32_t>(colour >> 16 & 0xFF);
    uint32_t best = 0;
    int32_t best_distance = INT32_MAX;
    for (uint32_t i = 0; i < bitmap->ColorCount; ++i) {
        const RGBQUAD& e = bitmap->Palette[i];
        const int32_t dr = e.rgbRed - r, dg = e.rgbGreen - g, db = e.rgbBlue - b;
        const int32_t d = dr * dr + dg * dg + db * db;
        if (d < best_distance) {
            best = i;
            best_distance = d;
        }
    }
    return best;
}
