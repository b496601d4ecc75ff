// What a served emulator is asked besides netlink, over the same sockets.
#ifndef REFERENCE_KERNEL_EMULATOR_CONTROL_H_
#define REFERENCE_KERNEL_EMULATOR_CONTROL_H_

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "kernel_interface/protocol.h"
#include "reference_kernel/emulator/netlink.h"
#include "reference_kernel/emulator/unix_socket.h"

namespace tavik_wlan {

/// The types of messages to the emulator itself, above those that a kernel gives to families.
/// Faults do not concern them. Each is answered by an acknowledgement, after what it asks for.
enum Control : uint16_t {
  kControlState = 0xff00,  // Asks for the state: messages of this type, whose payload is its text.
};

/// A message of such a type, without padding, so that its length is that of its payload.
Datagram control_message(uint16_t type, Bytes payload);

/// Such a message's payload.
inline Bytes control_payload(Bytes message) { return message.subspan(NLMSG_HDRLEN); }

/// A connection to an emulator, in this process or another one, to steer it. All of it throws
/// std::system_error: ENOENT or ECONNREFUSED when nobody serves there, ETIMEDOUT when an answer
/// takes longer than the patience, ECONNRESET when the emulator ends. For one thread.
class ControlClient {
 public:
  /// Connects to the emulator that serves at `path`, which may be an abstract address ("@name").
  ControlClient(const std::string& path, std::chrono::milliseconds patience);

  /// What the family holds; see Emulator::state().
  std::string state();

 private:
  std::string ask(uint16_t type, const std::string& text);
  Bytes receive();

  FileDescriptor socket_;
  std::vector<uint8_t> buffer_;
};

}  // namespace tavik_wlan

#endif  // REFERENCE_KERNEL_EMULATOR_CONTROL_H_
