// The process's trace hook.
#ifndef REFERENCE_HOST_NETLINK_TRACE_H_
#define REFERENCE_HOST_NETLINK_TRACE_H_

#include <cstddef>

#include "reference_host/netlink/corvil_netlink_control.h"

namespace corvil::netlink {

struct TraceHook {
  corvil_netlink_trace_callback callback = nullptr;
  void* context = nullptr;
};

extern TraceHook trace_hook;

inline bool tracing() { return trace_hook.callback != nullptr; }

/// Only while tracing().
inline void trace(CorvilNetlinkDirection direction, const void* bytes, size_t length) {
  trace_hook.callback(direction, bytes, length, trace_hook.context);
}

}  // namespace corvil::netlink

#endif  // REFERENCE_HOST_NETLINK_TRACE_H_
