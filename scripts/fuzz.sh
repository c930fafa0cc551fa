#!/usr/bin/env bash
# Long fuzzing runs: builds every libFuzzer harness (tests/fuzz/*Fuzz.cpp) with clang in
# build-fuzz, runs each for MINUTES minutes, two at a time, each on its own corpus
# (build-fuzz/corpus/<harness>, kept between runs; tests/fuzz/seeds/<harness> is read too
# when it exists), and prints per harness its executions and findings (the crash, leak,
# timeout and out-of-memory files under build-fuzz/findings/<harness>), then a total line.
# Exits non-zero when any harness found something.
#
# Usage: scripts/fuzz.sh MINUTES [HARNESS...]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
minutes=${1:-}
if ! [[ $minutes =~ ^[0-9]+$ ]] || [[ $minutes -eq 0 ]]; then
  echo "usage: $0 MINUTES [HARNESS...]" >&2
  exit 2
fi
shift
parallel=${FUZZ_PARALLEL:-2}

build=$root/build-fuzz
CC=clang CXX=clang++ cmake -S "$root" -B "$build" -G Ninja -DBIOS_FUZZ=ON -DBIOS_FIRMWARE=OFF -DBIOS_SANITIZE=OFF >/dev/null
nice cmake --build "$build" -j2 --target fuzz_all

if [[ $# -gt 0 ]]; then
  harnesses=("$@")
else
  harnesses=()
  for source in "$root"/tests/fuzz/*Fuzz.cpp; do
    harnesses+=("$(basename "$source" .cpp)")
  done
fi

logs=$build/fuzz-logs
mkdir -p "$logs"

run_one() {
  local name=$1 binary corpus findings
  binary=$(find "$build" -name "$name" -type f -perm -u+x -print -quit)
  if [[ -z $binary ]]; then
    echo "no executable for $name" >"$logs/$name.log"
    return 0
  fi
  corpus=$build/corpus/$name
  findings=$build/findings/$name
  rm -rf "$findings"
  mkdir -p "$corpus" "$findings"
  local dirs=("$corpus")
  [[ -d $root/tests/fuzz/seeds/$name ]] && dirs+=("$root/tests/fuzz/seeds/$name")
  # -timeout: an input that runs for a minute is a finding of its own.
  nice "$binary" -max_total_time=$((minutes * 60)) -max_len=65536 -timeout=60 -print_final_stats=1 \
    -artifact_prefix="$findings/" "${dirs[@]}" >"$logs/$name.log" 2>&1 || true
}

running=0
for name in "${harnesses[@]}"; do
  run_one "$name" &
  running=$((running + 1))
  if [[ $running -ge $parallel ]]; then
    wait -n
    running=$((running - 1))
  fi
done
wait

total_runs=0
total_findings=0
printf '%-26s %14s %9s\n' harness executions findings
for name in "${harnesses[@]}"; do
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$logs/$name.log" | tail -1)
  runs=${runs:-0}
  found=$(find "$build/findings/$name" -type f \( -name 'crash-*' -o -name 'leak-*' -o -name 'timeout-*' \
    -o -name 'oom-*' \) 2>/dev/null | wc -l)
  # A harness that died without leaving a file (or never ran) counts as a finding too.
  if [[ $runs -eq 0 && $found -eq 0 ]]; then
    found=1
  fi
  printf '%-26s %14s %9s\n' "$name" "$runs" "$found"
  if [[ $found -ne 0 ]]; then
    echo "  see $logs/$name.log and $build/findings/$name/" >&2
  fi
  total_runs=$((total_runs + runs))
  total_findings=$((total_findings + found))
done
printf '%-26s %14s %9s   (%d harnesses, %d min each)\n' total "$total_runs" "$total_findings" "${#harnesses[@]}" "$minutes"
[[ $total_findings -eq 0 ]]
