#include "datapath_proxy/include/corvil_datapath_proxy.h"

#include <arpa/inet.h>
#include <linux/genetlink.h>
#include <linux/netlink.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "datapath_proxy/src/datapath_log.h"
#include "datapath_proxy/src/datapath_request.h"
#include "host_interfaces/corvil_netlink.h"
#include "host_interfaces/corvil_port_utils.h"
#include "kernel_interface/tavik_wlan.h"

static_assert(sizeof(PortDescriptor) == 12 && alignof(PortDescriptor) == 4);
static_assert(sizeof(DatapathTuple) == 8);
static_assert(offsetof(IpsecInfo, spi) == 8);

using datapath::attribute_size;
using datapath::checked_align;
using datapath::checked_multiply;
using datapath::DatapathRequest;
using datapath::kContainerSize;
using datapath::kHeadersSize;
using datapath::request_size;
using datapath::string_attribute_size;

// Kernel messaging core
//
// The steps of every request. They log under the name of the call or step that sends it. The host's
// netlink library and the library's own steps have one failure, -1.

/// Fills both headers of a zero-filled request, with the family's id as the kernel has it now, and
/// so comes before the first attribute. On -1 the request is untouched.
static int corvil_datapath_proxy_genlmsg_init(DatapathRequest& request, uint32_t command) {
  uint16_t family_id = 0;
  if (corvil_netlink_query_genl(TAVIK_WLAN_FAMILY_NAME, TAVIK_WLAN_FAMILY_VERSION, &family_id) ==
      -1) {
    DATAPATH_LOG(ERR, "%s(): Querying GENL for family [%s, %u] failed\n", TAVIK_WLAN_FAMILY_NAME,
                 uint32_t{TAVIK_WLAN_FAMILY_VERSION});
    return -1;
  }
  nlmsghdr* header = request.message();
  header->nlmsg_len = kHeadersSize;
  header->nlmsg_type = family_id;
  header->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
  auto* generic_header = static_cast<genlmsghdr*>(NLMSG_DATA(header));
  generic_header->cmd = static_cast<uint8_t>(command);
  generic_header->version = TAVIK_WLAN_FAMILY_VERSION;
  return 0;
}

static int reject_parameters(const char* name) {
  DATAPATH_LOG_AS(ERR, name, "%s(): Invalid parameters\n");
  return -1;
}

static void log_allocation(const char* name, uint32_t size) {
  DATAPATH_LOG_AS(LOW, name, "%s(): Allocated %d bytes for msg", static_cast<int32_t>(size));
}

/// What some requests do differently on the way to their headers.
struct RequestOptions {
  bool parameters_valid = true;          // The call judges them only once it has the memory.
  bool late_allocation_message = false;  // It follows the filling of the headers.
};

/// Allocates a request and fills its headers. The result compares false when that failed, which has
/// then been logged.
static DatapathRequest begin_request(const char* name, uint32_t command, uint32_t size,
                                     RequestOptions options = {}) {
  DatapathRequest request(size);
  if (!request) {
    DATAPATH_LOG_AS(ERR, name, "%s(): GENL message allocation failure\n");
    return {};
  }
  if (!options.late_allocation_message) {
    log_allocation(name, size);
  }
  if (!options.parameters_valid) {
    reject_parameters(name);
    return {};
  }
  if (corvil_datapath_proxy_genlmsg_init(request, command) == -1) {
    DATAPATH_LOG_AS(ERR, name, "%s(): GENL message failure\n");
    return {};
  }
  if (options.late_allocation_message) {
    log_allocation(name, size);
  }
  return request;
}

/// Sends a complete request; `kernel_error`, unless null, receives the kernel's negative errno.
static int transact(const char* name, const DatapathRequest& request, int* kernel_error = nullptr) {
  DATAPATH_LOG_AS(LOW, name, "%s(): pre corvil_netlink_transact nlmsg_len %d",
                  static_cast<int32_t>(request.length()));
  return corvil_netlink_transact(request.message(), NETLINK_GENERIC, kernel_error);
}

