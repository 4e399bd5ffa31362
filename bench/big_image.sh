#!/bin/bash
# zk on a 20,000 x 20,000 24-bit tiled TIFF (about 1.2 GB uncompressed):
# makes the file by streaming a small generated PNG through zk resize, then
# runs zk resize (to half) and zk rotate 90 with --memory-limit so that the
# library keeps the bitmap in disk tiles, and prints the peak resident set
# and wall time of each command. The goal is a peak under 128 MiB.
#
# usage: bench/big_image.sh [ZK [WORK_DIR [MEMORY_LIMIT]]]
#   ZK            the zk program (default build/zk/tools/zk)
#   WORK_DIR      where the files go; needs about 4 GB free (default a new
#                 directory under /tmp, removed at the end)
#   MEMORY_LIMIT  --memory-limit of the runs (default 64M)
set -euo pipefail
zk=${1:-build/zk/tools/zk}
work=${2:-$(mktemp -d /tmp/zk-big.XXXXXX)}
limit=${3:-64M}
size=20000
[ -x "$zk" ] || { echo "no zk program at $zk (build it first)" >&2; exit 1; }
[ -x /usr/bin/time ] || { echo "needs /usr/bin/time (Debian package 'time')" >&2; exit 1; }
mkdir -p "$work"
trap 'rm -f "$work"/seed.png "$work"/big.tif "$work"/half.tif "$work"/turned.tif; rmdir "$work" 2>/dev/null || true' EXIT

# A 257 x 253 colour picture (gradients and a ring), so that the big image is
# not one colour.
python3 - "$work/seed.png" <<'PY'
import struct, sys, zlib
w, h = 257, 253
rows = bytearray()
for y in range(h):
    rows.append(0)
    for x in range(w):
        ring = 255 if 60 < ((x - 128) ** 2 + (y - 126) ** 2) ** 0.5 < 70 else 0
        rows += bytes((x * 255 // w, y * 255 // h, ring ^ ((x ^ y) & 0xFF)))
def chunk(kind, data):
    return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))
with open(sys.argv[1], "wb") as f:
    f.write(b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", w, h, 8, 2, 0, 0, 0))
            + chunk(b"IDAT", zlib.compress(bytes(rows), 6)) + chunk(b"IEND", b""))
PY

# Runs a command under /usr/bin/time; prints its peak resident set and time.
measure() {
  local name=$1
  shift
  local log="$work/time.txt"
  /usr/bin/time -v "$@" 2>"$log" >/dev/null || { cat "$log" >&2; exit 1; }
  local kib wall
  kib=$(awk -F': ' '/Maximum resident set size/ { print $2 }' "$log")
  wall=$(awk -F': ' '/Elapsed \(wall clock\)/ { print $2 }' "$log")
  rm -f "$log"
  printf '%-34s peak RSS %7.1f MiB   wall %s\n' "$name" "$(echo "$kib / 1024" | bc -l)" "$wall"
}

echo "zk on a ${size} x ${size} 24-bit tiled TIFF, --memory-limit $limit, in $work"
measure "make big.tif (resize a small PNG)" "$zk" --quiet resize --width $size --height $size --tile 256 \
  --compression none "$work/seed.png" "$work/big.tif"
echo "big.tif: $(du -h "$work/big.tif" | cut -f1)"
measure "zk resize --scale 50" "$zk" --quiet --memory-limit "$limit" --temp-dir "$work" resize --scale 50 \
  --tile 256 --compression none "$work/big.tif" "$work/half.tif"
measure "zk rotate 90" "$zk" --quiet --memory-limit "$limit" --temp-dir "$work" rotate 90 --tile 256 \
  --compression none "$work/big.tif" "$work/turned.tif"
