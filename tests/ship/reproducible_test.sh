#!/usr/bin/env bash
# Makes the Debian packages here and in a copy of the tree elsewhere, which must give the same bits:
# of the libraries, of datapathctl and of the packages. Takes about as long as a build.
set -euo pipefail
cd "$(dirname "$0")/../.."

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
copy=$scratch/a/longer/name
mkdir -p "$copy"
git ls-files -z | xargs -0 cp --parents --target-directory "$copy"

SOURCE_DATE_EPOCH=$(git log -1 --format=%ct)
export SOURCE_DATE_EPOCH
# Makes the packages of a tree and prints the hashes of what was built.
hashes() {
  rm -f "$1"/build/package/*.deb
  (cd "$1" && cmake --workflow --preset package >&2)
  (cd "$1/build/package" && sha256sum ./*.deb bin/datapathctl bin/*.so.1)
}
hashes . >"$scratch/here"
hashes "$copy" | diff "$scratch/here" -
cat "$scratch/here"
