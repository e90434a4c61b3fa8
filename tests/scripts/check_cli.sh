#!/usr/bin/env bash
# The CLI's contract: --help and --version succeed, usage errors exit 2; detect's
# exit codes, one stderr line per bad image, and output no image can break;
# answer's files, reasons and exit codes, Linux and Windows; floppy and remaster.
set -uo pipefail
cli=$1
data=${2:-}
fail=0
expect() {  # expected-code description command...
  local want=$1 what=$2
  shift 2
  "$@" >/tmp/cli.$$.out 2>&1
  local got=$?
  if [ "$got" != "$want" ]; then
    echo "FAIL: $what: exit $got, wanted $want"
    cat /tmp/cli.$$.out
    fail=1
  fi
}
expect 0 "--help" "$cli" --help
expect 0 "--version" "$cli" --version
"$cli" --version | grep -qE '^guestprep [0-9]+\.[0-9]+\.[0-9]+ \(build_id=[^ ]+\)$' ||
  { echo "FAIL: --version output: $("$cli" --version)"; fail=1; }
expect 2 "no subcommand" "$cli"
expect 2 "unknown option" "$cli" --no-such-option
expect 2 "unknown subcommand" "$cli" no-such-command

# detect: exit 0 recognised, 1 not recognised, 2 not openable (one-line reason).
if [ -n "$data" ] && command -v xorriso >/dev/null; then
  work=$(mktemp -d)
  xorriso -as mkisofs -quiet -R -J -o "$work/centos7.iso" "$data/media/centos7" 2>/dev/null
  xorriso -as mkisofs -quiet -R -J -o "$work/empty.iso" "$data/media/empty" 2>/dev/null
  head -c 100000 /dev/urandom >"$work/random.bin"
  expect 0 "detect recognised" "$cli" detect "$work/centos7.iso"
  expect 1 "detect not recognised" "$cli" detect "$work/empty.iso"
  expect 2 "detect random bytes" "$cli" detect "$work/random.bin"
  expect 2 "detect missing file" "$cli" detect "$work/missing.iso"
  expect 2 "detect with one bad image" "$cli" detect "$work/centos7.iso" "$work/random.bin"
  reason=$("$cli" detect "$work/missing.iso" 2>&1 >/dev/null | grep -c '^guestprep: .*missing.iso: ')
  [ "$reason" = 1 ] || { echo "FAIL: no one-line reason for a missing image"; fail=1; }
  { "$cli" detect --json "$work/centos7.iso" "$work/empty.iso" || true; } | python3 -c '
import json, sys
rows = [json.loads(line) for line in sys.stdin]
assert [r["osKey"] for r in rows] == ["centos7-64", None], rows
assert rows[0]["versionName"] == "GUESS_VERSION_CENTOS_7" and rows[0]["resultName"] == "GUESS_RECOGNIZED"
' || { echo "FAIL: detect --json records"; fail=1; }

  # Damaged or foreign images: the documented code and at most one stderr line,
  # which for a truncated image names the damage.
  head -c 57139 "$work/centos7.iso" >"$work/truncated.iso"
  head -c 1000000 /dev/zero >"$work/zeros.iso"
  while read -r want image pattern; do
    "$cli" detect "$work/$image" >/dev/null 2>"$work/err"
    got=$?
    [ "$got" = "$want" ] || { echo "FAIL: detect $image: exit $got, wanted $want"; fail=1; }
    lines=$(grep -c '' "$work/err")
    [ "$lines" -le 1 ] && grep -qE "^guestprep: $work/$image: $pattern" "$work/err" ||
      { echo "FAIL: detect $image: $lines stderr lines, wanted one matching '$pattern':"; cat "$work/err"; fail=1; }
  done <<EOF_CASES
