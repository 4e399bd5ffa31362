// Fixed-point sine and cosine from a quarter-wave table, and the integer
// square root. Exports: Z_SinValue, Z_CosValue, Z_SQRT.
//
// May include: include/zkernel.h, geometry/trig.h.
#include "geometry/trig.h"

#include "zkernel.h"

namespace zk::trig {
namespace {

// Pi to the precision of a double.
constexpr double kPi = 3.14159265358979323846;

// Taylor series of sin and cos for 0 <= x <= pi/4, where twelve terms are
// far below half a unit in the last place of a double.
constexpr double taylor_sin(double x) {
    const double x2 = x * x;
    double term = x, sum = x;
    for (int k = 1; k < 12; ++k) {
        term *= -x2 / ((2.0 * k) * (2.0 * k + 1.0));
        sum += term;
    }
    return sum;
}

constexpr double taylor_cos(double x) {
    const double x2 = x * x;
    double term = 1.0, sum = 1.0;
    for (int k = 1; k < 12; ++k) {
        term *= -x2 / ((2.0 * k - 1.0) * (2.0 * k));
        sum += term;
    }
    return sum;
}

// sin(i / 100 degrees) for 0 <= i <= 9000: the series of sin up to 45
// degrees, and above it the series of cos of the complement, so that the
// argument of either series stays at or below pi/4.
constexpr double sin_hundredths(int i) {
    return i <= kQuarter / 2 ? taylor_sin(i * kPi / 18000.0) : taylor_cos((kQuarter - i) * kPi / 18000.0);
}

// The quarter-wave table. Rule: entry i = 16384 * sin(i / 100 degrees)
// rounded to the nearest integer, for i = 0 .. 9000 (every value is
// non-negative, so adding one half and truncating rounds it). Entry 3000 is
// 8192 (sin 30 = 1/2), entry 4500 is 11585, entry 9000 is 16384.
constexpr std::array<int32_t, kQuarter + 1> make_quarter_wave() {
    std::array<int32_t, kQuarter + 1> t{};
    for (int i = 0; i <= kQuarter; ++i) t[i] = static_cast<int32_t>(kOne * sin_hundredths(i) + 0.5);
    return t;
}

constexpr std::array<int32_t, kQuarter + 1> kQuarterWave = make_quarter_wave();

static_assert(kQuarterWave[0] == 0 && kQuarterWave[1] == 3 && kQuarterWave[100] == 286);
static_assert(kQuarterWave[3000] == 8192 && kQuarterWave[4500] == 11585 && kQuarterWave[6000] == 14189);
static_assert(kQuarterWave[8999] == kOne && kQuarterWave[9000] == kOne);

// 0..35999. Angles already in 0..36000 are kept, so 36000 reads the table at
// its own end rather than at 0; both give the same values.
constexpr int32_t normalised(int32_t angle) {
    if (angle >= 0 && angle <= kFullTurn) return angle;
    const int32_t r = angle % kFullTurn;
    return r < 0 ? r + kFullTurn : r;
}

}  // namespace

const std::array<int32_t, kQuarter + 1>& quarter_wave() { return kQuarterWave; }

int32_t sin_value(int32_t angle) {
    const int32_t a = normalised(angle);
    const auto& t = kQuarterWave;
    if (a <= 9000) return t[a];
    if (a <= 18000) return t[18000 - a];
    if (a <= 27000) return -t[a - 18000];
    return -t[36000 - a];
}

int32_t cos_value(int32_t angle) {
    const int32_t a = normalised(angle);
    const auto& t = kQuarterWave;
    if (a <= 9000) return t[9000 - a];
    if (a <= 18000) return -t[a - 9000];
    if (a <= 27000) return -t[27000 - a];
    return t[a - 27000];
}

// Heron's iteration from n / 2: each round replaces x by the smaller of x and
// n / x plus half their distance, and stops when that half is 0. It ends on
// the floor of the square root for every 32-bit n.
uint32_t isqrt(uint32_t n) {
    if (n == 0) return 0;
    if (n < 4) return 1;
    uint32_t x = n >> 1;
    for (;;) {
        const uint32_t q = n / x;
        const uint32_t d = (x > q ? x - q : q - x) / 2;
        x = (x < q ? x : q) + d;
        if (d == 0) return x;
    }
}

}  // namespace zk::trig

extern "C" int32_t Z_API Z_SinValue(int32_t angle) { return zk::trig::sin_value(angle); }

extern "C" int32_t Z_API Z_CosValue(int32_t angle) { return zk::trig::cos_value(angle); }

extern "C" uint32_t Z_API Z_SQRT(uint32_t n) { return zk::trig::isqrt(n); }
