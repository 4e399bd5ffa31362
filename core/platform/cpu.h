// The processor's vector tier, asked once per process. Every choice between
// kernels built for different instruction sets reads cpu_tier(); nothing else
// in the library asks the processor.
//
// The tier is the highest of Portable, AVX2 and AVX512 that both the
// processor and the operating system (which must save the wider registers)
// support, capped by the environment variable ZK_CPU_TIER (portable, avx2
// or avx512; read once, at the first question; other values cap nothing)
// so that benchmarks and tests can compare tiers on one machine. Anything
// but x86 with g++ or clang is Portable.
//
// May include: the C++ standard library only.
#pragma once

#include <cstdint>

// Whether kernels for the vector tiers are built at all: x86 (64- and 32-bit)
// with g++ or clang, which take per-function target attributes.
#if defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))
#define ZK_X86_TIERS 1
#else
#define ZK_X86_TIERS 0
#endif

namespace zk::platform {

// Ordered: a tier implies everything below it.
//  AVX2    AVX and AVX2 with the 256-bit register state enabled.
//  AVX512  AVX512 F, BW, VBMI, VNNI and GFNI with the full 512-bit state
//          enabled (the byte permutes, byte dot products and bit-matrix
//          products the 512-bit kernels use).
enum class CpuTier : uint8_t { Portable = 0, AVX2 = 1, AVX512 = 2 };

constexpr CpuTier kCpuTiers[] = {CpuTier::Portable, CpuTier::AVX2, CpuTier::AVX512};

// The tier kernels are chosen for: the processor's, capped by ZK_CPU_TIER
// and by set_cpu_tier_cap.
CpuTier cpu_tier();

// What the processor and the OS support, without any cap.
CpuTier cpu_tier_supported();

// "portable", "avx2", "avx512".
const char* cpu_tier_name(CpuTier tier);

// Test seam, process-wide: caps the tier further (never above what the
// processor supports and ZK_CPU_TIER allows) and returns the previous cap,
// which a caller restores the same way. Takes effect for the next choice.
CpuTier set_cpu_tier_cap(CpuTier cap);

}  // namespace zk::platform
