#include "datapathctl/message_decoder.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <cwctype>

#include "kernel_interface/tavik_wlan.h"

namespace datapathctl {
namespace {

using Json = nlohmann::ordered_json;

enum class Kind {
  kBytes,
  kString,
  kU8,
  kU16,
  kU32,
  kPort,
  kTuples,
  kTupleElement,
  kTuple,
  kOperations
};

struct AttributeName {
  const char* name = nullptr;
  Kind kind = Kind::kBytes;
};

// All tables are indexed by the number that the protocol gives.

constexpr std::array<const char*, TAVIK_WLAN_CMD_MAX + 1> kCommands = {
    nullptr,
    "ADD_TUPLES",
    "DEL_TUPLES",
    "SET_DEV",
    "UNSET_DEV",
    "ADD_FWD_INFO",
    "DEL_FWD_INFO",
    "SET_ENCAP_PORT",
    "UNSET_ENCAP_PORT",
    "RESET",
    "ENCAP_PORT_ACT_PASS_THROUGH",
    "ENCAP_PORT_ACT_DROP",
    "LL_ADDR_ADD",
    "LL_ADDR_FLUSH",
    "GET_TUPLES",
};

constexpr std::array<AttributeName, TAVIK_WLAN_ATTR_MAX + 1> kAttributes = {{
    {},
    {"TUPLES", Kind::kTuples},
    {"DEV", Kind::kString},
    {"FWD_FROM", Kind::kString},
    {"FWD_TO", Kind::kString},
    {"ENCAP_PORT", Kind::kPort},
    {"SELECTOR", Kind::kU8},
    {"LL_SRC_ADDR", Kind::kString},
    {"LL_DST_ADDR", Kind::kString},
    {"LL_SRC_PORT", Kind::kPort},
    {"LL_DST_PORT", Kind::kPort},
}};

constexpr std::array<AttributeName, TAVIK_WLAN_TUPLE_ELEMENT + 1> kTupleElements = {
    {{}, {"ELEMENT", Kind::kTupleElement}}};

constexpr std::array<AttributeName, TAVIK_WLAN_TUPLE_ATTR_MAX + 1> kTupleAttributes = {
    {{}, {"TUPLE", Kind::kTuple}}};

constexpr std::array<const char*, CTRL_CMD_GETFAMILY + 1> kControllerCommands = {
    nullptr, "NEWFAMILY", "DELFAMILY", "GETFAMILY"};

constexpr std::array<AttributeName, CTRL_ATTR_OPS + 1> kControllerAttributes = {{
    {},
    {"FAMILY_ID", Kind::kU16},
    {"FAMILY_NAME", Kind::kString},
    {"VERSION", Kind::kU32},
    {"HDRSIZE", Kind::kU32},
    {"MAXATTR", Kind::kU32},
    {"OPS", Kind::kOperations},
}};

constexpr std::array<AttributeName, NLMSGERR_ATTR_MISS_NEST + 1> kErrorAttributes = {{
    {},
    {"MSG", Kind::kString},
    {"OFFS", Kind::kU32},
    {},
    {},
    {"MISS_TYPE", Kind::kU32},
    {"MISS_NEST", Kind::kU32},
}};

std::span<const uint8_t> payload(const nlattr* attribute) {
  return {static_cast<const uint8_t*>(mnl_attr_get_payload(attribute)),
          mnl_attr_get_payload_len(attribute)};
}

template <typename Number>
Json number(std::span<const uint8_t> bytes) {
  Number value{};
  if (bytes.size() != sizeof(value)) {
    return to_hex(bytes);
  }
  memcpy(&value, bytes.data(), sizeof(value));
  return value;
}

/// Text up to its NUL, whatever bytes it has.
std::string string_text(std::span<const uint8_t> bytes) {
  return {bytes.begin(), std::ranges::find(bytes, 0)};
}

std::string tuple_text(std::span<const uint8_t> bytes) {
  DatapathTuple tuple;
  if (bytes.size() != sizeof(tuple)) {
    return to_hex(bytes);
  }
  memcpy(&tuple, bytes.data(), sizeof(tuple));
  const std::string version = tuple.ip_proto == TAVIK_WLAN_IP_PROTO_IPV4   ? "ipv4 "
                              : tuple.ip_proto == TAVIK_WLAN_IP_PROTO_IPV6 ? "ipv6 "
                                                                           : "ip? ";
  if (tuple.trans_proto == TAVIK_WLAN_TRANS_PROTO_ESP) {
    char spi[16];
    snprintf(spi, sizeof(spi), "0x%08x", ntohl(tuple.key.spi));
    return version + "esp " + spi;
  }
  const std::string transport = tuple.trans_proto == TAVIK_WLAN_TRANS_PROTO_TCP   ? "tcp "
                                : tuple.trans_proto == TAVIK_WLAN_TRANS_PROTO_UDP ? "udp "
                                                                                  : "protocol? ";
  return version + transport + std::to_string(ntohs(tuple.key.port));
}

template <typename Each>
void for_each_attribute(std::span<const uint8_t> run, Each each) {
  const auto* attribute = reinterpret_cast<const nlattr*>(run.data());
  const auto* end = reinterpret_cast<const char*>(run.data() + run.size());
  while (mnl_attr_ok(attribute, static_cast<int>(end - reinterpret_cast<const char*>(attribute)))) {
    each(attribute);
    attribute = mnl_attr_next(attribute);
  }
}

Json tuples(std::span<const uint8_t> container) {
  Json list = Json::array();
  for_each_attribute(container, [&](const nlattr* element) {
    for_each_attribute(payload(element),
                       [&](const nlattr* tuple) { list.push_back(tuple_text(payload(tuple))); });
  });
  return list;
}

Json operations(std::span<const uint8_t> container) {
  Json list = Json::array();
  for_each_attribute(container, [&](const nlattr* operation) {
    for_each_attribute(payload(operation), [&](const nlattr* field) {
      if (mnl_attr_get_type(field) == CTRL_ATTR_OP_ID) {
        list.push_back(number<uint32_t>(payload(field)));
      }
    });
  });
  return list;
}

Json value(Kind kind, std::span<const uint8_t> bytes) {
  switch (kind) {
    case Kind::kString:
      return string_text(bytes);
    case Kind::kU8:
      return number<uint8_t>(bytes);
    case Kind::kU16:
      return number<uint16_t>(bytes);
    case Kind::kU32:
      return number<uint32_t>(bytes);
    case Kind::kPort: {
      const Json port = number<uint16_t>(bytes);
      return port.is_number() ? Json(ntohs(port.get<uint16_t>())) : port;
    }
    case Kind::kTuples:
      return tuples(bytes);
    case Kind::kTuple:
      return tuple_text(bytes);
    case Kind::kOperations:
      return operations(bytes);
    case Kind::kTupleElement:
    case Kind::kBytes:
      break;
  }
  return to_hex(bytes);
}

AttributeName known_attribute(std::span<const AttributeName> names, uint32_t type) {
  return type < names.size() ? names[type] : AttributeName{};
}

std::string attribute_name(std::span<const AttributeName> names, uint32_t type) {
  const char* name = known_attribute(names, type).name;
  return name != nullptr ? name : "type " + std::to_string(type);
}

Json attributes(std::span<const AttributeName> names, std::span<const uint8_t> run) {
  Json object = Json::object();
  for_each_attribute(run, [&](const nlattr* attribute) {
    const uint16_t type = mnl_attr_get_type(attribute);
    object[attribute_name(names, type)] =
        value(known_attribute(names, type).kind, payload(attribute));
  });
  return object;
}

/// The attributes that one of a kind contains; empty where it contains none.
std::span<const AttributeName> attributes_inside(Kind kind) {
  switch (kind) {
    case Kind::kTuples:
      return kTupleElements;
    case Kind::kTupleElement:
      return kTupleAttributes;
    default:
      return {};
  }
}

std::span<const AttributeName> attributes_of_family(uint16_t type, uint16_t family_id) {
  if (type == GENL_ID_CTRL) {
    return kControllerAttributes;
  }
  return type == family_id ? std::span<const AttributeName>(kAttributes)
                           : std::span<const AttributeName>();
}

/// An attribute of a run, and which one of them.
struct RunEntry {
  const nlattr* attribute = nullptr;
  size_t index = 0;
};

RunEntry entry_around(std::span<const uint8_t> run, const uint8_t* place) {
  RunEntry found;
  size_t index = 0;
  for_each_attribute(run, [&](const nlattr* attribute) {
    const auto* start = reinterpret_cast<const uint8_t*>(attribute);
    if (place >= start && place < start + attribute->nla_len) {
      found = {attribute, index};
    }
    ++index;
  });
  return found;
}

struct FoundAttribute {
  NamedAttribute named;
  std::span<const AttributeName> inside;  // the attributes that it may contain
};

/// The innermost attribute of a run that holds the byte at `place`.
FoundAttribute find_attribute(std::span<const AttributeName> names, std::span<const uint8_t> run,
                              const uint8_t* place) {
  FoundAttribute found{{}, names};
  for (;;) {
    const auto [attribute, index] = entry_around(run, place);
    if (attribute == nullptr) {
      return found;
    }
    const uint16_t type = mnl_attr_get_type(attribute);
    const Kind kind = known_attribute(found.inside, type).kind;
    std::string& name = found.named.name;
    if (kind == Kind::kTupleElement) {
      name.append("[").append(std::to_string(index)).append("]");
    } else {
      name.append(name.empty() ? "" : ".").append(attribute_name(found.inside, type));
    }
    found.inside = attributes_inside(kind);
    run = {};
    if (found.inside.empty()) {
      found.named.value = value(kind, payload(attribute));
    } else if (place != reinterpret_cast<const uint8_t*>(attribute)) {
      run = payload(attribute);
    }
  }
}

std::string command_name(std::span<const char* const> names, uint8_t command) {
  const bool known = command < names.size() && names[command] != nullptr;
  return known ? names[command] : "command " + std::to_string(command);
}

/// What lies in a message from an offset on, empty where it ends before.
std::span<const uint8_t> message_from(const nlmsghdr* message, size_t offset) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(message);
  return offset < message->nlmsg_len
             ? std::span<const uint8_t>(bytes + offset, message->nlmsg_len - offset)
             : std::span<const uint8_t>();
}

FoundAttribute find_attribute(std::span<const uint8_t> request, uint32_t offset,
                              uint16_t family_id) {
  const auto* message = reinterpret_cast<const nlmsghdr*>(request.data());
  return find_attribute(attributes_of_family(message->nlmsg_type, family_id),
                        message_from(message, NLMSG_HDRLEN + GENL_HDRLEN),
                        request.data() + std::min<size_t>(offset, request.size()));
}

Json decode_acknowledgement(const nlmsghdr* message) {
  const std::span<const uint8_t> body = message_from(message, NLMSG_HDRLEN);
  nlmsgerr error{};
  if (body.size() < sizeof(error)) {
    return {{"message", "MALFORMED"}};
  }
  memcpy(&error, body.data(), sizeof(error));
  Json object;
  if (error.error == 0) {
    object["message"] = "ACK";
  } else {
    // In 64 bits, since the smallest int has no opposite.
    const char* name = strerrorname_np(static_cast<int>(-int64_t{error.error}));
    object["message"] =
        std::string("ERROR ") + (name != nullptr ? name : std::to_string(error.error).c_str());
  }
  const size_t echoed = (message->nlmsg_flags & NLM_F_CAPPED) != 0
                            ? 0
                            : NLMSG_ALIGN(error.msg.nlmsg_len) - NLMSG_HDRLEN;
  if ((message->nlmsg_flags & NLM_F_ACK_TLVS) != 0) {
    object["attributes"] =
        attributes(kErrorAttributes, message_from(message, NLMSG_HDRLEN + sizeof(error) + echoed));
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
  while (datagram.size() >= sizeof(nlmsghdr)) {
    const auto* message = reinterpret_cast<const nlmsghdr*>(datagram.data());
    // Compared without a sign: to mnl_nlmsg_ok() a length of 2^31 and more is a negative one.
    if (message->nlmsg_len < sizeof(nlmsghdr) || message->nlmsg_len > datagram.size()) {
      break;
    }
    messages.push_back(decode_message(message));
    // The last message may lack its padding.
    datagram = datagram.subspan(
        std::min<size_t>(NLMSG_ALIGN(size_t{message->nlmsg_len}), datagram.size()));
  }
  if (!datagram.empty()) {
    messages.push_back({{"message", "MALFORMED"}, {"length", datagram.size()}});
  }
  return messages;
}

NamedAttribute MessageDecoder::attribute_at(std::span<const uint8_t> request,
                                            uint32_t offset) const {
  return find_attribute(request, offset, family_id_).named;
}

std::string MessageDecoder::missing_attribute(std::span<const uint8_t> request, uint32_t type,
                                              uint32_t container_offset) const {
  const FoundAttribute container = find_attribute(request, container_offset, family_id_);
  const std::string& name = container.named.name;
  return (name.empty() ? "" : name + ".") + attribute_name(container.inside, type);
}

Json MessageDecoder::decode_message(const nlmsghdr* message) {
  Json object;
  if (message->nlmsg_type == NLMSG_ERROR) {
    object = decode_acknowledgement(message);
  } else if (message->nlmsg_type == NLMSG_DONE) {
    object["message"] = "DONE";
  } else {
    object = decode_generic(message);
  }
  object["seq"] = message->nlmsg_seq;
  object["length"] = message->nlmsg_len;
  return object;
}

Json MessageDecoder::decode_generic(const nlmsghdr* message) {
  const std::span<const uint8_t> body = message_from(message, NLMSG_HDRLEN);
  const std::span<const uint8_t> run = message_from(message, NLMSG_HDRLEN + GENL_HDRLEN);
  if (body.size() < GENL_HDRLEN) {
    return {{"message", "MALFORMED"}};
  }
  const uint8_t command = body[offsetof(genlmsghdr, cmd)];
  if (message->nlmsg_type == GENL_ID_CTRL) {
    Json found = attributes(kControllerAttributes, run);
    if (found.value("FAMILY_NAME", "") == TAVIK_WLAN_FAMILY_NAME && found.contains("FAMILY_ID") &&
        found["FAMILY_ID"].is_number()) {
      family_id_ = found["FAMILY_ID"];
    }
    return {{"message", "nlctrl " + command_name(kControllerCommands, command)},
            {"attributes", found}};
  }
  if (message->nlmsg_type == family_id_) {
    return {{"message", TAVIK_WLAN_FAMILY_NAME " " + command_name(kCommands, command)},
            {"attributes", attributes(kAttributes, run)}};
  }
  return {{"message", "family " + std::to_string(message->nlmsg_type) + " command " +
                          std::to_string(command)}};
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
