#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

# One style for the whole tree (.clang-format): a file the formatter would
# change fails the run before anything is built.
find app bridge native include examples tests fuzz bench -name '*.cpp' -o -name '*.h' -o -name '*.c' |
  xargs clang-format --dry-run --Werror
jobs=$(nproc 2>/dev/null || echo 2)
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$jobs"
ctest --test-dir build --output-on-failure -j"$jobs"

# The same tests again under AddressSanitizer and UndefinedBehaviorSanitizer
# (unit tests leak-checked; the host's own leak check is
# Faults.AWholeDialogRunLeaksNothingOfTheHostsOwn in tests/e2e, with
# tests/lsan.supp), in a build directory of their own.
started=$(date +%s)
cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKAVORI_SANITIZE=ON >/dev/null
cmake --build build-asan -j"$jobs"
UBSAN_OPTIONS=print_stacktrace=1 ctest --test-dir build-asan --output-on-failure -j"$jobs"
echo "sanitizer stage: $(($(date +%s) - started)) s"

# Every fuzz target briefly from its seed corpus, so that a regression of a
# parser shows here; longer runs: fuzz/README.md.
started=$(date +%s)
KAVORI_FUZZ_BUILD=build-fuzz bash fuzz/run.sh "${KAVORI_FUZZ_SECONDS:-3}"
echo "fuzz stage: $(($(date +%s) - started)) s"
