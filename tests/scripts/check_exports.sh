#!/usr/bin/env bash
# The shared library's dynamic symbol table must hold exactly the names the
# public headers declare with GUESTPREP_API: nothing missing, nothing extra.
set -euo pipefail
lib=$1
headers=$2

expected=$(grep -h 'GUESTPREP_API' "$headers"/*.h | grep -v '#define' |
  sed -E 's/\(.*//; s/\[.*//; s/;.*//' | grep -oE '[A-Za-z_][A-Za-z0-9_]*[[:space:]]*$' |
  tr -d ' ' | sort -u)
actual=$(nm -D --defined-only "$lib" | awk '{print $3}' | sed 's/@.*//' | sort -u)

if [ "$expected" != "$actual" ]; then
  echo "exported symbols differ from the public headers:"
  diff <(echo "$expected") <(echo "$actual") || true
  exit 1
fi
soname=$(objdump -p "$lib" | awk '/SONAME/{print $2}')
if [ "$soname" != "libguestprep.so.0" ]; then
  echo "unexpected SONAME: $soname"
  exit 1
fi
echo "ok: $(echo "$actual" | wc -l) exported names, SONAME $soname"
