#!/usr/bin/env bash
# Installs the Debian packages that a purpose needs and that are missing, as root or through sudo.
#
#   scripts/setup.sh PURPOSE...
#
# A purpose is demo, test, vm, bench, or a stage of scripts/test.sh. Fails with one line that says why
# where packages cannot be had.
set -euo pipefail

declare -A packages_for
packages_for[demo]="android-liblog-dev cmake g++ libcli11-dev ninja-build
  nlohmann-json3-dev pkg-config"
packages_for[test]="${packages_for[demo]} libgtest-dev python3"
packages_for[release]=${packages_for[test]}
packages_for[asan]=${packages_for[test]}
packages_for[tsan]=${packages_for[test]}
packages_for[style]="clang-format git shellcheck"
packages_for[tools]="${packages_for[test]} abigail-tools man-db mandoc tshark"
packages_for[clang]="${packages_for[test]} clang libclang-rt-dev"
packages_for[tidy]="${packages_for[clang]} clang-tidy"
packages_for[arm]="${packages_for[demo]} g++-aarch64-linux-gnu g++-arm-linux-gnueabihf googletest
  qemu-user"
packages_for[device]="${packages_for[demo]} g++-aarch64-linux-gnu g++-arm-linux-gnueabihf qemu-user"
# What builds the kernel module and boots a kernel with it.
packages_for[vm]="${packages_for[test]} cpio kmod libelf1 make qemu-system-x86 sparse xz-utils"
packages_for[vm_6.1]=${packages_for[vm]}
packages_for[vm_faults]=${packages_for[vm]}
packages_for[analyzers]="${packages_for[test]} cppcheck valgrind"
packages_for[fuzz]="${packages_for[test]} clang libclang-rt-dev"
packages_for[coverage]="${packages_for[test]} clang-19 libclang-rt-19-dev llvm-19"
packages_for[package]="${packages_for[test]} debootstrap dpkg-dev file lintian"
packages_for[reproducible]="${packages_for[package]} git"
packages_for[docs]="${packages_for[package]} ${packages_for[vm]} tshark"
packages_for[ynl_kernel]="${packages_for[vm]} python3-jsonschema python3-yaml"
packages_for[android_bp]="blueprint-tools golang-android-soong-dev
  golang-github-google-blueprint-dev golang-go golang-goprotobuf-dev"
packages_for[bench]="${packages_for[demo]} libmnl-dev libnl-genl-3-dev"

fail() {
  echo "setup: $1" >&2
  exit 1
}

installed() {
  [ "$(dpkg-query --show --showformat='${db:Status-Status}' "$1" 2>/dev/null)" = installed ]
}

command -v dpkg-query >/dev/null ||
  fail "this is no Debian system; install the equivalents of the packages in $0"
missing=()
for purpose in "$@"; do
  [ -n "${packages_for[$purpose]:-}" ] ||
    fail "unknown purpose $purpose; one of: ${!packages_for[*]}"
  for package in ${packages_for[$purpose]}; do
    installed "$package" || [[ " ${missing[*]} " == *" $package "* ]] || missing+=("$package")
  done
done
[ ${#missing[@]} -gt 0 ] || exit 0

as_root=()
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || fail "neither root nor sudo; missing: ${missing[*]}"
  as_root=(sudo)
fi
if installed gcc-multilib && [[ " ${missing[*]} " == *" g++-a"* ]]; then
  fail "gcc-multilib is installed, which the ARM compilers conflict with"
fi
"${as_root[@]}" apt-get update -qq || fail "Debian's packages cannot be reached; missing: ${missing[*]}"
echo "setup: installing ${missing[*]}"
# Removes no package to make room.
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
  apt-get install -y -qq --no-install-recommends --no-remove "${missing[@]}" >/dev/null ||
  fail "installing failed; missing: ${missing[*]}"
