#!/bin/sh
cd "$(dirname "$0")" && exec ./brimle-tools-upgrader-64 "$@"
