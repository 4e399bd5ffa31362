// Fixed-point sine and cosine against the floating-point functions over
// every angle, and the integer square root against an exact model.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <random>

#include "test_support.h"

namespace {

constexpr long double kPi = 3.141592653589793238462643383279502884L;

// 16384 * sin(hundredths / 100 degrees), rounded half away from zero.
long fixed_sin(int64_t hundredths) { return std::lround(16384.0L * std::sin(hundredths * kPi / 18000.0L)); }
long fixed_cos(int64_t hundredths) { return std::lround(16384.0L * std::cos(hundredths * kPi / 18000.0L)); }

// floor(sqrt(n)) checked by squaring in 64 bits.
uint32_t exact_isqrt(uint32_t n) {
    uint64_t x = static_cast<uint64_t>(std::sqrt(static_cast<double>(n)));
    while (x * x > n) --x;
    while ((x + 1) * (x + 1) <= n) ++x;
    return static_cast<uint32_t>(x);
}

TEST(Trig, EveryAngleMatchesTheRoundedFunctions) {
    // 0..9000 covers every table entry (through sine, and through cosine of
    // the complement); the rest every quadrant rule.
    for (int32_t a = 0; a <= 36000; ++a) {
        ASSERT_EQ(Z_SinValue(a), fixed_sin(a)) << "sin " << a;
        ASSERT_EQ(Z_CosValue(a), fixed_cos(a)) << "cos " << a;
    }
}

TEST(Trig, NamedValues) {
    struct Case {
        int32_t angle, sin, cos;
    } cases[] = {
        {0, 0, 16384},           {1, 3, 16384},          {100, 286, 16382}, {3000, 8192, 14189},
        {4500, 11585, 11585},    {6000, 14189, 8192},    {8999, 16384, 3},  {9000, 16384, 0},
        {18000, 0, -16384},      {27000, -16384, 0},     {36000, 0, 16384}, {13500, 11585, -11585},
        {22500, -11585, -11585}, {31500, -11585, 11585},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(Z_SinValue(c.angle), c.sin) << c.angle;
        EXPECT_EQ(Z_CosValue(c.angle), c.cos) << c.angle;
    }
}

TEST(Trig, AnglesOutsideOneTurnAreTakenModuloATurn) {
    std::mt19937 rng(7);
    std::uniform_int_distribution<int32_t> any(INT32_MIN, INT32_MAX);
    const int32_t fixed[] = {-1, -9000, -36000, -36001, 36001, 45000, 72000, INT32_MIN, INT32_MAX, INT32_MIN + 1};
    auto check = [](int32_t a) {
        const int64_t reduced = ((int64_t{a} % 36000) + 36000) % 36000;
        ASSERT_EQ(Z_SinValue(a), fixed_sin(reduced)) << a;
        ASSERT_EQ(Z_CosValue(a), fixed_cos(reduced)) << a;
    };
    for (int32_t a : fixed) check(a);
    for (int i = 0; i < 100000; ++i) check(any(rng));
}

TEST(Sqrt, EdgesSquaresAndRandomValues) {
    const uint32_t edges[][2] = {{0, 0},
                                 {1, 1},
                                 {2, 1},
                                 {3, 1},
                                 {4, 2},
                                 {15, 3},
                                 {16, 4},
                                 {17, 4},
                                 {24, 4},
                                 {25, 5},
                                 {99, 9},
                                 {4294836224u, 65534},
                                 {4294836225u, 65535},
                                 {4294967295u, 65535}};
    for (const auto& e : edges) EXPECT_EQ(Z_SQRT(e[0]), e[1]) << e[0];
    // Every square and its neighbours.
    for (uint64_t k = 1; k <= 65535; ++k) {
        const uint32_t sq = static_cast<uint32_t>(k * k);
        ASSERT_EQ(Z_SQRT(sq), k);
        ASSERT_EQ(Z_SQRT(sq - 1), k - 1);
        ASSERT_EQ(Z_SQRT(sq + 1), k);
    }
    // Every value below 2^20, and a million above.
    for (uint32_t n = 0; n < (1u << 20); ++n) ASSERT_EQ(Z_SQRT(n), exact_isqrt(n)) << n;
    std::mt19937 rng(11);
    for (int i = 0; i < 1000000; ++i) {
        const uint32_t n = rng();
        ASSERT_EQ(Z_SQRT(n), exact_isqrt(n)) << n;
    }
}

}  // namespace
