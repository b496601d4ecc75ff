#include "datapathctl/message_decoder.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <cwctype>
#include <optional>

#include "kernel_interface/protocol.h"

namespace datapathctl {
namespace {

using Json = nlohmann::ordered_json;
using tavik_wlan::Attribute;
using tavik_wlan::AttributeInfo;
using tavik_wlan::AttributeReader;
using tavik_wlan::Bytes;
using tavik_wlan::CommandInfo;
using tavik_wlan::FoundAttribute;
using tavik_wlan::Kind;
using tavik_wlan::load;

constexpr CommandInfo kControllerCommands[] = {
    {CTRL_CMD_NEWFAMILY, "NEWFAMILY"},
    {CTRL_CMD_DELFAMILY, "DELFAMILY"},
    {CTRL_CMD_GETFAMILY, "GETFAMILY"},
};

constexpr AttributeInfo kControllerAttributes[] = {
    {CTRL_ATTR_FAMILY_ID, "FAMILY_ID", Kind::kU16},
    {CTRL_ATTR_FAMILY_NAME, "FAMILY_NAME", Kind::kString},
    {CTRL_ATTR_VERSION, "VERSION", Kind::kU32},
    {CTRL_ATTR_HDRSIZE, "HDRSIZE", Kind::kU32},
    {CTRL_ATTR_MAXATTR, "MAXATTR", Kind::kU32},
    {CTRL_ATTR_OPS, "OPS", Kind::kOperations},
};

constexpr AttributeInfo kExtackAttributes[] = {
    {NLMSGERR_ATTR_MSG, "MSG", Kind::kString},
    {NLMSGERR_ATTR_OFFS, "OFFS", Kind::kU32},
    {NLMSGERR_ATTR_MISS_TYPE, "MISS_TYPE", Kind::kU32},
    {NLMSGERR_ATTR_MISS_NEST, "MISS_NEST", Kind::kU32},
};

template <typename Number>
Json number(Bytes payload) {
  return payload.size() == sizeof(Number) ? Json(load<Number>(payload)) : Json(to_hex(payload));
}

Json value(Kind kind, Bytes payload);

/// The values of one type and kind that the elements of a container hold.
Json values_inside(Bytes container, uint16_t type, Kind kind) {
  Json list = Json::array();
  AttributeReader elements(container, 0);
  while (const std::optional<Attribute> element = elements.next()) {
    AttributeReader inside(*element);
    while (const std::optional<Attribute> attribute = inside.next()) {
      if (attribute->type == type) {
        list.push_back(value(kind, attribute->payload));
      }
    }
  }
  return list;
}

Json value(Kind kind, Bytes payload) {
  switch (kind) {
    case Kind::kU8:
      return number<uint8_t>(payload);
    case Kind::kU16:
      return number<uint16_t>(payload);
    case Kind::kU32:
      return number<uint32_t>(payload);
    case Kind::kPort: {
      const Json port = number<uint16_t>(payload);
      return port.is_number() ? Json(ntohs(port.get<uint16_t>())) : port;
    }
    case Kind::kString:
    case Kind::kName:
    case Kind::kAddress:
      // Up to its NUL, whatever bytes it has.
      return std::string(payload.begin(), std::ranges::find(payload, 0));
    case Kind::kTuples:
      return values_inside(payload, TAVIK_WLAN_TUPLE_ATTR, Kind::kTuple);
    case Kind::kTuple:
      return payload.size() == sizeof(DatapathTuple)
                 ? tavik_wlan::tuple_text(load<DatapathTuple>(payload))
                 : to_hex(payload);
    case Kind::kOperations:
      return values_inside(payload, CTRL_ATTR_OP_ID, Kind::kU32);
    case Kind::kTupleElement:
      break;
  }
  return to_hex(payload);
}

Json value(const AttributeInfo* info, Bytes payload) {
  return info != nullptr ? value(info->kind, payload) : Json(to_hex(payload));
}

Json values(std::span<const AttributeInfo> attributes, AttributeReader run) {
  Json object = Json::object();
  while (const std::optional<Attribute> attribute = run.next()) {
    object[attribute_name(attributes, attribute->type)] =
        value(find_attribute(attributes, attribute->type), attribute->payload);
  }
  return object;
}

std::string command_name(std::span<const CommandInfo> commands, uint8_t command) {
  const CommandInfo* info = find_command(commands, command);
  return info != nullptr ? info->name : "command " + std::to_string(command);
}

FoundAttribute find_attribute_at(Bytes request, uint32_t offset, uint16_t family_id) {
  const uint16_t type = load<nlmsghdr>(request).nlmsg_type;
  std::span<const AttributeInfo> attributes;
  if (type == GENL_ID_CTRL) {
    attributes = kControllerAttributes;
  } else if (type == family_id) {
    attributes = tavik_wlan::kAttributes;
  }
  return tavik_wlan::attribute_at(request, attributes, offset);
}

Json decode_acknowledgement(Bytes message) {
  if (message.size() < NLMSG_HDRLEN + sizeof(nlmsgerr)) {
    return {{"message", "MALFORMED"}};
  }
  const auto header = load<nlmsghdr>(message);
  const auto error = load<nlmsgerr>(message.subspan(NLMSG_HDRLEN));
  Json object;
  if (error.error == 0) {
    object["message"] = "ACK";
  } else {
    // In 64 bits, since the smallest int has no opposite.
    const char* name = strerrorname_np(static_cast<int>(-int64_t{error.error}));
    object["message"] = "ERROR " + (name != nullptr ? name : std::to_string(error.error));
  }
  const size_t echoed = (header.nlmsg_flags & NLM_F_CAPPED) != 0
                            ? 0
                            : NLMSG_ALIGN(error.msg.nlmsg_len) - NLMSG_HDRLEN;
  if ((header.nlmsg_flags & NLM_F_ACK_TLVS) != 0) {
    const AttributeReader extack(message, NLMSG_HDRLEN + sizeof(error) + echoed);
    object["attributes"] = values(kExtackAttributes, extack);
  }
  return object;
}

std::string escaped(char byte) {
  if (byte == '\n') {
    return "\\n";
  }
  if (byte == '\t') {
    return "\\t";
  }
  char text[8];
  snprintf(text, sizeof(text), "\\x%02x", static_cast<uint8_t>(byte));
  return text;
}

}  // namespace

Json MessageDecoder::decode(std::span<const uint8_t> datagram) {
  Json messages = Json::array();
  while (const std::optional<Bytes> message = tavik_wlan::take_message(datagram)) {
    messages.push_back(decode_message(*message));
  }
  if (!datagram.empty()) {
    messages.push_back({{"message", "MALFORMED"}, {"length", datagram.size()}});
  }
  return messages;
}

NamedAttribute MessageDecoder::attribute_at(std::span<const uint8_t> request,
                                            uint32_t offset) const {
  const FoundAttribute found = find_attribute_at(request, offset, family_id_);
  const bool has_value = !found.name.empty() && found.inside.empty();
  return {found.name, has_value ? value(found.info, found.payload) : Json()};
}

std::string MessageDecoder::missing_attribute(std::span<const uint8_t> request, uint32_t type,
                                              uint32_t container_offset) const {
  const FoundAttribute container = find_attribute_at(request, container_offset, family_id_);
  return (container.name.empty() ? "" : container.name + ".") +
         attribute_name(container.inside, type);
}

Json MessageDecoder::decode_message(std::span<const uint8_t> message) {
  const auto header = load<nlmsghdr>(message);
  Json object;
  if (header.nlmsg_type == NLMSG_ERROR) {
    object = decode_acknowledgement(message);
  } else if (header.nlmsg_type == NLMSG_DONE) {
    object["message"] = "DONE";
  } else {
    object = decode_generic(message);
  }
  object["seq"] = header.nlmsg_seq;
  object["length"] = header.nlmsg_len;
  return object;
}

Json MessageDecoder::decode_generic(std::span<const uint8_t> message) {
  if (message.size() < NLMSG_HDRLEN + GENL_HDRLEN) {
    return {{"message", "MALFORMED"}};
  }
  const uint16_t type = load<nlmsghdr>(message).nlmsg_type;
  const uint8_t command = load<genlmsghdr>(message.subspan(NLMSG_HDRLEN)).cmd;
  const AttributeReader run(message);
  if (type == GENL_ID_CTRL) {
    Json found = values(kControllerAttributes, run);
    if (found.value("FAMILY_NAME", "") == TAVIK_WLAN_FAMILY_NAME && found.contains("FAMILY_ID") &&
        found["FAMILY_ID"].is_number()) {
      family_id_ = found["FAMILY_ID"];
    }
    return {{"message", "nlctrl " + command_name(kControllerCommands, command)},
            {"attributes", found}};
  }
  if (type == family_id_) {
    return {{"message", TAVIK_WLAN_FAMILY_NAME " " + command_name(tavik_wlan::kCommands, command)},
            {"attributes", values(tavik_wlan::kAttributes, run)}};
  }
  return {{"message", "family " + std::to_string(type) + " command " + std::to_string(command)}};
}

std::string to_text(const Json& message) {
  std::string text = message["message"].get<std::string>();
  if (message.contains("seq")) {
    text += ", seq " + message["seq"].dump();
  }
  text += ", " + message["length"].dump() + " bytes\n";
  const Json attributes = message.value("attributes", Json::object());
  for (const auto& [name, value] : attributes.items()) {
    text += "    " + name + " " + printable(value_text(value)) + "\n";
  }
  return text;
}

std::string value_text(const Json& value) {
  return value.is_string() ? '"' + value.get<std::string>() + '"' : value.dump();
}

std::string printable(std::string_view text) {
  std::string shown;
  while (!text.empty()) {
    mbstate_t state{};
    wchar_t character = 0;
    size_t length = mbrtowc(&character, text.data(), text.size(), &state);
    // What is no whole character has a length beyond the text.
    if (length <= text.size() && iswprint(static_cast<wint_t>(character)) != 0) {
      shown += text.substr(0, length);
    } else {
      length = 1;
      shown += escaped(text.front());
    }
    text.remove_prefix(length);
  }
  return shown;
}

std::string to_hex(std::span<const uint8_t> bytes) {
  std::string text;
  for (size_t i = 0; i < bytes.size(); ++i) {
    char digits[4];
    snprintf(digits, sizeof(digits), i % 4 == 0 && i != 0 ? " %02x" : "%02x", bytes[i]);
    text += digits;
  }
  return text;
}

}  // namespace datapathctl
