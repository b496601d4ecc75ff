#include "reference_kernel/emulator/request_parser.h"

#include <arpa/inet.h>
#include <linux/genetlink.h>
#include <linux/netlink.h>

#include <cerrno>
#include <initializer_list>
#include <optional>
#include <string>

#include "reference_kernel/emulator/attribute_reader.h"
#include "reference_kernel/tavik_wlan_limits.h"

namespace tavik_wlan {
namespace {

/// A validated string, which ends at its first NUL.
std::string string_in(Bytes payload) { return reinterpret_cast<const char*>(payload.data()); }

/// The kernel's rule for the names of network interfaces, its white space from Latin-1 included.
const char* find_fault_of_name(Bytes payload) {
  const std::string name = string_in(payload);
  const bool is_valid = !name.empty() && name != "." && name != ".." &&
                        name.find_first_of("/: \t\n\v\f\r\xa0") == std::string::npos;
  return is_valid ? nullptr : "invalid device name";
}

const char* find_fault_of_address(Bytes payload) {
  return parse_address(string_in(payload)) ? nullptr : "invalid address";
}

const char* find_fault_of_tuple(Bytes payload) {
  if (payload.size() != sizeof(DatapathTuple)) {
    return "invalid attribute length";
  }
  const auto tuple = load<DatapathTuple>(payload);
  if (tuple.ip_proto != TAVIK_WLAN_IP_PROTO_IPV4 && tuple.ip_proto != TAVIK_WLAN_IP_PROTO_IPV6) {
    return "unknown IP version";
  }
  const bool is_esp = tuple.trans_proto == TAVIK_WLAN_TRANS_PROTO_ESP;
  if (!is_esp && tuple.trans_proto != TAVIK_WLAN_TRANS_PROTO_TCP &&
      tuple.trans_proto != TAVIK_WLAN_TRANS_PROTO_UDP) {
    return "unknown transport protocol";
  }
  if (tuple.reserved[0] != 0 || tuple.reserved[1] != 0) {
    return "reserved bytes of a tuple are not 0";
  }
  if (!is_esp && (ntohl(tuple.key.spi) & UINT16_MAX) != 0) {
    return "bytes after the port of a tuple are not 0";
  }
  return nullptr;
}

using Type = AttributePolicy::Type;
using Mode = CommandPolicy::Mode;

constexpr AttributePolicy kTuple{.type = Type::kBinary, .find_fault = find_fault_of_tuple};
constexpr std::array kInElement{AttributePolicy{}, kTuple};
constexpr AttributePolicy kElement{.type = Type::kNested, .nested = kInElement};
constexpr std::array kInContainer{AttributePolicy{}, kElement};
constexpr AttributePolicy kName{
    .type = Type::kString, .max_length = TAVIK_WLAN_MAX_NAME, .find_fault = find_fault_of_name};
constexpr AttributePolicy kAddress{.type = Type::kString,
                                   .max_length = TAVIK_WLAN_MAX_ADDRESS,
                                   .find_fault = find_fault_of_address};
constexpr AttributePolicy kPort{.type = Type::kBe16};

constexpr std::array<CommandPolicy, TAVIK_WLAN_CMD_MAX + 1> make_policies() {
  struct Supported {
    uint16_t type;
    AttributePolicy policy;
  };
  constexpr Supported kTuples{TAVIK_WLAN_ATTR_TUPLES,
                              {.type = Type::kNested, .nested = kInContainer}};
  constexpr Supported kSelector{TAVIK_WLAN_ATTR_SELECTOR, {.type = Type::kU8}};
  constexpr Supported kDevice{TAVIK_WLAN_ATTR_DEV, kName};
  constexpr Supported kFrom{TAVIK_WLAN_ATTR_FWD_FROM, kName};
  constexpr Supported kTo{TAVIK_WLAN_ATTR_FWD_TO, kName};
  constexpr Supported kEncapsulationPort{TAVIK_WLAN_ATTR_ENCAP_PORT, kPort};

  std::array<CommandPolicy, TAVIK_WLAN_CMD_MAX + 1> policies{};
  const auto define = [&](tavik_wlan_cmd command, Mode mode,
                          std::initializer_list<Supported> supported) {
    policies.at(command).mode = mode;
    for (const auto& [type, policy] : supported) {
      policies.at(command).attributes.at(type) = policy;
    }
  };
  define(TAVIK_WLAN_CMD_ADD_TUPLES, Mode::kConfigure, {kTuples});
  define(TAVIK_WLAN_CMD_DEL_TUPLES, Mode::kConfigure, {kTuples});
  define(TAVIK_WLAN_CMD_SET_DEV, Mode::kConfigure, {kSelector, kDevice});
  define(TAVIK_WLAN_CMD_UNSET_DEV, Mode::kConfigure, {kSelector, kDevice});
  define(TAVIK_WLAN_CMD_ADD_FWD_INFO, Mode::kConfigure, {kSelector, kFrom, kTo});
  define(TAVIK_WLAN_CMD_DEL_FWD_INFO, Mode::kConfigure, {kSelector, kFrom, kTo});
  define(TAVIK_WLAN_CMD_SET_ENCAP_PORT, Mode::kConfigure, {kEncapsulationPort});
  define(TAVIK_WLAN_CMD_UNSET_ENCAP_PORT, Mode::kConfigure, {kEncapsulationPort});
  define(TAVIK_WLAN_CMD_RESET, Mode::kConfigure, {});
  define(TAVIK_WLAN_CMD_ENCAP_PORT_ACT_PASS_THROUGH, Mode::kConfigure, {kEncapsulationPort});
  define(TAVIK_WLAN_CMD_ENCAP_PORT_ACT_DROP, Mode::kConfigure, {kEncapsulationPort});
  define(TAVIK_WLAN_CMD_LL_ADDR_ADD, Mode::kConfigure,
         {{TAVIK_WLAN_ATTR_LL_SRC_ADDR, kAddress},
          {TAVIK_WLAN_ATTR_LL_DST_ADDR, kAddress},
          {TAVIK_WLAN_ATTR_LL_SRC_PORT, kPort},
          {TAVIK_WLAN_ATTR_LL_DST_PORT, kPort}});
  define(TAVIK_WLAN_CMD_LL_ADDR_FLUSH, Mode::kConfigure, {});
  define(TAVIK_WLAN_CMD_GET_TUPLES, Mode::kDump, {});
  return policies;
}

Verdict check_headers(const nlmsghdr& header, const genlmsghdr& generic) {
  if (generic.reserved != 0) {
    return Refusal{-EINVAL, "genlmsghdr.reserved field is not 0"};
  }
  const bool dump = is_dump(header);
  const int allowed = NLM_F_REQUEST | NLM_F_ACK | NLM_F_ECHO | (dump ? NLM_F_DUMP : 0);
  if ((header.nlmsg_flags & ~allowed) != 0) {
    return Refusal{-EINVAL, "ambiguous or reserved bits set in nlmsg_flags"};
  }
  const Mode wanted = dump ? Mode::kDump : Mode::kConfigure;
  if (generic.cmd > TAVIK_WLAN_CMD_MAX || kCommandPolicies.at(generic.cmd).mode != wanted) {
    return Refusal{-EOPNOTSUPP};
  }
  return kAccepted;
}

Tuple read_tuple(Bytes payload) {
  const auto wire = load<DatapathTuple>(payload);
  return {.ip_version = wire.ip_proto,
          .trans_proto = wire.trans_proto,
          .key = wire.trans_proto == TAVIK_WLAN_TRANS_PROTO_ESP ? ntohl(wire.key.spi)
                                                                : ntohs(wire.key.port)};
}

/// What the policies cannot say is checked here: each element holds one tuple.
Verdict read_tuples(const Attribute& container, std::vector<Tuple>& tuples) {
  AttributeReader elements(container);
  while (const std::optional<Attribute> element = elements.next()) {
    AttributeReader inside(*element);
    const std::optional<Attribute> tuple = inside.next();
    if (!tuple) {
      return Refusal{-EINVAL, "no tuple in an element", element->offset};
    }
    if (const std::optional<Attribute> second = inside.next()) {
      return Refusal{-EINVAL, "more than one tuple in an element", second->offset};
    }
    tuples.push_back(read_tuple(tuple->payload));
  }
  return kAccepted;
}

uint16_t read_port(Bytes payload) { return ntohs(load<uint16_t>(payload)); }

/// Reads a validated attribute.
Verdict read_attribute(const Attribute& attribute, Request& request) {
  const Bytes payload = attribute.payload;
  switch (attribute.type) {
    case TAVIK_WLAN_ATTR_TUPLES:
      return read_tuples(attribute, request.tuples);
    case TAVIK_WLAN_ATTR_DEV:
      request.device = string_in(payload);
      break;
    case TAVIK_WLAN_ATTR_FWD_FROM:
      request.forwarding.from = string_in(payload);
      break;
    case TAVIK_WLAN_ATTR_FWD_TO:
      request.forwarding.to = string_in(payload);
      break;
    case TAVIK_WLAN_ATTR_ENCAP_PORT:
      request.encapsulation_port = read_port(payload);
      break;
    case TAVIK_WLAN_ATTR_SELECTOR:
      request.selector = load<uint8_t>(payload);
      request.forwarding.selector = request.selector;
      break;
    case TAVIK_WLAN_ATTR_LL_SRC_ADDR:
      request.flow.source = *parse_address(string_in(payload));
      break;
    case TAVIK_WLAN_ATTR_LL_DST_ADDR:
      request.flow.destination = *parse_address(string_in(payload));
      break;
    case TAVIK_WLAN_ATTR_LL_SRC_PORT:
      request.flow.source_port = read_port(payload);
      break;
    case TAVIK_WLAN_ATTR_LL_DST_PORT:
      request.flow.destination_port = read_port(payload);
      break;
    default:
      break;
  }
  return kAccepted;
}

/// The attributes, of which the last of a type counts.
Verdict read_attributes(Bytes message, const CommandPolicy& policy, Request& request) {
  std::array<std::optional<Attribute>, TAVIK_WLAN_ATTR_MAX + 1> last;
  const Verdict verdict = validate_run(
      AttributeReader(message.subspan(kMessageHeaders), kMessageHeaders), policy.attributes,
      [&](const Attribute& attribute) { last.at(attribute.type) = attribute; });
  if (verdict) {
    return verdict;
  }
  for (uint16_t type = 1; type <= TAVIK_WLAN_ATTR_MAX; ++type) {
    if (policy.takes(type) && !last.at(type)) {
      return Refusal{.error = -EINVAL, .message = "missing attribute", .missing_type = type};
    }
  }
  for (const std::optional<Attribute>& attribute : last) {
    if (attribute) {
      request.offsets.at(attribute->type) = attribute->offset;
      if (const Verdict fault = read_attribute(*attribute, request)) {
        return fault;
      }
    }
  }
  return kAccepted;
}

}  // namespace

constexpr std::array<CommandPolicy, TAVIK_WLAN_CMD_MAX + 1> kCommandPolicies = make_policies();

Verdict parse_request(Bytes message, Request& request) {
  if (message.size() < kMessageHeaders) {
    return Refusal{-EINVAL};
  }
  const auto generic = load<genlmsghdr>(message.subspan(NLMSG_HDRLEN));
  if (const Verdict verdict = check_headers(load<nlmsghdr>(message), generic)) {
    return verdict;
  }
  request = {};
  request.command = generic.cmd;
  if (const Verdict verdict = read_attributes(message, kCommandPolicies.at(generic.cmd), request)) {
    return verdict;
  }
  if (request.flow.source.ip_version != request.flow.destination.ip_version) {
    return Refusal{-EINVAL, "addresses of different families",
                   request.offsets[TAVIK_WLAN_ATTR_LL_DST_ADDR]};
  }
  return kAccepted;
}

}  // namespace tavik_wlan
