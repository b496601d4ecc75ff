#include "reference_host/netlink/last_error.h"

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "host_interfaces/corvil_netlink.h"
#include "reference_host/corvil_export.h"
#include "reference_host/netlink/attributes.h"

namespace corvil::netlink {
namespace {

/// Where the extack's attributes begin in the payload of an answer that has them. May lie beyond
/// the payload: an uncapped answer repeats the request, whose length is the peer's word.
uint64_t extack_offset(const nlmsghdr* answer) {
  if (answer->nlmsg_type == NLMSG_DONE) {
    return sizeof(int);
  }
  if ((answer->nlmsg_flags & NLM_F_CAPPED) != 0) {
    return sizeof(nlmsgerr);
  }
  const auto* error = static_cast<const nlmsgerr*>(NLMSG_DATA(answer));
  return offsetof(nlmsgerr, msg) + NLMSG_ALIGN(uint64_t{error->msg.nlmsg_len});
}

}  // namespace

constinit thread_local CorvilNetlinkError last_error{};

int fail(int error, const char* format, ...) {
  last_error = {};
  last_error.error = error;
  va_list arguments;
  va_start(arguments, format);
  errno = error;
  vsnprintf(last_error.message, sizeof(last_error.message), format, arguments);
  va_end(arguments);
  return -1;
}

void record_kernel_error(int error, const nlmsghdr* answer) {
  last_error = {};
  last_error.error = error;
  last_error.from_kernel = 1;
  const uint64_t offset = extack_offset(answer);
  const uint64_t size = NLMSG_PAYLOAD(answer, 0);
  if ((answer->nlmsg_flags & NLM_F_ACK_TLVS) == 0 || offset > size) {
    return;
  }
  std::array<const nlattr*, NLMSGERR_ATTR_MISS_NEST + 1> table{};
  corvil_nla_parse(
      reinterpret_cast<const nlattr*>(static_cast<const char*>(NLMSG_DATA(answer)) + offset),
      table.data(), static_cast<uint32_t>(size - offset), NLMSGERR_ATTR_MISS_NEST);
  last_error.attribute_offset = value_of<uint32_t>(table[NLMSGERR_ATTR_OFFS]).value_or(0);
  last_error.missing_attribute = value_of<uint32_t>(table[NLMSGERR_ATTR_MISS_TYPE]).value_or(0);
  last_error.missing_nest_offset = value_of<uint32_t>(table[NLMSGERR_ATTR_MISS_NEST]).value_or(0);
  if (const nlattr* text = table[NLMSGERR_ATTR_MSG]) {
    snprintf(last_error.message, sizeof(last_error.message), "%.*s", text->nla_len - NLA_HDRLEN,
             reinterpret_cast<const char*>(text + 1));
  }
}

}  // namespace corvil::netlink

CORVIL_EXPORT void corvil_netlink_clear_last_error() { corvil::netlink::last_error = {}; }

CORVIL_EXPORT const CorvilNetlinkError* corvil_netlink_last_error() {
  return &corvil::netlink::last_error;
}
