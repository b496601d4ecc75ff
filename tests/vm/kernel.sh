#!/usr/bin/env bash
# Gets a stock Debian kernel and builds the module for it, in build/vm/VERSION alone: nothing is
# installed.
#
#   tests/vm/kernel.sh check VERSION    says what is missing, if so, and fails
#   tests/vm/kernel.sh fetch VERSION    unpacks image and headers (once)
#   tests/vm/kernel.sh module VERSION   builds tavik_wlan.ko, checked by sparse
#
# VERSION is 6.1 or 6.12; the newest cloud kernel of it that Debian offers is taken.
set -euo pipefail
cd "$(dirname "$0")/../.."

action=$1
version=$2
build=$PWD/build/vm/$version
sources=$build/headers/usr/src

# Prints the name of the newest package PREFIX-VERSION…-cloud-amd64.
newest_package() {
  apt-cache pkgnames "$1-$version." |
    grep -E "^$1-${version//./\\.}\.[0-9]+[^-]*(-[0-9]+)?-cloud-amd64\$" | sort --version-sort |
    tail -n 1
}

# Prints the packages that a package needs and whose names match a pattern.
needed_packages() {
  apt-cache depends "$1" | sed -n 's/^ *Depends: //p' | grep -E "$2"
}

check() {
  local tool
  if [ "$(dpkg --print-architecture)" != amd64 ]; then
    echo "its kernels are for amd64 machines"
    return 1
  fi
  for tool in qemu-system-x86_64 cpio depmod make gcc sparse xz; do
    if ! command -v "$tool" >/dev/null && ! [ -x "/usr/sbin/$tool" ]; then
      echo "$tool is missing (scripts/setup.sh vm installs it)"
      return 1
    fi
  done
  if ! [ -e "$build/fetched" ] && [ -z "$(newest_package linux-image)" ]; then
    echo "Debian offers no cloud kernel $version here"
    return 1
  fi
}

# Unpacks the packages into a folder of the build folder.
unpack() {
  local folder=$build/$1 package
  shift
  (cd "$build/packages" && apt-get -qq -o APT::Sandbox::User=root download "$@")
  for package in "$@"; do
    dpkg-deb --extract "$build/packages/$package"_*.deb "$folder"
  done
}

fetch() {
  local image headers common
  [ -e "$build/fetched" ] && return
  rm -rf "$build"
  mkdir -p "$build/packages"
  image=$(newest_package linux-image)
  headers=${image/image/headers}
  common=$(needed_packages "$headers" '^linux-(headers|kbuild)-')
  unpack image "$image"
  # shellcheck disable=SC2086 # one word a package
  unpack headers "$headers" $common
  # They expect to be installed.
  sed -i "s|/usr/src/|../|" "$sources/$headers/Makefile"
  # Its package conflicts with busybox, which the machine's own initramfs is likely made with.
  unpack busybox busybox-static
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

"$action"
