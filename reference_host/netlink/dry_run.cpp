#include "reference_host/netlink/dry_run.h"

#include "reference_host/corvil_export.h"
#include "reference_host/netlink/corvil_netlink_control.h"

namespace corvil::netlink {

constinit uint16_t dry_run_family_id = 0;

}  // namespace corvil::netlink

CORVIL_EXPORT void corvil_netlink_set_dry_run(uint16_t family_id) {
  corvil::netlink::dry_run_family_id = family_id;
}
