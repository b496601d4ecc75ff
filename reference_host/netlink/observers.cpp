// Whatever looks at the messages of the exchanges: the trace callback and the capture file of the
// process. In a dry run they are all that gets to see a request.
#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_arp.h>
#include <linux/if_packet.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "reference_host/corvil_export.h"
#include "reference_host/netlink/internal.h"

namespace corvil::netlink {
namespace {

struct Trace {
  corvil_netlink_trace_callback callback;
  void* context;
};
constinit Trace trace{};
constinit uint16_t dry_run_id = 0;

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
  uint32_t captured_length;  // of the link layer's header below and the bytes that follow it
  uint32_t length;           // the same, since nothing is cut
  // The link layer's header, in network byte order.
  uint16_t packet_type;
  uint16_t hardware_type;
  uint8_t unused[10];
  uint16_t protocol;
};
constexpr size_t kLinkLayerSize = 16;
static_assert(sizeof(FileHeader) == 24 && sizeof(PacketHeader) == 16 + kLinkLayerSize);

/// Empties the capture's file, once it is locked until the process ends. Only a regular file needs
/// it. Returns 0 or a positive errno, EBUSY where another process has the lock.
int claim(int fd) {
  struct stat status {};
  if (fstat(fd, &status) == 0 && !S_ISREG(status.st_mode)) {
    return 0;
  }
  if (flock(fd, LOCK_EX | LOCK_NB) == -1) {
    return errno == EWOULDBLOCK ? EBUSY : errno;
  }
  return ftruncate(fd, 0) == -1 ? errno : 0;
}

/// Writes a header and what belongs to it at once, but without the signals that would end the
/// process: SIGPIPE when nobody reads the pipe, SIGXFSZ at the limit of a file's size. Returns 0 or
/// a positive errno, ENOSPC when there was no room for all.
int write_without_signals(int fd, std::span<const std::byte> header,
                          std::span<const std::byte> bytes) {
  // writev() only reads, but an iovec's pointer is not const.
  const std::array<iovec, 2> parts{{
      {const_cast<std::byte*>(header.data()), header.size()},
      {const_cast<std::byte*>(bytes.data()), bytes.size()},
  }};
  sigset_t raised;
  sigset_t mask;
  sigemptyset(&raised);
  sigaddset(&raised, SIGPIPE);
  sigaddset(&raised, SIGXFSZ);
  pthread_sigmask(SIG_BLOCK, &raised, &mask);
  const ssize_t written = TEMP_FAILURE_RETRY(writev(fd, parts.data(), parts.size()));
  const bool is_whole = static_cast<size_t>(written) == header.size() + bytes.size();
  const int error = written == -1 ? errno : is_whole ? 0 : ENOSPC;
  const timespec no_time{};
  sigtimedwait(&raised, nullptr, &no_time);
  pthread_sigmask(SIG_SETMASK, &mask, nullptr);
  return error;
}

/// A pcap file of link type NETLINK. Every packet is written by one system call, so the file can be
/// read while it grows and packets of several threads do not mix. Whatever fails, or would have to
/// wait, ends the capture and nothing else. Open and locked until the process ends. Thread-safe.
class Capture {
 public:
  /// Creates the file at a path; there is no capture when it is null or empty.
  explicit Capture(const char* path) {
    if (path == nullptr || path[0] == '\0') {
      return;
    }
    snprintf(path_, sizeof(path_), "%s", path);
    const bool is_output = strcmp(path, "-") == 0;
    // O_NONBLOCK: neither opening nor writing waits for the reader of a FIFO.
    constexpr int kFlags = O_WRONLY | O_CREAT | O_APPEND | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    error_ = file_.adopt(is_output ? fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0)
                                   : open(path, kFlags, S_IRUSR | S_IWUSR));
    if (is_on() && !is_output) {
      error_ = claim(file_.number());
    }
    if (is_on()) {
      const FileHeader header;
      error_ = write_without_signals(file_.number(), std::as_bytes(std::span(&header, 1)), {});
    } else {
      file_.close();
    }
  }

  /// The positive errno that has ended the capture; 0 when none has.
  [[nodiscard]] int error() const { return error_.load(std::memory_order_relaxed); }

  [[nodiscard]] const char* path() const { return path_; }

  /// Writes one packet, of now or of a time, unless there is no capture or it has ended.
  void write(CorvilNetlinkDirection direction, int protocol, std::span<const std::byte> datagram,
             const timespec* time = nullptr) {
    if (!is_on()) {
      return;
    }
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    time = time != nullptr ? time : &now;
    const auto length = static_cast<uint32_t>(kLinkLayerSize + datagram.size());
    const PacketHeader header{
        .seconds = static_cast<uint32_t>(time->tv_sec),
        .nanoseconds = static_cast<uint32_t>(time->tv_nsec),
        .captured_length = length,
        .length = length,
        .packet_type = htons(direction == CORVIL_NETLINK_SENT ? PACKET_OUTGOING : PACKET_HOST),
        .hardware_type = htons(ARPHRD_NETLINK),
        .unused = {},
        .protocol = htons(static_cast<uint16_t>(protocol)),
    };
    const int error =
        file_.is_open()
            ? write_without_signals(file_.number(), std::as_bytes(std::span(&header, 1)), datagram)
            : EBADF;
    if (error != 0) {
      error_ = error;
    }
  }

 private:
  [[nodiscard]] bool is_on() const { return file_.number() != -1 && error() == 0; }

  char path_[PATH_MAX] = "";
  Descriptor file_;
  std::atomic<int> error_{0};
};

/// The process's capture. The first call creates it at the path that it gives, or else at that of
/// CORVIL_NETLINK_PCAP.
Capture& capture(const char* path = nullptr) {
  static Capture process_capture(path != nullptr ? path : secure_getenv("CORVIL_NETLINK_PCAP"));
  return process_capture;
}

}  // namespace

uint16_t dry_run_family_id() { return dry_run_id; }

void show(CorvilNetlinkDirection direction, int protocol, std::span<const std::byte> bytes) {
  capture().write(direction, protocol, bytes);
  if (trace.callback != nullptr) {
    trace.callback(direction, bytes.data(), bytes.size(), trace.context);
  }
}

}  // namespace corvil::netlink

CORVIL_EXPORT void corvil_netlink_set_trace(corvil_netlink_trace_callback callback, void* context) {
  corvil::netlink::trace = {callback, context};
}

CORVIL_EXPORT void corvil_netlink_set_dry_run(uint16_t family_id) {
  corvil::netlink::dry_run_id = family_id;
}

CORVIL_EXPORT int corvil_netlink_check_capture() {
  const corvil::netlink::Capture& capture = corvil::netlink::capture();
  return capture.error() == 0
             ? 0
             : corvil::netlink::fail(capture.error(), "cannot write the capture %s: %m",
                                     capture.path());
}

CORVIL_EXPORT int corvil_netlink_open_capture(const char* path) {
  corvil::netlink::capture(path);
  return corvil_netlink_check_capture();
}

CORVIL_EXPORT int corvil_netlink_capture(CorvilNetlinkDirection direction, int protocol,
                                         const void* bytes, size_t length,
                                         const struct timespec* time) {
  corvil::netlink::capture().write(direction, protocol,
                                   {static_cast<const std::byte*>(bytes), length}, time);
  return corvil_netlink_check_capture();
}
