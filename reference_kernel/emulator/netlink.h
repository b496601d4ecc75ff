// Generic netlink as a kernel speaks it: what requests must look like, and the encoding of answers.
#pragma once

#include <linux/netlink.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "kernel_interface/protocol.h"

namespace tavik_wlan {

using Datagram = std::vector<uint8_t>;

/// What the acknowledgement of a request says: its errno, and the extack that explains it.
struct [[nodiscard]] Status {
  int error = 0;                        // a negative errno
  const char* message = nullptr;        // a literal; null: there is no extack, nor what follows
  std::optional<uint32_t> offset = {};  // of the bad attribute's header in the request
  std::optional<uint32_t> missing_type = {};  // of the top-level attribute that is missing

  [[nodiscard]] bool ok() const { return error == 0; }
};

/// What becomes of a request.
struct Outcome {
  Status status{};
  std::vector<Datagram> replies{};  // what an accepted request asked for, its acknowledgement aside
};

inline bool is_dump(const nlmsghdr& header) {
  return (header.nlmsg_flags & NLM_F_DUMP) == NLM_F_DUMP;
}

/// A validated string, which ends at its first NUL.
inline std::string string_in(const Attribute& attribute) {
  return reinterpret_cast<const char*>(attribute.payload.data());
}

/// The attributes of a request to the family by type, of which the last of a type counts.
using Attributes = std::array<std::optional<Attribute>, TAVIK_WLAN_ATTR_MAX + 1>;

/// Validates the attributes of a message, which have to be those of its command.
Status parse_attributes(Bytes message, const CommandInfo& command, Attributes& attributes);

/// A datagram of one message that answers `request`: with its sequence number and port id. Whatever
/// is appended is padded with zero bytes to a multiple of 4.
class MessageWriter {
 public:
  MessageWriter(const nlmsghdr& request, uint16_t type, uint16_t flags);

  /// Begins an attribute that holds what is written up to the end_nest() that gets the result;
  /// `type` includes NLA_F_NESTED where wanted.
  [[nodiscard]] size_t begin_nest(uint16_t type);
  void end_nest(size_t nest);

  /// Appends a header or another plain structure.
  template <typename T>
  void append(const T& value) {
    append_bytes({reinterpret_cast<const uint8_t*>(&value), sizeof(value)});
  }

  /// Appends an attribute.
  template <typename T>
  void put(uint16_t type, const T& value) {
    append(nlattr{static_cast<uint16_t>(NLA_HDRLEN + sizeof(T)), type});
    append(value);
  }

  /// Appends an attribute that holds `text` and a NUL.
  void put_string(uint16_t type, const std::string& text);

  [[nodiscard]] size_t size() const { return bytes_.size(); }

  /// What was written, which ends it.
  Datagram take();

 private:
  void append_bytes(Bytes bytes);
  template <typename T>
  void write(size_t offset, const T& value) {
    memcpy(bytes_.data() + offset, &value, sizeof(T));
  }

  Datagram bytes_;
};

/// The acknowledgement of `request`, as to a socket that wants extended and capped ones.
Datagram acknowledgement(const nlmsghdr& request, const Status& status);

}  // namespace tavik_wlan
