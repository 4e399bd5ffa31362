// Copies that can go around the caches: large results written once with
// non-temporal stores do not evict the data still being read, and skip the
// read of each destination line that an ordinary store costs.
//
// May include: core/platform/cpu.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "core/platform/x86_intrinsics.h"

namespace zk::platform {

// Writes n bytes to dst; with `stream`, around the caches where the
// processor has non-temporal stores (the caller calls fence_streams before
// anyone else reads dst).
inline void write_out(uint8_t* dst, const uint8_t* src, size_t n, bool stream) {
#if ZK_X86_TIERS && defined(__SSE2__)
    if (stream && n >= 64) {
        const size_t head = (16 - reinterpret_cast<uintptr_t>(dst) % 16) % 16;
        std::memcpy(dst, src, head);
        size_t i = head;
        for (; i + 16 <= n; i += 16)
            _mm_stream_si128(reinterpret_cast<__m128i*>(dst + i),
                             _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + i)));
        std::memcpy(dst + i, src + i, n - i);
        return;
    }
#endif
    (void)stream;
    std::memcpy(dst, src, n);
}

// Orders the non-temporal stores before every later store.
inline void fence_streams() {
#if ZK_X86_TIERS && defined(__SSE2__)
    _mm_sfence();
#endif
}

}  // namespace zk::platform
