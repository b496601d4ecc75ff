// Netlink messages of the family TAVIK_WLAN and of the controller, by name.
#ifndef DATAPATHCTL_MESSAGE_DECODER_H_
#define DATAPATHCTL_MESSAGE_DECODER_H_

#include <linux/genetlink.h>
#include <linux/netlink.h>

#include <cstdint>
#include <nlohmann/json.hpp>
#include <span>
#include <string>
#include <string_view>

namespace datapathctl {

struct NamedAttribute {
  std::string name;  // with those it lies in: "DEV", "TUPLES[3].TUPLE"; the first element is [0]
  nlohmann::ordered_json value;  // null of one that contains others
};

/// Decodes the datagrams of both sides in their order. Learns the family's id from the controller's
/// answers among them. Not thread-safe.
class MessageDecoder {
 public:
  /// Takes the family's id, where it is known before.
  explicit MessageDecoder(uint16_t family_id = 0) : family_id_(family_id) {}

  /// One object for each message of a datagram: "message" names it ("TAVIK_WLAN ADD_TUPLES", "ACK",
  /// "ERROR EEXIST", "DONE"), "seq" and "length" are those of its header, "attributes" maps names
  /// to values, ports and SPIs in host byte order; strings need not be UTF-8. What is no whole
  /// message becomes a "MALFORMED" one. Reads nothing beyond the datagram.
  nlohmann::ordered_json decode(std::span<const uint8_t> datagram);

  /// The innermost attribute that a request holds at an offset from its start; one without a name
  /// when there is none. The request is whole.
  [[nodiscard]] NamedAttribute attribute_at(std::span<const uint8_t> request,
                                            uint32_t offset) const;

  /// The name of an attribute that such a request lacks: by its type, and by the offset of the
  /// container it belongs in, 0 for the request itself.
  [[nodiscard]] std::string missing_attribute(std::span<const uint8_t> request, uint32_t type,
                                              uint32_t container_offset) const;

 private:
  nlohmann::ordered_json decode_message(std::span<const uint8_t> message);
  nlohmann::ordered_json decode_generic(std::span<const uint8_t> message);

  uint16_t family_id_;  // of TAVIK_WLAN; 0: not known yet
};

/// A decoded message as printable lines, each ended by a newline, the first one its head.
std::string to_text(const nlohmann::ordered_json& message);

/// The value of a decoded attribute as text: a string with its bytes as they are, in quotes.
std::string value_text(const nlohmann::ordered_json& value);

/// One line that a terminal only prints: each byte that is no part of a printable character of the
/// process's locale is escaped as \n, \t or, in hexadecimal, \x1b.
std::string printable(std::string_view text);

/// Bytes in hexadecimal, in groups of four.
std::string to_hex(std::span<const uint8_t> bytes);

}  // namespace datapathctl

#endif  // DATAPATHCTL_MESSAGE_DECODER_H_
