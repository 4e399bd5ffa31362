// What each depth stores and how: one constant table that every layer asks
// (valid depths, row lengths, column offsets, colour orders, the fetch and
// store pieces of conversion), instead of switches on the depth in each.
//
// Depth 0 is not a bitmap depth: conversion takes it for one byte of gray.
//
// May include: include/zkernel.h.
#pragma once

#include <cstdint>

#include "zkernel.h"

namespace zk {

// How a depth's pixels sit in a row.
enum class Packing : uint8_t {
    None,        // not a depth
    Fields,      // 1..7-bit palette indices from the most significant bit; 3, 5, 6, 7 may straddle bytes
    Byte,        // one byte: a palette index (8) or a gray level (0)
    Gray12,      // two 12-bit gray samples in three bytes
    Word16,      // one little-endian word: 5-5-5 colour fields or a gray sample
    Channels8,   // 8-bit colour channels, then 8-bit alpha when there are four
    Channels16,  // little-endian 16-bit colour channels, then 16-bit alpha when there are four
};

// One bit per colour order (CO_RGB, CO_BGR, CO_GRAY, CO_ALT_BGR).
constexpr uint8_t order_bit(uint32_t order) { return order < 8 ? static_cast<uint8_t>(1u << order) : 0; }
constexpr uint8_t kAllOrders = order_bit(CO_RGB) | order_bit(CO_BGR) | order_bit(CO_GRAY) | order_bit(CO_ALT_BGR);

struct PixelFormat {
    uint8_t bits = 0;  // stored bits per pixel
    Packing packing = Packing::None;
    bool bitmap = false;    // a bitmap may have this depth
    bool indexed = false;   // pixels are palette indices
    uint8_t channels = 0;   // stored samples per pixel, alpha included
    bool alpha = false;     // the last of them is alpha
    uint8_t gray_bits = 0;  // bits of a gray sample stored as such under CO_GRAY (0: gray only through a palette)
    uint8_t orders = 0;     // colour orders the depth takes, as source or destination (order_bit)
};

constexpr int32_t kMaxDepth = 64;

namespace detail {

struct PixelFormatTable {
    PixelFormat at[kMaxDepth + 1];
};

constexpr PixelFormatTable make_pixel_formats() {
    PixelFormatTable t{};
    const uint8_t colour = order_bit(CO_RGB) | order_bit(CO_BGR);
    t.at[0] = {8, Packing::Byte, false, false, 1, false, 8, kAllOrders};
    for (uint8_t d = 1; d <= 7; ++d) t.at[d] = {d, Packing::Fields, true, true, 1, false, 0, kAllOrders};
    t.at[8] = {8, Packing::Byte, true, true, 1, false, 0, kAllOrders};
    t.at[12] = {12, Packing::Gray12, true, false, 1, false, 12, order_bit(CO_GRAY)};
    t.at[16] = {16, Packing::Word16, true, false, 3, false, 16, static_cast<uint8_t>(colour | order_bit(CO_GRAY))};
    t.at[24] = {24, Packing::Channels8, true, false, 3, false, 0, static_cast<uint8_t>(colour | order_bit(CO_ALT_BGR))};
    t.at[32] = {32, Packing::Channels8, true, false, 4, true, 0, colour};
    t.at[48] = {
        48, Packing::Channels16, true, false, 3, false, 0, static_cast<uint8_t>(colour | order_bit(CO_ALT_BGR))};
    t.at[64] = {64, Packing::Channels16, true, false, 4, true, 0, colour};
    return t;
}

inline constexpr PixelFormatTable kPixelFormats = make_pixel_formats();

}  // namespace detail

// The format of a depth; a format with Packing::None for anything else.
constexpr const PixelFormat& pixel_format(int64_t depth) {
    return detail::kPixelFormats.at[depth >= 0 && depth <= kMaxDepth ? depth : 9];  // 9 is no depth
}

// Depths a bitmap may have.
constexpr bool valid_depth(int64_t bpp) { return pixel_format(bpp).bitmap; }

// Depths conversion takes: the bitmap depths and 0.
constexpr bool convertible_depth(int64_t bpp) { return pixel_format(bpp).packing != Packing::None; }

// Whether a depth takes a colour order (CO_ values).
constexpr bool takes_order(int64_t bpp, int64_t order) {
    return order >= 0 && order < 8 && (pixel_format(bpp).orders & order_bit(static_cast<uint32_t>(order))) != 0;
}

// Byte offset of pixel column c inside a row of `bpp`-bit pixels (the byte
// holding its first bit).
constexpr uint64_t column_offset(int32_t bpp, uint32_t c) { return (uint64_t{c} * pixel_format(bpp).bits) >> 3; }

}  // namespace zk
