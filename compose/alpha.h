// The alpha channel exchanged with a separate gray bitmap: extracted into a
// new bitmap (Z_GetBitmapAlpha) or written into a colour bitmap, which is
// converted to 32 or 64 bits first when its pixels have no alpha
// (Z_SetBitmapAlpha).
//
// May include: include/zkernel.h.
#pragma once

#include <cstdint>

#include "zkernel.h"

namespace zk::compose {

// The slot for a hook told of every alpha bitmap Z_GetBitmapAlpha allocates,
// with (alpha, source, 0, 0), before any pixel is written; a result other
// than ST_OK frees the alpha bitmap and is returned. Process-wide; empty
// unless a part of the library fills it (null empties it).
using AllocationHook = int32_t (*)(BitmapHandle* allocated, BitmapHandle* source, int32_t, int32_t);
void set_allocation_hook(AllocationHook hook);

}  // namespace zk::compose
