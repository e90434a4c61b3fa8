#!/usr/bin/env bash
# The CLI's contract: --help and --version succeed, usage errors exit 2.
set -uo pipefail
cli=$1
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
rm -f /tmp/cli.$$.out
exit $fail
