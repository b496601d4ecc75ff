// The names and shapes of the protocol in tavik_wlan.h, for every reader of it in C++.
#pragma once

#include <linux/genetlink.h>
#include <linux/netlink.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

#include "kernel_interface/tavik_wlan.h"

namespace tavik_wlan {

using Bytes = std::span<const uint8_t>;

/// What an attribute holds.
enum class Kind {
  kU8,
  kU16,
  kU32,
  kPort,  // 16 bits in network byte order
  kString,
  kName,          // a string: the name of a network interface
  kAddress,       // a string: an IPv4 or IPv6 address
  kTuples,        // nested: elements
  kTupleElement,  // nested: one tuple
  kTuple,         // a DatapathTuple
  kOperations,    // nested: the operations of a family, as the controller tells them
};

// NOLINTBEGIN(clang-analyzer-optin.performance.Padding): members are in the order a row reads best.

struct AttributeInfo {
  uint16_t type;
  const char* name;
  Kind kind;
  std::span<const AttributeInfo> inside{};  // the attributes that it may contain
};

struct CommandInfo {
  uint8_t command;
  const char* name;
  std::initializer_list<uint16_t> attributes{};            // of a request; all are required
  uint32_t flags = GENL_CMD_CAP_DO | GENL_UNS_ADMIN_PERM;  // as the controller tells them