1 truncated.iso damaged image: .+
2 zeros.iso .+
2 random.bin .+
EOF_CASES

  # Bytes that are not UTF-8 and line feeds, in a marker, a value cut by a
  # fixed-size field and the image path: JSON stays valid, text stays one
  # line per field.
  cp -r "$data/media/win-10-19h1" "$work/latin1"
  printf '[Available UI Languages]\r\nfr\351\nosKey: forged = 3\r\n\r\n[Fallback Languages]\r\n' \
    >"$work/latin1/sources/lang.ini"
  cp -r "$data/media/other-mandriva2010" "$work/cut"
  printf 'vendor=Mandriva,version=2010.0%s,arch=i586\n' "$(printf '\303\251%.0s' $(seq 20))" \
    >"$work/cut/i586/product.id"
  odd=$work/$'odd\377\nosKey: forged.iso'
  xorriso -as mkisofs -quiet -R -J -o "$work/latin1.iso" "$work/latin1" 2>/dev/null
  xorriso -as mkisofs -quiet -R -J -o "$work/cut.iso" "$work/cut" 2>/dev/null
  cp "$work/centos7.iso" "$odd"
  "$cli" detect --json "$work/latin1.iso" "$work/cut.iso" "$odd" | python3 -c '
import json, sys
rows = [json.loads(line) for line in sys.stdin]
assert [r["osKey"] for r in rows] == ["windows9-64", "mandriva", "centos7-64"], rows
assert rows[0]["language"].startswith("fr\ufffd\n"), rows[0]
assert rows[1]["versionText"] == "2010.0" + "\u00e9" * 12 + "\ufffd", rows[1]
assert rows[2]["image"].endswith("odd\ufffd\nosKey: forged.iso"), rows[2]
' || { echo "FAIL: detect --json with bytes that are not UTF-8"; fail=1; }
  keys=$("$cli" detect "$work/latin1.iso" "$odd" | grep -c '^osKey:')
  [ "$keys" = 2 ] || { echo "FAIL: text output has $keys osKey lines for 2 images"; fail=1; }

  # answer: the answer file of a corpus image, its path and kernel argument;
  # passwords from files or standard input, hashed as libcrypt checks them;
  # each rejected text's reason on stderr and nothing written.
  printf 'first secret\n' >"$work/pw"
  expect 0 "answer for a recognised image" "$cli" answer "$work/centos7.iso" --user ann \
    --full-name 'Ann $(id) `id` Lee' --password-file "$work/pw" --out "$work/out"
  grep -qF 'chfn -f "Ann \$(id) \`id\` Lee" ann' "$work/out/ks.cfg" &&
    [ "$(stat -c %a "$work/out/ks.cfg")" = 600 ] ||
    { echo "FAIL: answer: ks.cfg lacks the escaped full name or is readable by others"; fail=1; }
  printf 'user pw\nroot pw\n' | "$cli" answer --json "$work/centos7.iso" --user ann \
    --full-name Ann --password-file - --root-password-file - --out "$work/stdin" | python3 -c '
