// One exchange with the kernel: a request and all of its answer.
#ifndef REFERENCE_HOST_NETLINK_EXCHANGE_H_
#define REFERENCE_HOST_NETLINK_EXCHANGE_H_

#include <linux/netlink.h>

#include "host_interfaces/corvil_netlink.h"

namespace corvil::netlink {

struct Request {
  const nlmsghdr* message;
  int protocol;
  corvil_netlink_reply_callback callback;  // null: only the acknowledgement counts
  void* context;
  bool dump;
};

/// Carries out a request on the calling thread's socket. Returns 0, or -1 with the thread's last
/// error recorded; a refusal by the kernel is also stored at `refusal`, unless null, as a negative
/// errno.
int exchange(const Request& request, int* refusal);

}  // namespace corvil::netlink

#endif  // REFERENCE_HOST_NETLINK_EXCHANGE_H_
