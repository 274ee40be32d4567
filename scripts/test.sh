#!/usr/bin/env bash
# Builds and runs the whole test suite in one configuration: default (the quick start),
# asan (AddressSanitizer + UndefinedBehaviorSanitizer) or tsan (ThreadSanitizer).
set -euo pipefail
cd "$(dirname "$0")/.."
preset=${1:-default}
bash scripts/setup.sh
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset" -j "$(nproc)"
ctest --preset "$preset"
