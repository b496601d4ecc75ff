#!/usr/bin/env bash
# What the library offers to its host and what it needs from it, read from the ELF file.
set -euo pipefail
library=$1

exported=$(nm -D --defined-only "$library" | awk '{ print $3 }' | sort)
expected=$(sort <<'END'
corvil_datapath_proxy_flush_config_info
corvil_datapath_proxy_set_config_info
corvil_datapath_proxy_set_udp_encap_port
corvil_datapath_proxy_unset_udp_encap_port
END
)
diff <(echo "$expected") <(echo "$exported")

needed=$(readelf -d "$library" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | sort)
diff <(printf '%s\n' libc.so.6 libcorvil_log.so.1 libcorvil_netlink.so.1 liblog.so.0) \
  <(echo "$needed")

undefined=$(nm -D --undefined-only "$library" | awk '{ sub("@.*", "", $NF); print $NF }' | sort)
allowed=$(sort <<'END'
__android_log_print
__cxa_finalize
__gmon_start__
__stack_chk_fail
_ITM_deregisterTMCloneTable
_ITM_registerTMCloneTable
abort
calloc
corvil_netlink_query_genl
corvil_netlink_transact
corvil_nla_put
fflush
fprintf
fputc
free
gettimeofday
localtime
log_to_file
logging_fd
memcpy
memset
msg_sprintf
snprintf
strftime
strlen
zu_format_log_msg
zu_log_mask
END
)
surplus=$(comm -23 <(echo "$undefined") <(echo "$allowed"))
if [ -n "$surplus" ]; then
  echo "needed from elsewhere: $surplus" >&2
  exit 1
fi

# Full RELRO: the log statements' descriptors hold pointers and are read-only after relocation.
readelf -l "$library" | grep -q GNU_RELRO
readelf -d "$library" | grep -q BIND_NOW
