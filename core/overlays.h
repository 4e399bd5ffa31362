// The overlay table a bitmap owns through its Overlays field. The overlay
// service itself lives outside this library; the kernel treats the table as
// one block from Z_OsAlloc that it copies and frees.
//
// May include: include/zkernel.h.
#pragma once

namespace zk {

// Frees the table (Z_OsFree); null is ignored.
void overlays_free(void* table);

// A new block of the same size and bytes; null for null or when no memory.
void* overlays_copy(const void* table);

}  // namespace zk
