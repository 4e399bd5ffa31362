// Holding kernels of every processor tier to their reference in one run:
// a parameter per tier, the tier capped while a test runs, and a visible
// skip for a tier the processor (or ZK_CPU_TIER) does not allow.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "core/platform/cpu.h"

namespace zktest {

using zk::platform::CpuTier;

// Caps the processor tier for its lifetime.
class TierCap {
public:
    explicit TierCap(CpuTier tier) : previous_(zk::platform::set_cpu_tier_cap(tier)) {}
    ~TierCap() { zk::platform::set_cpu_tier_cap(previous_); }
    TierCap(const TierCap&) = delete;
    TierCap& operator=(const TierCap&) = delete;

private:
    CpuTier previous_;
};

// Why `tier` cannot run here, or empty when it can (under the cap in force).
inline std::string tier_unavailable(CpuTier tier) {
    if (tier > zk::platform::cpu_tier_supported())
        return std::string("this processor lacks the ") + zk::platform::cpu_tier_name(tier) +
               " tier (AVX2 needs AVX, AVX2 and the OS saving 256-bit state; AVX512 needs AVX512 F, BW, VBMI, VNNI, "
               "GFNI "
               "and the OS saving 512-bit state): its kernels are not tested here";
    TierCap probe(tier);
    if (zk::platform::cpu_tier() != tier)
        return std::string("the ") + zk::platform::cpu_tier_name(tier) + " tier is capped by ZK_CPU_TIER";
    return {};
}

inline std::string tier_test_name(const testing::TestParamInfo<CpuTier>& info) {
    return zk::platform::cpu_tier_name(info.param);
}

}  // namespace zktest

// Skips the current test, by name of the tier and reason, when the tier
// cannot run; otherwise caps the processor tier to it for the test's scope.
#define ZK_RUN_AT_TIER(tier)                                                    \
    if (const std::string why = zktest::tier_unavailable(tier); !why.empty()) { \
        GTEST_SKIP() << why;                                                    \
    }                                                                           \
    const zktest::TierCap zk_tier_cap_(tier)
