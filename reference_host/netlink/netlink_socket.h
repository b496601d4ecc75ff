// A kept socket to the kernel or to an emulator of it.
#ifndef REFERENCE_HOST_NETLINK_NETLINK_SOCKET_H_
#define REFERENCE_HOST_NETLINK_NETLINK_SOCKET_H_

#include <linux/netlink.h>
#include <sys/un.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "reference_host/netlink/deadline.h"
#include "reference_host/netlink/descriptor.h"

namespace corvil::netlink {

/// Where requests go.
struct Endpoint {
  int protocol;          // netlink protocol
  const char* emulator;  // path of the emulator's socket; empty: the kernel
};

/// Everything that can fail returns 0 or a positive errno; what has to wait longer than the
/// time-out returns ETIMEDOUT. For one thread only.
class NetlinkSocket {
 public:
  NetlinkSocket() = default;
  ~NetlinkSocket() { close(); }
  NetlinkSocket(const NetlinkSocket&) = delete;
  NetlinkSocket& operator=(const NetlinkSocket&) = delete;

  /// False as well once the process has forked: the parent goes on using the connection; and once
  /// the host has closed the descriptor.
  [[nodiscard]] bool is_open_to(const Endpoint& endpoint) const;

  /// Opens the socket, in place of the one before, and allocates the receive buffer if need be.
  [[nodiscard]] int open(const Endpoint& endpoint);

  void close() { socket_.close(); }

  /// Sends `header`, then the message's bytes behind its own header. EPIPE or ECONNRESET: the peer
  /// has closed the connection.
  [[nodiscard]] int send(const nlmsghdr& header, const nlmsghdr* message);

  /// Receives the peer's next whole datagram, 4-byte aligned and valid until the next call; those
  /// of other senders are dropped. ETIMEDOUT: none came in time; ENOBUFS: some were lost, the
  /// socket goes on; EMSGSIZE: one came truncated; ECONNRESET: the peer has closed the connection.
  [[nodiscard]] int receive(Deadline& deadline, std::span<const std::byte>* datagram);

 private:
  [[nodiscard]] int open_kernel();
  [[nodiscard]] int open_emulator();
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

#endif  // REFERENCE_HOST_NETLINK_NETLINK_SOCKET_H_
