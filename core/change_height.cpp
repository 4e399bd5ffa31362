// Changing a bitmap's height in place, for every storage kind: conventional
// mappings are re-mapped, global blocks reallocated, disk files resized and
// tiled storage rebuilt with the tiles the new height needs. Rows below the
// new height are dropped; rows added at the bottom are zero.
#include <algorithm>
#include <cstring>

#include "bitmap_handle.h"
#include "copy_rows.h"
#include "platform/platform.h"
#include "storage.h"

namespace zk {
namespace {

namespace pf = zk::platform;
namespace st = zk::storage;

// Tiled storage: a new tile set for the new height with the same tile
// geometry, the surviving rows copied over, then the old tiles released.
// Tiles that join keep the bitmap's placement: all in memory when every tile
// was, else on disk.
int32_t change_tiled_height(BitmapHandle& b, int32_t height) {
    const st::TileTable* old_table = st::tile_table(b);
    if (!old_table) return ST_INVALID_BITMAP;
    BitmapHandle fresh;
    std::memcpy(&fresh, &b, sizeof fresh);
    fresh.Flags &= ~BF_STORAGE_MASK;
    fresh.Data = nullptr;
    fresh.DataHandle = nullptr;
    fresh.Height = height;
    fresh.Size = static_cast<size_t>(b.BytesPerLine) * static_cast<uint32_t>(height);
    fresh.CurRow = 0;
    fresh.CurRowOffset = 0;
    const uint32_t rpt = old_table->RowsPerTile;
    const uint32_t count = (static_cast<uint32_t>(height) + rpt - 1) / rpt;
    st::TileLayout layout{};
    layout.rows_per_tile = rpt;
    layout.mem_tiles = old_table->MemTiles >= old_table->TileCount ? count : old_table->MemTiles;
    layout.max_mapped = old_table->MaxMapped;
    int32_t r = st::build_tiles(fresh, layout);
    if (r != ST_OK) return r;

    const uint32_t keep = static_cast<uint32_t>(height < b.Height ? height : b.Height);
    const uint32_t bpl = b.BytesPerLine;
    uint8_t* row = static_cast<uint8_t*>(Z_Malloc(bpl ? bpl : 1));
    if (!row) r = ST_NO_MEMORY;
    for (uint32_t y = 0; r == ST_OK && y < keep; ++y) {
        if (Z_GetBitmapRow(&b, row, y, bpl) != static_cast<int32_t>(bpl) ||
            Z_PutBitmapRow(&fresh, row, y, bpl) != static_cast<int32_t>(bpl))
            r = ST_FILE_WRITE;
    }
    if (r == ST_OK && keep < static_cast<uint32_t>(height)) {
        std::memset(row, 0, bpl);
        for (uint32_t y = keep; r == ST_OK && y < static_cast<uint32_t>(height); ++y)
            if (Z_PutBitmapRow(&fresh, row, y, bpl) != static_cast<int32_t>(bpl)) r = ST_FILE_WRITE;
    }
    Z_Free(row);
    if (r != ST_OK) {
        st::release(fresh);
        return r == ST_FILE_WRITE ? r : ST_NO_MEMORY;
    }
    st::release(b);
    b.Data = fresh.Data;
    b.DataHandle = fresh.DataHandle;
    b.Flags = (b.Flags & ~BF_STORAGE_MASK) | (fresh.Flags & BF_STORAGE_MASK);
    b.Size = fresh.Size;
    return ST_OK;
}

// Global storage: the unlocked block is reallocated, the growth zeroed.
int32_t change_global_height(BitmapHandle& b, size_t new_size) {
    pf::BlockHandle grown = pf::block_realloc(b.DataHandle, new_size + b.DataOffset, true);
    if (!grown) return ST_NO_MEMORY;
    b.DataHandle = grown;
    b.Size = new_size;
    return ST_OK;
}

// Conventional storage growing: a new mapping of the new size (the slack
// for 32-byte alignment included), the rows copied, the old one unmapped.
// Resizing a shared anonymous mapping in place does not extend the memory
// behind it, so growth never goes through a remap.
int32_t grow_conventional(BitmapHandle& b, size_t new_size) {
    constexpr size_t slack = 31;
    if (new_size > SIZE_MAX - slack) return ST_NO_MEMORY;
    pf::Mapping fresh = pf::map_anonymous(new_size + slack);
    if (!fresh) return ST_NO_MEMORY;
    auto* view = static_cast<uint8_t*>(fresh.view);
    const uintptr_t base = reinterpret_cast<uintptr_t>(view);
    const uint32_t offset = static_cast<uint32_t>(((base + 31) & ~uintptr_t{31}) - base);
    std::memcpy(view + offset, b.Data, b.Size);
    pf::Mapping old;
    old.handle = b.DataHandle;
    old.view = b.Data - b.DataOffset;
    old.size = b.Size + slack;
    pf::unmap(old);
    b.DataHandle = fresh.handle;
    b.DataOffset = offset;
    b.Data = view + offset;
    b.Size = new_size;
    return ST_OK;
}

// Disk storage: the file is cut to the rows that survive, then extended with
// zeros to the new size and the one byte past the pixels it has from its
// allocation. Once a shrinking cut is made the change stands; the trailing
// byte is not needed to reach any row.
int32_t change_disk_height(BitmapHandle& b, size_t new_size) {
    const auto file = static_cast<pf::FileHandle>(reinterpret_cast<intptr_t>(b.DataHandle));
    const bool shrinking = new_size < b.Size;
    if (!pf::file_set_size(file, std::min(b.Size, new_size))) return ST_NO_MEMORY;
    if (!pf::file_set_size(file, static_cast<uint64_t>(new_size) + 1) && !shrinking) return ST_NO_MEMORY;
    b.Size = new_size;
    return ST_OK;
}

}  // namespace
}  // namespace zk

