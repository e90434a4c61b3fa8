#!/usr/bin/env bash
# Seeds: the committed config texts.
set -euo pipefail
cp "$(dirname "$0")"/../tests/data/dictionary/* "$1"/
