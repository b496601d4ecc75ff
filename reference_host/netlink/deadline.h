// The point in time at which an operation gives up.
#ifndef REFERENCE_HOST_NETLINK_DEADLINE_H_
#define REFERENCE_HOST_NETLINK_DEADLINE_H_

#include <algorithm>
#include <chrono>

namespace corvil::netlink {

/// Absolute on the monotonic clock: no number of interrupted waits or foreign messages extends it.
class Deadline {
 public:
  explicit Deadline(std::chrono::milliseconds timeout)
      : timeout_(timeout), end_(std::chrono::steady_clock::now() + timeout) {}

  [[nodiscard]] std::chrono::milliseconds timeout() const { return timeout_; }

  /// Zero once it has passed.
  [[nodiscard]] std::chrono::nanoseconds remaining() const {
    return std::max(std::chrono::nanoseconds{end_ - std::chrono::steady_clock::now()},
                    std::chrono::nanoseconds::zero());
  }

 private:
  std::chrono::milliseconds timeout_;
  std::chrono::steady_clock::time_point end_;
};

}  // namespace corvil::netlink

#endif  // REFERENCE_HOST_NETLINK_DEADLINE_H_
