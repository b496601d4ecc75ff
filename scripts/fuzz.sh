#!/usr/bin/env bash
# Fuzzes the readers of foreign messages with libFuzzer, for some seconds (60 unless given):
#
#   scripts/fuzz.sh [seconds]
#
# What is learned stays in build/fuzz/corpus. A finding fails the script and is kept, with its log, in
# build/fuzz/findings; running the target on the kept input repeats it.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh fuzz
cmake --preset fuzz --log-level=WARNING
cmake --build build/fuzz --target message_fuzz

target=build/fuzz/bin/message_fuzz
findings=build/fuzz/findings
mkdir -p build/fuzz/corpus "$findings"
status=0
"$target" -max_total_time="${1:-60}" -max_len=4096 -timeout=10 -artifact_prefix="$findings/" \
  build/fuzz/corpus >"$findings/log" 2>&1 || status=1
grep ' cov: ' "$findings/log" | tail -n 1
if [ "$status" -ne 0 ]; then
  echo "see $findings/log; reproduce with: $target" \
    "$(sed -n 's/.*Test unit written to //p' "$findings/log" | tail -n 1)" >&2
fi
exit "$status"
