#include "reference_kernel/emulator/family.h"

#include <arpa/inet.h>
#include <linux/genetlink.h>
#include <linux/netlink.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <iterator>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "reference_kernel/tavik_wlan_limits.h"

namespace tavik_wlan {
namespace {

/// Longest datagram of a dump, as the kernel's.
constexpr size_t kMaxDumpDatagram = 32768;
constexpr size_t kTupleElement = NLA_HDRLEN + NLA_HDRLEN + sizeof(DatapathTuple);

// What commands are about, in their validated attributes.

uint8_t selector_in(const Attributes& attributes) {
  return attributes[TAVIK_WLAN_ATTR_SELECTOR]->payload[0];
}

std::string name_in(const Attributes& attributes, uint16_t type) {
  return string_in(*attributes.at(type));
}

uint16_t port_in(const Attributes& attributes, uint16_t type) {
  return ntohs(load<uint16_t>(attributes.at(type)->payload));
}

/// The tuple attributes of the request. What the policies cannot say is checked here: each element
/// holds one.
Status read_tuples(const Attributes& attributes, std::vector<Attribute>& tuples) {
  AttributeReader elements(*attributes[TAVIK_WLAN_ATTR_TUPLES]);
  while (const std::optional<Attribute> element = elements.next()) {
    AttributeReader inside(*element);
    const std::optional<Attribute> tuple = inside.next();
    if (!tuple) {
      return {-EINVAL, "no tuple in an element", element->offset};
    }
    if (const std::optional<Attribute> second = inside.next()) {
      return {-EINVAL, "more than one tuple in an element", second->offset};
    }
    tuples.push_back(*tuple);
  }
  return {};
}

// What each command does. A command that fails changes nothing.

Status add_tuples(State& state, const Attributes& attributes) {
  std::vector<Attribute> tuples;
  if (Status status = read_tuples(attributes, tuples); !status.ok()) {
    return status;
  }
  TupleSet added;
  for (const Attribute& tuple : tuples) {
    added.insert(load<DatapathTuple>(tuple.payload));
  }
  std::erase_if(added, [&](const DatapathTuple& tuple) { return state.tuples.contains(tuple); });
  if (state.tuples.size() + added.size() > TAVIK_WLAN_MAX_TUPLES) {
    return {-ENOSPC, "too many tuples"};
  }
  state.tuples.merge(added);
  return {};
}

Status delete_tuples(State& state, const Attributes& attributes) {
  std::vector<Attribute> tuples;
  if (Status status = read_tuples(attributes, tuples); !status.ok()) {
    return status;
  }
  for (const Attribute& tuple : tuples) {
    if (!state.tuples.contains(load<DatapathTuple>(tuple.payload))) {
      return {-ENOENT, "no such tuple", tuple.offset};
    }
  }
  for (const Attribute& tuple : tuples) {
    state.tuples.erase(load<DatapathTuple>(tuple.payload));
  }
  return {};
}

Status set_device(State& state, const Attributes& attributes) {
  const std::string device = name_in(attributes, TAVIK_WLAN_ATTR_DEV);
  const auto [held, is_new] = state.devices.try_emplace(selector_in(attributes), device);
  if (is_new) {
    return {};
  }
  return held->second == device ? Status{-EEXIST, "the device is set already"}
                                : Status{-EBUSY, "another device is set"};
}

Status unset_device(State& state, const Attributes& attributes) {
  const auto held = state.devices.find(selector_in(attributes));
  if (held == state.devices.end() || held->second != name_in(attributes, TAVIK_WLAN_ATTR_DEV)) {
    return {-ENOENT, "the device is not set"};
  }
  state.devices.erase(held);
  return {};
}

template <typename Entry>
Status add(std::set<Entry>& held, const Entry& entry, size_t limit, const char* is_there,
           const char* is_full) {
  if (held.contains(entry)) {
    return {-EEXIST, is_there};
  }
  if (held.size() == limit) {
    return {-ENOSPC, is_full};
  }
  held.insert(entry);
  return {};
}

Forwarding forwarding_in(const Attributes& attributes) {
  return {selector_in(attributes), name_in(attributes, TAVIK_WLAN_ATTR_FWD_FROM),
          name_in(attributes, TAVIK_WLAN_ATTR_FWD_TO)};
}

Status add_forwarding(State& state, const Attributes& attributes) {
  return add(state.forwardings, forwarding_in(attributes), TAVIK_WLAN_MAX_FORWARDINGS,
             "the forwarding exists already", "too many forwardings");
}

Status delete_forwarding(State& state, const Attributes& attributes) {
  const bool was_held = state.forwardings.erase(forwarding_in(attributes)) == 1;
  return was_held ? Status{} : Status{-ENOENT, "no such forwarding"};
}

Status set_encapsulation(State& state, const Attributes& attributes) {
  state.encapsulation = {port_in(attributes, TAVIK_WLAN_ATTR_ENCAP_PORT), ""};
  return {};
}

Status set_encapsulation_action(State& state, const Attributes& attributes, const char* action) {
  const uint16_t port = port_in(attributes, TAVIK_WLAN_ATTR_ENCAP_PORT);
  if (!state.encapsulation || state.encapsulation->port != port) {
    return {-ENOENT, "the encapsulation port is not set"};
  }
  state.encapsulation->action = action;
  return {};
}

Status pass_encapsulation_through(State& state, const Attributes& attributes) {
  return set_encapsulation_action(state, attributes, " pass-through");
}

Status drop_encapsulation(State& state, const Attributes& attributes) {
  return set_encapsulation_action(state, attributes, " drop");
}

Status unset_encapsulation(State& state, const Attributes& attributes) {
  Status status = set_encapsulation_action(state, attributes, "");
  if (status.ok()) {
    state.encapsulation.reset();
  }
  return status;
}

Status add_flow(State& state, const Attributes& attributes) {
  const Flow flow{*Address::parse(name_in(attributes, TAVIK_WLAN_ATTR_LL_SRC_ADDR)),
                  *Address::parse(name_in(attributes, TAVIK_WLAN_ATTR_LL_DST_ADDR)),
                  port_in(attributes, TAVIK_WLAN_ATTR_LL_SRC_PORT),
                  port_in(attributes, TAVIK_WLAN_ATTR_LL_DST_PORT)};
  if (flow.source.ip_proto != flow.destination.ip_proto) {
    return {-EINVAL, "addresses of different families"};
  }
  return add(state.flows, flow, TAVIK_WLAN_MAX_FLOWS, "the flow exists already", "too many flows");
}

Status flush_flows(State& state, const Attributes& /*attributes*/) {
  state.flows.clear();
  return {};
}

Status reset(State& state, const Attributes& /*attributes*/) {
  state = {};
  return {};
}

struct Operation {
  uint8_t command;
  uint16_t bad_attribute;  // that an extack points at, unless the status does
  Status (*apply)(State& state, const Attributes& attributes);
};

constexpr Operation kOperations[] = {
    {TAVIK_WLAN_CMD_ADD_TUPLES, TAVIK_WLAN_ATTR_TUPLES, add_tuples},
    {TAVIK_WLAN_CMD_DEL_TUPLES, TAVIK_WLAN_ATTR_TUPLES, delete_tuples},
    {TAVIK_WLAN_CMD_SET_DEV, TAVIK_WLAN_ATTR_DEV, set_device},
    {TAVIK_WLAN_CMD_UNSET_DEV, TAVIK_WLAN_ATTR_DEV, unset_device},
    {TAVIK_WLAN_CMD_ADD_FWD_INFO, TAVIK_WLAN_ATTR_FWD_TO, add_forwarding},
    {TAVIK_WLAN_CMD_DEL_FWD_INFO, TAVIK_WLAN_ATTR_FWD_TO, delete_forwarding},
    {TAVIK_WLAN_CMD_SET_ENCAP_PORT, TAVIK_WLAN_ATTR_ENCAP_PORT, set_encapsulation},
    {TAVIK_WLAN_CMD_UNSET_ENCAP_PORT, TAVIK_WLAN_ATTR_ENCAP_PORT, unset_encapsulation},
    {TAVIK_WLAN_CMD_RESET, 0, reset},
    {TAVIK_WLAN_CMD_ENCAP_PORT_ACT_PASS_THROUGH, TAVIK_WLAN_ATTR_ENCAP_PORT,
     pass_encapsulation_through},
    {TAVIK_WLAN_CMD_ENCAP_PORT_ACT_DROP, TAVIK_WLAN_ATTR_ENCAP_PORT, drop_encapsulation},
    {TAVIK_WLAN_CMD_LL_ADDR_ADD, TAVIK_WLAN_ATTR_LL_DST_ADDR, add_flow},
    {TAVIK_WLAN_CMD_LL_ADDR_FLUSH, 0, flush_flows},
};
static_assert(std::size(kOperations) + 1 == std::size(kCommands), "all but the dump are here");

std::vector<Datagram> dump_tuples(const nlmsghdr& request, const TupleSet& tuples) {
  std::vector<Datagram> datagrams;
  for (auto tuple = tuples.begin(); tuple != tuples.end();) {
    MessageWriter writer(request, request.nlmsg_type, NLM_F_MULTI);
    writer.append(genlmsghdr{TAVIK_WLAN_CMD_GET_TUPLES, TAVIK_WLAN_FAMILY_VERSION, 0});
    const size_t container = writer.begin_nest(TAVIK_WLAN_ATTR_TUPLES | NLA_F_NESTED);
    for (; tuple != tuples.end() && writer.size() + kTupleElement <= kMaxDumpDatagram; ++tuple) {
      const size_t element = writer.begin_nest(TAVIK_WLAN_TUPLE_ELEMENT | NLA_F_NESTED);
      writer.put(TAVIK_WLAN_TUPLE_ATTR, *tuple);
      writer.end_nest(element);
    }
    writer.end_nest(container);
    datagrams.push_back(writer.take());
  }
  MessageWriter done(request, NLMSG_DONE, NLM_F_MULTI);
  done.append(int{0});
  datagrams.push_back(done.take());
  return datagrams;
}

/// Checks what comes before the attributes as the kernel does. `command` becomes the request's.
Status validate_headers(Bytes message, const CommandInfo*& command) {
  if (message.size() < NLMSG_HDRLEN + GENL_HDRLEN) {
    return {-EINVAL};
  }
  const auto header = load<nlmsghdr>(message);
  const auto generic = load<genlmsghdr>(message.subspan(NLMSG_HDRLEN));
  if (generic.reserved != 0) {
    return {-EINVAL, "genlmsghdr.reserved field is not 0"};
  }
  const bool dump = is_dump(header);
  const int allowed = NLM_F_REQUEST | NLM_F_ACK | NLM_F_ECHO | (dump ? NLM_F_DUMP : 0);
  if ((header.nlmsg_flags & ~allowed) != 0) {
    return {-EINVAL, "ambiguous or reserved bits set in nlmsg_flags"};
  }
  command = find_command(kCommands, generic.cmd);
  const uint32_t wanted = dump ? GENL_CMD_CAP_DUMP : GENL_CMD_CAP_DO;
  return command != nullptr && (command->flags & wanted) != 0 ? Status{} : Status{-EOPNOTSUPP};
}

}  // namespace

std::optional<Address> Address::parse(const std::string& text) {
  Address address;
  if (inet_pton(AF_INET, text.c_str(), address.bytes.data()) == 1) {
    return address;
  }
  address.ip_proto = TAVIK_WLAN_IP_PROTO_IPV6;
  if (inet_pton(AF_INET6, text.c_str(), address.bytes.data()) == 1) {
    return address;
  }
  return std::nullopt;
}

std::string Address::text() const {
  std::array<char, INET6_ADDRSTRLEN> text{};
  return inet_ntop(ip_proto == TAVIK_WLAN_IP_PROTO_IPV4 ? AF_INET : AF_INET6, bytes.data(),
                   text.data(), text.size());
}

std::string State::text() const {
  std::ostringstream text;
  for (const DatapathTuple& tuple : tuples) {
    text << "tuple " << tuple_text(tuple) << '\n';
  }
  for (const auto& [selector, device] : devices) {
    text << "device " << +selector << ' ' << device << '\n';
  }
  for (const auto& [selector, from, to] : forwardings) {
    text << "forward " << +selector << ' ' << from << ' ' << to << '\n';
  }
  if (encapsulation) {
    text << "encap " << encapsulation->port << encapsulation->action << '\n';
  }
  for (const Flow& flow : flows) {
    text << "lowlat " << flow.source.text() << ' ' << flow.source_port << ' '
         << flow.destination.text() << ' ' << flow.destination_port << '\n';
  }
  return text.str();
}

Outcome handle_family_request(Bytes message, State& state) {
  const CommandInfo* command = nullptr;
  Attributes attributes;
  if (Status status = validate_headers(message, command); !status.ok()) {
    return {.status = status};
  }
  if (Status status = parse_attributes(message, *command, attributes); !status.ok()) {
    return {.status = status};
  }
  if (command->command == TAVIK_WLAN_CMD_GET_TUPLES) {
    return {.replies = dump_tuples(load<nlmsghdr>(message), state.tuples)};
  }
  const auto operation = std::ranges::find(kOperations, command->command, &Operation::command);
  Outcome outcome{.status = operation->apply(state, attributes)};
  if (!outcome.status.ok() && !outcome.status.offset) {
    outcome.status.offset = attributes.at(operation->bad_attribute)->offset;
  }
  return outcome;
}

}  // namespace tavik_wlan
