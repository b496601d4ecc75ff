// The point in time at which a wait is given up.
#ifndef REFERENCE_HOST_NETLINK_DEADLINE_H_
#define REFERENCE_HOST_NETLINK_DEADLINE_H_

#include <chrono>

namespace corvil::netlink {

/// CORVIL_NETLINK_TIMEOUT_MS after the first question for what remains: who does not have to wait
/// reads neither the clock nor that setting. Absolute on the monotonic clock: no number of
/// interrupted waits or foreign messages extends it.
class Deadline {
 public:
  /// Zero once it has passed.
  [[nodiscard]] std::chrono::nanoseconds remaining();

  /// Zero if it was never asked for.
  [[nodiscard]] std::chrono::milliseconds timeout() const { return timeout_; }

 private:
  std::chrono::milliseconds timeout_{};
  std::chrono::steady_clock::time_point end_;
};

}  // namespace corvil::netlink

#endif  // REFERENCE_HOST_NETLINK_DEADLINE_H_
