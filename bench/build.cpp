// Building requests, no socket: the fourteen calls and port lists.
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <string>
#include <vector>

#include "bench/host.h"
#include "bench/operation.h"
#include "bench/rival.h"
#include "host_interfaces/corvil_netlink.h"

namespace bench {
namespace {

/// The host that does nothing, for rivals as for the library.
template <class MessageType>
struct NullTransport {
  using Message = MessageType;

  static int resolve() {
    uint16_t family = 0;
    return corvil_netlink_query_genl(TAVIK_WLAN_FAMILY_NAME, TAVIK_WLAN_FAMILY_VERSION, &family) ==
                   -1
               ? -1
               : family;
  }
  static int send(Message& message) {
    return corvil_netlink_transact(message.header(), NETLINK_GENERIC, nullptr);
  }
};

constexpr IpsecInfo kFlow{{0, 0}, 0x01100000};
constexpr const char* kAddress = "2001:db8::1";
constexpr const char* kDevice = "wlan0";
constexpr const char* kTo = "wlan0";
constexpr const char* kFrom = "rmnet_data0";
constexpr uint32_t kSelector = 1;
constexpr const char* kFromIp = "10.0.0.1";
constexpr const char* kToIp = "10.0.0.2";
constexpr uint16_t kFromPort = 0x8813;
constexpr uint16_t kToPort = 0x8913;

/// A call of the library, and the requests that a rival makes of it.
struct Case {
  const char* name;
  uint32_t ports;
  int (*library)(uint32_t ports);
  int (*rival)(uint32_t ports);
};

/// The call that does nothing but send one list of ports.
template <class R>
constexpr Case port_list(const char* name, uint32_t count) {
  return {
      name, count,
      [](uint32_t n) { return corvil_datapath_proxy_update_config_info(ports(), n, nullptr, 0); },
      [](uint32_t n) { return R::ports(TAVIK_WLAN_CMD_ADD_TUPLES, ports(), n); }};
}

template <class R>
constexpr Case kCases[] = {
    {"set_config_info", 1,
     [](uint32_t n) {
       return corvil_datapath_proxy_set_config_info(kDevice, kTo, kFrom, ports(), n, kSelector);
     },
     [](uint32_t n) {
       return R::ports(TAVIK_WLAN_CMD_ADD_TUPLES, ports(), n) == -1 ||
                      R::forwarding(TAVIK_WLAN_CMD_ADD_FWD_INFO, kSelector, kTo, kFrom) == -1
                  ? -1
                  : R::device(TAVIK_WLAN_CMD_SET_DEV, kSelector, kDevice);
     }},
    {"unset_config_info", 1,
     [](uint32_t n) {
       return corvil_datapath_proxy_unset_config_info(kDevice, kTo, kFrom, ports(), n, kSelector);
     },
     [](uint32_t n) {
       return R::device(TAVIK_WLAN_CMD_UNSET_DEV, kSelector, kDevice) == -1 ||
                      R::forwarding(TAVIK_WLAN_CMD_DEL_FWD_INFO, kSelector, kTo, kFrom) == -1 ||
                      R::ports(TAVIK_WLAN_CMD_DEL_TUPLES, ports(), n) == -1
                  ? -1
                  : R::bare(TAVIK_WLAN_CMD_LL_ADDR_FLUSH);
     }},
    {"update_config_info", 1,
     [](uint32_t n) {
       return corvil_datapath_proxy_update_config_info(ports(), n, ports() + n, n);
     },
     [](uint32_t n) {
       return R::ports(TAVIK_WLAN_CMD_DEL_TUPLES, ports() + n, n) == -1
                  ? -1
                  : R::ports(TAVIK_WLAN_CMD_ADD_TUPLES, ports(), n);
     }},
    {"unset_reverse_dev_mapping", 0,
     [](uint32_t) {
       return corvil_datapath_proxy_unset_reverse_dev_mapping(kSelector, kTo, kFrom);
     },
     [](uint32_t) { return R::forwarding(TAVIK_WLAN_CMD_DEL_FWD_INFO, kSelector, kTo, kFrom); }},
    {"flush_config_info", 0, [](uint32_t) { return corvil_datapath_proxy_flush_config_info(); },
     [](uint32_t) { return R::bare(TAVIK_WLAN_CMD_RESET); }},
    {"add_ipsec_info", 0,
     [](uint32_t) { return corvil_datapath_proxy_add_ipsec_info(&kFlow, kAddress); },
     [](uint32_t) { return R::ipsec(TAVIK_WLAN_CMD_ADD_TUPLES, &kFlow, kAddress); }},
    {"delete_ipsec_info", 0,
     [](uint32_t) { return corvil_datapath_proxy_delete_ipsec_info(&kFlow, kAddress); },
     [](uint32_t) { return R::ipsec(TAVIK_WLAN_CMD_DEL_TUPLES, &kFlow, kAddress); }},
    {"set_udp_encap_port", 0,
     [](uint32_t) { return corvil_datapath_proxy_set_udp_encap_port(kEncapPort); },
     [](uint32_t) { return R::encap_port(TAVIK_WLAN_CMD_SET_ENCAP_PORT, kEncapPort); }},
    {"unset_udp_encap_port", 0,
     [](uint32_t) { return corvil_datapath_proxy_unset_udp_encap_port(kEncapPort); },
     [](uint32_t) { return R::encap_port(TAVIK_WLAN_CMD_UNSET_ENCAP_PORT, kEncapPort); }},
    {"act_encap_port_pass_through", 0,
     [](uint32_t) { return corvil_datapath_proxy_act_encap_port_pass_through(kEncapPort); },
     [](uint32_t) {
       return R::encap_port(TAVIK_WLAN_CMD_ENCAP_PORT_ACT_PASS_THROUGH, kEncapPort);
     }},
    {"act_encap_port_drop", 0,
     [](uint32_t) { return corvil_datapath_proxy_act_encap_port_drop(kEncapPort); },
     [](uint32_t) { return R::encap_port(TAVIK_WLAN_CMD_ENCAP_PORT_ACT_DROP, kEncapPort); }},
    {"add_ll_dst_addr", 0,
     [](uint32_t) {
       return corvil_datapath_proxy_add_ll_dst_addr(kFromIp, kToIp, kFromPort, kToPort);
     },
     [](uint32_t) { return R::low_latency(kFromIp, kToIp, kFromPort, kToPort); }},
    {"flush_ll_dst_addr", 0, [](uint32_t) { return corvil_datapath_proxy_flush_ll_dst_addr(); },
     [](uint32_t) { return R::bare(TAVIK_WLAN_CMD_LL_ADDR_FLUSH); }},
    {"get_port_tuple", 0, [](uint32_t) { return corvil_datapath_proxy_get_port_tuple(); },
     [](uint32_t) { return R::bare(TAVIK_WLAN_CMD_GET_TUPLES); }},
    port_list<R>("ports 1", 1),
    port_list<R>("ports 16", 16),
    port_list<R>("ports 256", 256),
    port_list<R>("ports 4095", 4095),
};

void prepare(uint32_t /*size*/) { null_host = true; }

std::string bytes_of(int (*run)(uint32_t), uint32_t count) {
  std::string bytes;
  recorded = &bytes;
  prepare(0);
  run(count);
  recorded = nullptr;
  return bytes;
}

/// Rivals are rivals only if they build the same bytes.
void require_same_bytes(const Case& built) {
  const std::string bytes = bytes_of(built.rival, built.ports);
  if (bytes.empty() || bytes != bytes_of(built.library, built.ports)) {
    fprintf(stderr, "datapath_bench: %s: a rival builds other bytes\n", built.name);
    exit(1);
  }
}

}  // namespace

const PortDescriptor* ports() {
  static const auto* const kPorts = [] {
    auto* all = new std::array<PortDescriptor, kAllPorts>;
    for (uint32_t i = 0; i < kAllPorts; ++i) {
      (*all)[i] = {i % 2 == 0 ? 4U : 6U, i % 4 < 2 ? 6U : 17U, static_cast<uint16_t>(i / 4 + 1)};
    }
    return all->data();
  }();
  return kPorts;
}

std::vector<Operation> build_operations() {
  const auto& on_mnl = kCases<Rival<NullTransport<MnlMessage>>>;
  const auto& on_nl = kCases<Rival<NullTransport<NlMessage>>>;
  std::vector<Operation> operations;
  for (size_t i = 0; i < std::size(on_mnl); ++i) {
    require_same_bytes(on_mnl[i]);
    require_same_bytes(on_nl[i]);
    const auto add = [&](const char* rival, int (*run)(uint32_t)) {
      operations.push_back(
          {std::string("build/") + on_mnl[i].name + '/' + rival, on_mnl[i].ports, prepare, run});
    };
    add("library", on_mnl[i].library);
    add("libmnl", on_mnl[i].rival);
    add("libnl", on_nl[i].rival);
  }
  return operations;
}

}  // namespace bench
