// A kernel for the reference host that answers whatever a test says.
#pragma once

#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "reference_host/netlink/corvil_netlink_control.h"

/// Takes the place of the machine's kernel until its end. Answers each request when the trace hook
/// shows it, that is before it is sent: over the newest connection, on the thread that sends it.
class ScriptedKernel {
 public:
  /// The datagrams that answer a request; an empty one ends the connection.
  using Script = std::function<std::vector<std::string>(const nlmsghdr& request)>;

  explicit ScriptedKernel(Script script) : script_(std::move(script)) {
    sockaddr_un address{AF_UNIX, {}};
    name_.copy(&address.sun_path[1], sizeof(address.sun_path) - 1, 1);
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name_.size());
    if (bind(listener_, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
        listen(listener_, 8) != 0) {
      abort();
    }
    corvil_netlink_set_emulator(name_.c_str());
    corvil_netlink_set_trace(trace, this);
  }
  ScriptedKernel(const ScriptedKernel&) = delete;
  ScriptedKernel& operator=(const ScriptedKernel&) = delete;
  ~ScriptedKernel() {
    corvil_netlink_set_trace(nullptr, nullptr);
    corvil_netlink_set_emulator(nullptr);
    close(listener_);
    close(peer_);
  }

  /// How many have been made to it.
  [[nodiscard]] int connections() const { return connections_; }

 private:
  static void trace(CorvilNetlinkDirection direction, const void* bytes, size_t /*length*/,
                    void* context) {
    if (direction == CORVIL_NETLINK_SENT) {
      static_cast<ScriptedKernel*>(context)->answer(*static_cast<const nlmsghdr*>(bytes));
    }
  }

  void answer(const nlmsghdr& request) {
    if (const int peer = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC); peer != -1) {
      close(peer_);
      peer_ = peer;
      ++connections_;
    }
    for (const std::string& datagram : script_(request)) {
      if (datagram.empty()) {
        shutdown(peer_, SHUT_WR);
      }
      send(peer_, datagram.data(), datagram.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    }
  }

  const int listener_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  int peer_ = -1;
  int connections_ = 0;
  static inline int count_ = 0;
  // Each kernel has an address of its own: the library keeps its connection to one, with what is
  // left of the answers there.
  const std::string name_ =
      "@scripted_kernel." + std::to_string(getpid()) + "." + std::to_string(++count_);
  const Script script_;
};
