// Duplication of a bitmap record: a new record described like its source
// (with new dimensions and depth when asked), with storage of the source's
// kind and its own or shared palette, region and overlays.
//
// May include: include/zkernel.h, core/bitmap_handle.h.
#pragma once

#include <cstdint>

#include "zkernel.h"

namespace zk {

constexpr uint32_t kDupAll = DUP_ALLOCATE | DUP_PALETTE | DUP_REGION | DUP_OVERLAYS;
constexpr uint32_t kDupDescribed = DUP_PALETTE | DUP_REGION | DUP_OVERLAYS;

// Fills dst as a duplicate of src at the given geometry, allocating storage
// of src's kind with DUP_ALLOCATE and owning a copy of each of palette,
// region and overlays whose DUP_ flag is set (sharing src's otherwise). On
// failure dst holds nothing of its own.
int32_t duplicate(BitmapHandle* dst, BitmapHandle* src, int32_t width, int32_t height, int32_t bpp, uint32_t flags);

// The playback words and bits of src, onto dst.
void copy_playback(BitmapHandle* dst, const BitmapHandle* src);

}  // namespace zk
