// Copy and release of the overlay table block.
#include "overlays.h"

#include <cstring>

#include "platform/platform.h"
#include "zkernel.h"

namespace zk {

void overlays_free(void* table) { Z_OsFree(table); }

void* overlays_copy(const void* table) {
    if (!table) return nullptr;
    const platform::BlockHandle block = platform::block_from_pointer(table);
    if (!block) return nullptr;
    const size_t size = platform::block_size(block);
    void* copy = Z_OsAlloc(size);
    if (copy && size) std::memcpy(copy, table, size);
    return copy;
}

}  // namespace zk
