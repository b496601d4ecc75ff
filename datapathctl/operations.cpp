#include "datapathctl/operations.h"

#include <arpa/inet.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <iterator>
#include <limits>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "datapath_proxy/include/corvil_datapath_proxy.h"
#include "kernel_interface/tavik_wlan.h"
#include "reference_host/netlink/corvil_netlink_control.h"
#include "reference_kernel/emulator/faults.h"

namespace datapathctl {
namespace {

// What can't be parsed is thrown as a CLI::ValidationError, one line for the user.

/// A number from min to max, decimal or, after "0x", hexadecimal. `what` names it in the error.
uint32_t parse_number(std::string_view text, uint32_t max, std::string_view what,
                      uint32_t min = 0) {
  const bool is_hexadecimal = text.starts_with("0x");
  const std::string_view digits = text.substr(is_hexadecimal ? 2 : 0);
  uint32_t value = 0;
  const char* end = digits.data() + digits.size();
  const auto [stop, error] = std::from_chars(digits.data(), end, value, is_hexadecimal ? 16 : 10);
  if (error != std::errc() || stop != end || value < min || value > max) {
    throw CLI::ValidationError("bad " + std::string(what) + ": '" + std::string(text) +
                               "' is not a number from " + std::to_string(min) + " to " +
                               std::to_string(max));
  }
  return value;
}

constexpr struct Protocol {
  std::string_view name;
  PortDescriptor descriptor;
} kProtocols[] = {
    {"tcp", {TAVIK_WLAN_IP_PROTO_IPV4, TAVIK_WLAN_TRANS_PROTO_TCP, 0}},
    {"udp", {TAVIK_WLAN_IP_PROTO_IPV4, TAVIK_WLAN_TRANS_PROTO_UDP, 0}},
    {"tcp6", {TAVIK_WLAN_IP_PROTO_IPV6, TAVIK_WLAN_TRANS_PROTO_TCP, 0}},
    {"udp6", {TAVIK_WLAN_IP_PROTO_IPV6, TAVIK_WLAN_TRANS_PROTO_UDP, 0}},
};

void append_ports(const std::string& text, std::vector<PortDescriptor>* ports) {
  const size_t slash = text.find('/');
  const auto* protocol = std::ranges::find(kProtocols, text.substr(0, slash), &Protocol::name);
  if (protocol == std::end(kProtocols)) {
    throw CLI::ValidationError("bad port '" + text +
                               "': it reads tcp/443, udp/53, tcp6/443 or udp6/4500");
  }
  PortDescriptor descriptor = protocol->descriptor;
  const std::string range = slash == std::string::npos ? "" : text.substr(slash + 1);
  const size_t dash = range.find('-', 1);  // The first character can only be a sign.
  const std::string what = "port in '" + text + "'";
  const uint32_t first = parse_number(range.substr(0, dash), UINT16_MAX, what);
  const uint32_t last =
      dash == std::string::npos ? first : parse_number(range.substr(dash + 1), UINT16_MAX, what);
  if (last < first) {
    throw CLI::ValidationError("bad port '" + text + "': the range ends before it starts");
  }
  for (uint32_t port = first; port <= last; ++port) {
    descriptor.port = static_cast<uint16_t>(port);
    ports->push_back(descriptor);
  }
}

/// Ports of the form tcp/443, udp6/4500 or tcp/1000-1999, in the order given; no more of them than
/// the library takes at once.
PortList parse_ports(const std::vector<std::string>& texts) {
  PortList list{.words = texts};
  for (const std::string& text : texts) {
    append_ports(text, &list.ports);
    if (list.size() > CORVIL_DATAPATH_PROXY_MAX_PORTS) {
      throw CLI::ValidationError("too many ports: a list holds at most " +
                                 std::to_string(CORVIL_DATAPATH_PROXY_MAX_PORTS));
    }
  }
  return list;
}

/// Why a word names no fault of an emulator; empty where it does.
std::string not_a_fault(const std::string& word) {
  try {
    tavik_wlan::parse_faults(word);
    return "";
  } catch (const std::invalid_argument& error) {
    return error.what();
  }
}

/// Why a text is no IP address; empty where it is one.
std::string not_an_address(const std::string& text) {
  in6_addr address{};
  return inet_pton(AF_INET, text.c_str(), &address) == 1 ||
                 inet_pton(AF_INET6, text.c_str(), &address) == 1
             ? ""
             : "'" + text + "' is no IP address";
}

/// Why a path can't be one; empty for others. The settings know an empty one as none at all.
std::string empty_path(const std::string& path) { return path.empty() ? "the path is empty" : ""; }

/// The number of a Trace.
std::string parse_trace(const std::string& word) {
  if (word == "true" || word == "compact" || word == "full") {
    return std::to_string(static_cast<int>(word == "full" ? Trace::kFull : Trace::kCompact));
  }
  throw CLI::ValidationError("'" + word + "' is neither compact nor full");
}

CLI::Option* add_ports(CLI::App& parser, const char* name, PortList& ports, const char* help) {
  return parser.add_option_function<std::vector<std::string>>(
      name, [&ports](const std::vector<std::string>& texts) { ports = parse_ports(texts); }, help);
}

CLI::Option* add_words(CLI::App& parser, const char* name, std::string& faults,
                       const std::string& help) {
  return parser.add_option(name, faults, help)->type_name("WORD")->join()->check(not_a_fault);
}

/// Has a parser take a number up to `max` for an option or argument.
template <typename Number>
CLI::Option* add_number(CLI::App& parser, const char* name, Number& number, const char* help,
                        uint32_t max = std::numeric_limits<Number>::max(), uint32_t min = 0) {
  return parser.add_option_function<std::string>(
      name,
      [&number, name, max, min](const std::string& text) {
        number = static_cast<Number>(parse_number(text, max, name, min));
      },
      help);
}

CLI::Option* add_text(CLI::App& parser, const char* name, std::string& text, const char* help) {
  return parser.add_option(name, text, help)->required();
}

void add_forwarding(CLI::App& parser, Command& c) {
  add_text(parser, "--from", c.from, "what is forwarded")->type_name("NAME");
  add_text(parser, "--to", c.to, "where it is forwarded to")->type_name("NAME");
  add_number(parser, "--selector", c.selector, "number sent along, 0 unless given")
      ->type_name("NUMBER");
  add_ports(parser, "PORTS", c.ports, "ports: tcp/443, udp6/4500, tcp/1000-1999");
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
  add_ports(parser, "--old", c.old_ports, "ports to remove")->type_name("PORTS");
  add_ports(parser, "--new", c.ports, "ports to add")->type_name("PORTS");
  parser.callback([&c] {
    if (c.old_ports.size() + c.ports.size() == 0) {
      throw CLI::ValidationError("no ports: it takes --old, --new or both");
    }
  });
}

void add_ipsec(CLI::App& parser, Command& c) {
  add_number(parser, "SPI", c.ipsec.spi, "security parameter index: 0x1001 or decimal")->required();
  parser.callback([&c] { c.ipsec.spi = htonl(c.ipsec.spi); });
  add_text(parser, "ADDRESS", c.address, "IP address of the flow; its family counts")
      ->check(not_an_address);
}

void add_encap(CLI::App& parser, Command& c) {
  add_number(parser, "PORT", c.port, "UDP port")->required();
}

void add_lowlat(CLI::App& parser, Command& c) {
  add_text(parser, "SOURCE", c.address, "source address");
  add_number(parser, "SOURCE_PORT", c.port, "its port")->required();
  add_text(parser, "DESTINATION", c.destination, "destination address");
  add_number(parser, "DESTINATION_PORT", c.destination_port, "its port")->required();
}

void add_faults(CLI::App& parser, Command& c) {
  add_words(parser, "WORD", c.faults, "in place of those before: " + tavik_wlan::fault_words())
      ->required()
      ->expected(1, -1)
      ->allow_extra_args();
}

void add_file(CLI::App& parser, Command& c) {
  add_text(parser, "FILE", c.path, "the file; -: standard input");
}

void add_batch(CLI::App& parser, Command& c) {
  add_file(parser, c);
  parser.add_flag("--force", c.force, "go on after a line that fails");
}

void add_emulator(CLI::App& parser, Command& c) {
  add_text(parser, "PATH", c.path, "the socket to serve at");
}

Result run_version(Session&, const Command&) {
  return {.text = "datapathctl " CORVIL_VERSION "\n", .members = {{"version", CORVIL_VERSION}}};
}

Result run_help(Session&, const Command& c) {
  return {.text = c.text, .members = {{"help", c.text}}};
}

Result run_misbehave(Session& session, const Command& c) {
  if (Result started = session.start(); !started.ok() || session.settings().dry_run) {
    return started;
  }
  const std::string emulator = corvil_netlink_emulator();
  if (emulator.empty()) {
    return usage_error("only an emulator can be told to misbehave");
  }
  return ask_emulator(emulator, [&c](tavik_wlan::ControlClient& client) {
    client.set_faults(c.faults);
    return Result{};
  });
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
     run_misbehave},
    {"batch", "run the commands of a file, one a line", add_batch, run_batch, true},
    {"emulator", "serve an emulated kernel until SIGINT or SIGTERM", add_emulator, run_emulator,
     true},
    {"monitor", "show what others say to the family and hear", nullptr, run_monitor, true},
    {"decode", "show the messages of a capture or of hexadecimal bytes", add_file, run_decode,
     true},
    {"version", "print the version", nullptr, run_version},
    {"help", "print the help on everything", nullptr, run_help},
};

}  // namespace

