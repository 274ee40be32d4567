#!/usr/bin/env bash
# Writes include/kel/KelFoundation.hpp, the umbrella header, from the public headers present.
# With --check, only tells (exit 1) whether the umbrella is out of date.
set -euo pipefail
cd "$(dirname "$0")/.."
umbrella=include/kel/KelFoundation.hpp
generated=$(
    echo "// The umbrella header: includes every public header of KelFoundation."
    echo "// Written by scripts/update-umbrella.sh; a test fails when it is out of date."
    echo "#pragma once"
    echo
    find include/kel -mindepth 2 -name '*.hpp' -not -path '*/detail/*' | sed 's|^include/||' | LC_ALL=C sort |
        sed 's|.*|#include "&"|'
)
if [ "${1:-}" = "--check" ]; then
    if [ "$generated" != "$(cat "$umbrella")" ]; then
        echo "$umbrella is out of date: run scripts/update-umbrella.sh" >&2
        exit 1
    fi
    exit 0
fi
printf '%s\n' "$generated" > "$umbrella"
