#include "reference_kernel/emulator/family.h"

#include <arpa/inet.h>
#include <linux/genetlink.h>
#include <linux/netlink.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <set>
#include <string>
#include <vector>

#include "kernel_interface/tavik_wlan.h"
#include "reference_kernel/emulator/datagram_writer.h"
#include "reference_kernel/emulator/entries.h"
#include "reference_kernel/emulator/request_parser.h"

namespace tavik_wlan {
namespace {

/// Longest datagram of a dump, as the kernel's.
constexpr size_t kMaxDumpDatagram = 32768;
constexpr size_t kTupleElement = NLA_HDRLEN + NLA_HDRLEN + sizeof(DatapathTuple);

using Apply = Verdict (*)(State&, const Request&);

struct Command {
  const char* name = nullptr;
  uint16_t blamed = 0;    // the attribute that a refusal points to, unless it points elsewhere
  Apply apply = nullptr;  // null: a dump
};

using Commands = std::array<Command, TAVIK_WLAN_CMD_MAX + 1>;

/// A refusal points to the first tuple that is not held.
Verdict delete_tuples(State& state, const Request& request) {
  Verdict verdict = state.delete_tuples(request.tuples);
  if (verdict) {
    const auto missing =
        std::find_if(request.tuples.begin(), request.tuples.end(),
                     [&](const Tuple& tuple) { return !state.tuples().contains(tuple); });
    const auto position = static_cast<size_t>(missing - request.tuples.begin());
    verdict->offset = request.offsets[TAVIK_WLAN_ATTR_TUPLES] + 2 * NLA_HDRLEN +
                      static_cast<uint32_t>(position * kTupleElement);
  }
  return verdict;
}

constexpr Commands make_commands() {
  Commands commands{};
  const auto define = [&](tavik_wlan_cmd command, const char* name, uint16_t blamed, Apply apply) {
    commands.at(command) = {name, blamed, apply};
  };
  define(TAVIK_WLAN_CMD_ADD_TUPLES, "ADD_TUPLES", TAVIK_WLAN_ATTR_TUPLES,
         [](State& state, const Request& request) { return state.add_tuples(request.tuples); });
  define(TAVIK_WLAN_CMD_DEL_TUPLES, "DEL_TUPLES", 0, delete_tuples);
  define(TAVIK_WLAN_CMD_SET_DEV, "SET_DEV", TAVIK_WLAN_ATTR_DEV,
         [](State& state, const Request& request) {
           return state.set_device(request.selector, request.device);
         });
  define(TAVIK_WLAN_CMD_UNSET_DEV, "UNSET_DEV", TAVIK_WLAN_ATTR_DEV,
         [](State& state, const Request& request) {
           return state.unset_device(request.selector, request.device);
         });
  define(TAVIK_WLAN_CMD_ADD_FWD_INFO, "ADD_FWD_INFO", TAVIK_WLAN_ATTR_FWD_TO,
         [](State& state, const Request& request) {
           return state.add_forwarding(request.forwarding);
         });
  define(TAVIK_WLAN_CMD_DEL_FWD_INFO, "DEL_FWD_INFO", TAVIK_WLAN_ATTR_FWD_TO,
         [](State& state, const Request& request) {
           return state.delete_forwarding(request.forwarding);
         });
  define(TAVIK_WLAN_CMD_SET_ENCAP_PORT, "SET_ENCAP_PORT", TAVIK_WLAN_ATTR_ENCAP_PORT,
         [](State& state, const Request& request) {
           return state.set_encapsulation_port(request.encapsulation_port);
         });
  define(TAVIK_WLAN_CMD_UNSET_ENCAP_PORT, "UNSET_ENCAP_PORT", TAVIK_WLAN_ATTR_ENCAP_PORT,
         [](State& state, const Request& request) {
           return state.unset_encapsulation_port(request.encapsulation_port);
         });
  define(TAVIK_WLAN_CMD_RESET, "RESET", 0,
         [](State& state, const Request&) { return state.reset(); });
  define(TAVIK_WLAN_CMD_ENCAP_PORT_ACT_PASS_THROUGH, "ENCAP_PORT_ACT_PASS_THROUGH",
         TAVIK_WLAN_ATTR_ENCAP_PORT, [](State& state, const Request& request) {
           return state.set_encapsulation_action(request.encapsulation_port,
                                                 EncapsulationAction::kPassThrough);
         });
  define(TAVIK_WLAN_CMD_ENCAP_PORT_ACT_DROP, "ENCAP_PORT_ACT_DROP", TAVIK_WLAN_ATTR_ENCAP_PORT,
         [](State& state, const Request& request) {
           return state.set_encapsulation_action(request.encapsulation_port,
                                                 EncapsulationAction::kDrop);
         });
  define(TAVIK_WLAN_CMD_LL_ADDR_ADD, "LL_ADDR_ADD", TAVIK_WLAN_ATTR_LL_DST_ADDR,
         [](State& state, const Request& request) { return state.add_flow(request.flow); });
  define(TAVIK_WLAN_CMD_LL_ADDR_FLUSH, "LL_ADDR_FLUSH", 0,
         [](State& state, const Request&) { return state.flush_flows(); });
  define(TAVIK_WLAN_CMD_GET_TUPLES, "GET_TUPLES", 0, nullptr);
  return commands;
}

constexpr Commands kCommands = make_commands();

DatapathTuple to_wire(const Tuple& tuple) {
  DatapathTuple wire{};
  wire.ip_proto = tuple.ip_version;
  wire.trans_proto = tuple.trans_proto;
  if (tuple.trans_proto == TAVIK_WLAN_TRANS_PROTO_ESP) {
    wire.key.spi = htonl(tuple.key);
  } else {
    wire.key.port = htons(static_cast<uint16_t>(tuple.key));
  }
  return wire;
}

std::vector<Datagram> dump_tuples(const nlmsghdr& request, const std::set<Tuple>& tuples) {
  std::vector<Datagram> datagrams;
  DatagramWriter writer;
  for (auto tuple = tuples.begin(); tuple != tuples.end();) {
    if (writer.size() > 0) {
      datagrams.push_back(writer.take());
      writer = {};
    }
    writer.begin_message(request, request.nlmsg_type, NLM_F_MULTI);
    writer.append(genlmsghdr{TAVIK_WLAN_CMD_GET_TUPLES, TAVIK_WLAN_FAMILY_VERSION, 0});
    const size_t container = writer.begin_nest(TAVIK_WLAN_ATTR_TUPLES | NLA_F_NESTED);
    for (; tuple != tuples.end() && writer.size() + kTupleElement <= kMaxDumpDatagram; ++tuple) {
      const size_t element = writer.begin_nest(TAVIK_WLAN_TUPLE_ELEMENT | NLA_F_NESTED);
      writer.put(TAVIK_WLAN_TUPLE_ATTR, to_wire(*tuple));
      writer.end_nest(element);
    }
    writer.end_nest(container);
    writer.end_message();
  }
  if (writer.size() + NLMSG_SPACE(sizeof(int)) > kMaxDumpDatagram) {
    datagrams.push_back(writer.take());
    writer = {};
  }
  append_done(writer, request);
  datagrams.push_back(writer.take());
  return datagrams;
}

/// The command and its arguments, such as "ADD_TUPLES ipv4 tcp 443, ipv6 udp 4500".
std::string describe(const Request& request) {
  const CommandPolicy& policy = kCommandPolicies.at(request.command);
  std::string text = kCommands.at(request.command).name;
  const char* separator = " ";
  for (const Tuple& tuple : request.tuples) {
    text += separator + to_text(tuple);
    separator = ", ";
  }
  if (policy.takes(TAVIK_WLAN_ATTR_DEV)) {
    text += ' ' + std::to_string(request.selector) + ' ' + request.device;
  }
  if (policy.takes(TAVIK_WLAN_ATTR_FWD_FROM)) {
    text += ' ' + to_text(request.forwarding);
  }
  if (policy.takes(TAVIK_WLAN_ATTR_ENCAP_PORT)) {
    text += ' ' + std::to_string(request.encapsulation_port);
  }
  if (policy.takes(TAVIK_WLAN_ATTR_LL_SRC_ADDR)) {
    text += ' ' + to_text(request.flow);
  }
  return text;
}

uint32_t operation_flags(const CommandPolicy& policy) {
  // A command without attributes has a policy, too: that there be none.
  return GENL_CMD_CAP_HASPOL |
         (policy.mode == CommandPolicy::Mode::kDump ? GENL_CMD_CAP_DUMP
                                                    : GENL_CMD_CAP_DO | GENL_UNS_ADMIN_PERM);
}

}  // namespace

FamilyDescription describe_family(uint16_t id) {
  FamilyDescription family{.id = id,
                           .name = TAVIK_WLAN_FAMILY_NAME,
                           .version = TAVIK_WLAN_FAMILY_VERSION,
                           .max_attribute = TAVIK_WLAN_ATTR_MAX,
                           .operations = {}};
  for (uint32_t command = 1; command <= TAVIK_WLAN_CMD_MAX; ++command) {
    family.operations.push_back({command, operation_flags(kCommandPolicies.at(command))});
  }
  return family;
}

Outcome handle_family_request(Bytes message, State& state) {
  Request request;
  if (const Verdict verdict = parse_request(message, request)) {
    return {.verdict = verdict};
  }
  Outcome outcome;
  const Command& command = kCommands.at(request.command);
  if (command.apply != nullptr) {
    outcome.verdict = command.apply(state, request);
    if (outcome.verdict && !outcome.verdict->offset) {
      outcome.verdict->offset = request.offsets.at(command.blamed);
    }
  } else {
    outcome.replies = dump_tuples(load<nlmsghdr>(message), state.tuples());
  }
  if (!outcome.verdict) {
    outcome.description = describe(request);
  }
  return outcome;
}

}  // namespace tavik_wlan
