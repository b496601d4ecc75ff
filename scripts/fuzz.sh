#!/usr/bin/env bash
# Fuzzes the parsers of foreign input with libFuzzer, each for some seconds (60 unless given):
#
#   scripts/fuzz.sh [seconds]
#
# What is learned stays in build/fuzz/corpus. A finding fails the script and is kept, with its log, in
# build/fuzz/findings; running the target on the kept input repeats it.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh fuzz
cmake --preset fuzz --log-level=WARNING
cmake --build --preset fuzz

status=0
for name in hostile_kernel_fuzz message_fuzz reply_callback_fuzz; do
  target=build/fuzz/bin/$name
  corpus=build/fuzz/corpus/$name
  findings=build/fuzz/findings/$name
  mkdir -p "$corpus" "$findings"
  if ! "$target" -max_total_time="${1:-60}" -max_len=4096 -timeout=10 \
    -artifact_prefix="$findings/" "$corpus" >"$findings/log" 2>&1; then
    status=1
    reproducer=$(sed -n 's/.*Test unit written to //p' "$findings/log" | tail -n 1)
    echo "$name: see $findings/log; reproduce with: $target $reproducer" >&2
  fi
  echo "$name: $(grep ' cov: ' "$findings/log" | tail -n 1)"
done
exit "$status"
