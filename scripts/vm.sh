#!/usr/bin/env bash
# Boots a stock Debian kernel with this project's module under QEMU, without touching the machine's
# own kernel:
#
#   scripts/vm.sh COMMAND...   runs the command there and exits with its status
#   scripts/vm.sh              gives a shell there; leave it with "exit"
#   scripts/vm.sh --check      says what is missing for it, if so, and fails
#
# KERNEL chooses 6.12 (the default) or 6.1, EXTRA a folder of more files to have there. Everything
# is built in and unpacked to build/. Exit status 125: the VM ended before the command did.
set -euo pipefail
cd "$(dirname "$0")/.."

version=${KERNEL:-6.12}
build=build/vm/$version
seconds=600 # the longest that a command may take

scripts/setup.sh vm >&2
if ! obstacle=$(tests/vm/kernel.sh fetch "$version"); then
  echo "vm: no kernel $version: ${obstacle:-its packages cannot be downloaded}" >&2
  exit 1
fi
[ "${1:-}" != --check ] || exit 0

targets=(datapathctl corvil_datapath_proxy conformance_test fault_test)
if ! {
  tests/vm/kernel.sh module "$version" &&
    cmake --preset release --log-level=WARNING &&
    cmake --build --preset release --target "${targets[@]}" &&
    tests/vm/initramfs.sh "$version" "$*"
} >"$build/build.log" 2>&1; then
  cat "$build/build.log" >&2
  exit 125
fi

run=$(mktemp -d)
vm=
trap 'rm -rf "$run"; [ -z "$vm" ] || kill "$vm" 2>/dev/null || true' EXIT
exec 3> >(exec cat >&2) # the command's errors
errors=$!

# shellcheck disable=SC2054 # the commas are QEMU's
qemu=(
  qemu-system-x86_64 -accel tcg -cpu max -smp 2 -m 1G -nodefaults -no-user-config -no-reboot
  -display none -kernel "$build"/image/boot/vmlinuz-* -initrd "$build/initramfs.cpio"
  -append "console=ttyS0 panic=-1 oops=panic"
  -serial "file:$build/console.log" -chardev stdio,id=terminal,signal=off -serial chardev:terminal
  -serial file:/dev/fd/3 -serial "file:$run/status"
)
# In the background, so that the VM ends with this script whatever ends it.
if [ $# -gt 0 ]; then
  timeout "$seconds" "${qemu[@]}" </dev/null &
else
  "${qemu[@]}" <&0 &
fi
vm=$!
wait "$vm" || true
vm=
exec 3>&-
wait "$errors"

status=$(cat "$run/status" 2>/dev/null) || true
if [ -z "$status" ]; then
  echo "vm: ended before the command did; what the kernel said: $build/console.log" >&2
  exit 125
fi
exit "$status"