/// The result of a request that is done as well when the kernel holds its object already.
static int forgive_existing(int result, int kernel_error) {
  return result == -1 && kernel_error == -EEXIST ? 0 : result;
}

// Proxy configuration lifecycle

constexpr uint32_t kTupleElementSize = kContainerSize + NLA_HDRLEN + sizeof(DatapathTuple);
static_assert(TAVIK_WLAN_TUPLES_PER_MESSAGE == (UINT16_MAX - kContainerSize) / kTupleElementSize,
              "the 16-bit length of the tuple container holds that many elements");
static_assert(CORVIL_DATAPATH_PROXY_MAX_PORTS == TAVIK_WLAN_TUPLES_PER_MESSAGE);

static uint32_t tuples_request_size(uint32_t tuple_count) {
  return request_size(kContainerSize, checked_multiply(kTupleElementSize, tuple_count));
}

/// The port, or the SPI of an ESP tuple, in host byte order.
static uint32_t tuple_key(const DatapathTuple& tuple) {
  const uint32_t key = ntohl(tuple.key.spi);
  return tuple.trans_proto == TAVIK_WLAN_TRANS_PROTO_ESP ? key : key >> 16;
}

static void put_tuple_element(DatapathRequest& request, const DatapathTuple& tuple) {
  const uint32_t element = request.open_container(TAVIK_WLAN_TUPLE_ELEMENT);
  request.put(TAVIK_WLAN_TUPLE_ATTR, sizeof(tuple), &tuple);
  request.close_container(element);
}

static void corvil_datapath_proxy_add_tuple(DatapathRequest& request, const DatapathTuple& tuple) {
  put_tuple_element(request, tuple);
  DATAPATH_LOG(MED, "%s(): Adding tuple [0x%x, 0x%x, 0x%x]\n", uint32_t{tuple.ip_proto},
               uint32_t{tuple.trans_proto}, tuple_key(tuple));
}

static void corvil_datapath_proxy_del_tuple(DatapathRequest& request, const DatapathTuple& tuple) {
  put_tuple_element(request, tuple);
  DATAPATH_LOG(MED, "%s(): Removing tuple [0x%x, 0x%x, 0x%x]\n", uint32_t{tuple.ip_proto},
               uint32_t{tuple.trans_proto}, tuple_key(tuple));
}

static bool ports_present(const PortDescriptor* ports, uint32_t port_count) {
  return ports != nullptr && port_count != 0;
}

static int corvil_datapath_proxy_validate_port(const PortDescriptor& port) {
  if (port.ip_proto != TAVIK_WLAN_IP_PROTO_IPV4 && port.ip_proto != TAVIK_WLAN_IP_PROTO_IPV6) {
    DATAPATH_LOG(ERR, "%s(): Invalid IP protocol %u\n", port.ip_proto);
    return -1;
  }
  if (port.trans_proto != TAVIK_WLAN_TRANS_PROTO_TCP &&
      port.trans_proto != TAVIK_WLAN_TRANS_PROTO_UDP) {
    DATAPATH_LOG(ERR, "%s(): Invalid transport protocol %u\n", port.trans_proto);
    return -1;
  }
  return 0;
}

/// The tuple of a port: a legal one whatever the port holds, since another thread of the host may
/// have changed it after its validation.
static DatapathTuple port_tuple(const PortDescriptor& port) {
  DatapathTuple tuple{};
  tuple.ip_proto = port.ip_proto == TAVIK_WLAN_IP_PROTO_IPV4 ? TAVIK_WLAN_IP_PROTO_IPV4
                                                             : TAVIK_WLAN_IP_PROTO_IPV6;
  tuple.trans_proto = port.trans_proto == TAVIK_WLAN_TRANS_PROTO_TCP ? TAVIK_WLAN_TRANS_PROTO_TCP
                                                                     : TAVIK_WLAN_TRANS_PROTO_UDP;
  // In network byte order, a port is the first half of the key; the other half stays zero.
  tuple.key.spi = htonl(uint32_t{port.port} << 16);
  return tuple;
}

