// The calling thread's record of how its last exchange ended.
#pragma once

#include <linux/netlink.h>

#include "reference_host/netlink/corvil_netlink_control.h"

namespace corvil::netlink {

extern constinit thread_local CorvilNetlinkError last_error;

/// Records that the exchange itself failed: a positive errno, and a printf text in which %m stands
/// for that errno's text. Returns -1.
int fail(int error, const char* format, ...) __attribute__((__format__(__printf__, 2, 3)));

/// Records an error of the kernel, a positive errno, with what the extended acknowledgement
/// (extack) of its answer says. The answer is a well-formed NLMSG_ERROR, or an NLMSG_DONE that has
/// room for the errno.
void record_kernel_error(int error, const nlmsghdr* answer);

}  // namespace corvil::netlink
