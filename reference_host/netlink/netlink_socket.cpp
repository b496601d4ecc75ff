#include "reference_host/netlink/netlink_socket.h"

#include <linux/netlink.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>

#include "reference_host/corvil_export.h"
#include "reference_host/netlink/corvil_netlink_control.h"
#include "reference_host/netlink/last_error.h"
#include "reference_host/netlink/observers.h"

namespace corvil::netlink {
namespace {

/// Holds several times the largest datagram that the kernel sends in a dump.
constexpr size_t kBufferSize = size_t{128} * 1024;

constexpr int kDefaultTimeoutMs = 3000;

/// The time-out that the host has set in place of the environment's; 0: none.
constinit int chosen_timeout_ms = 0;

/// How many forks lie between this process and the one that loaded the library. A fork handler
/// counts them, which spares every request the system call for the process id.
std::atomic<uint32_t> fork_generation{0};

void count_forks() {
  // It fails only without memory. Then a fork goes unnoticed.
  [[maybe_unused]] static const int kRefused = pthread_atfork(
      nullptr, nullptr, [] { fork_generation.fetch_add(1, std::memory_order_relaxed); });
}

timespec as_timespec(std::chrono::nanoseconds time) {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
  return {static_cast<time_t>(seconds.count()), static_cast<long>((time - seconds).count())};
}

}  // namespace

std::chrono::nanoseconds Deadline::remaining() {
  const auto now = std::chrono::steady_clock::now();
  if (timeout_.count() == 0) {
    timeout_ = std::chrono::milliseconds{corvil_netlink_timeout()};
    end_ = now + timeout_;
  }
  return std::max(std::chrono::nanoseconds{end_ - now}, std::chrono::nanoseconds::zero());
}

bool NetlinkSocket::is_open_to(int protocol, const char* emulator) const {
  return protocol_ == protocol &&
         fork_generation_ == fork_generation.load(std::memory_order_relaxed) &&
         strcmp(emulator_.sun_path, emulator) == 0 && socket_.is_open();
}

int NetlinkSocket::open(int protocol, const char* emulator) {
  count_forks();
  const size_t path_length = strlen(emulator);
  if (path_length >= sizeof(emulator_.sun_path)) {
    return ENAMETOOLONG;
  }
  if (buffer_ == nullptr) {
    buffer_.reset(new (std::nothrow) std::byte[kBufferSize]);
  }
  if (buffer_ == nullptr) {
    return ENOMEM;
  }
  protocol_ = protocol;
  emulator_.sun_family = AF_UNIX;
  memcpy(emulator_.sun_path, emulator, path_length + 1);
  fork_generation_ = fork_generation.load(std::memory_order_relaxed);
  const int error = is_emulated() ? open_emulator() : open_kernel();
  if (error != 0) {
    close();
  }
  return error;
}

int NetlinkSocket::open_kernel() {
  if (const int error = socket_.adopt(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, protocol_))) {
    return error;
  }
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  if (bind(fd(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == -1) {
    return errno;
  }
  // Old kernels lack these options. They still answer, with less detail.
  const int on = 1;
  setsockopt(fd(), SOL_NETLINK, NETLINK_EXT_ACK, &on, sizeof(on));
  setsockopt(fd(), SOL_NETLINK, NETLINK_CAP_ACK, &on, sizeof(on));
  return 0;
}

int NetlinkSocket::open_emulator() {
  if (const int error = socket_.adopt(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0))) {
    return error;
  }
  sockaddr_un address = emulator_;
  socklen_t length = sizeof(address);
  if (address.sun_path[0] == '@') {
    // An abstract address begins with a NUL, and ends where its length says.
    length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + strlen(address.sun_path));
    address.sun_path[0] = '\0';
  }
  // The send time-out limits how long connect() waits for room in the peer's backlog.
  Deadline deadline;
  for (;;) {
    const timespec left = as_timespec(deadline.remaining());
    const timeval timeout{left.tv_sec, left.tv_nsec / 1000};
    if (timeout.tv_sec == 0 && timeout.tv_usec == 0) {
      return ETIMEDOUT;
    }
    setsockopt(fd(), SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof(timeout));
    if (connect(fd(), reinterpret_cast<const sockaddr*>(&address), length) == 0) {
      return 0;
    }
    if (errno != EINTR) {
      return errno == EAGAIN ? ETIMEDOUT : errno;
    }
  }
}

