// Messages of a fuzzer's choice: shaped well enough to get past the first checks, or not at all.
#ifndef TESTS_FUZZ_ANY_MESSAGE_H_
#define TESTS_FUZZ_ANY_MESSAGE_H_

#include <fuzzer/FuzzedDataProvider.h>
#include <linux/genetlink.h>
#include <linux/netlink.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "kernel_interface/tavik_wlan.h"
#include "tests/support/netlink_bytes.h"

namespace fuzz {

/// Ends the process unless the condition holds; libFuzzer then reports the input and the stack.
inline void require(bool condition) {
  if (!condition) {
    abort();
  }
}

inline std::string any_bytes(FuzzedDataProvider& input) {
  return input.ConsumeRandomLengthString(64);
}

inline std::string any_attributes(FuzzedDataProvider& input) {
  using netlink_bytes::attribute;
  using netlink_bytes::nest;
  std::string list;
  while (input.ConsumeBool()) {
    const auto type = input.ConsumeIntegralInRange<uint16_t>(0, TAVIK_WLAN_ATTR_MAX + 1);
    switch (input.ConsumeIntegralInRange(0, 2)) {
      case 0:
        list += nest(type, any_attributes(input));
        break;
      case 1:
        list += nest(TAVIK_WLAN_TUPLE_ELEMENT,
                     attribute(TAVIK_WLAN_TUPLE_ATTR, input.ConsumeBytesAsString(8)));
        break;
      default:
        list += attribute(type, any_bytes(input));
    }
  }
  return input.ConsumeBool() ? list : list + any_bytes(input);
}

/// A message of one of two types, an acknowledgement, the end of a dump, or any bytes.
inline std::string any_message(FuzzedDataProvider& input, uint16_t family, uint16_t other,
                               uint32_t sequence) {
  const auto flags = input.ConsumeIntegral<uint16_t>();
  const auto command = input.ConsumeIntegralInRange<uint8_t>(0, TAVIK_WLAN_CMD_MAX + 1);
  switch (input.ConsumeIntegralInRange(0, 5)) {
    case 0:
    case 1:
      return netlink_bytes::message(family, flags, sequence,
                                    netlink_bytes::generic(command, any_attributes(input)));
    case 2:
      return netlink_bytes::message(other, flags, sequence,
                                    netlink_bytes::generic(command, any_attributes(input)));
    case 3:
      return netlink_bytes::acknowledgement(sequence, -input.ConsumeIntegralInRange(-1, 4096),
                                            flags, any_attributes(input));
    case 4:
      return netlink_bytes::message(NLMSG_DONE, flags, sequence, any_bytes(input));
    default:
      return any_bytes(input);
  }
}

}  // namespace fuzz

#endif  // TESTS_FUZZ_ANY_MESSAGE_H_
