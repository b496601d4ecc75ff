/*
 * A host of one's own: everything that the data-path library needs of its process, and a main()
 * that uses the library. There is no kernel behind it; it prints what it is asked to send.
 */
#include <corvil_datapath_proxy.h>
#include <host_interfaces/corvil_log_services.h>
#include <host_interfaces/corvil_netlink.h>
#include <host_interfaces/corvil_port_utils.h>
#include <stdarg.h>
#include <string.h>

/* The log: the diagnostic service is standard output, the other two sinks are off. */
uint8_t log_to_file = 0;
FILE* logging_fd = NULL;
uint32_t zu_log_mask = ZU_LOG_MASK_DIAGNOSTIC;

int zu_format_log_msg(char* buffer, size_t size, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int length = vsnprintf(buffer, size, format, arguments);
  va_end(arguments);
  return length;
}

void msg_sprintf(const LogSiteDescriptor* site, ...) {
  va_list arguments;
  va_start(arguments, site);
  if (site->level_mask >= LOG_LEVEL_MASK_HIGH) {
    vprintf(site->format, arguments);
  }
  va_end(arguments);
}

int corvil_port_utils_add_port_from_kernel(uint16_t port, uint8_t ip_proto, uint8_t trans_proto) {
  printf("port %u, IPv%u, protocol %u\n", port, ip_proto, trans_proto);
  return 0;
}

int corvil_nla_put(struct nlmsghdr* message, uint16_t type, uint32_t length, const void* payload) {
  struct nlattr* attribute = (struct nlattr*)((char*)message + NLMSG_ALIGN(message->nlmsg_len));
  if (length > UINT16_MAX - sizeof(*attribute)) {
    return -1;
  }
  attribute->nla_len = (uint16_t)(sizeof(*attribute) + length);
  attribute->nla_type = type;
  if (length != 0) {
    memcpy(attribute + 1, payload, length); /* The library has zeroed the padding behind it. */
  }
  message->nlmsg_len = NLMSG_ALIGN(message->nlmsg_len) + NLMSG_ALIGN(attribute->nla_len);
  return 0;
}

int corvil_nla_parse(const struct nlattr* first, const struct nlattr** table, uint32_t length,
                     uint16_t max_type) {
  memset(table, 0, (max_type + 1U) * sizeof(*table));
  while (length >= sizeof(*first) && first->nla_len >= sizeof(*first) && first->nla_len <= length) {
    if ((first->nla_type & NLA_TYPE_MASK) <= max_type) {
      table[first->nla_type & NLA_TYPE_MASK] = first;
    }
    const uint32_t step = NLMSG_ALIGN(first->nla_len);
    length = step < length ? length - step : 0;
    first = (const struct nlattr*)((const char*)first + step);
  }
  return length == 0 ? 0 : -1;
}

int corvil_netlink_query_genl(const char* family_name, uint32_t version, uint16_t* family_id) {
  *family_id = 28; /* A real host asks the kernel's controller: a family may go and come back. */
  return strcmp(family_name, "TAVIK_WLAN") == 0 && version == 1 ? 0 : -1;
}

static union {
  struct nlmsghdr header;
  char bytes[256];
} sent;

int corvil_netlink_transact(const struct nlmsghdr* request, int protocol, int* error) {
  (void)error; /* It would be set to what the kernel refuses the request with, such as -EEXIST. */
  printf("send by protocol %d:", protocol);
  for (uint32_t i = 0; i < request->nlmsg_len; ++i) {
    printf("%s%02x", i % 4 == 0 ? " " : "", ((const unsigned char*)request)[i]);
  }
  printf("\n");
  if (request->nlmsg_len <= sizeof(sent)) {
    memcpy(&sent, request, request->nlmsg_len);
  }
  return 0;
}

int corvil_netlink_query(const struct nlmsghdr* request, int protocol,
                         corvil_netlink_reply_callback callback, void* context, int dump) {
  (void)request;
  printf("query by protocol %d%s\n", protocol, dump != 0 ? ", as a dump" : "");
  callback(&sent.header, context); /* A kernel replies with tuples just as they are added. */
  return 0;
}

int main(void) {
  const PortDescriptor ports[] = {{4, 6, 443}, {6, 17, 4500}};
  const int added = corvil_datapath_proxy_update_config_info(ports, 2, NULL, 0);
  return added == -1 || corvil_datapath_proxy_get_port_tuple() == -1 ? 1 : 0;
}
