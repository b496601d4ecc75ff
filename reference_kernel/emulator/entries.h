// What the family holds: its kinds of entries and their text.
#ifndef REFERENCE_KERNEL_EMULATOR_ENTRIES_H_
#define REFERENCE_KERNEL_EMULATOR_ENTRIES_H_

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>

namespace tavik_wlan {

// Entries compare in the order in which they are listed. Ports and SPIs are in host byte order.
//
// NOLINTBEGIN(modernize-use-nullptr): the check mistakes what a defaulted operator<=> implies.

struct Tuple {
  uint8_t ip_version;   // 4 or 6
  uint8_t trans_proto;  // TAVIK_WLAN_TRANS_PROTO_*
  uint32_t key;         // the SPI when trans_proto is ESP, otherwise the port

  auto operator<=>(const Tuple&) const = default;
};

struct Forwarding {
  uint8_t selector = 0;
  std::string from;
  std::string to;

  auto operator<=>(const Forwarding&) const = default;
};

struct Address {
  uint8_t ip_version = 4;           // 4 or 6
  std::array<uint8_t, 16> bytes{};  // network byte order; IPv4 has the first four

  auto operator<=>(const Address&) const = default;
};

struct Flow {
  Address source;
  Address destination;
  uint16_t source_port = 0;
  uint16_t destination_port = 0;

  auto operator<=>(const Flow&) const = default;
};

// NOLINTEND(modernize-use-nullptr)

/// The address that a text names to the kernel, which differs from inet_pton() in that it passes
/// over leading zeros; nothing when it names none.
std::optional<Address> parse_address(const std::string& written);

/// "ipv4 tcp 443", "ipv6 esp 0x00001001".
std::string to_text(const Tuple& tuple);

/// "1 wwan0 wlan0": selector, from, to.
std::string to_text(const Forwarding& forwarding);

/// "10.0.0.1 5000 10.0.0.2 5001": source and its port, destination and its port.
std::string to_text(const Flow& flow);

}  // namespace tavik_wlan

#endif  // REFERENCE_KERNEL_EMULATOR_ENTRIES_H_
