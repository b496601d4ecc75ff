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

/// Enough for the clients that may have a request on its way at the same time.
constexpr size_t kMaxRequests = 64;

/// How many tuples a line names.
constexpr size_t kMaxTuples = 4;

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
    case Kind::kTuple: {
      if (payload.size() != sizeof(DatapathTuple)) {
        break;
      }
      const auto tuple = load<DatapathTuple>(payload);
      return tuple_as_json(tuple.ip_proto, tavik_wlan::transport_name(tuple.trans_proto),
                           tavik_wlan::tuple_value(tuple));
    }
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

/// Names what the attributes of an answer point at in its request.
void explain(Bytes request, Json* answer) {
  const bool is_look_up = load<nlmsghdr>(request).nlmsg_type == GENL_ID_CTRL;
  const std::span<const AttributeInfo> known =
      is_look_up ? std::span<const AttributeInfo>(kControllerAttributes) : tavik_wlan::kAttributes;
  const auto number = [attributes = (*answer)["attributes"]](const char* name) {
    const Json value = attributes.value(name, Json());
    return value.is_number() ? value.get<uint32_t>() : 0;
  };
  const FoundAttribute bad = tavik_wlan::attribute_at(request, known, number("OFFS"));
  if (!bad.name.empty()) {
    (*answer)["attribute"] = bad.name;
    (*answer)["value"] = bad.inside.empty() ? value(bad.info, bad.payload) : Json();
  }
  if (const uint32_t missing = number("MISS_TYPE"); missing != 0) {
    const FoundAttribute container = tavik_wlan::attribute_at(request, known, number("MISS_NEST"));
    (*answer)["missing"] = (container.name.empty() ? "" : container.name + ".") +
                           attribute_name(container.inside, missing);
  }
}

void mark_malformed(Message* message) {
  message->is_failure = true;
  message->json["message"] = "MALFORMED";
}

}  // namespace

std::vector<Message> MessageDecoder::decode(Bytes datagram) {
  std::vector<Message> messages;
  while (const std::optional<Bytes> bytes = tavik_wlan::take_message(datagram)) {
    const auto header = load<nlmsghdr>(*bytes);
    Message& message = messages.emplace_back(Message{.bytes = *bytes});
    message.is_request = (header.nlmsg_flags & NLM_F_REQUEST) != 0;
    if (header.nlmsg_type == NLMSG_ERROR || header.nlmsg_type == NLMSG_DONE) {
      decode_answer(&message);
    } else {
      decode_generic(&message);
    }
    message.json["seq"] = header.nlmsg_seq;
    message.json["port_id"] = header.nlmsg_pid;
    message.json["length"] = header.nlmsg_len;
  }
  if (!datagram.empty()) {
    mark_malformed(&messages.emplace_back(Message{.bytes = datagram}));
    messages.back().json["length"] = datagram.size();
  }
  return messages;
}

void MessageDecoder::decode_generic(Message* message) {
  if (message->bytes.size() < NLMSG_HDRLEN + GENL_HDRLEN) {
    mark_malformed(message);
    return;
  }
  const auto header = load<nlmsghdr>(message->bytes);
  message->json["message"] = name_of(message->bytes);
  if (header.nlmsg_type == GENL_ID_CTRL) {
    Json attributes = values(kControllerAttributes, AttributeReader(message->bytes));
    const Json id = attributes.value("FAMILY_ID", Json());
    if (attributes.value("FAMILY_NAME", "") == TAVIK_WLAN_FAMILY_NAME) {
      // What the controller tells unasked has no sequence number.
      const bool is_asked = message->is_request || header.nlmsg_seq != 0;
      message->subject = is_asked ? Subject::kLookUp : Subject::kFamily;
      family_id_ = id.is_number() ? id.get<uint16_t>() : family_id_;
    }
    message->json["attributes"] = std::move(attributes);
  } else if (is_family(header.nlmsg_type)) {
    message->subject = Subject::kFamily;
    message->json["attributes"] = values(tavik_wlan::kAttributes, AttributeReader(message->bytes));
  }
  if (message->is_request && message->subject != Subject::kOther) {
    requests_.push_front({message->subject, {message->bytes.begin(), message->bytes.end()}});
    if (requests_.size() > kMaxRequests) {
      requests_.pop_back();
    }
  }
}

