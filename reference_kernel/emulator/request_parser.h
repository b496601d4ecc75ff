// The strict parser of the family's requests.
#ifndef REFERENCE_KERNEL_EMULATOR_REQUEST_PARSER_H_
#define REFERENCE_KERNEL_EMULATOR_REQUEST_PARSER_H_

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "kernel_interface/tavik_wlan.h"
#include "reference_kernel/emulator/attribute_policy.h"
#include "reference_kernel/emulator/entries.h"
#include "reference_kernel/emulator/message.h"
#include "reference_kernel/emulator/verdict.h"

namespace tavik_wlan {

/// What a request of a command must look like.
struct CommandPolicy {
  enum class Mode { kUnknownCommand, kConfigure, kDump };
  Mode mode = Mode::kUnknownCommand;
  /// By type. Each that is supported is required.
  std::array<AttributePolicy, TAVIK_WLAN_ATTR_MAX + 1> attributes{};

  [[nodiscard]] constexpr bool takes(uint16_t type) const {
    return attributes.at(type).type != AttributePolicy::Type::kUnsupported;
  }
};

/// The policies, indexed by command.
extern const std::array<CommandPolicy, TAVIK_WLAN_CMD_MAX + 1> kCommandPolicies;

/// A request that fits its command's policy. Members without an attribute in it keep these values.
struct Request {
  uint8_t command = 0;  // enum tavik_wlan_cmd
  std::vector<Tuple> tuples;
  std::string device;
  Forwarding forwarding;            // its selector is `selector`
  uint16_t encapsulation_port = 0;  // host byte order
  uint8_t selector = 0;
  Flow flow;
  /// By type, where the attributes' headers lie in the message, in bytes; 0: not there.
  std::array<uint32_t, TAVIK_WLAN_ATTR_MAX + 1> offsets{};
};

/// Parses a message to the family: the nlmsghdr and what follows, to the end of the span. Looks at
/// neither nlmsg_len nor nlmsg_type. Reads nothing outside the span, whatever it holds.
///
/// Accepted: `request` is the request. Refused, as the kernel's generic netlink and then the family
/// would: `request` is unspecified. Thread-safe.
Verdict parse_request(Bytes message, Request& request);

}  // namespace tavik_wlan

#endif  // REFERENCE_KERNEL_EMULATOR_REQUEST_PARSER_H_
