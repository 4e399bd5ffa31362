// Match lists and whole-table filling (see match_table.h).
#include "reduce/match_table.h"

#include <algorithm>

#include "color/palette.h"
#include "core/heap_object.h"

namespace zk::reduce {

void build_match_list(const RGBQUAD* palette, uint32_t colors, MatchList& list) {
    list.count = 0;
    const uint32_t n = std::min(colors, 256u);
    for (uint32_t i = 0; palette && i < n; ++i) {
        if (!selectable(palette[i])) continue;
        RGBQUAD e = palette[i];
        e.rgbReserved = static_cast<uint8_t>(i);
        list.entry[list.count++] = e;
    }
}

void seed_match_table(uint32_t* table, const MatchList& list) {
    for (uint32_t p = 0; p < list.count; ++p) {
        const RGBQUAD& e = list.entry[p];
        uint32_t& cell = table[match_cell(e.rgbRed, e.rgbGreen, e.rgbBlue)];
        if (cell == 0) cell = p + 1;
    }
}

int32_t fill_match_table(uint32_t* table, const MatchList& list) {
    // The search's prepared palette is about 8 KiB: not for the stack of
    // every caller.
    const HeapObject<PaletteSearch> search;
    if (!search) return ST_NO_MEMORY;
    search->prepare(list.entry, list.count);
    for (uint32_t cell = 0; cell < kMatchCells; ++cell) {
        if (table[cell] != 0) continue;
        table[cell] = 1 + search->find((cell >> 10) << 3, (cell >> 5 & 31) << 3, (cell & 31) << 3);
    }
    return ST_OK;
}

}  // namespace zk::reduce
