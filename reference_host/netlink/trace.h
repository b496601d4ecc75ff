// Where every message is seen: by the process's trace hook and by its capture.
#ifndef REFERENCE_HOST_NETLINK_TRACE_H_
#define REFERENCE_HOST_NETLINK_TRACE_H_

#include <cstddef>

#include "reference_host/netlink/capture.h"
#include "reference_host/netlink/corvil_netlink_control.h"

namespace corvil::netlink {

struct TraceHook {
  corvil_netlink_trace_callback callback = nullptr;
  void* context = nullptr;
};

extern TraceHook trace_hook;

inline bool tracing() { return trace_hook.callback != nullptr || capture().is_on(); }

/// Shows one datagram of a netlink protocol. Only while tracing().
inline void trace(CorvilNetlinkDirection direction, int protocol, const void* bytes,
                  size_t length) {
  if (capture().is_on()) {
    capture().write(direction, protocol, bytes, length);
  }
  if (trace_hook.callback != nullptr) {
    trace_hook.callback(direction, bytes, length, trace_hook.context);
  }
}

}  // namespace corvil::netlink

#endif  // REFERENCE_HOST_NETLINK_TRACE_H_
