#!/usr/bin/env bash
# Makes what scripts/vm.sh boots, in build/vm/VERSION alone: nothing is installed.
#
#   tests/vm/prepare.sh VERSION COMMAND
#
# Takes the newest cloud kernel that Debian offers of the VERSION, such as 6.12, builds the module for
# it, checked by sparse, and packs initramfs.cpio: busybox, the project's programs and libraries, the
# module, and nlmon, which shows all netlink messages. The VM runs COMMAND, or a shell when that is
# empty. A folder EXTRA of the environment is laid over it all.
set -euo pipefail
cd "$(dirname "$0")/../.."

version=$1
build=$PWD/build/vm/$version
sources=$build/headers/usr/src

# unpack FOLDER PACKAGE...: puts the packages' files into a folder of the build folder.
unpack() {
  local folder=$build/$1 package
  shift
  (cd "$build/packages" && apt-get -qq -o APT::Sandbox::User=root download "$@")
  for package in "$@"; do
    dpkg-deb --extract "$build/packages/$package"_*.deb "$folder"
  done
}

if [ ! -e "$build/fetched" ]; then
  headers=$(apt-cache pkgnames "linux-headers-$version." | sort --version-sort |
    awk '/-cloud-amd64$/ { newest = $0 } END { print newest }')
  if [ -z "$headers" ]; then
    echo "Debian offers no cloud kernel $version for amd64 here"
    exit 1
  fi
  mapfile -t common < <(apt-cache depends "$headers" |
    sed -nE 's/^ *Depends: (linux-(headers|kbuild)-.*)/\1/p')
  rm -rf "$build"
  mkdir -p "$build"/{packages,module}
  # The package of busybox conflicts with what the machine's own initramfs is likely made with.
  unpack busybox busybox-static
  unpack image "${headers/headers/image}"
  unpack headers "$headers" "${common[@]}"
  # They expect to be installed.
  sed -i "s|/usr/src/|../|" "$sources/$headers/Makefile"
  rm -r "$build/packages"
  touch "$build/fetched"
fi

cp --update reference_kernel/module/Kbuild reference_kernel/module/tavik_wlan.c "$build/module"
# BTF would need pahole and the kernel's own debug information.
make --silent -C "$sources"/linux-headers-*-cloud-amd64 M="$build/module" CORVIL_ROOT="$PWD" \
  CONFIG_DEBUG_INFO_BTF_MODULES= W=1 KCFLAGS=-Werror C=1 CF=-Wsparse-error modules

cmake --preset release --log-level=WARNING
cmake --build --preset release \
  --target datapathctl corvil_datapath_proxy conformance_test fault_test
programs=("$PWD"/build/release/bin/{datapathctl,conformance_test,fault_test})
# The library is opened by datapathctl while it runs.
files=(/usr/bin/setpriv "${programs[@]}" "$PWD/build/release/bin/libcorvil_datapath_proxy.so.1")

root=$build/root
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
chmod -R a+rX "$root" # The folder of the tree may be its owner's alone.
(cd "$root" && find . -print0 | cpio --null --create --format=newc --quiet) >"$build/initramfs.cpio"
