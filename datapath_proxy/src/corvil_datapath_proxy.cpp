#include "datapath_proxy/include/corvil_datapath_proxy.h"

#include <arpa/inet.h>
#include <linux/netlink.h>

#include <cerrno>
#include <cstdint>

#include "datapath_proxy/src/datapath_log.h"
#include "datapath_proxy/src/datapath_request.h"
#include "host_interfaces/corvil_netlink.h"
#include "kernel_interface/tavik_wlan.h"

static_assert(sizeof(PortDescriptor) == 12 && alignof(PortDescriptor) == 4);
static_assert(sizeof(DatapathTuple) == 8);

namespace {

using datapath::attribute_size;
using datapath::checked_add;
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

DatapathRequest allocate_request(const char* name, uint32_t size) {
  DatapathRequest request(size);
  if (!request) {
    DATAPATH_LOG_AS(ERR, name, "%s(): GENL message allocation failure\n");
  }
  return request;
}

void log_allocation(const char* name, const DatapathRequest& request) {
  DATAPATH_LOG_AS(LOW, name, "%s(): Allocated %d bytes for msg",
                  static_cast<int32_t>(request.size()));
}

bool fill_headers(const char* name, DatapathRequest& request, uint32_t command) {
  if (corvil_datapath_proxy_genlmsg_init(request, command) == -1) {
    DATAPATH_LOG_AS(ERR, name, "%s(): GENL message failure\n");
    return false;
  }
  return true;
}

/// Allocates a request and fills its headers; the result compares false when either failed.
DatapathRequest begin_request(const char* name, uint32_t command, uint32_t size) {
  DatapathRequest request = allocate_request(name, size);
  if (request) {
    log_allocation(name, request);
    if (!fill_headers(name, request, command)) {
      request.release();
    }
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

/// The port, or the SPI of an ESP tuple, in host byte order.
uint32_t tuple_key(const DatapathTuple& tuple) {
  return tuple.trans_proto == TAVIK_WLAN_TRANS_PROTO_ESP ? ntohl(tuple.key.spi)
                                                         : ntohs(tuple.key.port);
}

/// Appends one tuple element to the request's tuple container.
void corvil_datapath_proxy_add_tuple(DatapathRequest& request, const DatapathTuple& tuple) {
  const uint32_t element = request.open_container(TAVIK_WLAN_TUPLE_ELEMENT);
  request.put(TAVIK_WLAN_TUPLE_ATTR, sizeof(tuple), &tuple);
  DATAPATH_LOG(MED, "%s(): Adding tuple [0x%x, 0x%x, 0x%x]\n", uint32_t{tuple.ip_proto},
               uint32_t{tuple.trans_proto}, tuple_key(tuple));
  request.close_container(element);
}

uint32_t tuples_request_size(uint32_t tuple_count) {
  const uint32_t element_size = kContainerSize + attribute_size(sizeof(DatapathTuple));
  return checked_add(kHeadersSize + kContainerSize, checked_multiply(element_size, tuple_count));
}

int corvil_datapath_proxy_add_ports(const PortDescriptor* ports, uint32_t port_count) {
  if (port_count > CORVIL_DATAPATH_PROXY_MAX_PORTS) {
    DATAPATH_LOG(ERR, "%s(): Too many ports: %u\n", port_count);
    return -1;
  }
  DatapathRequest request =
      begin_request(__func__, TAVIK_WLAN_CMD_ADD_TUPLES, tuples_request_size(port_count));
  if (!request) {
    return -1;
  }
  const uint32_t tuples = request.open_container(TAVIK_WLAN_ATTR_TUPLES);
  for (uint32_t i = 0; i < port_count; ++i) {
    if (corvil_datapath_proxy_validate_port(ports[i]) == -1) {
      DATAPATH_LOG(ERR, "%s(): Port %u is invalid\n", i);
      return -1;
    }
    corvil_datapath_proxy_add_tuple(request, port_tuple(ports[i]));
  }
  request.close_container(tuples);
  DATAPATH_LOG(LOW, "%s(): pre corvil_netlink_transact nlmsg_len %d port_count %d",
               static_cast<int32_t>(request.length()), static_cast<int32_t>(port_count));
  return corvil_netlink_transact(request.message(), NETLINK_GENERIC, nullptr);
}

// Proxy configuration lifecycle: forwarding pair and WLAN device

/// Appends the low 8 bits of a selector.
void put_selector(DatapathRequest& request, uint32_t selector) {
  request.put_u8(TAVIK_WLAN_ATTR_SELECTOR, static_cast<uint8_t>(selector));
}

int corvil_datapath_proxy_add_fwd_info(uint32_t selector, const char* fwd_to,
                                       const char* fwd_from) {
  const uint32_t size = checked_add(
      checked_add(kHeadersSize + attribute_size(sizeof(uint8_t)), string_attribute_size(fwd_to)),
      string_attribute_size(fwd_from));
  DatapathRequest request = begin_request(__func__, TAVIK_WLAN_CMD_ADD_FWD_INFO, size);
  if (!request) {
    return -1;
  }
  put_selector(request, selector);
  request.put_string(TAVIK_WLAN_ATTR_FWD_TO, fwd_to);
  request.put_string(TAVIK_WLAN_ATTR_FWD_FROM, fwd_from);
  DATAPATH_LOG(MED, "%s(): Forwarding %s to %s\n", fwd_from, fwd_to);
  int kernel_error = 0;
  const int result = transact(__func__, request, &kernel_error);
  return forgive_existing(result, kernel_error);
}

int corvil_datapath_proxy_set_wlan_device(uint32_t selector, const char* wlan_dev) {
  const uint32_t size =
      checked_add(kHeadersSize + attribute_size(sizeof(uint8_t)), string_attribute_size(wlan_dev));
  DatapathRequest request = begin_request(__func__, TAVIK_WLAN_CMD_SET_DEV, size);
  if (!request) {
    return -1;
  }
  put_selector(request, selector);
  request.put_string(TAVIK_WLAN_ATTR_DEV, wlan_dev);
  DATAPATH_LOG(MED, "%s(): Setting WLAN device to %s\n", wlan_dev);
  return transact(__func__, request);
}

// Traffic rules: UDP encapsulation port

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
  const int result = transact(call.name, request);
  if (result == -1) {
    DATAPATH_LOG_AS(ERR, call.name, call.failure);
  }
  return result;
}

}  // namespace

// Exported calls

int corvil_datapath_proxy_set_config_info(const char* wlan_dev, const char* fwd_to,
                                          const char* fwd_from, const PortDescriptor* ports,
                                          uint32_t port_count, uint32_t selector) {
  if (wlan_dev == nullptr || fwd_to == nullptr || fwd_from == nullptr) {
    DATAPATH_LOG(ERR, "%s(): Invalid parameters\n");
    return -1;
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

int corvil_datapath_proxy_flush_config_info() {
  DatapathRequest request = begin_request(__func__, TAVIK_WLAN_CMD_RESET, kHeadersSize);
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
