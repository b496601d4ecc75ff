/* The host's port tree: the ports that corvil_port_utils_add_port_from_kernel() has recorded. */
#ifndef REFERENCE_HOST_PORT_UTILS_CORVIL_PORT_TREE_H_
#define REFERENCE_HOST_PORT_UTILS_CORVIL_PORT_TREE_H_

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct CorvilPort {
  uint16_t port;       /* host byte order */
  uint8_t ip_proto;    /* IP version: 4 or 6 */
  uint8_t trans_proto; /* IANA protocol number: 6 (TCP), 17 (UDP) or 50 (ESP) */
} CorvilPort;

/* The number of ports held. Thread-safe. */
size_t corvil_port_tree_count(void);

/* Removes every port. Thread-safe. */
void corvil_port_tree_clear(void);

/*
 * Receives one port, which is valid during the call only, and what the caller of
 * corvil_port_tree_visit() passed. It may call any function of the tree.
 */
typedef void (*corvil_port_visitor)(const CorvilPort* port, void* context);

/*
 * Calls the visitor once for every port, in the order of ip_proto, trans_proto and port. A port
 * that is added or removed meanwhile may be visited or not. Thread-safe.
 */
void corvil_port_tree_visit(corvil_port_visitor visitor, void* context);

#ifdef __cplusplus
}
#endif

#endif /* REFERENCE_HOST_PORT_UTILS_CORVIL_PORT_TREE_H_ */
