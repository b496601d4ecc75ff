#!/usr/bin/env bash
# Compares the library's binary interface (its exports, their prototypes, the types in them) with the
# one that its users were built against. After a change on purpose, --update writes it down anew.
#
#   tests/library/abi_test.sh LIBRARY [--update]
set -euo pipefail
library=$1
baseline=$(dirname "$0")/../../datapath_proxy/abi/corvil_datapath_proxy.abi.xml

if ! command -v abidiff >/dev/null; then
  echo "abidiff is not here"
  exit 77
fi
# Without types only the names would be compared.
if ! readelf -S "$library" | grep '\.debug_info' >/dev/null; then
  echo "$library has no debug information" >&2
  exit 1
fi
if [ "${2:-}" = --update ]; then
  abidw --exported-interfaces-only --no-corpus-path --no-comp-dir-path --no-show-locs \
    --no-elf-needed --type-id-style hash --out-file "$baseline" "$library"
elif ! abidiff --exported-interfaces-only --harmless "$baseline" "$library"; then
  echo "The binary interface changed. If it was meant to, see \"Install, link, ship\" in README.md." >&2
  exit 1
fi
