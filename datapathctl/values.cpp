#include "datapathctl/values.h"

#include <arpa/inet.h>

#include <array>
#include <charconv>

#include "kernel_interface/tavik_wlan.h"

namespace datapathctl {
namespace {

struct Protocol {
  std::string_view name;
  uint32_t ip_proto;
  uint32_t trans_proto;
};

constexpr std::array<Protocol, 4> kProtocols = {{
    {"tcp", TAVIK_WLAN_IP_PROTO_IPV4, TAVIK_WLAN_TRANS_PROTO_TCP},
    {"udp", TAVIK_WLAN_IP_PROTO_IPV4, TAVIK_WLAN_TRANS_PROTO_UDP},
    {"tcp6", TAVIK_WLAN_IP_PROTO_IPV6, TAVIK_WLAN_TRANS_PROTO_TCP},
    {"udp6", TAVIK_WLAN_IP_PROTO_IPV6, TAVIK_WLAN_TRANS_PROTO_UDP},
}};

const Protocol& parse_protocol(std::string_view name, const std::string& whole) {
  for (const Protocol& protocol : kProtocols) {
    if (protocol.name == name) {
      return protocol;
    }
  }
  throw UsageError("bad port '" + whole + "': it reads tcp/443, udp/53, tcp6/443 or udp6/4500");
}

void append_ports(const std::string& text, std::vector<PortDescriptor>* ports) {
  const size_t slash = text.find('/');
  const Protocol& protocol = parse_protocol(text.substr(0, slash), text);
  const std::string range = slash == std::string::npos ? "" : text.substr(slash + 1);
  const size_t dash = range.find('-');
  const uint32_t first = parse_number(range.substr(0, dash), UINT16_MAX, "port in '" + text + "'");
  const uint32_t last = dash == std::string::npos ? first
                                                  : parse_number(range.substr(dash + 1), UINT16_MAX,
                                                                 "port in '" + text + "'");
  if (last < first) {
    throw UsageError("bad port '" + text + "': the range ends before it starts");
  }
  for (uint32_t port = first; port <= last; ++port) {
    ports->push_back({protocol.ip_proto, protocol.trans_proto, static_cast<uint16_t>(port)});
  }
}

}  // namespace

uint32_t parse_number(std::string_view text, uint32_t max, std::string_view what, uint32_t min) {
  std::string_view digits = text;
  int base = 10;
  if (digits.starts_with("0x")) {
    digits.remove_prefix(2);
    base = 16;
  }
  uint32_t value = 0;
  const char* end = digits.data() + digits.size();
  const auto [stop, error] = std::from_chars(digits.data(), end, value, base);
  if (error != std::errc() || stop != end || value < min || value > max) {
    throw UsageError("bad " + std::string(what) + ": '" + std::string(text) +
                     "' is not a number from " + std::to_string(min) + " to " +
                     std::to_string(max));
  }
  return value;
}

uint16_t parse_network_port(std::string_view text) {
  return htons(static_cast<uint16_t>(parse_number(text, UINT16_MAX, "port")));
}

std::vector<std::string> port_protocols() {
  std::vector<std::string> names;
  names.reserve(kProtocols.size());
  for (const Protocol& protocol : kProtocols) {
    names.emplace_back(protocol.name);
  }
  return names;
}

std::string protocol_name(uint8_t ip_proto, uint8_t trans_proto) {
  const std::string transport = trans_proto == TAVIK_WLAN_TRANS_PROTO_TCP   ? "tcp"
                                : trans_proto == TAVIK_WLAN_TRANS_PROTO_UDP ? "udp"
                                                                            : "esp";
  return transport + (ip_proto == TAVIK_WLAN_IP_PROTO_IPV6 ? "6" : "");
}

std::vector<PortDescriptor> parse_ports(const std::vector<std::string>& texts) {
  std::vector<PortDescriptor> ports;
  for (const std::string& text : texts) {
    append_ports(text, &ports);
  }
  return ports;
}

}  // namespace datapathctl
