#!/usr/bin/env bash
# Runs each fuzz target for SECONDS (default 10): bash fuzz/run.sh SECONDS [name...]
# Builds build-fuzz with clang first.  Each target starts from its seed
# corpus fuzz/corpus/<name> (never written to); what it finds goes to
# build-fuzz/corpus/<name>, a failing input to build-fuzz/artifacts/<name>-*,
# its log to build-fuzz/logs/<name>.log.  JOBS=2 runs two at a time.
# Prints one line of figures per target; exit status 1 when any failed.
set -uo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-10}
shift || true
build=${KAVORI_FUZZ_BUILD:-build-fuzz}
jobs=${JOBS:-1}
all=(options command_text bridge origins)  # as in targets.cmake
names=("$@")
[ ${#names[@]} -eq 0 ] && names=("${all[@]}")

if [ ! -f "$build/CMakeCache.txt" ]; then
  CC=clang CXX=clang++ cmake -S fuzz -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null || exit 1
fi
cmake --build "$build" -j"$(nproc 2>/dev/null || echo 2)" >/dev/null || { echo "fuzz build failed"; exit 1; }
mkdir -p "$build/logs" "$build/artifacts"

run_one() {
  local name=$1 log="$build/logs/$1.log"
  mkdir -p "$build/corpus/$name"
  # -rss_limit_mb: a frame may announce up to 16 MiB, which the host
  # allocates; the limit leaves room for that and catches real growth.
  "$build/fuzz_$name" -max_total_time="$seconds" -print_final_stats=1 -rss_limit_mb=1024 -timeout=10 -error_exitcode=1 \
    -artifact_prefix="$build/artifacts/$name-" "$build/corpus/$name" "fuzz/corpus/$name" >"$log" 2>&1
  local status=$?
  local execs rate cov corpus
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -1)
  cov=$(grep -o 'cov: [0-9]*' "$log" | tail -1 | cut -d' ' -f2)
  corpus=$(ls "$build/corpus/$name" | wc -l)
  if [ $status -eq 0 ]; then
    printf '%-15s ok    %6ss %12s execs %8s/s  cov %5s  corpus %5s\n' "$name" "$seconds" "${execs:-?}" "${rate:-?}" "${cov:-?}" "$corpus"
  else
    printf '%-15s FAIL  status %s, see %s\n' "$name" "$status" "$log"
    grep -m5 -E 'ERROR|check failed|runtime error|SUMMARY' "$log" | sed 's/^/    /'
  fi
  return $status
}

failed=0
pids=()
for name in "${names[@]}"; do
  if [ "$jobs" -le 1 ]; then
    run_one "$name" || failed=1
  else
    run_one "$name" &
    pids+=($!)
    if [ ${#pids[@]} -ge "$jobs" ]; then
      wait "${pids[0]}" || failed=1
      pids=("${pids[@]:1}")
    fi
  fi
done
for pid in "${pids[@]}"; do wait "$pid" || failed=1; done
exit $failed
