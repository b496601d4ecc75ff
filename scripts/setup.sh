#!/usr/bin/env bash
# Installs the Debian packages that a purpose needs and that are missing, as root or through sudo.
#
#   scripts/setup.sh demo   what scripts/demo.sh builds with
#   scripts/setup.sh test   that, and what scripts/test.sh checks with
set -euo pipefail

demo_packages=(
  android-liblog-dev cmake g++ libcli11-dev libmnl-dev ninja-build nlohmann-json3-dev pkg-config
)
test_packages=(
  binutils clang clang-format clang-tidy gcovr git libclang-rt-dev libgtest-dev shellcheck
)
# What builds the library for ARM and runs its tests; done without where Debian lacks them.
cross_packages=(
  g++-aarch64-linux-gnu g++-arm-linux-gnueabihf googletest qemu-user
)

packages=("${demo_packages[@]}")
case "${1:-test}" in
  demo) cross_packages=() ;;
  test) packages+=("${test_packages[@]}") ;;
  *)
    echo "usage: scripts/setup.sh [demo|test]" >&2
    exit 1
    ;;
esac

installed() {
  [ "$(dpkg-query --show --showformat='${db:Status-Status}' "$1" 2>/dev/null)" = installed ]
}

if ! command -v dpkg-query >/dev/null; then
  echo "setup: this is no Debian system; install the equivalents of: ${packages[*]}" >&2
  exit 1
fi

# Prints those of the packages that are not installed.
missing_of() {
  local package
  for package in "$@"; do
    installed "$package" || echo "$package"
  done
}

mapfile -t missing < <(missing_of "${packages[@]}")
mapfile -t missing_cross < <(missing_of "${cross_packages[@]}")
[ $((${#missing[@]} + ${#missing_cross[@]})) -gt 0 ] || exit 0

fail() {
  echo "setup: $1: ${missing[*]}" >&2
  exit 1
}

leave_out_cross() {
  echo "setup: $1; left out, for ARM only: ${missing_cross[*]}"
}

as_root=()
if [ "$(id -u)" -ne 0 ]; then
  if command -v sudo >/dev/null; then
    as_root=(sudo)
  elif [ ${#missing[@]} -gt 0 ]; then
    fail "missing packages, and neither root nor sudo to install them"
  else
    leave_out_cross "neither root nor sudo"
    exit 0
  fi
fi

# The ARM compilers conflict with it, so that no look at the network would help.
multilib_obstacle="gcc-multilib is installed, which the ARM compilers conflict with"
if [ ${#missing[@]} -eq 0 ] && installed gcc-multilib; then
  leave_out_cross "$multilib_obstacle"
  exit 0
fi

# Never removes a package that is there to make room for another.
install_packages() {
  echo "setup: installing $*"
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y -qq --no-install-recommends --no-remove "$@" >/dev/null
}

updated=yes
"${as_root[@]}" apt-get update -qq || updated=no

if [ ${#missing[@]} -gt 0 ]; then
  { [ $updated = yes ] && install_packages "${missing[@]}"; } ||
    fail "these packages could not be installed"
fi

# Prints why the cross packages cannot be installed, if so.
cross_obstacle() {
  local package
  if installed gcc-multilib; then
    echo "$multilib_obstacle"
    return
  fi
  for package in "${missing_cross[@]}"; do
    if ! apt-cache show "$package" >/dev/null 2>&1; then
      echo "Debian has no $package here"
      return
    fi
  done
}

if [ ${#missing_cross[@]} -gt 0 ]; then
  obstacle=$(cross_obstacle)
  if [ -n "$obstacle" ]; then
    leave_out_cross "$obstacle"
  elif ! install_packages "${missing_cross[@]}"; then
    leave_out_cross "these packages could not be installed"
  fi
fi
