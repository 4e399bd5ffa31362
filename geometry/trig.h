// Fixed-point trigonometry for the geometry code: sine and cosine of an angle
// in hundredths of a degree, scaled by 16384, read from one quarter-wave
// table; and the integer square root.
//
// May include: the C++ standard library only.
#pragma once

#include <array>
#include <cstdint>

namespace zk::trig {

// 1.0 in the fixed-point results.
constexpr int32_t kOne = 16384;
// Angles are in hundredths of a degree; a full turn is 36000.
constexpr int32_t kQuarter = 9000;
constexpr int32_t kFullTurn = 36000;

// The quarter-wave table: entry i is 16384 * sin(i / 100 degrees).
const std::array<int32_t, kQuarter + 1>& quarter_wave();

// 16384 * sin(angle) and 16384 * cos(angle). Any angle is accepted: it is
// brought into 0..35999 first, which changes nothing for 0..36000.
int32_t sin_value(int32_t angle);
int32_t cos_value(int32_t angle);

// Floor of the square root of n.
uint32_t isqrt(uint32_t n);

}  // namespace zk::trig
