#!/usr/bin/env bash
# Seeds: a few corpus trees mastered as Rock Ridge, plain and UDF images.
set -euo pipefail
out=$1
media=$(dirname "$0")/../tests/data/media
for tree in centos7 rhel79-server-workstation fedora-live-aarch64 deb-ubuntu2204 deb-debian12 suse-opensuse112-i586; do
  [ -d "$media/$tree" ] || continue
  xorriso -as mkisofs -quiet -R -J -o "$out/$tree.rr.iso" "$media/$tree" 2>/dev/null
done
for tree in win-10-19h1 win-10-19h1-arm64; do
  genisoimage -quiet -udf -J -input-charset utf-8 -o "$out/$tree.udf.iso" "$media/$tree" 2>/dev/null
done
# Damaged: cut inside the file data, and just after the volume descriptors.
if [ -f "$out/centos7.rr.iso" ]; then
  head -c 57139 "$out/centos7.rr.iso" >"$out/centos7.truncated.iso"
  head -c 38912 "$out/centos7.rr.iso" >"$out/centos7.descriptors-only.iso"
fi
