#!/bin/sh
# The C example in README.md is docs/example.c, line for line.
# usage: check_readme_example.sh README.md docs/example.c
set -eu
extracted=$(mktemp)
trap 'rm -f "$extracted"' EXIT
awk '/^```c$/ { inside = 1; next } /^```$/ { inside = 0 } inside' "$1" >"$extracted"
if [ ! -s "$extracted" ]; then
  echo "no \`\`\`c block in $1"
  exit 1
fi
diff -u "$2" "$extracted"
