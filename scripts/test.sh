#!/usr/bin/env bash
# Builds and runs every test: the 64-bit library under AddressSanitizer and
# UndefinedBehaviorSanitizer, the thread stress test under ThreadSanitizer,
# the fuzz targets briefly, then the 32-bit (-m32) library.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh test
jobs=$(nproc 2>/dev/null || echo 2)

echo "== 64-bit, sanitizers =="
cmake -S . -B build/asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZK_SANITIZE=ON -DZK_BUILD_BENCH=ON >/dev/null
cmake --build build/asan -j "$jobs"
(cd build/asan && ASAN_OPTIONS=detect_leaks=1 ctest -j "$jobs" --output-on-failure --timeout 600)

echo "== threads, ThreadSanitizer =="
cmake -S . -B build/tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZK_SANITIZE_THREAD=ON >/dev/null
cmake --build build/tsan -j "$jobs" --target test_threads
TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" ZK_TEST_TMP="$PWD/build/tsan/tmp" build/tsan/tests/test_threads

if command -v clang++ >/dev/null; then
  echo "== fuzz targets, a short run each (clang, libFuzzer) =="
  cmake -S . -B build/fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
    -DZK_BUILD_FUZZ=ON -DZK_BUILD_TESTS=OFF >/dev/null
  cmake --build build/fuzz -j "$jobs"
  for target in build/fuzz/fuzz/fuzz_*; do
    [ -x "$target" ] || continue
    name=$(basename "$target")
    mkdir -p "build/fuzz/corpus/$name"
    if ! "$target" -max_total_time=20 -max_len=4096 "build/fuzz/corpus/$name" >"build/fuzz/$name.log" 2>&1; then
      tail -n 40 "build/fuzz/$name.log"
      echo "fuzz target $name failed"
      exit 1
    fi
    echo "$name: $(grep -Eo 'Done [0-9]+ runs' "build/fuzz/$name.log" || echo 'ran')"
  done
fi

echo "== 32-bit =="
cmake -S . -B build/m32 -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZK_BUNDLED_GTEST=ON \
  -DCMAKE_C_FLAGS=-m32 -DCMAKE_CXX_FLAGS=-m32 -DCMAKE_SHARED_LINKER_FLAGS=-m32 -DCMAKE_EXE_LINKER_FLAGS=-m32 >/dev/null
cmake --build build/m32 -j "$jobs"
# A kernel built without 32-bit emulation cannot start the programs at all
# (exec format error); the 32-bit build is still checked to compile and link.
started=0
build/m32/tests/test_header_c99 >/dev/null 2>&1 || started=$?
if [ "$started" -eq 126 ]; then
  echo "32-bit programs cannot be started on this kernel (no 32-bit emulation): the -m32 build compiled and linked; its tests are skipped"
  exit 0
fi
(cd build/m32 && ctest -j "$jobs" --output-on-failure --timeout 600)
