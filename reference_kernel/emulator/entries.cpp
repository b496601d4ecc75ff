#include "reference_kernel/emulator/entries.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <cstdio>

#include "kernel_interface/tavik_wlan.h"

namespace tavik_wlan {
namespace {

std::string to_text(const Address& address) {
  std::array<char, INET6_ADDRSTRLEN> text{};
  inet_ntop(address.ip_version == 4 ? AF_INET : AF_INET6, address.bytes.data(), text.data(),
            text.size());
  return text.data();
}

}  // namespace

std::optional<Address> parse_address(const std::string& text) {
  Address address;
  if (inet_pton(AF_INET, text.c_str(), address.bytes.data()) == 1) {
    return address;
  }
  address = {.ip_version = 6, .bytes = {}};
  if (inet_pton(AF_INET6, text.c_str(), address.bytes.data()) == 1) {
    return address;
  }
  return std::nullopt;
}

std::string to_text(const Tuple& tuple) {
  const std::string version = tuple.ip_version == TAVIK_WLAN_IP_PROTO_IPV4 ? "ipv4 " : "ipv6 ";
  if (tuple.trans_proto == TAVIK_WLAN_TRANS_PROTO_ESP) {
    std::array<char, sizeof("0x00000000")> spi{};
    snprintf(spi.data(), spi.size(), "0x%08x", tuple.key);
    return version + "esp " + spi.data();
  }
  const char* protocol = tuple.trans_proto == TAVIK_WLAN_TRANS_PROTO_TCP ? "tcp " : "udp ";
  return version + protocol + std::to_string(tuple.key);
}

std::string to_text(const Forwarding& forwarding) {
  return std::to_string(forwarding.selector) + ' ' + forwarding.from + ' ' + forwarding.to;
}

std::string to_text(const Flow& flow) {
  return to_text(flow.source) + ' ' + std::to_string(flow.source_port) + ' ' +
         to_text(flow.destination) + ' ' + std::to_string(flow.destination_port);
}

}  // namespace tavik_wlan
