#!/usr/bin/env bash
# Fuzzes the parsers of foreign input with libFuzzer, each for some seconds (60 unless given):
#
#   scripts/fuzz.sh [seconds]
#
# What is learned stays in build/fuzz/corpus, and is replayed under MemorySanitizer. A finding fails the script and is kept, with its log,
# in build/fuzz/findings; running the target on the kept input repeats it.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-60}
if ! [[ $seconds =~ ^[1-9][0-9]*$ ]]; then
  echo "usage: scripts/fuzz.sh [seconds]" >&2
  exit 1
fi

scripts/setup.sh fuzz
cmake --preset fuzz --log-level=WARNING
cmake --build --preset fuzz

build=build/fuzz
status=0
for target in "$build"/bin/*_fuzz; do
  name=$(basename "$target")
  corpus=$build/corpus/$name
  findings=$build/findings/$name
  log=$findings/log
  mkdir -p "$corpus" "$findings"

  found=0
  "$target" -max_total_time="$seconds" -max_len=4096 -timeout=10 -print_final_stats=1 \
    -artifact_prefix="$findings/" "$corpus" "$build/fuzz/seeds/$name" >"$log" 2>&1 || found=1

  executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log")
  edges=$(sed -n 's/.* cov: \([0-9]*\) .*/\1/p' "$log" | tail -n 1)
  echo "$name: ${executions:-0} executions, ${rate:-0} per second, ${edges:-0} edges," \
    "$found findings"
  if [ "$found" -ne 0 ]; then
    status=1
    reproducer=$(sed -n 's/.*Test unit written to //p' "$log" | tail -n 1)
    echo "$name: see $log; reproduce with: $target $reproducer" >&2
  fi
done

cmake --preset msan --log-level=WARNING
cmake --build --preset msan
for target in build/msan/bin/*_fuzz; do
  name=$(basename "$target")
  echo "$name, MemorySanitizer: $(find "$build/corpus/$name" -type f -exec "$target" {} +)" || status=1
done
exit "$status"