int NetlinkSocket::send(const nlmsghdr& header, const nlmsghdr* message) {
  // sendmsg() only reads, but an iovec's pointer is not const.
  std::array<iovec, 2> parts{{
      {const_cast<nlmsghdr*>(&header), sizeof(header)},
      {const_cast<nlmsghdr*>(message) + 1, header.nlmsg_len - sizeof(header)},
  }};
  msghdr envelope{};
  envelope.msg_iov = parts.data();
  envelope.msg_iovlen = parts.size();
  Deadline deadline;
  while (sendmsg(fd(), &envelope, MSG_NOSIGNAL | MSG_DONTWAIT) == -1) {
    if (errno != EAGAIN && errno != EINTR) {
      return errno;
    }
    if (const int error = wait(POLLOUT, deadline)) {
      return error;
    }
  }
  return 0;
}

int NetlinkSocket::receive(Deadline& deadline, std::span<const std::byte>* datagram) {
  sockaddr_nl sender{};
  socklen_t sender_size = sizeof(sender);
  auto* address = is_emulated() ? nullptr : reinterpret_cast<sockaddr*>(&sender);
  ssize_t size = 0;
  // With MSG_TRUNC the result is the size of the whole datagram, even where it did not fit.
  while ((size = recvfrom(fd(), buffer_.get(), kBufferSize, MSG_DONTWAIT | MSG_TRUNC, address,
                          &sender_size)) == -1) {
    if (errno != EAGAIN && errno != EINTR) {
      return errno;
    }
    // The deadline reads the clock, so it is not asked before there is nothing to receive.
    if (const int error = wait(POLLIN, deadline)) {
      return error;
    }
  }
  if (is_emulated() && size == 0) {
    return ECONNRESET;
  }
  *datagram = {buffer_.get(), std::min(static_cast<size_t>(size), kBufferSize)};
  show_received(protocol_, *datagram);
  if (sender.nl_pid != 0) {
    *datagram = {};
    return 0;
  }
  return static_cast<size_t>(size) > kBufferSize ? EMSGSIZE : 0;
}

int NetlinkSocket::wait(short events, Deadline& deadline) const {
  const timespec left = as_timespec(deadline.remaining());
  if (left.tv_sec == 0 && left.tv_nsec == 0) {
    return ETIMEDOUT;
  }
  pollfd poll{fd(), events, 0};
  const int ready = ppoll(&poll, 1, &left, nullptr);
  return ready == 0 ? ETIMEDOUT : ready == -1 && errno != EINTR ? errno : 0;
}

}  // namespace corvil::netlink

CORVIL_EXPORT void corvil_netlink_set_timeout(int milliseconds) {
  corvil::netlink::chosen_timeout_ms = milliseconds;
}

CORVIL_EXPORT int corvil_netlink_timeout() {
  if (corvil::netlink::chosen_timeout_ms != 0) {
    return corvil::netlink::chosen_timeout_ms;
  }
  const char* text = secure_getenv("CORVIL_NETLINK_TIMEOUT_MS");
  if (text == nullptr || text[0] == '\0') {
    return corvil::netlink::kDefaultTimeoutMs;
  }
  int milliseconds = 0;
  const char* end = text + strlen(text);
  const auto [rest, error] = std::from_chars(text, end, milliseconds);
  if (error == std::errc{} && rest == end && milliseconds > 0) {
    return milliseconds;
  }
  return corvil::netlink::fail(
      EINVAL, "CORVIL_NETLINK_TIMEOUT_MS: '%s' is not a positive number of milliseconds", text);
}
