/*
 * Control of the device's data path: turns calls into generic netlink requests to the kernel family
 * "TAVIK_WLAN" and waits for the kernel's answer.
 *
 * Results: -1 on failure; any other value is success and is what the host's netlink library
 * returned for the last request, 0 as a rule. The reason of a failure goes to the host's log sinks.
 *
 * Every request resolves the family's id anew and is answered before the next one is built. Nothing
 * is retried, and nothing is undone: after a failure the kernel keeps what earlier requests of the
 * same call established.
 *
 * Thread-safety: the library keeps no state; every function may be called from any thread at any
 * time. Calls block until the kernel answers or the host's netlink library gives up. Arguments stay
 * the caller's and are only read, during the call.
 */
#ifndef CORVIL_DATAPATH_PROXY_H_
#define CORVIL_DATAPATH_PROXY_H_

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/* A proxied port: 12 bytes, passed in contiguous arrays. */
typedef struct PortDescriptor {
  uint32_t ip_proto;    /* IP version: 4 or 6 */
  uint32_t trans_proto; /* IANA protocol number: 6 (TCP) or 17 (UDP) */
  uint16_t port;        /* host byte order; any value */
} PortDescriptor;

/* The most ports that one list can have: what fits a netlink attribute. */
#define CORVIL_DATAPATH_PROXY_MAX_PORTS 4095

/*
 * Brings the proxy up: adds the ports, then the forwarding pair, then sets the WLAN device.
 *
 * wlan_dev    name of the WLAN device; must not be null
 * fwd_to      where traffic is forwarded to; must not be null
 * fwd_from    where it is forwarded from; must not be null
 * ports       first of port_count ports; null is the same as no port
 * port_count  at most CORVIL_DATAPATH_PROXY_MAX_PORTS; with 0 no port is added
 * selector    its low 8 bits go with the forwarding pair and with the device
 *
 * Sends up to three requests, commands 1 (only with ports), 5 and 3, and stops at the first
 * failure. A forwarding pair that the kernel holds already (-EEXIST) is no failure; a device that
 * is set already is one. An invalid port fails the call before anything is sent.
 */
int corvil_datapath_proxy_set_config_info(const char* wlan_dev, const char* fwd_to,
                                          const char* fwd_from, const PortDescriptor* ports,
                                          uint32_t port_count, uint32_t selector);

/* Resets the kernel's data path: it drops all configuration. Sends command 9. */
int corvil_datapath_proxy_flush_config_info(void);

/*
 * Sets the UDP port that carries encapsulated IPsec traffic. Sends command 7.
 *
 * port  network byte order; any value is sent
 */
int corvil_datapath_proxy_set_udp_encap_port(uint16_t port);

/* Withdraws the UDP encapsulation port, in network byte order. Sends command 8. */
int corvil_datapath_proxy_unset_udp_encap_port(uint16_t port);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif /* CORVIL_DATAPATH_PROXY_H_ */
