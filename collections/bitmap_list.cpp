// Bitmap lists: an ordered, growable array of bitmap records held by value.
//
// A list is the handle of a movable block holding a small header (record
// count and the record array). The array is a Z_OsAlloc block resized with
// Z_OsReAlloc and released when the list becomes empty. Inserting a record
// hands the storage it describes to the list; removing it hands it back.
//
// May include: include/zkernel.h, core/bitmap_handle.h, core/platform/platform.h.
#include <cstring>

#include "bitmap_handle.h"
#include "platform/platform.h"

namespace zk {
namespace {

namespace pf = zk::platform;

struct ListHeader {
    uint32_t count;
    BitmapHandle* items;
};

constexpr size_t kRecord = sizeof(BitmapHandle);

// Locks the list's block for the lifetime of the object.
class LockedList {
public:
    explicit LockedList(BitmapList list) : block_(list) {
        if (block_) header_ = static_cast<ListHeader*>(pf::block_lock(block_));
    }
    ~LockedList() {
        if (header_) pf::block_unlock(block_);
    }
    LockedList(const LockedList&) = delete;
    LockedList& operator=(const LockedList&) = delete;
    ListHeader* operator->() const { return header_; }
    explicit operator bool() const { return header_ != nullptr; }

private:
    pf::BlockHandle block_;
    ListHeader* header_ = nullptr;
};

// Room for `count` records, or false when the byte count does not fit.
bool array_bytes(uint32_t count, size_t* bytes) {
    if (static_cast<uint64_t>(count) * kRecord > SIZE_MAX) return false;
    *bytes = static_cast<size_t>(count) * kRecord;
    return true;
}

// Resizes the array to hold the current count after records were taken out;
// frees it when the list is empty. A failed shrink keeps the larger array.
void shrink(ListHeader* h) {
    if (h->count == 0) {
        Z_OsFree(h->items);
        h->items = nullptr;
        return;
    }
    if (void* smaller = Z_OsReAlloc(h->items, static_cast<size_t>(h->count) * kRecord))
        h->items = static_cast<BitmapHandle*>(smaller);
}

// Takes `n` records out at `index`, closing the gap (no shrinking).
void close_gap(ListHeader* h, uint32_t index, uint32_t n) {
    const uint32_t tail = h->count - index - n;
    if (tail) std::memmove(h->items + index, h->items + index + n, static_cast<size_t>(tail) * kRecord);
    h->count -= n;
}

int32_t insert(ListHeader* h, uint32_t index, const BitmapHandle& item) {
    size_t bytes = 0;
    if (h->count == UINT32_MAX || !array_bytes(h->count + 1, &bytes)) return ST_NO_MEMORY;
    auto* grown = static_cast<BitmapHandle*>(h->items ? Z_OsReAlloc(h->items, bytes) : Z_OsAlloc(bytes));
    if (!grown) return ST_NO_MEMORY;
    h->items = grown;
    const uint32_t at = index < h->count ? index : h->count;
    if (at < h->count) std::memmove(h->items + at + 1, h->items + at, static_cast<size_t>(h->count - at) * kRecord);
    std::memcpy(h->items + at, &item, kRecord);
    ++h->count;
    return ST_OK;
}

// Removes one record; with `out` the record is copied there first and must
// be a valid record, else the list stays unchanged.
int32_t remove(ListHeader* h, uint32_t index, BitmapHandle* out) {
    if (index >= h->count) return ST_BAD_PARAM;
    if (out) {
        std::memcpy(out, h->items + index, kRecord);
        if (out->StructSize != kStructSize) return ST_BAD_STRUCT_SIZE;
    }
    close_gap(h, index, 1);
    shrink(h);
    return ST_OK;
}

// Creates an empty list.
int32_t create(BitmapList* list) {
    pf::BlockHandle block = pf::block_alloc(sizeof(ListHeader), true);
    if (!block) return ST_NO_MEMORY;
    *list = block;
    return ST_OK;
}

// Frees every record the list holds, the array and the header. Slots that do
// not hold a record (zeroed by Z_SetBitmapListItem) are dropped as they are.
void destroy(BitmapList list) {
    {
        LockedList h(list);
        if (!h) return;
        while (h->count) {
            BitmapHandle record;
            const int32_t r = remove(h.operator->(), 0, &record);
            if (r == ST_OK) {
                Z_FreeBitmap(&record);
            } else {
                close_gap(h.operator->(), 0, 1);
            }
        }
        Z_OsFree(h->items);
        h->items = nullptr;
    }
    pf::block_free(list);
}

}  // namespace
}  // namespace zk

using zk::LockedList;

extern "C" int32_t Z_API Z_CreateBitmapList(BitmapList* list) {
    if (!list) return ST_BAD_PARAM;
    *list = nullptr;
    return zk::create(list);
}

