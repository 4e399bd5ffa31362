#!/usr/bin/env bash
# Builds and runs every test: the 64-bit library under AddressSanitizer and
# UndefinedBehaviorSanitizer, then the 32-bit (-m32) library.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
jobs=$(nproc 2>/dev/null || echo 2)

echo "== 64-bit, sanitizers =="
cmake -S . -B build/asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZK_SANITIZE=ON -DZK_BUILD_BENCH=ON >/dev/null
cmake --build build/asan -j "$jobs"
(cd build/asan && ASAN_OPTIONS=detect_leaks=1 ctest -j "$jobs" --output-on-failure --timeout 600)

echo "== 32-bit =="
cmake -S . -B build/m32 -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZK_BUNDLED_GTEST=ON \
  -DCMAKE_C_FLAGS=-m32 -DCMAKE_CXX_FLAGS=-m32 -DCMAKE_SHARED_LINKER_FLAGS=-m32 -DCMAKE_EXE_LINKER_FLAGS=-m32 >/dev/null
cmake --build build/m32 -j "$jobs"
(cd build/m32 && ctest -j "$jobs" --output-on-failure --timeout 600)
