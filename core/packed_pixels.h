// Reading and writing single pixels of the packed depths, keyed on the
// format table's packing: fields of 1..8 bits from the most significant bit
// (3, 5, 6 and 7 may straddle two bytes) and 12-bit gray samples two to
// three bytes. Every other piece of code that touches a pixel narrower than
// a byte, or a 12-bit one, goes through here.
//
// May include: core/pixel_format.h.
#pragma once

#include <cstddef>
#include <cstdint>

#include "core/pixel_format.h"

namespace zk::packed {

// Whether a field of `bits` bits at bit `off` of its byte lies in that byte:
// always at 1, 2, 4 and 8 bits, which divide the byte. Saying so first
// lets a caller with a constant depth drop the two-byte path (and keep the
// one-byte path in line).
constexpr bool single_byte(uint32_t off, uint32_t bits) { return (bits & (bits - 1)) == 0 || off + bits <= 8; }

// Field i of `bits` bits (1..8), most significant bit first.
inline uint32_t get_field(const uint8_t* row, uint64_t i, uint32_t bits) {
    const uint64_t p = i * bits;
    const uint8_t* q = row + (p >> 3);
    const auto off = static_cast<uint32_t>(p & 7);
    const uint32_t mask = (1u << bits) - 1;
    if (single_byte(off, bits)) return (q[0] >> (8 - off - bits)) & mask;
    return ((uint32_t{q[0]} << 8 | q[1]) >> (16 - off - bits)) & mask;
}

// Stores v (its low `bits` bits) as field i; every other bit is kept.
inline void put_field(uint8_t* row, uint64_t i, uint32_t bits, uint32_t v) {
    const uint64_t p = i * bits;
    uint8_t* q = row + (p >> 3);
    const auto off = static_cast<uint32_t>(p & 7);
    const uint32_t mask = (1u << bits) - 1;
    v &= mask;
    if (single_byte(off, bits)) {
        const uint32_t s = 8 - off - bits;
        q[0] = static_cast<uint8_t>((q[0] & ~(mask << s)) | (v << s));
        return;
    }
    const uint32_t s = 16 - off - bits;
    const uint32_t w = ((uint32_t{q[0]} << 8 | q[1]) & ~(mask << s)) | (v << s);
    q[0] = static_cast<uint8_t>(w >> 8);
    q[1] = static_cast<uint8_t>(w);
}

// 12-bit sample i: sample 2k in bits 0-11 of the little-endian word at byte
// 3k, sample 2k+1 in bits 4-15 of the word at byte 3k+1.
inline uint32_t get12(const uint8_t* row, uint64_t i) {
    const uint8_t* q = row + static_cast<size_t>(i + (i >> 1));
    const uint32_t w = q[0] | uint32_t{q[1]} << 8;
    return (i & 1) ? w >> 4 : w & 0xFFFu;
}

// Stores the low 12 bits of v as sample i; the neighbour's bits are kept.
inline void put12(uint8_t* row, uint64_t i, uint32_t v) {
    uint8_t* q = row + static_cast<size_t>(i + (i >> 1));
    if (i & 1) {
        q[0] = static_cast<uint8_t>((q[0] & 0x0Fu) | (v & 0xFu) << 4);
        q[1] = static_cast<uint8_t>(v >> 4);
    } else {
        q[0] = static_cast<uint8_t>(v);
        q[1] = static_cast<uint8_t>((q[1] & 0xF0u) | (v >> 8 & 0xFu));
    }
}

// Whether a depth's pixels are read through get()/put() below: fields of
// 1..8 bits and 12-bit samples.
constexpr bool packed_depth(int32_t bpp) {
    const Packing p = pixel_format(bpp).packing;
    return p == Packing::Fields || p == Packing::Gray12 || (p == Packing::Byte && bpp == 8);
}

// Pixel i of a packed depth (packed_depth(bpp)): its index or sample.
inline uint32_t get(const uint8_t* row, uint64_t i, int32_t bpp) {
    if (pixel_format(bpp).packing == Packing::Gray12) return get12(row, i);
    return bpp == 8 ? row[i] : get_field(row, i, static_cast<uint32_t>(bpp));
}

// Stores pixel i of a packed depth; every other bit of the row is kept.
inline void put(uint8_t* row, uint64_t i, int32_t bpp, uint32_t v) {
    if (pixel_format(bpp).packing == Packing::Gray12)
        put12(row, i, v);
    else if (bpp == 8)
        row[i] = static_cast<uint8_t>(v);
    else
        put_field(row, i, static_cast<uint32_t>(bpp), v);
}

}  // namespace zk::packed
