#!/usr/bin/env bash
# Builds and runs the demo application: a simulated application life cycle.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake --preset default >/dev/null
cmake --build --preset default -j "$(nproc)" --target KelDemo
exec ./build/default/examples/KelDemo "$@"
