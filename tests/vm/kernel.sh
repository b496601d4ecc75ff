#!/usr/bin/env bash
# Gets a stock Debian kernel and builds the module for it, in build/vm/VERSION alone: nothing is
# installed.
#
#   tests/vm/kernel.sh fetch VERSION    unpacks image and headers once; says what hinders it
#   tests/vm/kernel.sh module VERSION   builds tavik_wlan.ko, checked by sparse
#
# The newest cloud kernel that Debian offers of the VERSION, such as 6.12, is taken.
set -euo pipefail
cd "$(dirname "$0")/../.."

version=$2
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

fetch() {
  local headers common
  [ ! -e "$build/fetched" ] || return 0
  headers=$(apt-cache pkgnames "linux-headers-$version." | sort --version-sort |
    grep -e '-cloud-amd64$' | tail -n 1) || true
  if [ -z "$headers" ]; then
    echo "Debian offers no cloud kernel $version for amd64 here"
    return 1
  fi
  mapfile -t common < <(apt-cache depends "$headers" |
    sed -nE 's/^ *Depends: (linux-(headers|kbuild)-.*)/\1/p')
  rm -rf "$build"
  mkdir -p "$build/packages"
  # The package of busybox conflicts with what the machine's own initramfs is likely made with.
  unpack busybox busybox-static
  unpack image "${headers/headers/image}"
  unpack headers "$headers" "${common[@]}"
  # They expect to be installed.
  sed -i "s|/usr/src/|../|" "$sources/$headers/Makefile"
  rm -r "$build/packages"
  touch "$build/fetched"
}

module() {
  mkdir -p "$build/module"
  cp --update reference_kernel/module/Kbuild reference_kernel/module/tavik_wlan.c "$build/module"
  # BTF would need pahole and the kernel's own debug information.
  make --silent -C "$sources"/linux-headers-*-cloud-amd64 M="$build/module" CORVIL_ROOT="$PWD" \
    CONFIG_DEBUG_INFO_BTF_MODULES= W=1 KCFLAGS=-Werror C=1 CF=-Wsparse-error modules
}

"$1"
