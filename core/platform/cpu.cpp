// The processor probe behind cpu.h: cpuid and the OS-enabled register state
// (XCR0) on x86 with g++ or clang, Portable everywhere else.
#include "core/platform/cpu.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

#if ZK_X86_TIERS
#include <cpuid.h>
#endif

namespace zk::platform {
namespace {

#if ZK_X86_TIERS
// XCR0 through xgetbv; valid only once CPUID says OSXSAVE (the OS uses
// xsave, so the instruction exists and the register tells what it saves).
uint64_t enabled_state() {
    uint32_t lo = 0, hi = 0;
    __asm__ volatile("xgetbv" : "=a"(lo), "=d"(hi) : "c"(0));
    return uint64_t{hi} << 32 | lo;
}

CpuTier probe() {
    uint32_t a = 0, b = 0, c = 0, d = 0;
    if (!__get_cpuid(0, &a, &b, &c, &d) || a < 7) return CpuTier::Portable;
    if (!__get_cpuid(1, &a, &b, &c, &d)) return CpuTier::Portable;
    constexpr uint32_t kOsxsave = 1u << 27, kAvx = 1u << 28;
    if ((c & (kOsxsave | kAvx)) != (kOsxsave | kAvx)) return CpuTier::Portable;
    const uint64_t xcr0 = enabled_state();
    // SSE and AVX state (bits 1, 2); opmask, upper halves of zmm0-15 and
    // zmm16-31 (bits 5, 6, 7).
    constexpr uint64_t kYmmState = 0x6, kZmmState = 0xE0;
    if ((xcr0 & kYmmState) != kYmmState) return CpuTier::Portable;
    __cpuid_count(7, 0, a, b, c, d);
    constexpr uint32_t kAvx2 = 1u << 5, kAvx512F = 1u << 16, kAvx512BW = 1u << 30;      // leaf 7 EBX
    constexpr uint32_t kAvx512Vbmi = 1u << 1, kGfni = 1u << 8, kAvx512Vnni = 1u << 11;  // leaf 7 ECX
    if (!(b & kAvx2)) return CpuTier::Portable;
    const bool wide = (xcr0 & kZmmState) == kZmmState && (b & (kAvx512F | kAvx512BW)) == (kAvx512F | kAvx512BW) &&
                      (c & (kAvx512Vbmi | kGfni | kAvx512Vnni)) == (kAvx512Vbmi | kGfni | kAvx512Vnni);
    return wide ? CpuTier::AVX512 : CpuTier::AVX2;
}
#else
CpuTier probe() { return CpuTier::Portable; }
#endif

// ZK_CPU_TIER as a cap; unset or unknown values cap nothing.
CpuTier environment_cap() {
    const char* v = std::getenv("ZK_CPU_TIER");
    if (!v) return CpuTier::AVX512;
    for (const CpuTier t : kCpuTiers)
        if (std::strcmp(v, cpu_tier_name(t)) == 0) return t;
    return CpuTier::AVX512;
}

CpuTier lower(CpuTier a, CpuTier b) { return a < b ? a : b; }

struct Probe {
    Probe() : supported(probe()), allowed(lower(supported, environment_cap())), effective(uint8_t(allowed)) {}
    const CpuTier supported;
    const CpuTier allowed;           // supported, capped by the environment
    std::atomic<uint8_t> effective;  // allowed, capped by the test seam
};

// Made at the first question, once (thread-safe static initialisation).
Probe& state() {
    static Probe p;
    return p;
}

}  // namespace

CpuTier cpu_tier() { return static_cast<CpuTier>(state().effective.load(std::memory_order_relaxed)); }

CpuTier cpu_tier_supported() { return state().supported; }

const char* cpu_tier_name(CpuTier tier) {
    switch (tier) {
        case CpuTier::AVX2: return "avx2";
        case CpuTier::AVX512: return "avx512";
        default: return "portable";
    }
}

CpuTier set_cpu_tier_cap(CpuTier cap) {
    Probe& p = state();
    return static_cast<CpuTier>(
        p.effective.exchange(static_cast<uint8_t>(lower(cap, p.allowed)), std::memory_order_relaxed));
}

}  // namespace zk::platform
