// Netlink messages as the user sees them.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
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

/// A time with microseconds: for people that of the day in this place, and for programs the whole
/// of it, in UTC, as of RFC 3339.
std::string time_text(std::chrono::system_clock::time_point time, bool for_program);

/// Prints the messages of a datagram on standard output as the settings say. Unless all of them is
/// to be seen, look-ups of the family are left out, but for those that fail.
void print(const Settings& settings, const std::vector<Message>& messages, const Origin& origin);

/// Shows, of the datagrams of any clients, what is about the family, and captures it where the
/// process has a capture.
class Viewer {
 public:
  /// Keeps the settings; takes the family's id, 0 where it is not known.
  Viewer(const Settings& settings, uint16_t family_id) : settings_(settings), decoder_(family_id) {}

  /// Shows a datagram. Throws std::runtime_error when the capture can't be written.
  void show(std::span<const uint8_t> datagram, Origin origin);

  /// Whether anything was about the family.
  [[nodiscard]] bool has_shown() const { return has_shown_; }

 private:
  const Settings& settings_;
  MessageDecoder decoder_;
  bool has_shown_ = false;
};

}  // namespace datapathctl
