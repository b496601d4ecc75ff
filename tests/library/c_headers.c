/* Every public header serves a program in C, each on its own account. */
#include "datapath_proxy/include/corvil_datapath_proxy.h"
#include "host_interfaces/corvil_log_services.h"
#include "host_interfaces/corvil_netlink.h"
#include "host_interfaces/corvil_port_utils.h"
#include "kernel_interface/tavik_wlan.h"
#include "reference_host/log/corvil_log_control.h"
#include "reference_host/netlink/corvil_netlink_control.h"
#include "reference_host/port_utils/corvil_port_tree.h"
#include "reference_kernel/tavik_wlan_limits.h"

_Static_assert(sizeof(PortDescriptor) == 12, "the host's records are 12 bytes apart");
_Static_assert(sizeof(DatapathTuple) == 8, "as on the wire");
_Static_assert(sizeof(void*) != 4 || sizeof(LogSiteDescriptor) == 16, "as the service reads it");
