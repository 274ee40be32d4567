#!/usr/bin/env bash
# Builds every libFuzzer target in fuzz/ (the `fuzz` preset: clang, ASan + UBSan) and runs each:
# first over its seed corpus (fuzz/corpus/<Name>/, the regression inputs included, at full
# size), then fuzzing for a bounded time from a scratch copy of the seeds, so the repository
# is not modified. Fails on any crash, leak, sanitizer report or time-out; the input that
# failed is kept in the scratch directory, whose path is printed.
#
#   scripts/fuzz.sh [seconds per target, default 20] [target names ...]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-20}
shift || true

bash scripts/setup.sh
command -v clang++-16 >/dev/null || {
    echo "clang++-16 is missing (scripts/setup.sh installs clang-16 and libclang-rt-16-dev)" >&2
    exit 1
}
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "$(nproc)" --target KelFuzzers

if [ $# -gt 0 ]; then
    names=("$@")
else
    names=()
    for source in fuzz/*Fuzzer.cpp; do
        name=$(basename "$source" .cpp)
        names+=("${name%Fuzzer}")
    done
fi

scratch=$(mktemp -d "${TMPDIR:-/tmp}/kel-fuzz-XXXXXX")
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:${ASAN_OPTIONS:-}"
if [ -x /usr/lib/llvm-16/bin/llvm-symbolizer ]; then
    export ASAN_SYMBOLIZER_PATH=/usr/lib/llvm-16/bin/llvm-symbolizer
fi
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1:${UBSAN_OPTIONS:-}"
failed=()
for name in "${names[@]}"; do
    binary=build/fuzz/fuzz/${name}Fuzzer
    seeds=fuzz/corpus/$name
    work=$scratch/$name
    mkdir -p "$work/corpus" "$work/artifacts"
    [ -d "$seeds" ] && cp -R "$seeds/." "$work/corpus/"
    echo "== $name: seeds"
    if [ -n "$(ls -A "$work/corpus")" ] &&
        ! "$binary" -rss_limit_mb=2048 -timeout=25 -artifact_prefix="$work/artifacts/" \
            "$work"/corpus/* >"$work/seeds.log" 2>&1; then
        tail -n 40 "$work/seeds.log"
        failed+=("$name (seeds)")
        continue
    fi
    echo "== $name: fuzzing for ${seconds}s"
    if ! "$binary" -max_total_time="$seconds" -max_len=4096 -rss_limit_mb=2048 -timeout=25 \
        -print_final_stats=1 -artifact_prefix="$work/artifacts/" "$work/corpus" \
        >"$work/fuzz.log" 2>&1; then
        tail -n 40 "$work/fuzz.log"
        failed+=("$name")
        continue
    fi
    grep -E "stat::number_of_executed_units|stat::new_units_added" "$work/fuzz.log" |
        tr '\n' ' ' || true
    echo
done

if [ ${#failed[@]} -gt 0 ]; then
    echo "fuzzing failed: ${failed[*]} (inputs and logs in $scratch)" >&2
    exit 1
fi
rm -rf "$scratch"
echo "fuzzing passed: ${#names[@]} targets, ${seconds}s each"
