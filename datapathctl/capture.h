// Datagrams in files: captures of link type NETLINK, and bytes in hexadecimal.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <span>
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

/// Appends the generic netlink packets of a capture in the pcap format, of either byte order, with
/// times in microseconds or nanoseconds. A failure says what is wrong with the file; the packets
/// before that are there.
Result read_capture(std::string_view file, std::vector<Packet>* packets);

/// Reads datagrams from text: what follows the word "bytes" in a line is one, as --hex prints it;
/// other lines in hexadecimal go on where the line before ended, perhaps after an offset and before
/// the same in ASCII. An offset of 0 begins a datagram. The rest of the text is skipped.
std::vector<Packet> read_hex(std::string_view text);

/// A capture that is written.
class CaptureWriter {
 public:
  /// Creates the file, which is its owner's alone, or empties it; "-" is standard output. Throws
  /// std::system_error.
  explicit CaptureWriter(const std::string& path);

  /// Writes a packet. Throws std::system_error.
  void write(std::span<const uint8_t> datagram, bool is_sent,
             std::chrono::system_clock::time_point time);

 private:
  void write(const void* bytes, size_t size);

  std::string path_;
  std::unique_ptr<FILE, int (*)(FILE*)> file_;
};

}  // namespace datapathctl
