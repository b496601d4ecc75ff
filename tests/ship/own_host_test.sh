#!/usr/bin/env bash
# Installs the library alone, where GoogleTest is not to be found, and builds and runs the example of
# a host of one's own with what is installed: once by the CMake package and once by pkg-config.
#
#   tests/ship/own_host_test.sh SOURCES CC CXX
set -euo pipefail
sources=$1
export CC=$2 CXX=$3 CMAKE_GENERATOR=Ninja

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
prefix=$scratch/prefix
cmake -S "$sources" -B "$scratch/library" -DCORVIL_REFERENCE=OFF -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON --no-warn-unused-cli >/dev/null
cmake --build "$scratch/library" >/dev/null
cmake --install "$scratch/library" --prefix "$prefix" >/dev/null

example=$sources/examples/own_host
cmake -S "$example" -B "$scratch/build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$scratch/build" >/dev/null

PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name '*.pc')")
export PKG_CONFIG_PATH
read -ra options < <(pkg-config --cflags --libs corvil_datapath_proxy)
"$CC" "$example/own_host.c" -o "$scratch/by_pkg_config" "${options[@]}" \
  -Wl,-rpath,"$(pkg-config --variable=libdir corvil_datapath_proxy)"
pkg-config --static --libs corvil_datapath_proxy | grep -e '-llog' >/dev/null

for program in build/own_host by_pkg_config; do
  diff - <("$scratch/$program") <<'END'
corvil_datapath_proxy_update_config_info(): Updating port information
corvil_datapath_proxy_update_config_info(): Adding 2 ports
send by protocol 16: 38000000 1c000500 00000000 00000000 01010000 24000180 10000180 0c000100 01bb0000 04060000 10000180 0c000100 11940000 06110000
query by protocol 16, as a dump
port 443, IPv4, protocol 6
port 4500, IPv6, protocol 17
END
done
