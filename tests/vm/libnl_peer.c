/*
 * A peer on another netlink library, to witness what the kernel holds:
 *
 *   libnl_peer add IP_VERSION PROTOCOL KEY   adds a tuple; KEY is a port, of ESP an SPI
 *   libnl_peer list                          prints the tuples as /proc/net/tavik_wlan does
 *
 * Numbers are decimal, PROTOCOL is an IANA number. Exit status: 0 done, 1 bad usage, 2 refused,
 * 3 listed, but interrupted by a change.
 */
#include <arpa/inet.h>
#include <netlink/genl/ctrl.h>
#include <netlink/genl/genl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kernel_interface/tavik_wlan.h"

static int print_tuple(const struct nlattr* attribute) {
  DatapathTuple tuple;
  if (nla_type(attribute) != TAVIK_WLAN_TUPLE_ATTR || nla_len(attribute) != sizeof(tuple)) {
    return NL_STOP;
  }
  memcpy(&tuple, nla_data(attribute), sizeof(tuple));
  if (tuple.trans_proto == TAVIK_WLAN_TRANS_PROTO_ESP) {
    printf("tuple ipv%d esp 0x%08x\n", tuple.ip_proto, ntohl(tuple.key.spi));
  } else {
    printf("tuple ipv%d %s %d\n", tuple.ip_proto,
           tuple.trans_proto == TAVIK_WLAN_TRANS_PROTO_TCP ? "tcp" : "udp", ntohs(tuple.key.port));
  }
  return NL_OK;
}

static int print_reply(struct nl_msg* reply, void* unused) {
  (void)unused;
  const struct nlattr* container = genlmsg_attrdata(nlmsg_data(nlmsg_hdr(reply)), 0);
  struct nlattr* element = NULL;
  int left = 0;
  nla_for_each_nested(element, container, left) {
    if (print_tuple(nla_data(element)) != NL_OK) {
      return NL_STOP;
    }
  }
  return NL_OK;
}

static struct nl_msg* new_request(struct nl_sock* socket, int flags, uint8_t command) {
  struct nl_msg* request = nlmsg_alloc();
  const int family = genl_ctrl_resolve(socket, TAVIK_WLAN_FAMILY_NAME);
  if (request == NULL || family < 0 ||
      genlmsg_put(request, NL_AUTO_PORT, NL_AUTO_SEQ, family, 0, flags, command,
                  TAVIK_WLAN_FAMILY_VERSION) == NULL) {
    fprintf(stderr, "libnl_peer: cannot make a request: %s\n", nl_geterror(family));
    exit(2);
  }
  return request;
}

static int add(struct nl_sock* socket, uint8_t ip_version, uint8_t protocol, uint32_t key) {
  DatapathTuple tuple = {.ip_proto = ip_version, .trans_proto = protocol};
  if (protocol == TAVIK_WLAN_TRANS_PROTO_ESP) {
    tuple.key.spi = htonl(key);
  } else {
    tuple.key.port = htons((uint16_t)key);
  }
  struct nl_msg* request = new_request(socket, NLM_F_ACK, TAVIK_WLAN_CMD_ADD_TUPLES);
  struct nlattr* container = nla_nest_start(request, TAVIK_WLAN_ATTR_TUPLES);
  struct nlattr* element = nla_nest_start(request, TAVIK_WLAN_TUPLE_ELEMENT);
  nla_put(request, TAVIK_WLAN_TUPLE_ATTR, sizeof(tuple), &tuple);
  nla_nest_end(request, element);
  nla_nest_end(request, container);
  return nl_send_sync(socket, request);
}

static int list(struct nl_sock* socket) {
  nl_socket_modify_cb(socket, NL_CB_VALID, NL_CB_CUSTOM, print_reply, NULL);
  struct nl_msg* request = new_request(socket, NLM_F_DUMP, TAVIK_WLAN_CMD_GET_TUPLES);
  const int error = nl_send_auto(socket, request);
  nlmsg_free(request);
  return error < 0 ? error : nl_recvmsgs_default(socket);
}

int main(int argc, char** argv) {
  struct nl_sock* socket = nl_socket_alloc();
  int error = genl_connect(socket);
  if (error == 0 && argc == 5 && strcmp(argv[1], "add") == 0) {
    error = add(socket, (uint8_t)atoi(argv[2]), (uint8_t)atoi(argv[3]),
                (uint32_t)strtoul(argv[4], NULL, 10));
  } else if (error == 0 && argc == 2 && strcmp(argv[1], "list") == 0) {
    error = list(socket);
  } else if (error == 0) {
    fputs("usage: libnl_peer add IP_VERSION PROTOCOL KEY | list\n", stderr);
    return 1;
  }
  nl_socket_free(socket);
  if (error < 0) {
    fprintf(stderr, "libnl_peer: %s\n", nl_geterror(error));
  }
  return error == -NLE_DUMP_INTR ? 3 : error < 0 ? 2 : 0;
}
