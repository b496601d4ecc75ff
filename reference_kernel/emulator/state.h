// What the family holds, and the rules by which it changes.
#ifndef REFERENCE_KERNEL_EMULATOR_STATE_H_
#define REFERENCE_KERNEL_EMULATOR_STATE_H_

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "reference_kernel/emulator/entries.h"
#include "reference_kernel/emulator/verdict.h"

namespace tavik_wlan {

/// What happens to packets of the encapsulation port.
enum class EncapsulationAction { kNone, kPassThrough, kDrop };

/// A refused change changes nothing. Not thread-safe.
class State {
 public:
  /// Adds those that are not held yet. -ENOSPC beyond TAVIK_WLAN_MAX_TUPLES.
  Verdict add_tuples(const std::vector<Tuple>& tuples);
  /// Repetitions in `tuples` count once. -ENOENT when one is not held.
  Verdict delete_tuples(const std::vector<Tuple>& tuples);

  /// -EEXIST when that device is set already, -EBUSY when another one is.
  Verdict set_device(uint8_t selector, const std::string& name);
  /// -ENOENT when no device is set, or another one.
  Verdict unset_device(uint8_t selector, const std::string& name);

  /// -EEXIST, -ENOSPC beyond TAVIK_WLAN_MAX_FORWARDINGS.
  Verdict add_forwarding(const Forwarding& forwarding);
  Verdict delete_forwarding(const Forwarding& forwarding);  // -ENOENT

  /// Replaces the port, and its action by none. `port` in host byte order, here and below.
  Verdict set_encapsulation_port(uint16_t port);
  /// -ENOENT unless the port is the one set, as below.
  Verdict unset_encapsulation_port(uint16_t port);
  Verdict set_encapsulation_action(uint16_t port, EncapsulationAction action);

  /// -EEXIST, -ENOSPC beyond TAVIK_WLAN_MAX_FLOWS.
  Verdict add_flow(const Flow& flow);
  Verdict flush_flows();

  /// Forgets everything.
  Verdict reset();

  [[nodiscard]] const std::set<Tuple>& tuples() const { return tuples_; }

  /// One line for each thing held, in a fixed order; empty when nothing is.
  [[nodiscard]] std::string text() const;

 private:
  struct Encapsulation {
    uint16_t port;
    EncapsulationAction action;
  };

  std::set<Tuple> tuples_;
  std::map<uint8_t, std::string> devices_;  // by selector
  std::set<Forwarding> forwardings_;
  std::optional<Encapsulation> encapsulation_;
  std::set<Flow> flows_;
};

}  // namespace tavik_wlan

#endif  // REFERENCE_KERNEL_EMULATOR_STATE_H_
