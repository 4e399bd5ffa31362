#!/usr/bin/env bash
# Installs on Debian what zkernel needs for one purpose, when run as root and
# something is missing; as another user it names what is missing and fails.
# Harmless to run again.
#
#   setup.sh demo   compiler, cmake, pkg-config, the PNG and TIFF libraries
#   setup.sh test   all of that, GoogleTest, Google Benchmark, clang with its
#                   libFuzzer runtime, clang-format and the 32-bit compiler
set -euo pipefail
purpose=${1:-test}
case "$purpose" in
  demo | test) ;;
  *)
    echo "usage: $0 [demo|test]" >&2
    exit 2
    ;;
esac

probe_dir=$(mktemp -d)
trap 'rm -rf "$probe_dir"' EXIT

# True when the C compiler finds the header.
has_header() {
  printf '#include <%s>\n' "$1" | cc -E -x c - >/dev/null 2>&1
}

# True when g++ compiles and links a small C++ program for 32-bit x86: the
# libstdc++ headers and libraries of g++-multilib, not just the C parts that
# gcc-multilib brings.
has_m32_cxx() {
  printf '#include <vector>\nint main() { std::vector<int> v(3); return v[0]; }\n' >"$probe_dir/m32.cpp"
  g++ -m32 "$probe_dir/m32.cpp" -o "$probe_dir/m32" >/dev/null 2>&1
}

# True when clang++ links a libFuzzer target.
has_libfuzzer() {
  printf 'extern "C" int LLVMFuzzerTestOneInput(const unsigned char*, unsigned long) { return 0; }\n' \
    >"$probe_dir/fuzz.cpp"
  clang++ -fsanitize=fuzzer "$probe_dir/fuzz.cpp" -o "$probe_dir/fuzz" >/dev/null 2>&1
}

# Fills need with the packages whose part of the purpose is missing.
find_missing() {
  need=()
  command -v cmake >/dev/null || need+=(cmake)
  command -v g++ >/dev/null || need+=(g++)
  command -v pkg-config >/dev/null || need+=(pkg-config)
  has_header png.h || need+=(libpng-dev)
  has_header tiffio.h || need+=(libtiff-dev)
  if [ "$purpose" = test ]; then
    [ -f /usr/src/googletest/CMakeLists.txt ] || need+=(googletest)
    [ -f /usr/include/gtest/gtest.h ] || need+=(libgtest-dev)
    [ -f /usr/include/benchmark/benchmark.h ] || need+=(libbenchmark-dev)
    command -v clang-format >/dev/null || need+=(clang-format)
    command -v clang++ >/dev/null || need+=(clang)
    has_libfuzzer || need+=(libclang-rt-dev)
    has_m32_cxx || need+=(g++-multilib)
  fi
  return 0
}

find_missing
[ ${#need[@]} -eq 0 ] && exit 0
if [ "$(id -u)" != 0 ]; then
  echo "setup ($purpose): missing packages: ${need[*]} (run as root to install them)" >&2
  exit 1
fi
echo "setup ($purpose): installing ${need[*]}"
apt-get update -qq
DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${need[@]}" >/dev/null
find_missing
if [ ${#need[@]} -gt 0 ]; then
  echo "setup ($purpose): still missing after the install: ${need[*]}" >&2
  exit 1
fi
