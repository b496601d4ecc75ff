// The sockets of the emulated kernel.
#pragma once

#include <poll.h>
#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <string>
#include <vector>

#include "reference_kernel/emulator/kernel.h"
#include "reference_kernel/emulator/netlink.h"
#include "reference_kernel/emulator/unix_socket.h"

namespace tavik_wlan {

/// Who sends requests.
struct Peer {
  uint32_t port_id = 0;  // the connection's number, which no other one gets
  pid_t pid = 0;         // of the process that connected; 0: not known
};

/// Serves a kernel's clients at a path. When there are no descriptors for another client it hangs
/// up on the one that has been quiet for longest, and when too many bytes wait for all of them on
/// the one that has not read for longest. All but stop() is for one thread.
class Server {
 public:
  /// Sees each request, one message, and whether it was accepted. It must neither throw nor call
  /// the server or its kernel.
  using Observer = std::function<void(const Peer& peer, Bytes message, const Status& status)>;

  /// Listens; nothing is served before run(). Throws std::system_error.
  Server(const std::string& path, Kernel& kernel, Observer observer);
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
    Clock::time_point due;
    bool is_answer;  // of which monitors get a copy
  };

  /// While it has something unsent nothing is received from it, which bounds its queue.
  struct Client {
    FileDescriptor socket;
    Peer peer;
    Clock::time_point active = Clock::now();  // when it last connected, sent or received
    std::deque<Outgoing> unsent{};
    size_t unsent_bytes = 0;
    bool is_monitor = false;
    uint32_t lost = 0;  // copies that it read too slowly to get

    /// What to poll for.
    [[nodiscard]] short awaited(Clock::time_point now) const;
    void queue(Datagram bytes, Clock::time_point due = {}, bool is_answer = false);
    void drop_unsent();
    /// The client is gone when the others are through.
    void hang_up();
  };

  [[nodiscard]] std::vector<pollfd> watched() const;
  [[nodiscard]] int poll_timeout() const;
  void accept_client();
  void make_room_for_client();
  void make_room_for_answers();
  void serve(Client& client, short events);
  void receive(Client& client);
  void handle(Client& client, Bytes datagram);
  void handle_control(Client& client, Bytes message);
  Status apply_control(Client& client, uint16_t type, Bytes payload);
  void copy_to_monitors(const Client& client, Bytes datagram, bool is_request);
  void flush(Client& client);

  Kernel& kernel_;
  const Observer observer_;
  Listener listener_;
  FileDescriptor stopped_;  // an eventfd
  std::list<Client> clients_;
  uint32_t connections_ = 0;  // so far
  std::vector<uint8_t> buffer_;
};

}  // namespace tavik_wlan
