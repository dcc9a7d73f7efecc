#!/usr/bin/env bash
# Runs the benchmarks on a 24-bit Xvfb and prints their ratios.
# RUNS=<n> sets the number of alternating runs (at least 5 for figures);
# BASELINE=<build directory of an earlier version> runs that host too, in the
# same rounds, for a before-and-after.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
command -v surf >/dev/null || {
  sudo=""; [ "$(id -u)" -ne 0 ] && sudo=sudo
  $sudo apt-get install -y -qq --no-install-recommends surf
}
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc)" >/dev/null
runs="${RUNS:-5}"
export HOME="$(mktemp -d)"   # neither browser keeps state between runs
trap 'rm -rf "$HOME"' EXIT
xvfb-run -a -s "-screen 0 1280x1024x24 -br" build/bin/kavori-startup-bench "$PWD/build" "$PWD" "$runs" ${BASELINE:+"$BASELINE"}
xvfb-run -a -s "-screen 0 1280x1024x24 -br" build/bin/kavori-bridge-bench "$PWD/build" "$PWD" "$runs"
