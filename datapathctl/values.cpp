#include "datapathctl/values.h"

#include <arpa/inet.h>

#include <charconv>
#include <stdexcept>

#include "kernel_interface/tavik_wlan.h"
#include "reference_kernel/emulator/faults.h"

namespace datapathctl {
namespace {

constexpr struct {
  std::string_view name;
  PortDescriptor descriptor;
} kProtocols[] = {
    {"tcp", {TAVIK_WLAN_IP_PROTO_IPV4, TAVIK_WLAN_TRANS_PROTO_TCP, 0}},
    {"udp", {TAVIK_WLAN_IP_PROTO_IPV4, TAVIK_WLAN_TRANS_PROTO_UDP, 0}},
    {"tcp6", {TAVIK_WLAN_IP_PROTO_IPV6, TAVIK_WLAN_TRANS_PROTO_TCP, 0}},
    {"udp6", {TAVIK_WLAN_IP_PROTO_IPV6, TAVIK_WLAN_TRANS_PROTO_UDP, 0}},
};

PortDescriptor parse_protocol(std::string_view name, const std::string& whole) {
  for (const auto& protocol : kProtocols) {
    if (protocol.name == name) {
      return protocol.descriptor;
    }
  }
  throw CLI::ValidationError("bad port '" + whole +
                             "': it reads tcp/443, udp/53, tcp6/443 or udp6/4500");
}

void append_ports(const std::string& text, std::vector<PortDescriptor>* ports) {
  const size_t slash = text.find('/');
  PortDescriptor descriptor = parse_protocol(text.substr(0, slash), text);
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

}  // namespace

uint32_t parse_number(std::string_view text, uint32_t max, std::string_view what, uint32_t min) {
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

Faults parse_faults(const std::vector<std::string>& words) {
  Faults faults = CLI::detail::join(words, " ");
  try {
    tavik_wlan::parse_faults(faults);
  } catch (const std::invalid_argument& error) {
    throw CLI::ValidationError(error.what());
  }
  return faults;
}

std::string not_an_address(const std::string& text) {
  in6_addr address{};
  return inet_pton(AF_INET, text.c_str(), &address) == 1 ||
                 inet_pton(AF_INET6, text.c_str(), &address) == 1
             ? ""
             : "'" + text + "' is no IP address";
}

}  // namespace datapathctl
