// Datagrams from files: captures of link type NETLINK, and bytes in hexadecimal.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "datapathctl/command.h"

namespace datapathctl {

struct Packet {
  std::optional<std::chrono::system_clock::time_point> time{};
  std::vector<uint8_t> datagram{};
};

/// Appends the generic netlink datagrams of a file. With a NUL byte in it, it is a capture in the
/// pcap format, in this machine's byte order, whose packets have times. A failure says what is
/// wrong with it; the packets before that are there.
///
/// Otherwise it is text. A line with the word "bytes" begins a datagram with what follows the word,
/// as --hex prints it; other lines with nothing but hexadecimal digits and blanks go on where the
/// line before ended, or begin one. The rest of the text is skipped.
Result read_packets(std::string_view file, std::vector<Packet>* packets);

}  // namespace datapathctl
