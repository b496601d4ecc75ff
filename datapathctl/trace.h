// Netlink messages as the user sees them.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "datapathctl/command.h"
#include "datapathctl/message_decoder.h"

namespace datapathctl {

/// Where a datagram came from, as far as it is known and of interest.
struct Origin {
  bool is_sent = false;  // to the kernel
  std::optional<std::chrono::system_clock::time_point> time{};
  std::optional<uint32_t> client{};  // its port id; 0: not known
  pid_t pid = 0;                     // of its process; 0: not known
};

/// A time with microseconds: that of the day in this place for people, and for programs the whole
/// of it, in UTC, as of RFC 3339.
std::string time_of_day(std::chrono::system_clock::time_point time);
std::string date_and_time(std::chrono::system_clock::time_point time);

/// Prints messages on standard output as the settings say.
class MessagePrinter {
 public:
  /// Keeps the settings.
  explicit MessagePrinter(const Settings& settings) : settings_(settings) {}

  /// Prints the messages of a datagram. Unless all of them is to be seen, a look-up of the family
  /// is held back until it fails, or until it is clear that no answer comes.
  void print(const std::vector<Message>& messages, const Origin& origin);

  /// Prints the look-up that is held back, if there is one.
  void finish();

 private:
  [[nodiscard]] std::string text_of(const Message& message, const Origin& origin) const;

  const Settings& settings_;
  std::string look_up_;
};

}  // namespace datapathctl
