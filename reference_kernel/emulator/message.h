// Generic netlink messages as raw bytes.
#ifndef REFERENCE_KERNEL_EMULATOR_MESSAGE_H_
#define REFERENCE_KERNEL_EMULATOR_MESSAGE_H_

#include <linux/genetlink.h>
#include <linux/netlink.h>

#include <cstddef>
#include <cstring>
#include <span>
#include <type_traits>
#include <vector>

namespace tavik_wlan {

using Bytes = std::span<const std::byte>;
using Datagram = std::vector<std::byte>;

/// The T that `bytes` begin with, which are at least that many; they may lie unaligned.
template <typename T>
T load(Bytes bytes) {
  static_assert(std::is_trivially_copyable_v<T>);
  T value;
  memcpy(&value, bytes.first(sizeof(T)).data(), sizeof(T));
  return value;
}

/// Length of the headers before a message's attributes.
inline constexpr size_t kMessageHeaders = NLMSG_HDRLEN + GENL_HDRLEN;

inline bool is_dump(const nlmsghdr& header) {
  return (header.nlmsg_flags & NLM_F_DUMP) == NLM_F_DUMP;
}

}  // namespace tavik_wlan

#endif  // REFERENCE_KERNEL_EMULATOR_MESSAGE_H_
