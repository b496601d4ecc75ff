#include "reference_host/netlink/capture.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_arp.h>
#include <linux/if_packet.h>
#include <sys/uio.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "reference_host/corvil_export.h"
#include "reference_host/netlink/last_error.h"

namespace corvil::netlink {
namespace {

/// A pcap file is in the byte order of the machine that wrote it; the magic number tells which.
struct FileHeader {
  uint32_t magic = 0xa1b23c4d;  // times are in nanoseconds
  uint16_t major_version = 2;
  uint16_t minor_version = 4;
  uint32_t zone = 0;
  uint32_t accuracy = 0;
  uint32_t longest_packet = 262144;
  uint32_t link_type = 253;  // NETLINK
};

struct PacketHeader {
  uint32_t seconds;
  uint32_t nanoseconds;
  uint32_t captured_length;  // from here on, without these 16 bytes
  uint32_t length;
  // The rest is the link layer's, in network byte order.
  uint16_t packet_type;
  uint16_t hardware_type;
  uint8_t unused[10];
  uint16_t protocol;
};
constexpr size_t kLinkLayerSize = 16;
static_assert(sizeof(FileHeader) == 24 && sizeof(PacketHeader) == 16 + kLinkLayerSize);

}  // namespace

Capture::Capture() {
  const char* path = getenv("CORVIL_NETLINK_PCAP");
  if (path == nullptr || path[0] == '\0') {
    return;
  }
  snprintf(path_, sizeof(path_), "%s", path);
  // O_APPEND keeps packets whole even where processes share the file.
  fd_ = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0666);
  if (fd_ == -1) {
    error_ = errno;
    return;
  }
  const FileHeader header;
  write(&header, sizeof(header), nullptr, 0);
}

void Capture::write(CorvilNetlinkDirection direction, int protocol, const void* bytes,
                    size_t length) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  const auto packet_length = static_cast<uint32_t>(kLinkLayerSize + length);
  const PacketHeader header{
      .seconds = static_cast<uint32_t>(now.tv_sec),
      .nanoseconds = static_cast<uint32_t>(now.tv_nsec),
      .captured_length = packet_length,
      .length = packet_length,
      .packet_type = htons(direction == CORVIL_NETLINK_SENT ? PACKET_OUTGOING : PACKET_HOST),
      .hardware_type = htons(ARPHRD_NETLINK),
      .unused = {},
      .protocol = htons(static_cast<uint16_t>(protocol)),
  };
  write(&header, sizeof(header), bytes, length);
}

void Capture::write(const void* header, size_t header_length, const void* bytes, size_t length) {
  // An iovec is not const, writev() only reads.
  const std::array<iovec, 2> parts{{
      {const_cast<void*>(header), header_length},
      {const_cast<void*>(bytes), length},
  }};
  ssize_t written = 0;
  do {
    written = writev(fd_, parts.data(), parts.size());
  } while (written == -1 && errno == EINTR);
  if (written == -1) {
    error_ = errno;
  } else if (static_cast<size_t>(written) != header_length + length) {
    error_ = ENOSPC;
  }
}

Capture& capture() {
  static Capture process_capture;
  return process_capture;
}

}  // namespace corvil::netlink

CORVIL_EXPORT int corvil_netlink_check_capture() {
  const corvil::netlink::Capture& capture = corvil::netlink::capture();
  return capture.error() == 0
             ? 0
             : corvil::netlink::fail(capture.error(), "cannot write the capture %s: %m",
                                     capture.path());
}
