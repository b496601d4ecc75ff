#!/usr/bin/env bash
# Installs the Debian packages that a purpose needs and that are missing, as root or through sudo.
#
#   scripts/setup.sh demo   what scripts/demo.sh builds with
#   scripts/setup.sh vm     that, and what scripts/vm.sh boots a kernel with
#   scripts/setup.sh test   all that, and what scripts/test.sh checks with
#   scripts/setup.sh all    all that, and what scripts/test.sh --all checks with
#   scripts/setup.sh bench  what scripts/bench.sh builds, measures and draws with
#
# The packages for the VM and those for ARM are left out, with a line that says why, where they
# can't be had.
set -euo pipefail

demo_packages=(
  android-liblog-dev cmake g++ libcli11-dev libmnl-dev ninja-build nlohmann-json3-dev pkg-config
)
test_packages=(
  abigail-tools binutils clang clang-19 clang-format clang-tidy cppcheck dpkg-dev git
  libclang-rt-19-dev libclang-rt-dev llvm-19 man-db mandoc python3 python3-yaml shellcheck tshark
  valgrind zsh
)
slow_test_packages=(
  blueprint-tools debootstrap file golang-android-soong-dev golang-github-google-blueprint-dev golang-go
  golang-goprotobuf-dev lintian python3-jsonschema
)
# What the tests are built with, in the VM too.
unit_test_packages=(
  libgtest-dev libnl-genl-3-dev
)
# What builds the library for ARM and runs its tests.
cross_packages=(
  g++-aarch64-linux-gnu g++-arm-linux-gnueabihf googletest qemu-user
)
bench_packages=(
  gnuplot-nox libnl-genl-3-dev valgrind
)
# What builds the kernel module and boots a kernel with it, and witnesses there.
vm_packages=(
  cpio kmod libelf1 libnl-utils make qemu-system-x86 sparse strace xz-utils
)

if ! command -v dpkg-query >/dev/null; then
  echo "setup: this is no Debian system; install the equivalents of the packages in $0" >&2
  exit 1
fi

as_root=()
[ "$(id -u)" -eq 0 ] || as_root=(sudo)
updated=no
obstacle= # why packages could not be installed

installed() {
  [ "$(dpkg-query --show --showformat='${db:Status-Status}' "$1" 2>/dev/null)" = installed ]
}

# Prints those of the packages that are not installed.
missing_of() {
  local package
  for package in "$@"; do
    installed "$package" || echo "$package"
  done
}

update_once() {
  [ $updated = yes ] || "${as_root[@]}" apt-get update -qq || return 1
  updated=yes
}

# Prints the first of the packages that Debian does not have.
unknown_of() {
  local package
  for package in "$@"; do
    apt-cache show "$package" >/dev/null 2>&1 || { echo "$package"; return; }
  done
}

# Installs packages, or fails and says in `obstacle` why. Never removes a package to make room.
install_packages() {
  local unknown
  if installed gcc-multilib && [[ " $* " == *" g++-a"* ]]; then
    obstacle="gcc-multilib is installed, which the ARM compilers conflict with"
    return 1
  fi
  if [ ${#as_root[@]} -gt 0 ] && ! command -v sudo >/dev/null; then
    obstacle="neither root nor sudo"
    return 1
  fi
  obstacle="Debian's packages cannot be reached"
  update_once || return 1
  unknown=$(unknown_of "$@")
  obstacle="Debian has no $unknown here"
  [ -z "$unknown" ] || return 1
  echo "setup: installing $*"
  obstacle="installing them failed"
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y -qq --no-install-recommends --no-remove "$@" >/dev/null
}

require() {
  local missing
  mapfile -t missing < <(missing_of "$@")
  if [ ${#missing[@]} -gt 0 ] && ! install_packages "${missing[@]}"; then
    echo "setup: $obstacle; missing: ${missing[*]}" >&2
    exit 1
  fi
}

# want PURPOSE PACKAGES...: as require, but goes on without them.
want() {
  local purpose=$1 missing
  shift
  mapfile -t missing < <(missing_of "$@")
  if [ ${#missing[@]} -gt 0 ] && ! install_packages "${missing[@]}"; then
    echo "setup: $obstacle; left out, for $purpose only: ${missing[*]}"
  fi
}

purpose=${1:-test}
case $purpose in
  demo)
    require "${demo_packages[@]}"
    ;;
  bench)
    require "${demo_packages[@]}" "${bench_packages[@]}"
    ;;
  vm)
    require "${demo_packages[@]}" "${unit_test_packages[@]}"
    want "the VM" "${vm_packages[@]}"
    ;;
  test | all)
    require "${demo_packages[@]}" "${unit_test_packages[@]}" "${test_packages[@]}"
    want ARM "${cross_packages[@]}"
    want "the VM" "${vm_packages[@]}"
    [ "$purpose" != all ] || require "${slow_test_packages[@]}"
    ;;
  *)
    echo "usage: scripts/setup.sh [demo|vm|test|all|bench]" >&2
    exit 1
    ;;
esac
