// IP addresses, which the kernel reads and writes in its own way.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>

#include "kernel_interface/tavik_wlan.h"

namespace tavik_wlan {

struct Address {
  uint8_t ip_proto = TAVIK_WLAN_IP_PROTO_IPV4;
  std::array<uint8_t, 16> bytes{};  // network byte order; IPv4 has the first four

  // NOLINTNEXTLINE(modernize-use-nullptr): the check mistakes what this implies.
  auto operator<=>(const Address&) const = default;
};

/// The address that a text names to the kernel, which differs from inet_pton() in that it passes
/// over leading zeros; nothing when it names none.
std::optional<Address> parse_address(const std::string& written);

/// As the kernel writes it. That differs from inet_ntop() in when the last four bytes of an IPv6
/// address are written as those of an IPv4 address: in a tunnel's address (ISATAP) they are, but
/// not after twelve bytes of zeros.
std::string to_text(const Address& address);

}  // namespace tavik_wlan
