// Bitmap storage: allocation in every kind with the per-thread thresholds,
// freeing, locking of global storage, the thresholds themselves and the
// memory report, and the byte-span operations of the memory and disk kinds.
#include "storage.h"

#include <algorithm>
#include <cstring>

#include "bitmap_handle.h"
#include "overlays.h"
#include "platform/platform.h"
#include "run_length_store.h"
#include "thread_state.h"

namespace pf = zk::platform;

namespace zk::storage {

extern const KindOps kTiledOps;  // tiles.cpp

namespace {

constexpr uint64_t kDefaultTileSize = 0x1000000;  // 16 MiB
constexpr size_t kFileChunk = size_t{1} << 30;
constexpr size_t kConventionalSlack = 31;  // room to align Data up to 32 bytes

Z_FILE file_of(const BitmapHandle& b) { return static_cast<Z_FILE>(reinterpret_cast<intptr_t>(b.DataHandle)); }

bool in_range(const BitmapHandle& b, size_t offset, size_t count) {
    const size_t limit = reachable_bytes(b);
    return offset <= limit && count <= limit - offset;
}

// --- memory: conventional, global (locked), caller memory -------------------
int64_t memory_fetch(BitmapHandle& b, size_t offset, uint8_t* out, size_t count) {
    if (!b.Data) return ST_INVALID_BITMAP;
    if (!in_range(b, offset, count)) return ST_BAD_PARAM;
    std::memcpy(out, b.Data + offset, count);
    return static_cast<int64_t>(count);
}

int64_t memory_store(BitmapHandle& b, size_t offset, const uint8_t* in, size_t count) {
    if (!b.Data) return ST_INVALID_BITMAP;
    if (!in_range(b, offset, count)) return ST_BAD_PARAM;
    std::memcpy(b.Data + offset, in, count);
    return static_cast<int64_t>(count);
}

uint8_t* memory_map(BitmapHandle& b, size_t offset, size_t count) {
    if (!b.Data || !in_range(b, offset, count)) return nullptr;
    return b.Data + offset;
}

void memory_release(BitmapHandle& b) {
    if (b.Flags & BF_USER_DATA) {
        b.Flags &= ~(BF_COMPRESSED | BF_MEMORY | BF_DISK | BF_USER_DATA);
        return;
    }
    Z_ReleaseBitmap(&b);
    if (b.Flags & BF_GLOBAL) {
        pf::block_free(b.DataHandle);
        b.Flags &= ~BF_GLOBAL;
    } else if (b.DataHandle && b.Data) {
        pf::Mapping m;
        m.handle = b.DataHandle;
        m.view = b.Data - b.DataOffset;
        m.size = b.Size + kConventionalSlack;
        pf::unmap(m);
    }
    b.Data = nullptr;
    b.DataHandle = nullptr;
    b.DataOffset = 0;
    b.Flags &= ~BF_MEMORY;
}

// --- disk: through the thread's current I/O routines ------------------------
int64_t disk_transfer(BitmapHandle& b, size_t offset, uint8_t* buffer, size_t count, bool put) {
    // Bounded exactly as memory is: a file grows past the pixels on no row.
    if (!in_range(b, offset, count)) return ST_BAD_PARAM;
    const Z_FILE f = file_of(b);
    if (Z_RedirectedSeek(f, static_cast<int64_t>(offset), 0) != static_cast<int64_t>(offset)) return ST_FILE_SEEK;
    size_t done = 0;
    while (done < count) {
        const uint32_t n = static_cast<uint32_t>(std::min(count - done, kFileChunk));
        const int32_t moved = put ? Z_RedirectedWrite(f, buffer + done, n) : Z_RedirectedRead(f, buffer + done, n);
        if (moved < 0) return put ? ST_FILE_WRITE : ST_FILE_READ;
        done += static_cast<size_t>(moved);
        if (static_cast<uint32_t>(moved) < n) break;
    }
    return static_cast<int64_t>(done);
}

int64_t disk_fetch(BitmapHandle& b, size_t offset, uint8_t* out, size_t count) {
    return disk_transfer(b, offset, out, count, false);
}

int64_t disk_store(BitmapHandle& b, size_t offset, const uint8_t* in, size_t count) {
    // The buffer is only read on this path.
    return disk_transfer(b, offset, const_cast<uint8_t*>(in), count, true);
}

uint8_t* disk_map(BitmapHandle&, size_t, size_t) { return nullptr; }

void disk_release(BitmapHandle& b) {
    Z_OsClose(file_of(b), nullptr);  // delete-on-close: the file goes with it
    b.DataHandle = nullptr;
    b.Flags &= ~BF_DISK;
}

const KindOps kMemoryOps = {StorageKind::Memory, true,           true,          true,    memory_fetch, memory_store,
                            memory_map,          memory_release, resize_memory, nullptr, nullptr,      nullptr};
const KindOps kDiskOps = {StorageKind::Disk, true,         false,       false,   disk_fetch, disk_store,
                          disk_map,          disk_release, resize_disk, nullptr, nullptr,    nullptr};

// Per kind (in StorageKind order): what the memory report says, and the
// allocation type of a duplicate.
struct KindTypes {
    uint32_t reported, duplicate;
};
constexpr KindTypes kKindTypes[] = {
    {TYPE_DISK, TYPE_CONV},                          // none
    {TYPE_CONV, TYPE_CONV},                          // memory
    {TYPE_TILED, TYPE_CONV},                         // tiled: by the thresholds
    {TYPE_DISK, TYPE_DISK},                          // disk
    {TYPE_COMPRESSED, TYPE_COMPRESSED | TYPE_CONV},  // run-length
    {TYPE_SUPERCOMPRESSED, TYPE_SUPERCOMPRESSED},    // second form
};

// --- allocation -------------------------------------------------------------
struct Thresholds {
    int32_t reserve, max_conv, tile_size, max_mem_tiles, tile_views;
};

Thresholds thresholds() {
    const ThreadState& s = thread_state();
    return {s.memory_reserve, s.max_conv_size, s.tile_size, s.max_mem_tiles, s.tile_views};
}

uint64_t tile_target(const Thresholds& t) {
    return t.tile_size < 1 ? kDefaultTileSize : static_cast<uint64_t>(t.tile_size);
}

// Conventional storage: a private anonymous mapping of Size + 31 bytes with
// Data aligned to 32. Private memory gets huge pages for large bitmaps
// (shared anonymous memory seldom does), which makes the first write of a
// new bitmap's pages several times cheaper.
bool try_conventional(BitmapHandle& b) {
    if (b.Size > SIZE_MAX - kConventionalSlack) return false;
    pf::Mapping m = pf::map_anonymous_private(b.Size + kConventionalSlack);
    if (!m) return false;
    const uintptr_t base = reinterpret_cast<uintptr_t>(m.view);
    const uintptr_t aligned = (base + 31) & ~uintptr_t{31};
    b.DataOffset = static_cast<uint32_t>(aligned - base);
    b.Data = static_cast<uint8_t*>(m.view) + b.DataOffset;
    b.DataHandle = m.handle;
    b.Flags |= BF_ALLOCATED | BF_MEMORY;
    return true;
}

// Tiled storage, retried with tiles of half the size while memory is roomy.
int32_t try_tiled(BitmapHandle& b, const Thresholds& th, uint64_t free_bytes) {
    uint64_t target = tile_target(th);
    const int64_t views_setting = th.tile_views;
    const pf::MemoryStatus ms = pf::memory_status();
    const bool roomy = ms.available_physical + ms.available_page_file >= b.Size;
    const uint64_t bpl = b.BytesPerLine;
    if (bpl == 0) return ST_INVALID_BITMAP;
    int32_t status = ST_NO_MEMORY;
    for (;;) {
        if (b.Height < 1) return ST_INVALID_BITMAP;
        const uint64_t height = static_cast<uint64_t>(b.Height);
        const uint64_t rows = std::max(target, bpl) / bpl;
        const uint64_t tile = rows * bpl;
        const uint64_t count = (height + rows - 1) / rows;

        int64_t c = th.max_mem_tiles < 0 ? mul_div(static_cast<int64_t>(count), -int64_t{th.max_mem_tiles}, 100)
                                         : int64_t{th.max_mem_tiles};
        const uint64_t fit = free_bytes / tile;
        if (c < 0) c = 0;
        if (fit < static_cast<uint64_t>(c)) c = static_cast<int64_t>(fit);

        uint64_t mem_tiles, views;
        if (static_cast<uint64_t>(c) >= count) {
            mem_tiles = count;
            views = 0;
        } else {
            int64_t w;
            if (views_setting >= 0)
                w = views_setting;
            else if (views_setting == -100)
                w = c;
            else
                w = mul_div(static_cast<int64_t>(count) - c, -views_setting, views_setting + 100);
            if (w <= 0) w = 1;
            if (w <= c) {
                mem_tiles = static_cast<uint64_t>(c - w);
                views = static_cast<uint64_t>(w);
            } else {
                views = c == 0 ? 1 : static_cast<uint64_t>(c);
                mem_tiles = 0;
            }
        }
        const TileLayout layout{static_cast<uint32_t>(std::min<uint64_t>(rows, UINT32_MAX)),
                                static_cast<uint32_t>(mem_tiles),
                                static_cast<uint32_t>(std::min<uint64_t>(views, UINT32_MAX))};
        status = build_tiles(b, layout);
        if (status == ST_OK) return ST_OK;
        if (!roomy) return status;
        target /= 2;
        if (target <= 8 * bpl) return status;
    }
}

// Disk storage: a delete-on-close temporary file of Size + 1 bytes, all of
// it reserved, so that a full disk is found here and not by a later write.
int32_t try_disk(BitmapHandle& b) {
    if (b.Size >= kMaxImageBytes) return ST_TOO_LARGE;
    int32_t status;
    const Z_FILE f = create_reserved_temp_file(uint64_t{b.Size} + 1, &status);
    if (f == Z_INVALID_FILE) return status;
    b.DataHandle = reinterpret_cast<void*>(static_cast<intptr_t>(f));
    b.Data = nullptr;
    b.DataOffset = 0;
    b.Flags = (b.Flags & ~(BF_USER_DATA | BF_GLOBAL)) | BF_ALLOCATED | BF_DISK;
    return ST_OK;
}

// The memory path: conventional, else tiled, else disk, as the type and the
// thresholds allow.
int32_t allocate_memory(BitmapHandle& b, uint32_t type) {
    const Thresholds th = thresholds();
    const uint64_t target = tile_target(th);
    uint64_t free_bytes = 0;
    if (b.Size > target) {
        const pf::MemoryStatus ms = pf::memory_status();
        const uint64_t total = ms.total_physical + ms.total_page_file;
        const uint64_t avail = ms.available_physical + ms.available_page_file;
        const uint64_t reserve = th.reserve < 0 ? total / 100 * static_cast<uint64_t>(-int64_t{th.reserve})
                                                : static_cast<uint64_t>(th.reserve);
        free_bytes = avail > reserve ? avail - reserve : 0;
        bool conventional = false;
        if (b.Size <= free_bytes) {
            const uint64_t max_conv = th.max_conv < 0 ? avail / 100 * static_cast<uint64_t>(-int64_t{th.max_conv})
                                                      : static_cast<uint64_t>(th.max_conv);
            conventional = b.Size <= max_conv;
        }
        if (!conventional) type |= TYPE_TILED;
    } else if (type & TYPE_TILED) {
        type = (type & ~TYPE_TILED) | TYPE_CONV;  // a small bitmap is never tiled
    }

    if (!(type & (TYPE_TILED | TYPE_DISK)) && try_conventional(b)) return ST_OK;
    int32_t status = ST_NO_MEMORY;
    if (!(type & (TYPE_NOTILE | TYPE_DISK))) {
        status = try_tiled(b, th, free_bytes);
        if (status == ST_OK) return ST_OK;
    }
    if (type & TYPE_MEMORY_ONLY) return ST_NO_MEMORY;
    return try_disk(b);
}

bool accepted_type(uint32_t type) {
    switch (type) {
        case TYPE_CONV:
        case TYPE_USER:
        case TYPE_TILED:
        case TYPE_NOTILE:
        case TYPE_CONV | TYPE_NOTILE:
        case TYPE_DISK:
        case TYPE_MEMORY_ONLY:
        case kTypeRunLength:
        case kTypeSecondForm:
        case kTypeSecondFormConv: return true;
        default: return false;
    }
}

}  // namespace

// ---------------------------------------------------------------------------
StorageKind kind_of(const BitmapHandle& b) {
    const uint32_t f = b.Flags;
    if (f & BF_USER_DATA) return StorageKind::Memory;
    if (f & BF_COMPRESSED) return StorageKind::RunLength;
    if (f & BF_SUPERCOMPRESSED) return StorageKind::SecondForm;
    if (f & BF_TILED) return StorageKind::Tiled;
    if (f & BF_MEMORY) return StorageKind::Memory;
    if (f & BF_DISK) return StorageKind::Disk;
    return StorageKind::None;
}

uint32_t memory_type(StorageKind kind) { return kKindTypes[static_cast<int>(kind)].reported; }
uint32_t duplicate_type(StorageKind kind) { return kKindTypes[static_cast<int>(kind)].duplicate; }

const KindOps* kind_ops(const BitmapHandle& b) {
    static const KindOps* const kOps[] = {nullptr, &kMemoryOps, &kTiledOps, &kDiskOps, &run_length_ops(), nullptr};
    return kOps[static_cast<int>(kind_of(b))];
}

size_t reachable_bytes(const BitmapHandle& b) {
    if (kind_of(b) == StorageKind::Tiled) {
        const uint64_t height = b.Height > 0 ? static_cast<uint64_t>(b.Height) : 0;
        return static_cast<size_t>(height * b.BytesPerLine);
    }
    return b.Size;
}

void release(BitmapHandle& b) {
    if (const KindOps* ops = kind_ops(b))
        ops->release(b);
    else
        b.Flags &= ~(BF_COMPRESSED | BF_SUPERCOMPRESSED);  // a compressed kind that holds nothing here
}

int32_t allocate_global(BitmapHandle& b) {
    b.Flags &= ~BF_STORAGE_MASK;
    auto* map = static_cast<uint8_t*>(Z_OsAlloc(256));
    if (!map) return ST_NO_MEMORY;
    pf::BlockHandle block = pf::block_alloc(b.Size, true);
    if (!block) {
        Z_OsFree(map);
        return ST_NO_MEMORY;
    }
    for (int i = 0; i < 256; ++i) map[i] = static_cast<uint8_t>(i);
    b.ValueMap = map;
    b.DataHandle = block;
    b.Data = nullptr;
    b.DataOffset = 0;
    b.CurRow = 0;
    b.CurRowOffset = 0;
    b.Flags |= BF_ALLOCATED | BF_MEMORY | BF_GLOBAL;
    return ST_OK;
}

int32_t remap_conventional(BitmapHandle& b, size_t new_size) {
    if (kind_of(b) != StorageKind::Memory || (b.Flags & (BF_GLOBAL | BF_USER_DATA)) || !b.DataHandle || !b.Data)
        return ST_BAD_PARAM;
    if (new_size == 0 || new_size > SIZE_MAX - kConventionalSlack) return ST_NO_MEMORY;
    pf::Mapping m;
    m.handle = b.DataHandle;
    m.view = b.Data - b.DataOffset;
    m.size = b.Size + kConventionalSlack;
    const size_t keep = std::min(b.Size, new_size);
    // The mapping shrinks in place, or grows in place or by moving its pages
    // (the growth reads as zero).
    if (!pf::remap_anonymous_private(m, new_size + kConventionalSlack)) return ST_NO_MEMORY;
    uint8_t* view = static_cast<uint8_t*>(m.view);
    // Rows cut off by a shrink that stay inside the mapping (the alignment
    // slack) must read as zero when the bitmap grows again.
    if (new_size < b.Size) std::memset(b.Data + new_size, 0, kConventionalSlack - b.DataOffset);
    const uintptr_t base = reinterpret_cast<uintptr_t>(view);
    const uint32_t offset = static_cast<uint32_t>(((base + 31) & ~uintptr_t{31}) - base);
    if (offset != b.DataOffset) {
        // A view that moved to another alignment (never so for page-aligned
        // views): the rows follow Data, and what they leave stays zero.
        std::memmove(view + offset, view + b.DataOffset, keep);
        if (offset < b.DataOffset) std::memset(view + offset + keep, 0, b.DataOffset - offset);
    }
    b.DataHandle = m.handle;
    b.DataOffset = offset;
    b.Data = view + offset;
    b.Size = new_size;
    return ST_OK;
}

int64_t mul_div(int64_t a, int64_t b, int64_t c) {
    if (c == 0) return -1;
    const bool negative = ((a < 0) != (b < 0)) != (c < 0);
    const uint64_t ua = a < 0 ? 0 - static_cast<uint64_t>(a) : static_cast<uint64_t>(a);
    const uint64_t ub = b < 0 ? 0 - static_cast<uint64_t>(b) : static_cast<uint64_t>(b);
    const uint64_t uc = c < 0 ? 0 - static_cast<uint64_t>(c) : static_cast<uint64_t>(c);
    uint64_t q;
    if (ub == 0 || ua <= (UINT64_MAX - uc / 2) / ub) {
        q = (ua * ub + uc / 2) / uc;
    } else {
        // Figures this wide never come from the thresholds; keep the order of
        // magnitude without overflowing.
        const long double v =
            static_cast<long double>(ua) * static_cast<long double>(ub) / static_cast<long double>(uc) + 0.5L;
        q = v >= 9.2e18L ? static_cast<uint64_t>(INT64_MAX) : static_cast<uint64_t>(v);
    }
    const int64_t r = q > static_cast<uint64_t>(INT64_MAX) ? INT64_MAX : static_cast<int64_t>(q);
    return (negative && a != 0 && b != 0) ? -r : r;
}

// Z_AllocateBitmap without the record checks.
int32_t allocate(BitmapHandle& b, uint32_t type) {
    b.Flags &= ~BF_STORAGE_MASK;
    if (type & TYPE_COMPRESSED) type = b.BitsPerPixel == 1 ? kTypeRunLength : (type & ~TYPE_COMPRESSED);
    if ((type & TYPE_SUPERCOMPRESSED) && b.BitsPerPixel != 24 && b.BitsPerPixel != 1) type &= ~TYPE_SUPERCOMPRESSED;
    if (!accepted_type(type)) return ST_BAD_PARAM;

    auto* map = static_cast<uint8_t*>(Z_OsAlloc(256));
    if (!map) return ST_NO_MEMORY;
    for (int i = 0; i < 256; ++i) map[i] = static_cast<uint8_t>(i);
    b.ValueMap = map;
    b.CurRow = 0;
    b.CurRowOffset = 0;

    int32_t status;
    if (type == TYPE_USER) {
        b.DataHandle = nullptr;
        b.Data = nullptr;
        b.DataOffset = 0;
        b.Flags |= BF_ALLOCATED | BF_MEMORY | BF_USER_DATA;
        return ST_OK;
    } else if (type == kTypeRunLength) {
        status = allocate_run_length(b);
        if (status == ST_OK) b.Flags |= BF_ALLOCATED | BF_MEMORY | BF_COMPRESSED;
    } else if (type == kTypeSecondForm || type == kTypeSecondFormConv) {
        status = ST_BAD_PARAM;  // the second compressed form is not built
    } else {
        status = allocate_memory(b, type);
    }
    if (status != ST_OK) {
        Z_OsFree(b.ValueMap);
        b.ValueMap = nullptr;
        b.Flags &= ~BF_ALLOCATED;
    }
    return status;
}

}  // namespace zk::storage

