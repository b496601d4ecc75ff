#!/usr/bin/env bash
# Installs the Debian packages that a purpose needs and that are missing, as root or through sudo.
#
#   scripts/setup.sh PURPOSE
#
# A purpose is demo, test, vm, bench, or a stage of scripts/test.sh. Says why where packages cannot be
# had.
set -euo pipefail

fail() {
  echo "setup: $1" >&2
  exit 1
}

demo=(android-liblog-dev cmake g++ libcli11-dev ninja-build nlohmann-json3-dev pkg-config)
test=("${demo[@]}" libgtest-dev python3)
# What builds the kernel module and boots a kernel with it.
vm=("${test[@]}" cpio kmod libelf1 make qemu-system-x86 sparse xz-utils)
package=("${test[@]}" debootstrap dpkg-dev file git lintian)

case ${1:-} in
  demo) packages=("${demo[@]}") ;;
  bench) packages=("${demo[@]}" libmnl-dev libnl-genl-3-dev) ;;
  test | release | asan | tsan) packages=("${test[@]}") ;;
  style) packages=(clang-format git shellcheck) ;;
  tools) packages=("${test[@]}" abigail-tools man-db mandoc tshark) ;;
  clang | fuzz | tidy) packages=("${test[@]}" clang clang-tidy libclang-rt-dev) ;;
  coverage) packages=("${test[@]}" clang-19 libclang-rt-19-dev llvm-19) ;;
  analyzers) packages=("${test[@]}" cppcheck valgrind) ;;
  arm | device)
    packages=("${demo[@]}" g++-aarch64-linux-gnu g++-arm-linux-gnueabihf googletest qemu-user)
    ;;
  vm | vm_6.1 | vm_faults) packages=("${vm[@]}") ;;
  ynl_kernel) packages=("${vm[@]}" python3-jsonschema python3-yaml) ;;
  package | reproducible) packages=("${package[@]}") ;;
  docs) packages=("${package[@]}" "${vm[@]}" tshark) ;;
  android_bp)
    packages=(blueprint-tools golang-android-soong-dev golang-github-google-blueprint-dev golang-go
      golang-goprotobuf-dev)
    ;;
  *) fail "unknown purpose ${1:-}; $0 has them all" ;;
esac

command -v dpkg-query >/dev/null ||
  fail "this is no Debian system; install the equivalents of ${packages[*]}"
mapfile -t missing < <(comm -23 <(printf '%s\n' "${packages[@]}" | sort --unique) <(
  dpkg-query --show --showformat='${db:Status-Status} ${Package}\n' "${packages[@]}" 2>/dev/null |
    sed -n 's/^installed //p' | sort --unique))
[ ${#missing[@]} -gt 0 ] || exit 0

as_root=()
[ "$(id -u)" -eq 0 ] || as_root=(sudo)
echo "setup: installing ${missing[*]}"
"${as_root[@]}" apt-get update -qq || fail "Debian's packages cannot be reached"
# Removes no package to make room.
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
  apt-get install -y -qq --no-install-recommends --no-remove "${missing[@]}" >/dev/null ||
  fail "installing failed"
