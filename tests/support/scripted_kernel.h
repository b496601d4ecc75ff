// A kernel for the reference host that answers whatever a test says.
#ifndef TESTS_SUPPORT_SCRIPTED_KERNEL_H_
#define TESTS_SUPPORT_SCRIPTED_KERNEL_H_

#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "reference_host/netlink/corvil_netlink_control.h"

/// Answers each request when the trace hook shows it, that is before it is sent: over the newest
/// connection, on the thread that sends it. For one thread at a time.
class ScriptedKernel {
 public:
  /// The datagrams that answer a request; an empty one ends the connection.
  using Script = std::function<std::vector<std::string>(const nlmsghdr& request)>;

  /// Takes the place of the machine's kernel until its end, at a path where nothing is.
  ScriptedKernel(std::string path, Script script)
      : path_(std::move(path)), script_(std::move(script)) {
    sockaddr_un address{AF_UNIX, {}};
    path_.copy(address.sun_path, sizeof(address.sun_path) - 1);
    if (bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(listener_, 8) != 0) {
      abort();
    }
    setenv("CORVIL_NETLINK_EMULATOR", path_.c_str(), 1);
    corvil_netlink_set_trace(trace, this);
  }
  ScriptedKernel(const ScriptedKernel&) = delete;
  ScriptedKernel& operator=(const ScriptedKernel&) = delete;
  ~ScriptedKernel() {
    corvil_netlink_set_trace(nullptr, nullptr);
    unsetenv("CORVIL_NETLINK_EMULATOR");
    unlink(path_.c_str());
    close(listener_);
    close(peer_);
  }

  void answer_with(Script script) { script_ = std::move(script); }

 private:
  static void trace(CorvilNetlinkDirection direction, const void* bytes, size_t /*length*/,
                    void* kernel) {
    if (direction == CORVIL_NETLINK_SENT) {
      static_cast<ScriptedKernel*>(kernel)->answer(*static_cast<const nlmsghdr*>(bytes));
    }
  }

  void answer(const nlmsghdr& request) {
    if (const int peer = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC); peer != -1) {
      close(peer_);
      peer_ = peer;
    }
    for (const std::string& datagram : script_(request)) {
      if (datagram.empty()) {
        shutdown(peer_, SHUT_WR);
      } else {
        send(peer_, datagram.data(), datagram.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
      }
    }
  }

  const int listener_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  int peer_ = -1;
  const std::string path_;
  Script script_;
};

#endif  // TESTS_SUPPORT_SCRIPTED_KERNEL_H_
