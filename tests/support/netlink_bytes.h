// Netlink messages as strings of bytes, put together by name. Numbers are as the machine has them.
#pragma once

#include <linux/netlink.h>

#include <cstdint>
#include <string>

namespace netlink_bytes {

/// The bytes of a value.
inline std::string raw(const auto& value) {
  return {reinterpret_cast<const char*>(&value), sizeof(value)};
}

/// A message, padded if need be.
inline std::string message(uint16_t type, uint16_t flags, uint32_t sequence,
                           const std::string& payload, uint32_t port_id = 0) {
  const auto length = static_cast<uint32_t>(NLMSG_HDRLEN + payload.size());
  return raw(nlmsghdr{length, type, flags, sequence, port_id}) + payload +
         std::string(NLMSG_ALIGN(length) - length, '\0');
}

/// The payload of a generic netlink message.
inline std::string generic(uint8_t command, const std::string& attributes, uint8_t version = 1) {
  return {raw(command) + raw(version) + std::string(2, '\0') + attributes};
}

inline std::string attribute(uint16_t type, const std::string& payload) {
  const auto length = static_cast<uint16_t>(NLA_HDRLEN + payload.size());
  return raw(nlattr{length, type}) + payload + std::string(NLA_ALIGN(length) - length, '\0');
}

/// An attribute with a text and its NUL.
inline std::string text(uint16_t type, const std::string& value) {
  return attribute(type, value + '\0');
}

inline std::string nest(uint16_t type, const std::string& attributes) {
  return attribute(type | NLA_F_NESTED, attributes);
}

/// An acknowledgement, or with a negative errno a refusal, without the request that it answers.
inline std::string acknowledgement(uint32_t sequence, int error = 0, uint16_t flags = 0,
                                   const std::string& attributes = "") {
  return message(NLMSG_ERROR, flags, sequence, raw(nlmsgerr{error, {}}) + attributes);
}

}  // namespace netlink_bytes
