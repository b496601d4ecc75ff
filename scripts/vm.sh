#!/usr/bin/env bash
# Boots a stock Debian kernel with this project's module under QEMU, without touching the machine's
# own kernel:
#
#   scripts/vm.sh COMMAND...   runs the command there and exits with its status
#   scripts/vm.sh              gives a shell there; leave it with "exit"
#
# KERNEL chooses 6.12 (the default) or 6.1, EXTRA a folder of more files to have there. Everything
# is built in and unpacked to build/. Exit status 125: there is no VM, or it ended before the command.
set -euo pipefail
cd "$(dirname "$0")/.."

version=${KERNEL:-6.12}
build=build/vm/$version
seconds=600 # the longest that a command may take

scripts/setup.sh vm >&2
mkdir -p build/vm
if ! tests/vm/prepare.sh "$version" "$*" >"$build.log" 2>&1; then
  cat "$build.log" >&2
  exit 125
fi

# shellcheck disable=SC2054 # the commas are QEMU's
qemu=(
  qemu-system-x86_64 -accel tcg -cpu max -smp 2 -m 1G -nodefaults -no-user-config -no-reboot
  -display none -kernel "$build"/image/boot/vmlinuz-* -initrd "$build/initramfs.cpio"
  -append "console=ttyS0 panic=-1 oops=panic" -serial "file:$build/console.log"
  -chardev stdio,id=terminal,signal=off -serial chardev:terminal -serial "file:$build/status"
)
true >"$build/status"
# In the background, so that the VM ends with this script whatever ends it.
if [ $# -gt 0 ]; then
  timeout "$seconds" "${qemu[@]}" </dev/null &
else
  "${qemu[@]}" <&0 &
fi
trap 'kill %1 2>/dev/null || true' EXIT
wait $! || true

status=$(cat "$build/status")
if [ -z "$status" ]; then
  echo "vm: ended before the command did; what the kernel said: $build/console.log" >&2
  exit 125
fi
exit "$status"
