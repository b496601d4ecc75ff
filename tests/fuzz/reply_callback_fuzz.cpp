// The library's reply callback, given any message as a reply of the kernel, with the reference
// host's attribute parser behind it. Input: the reply, then one byte of Settings.

#include <android/log.h>
#include <fuzzer/FuzzedDataProvider.h>
#include <linux/netlink.h>

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "datapath_proxy/include/corvil_datapath_proxy.h"
#include "datapath_proxy/src/datapath_log.h"
#include "host_interfaces/corvil_log_services.h"
#include "host_interfaces/corvil_netlink.h"
#include "host_interfaces/corvil_port_utils.h"
#include "tests/fuzz/require.h"

namespace {

using fuzz::require;

enum Settings : uint8_t {
  kLogToDiagnosticService = 1,
  kTreeRefusesOddPorts = 2,
};

/// In a block of its own exact size, so that a read beyond it is seen.
std::vector<uint8_t> reply;
bool tree_refuses_odd_ports = false;
int tree_result = -1;  // of the last port of this reply

}  // namespace

extern "C" {

uint8_t log_to_file = 0;
FILE* logging_fd = nullptr;
uint32_t zu_log_mask = 0;

int zu_format_log_msg(char* buffer, size_t size, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int length = vsnprintf(buffer, size, format, arguments);
  va_end(arguments);
  return length;
}

void msg_sprintf(const LogSiteDescriptor* descriptor, ...) {
  va_list arguments;
  va_start(arguments, descriptor);
  const char* message = va_arg(arguments, const char*);
  va_end(arguments);
  require(strlen(message) < datapath::kDiagnosticMessageSize);
}

int __android_log_print(int /*prio*/, const char* /*tag*/, const char* /*fmt*/, ...) { return 0; }

int corvil_netlink_query_genl(const char* /*family_name*/, uint32_t /*version*/,
                              uint16_t* family_id) {
  *family_id = NLMSG_MIN_TYPE;
  return 0;
}

int corvil_netlink_transact(const struct nlmsghdr* /*request*/, int /*protocol*/, int* /*error*/) {
  return 0;
}

int corvil_netlink_query(const struct nlmsghdr* /*request*/, int /*protocol*/,
                         corvil_netlink_reply_callback callback, void* context, int /*dump*/) {
  const int result = callback(reinterpret_cast<const nlmsghdr*>(reply.data()), context);
  require(result == 0 || (result == 1 && tree_result == 0));
  return 0;
}

int corvil_port_utils_add_port_from_kernel(uint16_t port, uint8_t /*ip_proto*/,
                                           uint8_t /*trans_proto*/) {
  tree_result = tree_refuses_odd_ports && port % 2 != 0 ? -1 : 0;
  return tree_result;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider input(data, size);
  const auto settings = input.ConsumeIntegral<uint8_t>();
  zu_log_mask = (settings & kLogToDiagnosticService) != 0 ? ZU_LOG_MASK_DIAGNOSTIC : 0;
  tree_refuses_odd_ports = (settings & kTreeRefusesOddPorts) != 0;
  tree_result = -1;
  reply = input.ConsumeRemainingBytes<uint8_t>();
  if (reply.size() < NLMSG_HDRLEN) {
    return 0;  // The host hands over whole messages only.
  }
  const auto length = static_cast<uint32_t>(reply.size());
  memcpy(reply.data() + offsetof(nlmsghdr, nlmsg_len), &length, sizeof(length));
  require(corvil_datapath_proxy_get_port_tuple() == 0);
  return 0;
}
}
