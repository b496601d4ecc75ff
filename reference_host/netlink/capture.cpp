#include "reference_host/netlink/capture.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_arp.h>
#include <linux/if_packet.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <span>

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

/// Makes a file empty and the process's own until its end; a device is neither. Returns 0 or a
/// positive errno, EBUSY where another process has it.
int claim(int fd) {
  struct stat status {};
  fstat(fd, &status);
  if (S_ISCHR(status.st_mode)) {
    return 0;
  }
  if (flock(fd, LOCK_EX | LOCK_NB) == -1) {
    return errno == EWOULDBLOCK ? EBUSY : errno;
  }
  return S_ISREG(status.st_mode) && ftruncate(fd, 0) == -1 ? errno : 0;
}

/// Like writev(), without the signals by which a pipe that nobody reads or a limit of the file's
/// size would end the process.
ssize_t write_without_signals(int fd, std::span<const iovec> parts) {
  sigset_t pending;
  sigset_t raised;
  sigset_t mask;
  sigpending(&pending);
  sigemptyset(&raised);
  for (const int signal : {SIGPIPE, SIGXFSZ}) {
    // One that the host has pending already is blocked, and stays the host's.
    if (sigismember(&pending, signal) == 0) {
      sigaddset(&raised, signal);
    }
  }
  pthread_sigmask(SIG_BLOCK, &raised, &mask);
  ssize_t written = 0;
  do {
    written = writev(fd, parts.data(), static_cast<int>(parts.size()));
  } while (written == -1 && errno == EINTR);
  const int error = errno;
  const timespec no_time{};
  sigtimedwait(&raised, nullptr, &no_time);
  pthread_sigmask(SIG_SETMASK, &mask, nullptr);
  errno = error;
  return written;
}

}  // namespace

Capture::Capture() {
  const char* path = secure_getenv("CORVIL_NETLINK_PCAP");
  if (path == nullptr || path[0] == '\0') {
    return;
  }
  snprintf(path_, sizeof(path_), "%s", path);
  // Neither opening nor writing waits for the reader of a FIFO.
  constexpr int kFlags = O_WRONLY | O_CREAT | O_APPEND | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
  const int fd = open(path, kFlags, S_IRUSR | S_IWUSR);
  error_ = file_.adopt(fd);
  if (is_on()) {
    error_ = claim(fd);
  }
  if (is_on()) {
    const FileHeader header;
    write(&header, sizeof(header), nullptr, 0);
  } else {
    file_.close();
  }
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
  if (!file_.is_open()) {
    error_ = EBADF;
    return;
  }
  // An iovec is not const, writev() only reads.
  const std::array<iovec, 2> parts{{
      {const_cast<void*>(header), header_length},
      {const_cast<void*>(bytes), length},
  }};
  const ssize_t written = write_without_signals(file_.number(), parts);
  if (written == -1) {
    error_ = errno;
  } else if (static_cast<size_t>(written) != header_length + length) {
    // The next byte is told why this fell short, unless the reader of a FIFO has just made room.
    const std::array<iovec, 1> more{{{const_cast<void*>(header), 1}}};
    error_ = write_without_signals(file_.number(), more) == -1 ? errno : EAGAIN;
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
