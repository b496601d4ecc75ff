#include <linux/netlink.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "host_interfaces/corvil_netlink.h"
#include "reference_host/corvil_export.h"

CORVIL_EXPORT int corvil_nla_put(struct nlmsghdr* message, uint16_t type, uint32_t length,
                                 const void* payload) {
  if (length > UINT16_MAX - NLA_HDRLEN) {
    return -1;
  }
  auto* bytes = reinterpret_cast<char*>(message);
  const uint32_t start = NLMSG_ALIGN(message->nlmsg_len);
  const uint32_t end = NLMSG_ALIGN(start + NLA_HDRLEN + length);
  const nlattr header = {static_cast<uint16_t>(NLA_HDRLEN + length), type};
  memset(bytes + message->nlmsg_len, 0, start - message->nlmsg_len);
  memset(bytes + end - NLA_ALIGNTO, 0, NLA_ALIGNTO);  // The padding is in the last word.
  memcpy(bytes + start, &header, sizeof(header));
  message->nlmsg_len = end;
  if (length > 0) {
    memcpy(bytes + start + NLA_HDRLEN, payload, length);
  }
  return 0;
}

CORVIL_EXPORT int corvil_nla_parse(const struct nlattr* first, const struct nlattr** table,
                                   uint32_t length, uint16_t max_type) {
  std::fill_n(table, uint32_t{max_type} + 1, nullptr);
  const struct nlattr* attribute = first;
  uint32_t left = length;
  while (left > 0) {
    if (left < NLA_HDRLEN || attribute->nla_len < NLA_HDRLEN || attribute->nla_len > left) {
      return -1;
    }
    const uint16_t type = attribute->nla_type & NLA_TYPE_MASK;
    if (type <= max_type) {
      table[type] = attribute;
    }
    const uint32_t step = NLA_ALIGN(attribute->nla_len);
    left -= std::min(left, step);
    attribute = reinterpret_cast<const nlattr*>(reinterpret_cast<const char*>(attribute) + step);
  }
  return 0;
}
