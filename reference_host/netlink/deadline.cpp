#include "reference_host/netlink/deadline.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>

namespace corvil::netlink {
namespace {

constexpr std::chrono::milliseconds kDefaultTimeout{3000};

/// A host sets its environment before it starts threads.
std::chrono::milliseconds timeout_setting() {
  const char* text = secure_getenv("CORVIL_NETLINK_TIMEOUT_MS");
  if (text == nullptr) {
    return kDefaultTimeout;
  }
  const char* end = text + strlen(text);
  int milliseconds = 0;
  const auto [rest, error] = std::from_chars(text, end, milliseconds);
  const bool valid = error == std::errc{} && rest == end && milliseconds > 0;
  return valid ? std::chrono::milliseconds{milliseconds} : kDefaultTimeout;
}

}  // namespace

std::chrono::nanoseconds Deadline::remaining() {
  const auto now = std::chrono::steady_clock::now();
  if (timeout_.count() == 0) {
    timeout_ = timeout_setting();
    end_ = now + timeout_;
  }
  return std::max(std::chrono::nanoseconds{end_ - now}, std::chrono::nanoseconds::zero());
}

}  // namespace corvil::netlink
