// Colour reduction over bitmap lists: one optimized palette for the pixels of
// every bitmap of a list.
//
// May include: include/zkernel.h, core/bitmap_handle.h, reduce/optimize_palette.h.
#include <cstdint>

#include "core/bitmap_handle.h"
#include "reduce/optimize_palette.h"

extern "C" int32_t Z_API Z_CreateBitmapListOptPal(BitmapList list, RGBQUAD* palette, uint32_t count,
                                                  uint32_t* colorsUsed, int32_t* exact, uint32_t* matchTable) {
    uint32_t n = 0;
    if (Z_GetBitmapListCount(list, &n) != ST_OK || n == 0) return ST_BAD_PARAM;
    // The records are read through copies taken from the list: reading rows
    // puts back whatever it moves in a record (the row cursor, a lock), so
    // the list's own records are left as they are.
    constexpr uint64_t kEach = sizeof(BitmapHandle) + sizeof(BitmapHandle*);
    if (uint64_t{n} * kEach > SIZE_MAX) return ST_NO_MEMORY;
    struct Block {
        void* p;
        ~Block() { Z_Free(p); }
    } block{Z_Malloc(static_cast<size_t>(uint64_t{n} * kEach))};
    if (!block.p) return ST_NO_MEMORY;
    auto* records = static_cast<BitmapHandle*>(block.p);
    auto* sources = reinterpret_cast<BitmapHandle**>(records + n);
    for (uint32_t i = 0; i < n; ++i) {
        if (const int32_t status = Z_GetBitmapListItem(list, i, &records[i], Z_BITMAPHANDLE_SIZE); status != ST_OK)
            return status;
        sources[i] = &records[i];
    }
    zk::reduce::PaletteChoice choice;
    const int32_t status = zk::reduce::optimize_palette(sources, n, palette, count, matchTable, &choice);
    if (status != ST_OK) return status;
    if (colorsUsed) *colorsUsed = choice.used;
    if (exact) *exact = choice.exact ? 1 : 0;
    return ST_OK;
}
