#include "datapathctl/capture.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_arp.h>
#include <linux/if_packet.h>
#include <linux/netlink.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <system_error>

namespace datapathctl {
namespace {

using std::chrono::system_clock;

// The first word of a file tells the unit of its times and, by its own order, that of all bytes.
constexpr uint32_t kMicroseconds = 0xa1b2c3d4;
constexpr uint32_t kNanoseconds = 0xa1b23c4d;
constexpr uint32_t kNextGeneration = 0x0a0d0d0a;  // the same in both orders

struct FileHeader {
  uint32_t magic = kNanoseconds;
  uint16_t major_version = 2;
  uint16_t minor_version = 4;
  uint32_t zone = 0;
  uint32_t accuracy = 0;
  uint32_t longest_packet = 262144;
  uint32_t link_type = 253;  // NETLINK
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
  uint16_t hardware_type = htons(ARPHRD_NETLINK);
  uint8_t unused[10] = {};
  uint16_t protocol = htons(NETLINK_GENERIC);
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

/// Takes the header of the link layer off a packet, where it is one of generic netlink.
bool take_link_header(std::string_view* packet) {
  std::string_view rest = *packet;
  LinkHeader header{};
  if (!take(&rest, &header) || header.hardware_type != htons(ARPHRD_NETLINK) ||
      header.protocol != htons(NETLINK_GENERIC)) {
    return false;
  }
  *packet = rest;
  return true;
}

/// Takes bytes in hexadecimal off a text, up to anything else. A gap that is wider than a blank
/// ends a column of them, except after its eighth byte.
std::string take_bytes(std::string_view* text, size_t most) {
  std::string bytes;
  while (bytes.size() < most) {
    const size_t gap = std::min(text->find_first_not_of(" \t\r"), text->size());
    const std::string_view digits = text->substr(gap, 2);
    unsigned char byte = 0;
    if ((gap > 1 && bytes.size() % 8 != 0) ||
        std::from_chars(digits.begin(), digits.end(), byte, 16).ptr != digits.begin() + 2) {
      break;
    }
    bytes += static_cast<char>(byte);
    text->remove_prefix(gap + digits.size());
  }
  return bytes;
}

/// Takes an offset off a line that begins with one.
std::optional<size_t> take_offset(std::string_view* line) {
  size_t offset = 0;
  const char* end = std::from_chars(line->begin(), line->end(), offset, 16).ptr;
  const auto digits = static_cast<size_t>(end - line->begin());
  const std::string_view rest = line->substr(digits);
  if (digits < 4 || !(rest.starts_with(": ") || rest.starts_with("  "))) {
    return std::nullopt;
  }
  line->remove_prefix(digits + 1);
  return offset;
}

}  // namespace

bool is_capture(std::string_view file) {
  uint32_t magic = 0;
  return take(&file, &magic) &&
         (magic == kNextGeneration || magic == kMicroseconds || magic == kNanoseconds ||
          __builtin_bswap32(magic) == kMicroseconds || __builtin_bswap32(magic) == kNanoseconds);
}

Result read_capture(std::string_view file, std::vector<Packet>* packets) {
  FileHeader header;
  const std::string_view start = file;
  if (!take(&file, &header) || header.magic == kNextGeneration) {
    return usage_error(start.starts_with("\n\r\r\n")
                           ? "in the format pcapng; 'editcap -F pcap FILE NEW' converts it"
                           : "the capture ends in its first header");
  }
  const bool is_swapped = header.magic != kMicroseconds && header.magic != kNanoseconds;
  const auto number = [is_swapped](uint32_t n) { return is_swapped ? __builtin_bswap32(n) : n; };
  // The upper bits of the link type are of no concern to the packets.
  if ((number(header.link_type) & UINT16_MAX) != FileHeader().link_type) {
    return usage_error("of link type " + std::to_string(number(header.link_type)) +
                       " and not 253, NETLINK");
  }
  const int unit = number(header.magic) == kNanoseconds ? 1 : 1000;
  for (size_t i = 1; !file.empty(); ++i) {
    PacketHeader packet{};
    if (!take(&file, &packet) || number(packet.captured_length) > file.size()) {
      return failure("the capture ends in packet " + std::to_string(i));
    }
    std::string_view bytes = file.substr(0, number(packet.captured_length));
    file.remove_prefix(bytes.size());
    if (take_link_header(&bytes)) {
      const auto time = std::chrono::seconds(number(packet.seconds)) +
                        std::chrono::nanoseconds(int64_t{number(packet.fraction)} * unit);
      packets->push_back({system_clock::time_point(time), {bytes.begin(), bytes.end()}});
    }
  }
  return {};
}

std::vector<Packet> read_hex(std::string_view text) {
  std::vector<std::string> datagrams;
  bool is_new = true;
  while (!text.empty()) {
    std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    size_t most = SIZE_MAX;
    if (const size_t word = line.find("bytes"); word != std::string_view::npos) {
      line.remove_prefix(word + strlen("bytes"));
      line.remove_prefix(std::min(line.find_first_not_of("\": "), line.size()));
      is_new = true;
    } else if (const std::optional<size_t> offset = take_offset(&line)) {
      is_new |= *offset == 0;
      most = 16;
    }
    const std::string bytes = take_bytes(&line, most);
    if (is_new && !bytes.empty()) {
      datagrams.emplace_back();
    }
    is_new = bytes.empty();
    if (!bytes.empty()) {
      datagrams.back() += bytes;
    }
  }
  std::vector<Packet> packets;
  for (std::string_view datagram : datagrams) {
    take_link_header(&datagram);
    packets.push_back({{}, {datagram.begin(), datagram.end()}});
  }
  return packets;
}

CaptureWriter::CaptureWriter(const std::string& path) : path_(path), file_(nullptr, fclose) {
  const int fd = path == "-"
                     ? dup(STDOUT_FILENO)
                     : open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOCTTY,
                            S_IRUSR | S_IWUSR);
  file_.reset(fd == -1 ? nullptr : fdopen(fd, "w"));
  const FileHeader header;
  write(&header, sizeof(header));
}

void CaptureWriter::write(std::span<const uint8_t> datagram, bool is_sent,
                          system_clock::time_point time) {
  const auto whole = std::chrono::floor<std::chrono::seconds>(time.time_since_epoch());
  const auto length = static_cast<uint32_t>(sizeof(LinkHeader) + datagram.size());
  const PacketHeader packet{static_cast<uint32_t>(whole.count()),
                            static_cast<uint32_t>((time.time_since_epoch() - whole).count()),
                            length, length};
  const LinkHeader link{htons(is_sent ? PACKET_OUTGOING : PACKET_HOST)};
  std::string bytes(reinterpret_cast<const char*>(&packet), sizeof(packet));
  bytes.append(reinterpret_cast<const char*>(&link), sizeof(link));
  bytes.append(datagram.begin(), datagram.end());
  write(bytes.data(), bytes.size());
}

/// Writes at once, so that the file can be read while it grows.
void CaptureWriter::write(const void* bytes, size_t size) {
  if (file_ == nullptr || fwrite(bytes, 1, size, file_.get()) != size || fflush(file_.get()) != 0) {
    throw std::system_error(errno, std::generic_category(), "cannot write the capture " + path_);
  }
}

}  // namespace datapathctl
