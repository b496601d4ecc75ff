#!/usr/bin/env bash
# Packs build/vm/VERSION/initramfs.cpio: busybox, tools, the project's programs and libraries, the
# module and, as a stock family to load beside it, the kernel's own fou.
#
#   tests/vm/initramfs.sh VERSION COMMAND
#
# The VM runs COMMAND, or a shell when that is empty. A folder EXTRA of the environment is laid over
# it all.
set -euo pipefail
cd "$(dirname "$0")/../.."

version=$1
command=$2
build=$PWD/build/vm/$version
programs=$PWD/build/release/bin
root=$build/root

# Prints the libraries that programs load.
libraries_of() {
  ldd "$@" | sed -nE 's|^[^/]*(/[^ ]+) \(0x.*|\1|p' | sort --unique
}

put_programs() {
  local library
  cp "$@" "$root/usr/bin"
  for library in $(libraries_of "$@"); do
    case $library in
      "$programs"/*) cp --dereference "$library" "$root/usr/lib" ;;
      *) install -D "$library" "$root$library" ;;
    esac
  done
}

put_module() {
  local folder=$root/lib/modules/$1
  mkdir -p "$folder"
  cp "$2" "$folder"
  if [ -e "$folder/$(basename "$2" .xz).xz" ]; then
    xz --decompress "$folder/$(basename "$2")"
  fi
}

put_modules() {
  local release stock name
  release=$(basename "$build"/image/lib/modules/*)
  stock=$build/image/lib/modules/$release/kernel
  for name in ipv4/fou ipv4/ip_tunnel ipv4/udp_tunnel ipv6/ip6_udp_tunnel; do
    put_module "$release" "$(echo "$stock/net/$name".ko*)"
  done
  put_module "$release" "$build/module/tavik_wlan.ko"
  PATH=$PATH:/usr/sbin depmod --basedir "$root" "$release" 2>/dev/null
}

rm -rf "$root"
mkdir -p "$root"/{bin,dev,etc/datapath,proc,sbin,sys,tmp,usr/bin,usr/lib,usr/sbin}
cp "$build/busybox/bin/busybox" "$root/bin"
cp tests/vm/init "$root/init"
printf '%s' "$command" >"$root/etc/datapath/command"
put_programs /usr/bin/setpriv "$programs"/{datapathctl,conformance_test,fault_test}
put_programs "$programs/libcorvil_datapath_proxy.so"
cp tests/vm/kernel_test.sh "$root/usr/bin/kernel_test"
put_modules
[ -z "${EXTRA:-}" ] || cp --archive "$EXTRA/." "$root"
(cd "$root" && find . -print0 | cpio --null --create --format=newc --quiet) >"$build/initramfs.cpio"
