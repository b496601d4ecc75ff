// One generic netlink request to the data-path family: its exact size, its buffer, its attributes.
#pragma once

#include <linux/genetlink.h>
#include <linux/netlink.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "host_interfaces/corvil_netlink.h"

namespace datapath {

/// Sizes are unsigned 32-bit; an overflow, which no input that fits in memory reaches, aborts.
inline uint32_t checked_add(uint32_t a, uint32_t b) {
  uint32_t sum = 0;
  if (__builtin_add_overflow(a, b, &sum)) {
    abort();
  }
  return sum;
}

inline uint32_t checked_multiply(uint32_t a, uint32_t b) {
  uint32_t product = 0;
  if (__builtin_mul_overflow(a, b, &product)) {
    abort();
  }
  return product;
}

/// The next multiple of 4 bytes, where netlink attributes start.
inline uint32_t checked_align(uint32_t length) {
  return checked_add(length, NLA_ALIGNTO - 1) & ~uint32_t{NLA_ALIGNTO - 1};
}

inline constexpr uint32_t kHeadersSize = NLMSG_HDRLEN + GENL_HDRLEN;
inline constexpr uint32_t kContainerSize = NLA_HDRLEN;

/// Room that an attribute takes in a request, its padding included.
inline uint32_t attribute_size(uint32_t payload_length) {
  return checked_align(checked_add(NLA_HDRLEN, payload_length));
}

/// Length of a string with its NUL, as it is sent.
inline uint32_t string_length(const char* string) {
  const size_t length = strlen(string);
  if (length >= UINT32_MAX) {
    abort();
  }
  return static_cast<uint32_t>(length) + 1;
}

inline uint32_t string_attribute_size(const char* string) {
  return attribute_size(string_length(string));
}

/// Size of a request whose attributes take the given room.
template <typename... Sizes>
uint32_t request_size(Sizes... attribute_sizes) {
  uint32_t size = kHeadersSize;
  ((size = checked_add(size, attribute_sizes)), ...);
  return size;
}

/// Owns the zero-filled buffer of one request, or none. Its size is exact: appending checks no
/// capacity.
class DatapathRequest {
 public:
  DatapathRequest() = default;
  /// Allocates; compares false when there is no memory.
  explicit DatapathRequest(uint32_t size) : message_(static_cast<nlmsghdr*>(calloc(1, size))) {}

  [[nodiscard]] explicit operator bool() const { return message_ != nullptr; }
  [[nodiscard]] nlmsghdr* message() const { return message_.get(); }
  [[nodiscard]] uint32_t length() const { return message_->nlmsg_len; }

  void put(uint16_t type, uint32_t length, const void* payload) {
    corvil_nla_put(message_.get(), type, length, payload);
  }
  void put_u8(uint16_t type, uint8_t value) { put(type, sizeof(value), &value); }
  /// Copies the two bytes unchanged, in the byte order that they have.
  void put_u16(uint16_t type, uint16_t value) { put(type, sizeof(value), &value); }
  void put_string(uint16_t type, const char* string) { put(type, string_length(string), string); }

  /// Starts a nested attribute; returns its offset for close_container().
  [[nodiscard]] uint32_t open_container(uint16_t type) {
    const uint32_t start = checked_align(length());
    put(type | NLA_F_NESTED, 0, nullptr);
    return start;
  }

  /// Ends a nested attribute at the end of the last attribute inside it.
  void close_container(uint32_t start) {
    auto* bytes = reinterpret_cast<char*>(message_.get());
    auto* container = reinterpret_cast<nlattr*>(bytes + start);
    container->nla_len = static_cast<uint16_t>(checked_align(length()) - start);
  }

 private:
  struct Free {
    void operator()(nlmsghdr* message) const { free(message); }
  };

  std::unique_ptr<nlmsghdr, Free> message_;
};

}  // namespace datapath
