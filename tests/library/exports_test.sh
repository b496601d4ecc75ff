#!/usr/bin/env bash
# What the library offers to its host, what it needs from it, and its size, read from the ELF file of
# any processor.
#
#   tests/library/exports_test.sh LIBRARY STRIP NEEDED...
#
# STRIP is the strip command for the library's processor, NEEDED the names that it has to need.
set -euo pipefail
library=$1
strip=$2
shift 2

exported=$(readelf --dyn-syms --wide "$library" |
  awk '($5 == "GLOBAL" || $5 == "WEAK") && $7 != "UND" { print $8 }' | sort)
header=$(dirname "$0")/../../datapath_proxy/include/corvil_datapath_proxy.h
expected=$(sed -nE 's/^int (corvil_datapath_proxy_[a-z_]+)\(.*/\1/p' "$header" | sort)
[ "$(wc -l <<<"$expected")" -eq 14 ]
diff <(echo "$expected") <(echo "$exported")

needed=$(readelf -d "$library" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | sort)
diff <(printf '%s\n' "$@" | sort) <(echo "$needed")

# The environment of a privileged host is its caller's: the netlink library asks for it so.
host=${library%/*}/libcorvil_netlink.so
if [ -e "$host" ]; then
  diff <(echo secure_getenv) <(nm -D --undefined-only "$host" | grep -o '[a-z_]*getenv')
fi

# Full RELRO: the log statements' descriptors hold pointers and are read-only after relocation. What
# stays writable is the compiler's own handle.
readelf -l "$library" | grep GNU_RELRO >/dev/null
readelf -d "$library" | grep -E 'BIND_NOW|FLAGS.*NOW' >/dev/null
writable=$(readelf -S --wide "$library" |
  sed -nE 's/.* \.data +PROGBITS +[0-9a-f]+ [0-9a-f]+ ([0-9a-f]+) .*/\1/p')
[ $((16#${writable:-0})) -le 8 ]

stripped=$(mktemp)
trap 'rm -f "$stripped"' EXIT
"$strip" -o "$stripped" "$library"
size=$(stat --format=%s "$stripped")
limit=32768
if readelf -h "$library" | grep -q AArch64; then
  limit=69632 # Its linker leaves 64 KiB between code and data.
fi
if [ "$size" -gt $limit ]; then
  echo "the library has $size bytes, stripped; at most $limit are meant" >&2
  exit 1
fi
