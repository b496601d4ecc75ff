#!/usr/bin/env bash
# The static datapathctl of each ABI of a device, under qemu-user, does and prints what the one of
# this machine does: on an emulated kernel of its own, and on one that this machine's serves.
#
# Needs build/release and build/device.
set -euo pipefail
cd "$(dirname "$0")/../.."

native=build/release/bin/datapathctl
scratch=$(mktemp -d)
trap 'kill "${emulator:-}" 2>/dev/null || true; rm -rf "$scratch"' EXIT

# The demo by a program with options. Sequence numbers are others in each run.
demo() {
  "$@" --trace --hex batch scripts/demo.batch |
    sed -E 's/seq [0-9]+/seq N/; s/(bytes [0-9a-f]{8} [0-9a-f]{8}) [0-9a-f]{8}/\1 N/'
}

"$native" emulator "$scratch/kernel" >/dev/null &
emulator=$!
until "$native" --socket "$scratch/kernel" reset 2>/dev/null; do sleep 0.1; done

for abi in arm64:qemu-aarch64 arm:qemu-arm; do
  program=build/device/${abi%:*}/datapathctl
  run=("${abi#*:}" "$program")
  diff /dev/null <(readelf --wide --program-headers --dynamic "$program" | grep -E 'INTERP|NEEDED')
  [ "$(stat --format %s "$program")" -le 4194304 ] # 4 MB
  for kernel in --emulate "--socket=$scratch/kernel"; do
    demo "$native" "$kernel" >"$scratch/expected"
    demo "${run[@]}" "$kernel" | diff "$scratch/expected" -
  done
  for option in --log-android "--library=$scratch/other.so"; do
    grep 'this build' <("${run[@]}" "$option" --emulate reset 2>&1)
  done
  echo "$program: $(stat --format %s "$program") bytes"
done
