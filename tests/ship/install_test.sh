#!/usr/bin/env bash
# Builds and runs programs of someone else's with what is installed: one on the reference host, by
# the CMake package and by pkg-config, and the example of a host of one's own, by the CMake package.
#
#   tests/ship/install_test.sh FOLDER CC
#
# FOLDER is where everything was installed, or built: then it is installed first.
set -euo pipefail
prefix=$1
export CC=$2 CMAKE_GENERATOR=Ninja
tests=$(dirname "$0")/..

scratch=$(mktemp -d)
trap 'kill "${emulator:-}" 2>/dev/null || true; rm -rf "$scratch"' EXIT
if [ -e "$prefix/CMakeCache.txt" ]; then
  cmake --install "$prefix" --prefix "$scratch/first" >/dev/null
  prefix=$scratch/prefix
  mv "$scratch/first" "$prefix" # nothing may know where it was installed
fi

for source in "$tests/ship/consumer" "$tests/../examples/own_host"; do
  cmake -S "$source" -B "$scratch/$(basename "$source")" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
  cmake --build "$scratch/$(basename "$source")" >/dev/null
done

PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name corvil_datapath_proxy.pc)")
export PKG_CONFIG_PATH
packages=(corvil_datapath_proxy corvil_log corvil_netlink corvil_port_utils)
read -ra options < <(pkg-config --cflags --libs "${packages[@]}")
"$CC" "$tests/ship/consumer/consumer.c" -o "$scratch/by_pkg_config" "${options[@]}" \
  -Wl,-rpath,"$(pkg-config --variable=libdir corvil_datapath_proxy)"
pkg-config --static --libs corvil_datapath_proxy | grep -e '-llog' >/dev/null
# Every public header is there, seen from a folder that has none of its own.
sed 's|datapath_proxy/include/||' "$tests/library/c_headers.c" >"$scratch/c_headers.c"
"$CC" -fsyntax-only "$scratch/c_headers.c" "${options[@]}"

socket=$scratch/socket
"$prefix/bin/datapathctl" emulator "$socket" >/dev/null &
emulator=$!
until [ -S "$socket" ]; do
  kill -0 "$emulator"
  sleep 0.05
done
for program in consumer/consumer by_pkg_config; do
  CORVIL_NETLINK_EMULATOR=$socket "$scratch/$program"
  diff - <("$prefix/bin/datapathctl" --socket "$socket" state) <<'END'
tuple ipv6 udp 4500
device 1 wlan0
forward 1 wwan0 wlan0
END
  "$prefix/bin/datapathctl" --socket "$socket" reset
done
diff - <("$scratch/own_host/own_host" | tail -n 2) <<'END'
port 443, IPv4, protocol 6
port 4500, IPv6, protocol 17
END
