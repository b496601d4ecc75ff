#include "reference_kernel/emulator/family.h"

#include <arpa/inet.h>
#include <linux/genetlink.h>
#include <linux/netlink.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <iterator>
#include <optional>
#include <vector>

namespace tavik_wlan {
namespace {

/// Longest datagram of a dump, as the kernel's.
constexpr size_t kMaxDumpDatagram = 32768;
constexpr size_t kTupleElement = NLA_HDRLEN + NLA_HDRLEN + sizeof(DatapathTuple);

// What commands are about, read from their validated attributes.

uint8_t selector_in(const Attributes& attributes) {
  return attributes[TAVIK_WLAN_ATTR_SELECTOR]->payload[0];
}

uint16_t port_in(const Attribute& attribute) { return ntohs(load<uint16_t>(attribute.payload)); }

/// What the policies cannot say is checked here: each element holds one tuple.
Status read(const Attributes& attributes, Tuples& tuples) {
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
    tuples.push_back(load<DatapathTuple>(tuple->payload));
  }
  return {};
}

Status read(const Attributes& attributes, Device& device) {
  device = {selector_in(attributes), string_in(*attributes[TAVIK_WLAN_ATTR_DEV])};
  return {};
}

Status read(const Attributes& attributes, Forwarding& forwarding) {
  forwarding = {selector_in(attributes), string_in(*attributes[TAVIK_WLAN_ATTR_FWD_FROM]),
                string_in(*attributes[TAVIK_WLAN_ATTR_FWD_TO])};
  return {};
}

Status read(const Attributes& attributes, Encapsulation& encapsulation) {
  encapsulation.port = port_in(*attributes[TAVIK_WLAN_ATTR_ENCAP_PORT]);
  return {};
}

Status read(const Attributes& attributes, Flow& flow) {
  const Attribute& destination = *attributes[TAVIK_WLAN_ATTR_LL_DST_ADDR];
  flow = {*parse_address(string_in(*attributes[TAVIK_WLAN_ATTR_LL_SRC_ADDR])),
          *parse_address(string_in(destination)), port_in(*attributes[TAVIK_WLAN_ATTR_LL_SRC_PORT]),
          port_in(*attributes[TAVIK_WLAN_ATTR_LL_DST_PORT])};
  return flow.source.ip_proto == flow.destination.ip_proto
             ? Status{}
             : Status{-EINVAL, "addresses of different families", destination.offset};
}

/// Appends the arguments to `description` unless that is null.
using Apply = Status (*)(State& state, const Attributes& attributes, std::string* description);

template <typename Argument, Status (State::*kChange)(const Argument&)>
Status apply(State& state, const Attributes& attributes, std::string* description) {
  Argument argument;
  if (Status status = read(attributes, argument); !status.ok()) {
    return status;
  }
  if (description != nullptr) {
    *description += ' ' + to_text(argument);
  }
  return (state.*kChange)(argument);
}

/// The bad attribute is the first tuple that is not held.
Status delete_tuples(State& state, const Attributes& attributes, std::string* description) {
  Status status = apply<Tuples, &State::delete_tuples>(state, attributes, description);
  if (status.error == -ENOENT) {
    AttributeReader elements(*attributes[TAVIK_WLAN_ATTR_TUPLES]);
    std::optional<Attribute> tuple;
    do {
      tuple = AttributeReader(*elements.next()).next();
    } while (state.tuples().contains(load<DatapathTuple>(tuple->payload)));
    status.offset = tuple->offset;
  }
  return status;
}

Status reset(State& state, const Attributes& /*attributes*/, std::string* /*description*/) {
  state = {};
  return {};
}

Status flush_flows(State& state, const Attributes& /*attributes*/, std::string* /*description*/) {
  state.flush_flows();
  return {};
}

struct Operation {
  uint8_t command;
  uint16_t bad_attribute;  // that an extack points at, unless the status does
  Apply apply;
};

constexpr Operation kOperations[] = {
    {TAVIK_WLAN_CMD_ADD_TUPLES, TAVIK_WLAN_ATTR_TUPLES, apply<Tuples, &State::add_tuples>},
    {TAVIK_WLAN_CMD_DEL_TUPLES, TAVIK_WLAN_ATTR_TUPLES, delete_tuples},
    {TAVIK_WLAN_CMD_SET_DEV, TAVIK_WLAN_ATTR_DEV, apply<Device, &State::set_device>},
    {TAVIK_WLAN_CMD_UNSET_DEV, TAVIK_WLAN_ATTR_DEV, apply<Device, &State::unset_device>},
    {TAVIK_WLAN_CMD_ADD_FWD_INFO, TAVIK_WLAN_ATTR_FWD_TO,
     apply<Forwarding, &State::add_forwarding>},
    {TAVIK_WLAN_CMD_DEL_FWD_INFO, TAVIK_WLAN_ATTR_FWD_TO,
     apply<Forwarding, &State::delete_forwarding>},
    {TAVIK_WLAN_CMD_SET_ENCAP_PORT, TAVIK_WLAN_ATTR_ENCAP_PORT,
     apply<Encapsulation, &State::set_encapsulation>},
    {TAVIK_WLAN_CMD_UNSET_ENCAP_PORT, TAVIK_WLAN_ATTR_ENCAP_PORT,
     apply<Encapsulation, &State::unset_encapsulation>},
    {TAVIK_WLAN_CMD_RESET, 0, reset},
    {TAVIK_WLAN_CMD_ENCAP_PORT_ACT_PASS_THROUGH, TAVIK_WLAN_ATTR_ENCAP_PORT,
     apply<Encapsulation, &State::pass_encapsulation_through>},
    {TAVIK_WLAN_CMD_ENCAP_PORT_ACT_DROP, TAVIK_WLAN_ATTR_ENCAP_PORT,
     apply<Encapsulation, &State::drop_encapsulation>},
    {TAVIK_WLAN_CMD_LL_ADDR_ADD, TAVIK_WLAN_ATTR_LL_DST_ADDR, apply<Flow, &State::add_flow>},
    {TAVIK_WLAN_CMD_LL_ADDR_FLUSH, 0, flush_flows},
};
static_assert(std::size(kOperations) + 1 == std::size(kCommands), "all but the dump are here");

std::vector<Datagram> dump_tuples(const nlmsghdr& request, const TupleSet& tuples) {
  std::vector<Datagram> datagrams;
  DatagramWriter writer;
  for (auto tuple = tuples.begin(); tuple != tuples.end();) {
    if (writer.size() > 0) {
      datagrams.push_back(writer.take());
    }
    writer.begin_message(request, request.nlmsg_type, NLM_F_MULTI);
    writer.append(genlmsghdr{TAVIK_WLAN_CMD_GET_TUPLES, TAVIK_WLAN_FAMILY_VERSION, 0});
    const size_t container = writer.begin_nest(TAVIK_WLAN_ATTR_TUPLES | NLA_F_NESTED);
    for (; tuple != tuples.end() && writer.size() + kTupleElement <= kMaxDumpDatagram; ++tuple) {
      const size_t element = writer.begin_nest(TAVIK_WLAN_TUPLE_ELEMENT | NLA_F_NESTED);
      writer.put(TAVIK_WLAN_TUPLE_ATTR, *tuple);
      writer.end_nest(element);
    }
    writer.end_nest(container);
    writer.end_message();
  }
  if (writer.size() + NLMSG_SPACE(sizeof(int)) > kMaxDumpDatagram) {
    datagrams.push_back(writer.take());
  }
  append_done(writer, request);
  datagrams.push_back(writer.take());
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

FamilyDescription describe_family(uint16_t id) {
  return {.id = id,
          .name = TAVIK_WLAN_FAMILY_NAME,
          .version = TAVIK_WLAN_FAMILY_VERSION,
          .max_attribute = TAVIK_WLAN_ATTR_MAX,
          .commands = kCommands};
}

Outcome handle_family_request(Bytes message, State& state, std::string* description) {
  const CommandInfo* command = nullptr;
  Attributes attributes;
  if (Status status = validate_headers(message, command); !status.ok()) {
    return {.status = status};
  }
  if (Status status = parse_attributes(message, *command, attributes); !status.ok()) {
    return {.status = status};
  }
  if (description != nullptr) {
    *description = command->name;
  }
  if (command->command == TAVIK_WLAN_CMD_GET_TUPLES) {
    return {.replies = dump_tuples(load<nlmsghdr>(message), state.tuples())};
  }
  const auto operation = std::ranges::find(kOperations, command->command, &Operation::command);
  Outcome outcome{.status = operation->apply(state, attributes, description)};
  if (!outcome.status.ok() && !outcome.status.offset) {
    outcome.status.offset = attributes.at(operation->bad_attribute)->offset;
  }
  return outcome;
}

}  // namespace tavik_wlan