// ---------------------------------------------------------------------------
// Exports.
using zk::kStructSize;

extern "C" int32_t Z_API Z_AllocateBitmap(BitmapHandle* bitmap, uint32_t memoryType) {
    if (!bitmap) return ST_BAD_PARAM;
    if (bitmap->StructSize != kStructSize) return ST_BAD_STRUCT_SIZE;
    if (bitmap->Size == 0 || bitmap->Width < 0 || bitmap->Height < 0) return ST_BAD_POSITION;
    // A record edited by hand must still describe storage that holds its
    // pixels; dimensions whose sizes do not fit are refused as Z_InitBitmap
    // refuses them.
    if (!zk::valid_depth(bitmap->BitsPerPixel)) return ST_BAD_BPP;
    if (!zk::geometry_consistent(*bitmap)) {
        const int32_t s = zk::image_size(bitmap->Width, bitmap->Height, bitmap->BitsPerPixel).status;
        return s == ST_OK ? ST_BAD_PARAM : s;
    }
    if (bitmap->Size > zk::kMaxImageBytes) return ST_TOO_LARGE;
    return zk::storage::allocate(*bitmap, memoryType);
}

extern "C" void Z_API Z_FreeBitmap(BitmapHandle* bitmap) {
    if (!bitmap || bitmap->StructSize != kStructSize) return;
    if (bitmap->Region) Z_DeleteZarnRgn(static_cast<ZarnRgn*>(bitmap->Region));
    bitmap->Region = nullptr;
    Z_OsFree(bitmap->Palette);
    bitmap->Palette = nullptr;
    zk::overlays_free(bitmap->Overlays);
    bitmap->Overlays = nullptr;
    if (!(bitmap->Flags & BF_ALLOCATED)) return;
    zk::storage::release(*bitmap);
    bitmap->Flags &= ~BF_ALLOCATED;
    Z_FreeGrayParams(bitmap);
}

