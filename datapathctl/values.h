// Ports and numbers as a person writes them.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "datapathctl/command.h"

namespace datapathctl {

// What can't be parsed is thrown as a CLI::ValidationError, one line for the user.

/// A number from min to max, decimal or, after "0x", hexadecimal. `what` names it in the error.
uint32_t parse_number(std::string_view text, uint32_t max, std::string_view what, uint32_t min = 0);

/// How long the kernel may take, in milliseconds.
int parse_timeout(const std::string& text);

uint32_t parse_selector(const std::string& text);

/// A security parameter index; the result is in network byte order, as the library takes it.
uint32_t parse_spi(const std::string& text);

/// A UDP or TCP port number; the result is in network byte order, as the library takes it.
uint16_t parse_network_port(const std::string& text);

/// Ports of the form tcp/443, udp6/4500 or tcp/1000-1999, in the order given; no more of them than
/// the library takes at once.
PortList parse_ports(const std::vector<std::string>& texts);

/// Why a text is no IP address; empty where it is one.
std::string not_an_address(const std::string& text);

/// "tcp", "udp6", "esp" and so on, by a tuple's IP version and IANA protocol number.
std::string protocol_name(uint32_t ip_proto, uint32_t trans_proto);

/// A tuple as every JSON output writes it: {"ip":4,"transport":"tcp","port":443}, or with the whole
/// SPI {"ip":6,"transport":"esp","spi":4097}. The value is in host byte order.
nlohmann::ordered_json tuple_as_json(unsigned ip, std::string_view transport, uint32_t value);

/// Has a parser convert the text, or the texts, of an option or argument to a value.
template <typename Parser, typename Text, typename Value>
auto* add_value(Parser& parser, const char* name, Value& value, Value (*convert)(const Text&),
                const std::string& help) {
  return parser.template add_option_function<Text>(
      name, [&value, convert](const Text& text) { value = convert(text); }, help);
}

}  // namespace datapathctl
