// What the library reads in messages and writes to them: attributes, the reason of a refusal, and
// the look-up of a generic netlink family by its name.
#include <linux/genetlink.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "host_interfaces/corvil_netlink.h"
#include "reference_host/corvil_export.h"
#include "reference_host/netlink/internal.h"

namespace corvil::netlink {
namespace {

/// The number that an attribute holds; 0 where it is null or too short.
template <typename Number>
Number value_of(const nlattr* attribute) {
  Number value = 0;
  if (attribute != nullptr && attribute->nla_len >= NLA_HDRLEN + sizeof(value)) {
    memcpy(&value, attribute + 1, sizeof(value));
  }
  return value;
}

struct Family {
  uint16_t id;  // 0: unknown
  uint32_t version;
};

/// Reads the controller's reply into the Family that `context` points at.
int take_family(const nlmsghdr* reply, void* context) {
  const size_t size = NLMSG_PAYLOAD(reply, 0);
  if (size < GENL_HDRLEN) {
    return 0;
  }
  const auto* generic = static_cast<const genlmsghdr*>(NLMSG_DATA(reply));
  std::array<const nlattr*, CTRL_ATTR_VERSION + 1> table{};
  corvil_nla_parse(reinterpret_cast<const nlattr*>(generic + 1), table.data(),
                   static_cast<uint32_t>(size - GENL_HDRLEN), CTRL_ATTR_VERSION);
  *static_cast<Family*>(context) = {value_of<uint16_t>(table[CTRL_ATTR_FAMILY_ID]),
                                    value_of<uint32_t>(table[CTRL_ATTR_VERSION])};
  return 1;
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
  if ((answer->nlmsg_flags & NLM_F_ACK_TLVS) == 0) {
    return;
  }
  // A kernel that gives reasons also knows to leave out the request, as its sockets are told to.
  const size_t offset = answer->nlmsg_type == NLMSG_DONE ? sizeof(int) : sizeof(nlmsgerr);
  std::array<const nlattr*, NLMSGERR_ATTR_MISS_NEST + 1> table{};
  corvil_nla_parse(
      reinterpret_cast<const nlattr*>(static_cast<const char*>(NLMSG_DATA(answer)) + offset),
      table.data(), static_cast<uint32_t>(NLMSG_PAYLOAD(answer, offset)), NLMSGERR_ATTR_MISS_NEST);
  last_error.attribute_offset = value_of<uint32_t>(table[NLMSGERR_ATTR_OFFS]);
  last_error.missing_attribute = value_of<uint32_t>(table[NLMSGERR_ATTR_MISS_TYPE]);
  last_error.missing_nest_offset = value_of<uint32_t>(table[NLMSGERR_ATTR_MISS_NEST]);
  if (const nlattr* text = table[NLMSGERR_ATTR_MSG]) {
    snprintf(last_error.message, sizeof(last_error.message), "%.*s", text->nla_len - NLA_HDRLEN,
             reinterpret_cast<const char*>(text + 1));
  }
}

}  // namespace corvil::netlink

using corvil::netlink::dry_run_family_id;
using corvil::netlink::fail;
using corvil::netlink::last_error;

CORVIL_EXPORT void corvil_netlink_clear_last_error() { last_error = {}; }

CORVIL_EXPORT const CorvilNetlinkError* corvil_netlink_last_error() { return &last_error; }

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

CORVIL_EXPORT int corvil_netlink_query_genl(const char* family_name, uint32_t version,
                                            uint16_t* family_id) {
  if (strlen(family_name) >= GENL_NAMSIZ) {
    return fail(EINVAL, "no family name is as long as %s", family_name);
  }
  struct {
    nlmsghdr header{NLMSG_HDRLEN + GENL_HDRLEN, GENL_ID_CTRL, NLM_F_REQUEST, 0, 0};
    genlmsghdr generic{CTRL_CMD_GETFAMILY, 1, 0};
    std::array<char, NLA_HDRLEN + GENL_NAMSIZ> attribute{};
  } request;
  corvil_nla_put(&request.header, CTRL_ATTR_FAMILY_NAME,
                 static_cast<uint32_t>(strlen(family_name) + 1), family_name);
  corvil::netlink::Family family{dry_run_family_id(), version};
  if (corvil_netlink_query(&request.header, NETLINK_GENERIC, corvil::netlink::take_family, &family,
                           0) == -1) {
    if (last_error.from_kernel == 1 && last_error.message[0] == '\0') {
      snprintf(last_error.message, sizeof(last_error.message), "netlink family %s is not available",
               family_name);
    }
    return -1;
  }
  if (family.id == 0) {
    return fail(EBADMSG, "the controller's answer lacks the id of family %s", family_name);
  }
  if (family.version != version) {
    return fail(EPROTONOSUPPORT, "netlink family %s has version %u, not %u", family_name,
                family.version, version);
  }
  *family_id = family.id;
  return 0;
}
