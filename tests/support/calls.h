// The library's fourteen calls, each with arguments that need all of its requests.
#pragma once

#include <arpa/inet.h>

#include "datapath_proxy/include/corvil_datapath_proxy.h"

namespace calls {

inline constexpr PortDescriptor kPorts[] = {{4, 6, 443}, {6, 17, 4500}};
inline constexpr PortDescriptor kNewPorts[] = {{6, 6, 80}};
inline const IpsecInfo kFlow = {{}, htonl(0x1001)};

inline int up() {
  return corvil_datapath_proxy_set_config_info("wlan0", "wlan0", "wwan0", kPorts, 2, 1);
}
inline int down() {
  return corvil_datapath_proxy_unset_config_info("wlan0", "wlan0", "wwan0", kPorts, 2, 1);
}
inline int update() { return corvil_datapath_proxy_update_config_info(kNewPorts, 1, kPorts, 2); }
inline int unmap() { return corvil_datapath_proxy_unset_reverse_dev_mapping(1, "wlan0", "wwan0"); }
inline int reset() { return corvil_datapath_proxy_flush_config_info(); }
inline int add_ipsec() { return corvil_datapath_proxy_add_ipsec_info(&kFlow, "2001:db8::1"); }
inline int delete_ipsec() { return corvil_datapath_proxy_delete_ipsec_info(&kFlow, "2001:db8::1"); }
inline int set_encap() { return corvil_datapath_proxy_set_udp_encap_port(htons(4500)); }
inline int unset_encap() { return corvil_datapath_proxy_unset_udp_encap_port(htons(4500)); }
inline int pass_encap() { return corvil_datapath_proxy_act_encap_port_pass_through(htons(4500)); }
inline int drop_encap() { return corvil_datapath_proxy_act_encap_port_drop(htons(4500)); }
inline int add_flow() {
  return corvil_datapath_proxy_add_ll_dst_addr("10.0.0.1", "10.0.0.2", htons(5000), htons(5001));
}
inline int flush_flows() { return corvil_datapath_proxy_flush_ll_dst_addr(); }
inline int get_ports() { return corvil_datapath_proxy_get_port_tuple(); }

inline constexpr int (*kAll[])() = {up,         down,         update,      unmap,       reset,
                                    add_ipsec,  delete_ipsec, set_encap,   unset_encap, pass_encap,
                                    drop_encap, add_flow,     flush_flows, get_ports};

}  // namespace calls