namespace {
// Global storage that Z_AccessBitmap / Z_ReleaseBitmap act on.
bool lockable(const BitmapHandle* b) {
    return b && b->StructSize == kStructSize && zk::storage::kind_of(*b) == zk::storage::StorageKind::Memory;
}
}  // namespace

extern "C" void Z_API Z_AccessBitmap(BitmapHandle* bitmap) {
    if (!lockable(bitmap)) return;
    if ((bitmap->Flags & BF_GLOBAL) && !(bitmap->Flags & BF_LOCKED)) {
        auto* p = static_cast<uint8_t*>(zk::platform::block_lock(bitmap->DataHandle));
        if (!p) return;
        bitmap->Data = p + bitmap->DataOffset;
        bitmap->Flags |= BF_LOCKED;
    }
}

extern "C" void Z_API Z_ReleaseBitmap(BitmapHandle* bitmap) {
    if (!lockable(bitmap)) return;
    if ((bitmap->Flags & BF_GLOBAL) && (bitmap->Flags & BF_LOCKED)) {
        zk::platform::block_unlock(bitmap->DataHandle);
        bitmap->Data = nullptr;
        bitmap->Flags &= ~BF_LOCKED;
    }
}

extern "C" int32_t Z_API Z_LockBitmap(BitmapHandle* bitmap) {
    if (bitmap && (bitmap->Flags & BF_LOCKED)) return 1;
    Z_AccessBitmap(bitmap);
    return 0;
}

