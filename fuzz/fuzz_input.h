// Shared pieces of the fuzz targets: a reader that takes big-endian values
// from the input (zeros once it runs out) and a check that stops the run.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zkfuzz {

inline void check(bool ok) {
    if (!ok) __builtin_trap();
}

struct Reader {
    const uint8_t* p;
    size_t n;
    uint32_t take(int bytes) {
        uint32_t v = 0;
        for (int i = 0; i < bytes && n; ++i, ++p, --n) v = (v << 8) | *p;
        return v;
    }
};

}  // namespace zkfuzz
