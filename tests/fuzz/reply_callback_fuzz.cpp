// The library's reply callback, given any message as a reply of the kernel, with the reference
// host's attribute parser behind it.

#include <fuzzer/FuzzedDataProvider.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>

#include <cstdint>
#include <cstring>

#include "datapath_proxy/include/corvil_datapath_proxy.h"
#include "tests/fuzz/any_message.h"
#include "tests/support/fake_host.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  GTEST_FLAG_SET(break_on_failure, true);  // What the fake host expects is a finding, too.
  FuzzedDataProvider input(data, size);
  fake_host::reset();
  fake_host::host().port_results.assign(input.ConsumeIntegralInRange<size_t>(0, 3), -1);
  std::string reply = fuzz::any_message(input, NLMSG_MIN_TYPE, NLMSG_MIN_TYPE, 0);
  if (reply.size() < NLMSG_HDRLEN) {
    return 0;  // The host hands over whole messages only.
  }
  const auto length = static_cast<uint32_t>(reply.size());
  memcpy(reply.data(), &length, sizeof(length));
  fake_host::host().replies.emplace_back(reply.begin(), reply.end());
  fuzz::require(corvil_datapath_proxy_get_port_tuple() == 0);
  fuzz::require(fake_host::host().live.empty());
  return 0;
}
