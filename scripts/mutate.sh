#!/usr/bin/env bash
# Breaks the library's unit and the reference netlink library in many small ways, and counts how
# many their tests notice. Prints each that they don't; fails when they notice less than 95 percent
# of those that scripts/mutate_explained.txt doesn't explain. The list of all is in
# build/mutate/mutants.txt then. Takes 40 minutes on two processors.
#
#   scripts/mutate.sh [--only FILE] [--sample N] [--jobs N]
set -euo pipefail
cd "$(dirname "$0")/.."

build=build/mutate
scripts/setup.sh test
cmake --preset release -B $build --log-level=WARNING
cmake --build $build
scripts/mutate.py $build "$@"
