// Ports and numbers as a person writes them.
#pragma once

#include <CLI/App.hpp>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

#include "datapathctl/command.h"

namespace datapathctl {

// What can't be parsed is thrown as a CLI::ValidationError, one line for the user.

/// A number from min to max, decimal or, after "0x", hexadecimal. `what` names it in the error.
uint32_t parse_number(std::string_view text, uint32_t max, std::string_view what, uint32_t min = 0);

/// Ports of the form tcp/443, udp6/4500 or tcp/1000-1999, in the order given; no more of them than
/// the library takes at once.
PortList parse_ports(const std::vector<std::string>& texts);

/// Why a text is no IP address; empty where it is one.
std::string not_an_address(const std::string& text);

/// "tcp", "udp6", "esp" and so on, by a tuple's IP version and IANA protocol number.
std::string protocol_name(uint32_t ip_proto, uint32_t trans_proto);

/// Words for an emulator's fault injection, which are sure to name faults.
Faults parse_faults(const std::vector<std::string>& words);

/// Has a parser convert the texts of an option or argument to a value.
template <typename Variable, typename Value>
CLI::Option* add_value(CLI::App& parser, const char* name, Variable& value,
                       Value (*convert)(const std::vector<std::string>&), const std::string& help) {
  return parser.add_option_function<std::vector<std::string>>(
      name, [&value, convert](const std::vector<std::string>& texts) { value = convert(texts); },
      help);
}

/// Has a parser take a number up to `max` for an option or argument; `what` names it in errors.
template <typename Number>
CLI::Option* add_number(CLI::App& parser, const char* name, Number& number, const char* what,
                        const char* help, uint32_t max = std::numeric_limits<Number>::max(),
                        uint32_t min = 0) {
  return parser.add_option_function<std::string>(
      name,
      [&number, what, max, min](const std::string& text) {
        number = static_cast<Number>(parse_number(text, max, what, min));
      },
      help);
}

}  // namespace datapathctl