static int send_ports(const char* name, uint32_t command, const PortDescriptor* ports,
                      uint32_t port_count,
                      void (*put_tuple)(DatapathRequest&, const DatapathTuple&),
                      RequestOptions options = {}) {
  if (port_count > CORVIL_DATAPATH_PROXY_MAX_PORTS) {
    DATAPATH_LOG_AS(ERR, name, "%s(): Too many ports: %u\n", port_count);
    return -1;
  }
  DatapathRequest request = begin_request(name, command, tuples_request_size(port_count), options);
  if (!request) {
    return -1;
  }
  const uint32_t tuples = request.open_container(TAVIK_WLAN_ATTR_TUPLES);
  for (uint32_t i = 0; i < port_count; ++i) {
    if (corvil_datapath_proxy_validate_port(ports[i]) == -1) {
      DATAPATH_LOG_AS(ERR, name, "%s(): Port %u is invalid\n", i);
      return -1;
    }
    put_tuple(request, port_tuple(ports[i]));
  }
  request.close_container(tuples);
  DATAPATH_LOG_AS(LOW, name, "%s(): pre corvil_netlink_transact nlmsg_len %d port_count %d",
                  static_cast<int32_t>(request.length()), static_cast<int32_t>(port_count));
  return corvil_netlink_transact(request.message(), NETLINK_GENERIC, nullptr);
}

static int corvil_datapath_proxy_add_ports(const PortDescriptor* ports, uint32_t port_count) {
  return send_ports(__func__, TAVIK_WLAN_CMD_ADD_TUPLES, ports, port_count,
                    corvil_datapath_proxy_add_tuple);
}

static int corvil_datapath_proxy_del_ports(const PortDescriptor* ports, uint32_t port_count) {
  return send_ports(__func__, TAVIK_WLAN_CMD_DEL_TUPLES, ports, port_count,
                    corvil_datapath_proxy_del_tuple, {.late_allocation_message = true});
}

int corvil_datapath_proxy_update_config_info(const PortDescriptor* new_ports,
                                             uint32_t new_port_count,
                                             const PortDescriptor* old_ports,
                                             uint32_t old_port_count) {
  const bool old_present = ports_present(old_ports, old_port_count);
  const bool new_present = ports_present(new_ports, new_port_count);
  if (!old_present && !new_present) {
    return reject_parameters(__func__);
  }
  DATAPATH_LOG(HIGH, "%s(): Updating port information\n");
  int result = 0;
  if (old_present) {
    DATAPATH_LOG(HIGH, "%s(): Removing %u ports\n", old_port_count);
    result = corvil_datapath_proxy_del_ports(old_ports, old_port_count);
    if (result == -1) {
      DATAPATH_LOG(ERR, "%s(): Removing port information failed\n");
      return -1;
    }
  }
  if (new_present) {
    DATAPATH_LOG(HIGH, "%s(): Adding %u ports\n", new_port_count);
    result = corvil_datapath_proxy_add_ports(new_ports, new_port_count);
    if (result == -1) {
      DATAPATH_LOG(ERR, "%s(): Adding new port information failed\n");
    }
  }
  return result;
}

/// Appends the low 8 bits of a selector.
static void put_selector(DatapathRequest& request, uint32_t selector) {
  request.put_u8(TAVIK_WLAN_ATTR_SELECTOR, static_cast<uint8_t>(selector));
}

