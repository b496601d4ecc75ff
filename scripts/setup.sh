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
  binutils clang clang-format clang-tidy git libclang-rt-14-dev libgtest-dev shellcheck
)

packages=("${demo_packages[@]}")
case "${1:-test}" in
  demo) ;;
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

missing=()
for package in "${packages[@]}"; do
  installed "$package" || missing+=("$package")
done
[ ${#missing[@]} -gt 0 ] || exit 0

as_root=()
if [ "$(id -u)" -ne 0 ]; then
  if ! command -v sudo >/dev/null; then
    echo "setup: missing packages, and neither root nor sudo to install them: ${missing[*]}" >&2
    exit 1
  fi
  as_root=(sudo)
fi

echo "setup: installing ${missing[*]}"
if ! { "${as_root[@]}" apt-get update -qq &&
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null; }; then
  echo "setup: these packages could not be installed: ${missing[*]}" >&2
  exit 1
fi
