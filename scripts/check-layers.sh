#!/usr/bin/env bash
# Checks that every #include in include/kel and src follows the layer table of
# docs/architecture.md (the rows between "<!-- layers -->" and "<!-- /layers -->"): a file may
# include files of its own layer and of lower layers, never of a higher one. A file's layer is
# its area's, unless the table names the file itself (a header pinned below its area).
# Includes are resolved as the compiler does: "kel/<Area>/..." from include/, anything else
# relative to the including file first. The umbrella header is exempt. Exits 1 on a violation.
set -euo pipefail
cd "$(dirname "$0")/.."
table=docs/architecture.md

declare -A layerOf
while IFS='|' read -r _ layer members _; do
    layer=${layer//[[:space:]]/}
    [[ $layer =~ ^[0-9]+$ ]] || continue
    for member in $(grep -o '`[^`]*`' <<<"$members" | tr -d '`'); do
        layerOf[$member]=$layer
    done
done < <(sed -n '/^<!-- layers -->$/,/^<!-- \/layers -->$/p' "$table")
if [ ${#layerOf[@]} -eq 0 ]; then
    echo "no layer table found in $table" >&2
    exit 1
fi

for dir in include/kel/*/ src/*/; do
    area=$(basename "$dir")
    if [ -z "${layerOf[$area]:-}" ]; then
        echo "area $area is missing from the layer table in $table" >&2
        exit 1
    fi
done

# Sets `found` to the layer of a file given as a path from the repository root; empty when the
# file is not the library's.
layer() {
    local path=$1 rest
    found=
    case $path in
        include/kel/*/*) rest=${path#include/kel/} ;;
        src/*/*) rest=${path#src/} ;;
        *) return 0 ;;
    esac
    found=${layerOf[$rest]:-${layerOf[${rest%%/*}]:-}}
}

status=0
while IFS= read -r file; do
    [ "$file" = include/kel/KelFoundation.hpp ] && continue
    layer "$file"
    own=$found
    while IFS= read -r included; do
        target=
        if [ -f "$(dirname "$file")/$included" ]; then
            target=$(realpath -m --relative-to=. "$(dirname "$file")/$included")
        elif [ -f "include/$included" ]; then
            target=include/$included
        fi
        [ -n "$target" ] || continue
        layer "$target"
        theirs=$found
        if [ -n "$theirs" ] && [ "$theirs" -gt "$own" ]; then
            echo "$file (layer $own) includes $target (layer $theirs)" >&2
            status=1
        fi
    done < <(sed -nE 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*["<]([^">]+)[">].*/\1/p' "$file")
done < <(find include/kel src -name '*.hpp' -o -name '*.cpp' | LC_ALL=C sort)
if [ $status -ne 0 ]; then
    echo "an include breaks the layer table in $table" >&2
fi
exit $status
