#!/usr/bin/env bash
# Prints a table of the time that the library's calls take beside the same requests sent by means of
# libmnl and of libnl, each on an emulated kernel.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh bench >&2
cmake --preset release -B build/bench -DCORVIL_BENCH=ON -DBUILD_TESTING=OFF --log-level=WARNING >&2
cmake --build build/bench --target datapath_bench | tail -n 1 >&2
build/bench/bin/datapath_bench
