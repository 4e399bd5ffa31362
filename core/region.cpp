// The region hook table: twenty entries installed once per process by a
// companion region library, the calls that keep a bitmap's region following
// its pixels, and the release of the region record.
#include "region.h"

#include "platform/platform.h"

namespace {

Z_DISDISPATCH g_table{};
int32_t g_installed = 0;

template <typename Fn>
Fn hook(int n) {
    return reinterpret_cast<Fn>(g_table.Entry[n - 1]);
}

}  // namespace

namespace zk::region {

Z_DISPATCHPROC entry(int n) { return (n >= 1 && n <= Z_DISPATCH_ENTRIES) ? g_table.Entry[n - 1] : nullptr; }

int32_t rows_mirrored(BitmapHandle* bitmap) {
    auto fn = hook<Z_RGNBITMAPPROC>(1);
    return fn ? fn(bitmap) : ST_OK;
}

int32_t rows_flipped(BitmapHandle* bitmap) {
    auto fn = hook<Z_RGNBITMAPPROC>(19);
    return fn ? fn(bitmap) : ST_OK;
}

int32_t copy(BitmapHandle* dst, BitmapHandle* src, uint32_t word1, uint32_t word2, bool* called) {
    auto fn = hook<Z_RGNCOPYPROC>(2);
    if (called) *called = fn != nullptr;
    return fn ? fn(dst, src, word1, word2) : ST_OK;
}

int32_t kind(BitmapHandle* bitmap, int32_t* answer) {
    if (auto fn = hook<Z_RGNKINDPROC>(4)) return fn(bitmap, answer);
    if (!bitmap) return ST_INVALID_BITMAP;
    if (!answer) return ST_BAD_PARAM;
    *answer = 2;
    return ST_OK;
}

int32_t row_span(BitmapHandle* bitmap, int32_t row, int32_t* span, int32_t* answer) {
    if (auto fn = hook<Z_RGNROWSPANPROC>(5)) return fn(bitmap, row, span, answer);
    if (!bitmap) return ST_INVALID_BITMAP;
    if (!span || !answer) return ST_BAD_PARAM;
    span[0] = 0;
    span[1] = bitmap->Width;
    *answer = 2;
    return ST_OK;
}

int32_t resized(BitmapHandle* bitmap, int32_t width, int32_t height) {
    auto fn = hook<Z_RGNSIZEPROC>(6);
    return fn ? fn(bitmap, width, height) : ST_OK;
}

int32_t bounds(BitmapHandle* bitmap, uint32_t word, RECT* rect, int32_t clip) {
    if (!bitmap || !rect) return ST_BAD_PARAM;
    if (auto fn = hook<Z_RGNBOUNDSPROC>(8)) {
        int32_t r = fn(bitmap, word, rect, clip);
        if (r != ST_OK) return r;
        if (clip) {
            rect->left = rect->left > 0 ? rect->left : 0;
            rect->top = rect->top > 0 ? rect->top : 0;
            rect->right = rect->right < bitmap->Width ? rect->right : bitmap->Width;
            rect->bottom = rect->bottom < bitmap->Height ? rect->bottom : bitmap->Height;
            if (rect->right <= rect->left || rect->bottom <= rect->top) *rect = RECT{0, 0, 0, 0};
        }
        return ST_OK;
    }
    *rect = RECT{0, 0, bitmap->Width, bitmap->Height};
    return ST_OK;
}

int32_t rotated(BitmapHandle* bitmap, int32_t width, int32_t height, int32_t angle) {
    auto fn = hook<Z_RGNROTATEPROC>(13);
    return fn ? fn(bitmap, width, height, angle) : ST_OK;
}

int32_t point_allowed(BitmapHandle* bitmap, int32_t column, int32_t row) {
    if (auto fn = hook<Z_RGNPTPROC>(17)) return fn(bitmap, column, row) ? ST_OK : ST_BAD_POSITION;
    if (!bitmap || column < 0 || row < 0 || column >= bitmap->Width || row >= bitmap->Height) return ST_BAD_POSITION;
    return ST_OK;
}

void testing_restore_load_state() {
    g_table = Z_DISDISPATCH{};
    g_installed = 0;
}

}  // namespace zk::region

extern "C" int32_t Z_API Z_SetDisDispatch(const Z_DISDISPATCH* table) {
    // A null table would only crash; it is refused and nothing changes.
    if (!table) return ST_BAD_PARAM;
    g_table = *table;
    g_installed = 1;
    return ST_OK;
}

extern "C" int32_t Z_API Z_GetDisDispatch(Z_DISDISPATCH* table) {
    if (!table) return ST_BAD_PARAM;
    if (!g_table.Entry[0]) return ST_NO_DISPATCH;
    *table = g_table;
    return ST_OK;
}

extern "C" int32_t Z_CDECL Z_ResetDisDispatch(void) {
    int32_t previous = g_installed;
    if (!g_installed) g_table = Z_DISDISPATCH{};
    g_installed = 1;
    return previous;
}

extern "C" int32_t Z_API Z_DeleteZarnRgn(ZarnRgn* region) {
    if (!region) return ST_BAD_PARAM;
    region->Bounds = RECT{0, 0, 0, 0};
    Z_OsFree(region->Elements1);
    region->Elements1 = nullptr;
    region->Count1 = 0;
    Z_OsFree(region->Elements2);
    region->Elements2 = nullptr;
    region->Count2 = 0;
    // Graphic objects are GDI objects on Windows and heap blocks elsewhere.
    if (region->Object1) Z_Free(region->Object1);
    if (region->Object2) Z_Free(region->Object2);
    region->Object1 = region->Object2 = nullptr;
    Z_OsFree(region);
    return ST_OK;
}

extern "C" int32_t Z_API Z_KrnSizeBitmapRgn(BitmapHandle* bitmap, int32_t width, int32_t height) {
    return zk::region::resized(bitmap, width, height);
}
