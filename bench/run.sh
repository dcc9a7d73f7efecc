#!/usr/bin/env bash
# Runs the benchmarks on a 24-bit Xvfb and prints their ratios.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc)" >/dev/null
runs="${RUNS:-5}"
xvfb-run -a -s "-screen 0 1280x1024x24" build/bin/kavori-bridge-bench "$PWD/build" "$PWD" "$runs"
