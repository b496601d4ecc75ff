#!/usr/bin/env bash
# Holds kernel_interface/tavik_wlan.yaml against the kernel's own tools: the schema of its language,
# and a compiler on what the code generator makes of it. The tools are those of Debian's kernel
# sources, unpacked to build/ynl alone.
set -euo pipefail
cd "$(dirname "$0")/../.."

package=linux-source-6.12
build=$PWD/build/ynl
tools=$build/$package/tools/net/ynl
specs=$build/$package/Documentation/netlink/specs

if ! [ -e "$build/fetched" ]; then
  if ! apt-cache show $package >/dev/null 2>&1; then
    echo "skipped: Debian offers no $package here"
    exit 77
  fi
  rm -rf "$build"
  mkdir -p "$build"
  (cd "$build" && apt-get -qq -o APT::Sandbox::User=root download $package)
  dpkg-deb --fsys-tarfile "$build"/*.deb | tar --extract --to-stdout ./usr/src/$package.tar.xz |
    tar --extract --xz --directory "$build" $package/tools/net/ynl $package/Documentation/netlink
  rm "$build"/*.deb
  touch "$build/$package/MAINTAINERS" # or the generator looks for the sources' root forever
  touch "$build/fetched"
fi

cp kernel_interface/tavik_wlan.yaml "$specs"
generate=(/usr/bin/python3 "$tools/ynl-gen-c.py" --mode user --spec "$specs/tavik_wlan.yaml")
"${generate[@]}" --header -o "$build/tavik_wlan-user.h" # after a validation
"${generate[@]}" --source -o "$build/tavik_wlan-user.c"
gcc -std=gnu11 -O2 -Wall -Wextra -Wno-unused-parameter -Wshadow -Werror -I "$tools/lib" -I . \
  -c "$build/tavik_wlan-user.c" -o "$build/tavik_wlan-user.o"
