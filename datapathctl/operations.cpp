#include "datapathctl/operations.h"

#include <arpa/inet.h>

#include <string>

#include "datapath_proxy/include/corvil_datapath_proxy.h"
#include "datapathctl/values.h"

namespace datapathctl {
namespace {

CLI::Option* add_text(CLI::App& parser, const char* name, std::string& text, const char* help) {
  return parser.add_option(name, text, help)->required();
}

void add_forwarding(CLI::App& parser, Command& c) {
  add_text(parser, "--from", c.from, "what is forwarded")->type_name("NAME");
  add_text(parser, "--to", c.to, "where it is forwarded to")->type_name("NAME");
  add_number(parser, "--selector", c.selector, "selector", "number sent along, 0 unless given")
      ->type_name("NUMBER");
  add_value(parser, "PORTS", c.ports, parse_ports, "ports: tcp/443, udp6/4500, tcp/1000-1999");
}

void add_proxy(CLI::App& parser, Command& c) {
  add_text(parser, "DEVICE", c.device, "WLAN device");
  add_forwarding(parser, c);
}

void add_proxy_down(CLI::App& parser, Command& c) {
  add_proxy(parser, c);
  parser.add_flag("--force", c.force, "go on where something is not there");
}

void add_proxy_update(CLI::App& parser, Command& c) {
  add_value(parser, "--old", c.old_ports, parse_ports, "ports to remove")->type_name("PORTS");
  add_value(parser, "--new", c.ports, parse_ports, "ports to add")->type_name("PORTS");
  parser.callback([&c] {
    if (c.old_ports.size() + c.ports.size() == 0) {
      throw CLI::ValidationError("no ports: it takes --old, --new or both");
    }
  });
}

void add_ipsec(CLI::App& parser, Command& c) {
  add_number(parser, "SPI", c.ipsec.spi, "SPI", "security parameter index: 0x1001 or decimal")
      ->required();
  parser.callback([&c] { c.ipsec.spi = htonl(c.ipsec.spi); });
  add_text(parser, "ADDRESS", c.address, "IP address of the flow; its family counts")
      ->check(not_an_address);
}

void add_encap(CLI::App& parser, Command& c) {
  add_number(parser, "PORT", c.port, "port", "UDP port")->required();
}

void add_lowlat(CLI::App& parser, Command& c) {
  add_text(parser, "SOURCE", c.address, "source address");
  add_number(parser, "SOURCE_PORT", c.port, "port", "its port")->required();
  add_text(parser, "DESTINATION", c.destination, "destination address");
  add_number(parser, "DESTINATION_PORT", c.destination_port, "port", "its port")->required();
}

void add_faults(CLI::App& parser, Command& c) {
  add_value(parser, "WORD", c.faults, parse_faults,
            "in place of those before: " + tavik_wlan::fault_words())
      ->required();
}

void add_batch(CLI::App& parser, Command& c) {
  add_text(parser, "FILE", c.path, "the file; -: standard input");
  parser.add_flag("--force", c.force, "go on after a line that fails");
}

void add_emulator(CLI::App& parser, Command& c) {
  add_text(parser, "PATH", c.path, "the socket to serve at");
}

void add_decode(CLI::App& parser, Command& c) {
  add_text(parser, "FILE", c.path, "the file; -: standard input");
}

Result run_version(Session&, const Command&) {
  return {.text = "datapathctl " CORVIL_VERSION "\n", .members = {{"version", CORVIL_VERSION}}};
}

Result run_help(Session&, const Command& c) {
  return {.text = c.text, .members = {{"help", c.text}}};
}

/// What runs an operation that is one call of the library, with the command as `c`.
#define RUN(function, ...)                                  \
  [](Session& session, [[maybe_unused]] const Command& c) { \
    return CALL_LIBRARY(session, function, ##__VA_ARGS__);  \
  }

constexpr Operation kOperations[] = {
    {"proxy up", "add ports and a forwarding pair, then set the WLAN device", add_proxy,
     run_proxy_up},
    {"proxy down", "take it all back; with selector 1, flush low-latency flows too", add_proxy_down,
     run_proxy_down},
    {"proxy update", "remove old ports, then add new ones", add_proxy_update, run_proxy_update},
    {"proxy unmap", "remove ports and one forwarding pair", add_forwarding, run_proxy_unmap},
    {"ipsec add", "add the tuple of an IPsec flow", add_ipsec,
     RUN(corvil_datapath_proxy_add_ipsec_info, &c.ipsec, c.address.c_str())},
    {"ipsec delete", "delete the tuple of an IPsec flow", add_ipsec,
     RUN(corvil_datapath_proxy_delete_ipsec_info, &c.ipsec, c.address.c_str())},
    {"encap set", "set the UDP encapsulation port", add_encap,
     RUN(corvil_datapath_proxy_set_udp_encap_port, htons(c.port))},
    {"encap unset", "withdraw the UDP encapsulation port", add_encap,
     RUN(corvil_datapath_proxy_unset_udp_encap_port, htons(c.port))},
    {"encap pass-through", "let packets on the port pass through", add_encap,
     RUN(corvil_datapath_proxy_act_encap_port_pass_through, htons(c.port))},
    {"encap drop", "drop packets on the port", add_encap,
     RUN(corvil_datapath_proxy_act_encap_port_drop, htons(c.port))},
    {"lowlat add", "add a low-latency flow", add_lowlat,
     RUN(corvil_datapath_proxy_add_ll_dst_addr, c.address.c_str(), c.destination.c_str(),
         htons(c.port), htons(c.destination_port))},
    {"lowlat flush", "remove every low-latency flow", nullptr,
     RUN(corvil_datapath_proxy_flush_ll_dst_addr)},
    {"ports", "list the tuples as the library reads them back", nullptr, run_ports},
    {"reset", "drop the kernel's whole configuration", nullptr,
     RUN(corvil_datapath_proxy_flush_config_info)},
    {"state", "print what the kernel holds, a line a thing", nullptr, run_state},
    {"misbehave", "have the emulator of --emulate or --socket misbehave", add_faults,
     [](Session& session, const Command& c) { return session.inject(c.faults); }},
    {"batch", "run the commands of a file, one a line", add_batch, run_batch, true},
    {"emulator", "serve an emulated kernel until SIGINT or SIGTERM", add_emulator, run_emulator,
     true},
    {"monitor", "show what others say to the family and hear", nullptr, run_monitor, true},
    {"decode", "show the messages of a capture or of hexadecimal bytes", add_decode, run_decode,
     true},
    {"version", "print the version", nullptr, run_version},
    {"help", "print the help on everything", nullptr, run_help},
};

}  // namespace

std::span<const Operation> operations() { return kOperations; }

}  // namespace datapathctl
