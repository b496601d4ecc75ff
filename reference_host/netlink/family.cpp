// The look-up of a generic netlink family by its name.
#include <libmnl/libmnl.h>
#include <linux/genetlink.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "host_interfaces/corvil_netlink.h"
#include "reference_host/corvil_export.h"
#include "reference_host/netlink/last_error.h"
#include "reference_host/netlink/observers.h"

namespace {

using corvil::netlink::dry_run_family_id;
using corvil::netlink::fail;
using corvil::netlink::last_error;

struct Family {
  uint16_t id;  // 0: unknown
  uint32_t version;
};

/// Reads the controller's reply into the Family that `context` points at.
int take_family(const nlmsghdr* reply, void* context) {
  const size_t size = mnl_nlmsg_get_payload_len(reply);
  if (size < GENL_HDRLEN) {
    return 0;
  }
  std::array<const nlattr*, CTRL_ATTR_VERSION + 1> table{};
  corvil_nla_parse(static_cast<const nlattr*>(mnl_nlmsg_get_payload_offset(reply, GENL_HDRLEN)),
                   table.data(), static_cast<uint32_t>(size - GENL_HDRLEN), CTRL_ATTR_VERSION);
  const nlattr* id = table[CTRL_ATTR_FAMILY_ID];
  const nlattr* version = table[CTRL_ATTR_VERSION];
  if (id == nullptr || mnl_attr_get_payload_len(id) < sizeof(uint16_t) || version == nullptr ||
      mnl_attr_get_payload_len(version) < sizeof(uint32_t)) {
    return 0;
  }
  *static_cast<Family*>(context) = {mnl_attr_get_u16(id), mnl_attr_get_u32(version)};
  return 1;
}

/// Asks the controller for a family, whose name is shorter than GENL_NAMSIZ.
int query_family(const char* name, Family* family) {
  constexpr size_t kSize = NLMSG_HDRLEN + GENL_HDRLEN + NLA_HDRLEN + GENL_NAMSIZ;
  alignas(nlmsghdr) std::array<char, kSize> buffer{};
  nlmsghdr* request = mnl_nlmsg_put_header(buffer.data());
  request->nlmsg_type = GENL_ID_CTRL;
  request->nlmsg_flags = NLM_F_REQUEST;
  auto* generic = static_cast<genlmsghdr*>(mnl_nlmsg_put_extra_header(request, GENL_HDRLEN));
  generic->cmd = CTRL_CMD_GETFAMILY;
  generic->version = 1;
  mnl_attr_put_strz(request, CTRL_ATTR_FAMILY_NAME, name);
  return corvil_netlink_query(request, NETLINK_GENERIC, take_family, family, 0);
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
