#!/usr/bin/env bash
# Seeds for fuzz_iso9660_extract: small xorriso images (Rock Ridge with a
# symlink and a subdirectory, Joliet only, a duplicate-prone flat tree).
set -euo pipefail
out=${1:?usage: $0 OUTDIR}
mkdir -p "$out"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

mkdir -p "$work/tree/sub/deep"
printf 'hello\n' >"$work/tree/readme.txt"
: >"$work/tree/empty"
printf 'deep\n' >"$work/tree/sub/deep/f"
head -c 5000 /dev/zero | tr '\0' 'x' >"$work/tree/sub/two-blocks.bin"
chmod 4755 "$work/tree/readme.txt"
ln -s /etc/passwd "$work/tree/sub/abs-link"
ln -s ../../x "$work/tree/rel-link"

mkdir -p "$work/flat"
for i in 1 2 3 4 5 6; do printf 'file %s\n' "$i" >"$work/flat/name$i"; done

mk() { xorriso -as mkisofs -quiet -no-pad "$@" 2>/dev/null; }
mk -R -o "$out/rockridge-symlink.iso" "$work/tree"
mk --norock -J -o "$out/joliet.iso" "$work/tree"
mk -R -J -o "$out/flat.iso" "$work/flat"
# Damaged: cut inside the file data.
head -c 53248 "$out/rockridge-symlink.iso" >"$out/rockridge-symlink.truncated.iso"
