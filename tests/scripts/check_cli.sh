#!/usr/bin/env bash
# The CLI's contract: --help and --version succeed, usage errors exit 2.
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
"$cli" --version | grep -qE '^guestprep [^ ]+$' || { echo "FAIL: --version output"; fail=1; }
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
  rm -rf "$work"
fi
rm -f /tmp/cli.$$.out
exit $fail
