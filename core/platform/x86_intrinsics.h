// The x86 vector intrinsics, for the files that hold kernels of the vector
// tiers (compiled only where core/platform/cpu.h sets ZK_X86_TIERS).
//
// May include: core/platform/cpu.h.
#pragma once

#include "core/platform/cpu.h"

#if ZK_X86_TIERS
// Some intrinsics start from a deliberately undefined register, which g++ 12
// reports as an uninitialised use inside the header.
#if !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#pragma GCC diagnostic ignored "-Wuninitialized"
#endif
#include <immintrin.h>
#if !defined(__clang__)
#pragma GCC diagnostic pop
#endif
#endif
