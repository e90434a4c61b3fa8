#!/usr/bin/env bash
# Writes a few small FAT images into the directory given (the fuzzer's seeds).
set -euo pipefail
out=${1:?usage: fuzz_fat.seeds.sh OUTDIR}
mkdir -p "$out"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Small FAT12 volumes as mkfs.fat and mtools make them, with long names, a
# subdirectory and a file that spans clusters (kept small: libFuzzer cuts
# inputs to its length limit, and a cut volume only reaches the size check).
mkdir -p "$work/tree/Drivers/amd64"
printf 'hello\n' >"$work/tree/README.TXT"
printf 'x%.0s' $(seq 1 3000) >"$work/tree/Drivers/amd64/A Long Driver Name.sys"
: >"$work/tree/Drivers/empty.inf"
mkfs.fat -C "$out/fat12-small.img" 160 >/dev/null
mcopy -s -i "$out/fat12-small.img" "$work/tree/README.TXT" "$work/tree/Drivers" ::
mformat -C -T 400 -h 2 -s 10 -i "$out/mformat-small.img" ::
mcopy -s -i "$out/mformat-small.img" "$work/tree/Drivers" ::

# The smallest FAT16 mkfs.fat makes (4,085 clusters of one sector), and a
# volume cut short.
mkfs.fat -C -F 16 -s 1 "$out/fat16.img" 2100 >/dev/null
mcopy -s -i "$out/fat16.img" "$work/tree/Drivers" ::
head -c 20000 "$out/fat12-small.img" >"$out/fat12.cut.img"
