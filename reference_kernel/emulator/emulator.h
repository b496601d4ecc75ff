// An emulated kernel with the family TAVIK_WLAN, for machines whose own kernel lacks it.
#pragma once

#include <string>
#include <thread>
#include <utility>

#include "reference_kernel/emulator/kernel.h"
#include "reference_kernel/emulator/server.h"

namespace tavik_wlan {

/// Answers generic netlink over AF_UNIX sockets of type SOCK_SEQPACKET, one packet for what is one
/// datagram of AF_NETLINK, to many clients. It holds one state for all of them. Requests of up to
/// 128 KiB are taken; a longer one ends its connection. Of more clients than the descriptors
/// suffice for, those who have been quiet for longest are hung up on; so are those who have not
/// read for longest when more than 64 MiB of answers wait to be read.
///
/// Only the emulator's user, and root, may connect. A path such as "@name" is the abstract address
/// of that name: it takes no file. A ControlClient connects to the same path.
class Emulator {
 public:
  /// Serves at `path`, of at most 107 bytes, on a thread of its own, on which the observer sees the
  /// requests. A socket that a dead emulator left there is replaced. Throws std::system_error, with
  /// EADDRINUSE when a live one or any other file is there.
  explicit Emulator(std::string path, Server::Observer observer = {})
      : path_(std::move(path)),
        server_(path_, kernel_, std::move(observer)),
        thread_([this] { server_.run(); }) {}
  Emulator(const Emulator&) = delete;
  Emulator& operator=(const Emulator&) = delete;
  /// Hangs up on its clients, unsent answers or not, and removes its file.
  ~Emulator() {
    server_.stop();
    thread_.join();
  }

  [[nodiscard]] const std::string& path() const { return path_; }

  /// What the family holds, one line a thing, in this order; ports and SPIs in host byte order:
  ///
  ///     tuple ipv4 tcp 443
  ///     tuple ipv4 esp 0x00001001
  ///     device 1 wlan0                       selector, device
  ///     forward 1 wwan0 wlan0                selector, from, to
  ///     encap 4500                           then " pass-through" or " drop" where chosen
  ///     lowlat 10.0.0.1 5000 10.0.0.2 5001   source and its port, destination and its port
  ///
  /// Tuples are sorted by IP version, transport protocol number and port or SPI, devices and
  /// forwardings by selector and names, flows by IP version, source, destination and their ports.
  /// Thread-safe.
  [[nodiscard]] std::string state() const { return kernel_.state(); }

  /// Replaces the faults, for requests not yet received. Thread-safe.
  void inject(const Faults& faults) { kernel_.inject(faults); }

 private:
  const std::string path_;
  Kernel kernel_;
  Server server_;
  std::thread thread_;
};

}  // namespace tavik_wlan
