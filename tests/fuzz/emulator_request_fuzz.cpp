// The emulated kernel, given any datagrams one after the other. Input: the datagrams, then their
// lengths, two little-endian bytes each, that of the first datagram last.

#include <fuzzer/FuzzedDataProvider.h>
#include <libmnl/libmnl.h>
#include <linux/genetlink.h>
#include <linux/netlink.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "tests/fuzz/require.h"
#include "reference_kernel/emulator/kernel.h"

namespace {

using fuzz::require;
using tavik_wlan::Bytes;
using tavik_wlan::Datagram;

constexpr int kMaxErrno = 4095;

/// Calls `take` for each attribute of a run, which is made of whole ones.
template <typename Take>
void for_each_attribute(Bytes run, Take take) {
  while (!run.empty()) {
    const auto* attribute = reinterpret_cast<const nlattr*>(run.data());
    require(mnl_attr_ok(attribute, static_cast<int>(run.size())));
    take(attribute);
    run = run.subspan(std::min<size_t>(NLA_ALIGN(attribute->nla_len), run.size()));
  }
}

void check_attribute(const nlattr* attribute) {
  if ((attribute->nla_type & NLA_F_NESTED) != 0) {
    const auto* payload = static_cast<const uint8_t*>(mnl_attr_get_payload(attribute));
    for_each_attribute({payload, mnl_attr_get_payload_len(attribute)}, check_attribute);
  }
}

void check_acknowledgement(const nlmsghdr* message, Bytes payload) {
  require(payload.size() >= sizeof(nlmsgerr));
  const auto* acknowledgement = reinterpret_cast<const nlmsgerr*>(payload.data());
  require(acknowledgement->error <= 0 && acknowledgement->error >= -kMaxErrno);
  const Bytes attributes = payload.subspan(sizeof(nlmsgerr));
  require(attributes.empty() || (message->nlmsg_flags & NLM_F_ACK_TLVS) != 0);
  for_each_attribute(attributes, [&](const nlattr* attribute) {
    require(mnl_attr_get_type(attribute) != NLMSGERR_ATTR_OFFS ||
            mnl_attr_get_u32(attribute) < acknowledgement->msg.nlmsg_len);
  });
}

void check_message(const nlmsghdr* message) {
  const Bytes payload(static_cast<const uint8_t*>(mnl_nlmsg_get_payload(message)),
                      mnl_nlmsg_get_payload_len(message));
  if (message->nlmsg_type == NLMSG_ERROR) {
    check_acknowledgement(message, payload);
  } else if (message->nlmsg_type == NLMSG_DONE) {
    require(payload.size() == sizeof(int));
  } else {
    require(payload.size() >= GENL_HDRLEN);
    for_each_attribute(payload.subspan(GENL_HDRLEN), check_attribute);
  }
}

/// Whole messages and nothing after them.
void check_answer(const Datagram& datagram) {
  const auto* message = reinterpret_cast<const nlmsghdr*>(datagram.data());
  auto left = static_cast<int>(datagram.size());
  require(left > 0);
  while (left > 0) {
    require(mnl_nlmsg_ok(message, left));
    check_message(message);
    message = mnl_nlmsg_next(message, &left);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider input(data, size);
  tavik_wlan::Kernel kernel({});
  while (input.remaining_bytes() > 0) {
    const size_t length = input.ConsumeIntegral<uint16_t>();
    // In a block of its own exact size, so that a read beyond it is seen.
    const auto request = input.ConsumeBytes<uint8_t>(length);
    for (const Datagram& datagram : kernel.receive(request).datagrams) {
      check_answer(datagram);
    }
  }
  return 0;
}
