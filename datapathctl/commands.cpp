#include "datapathctl/commands.h"

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
  command.add_option("--from", arguments.from, "what is forwarded")->required();
  command.add_option("--to", arguments.to, "where it is forwarded to")->required();
  command.add_option("--selector", arguments.selector, "number sent along, 0 unless given");
}

void define_proxy(CLI::App& command, Session& session, const char* name,
                  LibraryFunction<decltype(corvil_datapath_proxy_set_config_info)> function) {
  auto arguments = std::make_shared<ProxyArguments>();
  command.add_option("DEVICE", arguments->device, "WLAN device")->required();
  add_forwarding(command, *arguments);
  command.add_option("PORT", arguments->ports, "ports: tcp/443, udp6/4500, tcp/1000-1999");
  command.callback([&session, name, function, arguments] {
    const std::vector<PortDescriptor> ports = parse_ports(arguments->ports);
    const uint32_t selector = parse_number(arguments->selector, UINT32_MAX, "selector");
    session.call(name, function, arguments->device.c_str(), arguments->to.c_str(),
                 arguments->from.c_str(), ports.data(), static_cast<uint32_t>(ports.size()),
                 selector);
  });
}

void define_proxy_up(CLI::App& command, Session& session) {
  define_proxy(command, session, "proxy up",
               LIBRARY_FUNCTION(corvil_datapath_proxy_set_config_info));
}

void define_reset(CLI::App& command, Session& session) {
  command.callback([&session] {
    session.call("reset", LIBRARY_FUNCTION(corvil_datapath_proxy_flush_config_info));
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

void define_encap_set(CLI::App& command, Session& session) {
  define_encap(command, session, "encap set",
               LIBRARY_FUNCTION(corvil_datapath_proxy_set_udp_encap_port));
}

void define_encap_unset(CLI::App& command, Session& session) {
  define_encap(command, session, "encap unset",
               LIBRARY_FUNCTION(corvil_datapath_proxy_unset_udp_encap_port));
}

void define_state(CLI::App& command, Session& session) {
  command.callback([&session] {
    std::istringstream state(session.kernel_state());
    if (!session.settings().json) {
      std::cout << state.rdbuf() << std::flush;
      return;
    }
    nlohmann::json lines = nlohmann::json::array();
    for (std::string line; std::getline(state, line);) {
      lines.push_back(line);
    }
    std::cout << nlohmann::json{{"state", lines}}.dump() << std::endl;
  });
}

void define_misbehave(CLI::App& command, Session& session) {
  auto words = std::make_shared<std::vector<std::string>>();
  command.add_option("WORD", *words, kMisbehaviourHelp)->required();
  command.callback([&session, words] { session.misbehave(*words); });
}

/// A command reads "object verb arguments" or, without a verb, "object arguments".
struct Command {
  const char* object;
  const char* verb;  // null: none
  const char* help;
  /// Adds the arguments, and the callback that runs the command.
  void (*define)(CLI::App& command, Session& session);
};

constexpr Command kCommands[] = {
    {"proxy", "up", "add ports and a forwarding pair, then set the WLAN device", define_proxy_up},
    {"encap", "set", "set the UDP encapsulation port", define_encap_set},
    {"encap", "unset", "withdraw the UDP encapsulation port", define_encap_unset},
    {"reset", nullptr, "drop the kernel's whole configuration", define_reset},
    {"state", nullptr, "print what the kernel holds, a line a thing", define_state},
    {"misbehave", nullptr, "have the emulator of --emulate misbehave", define_misbehave},
};

constexpr struct {
  std::string_view object;
  const char* help;
} kObjects[] = {
    {"proxy", "ports, forwarding pair and WLAN device"},
    {"encap", "UDP port of encapsulated IPsec traffic"},
};

const char* object_help(std::string_view object) {
  const auto* known = std::ranges::find(kObjects, object, [](const auto& o) { return o.object; });
  return known != std::end(kObjects) ? known->help : "";
}

/// The object of a command, made at its first verb.
CLI::App& object_of(const Command& command, CLI::App& app) {
  for (CLI::App* object : app.get_subcommands({})) {
    if (object->get_name() == command.object) {
      return *object;
    }
  }
  CLI::App* object = app.add_subcommand(command.object, object_help(command.object));
  object->require_subcommand(1);
  return *object;
}

}  // namespace

void define_commands(CLI::App& app, Session& session) {
  for (const Command& command : kCommands) {
    CLI::App& parent = command.verb != nullptr ? object_of(command, app) : app;
    const char* name = command.verb != nullptr ? command.verb : command.object;
    command.define(*parent.add_subcommand(name, command.help), session);
  }
}

}  // namespace datapathctl
