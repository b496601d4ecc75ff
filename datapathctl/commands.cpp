#include "datapathctl/commands.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdint>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "datapath_proxy/include/corvil_datapath_proxy.h"
#include "datapathctl/misbehaviour.h"
#include "datapathctl/values.h"
#include "reference_host/port_utils/corvil_port_tree.h"

namespace datapathctl {
namespace {

struct ProxyArguments {
  std::string device;
  std::string from;
  std::string to;
  std::string selector = "0";
  std::vector<std::string> ports;
};

void add_forwarding(CLI::App& command, ProxyArguments& arguments) {
  command.add_option("--from", arguments.from, "what is forwarded")->required()->type_name("NAME");
  command.add_option("--to", arguments.to, "where it is forwarded to")
      ->required()
      ->type_name("NAME");
  command.add_option("--selector", arguments.selector, "number sent along, 0 unless given")
      ->type_name("NUMBER");
}

void define_proxy(CLI::App& command, Session& session, const char* name,
                  LibraryFunction<decltype(corvil_datapath_proxy_set_config_info)> function) {
  auto arguments = std::make_shared<ProxyArguments>();
  command.add_option("DEVICE", arguments->device, "WLAN device")->required();
  add_forwarding(command, *arguments);
  command.add_option("PORTS", arguments->ports, "ports: tcp/443, udp6/4500, tcp/1000-1999");
  command.callback([&session, name, function, arguments] {
    const std::vector<PortDescriptor> ports = parse_ports(arguments->ports);
    const uint32_t selector = parse_number(arguments->selector, UINT32_MAX, "selector");
    session.call(name, function, arguments->device.c_str(), arguments->to.c_str(),
                 arguments->from.c_str(), ports.data(), static_cast<uint32_t>(ports.size()),
                 selector);
  });
}

void define_proxy_update(CLI::App& command, Session& session, const char* name) {
  struct Arguments {
    std::vector<std::string> new_ports;
    std::vector<std::string> old_ports;
  };
  auto arguments = std::make_shared<Arguments>();
  command.add_option("--old", arguments->old_ports, "ports to remove")->type_name("PORTS");
  command.add_option("--new", arguments->new_ports, "ports to add")->type_name("PORTS");
  command.callback([&session, name, arguments] {
    const std::vector<PortDescriptor> added = parse_ports(arguments->new_ports);
    const std::vector<PortDescriptor> removed = parse_ports(arguments->old_ports);
    session.call(name, LIBRARY_FUNCTION(corvil_datapath_proxy_update_config_info), added.data(),
                 static_cast<uint32_t>(added.size()), removed.data(),
                 static_cast<uint32_t>(removed.size()));
  });
}

void define_proxy_unmap(CLI::App& command, Session& session, const char* name) {
  auto arguments = std::make_shared<ProxyArguments>();
  add_forwarding(command, *arguments);
  command.callback([&session, name, arguments] {
    session.call(name, LIBRARY_FUNCTION(corvil_datapath_proxy_unset_reverse_dev_mapping),
                 parse_number(arguments->selector, UINT32_MAX, "selector"), arguments->to.c_str(),
                 arguments->from.c_str());
  });
}

void define_ipsec(CLI::App& command, Session& session, const char* name,
                  LibraryFunction<decltype(corvil_datapath_proxy_add_ipsec_info)> function) {
  struct Arguments {
    std::string spi;
    std::string address;
  };
  auto arguments = std::make_shared<Arguments>();
  command.add_option("SPI", arguments->spi, "security parameter index: 0x1001 or decimal")
      ->required();
  command.add_option("ADDRESS", arguments->address, "IP address of the flow; its family counts")
      ->required();
  command.callback([&session, name, function, arguments] {
    const uint32_t spi = parse_number(arguments->spi, UINT32_MAX, "SPI");
    const IpsecInfo info = {{}, htonl(spi)};
    session.call(name, function, &info, arguments->address.c_str());
  });
}

void define_reset(CLI::App& command, Session& session, const char* name) {
  command.callback([&session, name] {
    session.call(name, LIBRARY_FUNCTION(corvil_datapath_proxy_flush_config_info));
  });
}

void define_encap(CLI::App& command, Session& session, const char* name,
                  LibraryFunction<int(uint16_t)> function) {
  auto port = std::make_shared<std::string>();
  command.add_option("PORT", *port, "UDP port")->required();
  command.callback([&session, name, function, port] {
    session.call(name, function, parse_network_port(*port));
  });
}

void define_lowlat_add(CLI::App& command, Session& session, const char* name) {
  struct Arguments {
    std::string source;
    std::string source_port;
    std::string destination;
    std::string destination_port;
  };
  auto arguments = std::make_shared<Arguments>();
  command.add_option("SOURCE", arguments->source, "source address")->required();
  command.add_option("SOURCE_PORT", arguments->source_port, "its port")->required();
  command.add_option("DESTINATION", arguments->destination, "destination address")->required();
  command.add_option("DESTINATION_PORT", arguments->destination_port, "its port")->required();
  command.callback([&session, name, arguments] {
    session.call(name, LIBRARY_FUNCTION(corvil_datapath_proxy_add_ll_dst_addr),
                 arguments->source.c_str(), arguments->destination.c_str(),
                 parse_network_port(arguments->source_port),
                 parse_network_port(arguments->destination_port));
  });
}

void define_lowlat_flush(CLI::App& command, Session& session, const char* name) {
  command.callback([&session, name] {
    session.call(name, LIBRARY_FUNCTION(corvil_datapath_proxy_flush_ll_dst_addr));
  });
}

void print_ports(const std::vector<CorvilPort>& ports, bool json) {
  nlohmann::ordered_json list = nlohmann::json::array();
  std::string text;
  for (const CorvilPort& port : ports) {
    const std::string protocol = protocol_name(port.ip_proto, port.trans_proto);
    list.push_back({{"protocol", protocol}, {"port", port.port}});
    text += protocol + "/" + std::to_string(port.port) + "\n";
  }
  if (json) {
    print_json({{"ports", list}});
  } else {
    std::cout << text << std::flush;
  }
}

void define_ports(CLI::App& command, Session& session, const char* name) {
  command.callback([&session, name] {
    corvil_port_tree_clear();
    session.call(name, LIBRARY_FUNCTION(corvil_datapath_proxy_get_port_tuple));
    std::vector<CorvilPort> ports;
    corvil_port_tree_visit(
        [](const CorvilPort* port, void* list) {
          static_cast<std::vector<CorvilPort>*>(list)->push_back(*port);
        },
        &ports);
    if (!session.settings().dry_run) {
      print_ports(ports, session.settings().json);
    }
  });
}

void define_state(CLI::App& command, Session& session, const char* name) {
  command.callback([&session, name] {
    if (session.settings().dry_run) {
      return;
    }
    nlohmann::json lines = nlohmann::json::array();
    std::string text;
    std::istringstream stream(session.kernel_state(name));
    for (std::string line; std::getline(stream, line);) {
      lines.push_back(line);
      text += printable(line) + "\n";
    }
    if (session.settings().json) {
      print_json({{"state", lines}});
    } else {
      std::cout << text << std::flush;
    }
  });
}

void define_misbehave(CLI::App& command, Session& session, const char* /*name*/) {
  auto words = std::make_shared<std::vector<std::string>>();
  command.add_option("WORD", *words, "words of --misbehave, in place of those before")->required();
  command.callback([&session, words] { session.misbehave(*words); });
}

/// The commands, grouped by object: "object verb" or, without a verb, "object".
constexpr struct Command {
  std::string_view name;  // NUL-terminated
  const char* help;
  /// Adds the arguments, and the callback that runs the command.
  void (*define)(CLI::App& command, Session& session, const char* name);
} kCommands[] = {
    {"proxy up", "add ports and a forwarding pair, then set the WLAN device",
     [](CLI::App& command, Session& session, const char* name) {
       define_proxy(command, session, name,
                    LIBRARY_FUNCTION(corvil_datapath_proxy_set_config_info));
     }},
    {"proxy down", "take it all back; with selector 1, flush low-latency flows too",
     [](CLI::App& command, Session& session, const char* name) {
       define_proxy(command, session, name,
                    LIBRARY_FUNCTION(corvil_datapath_proxy_unset_config_info));
     }},
    {"proxy update", "remove old ports, then add new ones", define_proxy_update},
    {"proxy unmap", "remove one forwarding pair", define_proxy_unmap},
    {"ipsec add", "add the tuple of an IPsec flow",
     [](CLI::App& command, Session& session, const char* name) {
       define_ipsec(command, session, name, LIBRARY_FUNCTION(corvil_datapath_proxy_add_ipsec_info));
     }},
    {"ipsec delete", "delete the tuple of an IPsec flow",
     [](CLI::App& command, Session& session, const char* name) {
       define_ipsec(command, session, name,
                    LIBRARY_FUNCTION(corvil_datapath_proxy_delete_ipsec_info));
     }},
    {"encap set", "set the UDP encapsulation port",
     [](CLI::App& command, Session& session, const char* name) {
       define_encap(command, session, name,
                    LIBRARY_FUNCTION(corvil_datapath_proxy_set_udp_encap_port));
     }},
    {"encap unset", "withdraw the UDP encapsulation port",
     [](CLI::App& command, Session& session, const char* name) {
       define_encap(command, session, name,
                    LIBRARY_FUNCTION(corvil_datapath_proxy_unset_udp_encap_port));
     }},
    {"encap pass-through", "let packets on the port pass through",
     [](CLI::App& command, Session& session, const char* name) {
       define_encap(command, session, name,
                    LIBRARY_FUNCTION(corvil_datapath_proxy_act_encap_port_pass_through));
     }},
    {"encap drop", "drop packets on the port",
     [](CLI::App& command, Session& session, const char* name) {
       define_encap(command, session, name,
                    LIBRARY_FUNCTION(corvil_datapath_proxy_act_encap_port_drop));
     }},
    {"lowlat add", "add a low-latency flow", define_lowlat_add},
    {"lowlat flush", "remove every low-latency flow", define_lowlat_flush},
    {"ports", "list the kernel's tuples as the library reads them back", define_ports},
    {"reset", "drop the kernel's whole configuration", define_reset},
    {"state", "print what the kernel holds, a line a thing", define_state},
    {"misbehave", "have the emulator of --emulate misbehave", define_misbehave},
};

/// What an object's verbs have in common.
constexpr struct {
  std::string_view object;
  const char* help;
} kObjects[] = {
    {"proxy", "ports, forwarding pair and WLAN device"},
    {"ipsec", "tuples of IPsec flows"},
    {"encap", "UDP port of encapsulated IPsec traffic"},
    {"lowlat", "low-latency flows"},
};

/// The object of commands with a verb, made at its first verb.
CLI::App& object_of(std::string_view name, CLI::App& app) {
  for (CLI::App* object : app.get_subcommands({})) {
    if (object->get_name() == name) {
      return *object;
    }
  }
  const auto* known = std::ranges::find(kObjects, name, [](const auto& o) { return o.object; });
  CLI::App* object = app.add_subcommand(std::string(name), known->help);
  object->require_subcommand(1);
  return *object;
}

}  // namespace

void define_commands(CLI::App& app, Session& session) {
  for (const Command& command : kCommands) {
    const size_t blank = command.name.find(' ');
    const bool has_verb = blank != std::string_view::npos;
    CLI::App& parent = has_verb ? object_of(command.name.substr(0, blank), app) : app;
    const std::string_view last = has_verb ? command.name.substr(blank + 1) : command.name;
    command.define(*parent.add_subcommand(std::string(last), command.help), session,
                   command.name.data());
  }
}

}  // namespace datapathctl
