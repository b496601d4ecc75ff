#!/usr/bin/env bash
# Takes a proxy through its life against an emulated kernel and shows what happened: each command,
# every netlink message (> sent, < received), what the kernel holds in between, and at last the
# library's own log.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh demo
cmake --preset release -B build/demo -DBUILD_TESTING=OFF --log-level=WARNING
cmake --build build/demo --target datapathctl | tail -n 1

log=$(mktemp)
trap 'rm -f "$log"' EXIT
build/demo/bin/datapathctl --emulate --trace --log-file "$log" batch scripts/demo.batch

echo
echo "What the library logged, without its first three columns:"
sed -nE 's/^ *[0-9:.]+ +[^ ]+ +[^ ]+\(\): *[0-9]+ //p' "$log"