/// The complete request for a forwarding pair; compares false when it could not be built.
static DatapathRequest build_forwarding(const char* name, uint32_t command, uint32_t selector,
                                        const char* fwd_to, const char* fwd_from) {
  DatapathRequest request =
      begin_request(name, command,
                    request_size(attribute_size(sizeof(uint8_t)), string_attribute_size(fwd_to),
                                 string_attribute_size(fwd_from)));
  if (request) {
    put_selector(request, selector);
    request.put_string(TAVIK_WLAN_ATTR_FWD_TO, fwd_to);
    request.put_string(TAVIK_WLAN_ATTR_FWD_FROM, fwd_from);
  }
  return request;
}

static int corvil_datapath_proxy_add_fwd_info(uint32_t selector, const char* fwd_to,
                                              const char* fwd_from) {
  const DatapathRequest request =
      build_forwarding(__func__, TAVIK_WLAN_CMD_ADD_FWD_INFO, selector, fwd_to, fwd_from);
  if (!request) {
    return -1;
  }
  DATAPATH_LOG(MED, "%s(): Forwarding %s to %s\n", fwd_from, fwd_to);
  int kernel_error = 0;
  const int result = transact(__func__, request, &kernel_error);
  return forgive_existing(result, kernel_error);
}

static int corvil_datapath_proxy_del_fwd_info(uint32_t selector, const char* fwd_to,
                                              const char* fwd_from) {
  const DatapathRequest request =
      build_forwarding(__func__, TAVIK_WLAN_CMD_DEL_FWD_INFO, selector, fwd_to, fwd_from);
  if (!request) {
    return -1;
  }
  DATAPATH_LOG(MED, "%s(): Stopping forward from %s to %s\n", fwd_from, fwd_to);
  return transact(__func__, request);
}

/// Removes a forwarding pair as a step of an exported call, which it logs for.
static int remove_forwarding(const char* name, uint32_t selector, const char* fwd_to,
                             const char* fwd_from) {
  DATAPATH_LOG_AS(HIGH, name, "%s(): Removing FWD information\n");
  const int result = corvil_datapath_proxy_del_fwd_info(selector, fwd_to, fwd_from);
  if (result == -1) {
    DATAPATH_LOG_AS(ERR, name, "%s(): Removing FWD information failed\n");
  }
  return result;
}

int corvil_datapath_proxy_unset_reverse_dev_mapping(uint32_t selector, const char* fwd_to,
                                                    const char* fwd_from) {
  if (fwd_to == nullptr || fwd_from == nullptr) {
    return reject_parameters(__func__);
  }
  return remove_forwarding(__func__, selector, fwd_to, fwd_from);
}

/// The complete request for the WLAN device; compares false when it could not be built.
static DatapathRequest build_device(const char* name, uint32_t command, uint32_t selector,
                                    const char* wlan_dev) {
  DatapathRequest request =
      begin_request(name, command,
                    request_size(attribute_size(sizeof(uint8_t)), string_attribute_size(wlan_dev)));
  if (request) {
    put_selector(request, selector);
    request.put_string(TAVIK_WLAN_ATTR_DEV, wlan_dev);
  }
  return request;
}

static int corvil_datapath_proxy_set_wlan_device(uint32_t selector, const char* wlan_dev) {
  const DatapathRequest request =
      build_device(__func__, TAVIK_WLAN_CMD_SET_DEV, selector, wlan_dev);
  if (!request) {
    return -1;
  }
  DATAPATH_LOG(MED, "%s(): Setting WLAN device to %s\n", wlan_dev);
  return transact(__func__, request);
}

static int corvil_datapath_proxy_unset_wlan_device(uint32_t selector, const char* wlan_dev) {
  const DatapathRequest request =
      build_device(__func__, TAVIK_WLAN_CMD_UNSET_DEV, selector, wlan_dev);
  if (!request) {
    return -1;
  }
  DATAPATH_LOG(MED, "%s(): Unsetting WLAN device from %s\n", wlan_dev);
  return transact(__func__, request);
}

