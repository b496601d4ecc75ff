// The look-up of a generic netlink family by its name.
#include <linux/genetlink.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "host_interfaces/corvil_netlink.h"
#include "reference_host/corvil_export.h"
#include "reference_host/netlink/attributes.h"
#include "reference_host/netlink/last_error.h"
#include "reference_host/netlink/observers.h"

namespace {

using corvil::netlink::dry_run_family_id;
using corvil::netlink::fail;
using corvil::netlink::last_error;
using corvil::netlink::value_of;

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
  const auto id = value_of<uint16_t>(table[CTRL_ATTR_FAMILY_ID]);
  const auto version = value_of<uint32_t>(table[CTRL_ATTR_VERSION]);
  if (!id || !version) {
    return 0;
  }
  *static_cast<Family*>(context) = {*id, *version};
  return 1;
}

/// Asks the controller for a family, whose name is shorter than GENL_NAMSIZ.
int query_family(const char* name, Family* family) {
  struct {
    nlmsghdr header{NLMSG_HDRLEN + GENL_HDRLEN, GENL_ID_CTRL, NLM_F_REQUEST, 0, 0};
    genlmsghdr generic{CTRL_CMD_GETFAMILY, 1, 0};
    std::array<char, NLA_HDRLEN + GENL_NAMSIZ> attribute{};
  } request;
  corvil_nla_put(&request.header, CTRL_ATTR_FAMILY_NAME, static_cast<uint32_t>(strlen(name) + 1),
                 name);
  return corvil_netlink_query(&request.header, NETLINK_GENERIC, take_family, family, 0);
}

}  // namespace

CORVIL_EXPORT int corvil_netlink_query_genl(const char* family_name, uint32_t version,
                                            uint16_t* family_id) {
  if (strlen(family_name) >= GENL_NAMSIZ) {
    return fail(EINVAL, "no family name is as long as %s", family_name);
  }
  Family family{};
  if (query_family(family_name, &family) == -1) {
    if (last_error.from_kernel == 1 && last_error.message[0] == '\0') {
      snprintf(last_error.message, sizeof(last_error.message), "netlink family %s is not available",
               family_name);
    }
    return -1;
  }
  if (dry_run_family_id() != 0) {
    *family_id = dry_run_family_id();
    return 0;
  }
  if (family.id == 0) {
    return fail(EBADMSG, "the controller's answer lacks the id or version of family %s",
                family_name);
  }
  if (family.version != version) {
    return fail(EPROTONOSUPPORT, "netlink family %s has version %u, not %u", family_name,
                family.version, version);
  }
  *family_id = family.id;
  return 0;
}