import json, sys
j = json.loads(sys.stdin.read())
assert j["osKey"] == "centos7-64" and j["answerFile"].endswith("/stdin/ks.cfg"), j
assert j["kernelArgs"] == "ks=cdrom:/ks.cfg" and j["needsFloppy"] is False, j
' || { echo "FAIL: answer --json record"; fail=1; }
  root=$(sed -n 's/^rootpw --iscrypted //p' "$work/stdin/ks.cfg")
  [ -n "$root" ] && perl -e 'exit(crypt("root pw", $ARGV[0]) eq $ARGV[0] ? 0 : 1)' "$root" ||
    { echo "FAIL: answer: the root hash does not verify with crypt()"; fail=1; }
  "$cli" answer "$work/centos7.iso" --user Ann --full-name 'Lee, Ann' \
    --password-file "$work/pw" --out "$work/rejected" 2>"$work/err"
  got=$?
  [ "$got" = 1 ] && [ "$(grep -c -e '^guestprep: --user: ' -e '^guestprep: --full-name: ' "$work/err")" = 2 ] &&
    [ ! -e "$work/rejected/ks.cfg" ] ||
    { echo "FAIL: answer with rejected texts: exit $got"; cat "$work/err"; fail=1; }
  expect 1 "answer for an unrecognised image" "$cli" answer "$work/empty.iso" --user ann \
    --full-name Ann --password-file "$work/pw" --out "$work/none"
  expect 2 "answer for random bytes" "$cli" answer "$work/random.bin" --user ann \
    --full-name Ann --password-file "$work/pw" --out "$work/none"

  # floppy: none for Red Hat; Ubuntu's holds the preseed file, checked by
  # fsck.fat and mtools; a missing answer file is one line and exit 1.
  expect 0 "floppy for a Red Hat image" "$cli" floppy "$work/centos7.iso" --answer-dir "$work/out" \
    --out "$work/flp"
  [ ! -e "$work/flp/autoinst.flp" ] || { echo "FAIL: floppy made for a Red Hat image"; fail=1; }
  xorriso -as mkisofs -quiet -R -J -o "$work/ubuntu.iso" "$data/media/deb-ubuntu2004" 2>/dev/null
  expect 1 "floppy without an answer file" "$cli" floppy "$work/ubuntu.iso" --answer-dir "$work/out" \
    --out "$work/flp"
  "$cli" answer "$work/ubuntu.iso" --user ann --full-name Ann --password-file "$work/pw" \
    --out "$work/ubuntu" >/dev/null &&
    "$cli" floppy --json --os-key ubuntu-64 --answer-dir "$work/ubuntu" --out "$work/flp" |
    grep -qF '"floppy":"'"$work"'/flp/autoinst.flp"' &&
    fsck.fat -n "$work/flp/autoinst.flp" >/dev/null &&
    mtype -i "$work/flp/autoinst.flp" ::preseed.cfg | cmp -s - "$work/ubuntu/custom/preseed.cfg" ||
    { echo "FAIL: floppy for an Ubuntu answer directory"; fail=1; }

  # Windows: the three answer files of a corpus image for a chosen edition,
  # the XML checked by xmllint, winnt.sif by configparser; then the floppy
  # with the upgrader and a storage driver from a tools image, checked by
  # fsck.fat and mtools. Wrong edition, key or zone: one reason, exit 1.
  xorriso -as mkisofs -quiet -R -J -o "$work/win10.iso" "$data/media/win-10-rs5" 2>/dev/null
  "$cli" answer --json "$work/win10.iso" --full-name 'Ann Lee & Co' --password-file "$work/pw" \
    --edition 'Windows 10 Pro N' --time-zone Asia/Tokyo --product-key aaaaa-bbbbb-ccccc-ddddd-eeeee \
    --out "$work/win" | python3 -c '