extern "C" void Z_API Z_UnlockBitmap(BitmapHandle* bitmap, int32_t wasLocked) {
    if (wasLocked == 0) Z_ReleaseBitmap(bitmap);
}

extern "C" int32_t Z_API Z_SetMemoryThresholds(int32_t reserve, int32_t maxConv, int32_t tileSize, int32_t maxMemTiles,
                                               int32_t tileViews, uint32_t mask) {
    zk::ThreadState& s = zk::thread_state();
    struct Item {
        int32_t value;
        int32_t lower;
        int32_t* slot;
    };
    const Item items[] = {{reserve, -100, &s.memory_reserve},
                          {maxConv, -100, &s.max_conv_size},
                          {tileSize, 0, &s.tile_size},
                          {maxMemTiles, -100, &s.max_mem_tiles},
                          {tileViews, -100, &s.tile_views}};
    for (uint32_t k = 0; k < 5; ++k) {
        if (!(mask & (1u << k))) continue;
        if (items[k].value < items[k].lower) return ST_BAD_PARAM;
        *items[k].slot = items[k].value;
    }
    return ST_OK;
}

extern "C" int32_t Z_API Z_GetMemoryThresholds(int32_t* reserve, int32_t* maxConv, int32_t* tileSize,
                                               int32_t* maxMemTiles, int32_t* tileViews) {
    const zk::ThreadState& s = zk::thread_state();
    if (reserve) *reserve = s.memory_reserve;
    if (maxConv) *maxConv = s.max_conv_size;
    if (tileSize) *tileSize = s.tile_size;
    if (maxMemTiles) *maxMemTiles = s.max_mem_tiles;
    if (tileViews) *tileViews = s.tile_views;
    return ST_OK;
}

