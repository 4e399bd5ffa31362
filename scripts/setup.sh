#!/usr/bin/env bash
# Installs what zkernel needs to build and test on Debian, when run as root
# and something is missing. Harmless to run again.
set -euo pipefail
need=()
command -v cmake >/dev/null || need+=(cmake)
command -v g++ >/dev/null || need+=(g++)
[ -f /usr/src/googletest/CMakeLists.txt ] || need+=(googletest)
[ -f /usr/include/gtest/gtest.h ] || need+=(libgtest-dev)
[ -f /usr/include/benchmark/benchmark.h ] || need+=(libbenchmark-dev)
# clang with its libFuzzer runtime, for the fuzz targets.
command -v clang++ >/dev/null || need+=(clang)
ls /usr/lib/llvm-*/lib/clang/*/lib/linux/libclang_rt.fuzzer-x86_64.a >/dev/null 2>&1 || need+=(libclang-rt-14-dev)
# 32-bit target: the multilib compiler.
[ -d /usr/lib/gcc/x86_64-linux-gnu/12/32 ] || need+=(g++-multilib)
if [ ${#need[@]} -gt 0 ]; then
  if [ "$(id -u)" = 0 ]; then
    echo "setup: installing ${need[*]}"
    apt-get update -qq
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${need[@]}" >/dev/null
  else
    echo "setup: missing packages: ${need[*]} (run as root to install them)" >&2
    exit 1
  fi
fi