int corvil_datapath_proxy_set_config_info(const char* wlan_dev, const char* fwd_to,
                                          const char* fwd_from, const PortDescriptor* ports,
                                          uint32_t port_count, uint32_t selector) {
  if (wlan_dev == nullptr || fwd_to == nullptr || fwd_from == nullptr) {
    return reject_parameters(__func__);
  }
  if (ports_present(ports, port_count)) {
    DATAPATH_LOG(HIGH, "%s(): Adding port information\n");
    if (corvil_datapath_proxy_add_ports(ports, port_count) == -1) {
      DATAPATH_LOG(ERR, "%s(): Adding port information failed\n");
      return -1;
    }
  }
  DATAPATH_LOG(HIGH, "%s(): Adding FWD information\n");
  if (corvil_datapath_proxy_add_fwd_info(selector, fwd_to, fwd_from) == -1) {
    DATAPATH_LOG(ERR, "%s(): Adding FWD information failed\n");
    return -1;
  }
  DATAPATH_LOG(HIGH, "%s(): Adding WLAN device information\n");
  const int result = corvil_datapath_proxy_set_wlan_device(selector, wlan_dev);
  if (result == -1) {
    DATAPATH_LOG(ERR, "%s(): Adding WLAN device information failed\n");
  }
  return result;
}

/// The selector whose tear-down also flushes the low-latency flows.
constexpr uint32_t kLowLatencySelector = 1;

int corvil_datapath_proxy_unset_config_info(const char* wlan_dev, const char* fwd_to,
                                            const char* fwd_from, const PortDescriptor* ports,
                                            uint32_t port_count, uint32_t selector) {
  if (wlan_dev == nullptr || fwd_to == nullptr || fwd_from == nullptr) {
    return reject_parameters(__func__);
  }
  DATAPATH_LOG(HIGH, "%s(): Removing WLAN device information\n");
  if (corvil_datapath_proxy_unset_wlan_device(selector, wlan_dev) == -1) {
    DATAPATH_LOG(ERR, "%s(): Removing WLAN device information failed\n");
    return -1;
  }
  int result = remove_forwarding(__func__, selector, fwd_to, fwd_from);
  if (result == -1) {
    return -1;
  }
  if (ports_present(ports, port_count)) {
    DATAPATH_LOG(HIGH, "%s(): Removing port information\n");
    result = corvil_datapath_proxy_del_ports(ports, port_count);
    if (result == -1) {
      DATAPATH_LOG(ERR, "%s(): Removing port information failed\n");
    }
  }
  if (selector == kLowLatencySelector) {
    DATAPATH_LOG(HIGH, "%s(): Removing low latency address!\n");
    corvil_datapath_proxy_flush_ll_dst_addr();
  }
  return result;
}

int corvil_datapath_proxy_flush_config_info() {
  const DatapathRequest request = begin_request(__func__, TAVIK_WLAN_CMD_RESET, request_size());
  if (!request) {
    return -1;
  }
  DATAPATH_LOG(HIGH, "%s(): Resetting datapath state\n");
  const int result = transact(__func__, request);
  if (result == -1) {
    DATAPATH_LOG(ERR, "%s(): Resetting datapath state failed\n");
  }
  return result;
}

// Traffic rules

/// The tuple of an ESP flow; any address text with a colon is an IPv6 one.
static DatapathTuple ipsec_tuple(const IpsecInfo& info, const char* address) {
  DatapathTuple tuple{};
  tuple.ip_proto =
      strchr(address, ':') != nullptr ? TAVIK_WLAN_IP_PROTO_IPV6 : TAVIK_WLAN_IP_PROTO_IPV4;
  tuple.trans_proto = TAVIK_WLAN_TRANS_PROTO_ESP;
  tuple.key.spi = info.spi;
  return tuple;
}

static DatapathRequest begin_ipsec(const char* name, uint32_t command, const IpsecInfo* info,
                                   const char* address) {
  return begin_request(name, command, tuples_request_size(1),
                       {.parameters_valid = info != nullptr && address != nullptr});
}

