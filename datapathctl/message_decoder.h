// Netlink messages of the family TAVIK_WLAN and of the controller, by name, and from files.
#pragma once

#include <linux/genetlink.h>
#include <linux/netlink.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "datapathctl/command.h"

namespace datapathctl {

enum class Subject {
  kOther,
  kLookUp,  // the controller is asked for the family, or tells about it
  kFamily,
};

struct Message {
  std::span<const uint8_t> bytes{};  // where it was decoded from
  Subject subject = Subject::kOther;
  bool is_request = false;
  bool is_failure = false;  // an answer with an error, or malformed
  /// "message" names it: "TAVIK_WLAN ADD_TUPLES", "ACK", "ERROR EEXIST", "DONE", or "MALFORMED" for
  /// what is no whole message. "request" is the name of the command that an answer is to;
  /// "attribute", "value" and "missing" tell what an error points at. "attributes" maps names to
  /// values: numbers in host byte order, tuples as of tuple_as_json(), strings that need not be
  /// UTF-8, and in hexadecimal what can't be any of these. "seq", "port_id" and "length" are those
  /// of the header. What isn't known is left out.
  nlohmann::ordered_json json = nlohmann::ordered_json::object();
};

/// Decodes the datagrams of both sides in their order. Learns the family's id from the controller's
/// answers among them, and remembers the latest requests to tell what their answers are about. Not
/// thread-safe.
class MessageDecoder {
 public:
  /// Takes the family's id, where it is known before.
  explicit MessageDecoder(uint16_t family_id = 0) : family_id_(family_id) {}

  /// The messages of a datagram. Reads nothing beyond it.
  std::vector<Message> decode(std::span<const uint8_t> datagram);

  /// The id of TAVIK_WLAN; 0: not known yet.
  [[nodiscard]] uint16_t family_id() const { return family_id_; }

 private:
  struct Request {
    Subject subject;
    std::vector<uint8_t> bytes;
  };

  void decode_generic(Message* message);
  void decode_answer(Message* message);
  [[nodiscard]] const Request* find_request(const nlmsghdr& asked) const;
  [[nodiscard]] std::string name_of(std::span<const uint8_t> message) const;
  [[nodiscard]] bool is_family(uint16_t type) const { return type == family_id_ && type != 0; }

  uint16_t family_id_;
  std::deque<Request> requests_{};  // the latest about the family, the newest first
};

/// A decoded message as printable text: what it is, what it is about and, of an answer, the
/// outcome. That is one line or, in full, a head and a line for each attribute. The last line has
/// no end.
std::string to_text(const Message& message, bool full);

/// A name of a message without the family that most names belong to.
std::string short_name(const std::string& name);

/// What a decoded answer complains of, such as "DEV \"wlan0\"" or "missing DEV"; empty: of nothing.
std::string complaint_of(const nlohmann::ordered_json& answer);

/// "EPERM" and so on, or the number of an errno without a name.
std::string error_name(int error);

/// A tuple as every JSON output writes it: {"ip":4,"transport":"tcp","port":443}, or with the whole
/// SPI {"ip":6,"transport":"esp","spi":4097}. The value is in host byte order.
nlohmann::ordered_json tuple_as_json(unsigned ip, std::string_view transport, uint32_t value);

/// "ipv4 tcp 443", "ipv6 esp 0x00001001".
std::string tuple_text(const nlohmann::ordered_json& tuple);

/// The value of a decoded attribute as text: a string with its bytes as they are, in quotes; of a
/// list the first elements and, where there are more, how many they are.
std::string value_text(const nlohmann::ordered_json& value, size_t limit = SIZE_MAX);

/// JSON in one line of ASCII; what is not UTF-8 is replaced by U+FFFD.
std::string json_text(const nlohmann::ordered_json& object);

/// One line that a terminal only prints: each byte that is no part of a printable character of the
/// process's locale is escaped, as \x1b.
std::string printable(std::string_view text);

/// Bytes in hexadecimal, in groups of four.
std::string to_hex(std::span<const uint8_t> bytes);

struct Packet {
  std::optional<std::chrono::system_clock::time_point> time{};
  std::vector<uint8_t> datagram{};
};

/// Appends the generic netlink datagrams of a file. With a NUL byte in it, it is a capture in the
/// pcap format, in this machine's byte order, whose packets have times. A failure says what is
/// wrong with it; the packets before that are there.
///
/// Otherwise it is text. A line with the word "bytes" begins a datagram with what follows the word,
/// as --hex prints it; other lines with nothing but hexadecimal digits and blanks go on where the
/// line before ended, or begin one. The rest of the text is skipped.
Result read_packets(std::string_view file, std::vector<Packet>* packets);

}  // namespace datapathctl