void add_options(CLI::App& app, Settings& settings) {
  const auto add_path = [&app](const char* name, std::string& path, const char* help) {
    return app.add_option(name, path, help)->type_name("PATH")->check(empty_path);
  };
  add_path("--library", settings.library, "load this library, not the one beside this program");
  app.add_flag("--emulate", settings.emulate, "run an emulated kernel inside");
  add_path("--socket", settings.socket, "talk to the emulator that serves there");
  add_words(app, "--misbehave", settings.faults, "have the emulated kernel misbehave, repeatable");
  add_number(app, "--timeout", settings.timeout_ms, "how long the kernel may take to answer",
             3600000, 1)
      ->type_name("MS");
  app.add_flag("--trace", settings.trace, "print every netlink message; =full: all of it")
      ->transform(parse_trace);
  app.add_flag("--time", settings.time, "print the time of each message");
  app.add_flag("--dry-run", settings.dry_run, "print the requests, and send nothing");
  app.add_flag("--hex", settings.hex, "print the bytes of each message");
  add_path("--pcap", settings.pcap, "capture every message; -: on standard output")
      ->type_name("FILE");
  app.add_flag("-j,--json", settings.json, "print results, state and messages as JSON");
  add_path("--log-file", settings.log_file, "append the library's log there; -: print it");
  app.add_flag("--log-diag", settings.log_diagnostic, "print the diagnostic sink on stderr");
  app.add_flag("--log-android", settings.log_android, "switch the Android log on");
}

std::span<const Operation> operations() { return kOperations; }

}  // namespace datapathctl