  [[nodiscard]] bool carries(uint16_t type) const {
    return std::ranges::find(attributes, type) != attributes.end();
  }
};

// NOLINTEND(clang-analyzer-optin.performance.Padding)

inline constexpr AttributeInfo kInTupleElement[] = {
    {TAVIK_WLAN_TUPLE_ATTR, "TUPLE", Kind::kTuple},
};

inline constexpr AttributeInfo kInTuples[] = {
    {TAVIK_WLAN_TUPLE_ELEMENT, "ELEMENT", Kind::kTupleElement, kInTupleElement},
};

inline constexpr AttributeInfo kAttributes[] = {
    {TAVIK_WLAN_ATTR_TUPLES, "TUPLES", Kind::kTuples, kInTuples},
    {TAVIK_WLAN_ATTR_DEV, "DEV", Kind::kName},
    {TAVIK_WLAN_ATTR_FWD_FROM, "FWD_FROM", Kind::kName},
    {TAVIK_WLAN_ATTR_FWD_TO, "FWD_TO", Kind::kName},
    {TAVIK_WLAN_ATTR_ENCAP_PORT, "ENCAP_PORT", Kind::kPort},
    {TAVIK_WLAN_ATTR_SELECTOR, "SELECTOR", Kind::kU8},
    {TAVIK_WLAN_ATTR_LL_SRC_ADDR, "LL_SRC_ADDR", Kind::kAddress},
    {TAVIK_WLAN_ATTR_LL_DST_ADDR, "LL_DST_ADDR", Kind::kAddress},
    {TAVIK_WLAN_ATTR_LL_SRC_PORT, "LL_SRC_PORT", Kind::kPort},
    {TAVIK_WLAN_ATTR_LL_DST_PORT, "LL_DST_PORT", Kind::kPort},
};

inline constexpr CommandInfo kCommands[] = {
    {TAVIK_WLAN_CMD_ADD_TUPLES, "ADD_TUPLES", {TAVIK_WLAN_ATTR_TUPLES}},
    {TAVIK_WLAN_CMD_DEL_TUPLES, "DEL_TUPLES", {TAVIK_WLAN_ATTR_TUPLES}},
    {TAVIK_WLAN_CMD_SET_DEV, "SET_DEV", {TAVIK_WLAN_ATTR_SELECTOR, TAVIK_WLAN_ATTR_DEV}},
    {TAVIK_WLAN_CMD_UNSET_DEV, "UNSET_DEV", {TAVIK_WLAN_ATTR_SELECTOR, TAVIK_WLAN_ATTR_DEV}},
    {TAVIK_WLAN_CMD_ADD_FWD_INFO,
     "ADD_FWD_INFO",
     {TAVIK_WLAN_ATTR_SELECTOR, TAVIK_WLAN_ATTR_FWD_TO, TAVIK_WLAN_ATTR_FWD_FROM}},
    {TAVIK_WLAN_CMD_DEL_FWD_INFO,
     "DEL_FWD_INFO",
     {TAVIK_WLAN_ATTR_SELECTOR, TAVIK_WLAN_ATTR_FWD_TO, TAVIK_WLAN_ATTR_FWD_FROM}},
    {TAVIK_WLAN_CMD_SET_ENCAP_PORT, "SET_ENCAP_PORT", {TAVIK_WLAN_ATTR_ENCAP_PORT}},
    {TAVIK_WLAN_CMD_UNSET_ENCAP_PORT, "UNSET_ENCAP_PORT", {TAVIK_WLAN_ATTR_ENCAP_PORT}},
    {TAVIK_WLAN_CMD_RESET, "RESET"},
    {TAVIK_WLAN_CMD_ENCAP_PORT_ACT_PASS_THROUGH,
     "ENCAP_PORT_ACT_PASS_THROUGH",
     {TAVIK_WLAN_ATTR_ENCAP_PORT}},
    {TAVIK_WLAN_CMD_ENCAP_PORT_ACT_DROP, "ENCAP_PORT_ACT_DROP", {TAVIK_WLAN_ATTR_ENCAP_PORT}},
    {TAVIK_WLAN_CMD_LL_ADDR_ADD,
     "LL_ADDR_ADD",
     {TAVIK_WLAN_ATTR_LL_SRC_ADDR, TAVIK_WLAN_ATTR_LL_DST_ADDR, TAVIK_WLAN_ATTR_LL_SRC_PORT,
      TAVIK_WLAN_ATTR_LL_DST_PORT}},
    {TAVIK_WLAN_CMD_LL_ADDR_FLUSH, "LL_ADDR_FLUSH"},
    {TAVIK_WLAN_CMD_GET_TUPLES, "GET_TUPLES", {}, GENL_CMD_CAP_DUMP},
};

/// The row of a table; null when there is none.
const AttributeInfo* find_attribute(std::span<const AttributeInfo> attributes, uint32_t type);
const CommandInfo* find_command(std::span<const CommandInfo> commands, uint8_t command);

/// The name of an attribute, "type 11" when it is in no row.
std::string attribute_name(std::span<const AttributeInfo> attributes, uint32_t type);

/// "tcp", "udp", "esp", or the number of any other protocol.
std::string transport_name(uint8_t trans_proto);

/// The port of a tuple, or the SPI of an ESP tuple, in host byte order.
uint32_t tuple_value(const DatapathTuple& tuple);

/// "ipv4 tcp 443", "ipv6 esp 0x00001001"; the value is that of tuple_value().
std::string tuple_text(unsigned ip_proto, std::string_view transport, uint32_t value);
std::string tuple_text(const DatapathTuple& tuple);

/// The T that `bytes` begin with, which are at least that many; they may lie unaligned.
template <typename T>
T load(Bytes bytes) {
  static_assert(std::is_trivially_copyable_v<T>);
  T value;
  memcpy(&value, bytes.first(sizeof(T)).data(), sizeof(T));
  return value;
}

/// Takes the first message off a datagram; nothing when its length cannot be right.
std::optional<Bytes> take_message(Bytes& datagram);

/// An attribute of a message.
struct Attribute {
  uint16_t type;    // without its flags
  bool nested;      // has NLA_F_NESTED
  uint32_t offset;  // of its header from the start of the message, in bytes
  Bytes payload;
};

/// A walk over a run of attributes, which reads nothing beyond the run whatever it holds.
class AttributeReader {
 public:
  /// Reads what follows the headers of a generic netlink message.
  explicit AttributeReader(Bytes message) : AttributeReader(message, NLMSG_HDRLEN + GENL_HDRLEN) {}

  /// Reads what follows the first `offset` bytes of a message.
  AttributeReader(Bytes message, size_t offset);

  /// Reads what `container` holds.
  explicit AttributeReader(const Attribute& container);

  /// The next attribute; nothing at the end of the run and before an attribute whose length is
  /// below that of its header or exceeds what is left.
  std::optional<Attribute> next();

  /// After next() gave nothing: whether it stopped before the end of the run.
  [[nodiscard]] bool has_leftover() const { return !left_.empty(); }

 private:
  Bytes left_;
  uint32_t offset_;
};

/// What an extack's offset points at.
struct FoundAttribute {
  std::string name;                         // "DEV", "TUPLES[3].TUPLE"; empty: none is there
  const AttributeInfo* info = nullptr;      // null: it is unknown, or none is there
  Bytes payload{};                          // of it
  std::span<const AttributeInfo> inside{};  // what it may contain; of none: what the message may
};

/// The innermost attribute of a generic netlink message that holds the byte at `offset`. The
/// message may contain `attributes`.
FoundAttribute attribute_at(Bytes message, std::span<const AttributeInfo> attributes,
                            uint32_t offset);

}  // namespace tavik_wlan
