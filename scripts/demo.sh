#!/usr/bin/env bash
# Brings the proxy up against an emulated kernel and shows what travelled and what the kernel holds.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh demo
cmake --preset release -B build/demo -DBUILD_TESTING=OFF --log-level=WARNING
cmake --build build/demo --target datapathctl | tail -n 1

echo
echo "The library's log, every netlink message (> sent, < received), and at last the kernel's state:"
echo
build/demo/bin/datapathctl --emulate --trace --log-file - batch - <<'END'
proxy up wlan0 --from wwan0 --to wlan0 --selector 1 tcp/443 udp6/4500
state
END
