// What a served emulator is asked besides netlink, over the same sockets.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kernel_interface/protocol.h"
#include "reference_kernel/emulator/netlink.h"
#include "reference_kernel/emulator/unix_socket.h"

namespace tavik_wlan {

/// The types of messages to the emulator itself, above those that a kernel gives to families.
/// Faults do not concern them. Each is answered by an acknowledgement, after what it asks for.
enum Control : uint16_t {
  kControlState = 0xff00,  // Asks for the state: messages of this type, whose payload is its text.
  kControlFaults,          // Replaces the faults; its payload are words as of parse_faults().
  kControlMonitor,         // Asks for copies: messages of this type, see control_copy().
};

/// A message of such a type, without padding, so that its length is that of its payload.
Datagram control_message(uint16_t type, std::string_view payload);

/// What a monitor is told about the copy of a datagram.
struct CopyHeader {
  // When the emulator received or sent it.
  std::chrono::system_clock::time_point time = std::chrono::system_clock::now();
  uint32_t port_id = 0;  // of the client: its connection's number, which no other one gets
  pid_t pid = 0;         // of the process that connected; 0: not known
  uint64_t lost = 0;     // how many are missing here, because the monitor read too slowly
};

/// A datagram between the emulator and one of its clients, as a monitor gets it.
struct MonitoredDatagram : CopyHeader {
  Bytes bytes{};  // empty where only `lost` is told
};

/// A message with such a copy.
Datagram control_copy(const CopyHeader& header, Bytes bytes);

/// The payload of a message of these types.
inline Bytes control_payload(Bytes message) { return message.subspan(NLMSG_HDRLEN); }

/// A connection to an emulator, in this process or another one, to steer and to watch it. It throws
/// std::system_error: ENOENT or ECONNREFUSED when nobody serves there, ETIMEDOUT when an answer
/// takes longer than the patience, ECONNRESET when the emulator ends. For one thread.
class ControlClient {
 public:
  /// Connects to the emulator that serves at `path`, which may be an abstract address ("@name").
  ControlClient(const std::string& path, std::chrono::milliseconds patience);

  /// What the family holds; see State::text().
  std::string state();

  /// Replaces the faults by those that words name; see parse_faults(). EINVAL when one is unknown.
  void set_faults(const std::string& words);

  /// Has the emulator send a copy of each netlink datagram of every client from now on. After this
  /// only next() may be called.
  void monitor();

  /// Waits, however long, for the next copy; nothing when the emulator has ended. The bytes are
  /// valid until the next call.
  std::optional<MonitoredDatagram> next();

  /// Readable when next() need not wait, for poll().
  [[nodiscard]] int fd() const { return socket_.get(); }

 private:
  std::string ask(uint16_t type, const std::string& text);
  Bytes receive();

  FileDescriptor socket_;
  std::vector<uint8_t> buffer_;
};

}  // namespace tavik_wlan
