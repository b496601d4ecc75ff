#include <libmnl/libmnl.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>

#include "host_interfaces/corvil_netlink.h"
#include "reference_host/corvil_export.h"

namespace {

/// Lengthens a message, by zeros.
void pad(nlmsghdr* message, uint32_t length) {
  if (length > message->nlmsg_len) {
    memset(reinterpret_cast<char*>(message) + message->nlmsg_len, 0, length - message->nlmsg_len);
    message->nlmsg_len = length;
  }
}

}  // namespace

CORVIL_EXPORT int corvil_nla_put(struct nlmsghdr* message, uint16_t type, uint32_t length,
                                 const void* payload) {
  if (length > UINT16_MAX - NLA_HDRLEN) {
    return -1;
  }
  // mnl_attr_put() counts its end from nlmsg_len as it is, not from where the attribute starts, and
  // not every version of it clears the padding.
  pad(message, MNL_ALIGN(message->nlmsg_len));
  const uint32_t end = message->nlmsg_len + NLA_HDRLEN + length;
  mnl_attr_put(message, type, length, payload != nullptr ? payload : "");
  message->nlmsg_len = end;
  pad(message, MNL_ALIGN(end));
  return 0;
}

CORVIL_EXPORT int corvil_nla_parse(const struct nlattr* first, const struct nlattr** table,
                                   uint32_t length, uint16_t max_type) {
  std::fill_n(table, uint32_t{max_type} + 1, nullptr);
  const struct nlattr* attribute = first;
  uint32_t left = length;
  while (left > 0) {
    if (!mnl_attr_ok(attribute, static_cast<int>(std::min(left, uint32_t{INT_MAX})))) {
      return -1;
    }
    const uint16_t type = mnl_attr_get_type(attribute);
    if (type <= max_type) {
      table[type] = attribute;
    }
    left -= std::min(left, MNL_ALIGN(uint32_t{attribute->nla_len}));
    attribute = mnl_attr_next(attribute);
  }
  return 0;
}
