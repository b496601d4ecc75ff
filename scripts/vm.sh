#!/usr/bin/env bash
# Boots a stock Debian kernel with this project's module under QEMU, without touching the machine's
# own kernel:
#
#   scripts/vm.sh COMMAND...   runs the command there and exits with its status
#   scripts/vm.sh              gives a shell there; leave it with "exit"
#   scripts/vm.sh --check      says what is missing for it, if so, and fails
#
# KERNEL chooses 6.12 (the default) or 6.1. Everything is built in and unpacked to build/. Exit
# status 125: the VM ended before the command did.
set -euo pipefail
cd "$(dirname "$0")/.."

version=${KERNEL:-6.12}
build=build/vm/$version
seconds=600 # the longest that a command may take

case $version in
  6.1 | 6.12) ;;
  *)
    echo "vm: KERNEL must be 6.1 or 6.12, not $version" >&2
    exit 1
    ;;
esac

scripts/setup.sh vm >&2
if ! obstacle=$(reference_kernel/vm/kernel.sh check "$version"); then
  echo "vm: no VM with kernel $version: $obstacle" >&2
  exit 1
fi
[ "${1:-}" != --check ] || exit 0

targets=(datapathctl corvil_datapath_proxy conformance_test libnl_peer)
{
  reference_kernel/vm/kernel.sh fetch "$version"
  reference_kernel/vm/kernel.sh module "$version"
  cmake --preset release --log-level=WARNING >/dev/null
  cmake --build --preset release --target "${targets[@]}" -- --quiet
  reference_kernel/vm/initramfs.sh "$version" "$*"
} >&2

run=$(mktemp -d)
trap 'rm -rf "$run"' EXIT
mkfifo "$run/errors"
cat "$run/errors" >&2 &

# shellcheck disable=SC2054 # the commas are QEMU's
qemu=(
  qemu-system-x86_64 -accel tcg -cpu max -smp 2 -m 1G -nodefaults -no-user-config -no-reboot
  -display none -kernel "$build"/image/boot/vmlinuz-* -initrd "$build/initramfs.cpio"
  -append "console=ttyS0 panic=-1"
  -serial "file:$build/console.log" -chardev stdio,id=terminal,signal=off -serial chardev:terminal
  -serial "file:$run/errors" -serial "file:$run/status"
)
if [ $# -gt 0 ]; then
  timeout "$seconds" "${qemu[@]}" </dev/null || true
else
  "${qemu[@]}" || true
fi
wait

status=$(cat "$run/status")
if [ -z "$status" ]; then
  echo "vm: ended before the command did; what the kernel said: $build/console.log" >&2
  exit 125
fi
exit "$status"