extern "C" int32_t Z_API Z_ChangeBitmapHeight(BitmapHandle* bitmap, int32_t height) {
    if (!bitmap || !(bitmap->Flags & BF_ALLOCATED)) return ST_INVALID_BITMAP;
    if (bitmap->StructSize != zk::kStructSize) return ST_BAD_STRUCT_SIZE;
    if (bitmap->Flags & (BF_USER_DATA | BF_LOCKED)) return ST_BAD_PARAM;
    if (height == bitmap->Height) return ST_OK;
    if (height < 1) return ST_BAD_PARAM;
    // The run-length stores keep their rows in their own form; their height
    // change belongs to them.
    if (bitmap->Flags & (BF_COMPRESSED | BF_SUPERCOMPRESSED)) return ST_BAD_PARAM;

    const uint64_t wanted = static_cast<uint64_t>(bitmap->BytesPerLine) * static_cast<uint32_t>(height);
    if (wanted > SIZE_MAX - 64) return ST_NO_MEMORY;
    const size_t new_size = static_cast<size_t>(wanted);
    int32_t r;
    if (bitmap->Flags & BF_TILED) {
        r = zk::change_tiled_height(*bitmap, height);
    } else if (bitmap->Flags & BF_GLOBAL) {
        r = zk::change_global_height(*bitmap, new_size);
    } else if (bitmap->Flags & BF_MEMORY) {
        r = new_size > bitmap->Size ? zk::grow_conventional(*bitmap, new_size)
                                    : zk::storage::remap_conventional(*bitmap, new_size);
        if (r == ST_BAD_PARAM) r = ST_NO_MEMORY;
    } else if (bitmap->Flags & BF_DISK) {
        r = zk::change_disk_height(*bitmap, new_size);
    } else {
        r = ST_INVALID_BITMAP;
    }
    if (r != ST_OK) return r;
    bitmap->Height = height;
    bitmap->CurRow = 0;
    bitmap->CurRowOffset = 0;
    return ST_OK;
}
