// A kept socket to the kernel or to an emulator of it.
#pragma once

#include <linux/netlink.h>
#include <sys/un.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "reference_host/netlink/descriptor.h"

namespace corvil::netlink {

/// The time at which a wait is given up: CORVIL_NETLINK_TIMEOUT_MS after remaining() was first
/// called. An exchange that never waits therefore reads neither the clock nor that variable.
/// Interrupted waits and foreign messages do not move it.
class Deadline {
 public:
  /// Zero once it has passed.
  [[nodiscard]] std::chrono::nanoseconds remaining();

  /// Zero before the first call of remaining().
  [[nodiscard]] std::chrono::milliseconds timeout() const { return timeout_; }

 private:
  std::chrono::milliseconds timeout_{};
  std::chrono::steady_clock::time_point end_;
};

/// What returns an int returns 0 or a positive errno, which is ETIMEDOUT when it would have had to
/// wait longer than the time-out. For one thread only.
class NetlinkSocket {
 public:
  NetlinkSocket() = default;
  ~NetlinkSocket() { close(); }
  NetlinkSocket(const NetlinkSocket&) = delete;
  NetlinkSocket& operator=(const NetlinkSocket&) = delete;

  /// Whether requests of a netlink protocol to an emulator, or to the kernel where its path is
  /// empty, can go through this socket. Not in a forked child, because the parent still uses the
  /// connection, and not once the host has closed the descriptor.
  [[nodiscard]] bool is_open_to(int protocol, const char* emulator) const;

  /// Closes the socket and opens one to there.
  [[nodiscard]] int open(int protocol, const char* emulator);

  void close() { socket_.close(); }

  /// Sends one datagram: `header`, then the message's bytes behind its own header. EPIPE or
  /// ECONNRESET when the peer has closed the connection.
  [[nodiscard]] int send(const nlmsghdr& header, const nlmsghdr* message);

  /// Receives the next datagram, 4-byte aligned and valid until the next call; in place of one that
  /// the kernel did not send there is an empty one. ENOBUFS when some were lost, after which the
  /// socket can still be used; EMSGSIZE when one did not fit the buffer; ECONNRESET when the peer
  /// has closed the connection.
  [[nodiscard]] int receive(Deadline& deadline, std::span<const std::byte>* datagram);

 private:
  [[nodiscard]] int open_kernel();
  [[nodiscard]] int open_emulator();
  /// Waits until the socket is ready, or a signal comes.
  [[nodiscard]] int wait(short events, Deadline& deadline) const;
  [[nodiscard]] int fd() const { return socket_.number(); }
  [[nodiscard]] bool is_emulated() const { return emulator_.sun_path[0] != '\0'; }

  Descriptor socket_;
  std::unique_ptr<std::byte[]> buffer_;
  int protocol_ = 0;
  sockaddr_un emulator_{};  // Without a path: the kernel.
  uint32_t fork_generation_ = 0;
};

}  // namespace corvil::netlink
