// The emulated kernel without its sockets: datagrams in, datagrams out.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "reference_kernel/emulator/faults.h"
#include "reference_kernel/emulator/netlink.h"
#include "reference_kernel/emulator/state.h"

namespace tavik_wlan {

/// What a client gets for one datagram of requests.
struct Answer {
  std::vector<Datagram> datagrams{};
  std::chrono::milliseconds delay{0};  // to wait before they are sent
};

/// Sees a request, one message, and whether it was accepted, whatever becomes of the answer. It
/// must neither throw nor call the kernel.
using RequestObserver = std::function<void(Bytes message, const Status& status)>;

/// Thread-safe.
class Kernel {
 public:
  /// Handles a datagram of requests, whatever it holds.
  Answer receive(Bytes datagram, const RequestObserver& observer = {});

  /// See State::text().
  std::string state() const;

  /// Replaces the faults.
  void inject(const Faults& faults);

 private:
  void receive_message(Bytes message, const RequestObserver& observer);
  Outcome handle(Bytes message);
  Outcome handle_for_family(Bytes message);
  uint16_t family_id() const;

  mutable std::mutex mutex_;  // of all that follows
  State state_;
  FaultInjector injector_;
  std::vector<Datagram> answer_;  // to the messages of the current datagram so far
  bool has_dumped_ = false;       // whether one of them was a dump
};

}  // namespace tavik_wlan