/// Appends the container with the one tuple and sends the request.
static int send_ipsec(const char* name, DatapathRequest& request, const DatapathTuple& tuple,
                      void (*put_tuple)(DatapathRequest&, const DatapathTuple&)) {
  const uint32_t tuples = request.open_container(TAVIK_WLAN_ATTR_TUPLES);
  put_tuple(request, tuple);
  request.close_container(tuples);
  return transact(name, request);
}

int corvil_datapath_proxy_add_ipsec_info(const IpsecInfo* info, const char* address) {
  DatapathRequest request = begin_ipsec(__func__, TAVIK_WLAN_CMD_ADD_TUPLES, info, address);
  if (!request) {
    return -1;
  }
  const DatapathTuple tuple = ipsec_tuple(*info, address);
  DATAPATH_LOG(HIGH, "%s(): Adding IPSEC information\n");
  const int result = send_ipsec(__func__, request, tuple, corvil_datapath_proxy_add_tuple);
  if (result == -1) {
    DATAPATH_LOG(ERR, "%s(): Adding IPSEC information failed\n");
  }
  return result;
}

int corvil_datapath_proxy_delete_ipsec_info(const IpsecInfo* info, const char* address) {
  DatapathRequest request = begin_ipsec(__func__, TAVIK_WLAN_CMD_DEL_TUPLES, info, address);
  if (!request) {
    return -1;
  }
  const DatapathTuple tuple = ipsec_tuple(*info, address);
  DATAPATH_LOG(HIGH, "%s(): Removing IPSEC information\n");
  const int result = send_ipsec(__func__, request, tuple, corvil_datapath_proxy_del_tuple);
  if (result == -1) {
    DATAPATH_LOG(ERR, "%s(): Removing IPSEC information failed\n");
  }
  return result;
}

static DatapathRequest begin_encap_port(const char* name, uint32_t command) {
  return begin_request(name, command, request_size(attribute_size(sizeof(uint16_t))));
}

/// Appends the port, in network byte order, and sends the request.
static int send_encap_port(const char* name, DatapathRequest& request, uint16_t port) {
  request.put_u16(TAVIK_WLAN_ATTR_ENCAP_PORT, port);
  return transact(name, request);
}

int corvil_datapath_proxy_set_udp_encap_port(uint16_t port) {
  DatapathRequest request = begin_encap_port(__func__, TAVIK_WLAN_CMD_SET_ENCAP_PORT);
  if (!request) {
    return -1;
  }
  DATAPATH_LOG(HIGH, "%s(): Setting UDP encap port to %u\n", uint32_t{ntohs(port)});
  const int result = send_encap_port(__func__, request, port);
  if (result == -1) {
    DATAPATH_LOG(ERR, "%s(): Setting UDP encap port failed\n");
  }
  return result;
}

int corvil_datapath_proxy_unset_udp_encap_port(uint16_t port) {
  DatapathRequest request = begin_encap_port(__func__, TAVIK_WLAN_CMD_UNSET_ENCAP_PORT);
  if (!request) {
    return -1;
  }
  DATAPATH_LOG(HIGH, "%s(): Unsetting UDP encap port from %u\n", uint32_t{ntohs(port)});
  const int result = send_encap_port(__func__, request, port);
  if (result == -1) {
    DATAPATH_LOG(ERR, "%s(): Unsetting UDP encap port failed\n");
  }
  return result;
}

int corvil_datapath_proxy_act_encap_port_pass_through(uint16_t port) {
  DatapathRequest request = begin_encap_port(__func__, TAVIK_WLAN_CMD_ENCAP_PORT_ACT_PASS_THROUGH);
  if (!request) {
    return -1;
  }
  DATAPATH_LOG(HIGH, "%s(): Enabling encap port packet pass through for port %u\n",
               uint32_t{ntohs(port)});
  const int result = send_encap_port(__func__, request, port);
  if (result == -1) {
    DATAPATH_LOG(ERR, "%s(): Enabling encap port packet pass through failed\n");
  }
  return result;
}

