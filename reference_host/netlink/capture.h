// The process's capture file, for Wireshark and its kin.
#ifndef REFERENCE_HOST_NETLINK_CAPTURE_H_
#define REFERENCE_HOST_NETLINK_CAPTURE_H_

#include <atomic>
#include <climits>
#include <cstddef>

#include "reference_host/netlink/corvil_netlink_control.h"
#include "reference_host/netlink/descriptor.h"

namespace corvil::netlink {

/// A pcap file of link type NETLINK. Every packet goes out in one system call, so that the file can
/// be read while it grows and threads do not mix theirs; whatever fails, or would have to wait,
/// ends the capture and nothing else. Stays open, and locked, to the end of the process.
/// Thread-safe.
class Capture {
 public:
  /// Creates the file that CORVIL_NETLINK_PCAP names, if any.
  Capture();

  [[nodiscard]] bool is_on() const { return file_.number() != -1 && error() == 0; }

  /// Why messages are missing, a positive errno; 0: none are.
  [[nodiscard]] int error() const { return error_.load(std::memory_order_relaxed); }

  [[nodiscard]] const char* path() const { return path_; }

  /// Writes one datagram of a netlink protocol. Only while is_on().
  void write(CorvilNetlinkDirection direction, int protocol, const void* bytes, size_t length);

 private:
  /// Writes a header and what it belongs to.
  void write(const void* header, size_t header_length, const void* bytes, size_t length);

  char path_[PATH_MAX] = "";
  Descriptor file_;
  std::atomic<int> error_{0};
};

/// Created by its first use.
Capture& capture();

}  // namespace corvil::netlink

#endif  // REFERENCE_HOST_NETLINK_CAPTURE_H_
