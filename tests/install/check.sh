#!/usr/bin/env bash
# Installs the default build into a scratch prefix and builds a separate project against it,
# once through the CMake package and once through pkg-config.
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$root/build/default" --prefix "$work/prefix" >/dev/null
cmake -S "$root/tests/install/consumer" -B "$work/consumer" -G Ninja \
    -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/consumer" >/dev/null
LD_LIBRARY_PATH="$work/prefix/lib" "$work/consumer/consumer"
PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig" \
    g++ $(PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig" pkg-config --cflags KelFoundation) \
    "$root/tests/install/consumer/main.cpp" -o "$work/consumer-pc" \
    $(PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig" pkg-config --libs KelFoundation)
LD_LIBRARY_PATH="$work/prefix/lib" "$work/consumer-pc"
echo "installed package: found and linked by CMake and by pkg-config"
