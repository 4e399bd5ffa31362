#!/bin/sh
# Every dynamic symbol the shared library defines is a Z_ function, and every
# Z_ function the header declares is defined.
lib="$1"
header="$2"
defined=$(nm -D --defined-only "$lib" | awk '$2 ~ /^[TtWwDdBbRrVvi]$/ {print $3}' | sed 's/@.*//' | sort -u)
bad=$(printf '%s\n' "$defined" | grep -v '^Z_' | grep -v '^$' || true)
if [ -n "$bad" ]; then
  echo "symbols other than Z_ functions are exported:"; printf '%s\n' "$bad"; exit 1
fi
declared=$(grep -oE 'Z_API Z_[A-Za-z0-9_]+\(|Z_CDECL Z_[A-Za-z0-9_]+\(' "$header" | sed -E 's/.* (Z_[A-Za-z0-9_]+)\(/\1/' | sort -u)
missing=$(printf '%s\n' "$declared" | while read -r f; do printf '%s\n' "$defined" | grep -qx "$f" || echo "$f"; done)
if [ -n "$missing" ]; then
  echo "declared in the header but not exported:"; printf '%s\n' "$missing"; exit 1
fi
echo "$(printf '%s\n' "$defined" | wc -l) exports, all Z_ functions, none missing"
