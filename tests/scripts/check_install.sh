#!/usr/bin/env bash
# Installs the build into a scratch prefix, then builds and runs two tiny
# consumers: one found through pkg-config, one through find_package.
set -euo pipefail
build=$1
work=$2
rm -rf "$work"
mkdir -p "$work"
prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null

cat >"$work/consumer.c" <<'C'
#include <stdio.h>
#include <string.h>
#include <guestprep/common.h>
int main(void) {
  puts(BRM_EMBED_LABEL);
  return strncmp(BRM_EMBED_LABEL, "build_id=", 9) != 0;
}
C

libdir=$(find "$prefix" -name 'libguestprep.so.0' -printf '%h\n' | head -n1)
export PKG_CONFIG_PATH=$libdir/pkgconfig
cc "$work/consumer.c" -o "$work/consumer-pc" $(pkg-config --cflags --libs guestprep)
LD_LIBRARY_PATH=$libdir "$work/consumer-pc"

mkdir -p "$work/cmake-consumer"
cat >"$work/cmake-consumer/CMakeLists.txt" <<'CM'
cmake_minimum_required(VERSION 3.25)
project(consumer C)
find_package(guestprep REQUIRED)
add_executable(consumer ../consumer.c)
target_link_libraries(consumer PRIVATE guestprep::guestprep)
CM
cmake -S "$work/cmake-consumer" -B "$work/cmake-consumer/build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake-consumer/build" >/dev/null
"$work/cmake-consumer/build/consumer"

"$prefix/bin/guestprep" --version
echo "ok: pkg-config and find_package consumers both link and run"
