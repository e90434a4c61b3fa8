#!/usr/bin/env bash
# Writes the shipped Windows templates, and variants, as fuzzer inputs.
set -euo pipefail
out=${1:?usage: fuzz_windows_answer.seeds.sh OUTDIR}
data=$(cd "$(dirname "$0")/../data/windows" && pwd)
mkdir -p "$out"
{ cat "$data/winnt.sif"; printf '\n--8<--\n'; cat "$data/autounattend.xml"; } >"$out/templates"
{ printf '[scsi]\nbrmscsi = "Brimle SCSI"\n'; printf '\n--8<--\n'; cat "$data/autounattend.xml"; } >"$out/oem"
{ cat "$data/storePwd.ini"; printf '\n--8<--\n'; sed 's/<Order>1</<Order>999</' "$data/autounattend.xml"; } >"$out/orders"