int corvil_datapath_proxy_act_encap_port_drop(uint16_t port) {
  DatapathRequest request = begin_encap_port(__func__, TAVIK_WLAN_CMD_ENCAP_PORT_ACT_DROP);
  if (!request) {
    return -1;
  }
  DATAPATH_LOG(HIGH, "%s(): Enabling encap port packet drop for port %u\n", uint32_t{ntohs(port)});
  const int result = send_encap_port(__func__, request, port);
  if (result == -1) {
    DATAPATH_LOG(ERR, "%s(): Enabling encap port packet drop failed\n");
  }
  return result;
}

int corvil_datapath_proxy_add_ll_dst_addr(const char* src_addr, const char* dst_addr,
                                          uint16_t src_port, uint16_t dst_port) {
  if (src_addr == nullptr || dst_addr == nullptr) {
    return reject_parameters(__func__);
  }
  const uint32_t size =
      request_size(string_attribute_size(src_addr), string_attribute_size(dst_addr),
                   attribute_size(sizeof(src_port)), attribute_size(sizeof(dst_port)));
  DatapathRequest request = begin_request(__func__, TAVIK_WLAN_CMD_LL_ADDR_ADD, size);
  if (!request) {
    return -1;
  }
  request.put_string(TAVIK_WLAN_ATTR_LL_SRC_ADDR, src_addr);
  request.put_string(TAVIK_WLAN_ATTR_LL_DST_ADDR, dst_addr);
  request.put_u16(TAVIK_WLAN_ATTR_LL_SRC_PORT, src_port);
  request.put_u16(TAVIK_WLAN_ATTR_LL_DST_PORT, dst_port);
  DATAPATH_LOG(MED, "%s(): XOLINK low latency tuple src: %s dest: %s sport: %u dport: %u", src_addr,
               dst_addr, uint32_t{ntohs(src_port)}, uint32_t{ntohs(dst_port)});
  int kernel_error = 0;
  const int result = transact(__func__, request, &kernel_error);
  return forgive_existing(result, kernel_error);
}

int corvil_datapath_proxy_flush_ll_dst_addr() {
  const DatapathRequest request =
      begin_request(__func__, TAVIK_WLAN_CMD_LL_ADDR_FLUSH, request_size());
  if (!request) {
    return -1;
  }
  int kernel_error = 0;
  const int result = corvil_netlink_transact(request.message(), NETLINK_GENERIC, &kernel_error);
  return forgive_existing(result, kernel_error);
}

// Kernel state query
//
// A reply comes from the kernel through the host's netlink library. Nothing beyond the message is
// read, whatever the lengths in it say: what does not lie whole within ends the walk.

/// Attributes of a reply, as bytes that are known to be there.
struct AttributeRun {
  const uint8_t* start = nullptr;
  uint32_t length = 0;
};

/// The first attribute of a run; null unless it lies whole within.
static const nlattr* first_attribute(AttributeRun run) {
  const auto* attribute = reinterpret_cast<const nlattr*>(run.start);
  const bool whole = run.length >= NLA_HDRLEN && attribute->nla_len >= NLA_HDRLEN &&
                     attribute->nla_len <= run.length;
  return whole ? attribute : nullptr;
}

/// What follows the first attribute of a run. Its padding may be missing at the end of the run.
static AttributeRun after(const nlattr* first, AttributeRun run) {
  const uint32_t step = checked_align(first->nla_len);
  return step < run.length ? AttributeRun{run.start + step, run.length - step} : AttributeRun{};
}

/// The payload of an attribute of `run`; empty unless it lies whole within.
static AttributeRun payload_of(const nlattr* attribute, AttributeRun run) {
  const auto* start = reinterpret_cast<const uint8_t*>(attribute);
  const auto left = static_cast<uint32_t>(run.start + run.length - start);
  return first_attribute({start, left}) != nullptr
             ? AttributeRun{start + NLA_HDRLEN, uint32_t{attribute->nla_len} - NLA_HDRLEN}
             : AttributeRun{};
}

