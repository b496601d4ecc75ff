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
 *
 * What the library knows of three arguments, whose meaning is the kernel's:
 *
 * fwd_from, fwd_to  the forwarding pair: what comes from fwd_from is to be forwarded to fwd_to.
 *                   Both are sent as they are; which names there are, the kernel knows
 * selector          a number that goes with the device and with the forwarding pair: its low 8 bits
 *                   are sent. Selector 1 besides has the tear-down flush the low-latency flows.
 *                   There the whole number counts: 257 is sent as 1, and flushes nothing
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

/* An IPsec (ESP) flow. Only the SPI is read; what comes before and after it is the host's. */
typedef struct IpsecInfo {
  uint32_t host_words[2];
  uint32_t spi; /* security parameter index, network byte order */
} IpsecInfo;

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
 * selector    goes with the forwarding pair and with the device
 *
 * Sends up to three requests, commands 1 (only with ports), 5 and 3, and stops at the first
 * failure. A forwarding pair that the kernel holds already (-EEXIST) is no failure; a device that
 * is set already is one. An invalid port fails the call before anything is sent.
 */
int corvil_datapath_proxy_set_config_info(const char* wlan_dev, const char* fwd_to,
                                          const char* fwd_from, const PortDescriptor* ports,
                                          uint32_t port_count, uint32_t selector);

/*
 * Takes the proxy down again: unsets the WLAN device, removes the forwarding pair and the ports,
 * and, when the selector is 1, flushes the low-latency flows. The arguments are those of
 * corvil_datapath_proxy_set_config_info().
 *
 * Sends up to four requests: commands 4, 6, 2 (only with ports) and 13 (only with selector 1).
 * A failed device or forwarding step ends the call; after a failed port step the flush still runs.
 * The flush does not change the result.
 */
int corvil_datapath_proxy_unset_config_info(const char* wlan_dev, const char* fwd_to,
                                            const char* fwd_from, const PortDescriptor* ports,
                                            uint32_t port_count, uint32_t selector);

/*
 * Replaces ports: removes the whole old list, then adds the whole new one, without comparing them.
 * A list is absent when its pointer is null or its count 0; one of the two may be.
 *
 * Sends commands 2 (only with an old list) and 1 (only with a new one); when the removal fails,
 * nothing is added.
 */
int corvil_datapath_proxy_update_config_info(const PortDescriptor* new_ports,
                                             uint32_t new_port_count,
                                             const PortDescriptor* old_ports,
                                             uint32_t old_port_count);

/*
 * Removes one forwarding pair, without touching device or ports. Sends command 6.
 *
 * selector  goes with the forwarding pair
 * fwd_to    where traffic is forwarded to; must not be null
 * fwd_from  where it is forwarded from; must not be null
 */
int corvil_datapath_proxy_unset_reverse_dev_mapping(uint32_t selector, const char* fwd_to,
                                                    const char* fwd_from);

/* Resets the kernel's data path: it drops all configuration. Sends command 9. */
int corvil_datapath_proxy_flush_config_info(void);

/*
 * Adds the tuple of an IPsec flow. Sends command 1.
 *
 * info     the flow; must not be null
 * address  textual IP address of the flow; must not be null. Only its family counts: IPv6 when it
 *          has a colon, else IPv4
 */
int corvil_datapath_proxy_add_ipsec_info(const IpsecInfo* info, const char* address);

/* Deletes the tuple of an IPsec flow, with the arguments of its addition. Sends command 2. */
int corvil_datapath_proxy_delete_ipsec_info(const IpsecInfo* info, const char* address);

/*
 * Sets the UDP port that carries encapsulated IPsec traffic. Sends command 7.
 *
 * port  network byte order; any value is sent, here and in the three calls below
 */
int corvil_datapath_proxy_set_udp_encap_port(uint16_t port);

/* Withdraws the UDP encapsulation port, in network byte order. Sends command 8. */
int corvil_datapath_proxy_unset_udp_encap_port(uint16_t port);

/* Lets packets on the encapsulation port, in network byte order, pass through. Sends command 10. */
int corvil_datapath_proxy_act_encap_port_pass_through(uint16_t port);

/* Drops packets on the encapsulation port, in network byte order. Sends command 11. */
int corvil_datapath_proxy_act_encap_port_drop(uint16_t port);

/*
 * Adds a low-latency flow. Sends command 12; a flow that the kernel holds already (-EEXIST) is no
 * failure. A refusal is not logged.
 *
 * src_addr, dst_addr  textual addresses, sent as they are; must not be null
 * src_port, dst_port  network byte order; any value
 */
int corvil_datapath_proxy_add_ll_dst_addr(const char* src_addr, const char* dst_addr,
                                          uint16_t src_port, uint16_t dst_port);

/* Removes all low-latency flows. Sends command 13; -EEXIST is no failure, a refusal is not logged.
 */
int corvil_datapath_proxy_flush_ll_dst_addr(void);

/*
 * Reads the tuples that the kernel holds and hands each, as a port, to the host's port tree with
 * corvil_port_utils_add_port_from_kernel(), on the calling thread. Sends command 14.
 *
 * Returns -1 when the request could not be built; otherwise 0, also when the query failed, which
 * only the log tells.
 */
int corvil_datapath_proxy_get_port_tuple(void);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif /* CORVIL_DATAPATH_PROXY_H_ */
