/* A host process on a Linux machine: proxies a port and reads it back from the kernel. With
 * CORVIL_LOG=stderr in its environment it prints the library's log, too. */
#include <corvil_datapath_proxy.h>
#include <kernel_interface/tavik_wlan.h>
#include <reference_host/netlink/corvil_netlink_control.h>
#include <reference_host/port_utils/corvil_port_tree.h>
#include <stdio.h>

int main(void) {
  const PortDescriptor port = {TAVIK_WLAN_IP_PROTO_IPV6, TAVIK_WLAN_TRANS_PROTO_UDP, 4500};
  if (corvil_datapath_proxy_set_config_info("wlan0", "wlan0", "wwan0", &port, 1, 1) == -1) {
    const CorvilNetlinkError* reason = corvil_netlink_last_error();
    fprintf(stderr, "the proxy is not up: %s (errno %d)\n", reason->message, reason->error);
    return 1;
  }
  corvil_datapath_proxy_get_port_tuple();
  return corvil_port_tree_count() == 1 ? 0 : 1;
}