static AttributeRun attributes_of(const nlmsghdr* reply) {
  return reply->nlmsg_len >= kHeadersSize
             ? AttributeRun{reinterpret_cast<const uint8_t*>(reply) + kHeadersSize,
                            reply->nlmsg_len - kHeadersSize}
             : AttributeRun{};
}

/// The last attribute of a type in a run; null when there is none.
template <uint16_t kType, uint16_t kMaxType>
static const nlattr* find_attribute(AttributeRun run) {
  const nlattr* by_type[kMaxType + 1] = {};
  if (run.start != nullptr) {
    corvil_nla_parse(reinterpret_cast<const nlattr*>(run.start), by_type, run.length, kMaxType);
  }
  return by_type[kType];
}

/// Hands the ports of one reply to the host's port tree. Returns 1 when the walk over its tuples
/// ended and the tree took the last of them, else 0.
static int tavik_wlan_tuple_query_cb(const nlmsghdr* reply, void* /*context*/) {
  if (reply == nullptr) {
    DATAPATH_LOG(ERR, "%s(): Invalid netlink header!");
    return 0;
  }
  const AttributeRun attributes = attributes_of(reply);
  const nlattr* tuples = find_attribute<TAVIK_WLAN_ATTR_TUPLES, TAVIK_WLAN_ATTR_MAX>(attributes);
  if (tuples == nullptr) {
    DATAPATH_LOG(ERR, "%s(): Invalid Outer Tuples NLA!");
    return 0;
  }

  int tree_result = -1;  // of the last port handed over
  AttributeRun elements = payload_of(tuples, attributes);
  for (; const nlattr* element = first_attribute(elements); elements = after(element, elements)) {
    const AttributeRun inside = payload_of(element, elements);
    const nlattr* attribute =
        find_attribute<TAVIK_WLAN_TUPLE_ATTR, TAVIK_WLAN_TUPLE_ATTR_MAX>(inside);
    if (attribute == nullptr) {
      DATAPATH_LOG(ERR, "%s(): Invalid Outer Tuples NLA!");
      return 0;
    }
    const AttributeRun payload = payload_of(attribute, inside);
    if (payload.length < offsetof(DatapathTuple, reserved)) {
      break;
    }
    uint16_t port = 0;
    memcpy(&port, payload.start + offsetof(DatapathTuple, key), sizeof(port));
    port = ntohs(port);
    const uint8_t ip_proto = payload.start[offsetof(DatapathTuple, ip_proto)];
    const uint8_t trans_proto = payload.start[offsetof(DatapathTuple, trans_proto)];
    DATAPATH_LOG(LOW, "Adding %s:Port:%u ip_proto:%u trans_proto:%u ", uint32_t{port},
                 uint32_t{ip_proto}, uint32_t{trans_proto});
    tree_result = corvil_port_utils_add_port_from_kernel(port, ip_proto, trans_proto);
    if (tree_result != 0) {
      DATAPATH_LOG(ERR, "%s(): Failed to add port to tree!");
    }
  }
  return tree_result == 0 ? 1 : 0;
}

int corvil_datapath_proxy_get_port_tuple() {
  const DatapathRequest request =
      begin_request(__func__, TAVIK_WLAN_CMD_GET_TUPLES, request_size());
  if (!request) {
    return -1;
  }
  DATAPATH_LOG(LOW, "%s(): Querying ports!");
  const int result = corvil_netlink_query(request.message(), NETLINK_GENERIC,
                                          tavik_wlan_tuple_query_cb, nullptr, 1);
  if (result == -1) {
    DATAPATH_LOG(ERR, "%s(): Error in netlink query!");
  }
  DATAPATH_LOG(LOW, "%s(): Finished getting ports!");
  return 0;
}
