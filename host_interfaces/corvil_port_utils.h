/* The operation on the host's port tree that the data-path library needs. */
#ifndef HOST_INTERFACES_CORVIL_PORT_UTILS_H_
#define HOST_INTERFACES_CORVIL_PORT_UTILS_H_

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Adds one port, which the kernel holds, to the host's port tree.
 *
 * port         host byte order
 * ip_proto     IP version: 4 or 6
 * trans_proto  IANA protocol number, such as 6 (TCP) or 17 (UDP)
 *
 * Returns 0 on success, also when the tree holds the port already; non-zero when the tree refuses
 * it. Thread-safe.
 */
int corvil_port_utils_add_port_from_kernel(uint16_t port, uint8_t ip_proto, uint8_t trans_proto);

#ifdef __cplusplus
}
#endif

#endif /* HOST_INTERFACES_CORVIL_PORT_UTILS_H_ */
