// Whether requests are only shown.
#ifndef REFERENCE_HOST_NETLINK_DRY_RUN_H_
#define REFERENCE_HOST_NETLINK_DRY_RUN_H_

#include <cstdint>

namespace corvil::netlink {

/// What stands for the id of every family in a dry run; 0: requests are sent.
extern uint16_t dry_run_family_id;

inline bool is_dry_run() { return dry_run_family_id != 0; }

}  // namespace corvil::netlink

#endif  // REFERENCE_HOST_NETLINK_DRY_RUN_H_
