// The emulated kernel without its sockets: datagrams in, datagrams out.
#ifndef REFERENCE_KERNEL_EMULATOR_KERNEL_H_
#define REFERENCE_KERNEL_EMULATOR_KERNEL_H_

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "reference_kernel/emulator/faults.h"
#include "reference_kernel/emulator/netlink.h"
#include "reference_kernel/emulator/state.h"

namespace tavik_wlan {

/// What a client gets for one datagram of requests.
struct Answer {
  std::vector<Datagram> datagrams;
  std::chrono::milliseconds delay{0};  // to wait before they are sent
};

/// Thread-safe.
class Kernel {
 public:
  /// `observer`, which may be empty, gets a line for each accepted command to the family, such as
  /// "SET_DEV 1 wlan0", on the thread of the receive() concerned. It must not throw.
  explicit Kernel(std::function<void(std::string_view)> observer);

  /// Handles a datagram of requests, whatever it holds.
  Answer receive(Bytes datagram);

  /// See State::text().
  std::string state() const;

  /// Replaces the faults.
  void inject(const Faults& faults);

 private:
  /// What is collected while the messages of a datagram are handled.
  struct Exchange {
    std::vector<Datagram> datagrams;
    std::vector<std::string> descriptions;  // of accepted commands, where there is an observer
    bool dumped = false;
  };

  void receive_message(Bytes message, Exchange& exchange);
  Outcome handle(Bytes message, Exchange& exchange);
  Outcome handle_for_family(Bytes message, Exchange& exchange);
  uint16_t family_id() const;

  const std::function<void(std::string_view)> observer_;

  mutable std::mutex mutex_;  // of all that follows
  State state_;
  FaultInjector injector_;
};

}  // namespace tavik_wlan

#endif  // REFERENCE_KERNEL_EMULATOR_KERNEL_H_
