#!/usr/bin/env bash
# Installs a built tree into a fresh prefix (not the configured one) and builds
# the C program in consumer/ against it four ways: shared and static, each
# through the CMake package (a C-only project) and through pkg-config. Each
# program must build, link the library the way asked for, and run.
#
#   check_install.sh CMAKE BINARY_DIR LIBDIR CC "CFLAGS" "LDFLAGS"
#
# CFLAGS and LDFLAGS are what the library was built with (-m32, the
# sanitizers): a consumer of such a build needs them too. Exits 77 (skipped)
# after the CMake half passes when pkg-config is not installed.
set -euo pipefail
if [ $# -ne 6 ]; then
  echo "usage: $0 CMAKE BINARY_DIR LIBDIR CC CFLAGS LDFLAGS" >&2
  exit 2
fi
cmake=$1
binary_dir=$2
libdir=$3
cc=$4
read -r -a cflags <<<"$5"
read -r -a ldflags <<<"$6"
source_dir=$(cd "$(dirname "$0")/consumer" && pwd)

work=$(mktemp -d "${TMPDIR:-/tmp}/zk_install.XXXXXX")
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
log=$work/log

# Runs a step quietly; on failure shows its output and stops.
step() {
  local what=$1
  shift
  if ! "$@" >"$log" 2>&1; then
    echo "FAILED: $what"
    echo "  command: $*"
    sed 's/^/  | /' "$log"
    exit 1
  fi
}

# The program must need libzkernel.so (shared) or must not (static), then run
# and say it is fine.
check_program() {
  local what=$1 program=$2 linkage=$3
  local needed
  needed=$(readelf -d "$program" 2>/dev/null | grep -c 'NEEDED.*libzkernel\.so' || true)
  if [ "$linkage" = shared ] && [ "$needed" = 0 ]; then
    echo "FAILED: $what: the program does not load libzkernel.so"
    exit 1
  fi
  if [ "$linkage" = static ] && [ "$needed" != 0 ]; then
    echo "FAILED: $what: the program loads libzkernel.so instead of holding the archive"
    exit 1
  fi
  step "$what: run" env LD_LIBRARY_PATH="$prefix/$libdir${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}" "$program"
  grep -qx 'consumer ok' "$log" || {
    echo "FAILED: $what: unexpected output"
    cat "$log"
    exit 1
  }
  echo "ok: $what"
}

step "install into $prefix" "$cmake" --install "$binary_dir" --prefix "$prefix"
for f in include/zkernel.h "$libdir/libzkernel.a" "$libdir/cmake/zkernel/zkernelConfig.cmake" \
  "$libdir/pkgconfig/zkernel.pc"; do
  [ -f "$prefix/$f" ] || {
    echo "FAILED: the install has no $f"
    exit 1
  }
done

# CMake package, from a project that enables C only.
step "CMake consumer: configure" "$cmake" -S "$source_dir" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF -DCMAKE_C_COMPILER="$cc" -DCMAKE_C_FLAGS="$5" \
  -DCMAKE_EXE_LINKER_FLAGS="$6"
found=$(sed -n 's/^zkernel_DIR:PATH=//p' "$work/cmake/CMakeCache.txt")
if [ "$found" != "$prefix/$libdir/cmake/zkernel" ]; then
  echo "FAILED: CMake consumer found the package at '$found', not in $prefix"
  exit 1
fi
step "CMake consumer: build" "$cmake" --build "$work/cmake"
check_program "find_package, zkernel::zkernel" "$work/cmake/consumer_shared" shared
check_program "find_package, zkernel::zkernel_static" "$work/cmake/consumer_static" static

if ! command -v pkg-config >/dev/null; then
  echo "SKIPPED: pkg-config is not installed, so the pkg-config consumers were not built"
  exit 77
fi
export PKG_CONFIG_PATH="$prefix/$libdir/pkgconfig"
pc_cflags=$(pkg-config --cflags zkernel)
pc_libs=$(pkg-config --libs zkernel)
pc_static_cflags=$(pkg-config --cflags --static zkernel)
pc_static_libs=$(pkg-config --libs --static zkernel)
case "$pc_cflags" in
  *"$prefix"*) ;;
  *)
    echo "FAILED: pkg-config points at '$pc_cflags', not into $prefix"
    exit 1
    ;;
esac

# shellcheck disable=SC2086 # pkg-config output is a list of words
step "pkg-config, shared: build" "$cc" "${cflags[@]}" $pc_cflags "$source_dir/consumer.c" -o "$work/pc_shared" \
  "${ldflags[@]}" $pc_libs
check_program "pkg-config, shared" "$work/pc_shared" shared

# A fully static program is what --static is for; a sanitized build cannot be
# linked that way, so there the archive is named in place of -lzkernel and the
# rest of the --static libraries stay as they are.
static=(-static)
if [[ " $5 $6 " == *" -fsanitize="* ]]; then
  static=()
  pc_static_libs=${pc_static_libs/-lzkernel/-l:libzkernel.a}
fi
# shellcheck disable=SC2086
step "pkg-config, static: build" "$cc" "${cflags[@]}" $pc_static_cflags "$source_dir/consumer.c" \
  -o "$work/pc_static" "${ldflags[@]}" "${static[@]}" $pc_static_libs
check_program "pkg-config --static" "$work/pc_static" static