void MessageDecoder::decode_answer(Message* message) {
  const auto header = load<nlmsghdr>(message->bytes);
  const bool is_done = header.nlmsg_type == NLMSG_DONE;
  const Bytes payload = message->bytes.subspan(NLMSG_HDRLEN);
  if (payload.size() < (is_done ? sizeof(int) : sizeof(nlmsgerr))) {
    mark_malformed(message);
    return;
  }
  const int error = load<int>(payload);
  message->is_failure = error != 0;
  message->json["message"] = error == 0 ? (is_done ? "DONE" : "ACK")
                                        // In 64 bits, since the smallest int has no opposite.
                                        : "ERROR " + error_name(static_cast<int>(-int64_t{error}));

  nlmsghdr asked = header;
  size_t extack_offset = NLMSG_HDRLEN + sizeof(error);
  if (!is_done) {
    asked = load<nlmsgerr>(payload).msg;
    const bool is_capped = (header.nlmsg_flags & NLM_F_CAPPED) != 0;
    extack_offset += is_capped ? sizeof(asked) : NLMSG_ALIGN(size_t{asked.nlmsg_len});
  }
  const Request* request = find_request(asked);
  if (request != nullptr) {
    message->subject = request->subject;
    message->json["request"] = short_name(name_of(request->bytes));
  } else if (is_family(asked.nlmsg_type)) {
    message->subject = Subject::kFamily;
  }
  if ((header.nlmsg_flags & NLM_F_ACK_TLVS) != 0) {
    message->json["attributes"] =
        values(kExtackAttributes, AttributeReader(message->bytes, extack_offset));
    if (request != nullptr) {
      explain(request->bytes, &message->json);
    }
  }
}

const MessageDecoder::Request* MessageDecoder::find_request(const nlmsghdr& asked) const {
  const auto found = std::ranges::find_if(requests_, [&asked](const Request& request) {
    const auto header = load<nlmsghdr>(request.bytes);
    return header.nlmsg_seq == asked.nlmsg_seq &&
           (asked.nlmsg_type < NLMSG_MIN_TYPE || header.nlmsg_type == asked.nlmsg_type) &&
           // A client need not write its own port id into a request.
           (header.nlmsg_pid == 0 || header.nlmsg_pid == asked.nlmsg_pid);
  });
  return found != requests_.end() ? &*found : nullptr;
}

/// The name of a message that has a generic netlink header.
std::string MessageDecoder::name_of(Bytes message) const {
  const uint16_t type = load<nlmsghdr>(message).nlmsg_type;
  const uint8_t command = load<genlmsghdr>(message.subspan(NLMSG_HDRLEN)).cmd;
  if (type == GENL_ID_CTRL) {
    return "nlctrl " + command_name(kControllerCommands, command);
  }
  return is_family(type) ? TAVIK_WLAN_FAMILY_NAME " " + command_name(tavik_wlan::kCommands, command)
                         : "family " + std::to_string(type) + " command " + std::to_string(command);
}

std::string to_text(const Message& message, bool full) {
  const Json& json = message.json;
  std::string text = json["message"];
  text = full ? text : short_name(text);
  if (json.contains("request")) {
    text += " " + json.value("request", "");
  }
  if (full && json.contains("seq")) {
    text += ", seq " + json["seq"].dump();
  }
  if (full) {
    text += ", " + json["length"].dump() + " bytes";
  }
  std::string separator = full ? "\n    " : " ";
  const auto add = [&](const std::string& detail) {
    text += separator + printable(detail);
    separator = full ? separator : ", ";
  };
  const Json attributes = json.value("attributes", Json::object());
  for (const auto& [name, value] : attributes.items()) {
    // What these numbers point at follows.
    if (full || (name != "OFFS" && !name.starts_with("MISS_"))) {
      add(name + " " + value_text(value, full ? SIZE_MAX : kMaxTuples));
    }
  }
  if (const std::string complaint = complaint_of(json); !complaint.empty()) {
    add(complaint);
  }
  return text;
}

std::string short_name(const std::string& name) {
  constexpr std::string_view kFamily = TAVIK_WLAN_FAMILY_NAME " ";
  return name.starts_with(kFamily) ? name.substr(kFamily.size()) : name;
}

std::string complaint_of(const Json& answer) {
  std::string text = answer.value("attribute", "");
  if (const Json value = answer.value("value", Json()); !value.is_null()) {
    text += " " + value_text(value);
  }
  if (answer.contains("missing")) {
    text.append(text.empty() ? "missing " : ", missing ").append(answer["missing"]);
  }
  return text;
}

std::string error_name(int error) {
  const char* name = strerrorname_np(error);
  return name != nullptr ? name : std::to_string(error);
}

Json tuple_as_json(unsigned ip, std::string_view transport, uint32_t value) {
  return {{"ip", ip}, {"transport", transport}, {transport == "esp" ? "spi" : "port", value}};
}

std::string tuple_text(const Json& tuple) {
  return tavik_wlan::tuple_text(tuple["ip"], tuple["transport"].get<std::string>(),
                                tuple.value("spi", tuple.value("port", 0U)));
}

std::string value_text(const Json& value, size_t limit) {
  if (value.is_array()) {
    std::string list;
    for (size_t i = 0; i < std::min(limit, value.size()); ++i) {
      list += (i == 0 ? "" : ",") + value_text(value[i]);
    }
    return '[' + list + (value.size() > limit ? ",... " + std::to_string(value.size()) : "") + ']';
  }
  if (value.is_object()) {
    return '"' + tuple_text(value) + '"';
  }
  return value.is_string() ? '"' + value.get<std::string>() + '"' : value.dump();
}

std::string json_text(const Json& object) {
  return object.dump(-1, ' ', true, Json::error_handler_t::replace);
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
      shown += "\\x" + to_hex({reinterpret_cast<const uint8_t*>(text.data()), 1});
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
