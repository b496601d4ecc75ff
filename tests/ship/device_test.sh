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

fail() {
  echo "device_test: $1" >&2
  exit 1
}

# The demo by a program with options. Sequence numbers are others in each run.
demo() {
  "$@" --trace --hex batch scripts/demo.batch |
    sed -E 's/seq [0-9]+/seq N/; s/(bytes [0-9a-f]{8} [0-9a-f]{8}) [0-9a-f]{8}/\1 N/'
}

# That an option is refused with exit status 1 and a reason.
refuses() {
  local status=0
  "$@" --emulate reset 2>"$scratch/error" || status=$?
  [ "$status" -eq 1 ] || fail "$* exits with $status"
  grep -q 'this build' "$scratch/error" || fail "$* does not say why it fails"
}

"$native" emulator "$scratch/kernel" >/dev/null &
emulator=$!
until "$native" --socket "$scratch/kernel" reset 2>/dev/null; do sleep 0.1; done

for abi in arm64:qemu-aarch64 arm:qemu-arm; do
  program=build/device/${abi%:*}/datapathctl
  run=("${abi#*:}" "$program")
  ! readelf --wide --program-headers --dynamic "$program" | grep -E 'INTERP|NEEDED' ||
    fail "$program is not static"
  [ "$(stat --format %s "$program")" -le 4194304 ] || fail "$program is larger than 4 MB"
  for kernel in --emulate "--socket=$scratch/kernel"; do
    demo "$native" "$kernel" >"$scratch/expected"
    demo "${run[@]}" "$kernel" >"$scratch/output"
    diff "$scratch/expected" "$scratch/output" || fail "$program $kernel does something else"
  done
  refuses "${run[@]}" --log-android
  refuses "${run[@]}" --library "$scratch/other.so"
  echo "$program: $(stat --format %s "$program") bytes"
done
