// What the family holds, and the rules by which it changes.
#ifndef REFERENCE_KERNEL_EMULATOR_STATE_H_
#define REFERENCE_KERNEL_EMULATOR_STATE_H_

#include <arpa/inet.h>

#include <compare>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "kernel_interface/tavik_wlan.h"
#include "reference_kernel/emulator/address.h"
#include "reference_kernel/emulator/status.h"

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

using Tuples = std::vector<DatapathTuple>;
using TupleSet = std::set<DatapathTuple, TupleOrder>;

struct Device {
  uint8_t selector = 0;
  std::string name;
};

struct Forwarding {
  uint8_t selector = 0;
  std::string from;
  std::string to;

  auto operator<=>(const Forwarding&) const = default;
};

/// The port of encapsulated IPsec traffic, and what happens to its packets.
struct Encapsulation {
  uint16_t port = 0;
  const char* action = "";  // " pass-through" or " drop" where one was chosen
};

/// A low-latency flow.
struct Flow {
  Address source;
  Address destination;
  uint16_t source_port = 0;
  uint16_t destination_port = 0;

  auto operator<=>(const Flow&) const = default;
};

// NOLINTEND(modernize-use-nullptr)

std::string to_text(const Tuples& tuples);                // "ipv4 tcp 443, ipv6 udp 4500"
std::string to_text(const Device& device);                // "1 wlan0"
std::string to_text(const Forwarding& forwarding);        // "1 wwan0 wlan0": selector, from, to
std::string to_text(const Encapsulation& encapsulation);  // "4500", "4500 drop"
std::string to_text(const Flow& flow);  // "10.0.0.1 5000 10.0.0.2 5001": source, destination

/// A change that fails changes nothing. Not thread-safe.
class State {
 public:
  /// Adds those that are not held yet. -ENOSPC beyond TAVIK_WLAN_MAX_TUPLES.
  Status add_tuples(const Tuples& tuples);
  /// Repetitions in `tuples` count once. -ENOENT when one is not held.
  Status delete_tuples(const Tuples& tuples);

  /// -EEXIST when that device is set already, -EBUSY when another one is.
  Status set_device(const Device& device);
  /// -ENOENT when no device is set, or another one.
  Status unset_device(const Device& device);

  /// -EEXIST, -ENOSPC beyond TAVIK_WLAN_MAX_FORWARDINGS.
  Status add_forwarding(const Forwarding& forwarding);
  Status delete_forwarding(const Forwarding& forwarding);  // -ENOENT

  /// Replaces the port, and its action by none.
  Status set_encapsulation(const Encapsulation& encapsulation);
  /// -ENOENT unless the port is the one set, as below.
  Status unset_encapsulation(const Encapsulation& encapsulation);
  Status pass_encapsulation_through(const Encapsulation& encapsulation);
  Status drop_encapsulation(const Encapsulation& encapsulation);

  /// -EEXIST, -ENOSPC beyond TAVIK_WLAN_MAX_FLOWS.
  Status add_flow(const Flow& flow);
  void flush_flows() { flows_.clear(); }

  [[nodiscard]] const TupleSet& tuples() const { return tuples_; }

  /// One line for each thing held, in a fixed order; empty when nothing is.
  [[nodiscard]] std::string text() const;

 private:
  Status set_action(const Encapsulation& encapsulation, const char* action);

  TupleSet tuples_;
  std::map<uint8_t, std::string> devices_;  // by selector
  std::set<Forwarding> forwardings_;
  std::optional<Encapsulation> encapsulation_;
  std::set<Flow> flows_;
};

}  // namespace tavik_wlan

#endif  // REFERENCE_KERNEL_EMULATOR_STATE_H_
