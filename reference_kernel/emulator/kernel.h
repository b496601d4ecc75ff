// The emulated kernel without its sockets: datagrams in, datagrams out.
#pragma once

#include <chrono>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "reference_kernel/emulator/family.h"
#include "reference_kernel/emulator/faults.h"
#include "reference_kernel/emulator/netlink.h"

namespace tavik_wlan {

/// What a client gets for one datagram of requests.
struct Answer {
  std::vector<Datagram> datagrams{};
  std::chrono::milliseconds delay{0};  // to wait before they are sent
};

/// Thread-safe.
// NOLINTNEXTLINE(cert-msc51-cpp): the same seed each time, to repeat a failure.
class Kernel {
 public:
  /// Handles a datagram of requests, whatever it holds.
  Answer receive(Bytes datagram);

  /// See State::text().
  std::string state() const;

  /// Replaces the faults; see parse_faults().
  void inject(const std::string& words);

 private:
  void receive_message(Bytes message);
  Outcome handle(Bytes message);
  [[nodiscard]] Outcome look_up(Bytes message) const;
  void spoil_answer();

  mutable std::mutex mutex_;  // of all that follows
  State state_;
  Faults faults_;  // its counters run down
  std::minstd_rand random_;
  std::vector<Datagram> answer_;  // to the messages of the current datagram so far
  bool has_dumped_ = false;       // whether one of them was a dump
};

}  // namespace tavik_wlan