import json, sys
j = json.loads(sys.stdin.read())
assert j["osKey"] == "windows9-64" and j["edition"] == "Windows 10 Pro_N", j
assert j["timeZone"] == "Tokyo Standard Time" and j["zoneIndex"] == 235, j
' && xmllint --noout "$work/win/autoun~0.xml" &&
    [ "$(xmllint --xpath "string(//*[local-name()='LocalAccount']/*[local-name()='Name'])" "$work/win/autoun~0.xml")" = 'Ann Lee & Co' ] &&
    [ "$(xmllint --xpath "string(//*[local-name()='ProductKey']/*[local-name()='Key'])" "$work/win/autoun~0.xml")" = AAAAA-BBBBB-CCCCC-DDDDD-EEEEE ] &&
    [ "$(python3 "$data/../scripts/ini_read.py" "$work/win/winnt.sif" GuiUnattended TimeZone)" = 235 ] &&
    [ -f "$work/win/storePwd.ini" ] ||
    { echo "FAIL: answer for a Windows image"; fail=1; }
  win_refused() {  # description, then options; one reason, exit 1, nothing written
    local what=$1
    shift
    "$cli" answer "$work/win10.iso" --full-name Ann --password-file "$work/pw" "$@" \
      --out "$work/winbad" 2>"$work/err"
    local got=$?
    [ "$got" = 1 ] && [ "$(grep -c '' "$work/err")" = 1 ] && [ ! -e "$work/winbad/winnt.sif" ] ||
      { echo "FAIL: answer for Windows, $what: exit $got"; cat "$work/err"; fail=1; }
  }
  win_refused "bad product key" --edition 'Windows 10 Pro' --product-key 12345
  win_refused "unknown zone" --edition 'Windows 10 Pro' --time-zone Nowhere/City
  win_refused "edition not on the image" --edition Windows-11-Ultra
  win_refused "several editions, none chosen"
  mkdir -p "$work/toolsiso/drivers" "$work/toolsiso/upgrader"
  printf '[scsi]\nbrmscsi = "Brimle SCSI Controller"\n' >"$work/toolsiso/drivers/txtsetup.oem"
  head -c 40000 /dev/urandom >"$work/toolsiso/drivers/brmscsi.sys"
  head -c 70000 /dev/urandom >"$work/toolsiso/upgrader/BrimleToolsUpgrader.exe"
  xorriso -as mkisofs -quiet -J -o "$work/tools.iso" "$work/toolsiso" 2>/dev/null
  "$cli" floppy "$work/win10.iso" --answer-dir "$work/win" --tools-image "$work/tools.iso" \
    --driver-dir /drivers --upgrader-dir /upgrader --out "$work/winflp" >/dev/null 2>&1 &&
    fsck.fat -n "$work/winflp/autoinst.flp" >/dev/null &&
    [ "$(mdir -b -i "$work/winflp/autoinst.flp" :: | tr '\n' ' ')" = '::/brmscsi.sys ::/txtsetup.oem ::/winnt.sif ::/autoun~0.xml ::/upgrader.exe ::/unattend.cmd ' ] &&
    mtype -i "$work/winflp/autoinst.flp" ::upgrader.exe | cmp -s - "$work/toolsiso/upgrader/BrimleToolsUpgrader.exe" &&
    mtype -i "$work/winflp/autoinst.flp" ::winnt.sif | grep -q '^"Brimle SCSI Controller"=OEM' &&
    [ -f "$work/win/winnt.sif" ] ||
    { echo "FAIL: floppy for a Windows answer directory"; fail=1; }

  # remaster: the CentOS example with a real isolinux tree becomes a
  # no-emulation El Torito image; an output path the shell would expand is
  # refused in one line and runs nothing.
  cp -r "$data/media/centos7" "$work/tree"
  echo initrd >"$work/tree/isolinux/initrd.img"
  cp /usr/lib/ISOLINUX/isolinux.bin /usr/lib/syslinux/modules/bios/ldlinux.c32 "$work/tree/isolinux/"
  xorriso -as mkisofs -quiet -R -J -V "CentOS 7 x86_64" -o "$work/boot.iso" "$work/tree" 2>/dev/null
  "$cli" remaster --json "$work/boot.iso" --answer-dir "$work/out" --out "$work/iso" |
    grep -qF '"kernelArgs":"ks=cdrom:/ks.cfg"' &&
    xorriso -indev "$work/iso/autoinst.iso" -report_el_torito plain 2>/dev/null |
    grep -q 'El Torito boot img : *1 *BIOS *y *none' ||
    { echo "FAIL: remaster of the CentOS example"; fail=1; }
  "$cli" remaster "$work/boot.iso" --answer-dir "$work/out" --out "$work/\$(touch $work/ran)" 2>"$work/err"
  got=$?
  [ "$got" = 1 ] && [ "$(grep -c '' "$work/err")" = 1 ] && [ ! -e "$work/ran" ] ||
    { echo "FAIL: remaster to a path the shell expands: exit $got"; cat "$work/err"; fail=1; }
  rm -rf "$work"
fi
rm -f /tmp/cli.$$.out
exit $fail
