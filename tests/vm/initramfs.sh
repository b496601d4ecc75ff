#!/usr/bin/env bash
# Packs build/vm/VERSION/initramfs.cpio: busybox, the project's programs and libraries, the module,
# and of the kernel's own modules nlmon, which shows all netlink messages.
#
#   tests/vm/initramfs.sh VERSION COMMAND
#
# The VM runs COMMAND, or a shell when that is empty. A folder EXTRA of the environment is laid over
# it all.
set -euo pipefail
cd "$(dirname "$0")/../.."

build=$PWD/build/vm/$1
root=$build/root
programs=("$PWD"/build/release/bin/{datapathctl,conformance_test,fault_test})
# The library is opened by datapathctl while it runs.
files=(/usr/bin/setpriv "${programs[@]}" "$PWD/build/release/bin/libcorvil_datapath_proxy.so.1")

rm -rf "$root"
mkdir -p "$root"/{bin,dev,etc/datapath,proc,sbin,sys,tmp,usr/bin,usr/sbin}
cp "$build/busybox/bin/busybox" "$root/bin"
cp tests/vm/init "$root/init"
printf '%s' "$2" >"$root/etc/datapath/command"
cp tests/vm/kernel_test.sh "$root/usr/bin/kernel_test"

# Programs and libraries keep their places, since they find each other relative to where they are.
ldd "${files[@]}" | sed -nE 's|.*\s(/[^ ]+) \(0x.*|\1|p' | sort --unique |
  xargs cp --parents --dereference --target-directory "$root" "${files[@]}"
ln -sf "${programs[@]}" "$root/usr/bin"

release=$(basename "$build"/image/lib/modules/*)
modules=$root/lib/modules/$release
mkdir -p "$modules"
cp "$build/module/tavik_wlan.ko" "$build/image/lib/modules/$release/kernel/drivers/net/nlmon.ko"* \
  "$modules"
find "$modules" -name '*.xz' -exec xz --decompress {} +
PATH=$PATH:/usr/sbin depmod --basedir "$root" "$release" 2>/dev/null

[ -z "${EXTRA:-}" ] || cp --archive "$EXTRA/." "$root"
(cd "$root" && find . -print0 | cpio --null --create --format=newc --quiet) >"$build/initramfs.cpio"
