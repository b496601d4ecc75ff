// The encoder of what the emulated kernel sends.
#ifndef REFERENCE_KERNEL_EMULATOR_DATAGRAM_WRITER_H_
#define REFERENCE_KERNEL_EMULATOR_DATAGRAM_WRITER_H_

#include <linux/netlink.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <utility>

#include "reference_kernel/emulator/message.h"
#include "reference_kernel/emulator/verdict.h"

namespace tavik_wlan {

/// One datagram, its messages written one after the other. Whatever is appended is padded with
/// zero bytes to a multiple of 4.
class DatagramWriter {
 public:
  /// Begins a message that answers `request`: with its sequence number and port id.
  void begin_message(const nlmsghdr& request, uint16_t type, uint16_t flags);
  void end_message();

  /// Begins an attribute that holds what is written up to the end_nest() that gets the result;
  /// `type` includes NLA_F_NESTED where wanted.
  [[nodiscard]] size_t begin_nest(uint16_t type);
  void end_nest(size_t nest);

  /// Appends a header or another plain structure.
  template <typename T>
  void append(const T& value) {
    append_bytes(std::as_bytes(std::span(&value, 1)));
  }

  /// Appends an attribute.
  template <typename T>
  void put(uint16_t type, const T& value) {
    const size_t nest = begin_nest(type);
    write(nest, nlattr{static_cast<uint16_t>(NLA_HDRLEN + sizeof(T)), type});
    append(value);
  }

  /// Appends an attribute that holds `text` and a NUL.
  void put_string(uint16_t type, std::string_view text);

  [[nodiscard]] size_t size() const { return bytes_.size(); }
  Datagram take() { return std::move(bytes_); }

 private:
  void append_bytes(Bytes bytes);
  template <typename T>
  void write(size_t offset, const T& value) {
    memcpy(bytes_.data() + offset, &value, sizeof(T));
  }

  Datagram bytes_;
  size_t message_ = 0;  // offset of the message's header
};

/// The acknowledgement of `request`, as to a socket that wants extended and capped ones.
Datagram acknowledgement(const nlmsghdr& request, const Verdict& verdict);

/// Appends the end of a multi-part answer to `request`.
void append_done(DatagramWriter& writer, const nlmsghdr& request);

}  // namespace tavik_wlan

#endif  // REFERENCE_KERNEL_EMULATOR_DATAGRAM_WRITER_H_
