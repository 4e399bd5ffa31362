#!/usr/bin/env bash
# Checks that calls between the library's folders run one way, downward:
#
#   core/platform < core < rows < color < reduce, geometry < collections, compose
#
# For every object file of the library it lists the symbols the object uses
# and finds the folder that defines each; a use of a symbol defined in a
# higher layer, or in a sibling of the same layer, is reported and fails the
# check. Usage: check_layers.sh <file listing the library's object files>
# (the build writes it as zkernel_objects.txt).
set -euo pipefail
list=${1:?file listing the object files}

layer() {
  case "$1" in
    core/platform) echo 0 ;;
    core) echo 1 ;;
    rows) echo 2 ;;
    color) echo 3 ;;
    reduce | geometry) echo 4 ;;
    collections | compose) echo 5 ;;
    *) echo 99 ;;
  esac
}

files=$(grep -v '^$' "$list" | sort)
[ -n "$files" ] || { echo "no object files in $list" >&2; exit 1; }
# The folder of an object: its path below the object library's directory.
folder() { dirname "${1#*zkernel_objects.dir/}"; }

# symbol -> defining folder (strong definitions only: inline functions are
# weak and defined wherever they are used).
defs=$(mktemp)
trap 'rm -f "$defs"' EXIT
for f in $files; do
  dir=$(folder "$f")
  nm --defined-only "$f" | awk -v d="$dir" '$2 ~ /^[TDBR]$/ {print $3, d}'
done | sort -u >"$defs"

bad=0
for f in $files; do
  dir=$(folder "$f")
  mine=$(layer "$dir")
  [ "$mine" != 99 ] || { echo "unknown folder $dir ($f)"; bad=1; continue; }
  while read -r sym; do
    owner=$(awk -v s="$sym" '$1 == s {print $2; exit}' "$defs")
    [ -n "$owner" ] && [ "$owner" != "$dir" ] || continue
    theirs=$(layer "$owner")
    if [ "$theirs" -ge "$mine" ]; then
      echo "${f#*zkernel_objects.dir/} calls $(echo "$sym" | c++filt) defined in $owner"
      bad=1
    fi
  done < <(nm -u "$f" | awk '{print $2}')
done
if [ "$bad" != 0 ]; then
  echo "calls that run upward or sideways between folders (see ARCHITECTURE.md)"
  exit 1
fi
echo "layers: $(echo "$files" | wc -l) objects, every call runs downward"
