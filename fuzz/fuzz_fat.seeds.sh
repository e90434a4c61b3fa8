#!/usr/bin/env bash
# Writes a few small FAT images into the directory given (the fuzzer's seeds).
set -euo pipefail
out=${1:?usage: fuzz_fat.seeds.sh OUTDIR}
mkdir -p "$out"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# A floppy as mtools makes it, with long names, a subdirectory and a file
# that spans clusters.
mkdir -p "$work/tree/Drivers/amd64"
printf 'hello\n' >"$work/tree/README.TXT"
printf 'x%.0s' $(seq 1 3000) >"$work/tree/Drivers/amd64/A Long Driver Name.sys"
: >"$work/tree/Drivers/empty.inf"
mformat -C -f 1440 -i "$out/floppy.img" ::
mcopy -s -i "$out/floppy.img" "$work/tree/README.TXT" "$work/tree/Drivers" ::

# FAT16 from mkfs.fat, and a floppy cut short.
mkfs.fat -C -F 16 -s 1 "$out/fat16.img" 4200 >/dev/null
mcopy -s -i "$out/fat16.img" "$work/tree/Drivers" ::
head -c 20000 "$out/floppy.img" >"$out/floppy.cut.img"
