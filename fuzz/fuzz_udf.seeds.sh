#!/usr/bin/env bash
# Writes a few small UDF images into the directory given (the fuzzer's seeds).
set -euo pipefail
out=${1:?usage: fuzz_udf.seeds.sh OUTDIR}
mkdir -p "$out"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# A bridge image with nested directories, an empty file and mixed names.
mkdir -p "$work/a/Sub/Deeper" "$work/a/EmptyDir"
printf 'hello\n' >"$work/a/Readme.TXT"
: >"$work/a/empty"
printf 'data%.0s' $(seq 1 600) >"$work/a/Sub/Deeper/file.bin"
genisoimage -quiet -udf -o "$out/udf-bridge.iso" "$work/a"

# One file only, and a directory with many entries.
mkdir -p "$work/b" "$work/c"
printf 'x' >"$work/b/one"
for i in $(seq 1 40); do printf '%s' "$i" >"$work/c/entry-$i"; done
genisoimage -quiet -udf -o "$out/udf-one.iso" "$work/b"
genisoimage -quiet -udf -o "$out/udf-many.iso" "$work/c"

# Empty file systems in other block sizes and allocation forms, when udftools is there.
if command -v mkudffs >/dev/null 2>&1; then
  for form in "512 long" "2048 inicb" "4096 short"; do
    set -- $form
    img="$out/mkudffs-$1-$2.udf"
    truncate -s $(($1 * 300)) "$img"
    mkudffs --media-type=hd --blocksize="$1" --ad="$2" "$img" >/dev/null
  done
fi

# Damaged: cut before the anchor at block 256 and inside the file data.
head -c 400000 "$out/udf-bridge.iso" >"$out/udf-bridge.no-anchor.iso"
size=$(stat -c %s "$out/udf-many.iso")
head -c $((size - 4096)) "$out/udf-many.iso" >"$out/udf-many.truncated.iso"
