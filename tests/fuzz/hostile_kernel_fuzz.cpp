// The library on the reference host, whose kernel answers with anything. Input: a sequence of
// calls, and for every request that they send the datagrams that come back. Whatever they are, each
// call returns, and once the kernel behaves again all goes well from the second call on.

#include <fuzzer/FuzzedDataProvider.h>
#include <linux/genetlink.h>
#include <linux/netlink.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "host_interfaces/corvil_log_services.h"
#include "kernel_interface/tavik_wlan.h"
#include "reference_host/log/corvil_log_control.h"
#include "reference_host/netlink/corvil_netlink_control.h"
#include "reference_host/port_utils/corvil_port_tree.h"
#include "tests/fuzz/any_message.h"
#include "tests/support/calls.h"
#include "tests/support/netlink_bytes.h"
#include "tests/support/scripted_kernel.h"

namespace {

using fuzz::require;
using namespace netlink_bytes;

constexpr uint16_t kFamilyId = 0x2a;

/// The controller's answer to a query for the family.
std::string family(uint32_t sequence, uint16_t id, uint32_t version) {
  return message(GENL_ID_CTRL, 0, sequence,
                 generic(CTRL_CMD_NEWFAMILY, attribute(CTRL_ATTR_FAMILY_ID, raw(id)) +
                                                 attribute(CTRL_ATTR_VERSION, raw(version))));
}

/// The end of any exchange: a dump takes the second message for it, the others the first.
std::string end(uint32_t sequence) {
  return acknowledgement(sequence) + message(NLMSG_DONE, NLM_F_MULTI, sequence, raw(0));
}

std::vector<std::string> answer_well(const nlmsghdr& request) {
  const bool resolves = request.nlmsg_type == GENL_ID_CTRL;
  return {(resolves ? family(request.nlmsg_seq, kFamilyId, TAVIK_WLAN_FAMILY_VERSION) : "") +
          end(request.nlmsg_seq)};
}

std::vector<std::string> answer_from(FuzzedDataProvider& input, const nlmsghdr& request) {
  std::vector<std::string> datagrams;
  while (input.ConsumeBool()) {
    std::string& datagram = datagrams.emplace_back();
    do {
      const auto sequence = request.nlmsg_seq - (input.ConsumeIntegral<uint8_t>() == 1 ? 1 : 0);
      datagram += input.ConsumeBool()
                      ? family(sequence, input.ConsumeBool() ? kFamilyId : 0,
                               input.ConsumeIntegralInRange(0U, 2U))
                      : fuzz::any_message(input, kFamilyId, request.nlmsg_type, sequence);
    } while (input.ConsumeBool());
  }
  datagrams.push_back(input.ConsumeBool() ? end(request.nlmsg_seq) : "");
  return datagrams;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static ScriptedKernel kernel(answer_well);
  setenv("CORVIL_NETLINK_TIMEOUT_MS", "1000", 1);
  corvil_log_set_diagnostic_handler(
      [](const LogSiteDescriptor*, const char*, const char*, void*) {}, nullptr);
  zu_log_mask = ZU_LOG_MASK_DIAGNOSTIC;

  FuzzedDataProvider input(data, size);
  kernel.answer_with([&](const nlmsghdr& request) { return answer_from(input, request); });
  for (int count = 0; count < 4; ++count) {
    const int result = input.PickValueInArray(calls::kAll)();
    require(result == 0 || result == -1);
  }
  kernel.answer_with(answer_well);
  calls::reset();  // Finds what is left of the answers: datagrams, or a connection that has ended.
  require(calls::up() == 0);
  require(calls::get_ports() == 0 && corvil_netlink_last_error()->error == 0);
  corvil_port_tree_clear();
  return 0;
}
