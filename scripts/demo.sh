#!/usr/bin/env bash
# Sets up a fresh Debian machine, builds zkernel in release mode, and runs the
# zk tool's demo on its built-in image once the tool is part of the build.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh demo
cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release -DZK_BUILD_TESTS=OFF >/dev/null
cmake --build build/release -j "$(nproc 2>/dev/null || echo 2)"
if [ -x build/release/tools/zk ]; then
  build/release/tools/zk demo build/release/contact-sheet.png
else
  echo "built build/release/libzkernel.so; the zk tool is not part of this build yet"
fi
