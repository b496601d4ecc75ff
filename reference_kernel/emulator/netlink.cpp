#include "reference_kernel/emulator/netlink.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>
#include <span>
#include <utility>

#include "reference_kernel/emulator/family.h"
#include "reference_kernel/tavik_wlan_limits.h"

namespace tavik_wlan {
namespace {

/// The kernel's rule for the names of network interfaces, its white space from Latin-1 included.
const char* validate_name(const Attribute& attribute) {
  const std::string name = string_in(attribute);
  const bool is_valid = !name.empty() && name != "." && name != ".." &&
                        name.find_first_of("/: \t\n\v\f\r\xa0") == std::string::npos;
  return is_valid ? nullptr : "invalid device name";
}

const char* validate_address(const Attribute& attribute) {
  return Address::parse(string_in(attribute)) ? nullptr : "invalid address";
}

const char* validate_tuple(const Attribute& attribute) {
  if (attribute.payload.size() != sizeof(DatapathTuple)) {
    return "invalid attribute length";
  }
  const auto tuple = load<DatapathTuple>(attribute.payload);
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

/// What attributes of a kind must look like.
struct Policy {
  size_t length = 0;      // of the payload; 0: it is not fixed
  size_t max_length = 0;  // of a string, without its NUL; 0: it is none
  /// The last check, which returns what is wrong, or null.
  const char* (*validate)(const Attribute& attribute) = nullptr;
};

Policy policy_of(Kind kind) {
  switch (kind) {
    case Kind::kU8:
      return {.length = sizeof(uint8_t)};
    case Kind::kPort:
      return {.length = sizeof(uint16_t)};
    case Kind::kName:
      return {.max_length = TAVIK_WLAN_MAX_NAME, .validate = validate_name};
    case Kind::kAddress:
      return {.max_length = TAVIK_WLAN_MAX_ADDRESS, .validate = validate_address};
    case Kind::kTuple:
      return {.validate = validate_tuple};
    default:
      return {};
  }
}

/// Whatever a string has after its first NUL counts as part of it, but for a NUL at its end.
int validate_string(Bytes payload, size_t max_length) {
  const Bytes start = payload.first(std::min(payload.size(), max_length + 1));
  if (std::ranges::find(start, 0) == start.end()) {
    return -EINVAL;
  }
  const size_t length = payload.size() - (payload.back() == 0 ? 1 : 0);
  return length > max_length ? -ERANGE : 0;
}

Status validate_run(AttributeReader run, std::span<const AttributeInfo> infos,
                    const CommandInfo* command = nullptr, Attributes* attributes = nullptr);

/// Validates an attribute, and what it holds, as strictly as the kernel does for new families.
Status validate(const Attribute& attribute, const AttributeInfo& info) {
  const Policy policy = policy_of(info.kind);
  const bool is_nested = !info.inside.empty();
  const size_t size = attribute.payload.size();
  const auto fail = [&](int error, const char* message) {
    return Status{error, message, attribute.offset};
  };
  if (policy.length != 0 && size != policy.length) {
    return fail(-EINVAL, "invalid attribute length");
  }
  if (attribute.nested != is_nested) {
    return fail(-EINVAL, is_nested ? "NLA_F_NESTED is missing" : "NLA_F_NESTED not expected");
  }
  int error = is_nested && size != 0 && size < sizeof(nlattr) ? -ERANGE : 0;
  if (policy.max_length != 0) {
    error = validate_string(attribute.payload, policy.max_length);
  }
  if (error != 0) {
    return fail(error, "Attribute failed policy validation");
  }
  if (is_nested) {
    return validate_run(AttributeReader(attribute), info.inside);
  }
  const char* message = policy.validate != nullptr ? policy.validate(attribute) : nullptr;
  return message != nullptr ? fail(-EINVAL, message) : Status{};
}

/// Validates a run of attributes one after the other. Those that `command` does not carry are not
/// supported; without one all are.
Status validate_run(AttributeReader run, std::span<const AttributeInfo> infos,
                    const CommandInfo* command, Attributes* attributes) {
  while (const std::optional<Attribute> attribute = run.next()) {
    const AttributeInfo* info = find_attribute(infos, attribute->type);
    if (info == nullptr) {
      return {-EINVAL, "Unknown attribute type", attribute->offset};
    }
    if (command != nullptr && !command->carries(info->type)) {
      return {-EINVAL, "Unsupported attribute", attribute->offset};
    }
    if (Status status = validate(*attribute, *info); !status.ok()) {
      return status;
    }
    if (attributes != nullptr) {
      attributes->at(info->type) = attribute;
    }
  }
  return run.has_leftover() ? Status{-EINVAL, "bytes leftover after parsing attributes"} : Status{};
}

}  // namespace

Status parse_attributes(Bytes message, const CommandInfo& command, Attributes& attributes) {
  Status status = validate_run(AttributeReader(message), kAttributes, &command, &attributes);
  if (!status.ok()) {
    return status;
  }
  for (const AttributeInfo& info : kAttributes) {
    if (command.carries(info.type) && !attributes.at(info.type)) {
      return {.error = -EINVAL, .message = "missing attribute", .missing_type = info.type};
    }
  }
  return {};
}

MessageWriter::MessageWriter(const nlmsghdr& request, uint16_t type, uint16_t flags) {
  append(nlmsghdr{.nlmsg_len = 0,
                  .nlmsg_type = type,
                  .nlmsg_flags = flags,
                  .nlmsg_seq = request.nlmsg_seq,
                  .nlmsg_pid = request.nlmsg_pid});
}

Datagram MessageWriter::take() {
  write(offsetof(nlmsghdr, nlmsg_len), static_cast<uint32_t>(bytes_.size()));
  return std::move(bytes_);
}

size_t MessageWriter::begin_nest(uint16_t type) {
  const size_t nest = bytes_.size();
  append(nlattr{.nla_len = 0, .nla_type = type});
  return nest;
}

void MessageWriter::end_nest(size_t nest) {
  write(nest + offsetof(nlattr, nla_len), static_cast<uint16_t>(bytes_.size() - nest));
}

void MessageWriter::put_string(uint16_t type, const std::string& text) {
  const size_t size = text.size() + 1;
  append(nlattr{static_cast<uint16_t>(NLA_HDRLEN + size), type});
  append_bytes({reinterpret_cast<const uint8_t*>(text.c_str()), size});
}

void MessageWriter::append_bytes(Bytes bytes) {
  bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
  bytes_.resize(NLMSG_ALIGN(bytes_.size()));
}

Datagram acknowledgement(const nlmsghdr& request, const Status& status) {
  const bool has_extack = status.message != nullptr;
  MessageWriter writer(request, NLMSG_ERROR,
                       static_cast<uint16_t>(NLM_F_CAPPED | (has_extack ? NLM_F_ACK_TLVS : 0)));
  writer.append(nlmsgerr{.error = status.error, .msg = request});
  if (has_extack) {
    writer.put_string(NLMSGERR_ATTR_MSG, status.message);
  }
  if (status.offset) {
    writer.put(NLMSGERR_ATTR_OFFS, *status.offset);
  }
  if (status.missing_type) {
    writer.put(NLMSGERR_ATTR_MISS_TYPE, *status.missing_type);
  }
  return writer.take();
}

}  // namespace tavik_wlan
