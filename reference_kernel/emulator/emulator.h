// An emulated kernel with the family TAVIK_WLAN, for machines whose own kernel lacks it.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <list>
#include <string>
#include <thread>
#include <vector>

#include "reference_kernel/emulator/kernel.h"
#include "reference_kernel/emulator/netlink.h"
#include "reference_kernel/emulator/unix_socket.h"

namespace tavik_wlan {

/// Answers generic netlink over AF_UNIX sockets of type SOCK_SEQPACKET, one packet for what is one
/// datagram of AF_NETLINK, to many clients. It holds one state for all of them. Requests of up to
/// 128 KiB are taken; a longer one ends its connection. Of more clients than the descriptors
/// suffice for, those who have been quiet for longest are hung up on.
///
/// Only the emulator's user, and root, may connect. A path such as "@name" is the abstract address
/// of that name: it takes no file. A ControlClient connects to the same path.
class Emulator {
 public:
  /// Serves at `path`, of at most 107 bytes, on a thread of its own. A socket that a dead emulator
  /// left there is replaced. Throws std::system_error, with EADDRINUSE when a live one or any other
  /// file is there.
  explicit Emulator(std::string path);
  Emulator(const Emulator&) = delete;
  Emulator& operator=(const Emulator&) = delete;
  /// Hangs up on its clients, unsent answers or not, and removes its file.
  ~Emulator();

  [[nodiscard]] const std::string& path() const { return path_; }

  /// What the family holds; see State::text(). Thread-safe.
  [[nodiscard]] std::string state() const { return kernel_.state(); }

  /// Replaces the faults, for requests not yet received; see parse_faults(). Thread-safe.
  void inject(const std::string& words) { kernel_.inject(words); }

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
    uint32_t port_id;                         // the connection's number, which no other one gets
    pid_t pid;                                // of the process that connected; 0: not known
    Clock::time_point active = Clock::now();  // when it last connected, sent or received
    std::deque<Outgoing> unsent{};
    size_t unsent_bytes = 0;
    bool is_monitor = false;
    uint64_t lost = 0;  // copies that it read too slowly to get

    /// What to poll for.
    [[nodiscard]] short awaited(Clock::time_point now) const;
    void queue(Datagram bytes, Clock::time_point due = {}, bool is_answer = false);
    void drop_unsent();
    /// The client is gone when the others are through.
    void hang_up();
  };

  void run();
  void accept_client();
  void serve(Client& client, short events);
  void receive(Client& client);
  void handle(Client& client, Bytes datagram);
  Status handle_control(Client& client, uint16_t type, Bytes payload);
  void copy_to_monitors(const Client& client, Bytes datagram);
  void flush(Client& client);

  const std::string path_;
  Kernel kernel_;
  Listener listener_;
  std::list<Client> clients_;
  uint32_t connections_ = 0;  // so far
  std::vector<uint8_t> buffer_;
  std::thread thread_;
};

}  // namespace tavik_wlan
