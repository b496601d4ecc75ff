// What can be read back from the kernel.

#include <algorithm>
#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "datapath_proxy/include/corvil_datapath_proxy.h"
#include "datapathctl/message_decoder.h"
#include "datapathctl/operations.h"
#include "kernel_interface/protocol.h"
#include "reference_host/netlink/corvil_netlink_control.h"
#include "reference_host/port_utils/corvil_port_tree.h"

namespace datapathctl {
namespace {

using Json = nlohmann::ordered_json;

/// What the words of a line of a state are, behind its keyword, as far as they are there; a '#' is
/// before those that are numbers.
constexpr struct Line {
  std::string_view keyword;
  const char* members;
} kLines[] = {
    {"tuple", "ip transport value"},
    {"device", "#selector name"},
    {"forward", "#selector from to"},
    {"encap", "#port action"},
    {"lowlat", "source #source_port destination #destination_port"},
};

Json to_json(const std::string& text) {
  std::istringstream words(text);
  std::string keyword;
  words >> keyword;
  const auto* line = std::ranges::find(kLines, keyword, &Line::keyword);
  if (line == std::end(kLines)) {
    return {{"text", text}};
  }
  const auto number = [](const std::string& word) {
    return static_cast<uint32_t>(std::stoul(word, nullptr, 0));
  };
  Json object = Json::object();
  std::istringstream members(line->members);
  for (std::string member, word; members >> member && words >> word;) {
    if (member[0] == '#') {
      object[member.substr(1)] = number(word);
    } else {
      object[member] = word;
    }
  }
  if (keyword == "tuple") {
    const std::string transport = object["transport"];
    object = tuple_as_json(object["ip"] == "ipv6" ? 6 : 4, transport, number(object["value"]));
  }
  return {{keyword, object}};
}

Result to_result(const std::string& state, bool complete) {
  Result result;
  result.members = {{"complete", complete}, {"state", Json::array()}};
  std::istringstream lines(state);
  for (std::string line; std::getline(lines, line);) {
    result.members["state"].push_back(to_json(line));
    result.text += printable(line) + "\n";
  }
  return result;
}

/// Reads what the kernel holds, one line a thing; nothing of a kernel that does not tell.
Result read_state(std::optional<std::string>* state) {
  if (const std::string emulator = corvil_netlink_emulator(); !emulator.empty()) {
    return ask_emulator(emulator, [state](tavik_wlan::ControlClient& client) {
      *state = client.state();
      return Result{};
    });
  }
  if (std::ifstream file("/proc/net/tavik_wlan"); file) {
    state->emplace(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  }
  return {};
}

Result dump_tuples(Session& session) {
  corvil_port_tree_clear();
  return CALL_LIBRARY(session, corvil_datapath_proxy_get_port_tuple);
}

/// Adds a port of the tree. In place of an ESP one come the tuples that the library has recorded as
/// it, by the upper half of their SPIs.
void add_port(const CorvilPort& port, const std::vector<Json>& tuples, Result* result) {
  const std::string transport = tavik_wlan::transport_name(static_cast<uint8_t>(port.trans_proto));
  const std::string name = transport + (port.ip_proto == TAVIK_WLAN_IP_PROTO_IPV6 ? "6" : "");
  const std::string number = std::to_string(port.port);
  Json& list = result->members["ports"];
  if (transport != "esp") {
    list.push_back(tuple_as_json(port.ip_proto, transport, port.port));
    result->text += name + "/" + number + "\n";
    return;
  }
  for (const Json& tuple : tuples) {
    if (tuple["ip"] == port.ip_proto && tuple.contains("spi") &&
        tuple["spi"].get<uint32_t>() >> 16 == port.port) {
      const std::string text = tuple_text(tuple);
      list.push_back(tuple);
      list.back()["tree_port"] = port.port;
      result->text +=
          name + text.substr(text.rfind(' ')) + ", in the tree as port " + number + "\n";
    }
  }
}

}  // namespace

Result run_ports(Session& session, const Command&) {
  Result result = dump_tuples(session);
  if (!result.ok() || session.settings().dry_run) {
    return result;
  }
  std::vector<CorvilPort> ports;
  corvil_port_tree_visit(
      [](const CorvilPort* port, void* context) {
        static_cast<std::vector<CorvilPort>*>(context)->push_back(*port);
      },
      &ports);
  result.members["ports"] = Json::array();
  for (const CorvilPort& port : ports) {
    add_port(port, session.tuples(), &result);
  }
  return result;
}

Result run_state(Session& session, const Command&) {
  std::optional<std::string> state;
  if (Result started = session.start(); !started.ok() || session.settings().dry_run) {
    return started;
  }
  if (Result read = read_state(&state); !read.ok()) {
    return read;
  }
  if (state) {
    return to_result(*state, true);
  }
  if (Result dumped = dump_tuples(session); !dumped.ok()) {
    return dumped;
  }
  std::string tuples;
  for (const Json& tuple : session.tuples()) {
    tuples += "tuple " + tuple_text(tuple) + "\n";
  }
  Result result = to_result(tuples, false);
  result.notes.emplace_back("only the tuples: this kernel lets nothing else be read back");
  return result;
}

}  // namespace datapathctl
