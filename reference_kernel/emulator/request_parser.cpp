#include "reference_kernel/emulator/request_parser.h"

#include <arpa/inet.h>
#include <linux/genetlink.h>
#include <linux/netlink.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <optional>
#include <string_view>

#include "reference_kernel/emulator/attribute_reader.h"
#include "reference_kernel/tavik_wlan_limits.h"

namespace tavik_wlan {
namespace {

Refusal refuse_attribute(const Attribute& attribute, const char* message) {
  return {.error = -EINVAL, .message = message, .offset = attribute.offset};
}

/// Hands each attribute to `take`, up to the first that this refuses.
template <typename Take>
Verdict for_each(AttributeReader reader, Take take) {
  while (const std::optional<Attribute> attribute = reader.next()) {
    if (const Verdict verdict = take(*attribute)) {
      return verdict;
    }
  }
  if (reader.has_leftover()) {
    return Refusal{-EINVAL, "bytes leftover after parsing attributes"};
  }
  return kAccepted;
}

Verdict check_nested(const Attribute& attribute) {
  return attribute.nested ? kAccepted : refuse_attribute(attribute, "NLA_F_NESTED is missing");
}

Verdict check_plain(const Attribute& attribute) {
  return attribute.nested ? refuse_attribute(attribute, "NLA_F_NESTED not expected") : kAccepted;
}

template <typename T>
Verdict take_fixed(const Attribute& attribute, T& value) {
  if (const Verdict verdict = check_plain(attribute)) {
    return verdict;
  }
  if (attribute.payload.size() != sizeof(T)) {
    return refuse_attribute(attribute, "invalid attribute length");
  }
  value = load<T>(attribute.payload);
  return kAccepted;
}

Verdict take_port(const Attribute& attribute, uint16_t& port) {
  const Verdict verdict = take_fixed(attribute, port);
  port = ntohs(port);
  return verdict;
}

/// A string ends at its first NUL.
Verdict take_string(const Attribute& attribute, size_t max_length, std::string& text) {
  if (const Verdict verdict = check_plain(attribute)) {
    return verdict;
  }
  const auto end = std::find(attribute.payload.begin(), attribute.payload.end(), std::byte{0});
  if (end == attribute.payload.end() || attribute.payload.size() > max_length + 1) {
    return refuse_attribute(attribute, "Attribute failed policy validation");
  }
  text.assign(reinterpret_cast<const char*>(attribute.payload.data()),
              static_cast<size_t>(end - attribute.payload.begin()));
  return kAccepted;
}

/// The kernel's rule for the names of network interfaces, its white space from Latin-1 included.
bool is_device_name(std::string_view name) {
  return !name.empty() && name != "." && name != ".." &&
         name.find_first_of("/: \t\n\v\f\r\xa0") == std::string_view::npos;
}

Verdict take_device_name(const Attribute& attribute, std::string& name) {
  if (const Verdict verdict = take_string(attribute, TAVIK_WLAN_MAX_NAME, name)) {
    return verdict;
  }
  return is_device_name(name) ? kAccepted : refuse_attribute(attribute, "invalid device name");
}

Verdict take_address(const Attribute& attribute, Address& address) {
  std::string text;
  if (const Verdict verdict = take_string(attribute, TAVIK_WLAN_MAX_ADDRESS, text)) {
    return verdict;
  }
  const std::optional<Address> parsed = parse_address(text);
  if (!parsed) {
    return refuse_attribute(attribute, "invalid address");
  }
  address = *parsed;
  return kAccepted;
}

Verdict take_tuple(const Attribute& attribute, Tuple& tuple) {
  if (attribute.type != TAVIK_WLAN_TUPLE_ATTR) {
    return refuse_attribute(attribute, "Unknown attribute type");
  }
  DatapathTuple wire{};
  if (const Verdict verdict = take_fixed(attribute, wire)) {
    return verdict;
  }
  if (wire.ip_proto != TAVIK_WLAN_IP_PROTO_IPV4 && wire.ip_proto != TAVIK_WLAN_IP_PROTO_IPV6) {
    return refuse_attribute(attribute, "unknown IP version");
  }
  if (wire.reserved[0] != 0 || wire.reserved[1] != 0) {
    return refuse_attribute(attribute, "reserved bytes of a tuple are not 0");
  }
  tuple = {.ip_version = wire.ip_proto, .trans_proto = wire.trans_proto, .key = 0};
  switch (wire.trans_proto) {
    case TAVIK_WLAN_TRANS_PROTO_ESP:
      tuple.key = ntohl(wire.key.spi);
      return kAccepted;
    case TAVIK_WLAN_TRANS_PROTO_TCP:
    case TAVIK_WLAN_TRANS_PROTO_UDP:
      tuple.key = ntohs(wire.key.port);
      // All four bytes of the key, so that the two after the port are seen.
      return ntohl(wire.key.spi) == tuple.key << 16
                 ? kAccepted
                 : refuse_attribute(attribute, "bytes after the port of a tuple are not 0");
    default:
      return refuse_attribute(attribute, "unknown transport protocol");
  }
}

Verdict take_tuple_element(const Attribute& element, std::vector<Tuple>& tuples) {
  if (element.type != TAVIK_WLAN_TUPLE_ELEMENT) {
    return refuse_attribute(element, "Unknown attribute type");
  }
  if (const Verdict verdict = check_nested(element)) {
    return verdict;
  }
  std::optional<Tuple> tuple;
  const Verdict verdict =
      for_each(AttributeReader(element), [&](const Attribute& attribute) -> Verdict {
        if (tuple) {
          return refuse_attribute(attribute, "more than one tuple in an element");
        }
        return take_tuple(attribute, tuple.emplace());
      });
  if (verdict) {
    return verdict;
  }
  if (!tuple) {
    return refuse_attribute(element, "no tuple in an element");
  }
  tuples.push_back(*tuple);
  return kAccepted;
}

Verdict take_tuples(const Attribute& container, std::vector<Tuple>& tuples) {
  if (const Verdict verdict = check_nested(container)) {
    return verdict;
  }
  tuples.clear();
  return for_each(AttributeReader(container),
                  [&](const Attribute& element) { return take_tuple_element(element, tuples); });
}

Verdict take_attribute(const Attribute& attribute, Request& request) {
  switch (attribute.type) {
    case TAVIK_WLAN_ATTR_TUPLES:
      return take_tuples(attribute, request.tuples);
    case TAVIK_WLAN_ATTR_DEV:
      return take_device_name(attribute, request.device);
    case TAVIK_WLAN_ATTR_FWD_FROM:
      return take_device_name(attribute, request.forwarding.from);
    case TAVIK_WLAN_ATTR_FWD_TO:
      return take_device_name(attribute, request.forwarding.to);
    case TAVIK_WLAN_ATTR_ENCAP_PORT:
      return take_port(attribute, request.encapsulation_port);
    case TAVIK_WLAN_ATTR_SELECTOR:
      return take_fixed(attribute, request.selector);
    case TAVIK_WLAN_ATTR_LL_SRC_ADDR:
      return take_address(attribute, request.flow.source);
    case TAVIK_WLAN_ATTR_LL_DST_ADDR:
      return take_address(attribute, request.flow.destination);
    case TAVIK_WLAN_ATTR_LL_SRC_PORT:
      return take_port(attribute, request.flow.source_port);
    case TAVIK_WLAN_ATTR_LL_DST_PORT:
      return take_port(attribute, request.flow.destination_port);
    default:
      return refuse_attribute(attribute, "Unknown attribute type");
  }
}

/// The attributes, of which the last of a type counts.
Verdict take_attributes(AttributeReader reader, AttributeSet of_command, Request& request) {
  AttributeSet seen;
  const Verdict verdict = for_each(reader, [&](const Attribute& attribute) -> Verdict {
    if (attribute.type <= TAVIK_WLAN_ATTR_MAX && attribute.type != 0) {
      if (!of_command.contains(attribute.type)) {
        return refuse_attribute(attribute, "Unsupported attribute");
      }
      seen.add(attribute.type);
    }
    return take_attribute(attribute, request);
  });
  if (verdict) {
    return verdict;
  }
  for (uint16_t type = 1; type <= TAVIK_WLAN_ATTR_MAX; ++type) {
    if (of_command.contains(type) && !seen.contains(type)) {
      return Refusal{-EINVAL, "missing attribute", {}, type};
    }
  }
  return kAccepted;
}

Verdict check_headers(const nlmsghdr& header, const genlmsghdr& generic) {
  const bool dump = is_dump(header);
  const int allowed = NLM_F_REQUEST | NLM_F_ACK | NLM_F_ECHO | (dump ? NLM_F_DUMP : 0);
  if ((header.nlmsg_flags & ~allowed) != 0) {
    return Refusal{-EINVAL, "ambiguous or reserved bits set in nlmsg_flags"};
  }
  if (generic.reserved != 0) {
    return Refusal{-EINVAL, "genlmsghdr.reserved field is not 0"};
  }
  const auto mode = generic.cmd <= TAVIK_WLAN_CMD_MAX ? kCommandPolicies.at(generic.cmd).mode
                                                      : CommandPolicy::Mode::kUnknownCommand;
  if (mode == CommandPolicy::Mode::kUnknownCommand) {
    return Refusal{-EOPNOTSUPP, "unknown command"};
  }
  if (dump != (mode == CommandPolicy::Mode::kDump)) {
    return Refusal{-EOPNOTSUPP, dump ? "the command is no dump" : "the command is a dump"};
  }
  return kAccepted;
}

constexpr std::array<CommandPolicy, TAVIK_WLAN_CMD_MAX + 1> make_policies() {
  constexpr auto kConfigure = CommandPolicy::Mode::kConfigure;
  constexpr AttributeSet kTuples{TAVIK_WLAN_ATTR_TUPLES};
  constexpr AttributeSet kDevice{TAVIK_WLAN_ATTR_SELECTOR, TAVIK_WLAN_ATTR_DEV};
  constexpr AttributeSet kForwarding{TAVIK_WLAN_ATTR_SELECTOR, TAVIK_WLAN_ATTR_FWD_FROM,
                                     TAVIK_WLAN_ATTR_FWD_TO};
  constexpr AttributeSet kEncapsulationPort{TAVIK_WLAN_ATTR_ENCAP_PORT};
  constexpr AttributeSet kFlow{TAVIK_WLAN_ATTR_LL_SRC_ADDR, TAVIK_WLAN_ATTR_LL_DST_ADDR,
                               TAVIK_WLAN_ATTR_LL_SRC_PORT, TAVIK_WLAN_ATTR_LL_DST_PORT};
  std::array<CommandPolicy, TAVIK_WLAN_CMD_MAX + 1> policies{};
  policies[TAVIK_WLAN_CMD_ADD_TUPLES] = {kConfigure, kTuples};
  policies[TAVIK_WLAN_CMD_DEL_TUPLES] = {kConfigure, kTuples};
  policies[TAVIK_WLAN_CMD_SET_DEV] = {kConfigure, kDevice};
  policies[TAVIK_WLAN_CMD_UNSET_DEV] = {kConfigure, kDevice};
  policies[TAVIK_WLAN_CMD_ADD_FWD_INFO] = {kConfigure, kForwarding};
  policies[TAVIK_WLAN_CMD_DEL_FWD_INFO] = {kConfigure, kForwarding};
  policies[TAVIK_WLAN_CMD_SET_ENCAP_PORT] = {kConfigure, kEncapsulationPort};
  policies[TAVIK_WLAN_CMD_UNSET_ENCAP_PORT] = {kConfigure, kEncapsulationPort};
  policies[TAVIK_WLAN_CMD_RESET] = {kConfigure, AttributeSet{}};
  policies[TAVIK_WLAN_CMD_ENCAP_PORT_ACT_PASS_THROUGH] = {kConfigure, kEncapsulationPort};
  policies[TAVIK_WLAN_CMD_ENCAP_PORT_ACT_DROP] = {kConfigure, kEncapsulationPort};
  policies[TAVIK_WLAN_CMD_LL_ADDR_ADD] = {kConfigure, kFlow};
  policies[TAVIK_WLAN_CMD_LL_ADDR_FLUSH] = {kConfigure, AttributeSet{}};
  policies[TAVIK_WLAN_CMD_GET_TUPLES] = {CommandPolicy::Mode::kDump, AttributeSet{}};
  return policies;
}

}  // namespace

constexpr std::array<CommandPolicy, TAVIK_WLAN_CMD_MAX + 1> kCommandPolicies = make_policies();

Verdict parse_request(Bytes message, Request& request) {
  if (message.size() < kMessageHeaders) {
    return Refusal{-EINVAL, "message shorter than its headers"};
  }
  const auto generic = load<genlmsghdr>(message.subspan(NLMSG_HDRLEN));
  if (const Verdict verdict = check_headers(load<nlmsghdr>(message), generic)) {
    return verdict;
  }
  request = {};
  request.command = generic.cmd;
  const Verdict verdict =
      take_attributes(AttributeReader(message.subspan(kMessageHeaders), kMessageHeaders),
                      kCommandPolicies.at(generic.cmd).attributes, request);
  if (verdict) {
    return verdict;
  }
  if (request.flow.source.ip_version != request.flow.destination.ip_version) {
    return Refusal{-EINVAL, "addresses of different families"};
  }
  request.forwarding.selector = request.selector;
  return kAccepted;
}

}  // namespace tavik_wlan
