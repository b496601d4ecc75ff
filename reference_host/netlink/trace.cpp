#include "reference_host/netlink/trace.h"

#include "reference_host/corvil_export.h"

namespace corvil::netlink {

constinit TraceHook trace_hook;

}  // namespace corvil::netlink

CORVIL_EXPORT void corvil_netlink_set_trace(corvil_netlink_trace_callback callback, void* context) {
  corvil::netlink::trace_hook = {callback, context};
}