extern "C" int32_t Z_API Z_GetBitmapMemoryInfo(BitmapHandle* bitmap, uint32_t* memoryType, uint32_t* tileSize,
                                               uint32_t* tileCount, uint32_t* memTiles, uint32_t* maxMapped,
                                               uint32_t* mappedCount) {
    if (!zk::allocated(bitmap)) return ST_INVALID_BITMAP;
    if (bitmap->StructSize != kStructSize) return ST_BAD_STRUCT_SIZE;
    if (!memoryType) return ST_BAD_PARAM;
    *memoryType = zk::storage::memory_type(zk::storage::kind_of(*bitmap));
    if (*memoryType == TYPE_COMPRESSED) {
        const zk::storage::HeapUse heap = zk::storage::heap_use(*bitmap);
        if (tileSize) *tileSize = static_cast<uint32_t>(heap.reserved);
        if (tileCount) *tileCount = static_cast<uint32_t>(heap.live);
    }
    if (const zk::storage::TileTable* t = zk::storage::tile_table(*bitmap)) {
        if (tileSize) *tileSize = t->RowsPerTile * bitmap->BytesPerLine;
        if (tileCount) *tileCount = t->TileCount;
        if (memTiles) *memTiles = t->MemTiles;
        if (maxMapped) *maxMapped = t->MaxMapped;
        if (mappedCount) *mappedCount = t->MappedCount;
    }
    return ST_OK;
}
