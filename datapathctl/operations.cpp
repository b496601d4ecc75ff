#include "datapathctl/operations.h"

#include <arpa/inet.h>

#include <cstdint>
#include <exception>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "datapath_proxy/include/corvil_datapath_proxy.h"
#include "datapathctl/values.h"
#include "reference_host/port_utils/corvil_port_tree.h"

namespace datapathctl {
namespace {

void add_text(CLI::App& parser, const char* name, std::string& text, const char* help) {
  parser.add_option(name, text, help)->required();
}

void add_forwarding(CLI::App& parser, Command& c) {
  parser.add_option("--from", c.from, "what is forwarded")->required()->type_name("NAME");
  parser.add_option("--to", c.to, "where it is forwarded to")->required()->type_name("NAME");
  add_value(parser, "--selector", c.selector, parse_selector, "number sent along, 0 unless given")
      ->type_name("NUMBER");
}

void add_proxy(CLI::App& parser, Command& c) {
  add_text(parser, "DEVICE", c.device, "WLAN device");
  add_forwarding(parser, c);
  add_value(parser, "PORTS", c.ports, parse_ports, "ports: tcp/443, udp6/4500, tcp/1000-1999");
}

void add_proxy_update(CLI::App& parser, Command& c) {
  add_value(parser, "--old", c.old_ports, parse_ports, "ports to remove")->type_name("PORTS");
  add_value(parser, "--new", c.ports, parse_ports, "ports to add")->type_name("PORTS");
}

void add_ipsec(CLI::App& parser, Command& c) {
  add_value(parser, "SPI", c.ipsec.spi, parse_spi, "security parameter index: 0x1001 or decimal")
      ->required();
  add_text(parser, "ADDRESS", c.address, "IP address of the flow; its family counts");
}

void add_encap(CLI::App& parser, Command& c) {
  add_value(parser, "PORT", c.port, parse_network_port, "UDP port")->required();
}

void add_lowlat(CLI::App& parser, Command& c) {
  add_text(parser, "SOURCE", c.address, "source address");
  add_value(parser, "SOURCE_PORT", c.port, parse_network_port, "its port")->required();
  add_text(parser, "DESTINATION", c.destination, "destination address");
  add_value(parser, "DESTINATION_PORT", c.destination_port, parse_network_port, "its port")
      ->required();
}

void add_faults(CLI::App& parser, Command& c) {
  add_value(parser, "WORD", c.faults, parse_faults, "in place of those before: " + fault_words())
      ->required();
}

/// Prints lines or, as the list of that name, their JSON.
void print_list(const Settings& settings, const char* name, const nlohmann::ordered_json& list,
                const std::string& lines) {
  if (settings.json) {
    print_json({{name, list}});
  } else {
    std::cout << lines << std::flush;
  }
}

Result run_ports(Session& session, const Command& command) {
  corvil_port_tree_clear();
  Result result = session.call<decltype(corvil_datapath_proxy_get_port_tuple)>(
      command.operation->name, "corvil_datapath_proxy_get_port_tuple");
  if (!result.ok() || session.settings().dry_run) {
    return result;
  }
  std::vector<CorvilPort> ports;
  corvil_port_tree_visit(
      [](const CorvilPort* port, void* list) {
        static_cast<std::vector<CorvilPort>*>(list)->push_back(*port);
      },
      &ports);
  nlohmann::ordered_json list = nlohmann::json::array();
  std::string lines;
  for (const CorvilPort& port : ports) {
    const std::string protocol = protocol_name(port.ip_proto, port.trans_proto);
    list.push_back({{"protocol", protocol}, {"port", port.port}});
    lines += protocol + "/" + std::to_string(port.port) + "\n";
  }
  print_list(session.settings(), "ports", list, lines);
  return {};
}

Result run_state(Session& session, const Command& command) {
  if (session.settings().dry_run) {
    return {};
  }
  std::string state;
  if (Result result = session.read_state(command.operation->name, &state); !result.ok()) {
    return result;
  }
  nlohmann::ordered_json list = nlohmann::json::array();
  std::string lines;
  std::istringstream stream(state);
  for (std::string line; std::getline(stream, line);) {
    list.push_back(line);
    lines += printable(line) + "\n";
  }
  print_list(session.settings(), "state", list, lines);
  return {};
}

/// What runs an operation that is one call of the library, with the command as `c`.
#define CALL(function, ...)                                                               \
  [](Session& session, const Command& c) {                                                \
    return session.call<decltype(function)>(c.operation->name, #function, ##__VA_ARGS__); \
  }
#define CALL_PROXY(function)                                                     \
  CALL(function, c.device.c_str(), c.to.c_str(), c.from.c_str(), c.ports.data(), \
       static_cast<uint32_t>(c.ports.size()), c.selector)

constexpr Operation kOperations[] = {
    {"proxy up", "add ports and a forwarding pair, then set the WLAN device", add_proxy,
     CALL_PROXY(corvil_datapath_proxy_set_config_info)},
    {"proxy down", "take it all back; with selector 1, flush low-latency flows too", add_proxy,
     CALL_PROXY(corvil_datapath_proxy_unset_config_info)},
    {"proxy update", "remove old ports, then add new ones", add_proxy_update,
     CALL(corvil_datapath_proxy_update_config_info, c.ports.data(),
          static_cast<uint32_t>(c.ports.size()), c.old_ports.data(),
          static_cast<uint32_t>(c.old_ports.size()))},
    {"proxy unmap", "remove one forwarding pair", add_forwarding,
     CALL(corvil_datapath_proxy_unset_reverse_dev_mapping, c.selector, c.to.c_str(),
          c.from.c_str())},
    {"ipsec add", "add the tuple of an IPsec flow", add_ipsec,
     CALL(corvil_datapath_proxy_add_ipsec_info, &c.ipsec, c.address.c_str())},
    {"ipsec delete", "delete the tuple of an IPsec flow", add_ipsec,
     CALL(corvil_datapath_proxy_delete_ipsec_info, &c.ipsec, c.address.c_str())},
    {"encap set", "set the UDP encapsulation port", add_encap,
     CALL(corvil_datapath_proxy_set_udp_encap_port, c.port)},
    {"encap unset", "withdraw the UDP encapsulation port", add_encap,
     CALL(corvil_datapath_proxy_unset_udp_encap_port, c.port)},
    {"encap pass-through", "let packets on the port pass through", add_encap,
     CALL(corvil_datapath_proxy_act_encap_port_pass_through, c.port)},
    {"encap drop", "drop packets on the port", add_encap,
     CALL(corvil_datapath_proxy_act_encap_port_drop, c.port)},
    {"lowlat add", "add a low-latency flow", add_lowlat,
     CALL(corvil_datapath_proxy_add_ll_dst_addr, c.address.c_str(), c.destination.c_str(), c.port,
          c.destination_port)},
    {"lowlat flush", "remove every low-latency flow", nullptr,
     CALL(corvil_datapath_proxy_flush_ll_dst_addr)},
    {"ports", "list the kernel's tuples as the library reads them back", nullptr, run_ports},
    {"reset", "drop the kernel's whole configuration", nullptr,
     CALL(corvil_datapath_proxy_flush_config_info)},
    {"state", "print what the kernel holds, a line a thing", nullptr, run_state},
    {"misbehave", "have the emulator of --emulate misbehave", add_faults,
     [](Session& session, const Command& c) { return session.inject(c.faults); }},
    {"batch", "run the commands of a file, one a line",
     [](CLI::App& parser, Command& c) {
       add_text(parser, "FILE", c.path, "the file; -: standard input");
     },
     [](Session& session, const Command& c) { return run_batch(session, c.path); }, false},
    {"emulator", "serve an emulated kernel until SIGINT or SIGTERM",
     [](CLI::App& parser, Command& c) {
       add_text(parser, "PATH", c.path, "the socket to serve at");
     },
     [](Session& session, const Command& c) {
       return serve_emulator(c.path, session.settings().faults.value_or(Faults{}));
     },
     false},
};

}  // namespace

std::span<const Operation> operations() { return kOperations; }

Result run(Session& session, const Command& command) {
  if (command.operation == nullptr) {
    std::cout << command.text;
    return {};
  }
  try {
    return command.operation->run(session, command);
  } catch (const std::exception& error) {
    return failure(error.what());
  }
}

}  // namespace datapathctl
