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

/// Whether a file is a capture, of the old format or the new one, by how it begins.
bool is_capture(std::string_view file);

/// Appends the generic netlink packets of a capture in the pcap format, in this machine's byte
/// order, with times in microseconds or nanoseconds. A failure says what is wrong with the file;
/// the packets before that are there.
Result read_capture(std::string_view file, std::vector<Packet>* packets);

/// Reads datagrams from text. A line with the word "bytes" begins one with what follows the word,
/// as --hex prints it; other lines with nothing but hexadecimal digits and blanks go on where the
/// line before ended, or begin one. The rest of the text is skipped.
std::vector<Packet> read_hex(std::string_view text);

}  // namespace datapathctl
