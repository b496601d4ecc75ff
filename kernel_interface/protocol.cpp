#include "kernel_interface/protocol.h"

#include <arpa/inet.h>

#include <array>
#include <cstdio>

namespace tavik_wlan {

const AttributeInfo* find_attribute(std::span<const AttributeInfo> attributes, uint32_t type) {
  const auto found = std::ranges::find(attributes, type, &AttributeInfo::type);
  return found != attributes.end() ? &*found : nullptr;
}

const CommandInfo* find_command(std::span<const CommandInfo> commands, uint8_t command) {
  const auto found = std::ranges::find(commands, command, &CommandInfo::command);
  return found != commands.end() ? &*found : nullptr;
}

std::string attribute_name(std::span<const AttributeInfo> attributes, uint32_t type) {
  const AttributeInfo* info = find_attribute(attributes, type);
  return info != nullptr ? info->name : "type " + std::to_string(type);
}

std::string transport_name(uint8_t trans_proto) {
  switch (trans_proto) {
    case TAVIK_WLAN_TRANS_PROTO_TCP:
      return "tcp";
    case TAVIK_WLAN_TRANS_PROTO_UDP:
      return "udp";
    case TAVIK_WLAN_TRANS_PROTO_ESP:
      return "esp";
    default:
      return std::to_string(trans_proto);
  }
}

uint32_t tuple_value(const DatapathTuple& tuple) {
  return tuple.trans_proto == TAVIK_WLAN_TRANS_PROTO_ESP ? ntohl(tuple.key.spi)
                                                         : ntohs(tuple.key.port);
}

std::string tuple_text(unsigned ip_proto, std::string_view transport, uint32_t value) {
  std::array<char, sizeof("0x00000000")> text{};
  snprintf(text.data(), text.size(), transport == "esp" ? "0x%08x" : "%u", value);
  return "ipv" + std::to_string(ip_proto) + ' ' + std::string(transport) + ' ' + text.data();
}

std::string tuple_text(const DatapathTuple& tuple) {
  return tuple_text(tuple.ip_proto, transport_name(tuple.trans_proto), tuple_value(tuple));
}

std::optional<Bytes> take_message(Bytes& datagram) {
  if (datagram.size() < sizeof(nlmsghdr)) {
    return std::nullopt;
  }
  const size_t length = load<nlmsghdr>(datagram).nlmsg_len;
  if (length < sizeof(nlmsghdr) || length > datagram.size()) {
    return std::nullopt;
  }
  const Bytes message = datagram.first(length);
  // The last message may come without its padding.
  datagram = datagram.subspan(std::min<size_t>(NLMSG_ALIGN(length), datagram.size()));
  return message;
}

AttributeReader::AttributeReader(Bytes message, size_t offset)
    : left_(message.subspan(std::min(offset, message.size()))),
      offset_(static_cast<uint32_t>(offset)) {}

AttributeReader::AttributeReader(const Attribute& container)
    : left_(container.payload), offset_(container.offset + NLA_HDRLEN) {}

std::optional<Attribute> AttributeReader::next() {
  if (left_.size() < sizeof(nlattr)) {
    return std::nullopt;
  }
  const auto header = load<nlattr>(left_);
  const size_t length = header.nla_len;
  if (length < sizeof(nlattr) || length > left_.size()) {
    return std::nullopt;
  }
  const Attribute attribute{
      .type = static_cast<uint16_t>(header.nla_type & NLA_TYPE_MASK),
      .nested = (header.nla_type & NLA_F_NESTED) != 0,
      .offset = offset_,
      .payload = left_.first(length).subspan(sizeof(nlattr)),
  };
  // The last attribute may come without its padding.
  const size_t step = std::min<size_t>(NLA_ALIGN(length), left_.size());
  left_ = left_.subspan(step);
  offset_ += static_cast<uint32_t>(step);
  return attribute;
}

FoundAttribute attribute_at(Bytes message, std::span<const AttributeInfo> attributes,
                            uint32_t offset) {
  FoundAttribute found{.name = {}, .inside = attributes};
  AttributeReader run(message);
  size_t index = 0;
  while (const std::optional<Attribute> attribute = run.next()) {
    const size_t end = attribute->offset + NLA_HDRLEN + attribute->payload.size();
    if (offset < attribute->offset || offset >= end) {
      ++index;
      continue;
    }
    found.info = find_attribute(found.inside, attribute->type);
    found.payload = attribute->payload;
    if (found.info != nullptr && found.info->kind == Kind::kTupleElement) {
      found.name.append("[").append(std::to_string(index)).append("]");
    } else {
      found.name.append(found.name.empty() ? "" : ".");
      found.name.append(attribute_name(found.inside, attribute->type));
    }
    found.inside = found.info != nullptr ? found.info->inside : std::span<const AttributeInfo>();
    if (found.inside.empty()) {
      break;
    }
    run = AttributeReader(*attribute);
    index = 0;
  }
  return found;
}

}  // namespace tavik_wlan