extern "C" int32_t Z_API Z_DestroyBitmapList(BitmapList list) {
    {
        LockedList h(list);
        if (!h) return ST_BAD_PARAM;
    }
    zk::destroy(list);
    return ST_OK;
}

extern "C" int32_t Z_API Z_GetBitmapListCount(BitmapList list, uint32_t* count) {
    LockedList h(list);
    if (!h || !count) return ST_BAD_PARAM;
    *count = h->count;
    return ST_OK;
}

extern "C" int32_t Z_API Z_InsertBitmapListItem(BitmapList list, uint32_t index, const BitmapHandle* item) {
    LockedList h(list);
    if (!h || !item) return ST_BAD_PARAM;
    if (item->StructSize != zk::kStructSize) return ST_BAD_STRUCT_SIZE;
    return zk::insert(h.operator->(), index, *item);
}

extern "C" int32_t Z_API Z_RemoveBitmapListItem(BitmapList list, uint32_t index, BitmapHandle* item) {
    LockedList h(list);
    if (!h) return ST_BAD_PARAM;
    return zk::remove(h.operator->(), index, item);
}

extern "C" int32_t Z_API Z_DeleteBitmapListItems(BitmapList list, uint32_t index, uint32_t count) {
    LockedList h(list);
    if (!h) return ST_BAD_PARAM;
    if (index >= h->count || count == 0) return ST_BAD_PARAM;
    const uint32_t n = (h->count - index < count) ? h->count - index : count;
    for (uint32_t i = 0; i < n; ++i) {
        BitmapHandle record;
        const int32_t r = zk::remove(h.operator->(), index, &record);
        if (r != ST_OK) return r;
        Z_FreeBitmap(&record);
    }
    return ST_OK;
}

extern "C" int32_t Z_API Z_GetBitmapListItem(BitmapList list, uint32_t index, BitmapHandle* item, int32_t structSize) {
    LockedList h(list);
    if (!h || index >= h->count || !item) return ST_BAD_PARAM;
    if (structSize != Z_BITMAPHANDLE_SIZE) return ST_BAD_STRUCT_SIZE;
    std::memcpy(item, h->items + index, zk::kRecord);
    return ST_OK;
}

extern "C" int32_t Z_API Z_SetBitmapListItem(BitmapList list, uint32_t index, const BitmapHandle* item) {
    LockedList h(list);
    if (!h || index >= h->count) return ST_BAD_PARAM;
    if (!item) {
        std::memset(h->items + index, 0, zk::kRecord);
        return ST_OK;
    }
    if (item->StructSize != zk::kStructSize) return ST_BAD_STRUCT_SIZE;
    std::memcpy(h->items + index, item, zk::kRecord);
    return ST_OK;
}

extern "C" int32_t Z_API Z_CopyBitmapListItems(BitmapList* newList, BitmapList list, uint32_t index, uint32_t count) {
    if (!newList) return ST_BAD_PARAM;
    LockedList h(list);
    if (!h) return ST_BAD_PARAM;
    *newList = nullptr;
    BitmapList out = nullptr;
    int32_t r = zk::create(&out);
    if (r != ST_OK) return r;
    const uint32_t n = index >= h->count ? 0 : ((h->count - index < count) ? h->count - index : count);
    {
        LockedList o(out);
        for (uint32_t i = 0; i < n && r == ST_OK; ++i) {
            BitmapHandle copy{};
            r = Z_CopyBitmap(&copy, h->items + index + i, Z_BITMAPHANDLE_SIZE);
            if (r != ST_OK) break;
            r = zk::insert(o.operator->(), Z_LIST_APPEND, copy);
            if (r != ST_OK) Z_FreeBitmap(&copy);
        }
    }
    if (r != ST_OK) {
        zk::destroy(out);
        return r;
    }
    *newList = out;
    return ST_OK;
}

extern "C" int32_t Z_API Z_MoveBitmapListItems(BitmapList* newList, BitmapList list, uint32_t index, uint32_t count) {
    LockedList h(list);
    if (!h || index >= h->count || count == 0 || !newList) return ST_BAD_PARAM;
    *newList = nullptr;
    const uint32_t n = (h->count - index < count) ? h->count - index : count;
    BitmapList out = nullptr;
    int32_t r = zk::create(&out);
    if (r != ST_OK) return r;
    {
        LockedList o(out);
        auto* items = static_cast<BitmapHandle*>(Z_OsAlloc(static_cast<size_t>(n) * zk::kRecord));
        if (!o || !items) {
            Z_OsFree(items);
            r = ST_NO_MEMORY;
        } else {
            std::memcpy(items, h->items + index, static_cast<size_t>(n) * zk::kRecord);
            o->items = items;
            o->count = n;
        }
    }
    if (r != ST_OK) {
        zk::platform::block_free(out);
        return r;
    }
    zk::close_gap(h.operator->(), index, n);
    zk::shrink(h.operator->());
    *newList = out;
    return ST_OK;
}
