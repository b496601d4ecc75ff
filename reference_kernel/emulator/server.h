// The sockets of the emulated kernel.
#ifndef REFERENCE_KERNEL_EMULATOR_SERVER_H_
#define REFERENCE_KERNEL_EMULATOR_SERVER_H_

#include <poll.h>

#include <chrono>
#include <cstddef>
#include <deque>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "reference_kernel/emulator/kernel.h"
#include "reference_kernel/emulator/netlink.h"
#include "reference_kernel/emulator/unix_socket.h"

namespace tavik_wlan {

/// Serves a kernel's clients at a path, and readers of its state at the path with ".state" added.
/// Hangs up on the client that has been quiet for longest when there are too many clients, and on
/// the one that has not read for longest when too many bytes wait for all of them. All but stop()
/// is for one thread.
class Server {
 public:
  /// Listens; nothing is served before run(). Throws std::system_error.
  Server(const std::string& path, Kernel& kernel);
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;
  ~Server() = default;

  /// Serves until stop() is called.
  void run();

  /// Makes run() return. Thread-safe.
  void stop() const;

 private:
  using Clock = std::chrono::steady_clock;

  struct Outgoing {
    Datagram bytes;
    size_t sent = 0;  // Only a stream takes a part.
    Clock::time_point due;
  };

  /// While it has something unsent nothing is received from it, which bounds its queue.
  struct Client {
    FileDescriptor socket;
    bool reads_state;  // a reader of the state, which is closed once it has it
    Clock::time_point active = Clock::now();  // when it last connected, sent or received
    std::deque<Outgoing> unsent{};

    /// What to poll for.
    [[nodiscard]] short awaited(Clock::time_point now) const;
    /// Sends what is due, as far as it is taken.
    void flush();
    /// Forgets what is unsent. The client is gone when the others are through.
    void hang_up();
  };

  [[nodiscard]] std::vector<pollfd> watched() const;
  [[nodiscard]] int poll_timeout() const;
  [[nodiscard]] size_t queued() const;
  void accept_client(const Listener& listener, bool reads_state);
  void make_room_for_client();
  void make_room_for_answers();
  void serve(Client& client, short events);
  void receive(Client& client);

  Kernel& kernel_;
  PathLock lock_;
  Listener requests_;
  Listener state_;
  FileDescriptor stopped_;  // an eventfd
  std::list<Client> clients_;
  Clock::time_point accept_again_{};  // until then no connection is accepted
  std::vector<uint8_t> buffer_;
};

}  // namespace tavik_wlan

#endif  // REFERENCE_KERNEL_EMULATOR_SERVER_H_
