/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The generic netlink protocol of the data-path kernel module: family "TAVIK_WLAN", version 1.
 *
 * Plain C for the kernel module and for user space alike. Netlink and attribute headers are in host
 * byte order; ports and SPIs are in network byte order. Strings are sent with their NUL.
 *
 * Commands 1 to 13 are acknowledged with 0 or a negative errno; command 14 is answered by a
 * multi-part dump whose messages carry TAVIK_WLAN_ATTR_TUPLES.
 */
#ifndef KERNEL_INTERFACE_TAVIK_WLAN_H_
#define KERNEL_INTERFACE_TAVIK_WLAN_H_

#include <linux/types.h>

#define TAVIK_WLAN_FAMILY_NAME "TAVIK_WLAN"
#define TAVIK_WLAN_FAMILY_VERSION 1

enum tavik_wlan_cmd {
  TAVIK_WLAN_CMD_ADD_TUPLES = 1,                   /* TUPLES */
  TAVIK_WLAN_CMD_DEL_TUPLES = 2,                   /* TUPLES */
  TAVIK_WLAN_CMD_SET_DEV = 3,                      /* SELECTOR, DEV */
  TAVIK_WLAN_CMD_UNSET_DEV = 4,                    /* SELECTOR, DEV */
  TAVIK_WLAN_CMD_ADD_FWD_INFO = 5,                 /* SELECTOR, FWD_TO, FWD_FROM */
  TAVIK_WLAN_CMD_DEL_FWD_INFO = 6,                 /* SELECTOR, FWD_TO, FWD_FROM */
  TAVIK_WLAN_CMD_SET_ENCAP_PORT = 7,               /* ENCAP_PORT */
  TAVIK_WLAN_CMD_UNSET_ENCAP_PORT = 8,             /* ENCAP_PORT */
  TAVIK_WLAN_CMD_RESET = 9,                        /* no attribute */
  TAVIK_WLAN_CMD_ENCAP_PORT_ACT_PASS_THROUGH = 10, /* ENCAP_PORT */
  TAVIK_WLAN_CMD_ENCAP_PORT_ACT_DROP = 11,         /* ENCAP_PORT */
  TAVIK_WLAN_CMD_LL_ADDR_ADD = 12,   /* LL_SRC_ADDR, LL_DST_ADDR, LL_SRC_PORT, LL_DST_PORT */
  TAVIK_WLAN_CMD_LL_ADDR_FLUSH = 13, /* no attribute */
  TAVIK_WLAN_CMD_GET_TUPLES = 14,    /* no attribute; a dump, replies carry TUPLES */
};
#define TAVIK_WLAN_CMD_MAX TAVIK_WLAN_CMD_GET_TUPLES

enum tavik_wlan_attr {
  TAVIK_WLAN_ATTR_TUPLES = 1,       /* nested: tuple elements, see below */
  TAVIK_WLAN_ATTR_DEV = 2,          /* string: WLAN device */
  TAVIK_WLAN_ATTR_FWD_FROM = 3,     /* string: source of the forwarding */
  TAVIK_WLAN_ATTR_FWD_TO = 4,       /* string: destination of the forwarding */
  TAVIK_WLAN_ATTR_ENCAP_PORT = 5,   /* __be16: UDP encapsulation port */
  TAVIK_WLAN_ATTR_SELECTOR = 6,     /* __u8 */
  TAVIK_WLAN_ATTR_LL_SRC_ADDR = 7,  /* string: source address of a low-latency flow */
  TAVIK_WLAN_ATTR_LL_DST_ADDR = 8,  /* string: destination address of a low-latency flow */
  TAVIK_WLAN_ATTR_LL_SRC_PORT = 9,  /* __be16 */
  TAVIK_WLAN_ATTR_LL_DST_PORT = 10, /* __be16 */
};
#define TAVIK_WLAN_ATTR_MAX TAVIK_WLAN_ATTR_LL_DST_PORT

/*
 * TAVIK_WLAN_ATTR_TUPLES has three levels, each an attribute space of its own in which 1 is the
 * only type:
 *
 *   TAVIK_WLAN_ATTR_TUPLES | NLA_F_NESTED      nla_len 4 + 16 * N
 *     TAVIK_WLAN_TUPLE_ELEMENT | NLA_F_NESTED  nla_len 16, N of them
 *       TAVIK_WLAN_TUPLE_ATTR                  nla_len 12: one DatapathTuple
 *
 * nla_len has 16 bits, so one container holds at most TAVIK_WLAN_TUPLES_PER_MESSAGE elements.
 */
#define TAVIK_WLAN_TUPLE_ELEMENT 1
#define TAVIK_WLAN_TUPLE_ATTR 1
#define TAVIK_WLAN_TUPLE_ATTR_MAX TAVIK_WLAN_TUPLE_ATTR
#define TAVIK_WLAN_TUPLES_PER_MESSAGE 4095

/* DatapathTuple.ip_proto: an IP version. */
#define TAVIK_WLAN_IP_PROTO_IPV4 4
#define TAVIK_WLAN_IP_PROTO_IPV6 6

/* DatapathTuple.trans_proto: an IANA protocol number. */
#define TAVIK_WLAN_TRANS_PROTO_TCP 6
#define TAVIK_WLAN_TRANS_PROTO_UDP 17
#define TAVIK_WLAN_TRANS_PROTO_ESP 50

/* One proxied port or IPsec flow, 8 bytes. */
typedef struct DatapathTuple {
  union {
    __be32 spi;  /* when trans_proto is ESP: the security parameter index */
    __be16 port; /* otherwise: the port, followed by two zero bytes */
  } key;
  __u8 ip_proto;
  __u8 trans_proto;
  __u8 reserved[2]; /* zero */
} DatapathTuple;

#endif /* KERNEL_INTERFACE_TAVIK_WLAN_H_ */
