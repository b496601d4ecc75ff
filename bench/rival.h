// The library's requests as a careful programmer writes them straight on another netlink library.
#ifndef BENCH_RIVAL_H_
#define BENCH_RIVAL_H_

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/genetlink.h>
#include <netlink/attr.h>
#include <netlink/genl/genl.h>
#include <netlink/msg.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "datapath_proxy/include/corvil_datapath_proxy.h"
#include "kernel_interface/tavik_wlan.h"

namespace bench {

inline size_t attribute_size(size_t payload) { return MNL_ALIGN(MNL_ATTR_HDRLEN + payload); }
inline size_t string_size(const char* text) { return attribute_size(strlen(text) + 1); }

/// A request on libmnl, in one zeroed allocation of its exact size.
class MnlMessage {
 public:
  using Nest = nlattr*;

  MnlMessage(uint16_t family, uint8_t command, size_t attributes) {
    void* buffer = calloc(1, MNL_NLMSG_HDRLEN + GENL_HDRLEN + attributes);
    if (buffer == nullptr) {
      return;
    }
    header_ = mnl_nlmsg_put_header(buffer);
    header_->nlmsg_type = family;
    header_->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
    auto* generic = static_cast<genlmsghdr*>(mnl_nlmsg_put_extra_header(header_, GENL_HDRLEN));
    generic->cmd = command;
    generic->version = TAVIK_WLAN_FAMILY_VERSION;
  }
  MnlMessage(const MnlMessage&) = delete;
  MnlMessage& operator=(const MnlMessage&) = delete;
  ~MnlMessage() { free(header_); }

  explicit operator bool() const { return header_ != nullptr; }
  nlmsghdr* header() { return header_; }

  void put(uint16_t type, size_t size, const void* data) {
    mnl_attr_put(header_, type, size, data);
  }
  void put_u8(uint16_t type, uint8_t value) { mnl_attr_put_u8(header_, type, value); }
  void put_u16(uint16_t type, uint16_t value) { mnl_attr_put_u16(header_, type, value); }
  void put_string(uint16_t type, const char* text) { mnl_attr_put_strz(header_, type, text); }
  Nest open(uint16_t type) { return mnl_attr_nest_start(header_, type); }
  void close(Nest nest) { mnl_attr_nest_end(header_, nest); }

 private:
  nlmsghdr* header_ = nullptr;
};

/// A request on libnl, its buffer of the exact size.
class NlMessage {
 public:
  using Nest = nlattr*;

  NlMessage(uint16_t family, uint8_t command, size_t attributes)
      : message_(nlmsg_alloc_size(NLMSG_HDRLEN + GENL_HDRLEN + attributes)) {
    if (message_ != nullptr) {
      genlmsg_put(message_, NL_AUTO_PORT, NL_AUTO_SEQ, family, 0, NLM_F_REQUEST | NLM_F_ACK,
                  command, TAVIK_WLAN_FAMILY_VERSION);
    }
  }
  NlMessage(const NlMessage&) = delete;
  NlMessage& operator=(const NlMessage&) = delete;
  ~NlMessage() { nlmsg_free(message_); }

  explicit operator bool() const { return message_ != nullptr; }
  nlmsghdr* header() { return nlmsg_hdr(message_); }
  nl_msg* release() {
    nl_msg* message = message_;
    message_ = nullptr;
    return message;
  }

  void put(uint16_t type, size_t size, const void* data) {
    nla_put(message_, type, static_cast<int>(size), data);
  }
  void put_u8(uint16_t type, uint8_t value) { nla_put_u8(message_, type, value); }
  void put_u16(uint16_t type, uint16_t value) { nla_put_u16(message_, type, value); }
  void put_string(uint16_t type, const char* text) { nla_put_string(message_, type, text); }
  Nest open(uint16_t type) { return nla_nest_start(message_, type); }
  void close(Nest nest) { nla_nest_end(message_, nest); }

 private:
  nl_msg* message_;
};

/// The requests of the fourteen calls, without the log. A Transport has a Message, and finds the
/// family and sends: static int resolve(), the family's id or -1, and static int send(Message&), 0
/// or -1.
template <class Transport>
struct Rival {
  using Message = typename Transport::Message;

  /// A request: its attributes' size, and what puts them.
  template <typename Put>
  static int request(uint8_t command, size_t attributes, Put put) {
    const int family = Transport::resolve();
    if (family < 0) {
      return -1;
    }
    Message message(static_cast<uint16_t>(family), command, attributes);
    return message && put(message) ? Transport::send(message) : -1;
  }

  static int bare(uint8_t command) {
    return request(command, 0, [](Message&) { return true; });
  }

