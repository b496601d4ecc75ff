#!/usr/bin/env bash
# What the library offers to its host, what it needs from it, and its size, read from the ELF file.
set -euo pipefail
library=$1

exported=$(nm -D --defined-only "$library" | awk '{ print $3 }' | sort)
expected=$(sort <<'END'
corvil_datapath_proxy_act_encap_port_drop
corvil_datapath_proxy_act_encap_port_pass_through
corvil_datapath_proxy_add_ipsec_info
corvil_datapath_proxy_add_ll_dst_addr
corvil_datapath_proxy_delete_ipsec_info
corvil_datapath_proxy_flush_config_info
corvil_datapath_proxy_flush_ll_dst_addr
corvil_datapath_proxy_get_port_tuple
corvil_datapath_proxy_set_config_info
corvil_datapath_proxy_set_udp_encap_port
corvil_datapath_proxy_unset_config_info
corvil_datapath_proxy_unset_reverse_dev_mapping
corvil_datapath_proxy_unset_udp_encap_port
corvil_datapath_proxy_update_config_info
END
)
diff <(echo "$expected") <(echo "$exported")

# Linked with --no-undefined, it needs no symbol from anywhere but these.
needed=$(readelf -d "$library" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | sort)
diff <(printf '%s\n' libc.so.6 libcorvil_log.so.1 libcorvil_netlink.so.1 \
  libcorvil_port_utils.so.1 liblog.so.0) <(echo "$needed")

# Full RELRO: the log statements' descriptors hold pointers and are read-only after relocation.
readelf -l "$library" | grep GNU_RELRO >/dev/null
readelf -d "$library" | grep BIND_NOW >/dev/null

# Small, as g++ builds it for x86-64.
stripped=$(mktemp)
trap 'rm -f "$stripped"' EXIT
strip -o "$stripped" "$library"
size=$(stat --format=%s "$stripped")
if [ "$size" -ge 24576 ] && readelf -hp .comment "$library" | grep -Pzq '(?s)X86-64.*GCC'; then
  echo "the library has $size bytes, stripped" >&2
  exit 1
fi
