// The family TAVIK_WLAN: what it holds, and how it answers.
#pragma once

#include <arpa/inet.h>

#include <array>
#include <compare>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <tuple>

#include "kernel_interface/tavik_wlan.h"
#include "reference_kernel/emulator/netlink.h"

namespace tavik_wlan {

// Entries compare in the order in which they are listed. Ports of all but tuples are in host byte
// order.
//
// NOLINTBEGIN(modernize-use-nullptr): the check mistakes what a defaulted operator<=> implies.

/// Orders by IP version, transport protocol, and port or SPI.
struct TupleOrder {
  static auto key(const DatapathTuple& tuple) {
    return std::tuple(tuple.ip_proto, tuple.trans_proto, ntohl(tuple.key.spi));
  }
  bool operator()(const DatapathTuple& a, const DatapathTuple& b) const { return key(a) < key(b); }
};

using TupleSet = std::set<DatapathTuple, TupleOrder>;

struct Forwarding {
  uint8_t selector;
  std::string from;
  std::string to;

  auto operator<=>(const Forwarding&) const = default;
};

/// The port of encapsulated IPsec traffic, and what happens to its packets.
struct Encapsulation {
  uint16_t port;
  const char* action;  // " pass-through", " drop", or "" where neither was chosen
};

/// An IP address. A kernel reads and writes some in other ways than the C library does: it passes
/// over leading zeros, say.
struct Address {
  uint8_t ip_proto = TAVIK_WLAN_IP_PROTO_IPV4;
  std::array<uint8_t, 16> bytes{};  // network byte order; IPv4 has the first four

  /// Nothing when the text names none.
  static std::optional<Address> parse(const std::string& text);
  [[nodiscard]] std::string text() const;

  auto operator<=>(const Address&) const = default;
};

/// A low-latency flow.
struct Flow {
  Address source;
  Address destination;
  uint16_t source_port;
  uint16_t destination_port;

  auto operator<=>(const Flow&) const = default;
};

// NOLINTEND(modernize-use-nullptr)

struct State {
  TupleSet tuples{};
  std::map<uint8_t, std::string> devices{};  // by selector
  std::set<Forwarding> forwardings{};
  std::optional<Encapsulation> encapsulation{};
  std::set<Flow> flows{};

  /// One line for each thing held, in this order; ports and SPIs in host byte order:
  ///
  ///     tuple ipv4 tcp 443
  ///     tuple ipv4 esp 0x00001001
  ///     device 1 wlan0                       selector, device
  ///     forward 1 wwan0 wlan0                selector, from, to
  ///     encap 4500                           then " pass-through" or " drop" where chosen
  ///     lowlat 10.0.0.1 5000 10.0.0.2 5001   source and its port, destination and its port
  ///
  /// Tuples are sorted by IP version, transport protocol number and port or SPI, devices and
  /// forwardings by selector and names, flows by IP version, source, destination and their ports.
  [[nodiscard]] std::string text() const;
};

/// Handles a message to the family: the nlmsghdr and what follows. One that fails leaves `state` as
/// it is.
Outcome handle_family_request(Bytes message, State& state);

}  // namespace tavik_wlan
