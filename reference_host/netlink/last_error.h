// The calling thread's record of how its last exchange ended.
#ifndef REFERENCE_HOST_NETLINK_LAST_ERROR_H_
#define REFERENCE_HOST_NETLINK_LAST_ERROR_H_

#include <linux/netlink.h>

namespace corvil::netlink {

void clear_last_error();

/// Records a failure of the exchange itself: a positive errno and a printf text, in which %m is
/// that errno's. Returns -1.
int fail(int error, const char* format, ...) __attribute__((__format__(__printf__, 2, 3)));

/// Records the kernel's refusal, a positive errno, with what the answer's extended acknowledgement
/// says. The answer is a well-formed NLMSG_ERROR, or an NLMSG_DONE that holds its int.
void record_refusal(int error, const nlmsghdr* answer);

/// Replaces the recorded refusal's text if the kernel gave none.
void explain_refusal(const char* format, ...) __attribute__((__format__(__printf__, 1, 2)));

}  // namespace corvil::netlink

#endif  // REFERENCE_HOST_NETLINK_LAST_ERROR_H_
