#!/usr/bin/env bash
# Has every operation fail on which the library and the reference host depend, against the emulated
# kernel and over the machine's own netlink sockets, and checks that they survive it:
#
#   scripts/torture.sh           each operation once and from then on, then each pair of operations;
#                                takes some minutes
#   scripts/torture.sh --short   without the pairs; takes some seconds
#
# Where the machine's own kernel has the family, nothing is asked of it: its state would be lost.
# The last line sums up.
set -euo pipefail
cd "$(dirname "$0")/.."

if [ $# -gt 1 ] || [ "${1:---short}" != --short ]; then
  echo "usage: scripts/torture.sh [--short]" >&2
  exit 1
fi

scripts/setup.sh test
cmake --preset release --log-level=WARNING
cmake --build --preset release --target torture | tail -n 1

torture=build/release/bin/torture
if [ -e /proc/net/tavik_wlan ]; then
  echo "skipped: this machine's kernel has the family itself"
else
  "$torture" "$@" --target=kernel scripts/demo.batch
fi
"$torture" "$@" scripts/demo.batch
