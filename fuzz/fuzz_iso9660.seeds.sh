#!/usr/bin/env bash
# Seeds for fuzz_iso9660: a few small images mastered by xorriso, written
# into the directory given as the only argument.
set -euo pipefail
out=${1:?usage: fuzz_iso9660.seeds.sh OUTDIR}
mkdir -p "$out"
command -v xorriso >/dev/null || { echo "fuzz_iso9660.seeds: no xorriso" >&2; exit 0; }
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
src=$tmp/src
mkdir -p "$src/isolinux" "$src/Sub Dir/deeper" "$src/a/b/c/d/e/f/g/h/i"
printf 'default linux\n' > "$src/isolinux/isolinux.cfg"
printf 'x' > "$src/Sub Dir/deeper/Mixed Case Long Name.txt"
printf 'leaf\n' > "$src/a/b/c/d/e/f/g/h/i/leaf.txt"
printf '%0300d' 0 > "$src/zeros.txt"
ln -s isolinux/isolinux.cfg "$src/link"
: > "$src/empty"
long=$(printf 'N%.0s' $(seq 1 200))
printf 'long\n' > "$src/$long"
x() { xorriso -as mkisofs -quiet -no-pad "$@" 2>/dev/null; }
x --norock -o "$out/plain.iso" "$src"
x --norock -J -o "$out/joliet.iso" "$src"
x -R -o "$out/rockridge.iso" "$src"
x -R -J -V SEED_VOLUME -o "$out/both.iso" "$src"
if command -v genisoimage >/dev/null; then
  genisoimage -quiet -no-pad -R -J -o "$out/genisoimage.iso" "$src" 2>/dev/null || true
fi
# Damaged: cut after the volume descriptors, and inside the directory tree.
head -c 38912 "$out/both.iso" >"$out/both.descriptors-only.iso"
head -c 53248 "$out/both.iso" >"$out/both.truncated.iso"
