#include "datapathctl/message_decoder.h"

#include <arpa/inet.h>
#include <linux/if_arp.h>
#include <linux/netlink.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <iterator>
#include <sstream>

namespace datapathctl {
namespace {

using std::chrono::system_clock;

// The first word of a capture tells the unit of its times and, by its own order, that of all bytes.
constexpr uint32_t kMicroseconds = 0xa1b2c3d4;
constexpr uint32_t kNanoseconds = 0xa1b23c4d;

constexpr uint32_t kLinkTypeNetlink = 253;

struct FileHeader {
  uint32_t magic;
  uint32_t unused[4];
  uint32_t link_type;  // Its upper half is of no concern to the packets.
};

struct PacketHeader {
  uint32_t seconds;
  uint32_t fraction;
  uint32_t captured_length;
  uint32_t length;
};

/// In network byte order.
struct LinkHeader {
  uint16_t packet_type;
  uint16_t hardware_type;
  uint8_t unused[10];
  uint16_t protocol;
};
static_assert(sizeof(FileHeader) == 24 && sizeof(PacketHeader) == 16 && sizeof(LinkHeader) == 16);

/// Takes a T off what is left to read; false when there is not enough.
template <typename T>
bool take(std::string_view* left, T* value) {
  if (left->size() < sizeof(T)) {
    return false;
  }
  memcpy(value, left->data(), sizeof(T));
  left->remove_prefix(sizeof(T));
  return true;
}

/// Two digits a byte, with blanks anywhere; a last digit alone is left out.
std::vector<uint8_t> from_hex(std::string digits) {
  std::erase_if(digits, [](char c) { return isxdigit(c) == 0; });
  std::vector<uint8_t> bytes;
  for (size_t i = 0; i + 1 < digits.size(); i += 2) {
    bytes.push_back(static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

Result read_capture(std::string_view file, std::vector<Packet>* packets) {
  FileHeader header{};
  if (!take(&file, &header)) {
    return usage_error("the capture ends in its first header");
  }
  if (header.magic != kMicroseconds && header.magic != kNanoseconds) {
    return usage_error("in a format that is not read here; 'editcap -F pcap FILE NEW' converts it");
  }
  if ((header.link_type & UINT16_MAX) != kLinkTypeNetlink) {
    return usage_error("of link type " + std::to_string(header.link_type) +
                       " and not 253, NETLINK");
  }
  const int unit = header.magic == kNanoseconds ? 1 : 1000;
  for (size_t i = 1; !file.empty(); ++i) {
    PacketHeader packet{};
    if (!take(&file, &packet) || packet.captured_length > file.size()) {
      return failure("the capture ends in packet " + std::to_string(i));
    }
    std::string_view bytes = file.substr(0, packet.captured_length);
    file.remove_prefix(bytes.size());
    LinkHeader link{};
    if (take(&bytes, &link) && link.hardware_type == htons(ARPHRD_NETLINK) &&
        link.protocol == htons(NETLINK_GENERIC)) {
      const auto time = std::chrono::seconds(packet.seconds) +
                        std::chrono::nanoseconds(int64_t{packet.fraction} * unit);
      packets->push_back({system_clock::time_point(time), {bytes.begin(), bytes.end()}});
    }
  }
  return {};
}

void read_hex(const std::string& text, std::vector<Packet>* packets) {
  constexpr char kDigits[] = " \t\r0123456789abcdefABCDEF";
  bool goes_on = false;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    const size_t word = line.find("bytes");
    const bool is_new = word != std::string::npos;
    if (is_new) {
      line.erase(0, line.find_first_not_of("\": ", word + strlen("bytes")));
      line.resize(std::min(line.find_first_not_of(kDigits), line.size()));
    }
    const bool is_hex = line.find_first_not_of(kDigits) == std::string::npos;
    const std::vector<uint8_t> bytes = from_hex(is_hex ? line : "");
    if (!bytes.empty() && (is_new || !goes_on)) {
      packets->emplace_back();
    }
    goes_on = !bytes.empty();
    if (goes_on) {
      std::ranges::copy(bytes, std::back_inserter(packets->back().datagram));
    }
  }
}

}  // namespace

Result read_packets(std::string_view file, std::vector<Packet>* packets) {
  if (file.find('\0') != std::string_view::npos) {
    return read_capture(file, packets);
  }
  read_hex(std::string(file), packets);
  return {};
}

}  // namespace datapathctl