  static bool put_port(Message& message, const PortDescriptor& port) {
    const bool valid =
        (port.ip_proto == TAVIK_WLAN_IP_PROTO_IPV4 || port.ip_proto == TAVIK_WLAN_IP_PROTO_IPV6) &&
        (port.trans_proto == TAVIK_WLAN_TRANS_PROTO_TCP ||
         port.trans_proto == TAVIK_WLAN_TRANS_PROTO_UDP);
    DatapathTuple tuple{};
    tuple.key.port = htons(port.port);
    tuple.ip_proto = static_cast<uint8_t>(port.ip_proto);
    tuple.trans_proto = static_cast<uint8_t>(port.trans_proto);
    put_tuple(message, tuple);
    return valid;
  }

  static void put_tuple(Message& message, const DatapathTuple& tuple) {
    const auto element = message.open(TAVIK_WLAN_TUPLE_ELEMENT);
    message.put(TAVIK_WLAN_TUPLE_ATTR, sizeof(tuple), &tuple);
    message.close(element);
  }

  static size_t tuples_size(uint32_t count) {
    return attribute_size(count * attribute_size(attribute_size(sizeof(DatapathTuple))));
  }

  static int ports(uint8_t command, const PortDescriptor* ports, uint32_t count) {
    if (ports == nullptr || count == 0) {
      return 0;
    }
    if (count > TAVIK_WLAN_TUPLES_PER_MESSAGE) {
      return -1;
    }
    return request(command, tuples_size(count), [&](Message& message) {
      const auto tuples = message.open(TAVIK_WLAN_ATTR_TUPLES);
      for (uint32_t i = 0; i < count; ++i) {
        if (!put_port(message, ports[i])) {
          return false;
        }
      }
      message.close(tuples);
      return true;
    });
  }

  static int ipsec(uint8_t command, const IpsecInfo* info, const char* address) {
    return request(command, tuples_size(1), [&](Message& message) {
      DatapathTuple tuple{};
      tuple.key.spi = info->spi;
      tuple.ip_proto =
          strchr(address, ':') != nullptr ? TAVIK_WLAN_IP_PROTO_IPV6 : TAVIK_WLAN_IP_PROTO_IPV4;
      tuple.trans_proto = TAVIK_WLAN_TRANS_PROTO_ESP;
      const auto tuples = message.open(TAVIK_WLAN_ATTR_TUPLES);
      put_tuple(message, tuple);
      message.close(tuples);
      return true;
    });
  }

  static int forwarding(uint8_t command, uint32_t selector, const char* to, const char* from) {
    const size_t size = attribute_size(sizeof(uint8_t)) + string_size(to) + string_size(from);
    return request(command, size, [&](Message& message) {
      message.put_u8(TAVIK_WLAN_ATTR_SELECTOR, static_cast<uint8_t>(selector));
      message.put_string(TAVIK_WLAN_ATTR_FWD_TO, to);
      message.put_string(TAVIK_WLAN_ATTR_FWD_FROM, from);
      return true;
    });
  }

  static int device(uint8_t command, uint32_t selector, const char* name) {
    const size_t size = attribute_size(sizeof(uint8_t)) + string_size(name);
    return request(command, size, [&](Message& message) {
      message.put_u8(TAVIK_WLAN_ATTR_SELECTOR, static_cast<uint8_t>(selector));
      message.put_string(TAVIK_WLAN_ATTR_DEV, name);
      return true;
    });
  }

  static int encap_port(uint8_t command, uint16_t port) {
    return request(command, attribute_size(sizeof(port)), [&](Message& message) {
      message.put_u16(TAVIK_WLAN_ATTR_ENCAP_PORT, port);
      return true;
    });
  }

  static int low_latency(const char* src_addr, const char* dst_addr, uint16_t src_port,
                         uint16_t dst_port) {
    const size_t size =
        string_size(src_addr) + string_size(dst_addr) + 2 * attribute_size(sizeof(uint16_t));
    return request(TAVIK_WLAN_CMD_LL_ADDR_ADD, size, [&](Message& message) {
      message.put_string(TAVIK_WLAN_ATTR_LL_SRC_ADDR, src_addr);
      message.put_string(TAVIK_WLAN_ATTR_LL_DST_ADDR, dst_addr);
      message.put_u16(TAVIK_WLAN_ATTR_LL_SRC_PORT, src_port);
      message.put_u16(TAVIK_WLAN_ATTR_LL_DST_PORT, dst_port);
      return true;
    });
  }
};

/// TCP and UDP, IPv4 and IPv6 in turn, from port 1 on; as many as the family can hold.
inline constexpr uint32_t kAllPorts = 65536;
const PortDescriptor* ports();

/// In network byte order, as the calls take it.
inline constexpr uint16_t kEncapPort = 0x9411;

}  // namespace bench

#endif  // BENCH_RIVAL_H_
