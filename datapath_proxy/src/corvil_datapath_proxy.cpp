#include "datapath_proxy/include/corvil_datapath_proxy.h"

#include <arpa/inet.h>
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

namespace {

using datapath::attribute_size;
using datapath::checked_add;
using datapath::checked_align;
using datapath::checked_multiply;
using datapath::DatapathRequest;
using datapath::kContainerSize;
using datapath::kHeadersSize;
using datapath::LogFormat;
using datapath::string_attribute_size;

// Kernel messaging core
//
// The steps of a request, each logging under the name of the call or step that sends it. -1 is the
// only failure of the host's netlink library and of the library's own steps.

/// Fills the headers for a command, with the family's id as the kernel has it now. On -1 the
/// request is untouched.
int corvil_datapath_proxy_genlmsg_init(DatapathRequest& request, uint32_t command) {
  uint16_t family_id = 0;
  if (corvil_netlink_query_genl(TAVIK_WLAN_FAMILY_NAME, TAVIK_WLAN_FAMILY_VERSION, &family_id) ==
      -1) {
    DATAPATH_LOG(ERR, "%s(): Querying GENL for family [%s, %u] failed\n",
                 static_cast<const char*>(TAVIK_WLAN_FAMILY_NAME),
                 uint32_t{TAVIK_WLAN_FAMILY_VERSION});
    return -1;
  }
  request.fill_headers(family_id, static_cast<uint8_t>(command), TAVIK_WLAN_FAMILY_VERSION);
  return 0;
}

/// Logs a failure whose function and text say all of it.
void log_failure(const char* name, LogFormat<> message) { DATAPATH_LOG_AS(ERR, name, message); }

/// Logs that a call or a step of it has failed, if it has; hands on its result.
int log_failure(const char* name, LogFormat<> message, int result) {
  if (result == -1) {
    log_failure(name, message);
  }
  return result;
}

int reject_parameters(const char* name) {
  log_failure(name, "%s(): Invalid parameters\n");
  return -1;
}

DatapathRequest allocate_request(const char* name, uint32_t size) {
  DatapathRequest request(size);
  if (!request) {
    log_failure(name, "%s(): GENL message allocation failure\n");
  }
  return request;
}

void log_allocation(const char* name, const DatapathRequest& request) {
  DATAPATH_LOG_AS(LOW, name, "%s(): Allocated %d bytes for msg",
                  static_cast<int32_t>(request.size()));
}

bool fill_headers(const char* name, DatapathRequest& request, uint32_t command) {
  if (corvil_datapath_proxy_genlmsg_init(request, command) == -1) {
    log_failure(name, "%s(): GENL message failure\n");
    return false;
  }
  return true;
}

/// Where a request's allocation is logged: the removal of ports does it late.
enum class AllocationMessage { kBeforeHeaders, kAfterHeaders };

/// Allocates a request and fills its headers; the result compares false when either failed.
DatapathRequest begin_request(const char* name, uint32_t command, uint32_t size,
                              AllocationMessage message = AllocationMessage::kBeforeHeaders) {
  DatapathRequest request = allocate_request(name, size);
  if (!request) {
    return request;
  }
  if (message == AllocationMessage::kBeforeHeaders) {
    log_allocation(name, request);
  }
  if (!fill_headers(name, request, command)) {
    request.release();
  } else if (message == AllocationMessage::kAfterHeaders) {
    log_allocation(name, request);
  }
  return request;
}

/// Sends a complete request; `kernel_error`, unless null, receives the kernel's negative errno.
int transact(const char* name, const DatapathRequest& request, int* kernel_error = nullptr) {
  DATAPATH_LOG_AS(LOW, name, "%s(): pre corvil_netlink_transact nlmsg_len %d",
                  static_cast<int32_t>(request.length()));
  return corvil_netlink_transact(request.message(), NETLINK_GENERIC, kernel_error);
}

/// The result of a request that is done as well when the kernel holds its object already.
int forgive_existing(int result, int kernel_error) {
  return result == -1 && kernel_error == -EEXIST ? 0 : result;
}

// Tuples: what port lists and IPsec flows have in common

/// The port, or the SPI of an ESP tuple, in host byte order.
uint32_t tuple_key(const DatapathTuple& tuple) {
  return tuple.trans_proto == TAVIK_WLAN_TRANS_PROTO_ESP ? ntohl(tuple.key.spi)
                                                         : ntohs(tuple.key.port);
}

uint32_t tuples_request_size(uint32_t tuple_count) {
  const uint32_t element_size = kContainerSize + attribute_size(sizeof(DatapathTuple));
  return checked_add(kHeadersSize + kContainerSize, checked_multiply(element_size, tuple_count));
}

/// Appends one tuple element to the request's tuple container.
using PutTuple = void (*)(DatapathRequest& request, const DatapathTuple& tuple);

void put_tuple(const char* name, LogFormat<uint32_t, uint32_t, uint32_t> message,
               DatapathRequest& request, const DatapathTuple& tuple) {
  const uint32_t element = request.open_container(TAVIK_WLAN_TUPLE_ELEMENT);
  request.put(TAVIK_WLAN_TUPLE_ATTR, sizeof(tuple), &tuple);
  DATAPATH_LOG_AS(MED, name, message, uint32_t{tuple.ip_proto}, uint32_t{tuple.trans_proto},
                  tuple_key(tuple));
  request.close_container(element);
}

void corvil_datapath_proxy_add_tuple(DatapathRequest& request, const DatapathTuple& tuple) {
  put_tuple(__func__, "%s(): Adding tuple [0x%x, 0x%x, 0x%x]\n", request, tuple);
}

void corvil_datapath_proxy_del_tuple(DatapathRequest& request, const DatapathTuple& tuple) {
  put_tuple(__func__, "%s(): Removing tuple [0x%x, 0x%x, 0x%x]\n", request, tuple);
}

// Proxy configuration lifecycle: ports

bool ports_present(const PortDescriptor* ports, uint32_t port_count) {
  return ports != nullptr && port_count != 0;
}

int corvil_datapath_proxy_validate_port(const PortDescriptor& port) {
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

/// The tuple of a valid port.
DatapathTuple port_tuple(const PortDescriptor& port) {
  DatapathTuple tuple{};
  tuple.key.port = htons(port.port);
  tuple.ip_proto = static_cast<uint8_t>(port.ip_proto);
  tuple.trans_proto = static_cast<uint8_t>(port.trans_proto);
  return tuple;
}

/// What tells the addition of ports from their removal.
struct PortListCall {
  const char* name;
  uint32_t command;
  AllocationMessage allocation_message;
  PutTuple put_tuple;
};

int send_ports(const PortListCall& call, const PortDescriptor* ports, uint32_t port_count) {
  if (port_count > CORVIL_DATAPATH_PROXY_MAX_PORTS) {
    DATAPATH_LOG_AS(ERR, call.name, "%s(): Too many ports: %u\n", port_count);
    return -1;
  }
  DatapathRequest request = begin_request(call.name, call.command, tuples_request_size(port_count),
                                          call.allocation_message);
  if (!request) {
    return -1;
  }
  const uint32_t tuples = request.open_container(TAVIK_WLAN_ATTR_TUPLES);
  for (uint32_t i = 0; i < port_count; ++i) {
    if (corvil_datapath_proxy_validate_port(ports[i]) == -1) {
      DATAPATH_LOG_AS(ERR, call.name, "%s(): Port %u is invalid\n", i);
      return -1;
    }
    call.put_tuple(request, port_tuple(ports[i]));
  }
  request.close_container(tuples);
  DATAPATH_LOG_AS(LOW, call.name, "%s(): pre corvil_netlink_transact nlmsg_len %d port_count %d",
                  static_cast<int32_t>(request.length()), static_cast<int32_t>(port_count));
  return corvil_netlink_transact(request.message(), NETLINK_GENERIC, nullptr);
}

int corvil_datapath_proxy_add_ports(const PortDescriptor* ports, uint32_t port_count) {
  return send_ports({__func__, TAVIK_WLAN_CMD_ADD_TUPLES, AllocationMessage::kBeforeHeaders,
                     corvil_datapath_proxy_add_tuple},
                    ports, port_count);
}

int corvil_datapath_proxy_del_ports(const PortDescriptor* ports, uint32_t port_count) {
  return send_ports({__func__, TAVIK_WLAN_CMD_DEL_TUPLES, AllocationMessage::kAfterHeaders,
                     corvil_datapath_proxy_del_tuple},
                    ports, port_count);
}

// Proxy configuration lifecycle: forwarding pair and WLAN device

/// The selector whose tear-down also flushes the low-latency flows.
constexpr uint32_t kLowLatencySelector = 1;

/// Appends the low 8 bits of a selector.
void put_selector(DatapathRequest& request, uint32_t selector) {
  request.put_u8(TAVIK_WLAN_ATTR_SELECTOR, static_cast<uint8_t>(selector));
}

/// What tells the addition of a forwarding pair from its removal.
struct ForwardingCall {
  const char* name;
  uint32_t command;
  LogFormat<const char*, const char*> message;  // from, to
};

int send_forwarding(const ForwardingCall& call, uint32_t selector, const char* fwd_to,
                    const char* fwd_from, int* kernel_error) {
  const uint32_t size = checked_add(
      checked_add(kHeadersSize + attribute_size(sizeof(uint8_t)), string_attribute_size(fwd_to)),
      string_attribute_size(fwd_from));
  DatapathRequest request = begin_request(call.name, call.command, size);
  if (!request) {
    return -1;
  }
  put_selector(request, selector);
  request.put_string(TAVIK_WLAN_ATTR_FWD_TO, fwd_to);
  request.put_string(TAVIK_WLAN_ATTR_FWD_FROM, fwd_from);
  DATAPATH_LOG_AS(MED, call.name, call.message, fwd_from, fwd_to);
  return transact(call.name, request, kernel_error);
}

int corvil_datapath_proxy_add_fwd_info(uint32_t selector, const char* fwd_to,
                                       const char* fwd_from) {
  int kernel_error = 0;
  const int result =
      send_forwarding({__func__, TAVIK_WLAN_CMD_ADD_FWD_INFO, "%s(): Forwarding %s to %s\n"},
                      selector, fwd_to, fwd_from, &kernel_error);
  return forgive_existing(result, kernel_error);
}

int corvil_datapath_proxy_del_fwd_info(uint32_t selector, const char* fwd_to,
                                       const char* fwd_from) {
  return send_forwarding(
      {__func__, TAVIK_WLAN_CMD_DEL_FWD_INFO, "%s(): Stopping forward from %s to %s\n"}, selector,
      fwd_to, fwd_from, nullptr);
}

/// The forwarding removal as a step of an exported call, which it logs for.
int remove_forwarding(const char* name, uint32_t selector, const char* fwd_to,
                      const char* fwd_from) {
  DATAPATH_LOG_AS(HIGH, name, "%s(): Removing FWD information\n");
  return log_failure(name, "%s(): Removing FWD information failed\n",
                     corvil_datapath_proxy_del_fwd_info(selector, fwd_to, fwd_from));
}

/// What tells the setting of the WLAN device from its unsetting.
struct DeviceCall {
  const char* name;
  uint32_t command;
  LogFormat<const char*> message;  // device
};

int send_device(const DeviceCall& call, uint32_t selector, const char* wlan_dev) {
  const uint32_t size =
      checked_add(kHeadersSize + attribute_size(sizeof(uint8_t)), string_attribute_size(wlan_dev));
  DatapathRequest request = begin_request(call.name, call.command, size);
  if (!request) {
    return -1;
  }
  put_selector(request, selector);
  request.put_string(TAVIK_WLAN_ATTR_DEV, wlan_dev);
  DATAPATH_LOG_AS(MED, call.name, call.message, wlan_dev);
  return transact(call.name, request);
}

int corvil_datapath_proxy_set_wlan_device(uint32_t selector, const char* wlan_dev) {
  return send_device({__func__, TAVIK_WLAN_CMD_SET_DEV, "%s(): Setting WLAN device to %s\n"},
                     selector, wlan_dev);
}

int corvil_datapath_proxy_unset_wlan_device(uint32_t selector, const char* wlan_dev) {
  return send_device({__func__, TAVIK_WLAN_CMD_UNSET_DEV, "%s(): Unsetting WLAN device from %s\n"},
                     selector, wlan_dev);
}

// Traffic rules

/// What tells one call on the encapsulation port from another.
struct EncapPortCall {
  const char* name;
  uint32_t command;
  LogFormat<uint32_t> announcement;  // port in host byte order
  LogFormat<> failure;
};

int send_encap_port(const EncapPortCall& call, uint16_t port) {
  DatapathRequest request =
      begin_request(call.name, call.command, kHeadersSize + attribute_size(sizeof(port)));
  if (!request) {
    return -1;
  }
  DATAPATH_LOG_AS(HIGH, call.name, call.announcement, uint32_t{ntohs(port)});
  request.put_u16(TAVIK_WLAN_ATTR_ENCAP_PORT, port);
  return log_failure(call.name, call.failure, transact(call.name, request));
}

/// The tuple of an ESP flow; any address text with a colon is an IPv6 one.
DatapathTuple ipsec_tuple(const IpsecInfo& info, const char* address) {
  DatapathTuple tuple{};
  tuple.key.spi = info.spi;
  tuple.ip_proto =
      strchr(address, ':') != nullptr ? TAVIK_WLAN_IP_PROTO_IPV6 : TAVIK_WLAN_IP_PROTO_IPV4;
  tuple.trans_proto = TAVIK_WLAN_TRANS_PROTO_ESP;
  return tuple;
}

/// What tells the addition of an IPsec flow from its deletion.
struct IpsecCall {
  const char* name;
  uint32_t command;
  PutTuple put_tuple;
  LogFormat<> announcement;
  LogFormat<> failure;
};

int send_ipsec(const IpsecCall& call, const IpsecInfo* info, const char* address) {
  DatapathRequest request = allocate_request(call.name, tuples_request_size(1));
  if (!request) {
    return -1;
  }
  log_allocation(call.name, request);
  if (info == nullptr || address == nullptr) {
    return reject_parameters(call.name);
  }
  if (!fill_headers(call.name, request, call.command)) {
    return -1;
  }
  DATAPATH_LOG_AS(HIGH, call.name, call.announcement);
  const uint32_t tuples = request.open_container(TAVIK_WLAN_ATTR_TUPLES);
  call.put_tuple(request, ipsec_tuple(*info, address));
  request.close_container(tuples);
  return log_failure(call.name, call.failure, transact(call.name, request));
}

// Kernel state query

/// Attributes of a reply, as bytes that can be trusted to be there.
struct AttributeRun {
  const uint8_t* start = nullptr;
  uint32_t length = 0;
};

/// The first attribute of a run; null unless it lies whole within.
const nlattr* first_attribute(AttributeRun run) {
  const auto* attribute = reinterpret_cast<const nlattr*>(run.start);
  const bool whole = run.length >= NLA_HDRLEN && attribute->nla_len >= NLA_HDRLEN &&
                     attribute->nla_len <= run.length;
  return whole ? attribute : nullptr;
}

/// What follows a run's first attribute. Its padding may be missing at the end of the run.
AttributeRun after_first(AttributeRun run) {
  const uint32_t step = checked_align(first_attribute(run)->nla_len);
  return step < run.length ? AttributeRun{run.start + step, run.length - step} : AttributeRun{};
}

/// The payload of an attribute of `run`; empty unless it lies whole within.
AttributeRun payload_of(const nlattr* attribute, AttributeRun run) {
  const auto* start = reinterpret_cast<const uint8_t*>(attribute);
  const auto left = static_cast<uint32_t>(run.start + run.length - start);
  return first_attribute({start, left}) != nullptr
             ? AttributeRun{start + NLA_HDRLEN, uint32_t{attribute->nla_len} - NLA_HDRLEN}
             : AttributeRun{};
}

AttributeRun attributes_of(const nlmsghdr* reply) {
  return reply->nlmsg_len >= kHeadersSize
             ? AttributeRun{reinterpret_cast<const uint8_t*>(reply) + kHeadersSize,
                            reply->nlmsg_len - kHeadersSize}
             : AttributeRun{};
}

void parse(AttributeRun run, const nlattr** table, uint16_t max_type) {
  corvil_nla_parse(reinterpret_cast<const nlattr*>(run.start), table, run.length, max_type);
}

/// Hands the ports of one reply to the host's port tree. Returns 1 when the walk over its tuples
/// ended and the tree took the last of them, else 0. Reads nothing beyond the message, whatever the
/// lengths in it say: what does not lie whole within ends the walk.
int tavik_wlan_tuple_query_cb(const nlmsghdr* reply, void* /*context*/) {
  if (reply == nullptr) {
    log_failure(__func__, "%s(): Invalid netlink header!");
    return 0;
  }
  const AttributeRun attributes = attributes_of(reply);
  const nlattr* by_type[TAVIK_WLAN_ATTR_MAX + 1] = {};
  parse(attributes, by_type, TAVIK_WLAN_ATTR_MAX);
  const nlattr* tuples = by_type[TAVIK_WLAN_ATTR_TUPLES];
  if (tuples == nullptr) {
    DATAPATH_LOG(ERR, "%s(): Invalid Outer Tuples NLA!");
    return 0;
  }

  int tree_result = -1;  // of the last port handed over
  const nlattr* element_by_type[TAVIK_WLAN_TUPLE_ATTR_MAX + 1] = {};
  AttributeRun elements = payload_of(tuples, attributes);
  for (; const nlattr* element = first_attribute(elements); elements = after_first(elements)) {
    const AttributeRun inside = payload_of(element, elements);
    parse(inside, element_by_type, TAVIK_WLAN_TUPLE_ATTR_MAX);
    const nlattr* attribute = element_by_type[TAVIK_WLAN_TUPLE_ATTR];
    if (attribute == nullptr) {
      DATAPATH_LOG(ERR, "%s(): Invalid Outer Tuples NLA!");
      return 0;
    }
    const AttributeRun tuple = payload_of(attribute, inside);
    if (tuple.length < offsetof(DatapathTuple, reserved)) {
      break;
    }
    uint16_t port = 0;
    memcpy(&port, tuple.start + offsetof(DatapathTuple, key), sizeof(port));
    port = ntohs(port);
    const uint8_t ip_proto = tuple.start[offsetof(DatapathTuple, ip_proto)];
    const uint8_t trans_proto = tuple.start[offsetof(DatapathTuple, trans_proto)];
    DATAPATH_LOG(LOW, "Adding %s:Port:%u ip_proto:%u trans_proto:%u ", uint32_t{port},
                 uint32_t{ip_proto}, uint32_t{trans_proto});
    tree_result = corvil_port_utils_add_port_from_kernel(port, ip_proto, trans_proto);
    if (tree_result != 0) {
      log_failure(__func__, "%s(): Failed to add port to tree!");
    }
  }
  return tree_result == 0 ? 1 : 0;
}

}  // namespace

// Exported calls: proxy configuration lifecycle

int corvil_datapath_proxy_set_config_info(const char* wlan_dev, const char* fwd_to,
                                          const char* fwd_from, const PortDescriptor* ports,
                                          uint32_t port_count, uint32_t selector) {
  if (wlan_dev == nullptr || fwd_to == nullptr || fwd_from == nullptr) {
    return reject_parameters(__func__);
  }
  if (ports_present(ports, port_count)) {
    DATAPATH_LOG(HIGH, "%s(): Adding port information\n");
    if (log_failure(__func__, "%s(): Adding port information failed\n",
                    corvil_datapath_proxy_add_ports(ports, port_count)) == -1) {
      return -1;
    }
  }
  DATAPATH_LOG(HIGH, "%s(): Adding FWD information\n");
  if (log_failure(__func__, "%s(): Adding FWD information failed\n",
                  corvil_datapath_proxy_add_fwd_info(selector, fwd_to, fwd_from)) == -1) {
    return -1;
  }
  DATAPATH_LOG(HIGH, "%s(): Adding WLAN device information\n");
  return log_failure(__func__, "%s(): Adding WLAN device information failed\n",
                     corvil_datapath_proxy_set_wlan_device(selector, wlan_dev));
}

int corvil_datapath_proxy_unset_config_info(const char* wlan_dev, const char* fwd_to,
                                            const char* fwd_from, const PortDescriptor* ports,
                                            uint32_t port_count, uint32_t selector) {
  if (wlan_dev == nullptr || fwd_to == nullptr || fwd_from == nullptr) {
    return reject_parameters(__func__);
  }
  DATAPATH_LOG(HIGH, "%s(): Removing WLAN device information\n");
  if (log_failure(__func__, "%s(): Removing WLAN device information failed\n",
                  corvil_datapath_proxy_unset_wlan_device(selector, wlan_dev)) == -1) {
    return -1;
  }
  int result = remove_forwarding(__func__, selector, fwd_to, fwd_from);
  if (result == -1) {
    return -1;
  }
  if (ports_present(ports, port_count)) {
    DATAPATH_LOG(HIGH, "%s(): Removing port information\n");
    result = log_failure(__func__, "%s(): Removing port information failed\n",
                         corvil_datapath_proxy_del_ports(ports, port_count));
  }
  if (selector == kLowLatencySelector) {
    DATAPATH_LOG(HIGH, "%s(): Removing low latency address!\n");
    corvil_datapath_proxy_flush_ll_dst_addr();
  }
  return result;
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
    result = log_failure(__func__, "%s(): Removing port information failed\n",
                         corvil_datapath_proxy_del_ports(old_ports, old_port_count));
    if (result == -1) {
      return -1;
    }
  }
  if (new_present) {
    DATAPATH_LOG(HIGH, "%s(): Adding %u ports\n", new_port_count);
    result = log_failure(__func__, "%s(): Adding new port information failed\n",
                         corvil_datapath_proxy_add_ports(new_ports, new_port_count));
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

int corvil_datapath_proxy_flush_config_info() {
  DatapathRequest request = begin_request(__func__, TAVIK_WLAN_CMD_RESET, kHeadersSize);
  if (!request) {
    return -1;
  }
  DATAPATH_LOG(HIGH, "%s(): Resetting datapath state\n");
  return log_failure(__func__, "%s(): Resetting datapath state failed\n",
                     transact(__func__, request));
}

// Exported calls: traffic rules

int corvil_datapath_proxy_add_ipsec_info(const IpsecInfo* info, const char* address) {
  return send_ipsec({__func__, TAVIK_WLAN_CMD_ADD_TUPLES, corvil_datapath_proxy_add_tuple,
                     "%s(): Adding IPSEC information\n", "%s(): Adding IPSEC information failed\n"},
                    info, address);
}

int corvil_datapath_proxy_delete_ipsec_info(const IpsecInfo* info, const char* address) {
  return send_ipsec(
      {__func__, TAVIK_WLAN_CMD_DEL_TUPLES, corvil_datapath_proxy_del_tuple,
       "%s(): Removing IPSEC information\n", "%s(): Removing IPSEC information failed\n"},
      info, address);
}

int corvil_datapath_proxy_set_udp_encap_port(uint16_t port) {
  return send_encap_port(
      {__func__, TAVIK_WLAN_CMD_SET_ENCAP_PORT, "%s(): Setting UDP encap port to %u\n",
       "%s(): Setting UDP encap port failed\n"},
      port);
}

int corvil_datapath_proxy_unset_udp_encap_port(uint16_t port) {
  return send_encap_port(
      {__func__, TAVIK_WLAN_CMD_UNSET_ENCAP_PORT, "%s(): Unsetting UDP encap port from %u\n",
       "%s(): Unsetting UDP encap port failed\n"},
      port);
}

int corvil_datapath_proxy_act_encap_port_pass_through(uint16_t port) {
  return send_encap_port({__func__, TAVIK_WLAN_CMD_ENCAP_PORT_ACT_PASS_THROUGH,
                          "%s(): Enabling encap port packet pass through for port %u\n",
                          "%s(): Enabling encap port packet pass through failed\n"},
                         port);
}

int corvil_datapath_proxy_act_encap_port_drop(uint16_t port) {
  return send_encap_port({__func__, TAVIK_WLAN_CMD_ENCAP_PORT_ACT_DROP,
                          "%s(): Enabling encap port packet drop for port %u\n",
                          "%s(): Enabling encap port packet drop failed\n"},
                         port);
}

int corvil_datapath_proxy_add_ll_dst_addr(const char* src_addr, const char* dst_addr,
                                          uint16_t src_port, uint16_t dst_port) {
  if (src_addr == nullptr || dst_addr == nullptr) {
    return reject_parameters(__func__);
  }
  const uint32_t ports_size = attribute_size(sizeof(src_port)) + attribute_size(sizeof(dst_port));
  const uint32_t size =
      checked_add(checked_add(kHeadersSize + ports_size, string_attribute_size(src_addr)),
                  string_attribute_size(dst_addr));
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
  DatapathRequest request = begin_request(__func__, TAVIK_WLAN_CMD_LL_ADDR_FLUSH, kHeadersSize);
  if (!request) {
    return -1;
  }
  int kernel_error = 0;
  const int result = corvil_netlink_transact(request.message(), NETLINK_GENERIC, &kernel_error);
  return forgive_existing(result, kernel_error);
}

// Exported calls: kernel state query

int corvil_datapath_proxy_get_port_tuple() {
  DatapathRequest request = begin_request(__func__, TAVIK_WLAN_CMD_GET_TUPLES, kHeadersSize);
  if (!request) {
    return -1;
  }
  DATAPATH_LOG(LOW, "%s(): Querying ports!");
  log_failure(__func__, "%s(): Error in netlink query!",
              corvil_netlink_query(request.message(), NETLINK_GENERIC, tavik_wlan_tuple_query_cb,
                                   nullptr, 1));
  DATAPATH_LOG(LOW, "%s(): Finished getting ports!");
  return 0;
}
