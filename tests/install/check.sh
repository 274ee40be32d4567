#!/usr/bin/env bash
# Installs the default build into a scratch prefix and builds a separate project against it,
# once through the CMake package and once through pkg-config. Also checks the installed
# library's ABI: no symbol of a detail namespace may be exported.
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$root/build/default" --prefix "$work/prefix" >/dev/null
library="$work/prefix/lib/libKelFoundation.so"
exported=$(nm -DC --defined-only "$library")
# Any namespace called detail (the library's, or a third party's leaking through it); the
# standard library's own std::__detail instantiations over exported types are not ours.
if leaked=$(grep -E '(^|[^_[:alnum:]])detail::' <<<"$exported"); then
    echo "the installed library exports implementation details:" >&2
    echo "$leaked" >&2
    exit 1
fi
echo "installed library: $(wc -l <<<"$exported") exported symbols, none from a detail namespace"
cmake -S "$root/tests/install/consumer" -B "$work/consumer" -G Ninja \
    -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/consumer" >/dev/null
LD_LIBRARY_PATH="$work/prefix/lib" "$work/consumer/consumer"
PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig" \
    g++ -std=c++20 $(PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig" pkg-config --cflags KelFoundation) \
    "$root/tests/install/consumer/main.cpp" -o "$work/consumer-pc" \
    $(PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig" pkg-config --libs KelFoundation)
LD_LIBRARY_PATH="$work/prefix/lib" "$work/consumer-pc"
echo "installed package: found and linked by CMake and by pkg-config"
