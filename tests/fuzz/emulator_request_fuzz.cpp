// The emulated kernel, given any datagrams one after the other. Input: the datagrams, then their
// lengths, two little-endian bytes each, that of the first datagram last.

#include <fuzzer/FuzzedDataProvider.h>
#include <linux/genetlink.h>
#include <linux/netlink.h>

#include <cstddef>
#include <cstdint>
#include <optional>

#include "reference_kernel/emulator/kernel.h"
#include "tests/fuzz/require.h"

namespace {

using fuzz::require;
using tavik_wlan::Attribute;
using tavik_wlan::AttributeReader;
using tavik_wlan::Bytes;
using tavik_wlan::load;

constexpr int kMaxErrno = 4095;

/// Calls `take` for each attribute of a run, which is made of whole ones.
template <typename Take>
void for_each_attribute(AttributeReader run, Take take) {
  while (const std::optional<Attribute> attribute = run.next()) {
    take(*attribute);
  }
  require(!run.has_leftover());
}

void check_attribute(const Attribute& attribute) {
  if (attribute.nested) {
    for_each_attribute(AttributeReader(attribute), check_attribute);
  }
}

void check_acknowledgement(const nlmsghdr& header, Bytes message) {
  require(message.size() >= NLMSG_HDRLEN + sizeof(nlmsgerr));
  const auto acknowledgement = load<nlmsgerr>(message.subspan(NLMSG_HDRLEN));
  require(acknowledgement.error <= 0 && acknowledgement.error >= -kMaxErrno);
  const AttributeReader extack(message, NLMSG_HDRLEN + sizeof(nlmsgerr));
  require(!extack.has_leftover() || (header.nlmsg_flags & NLM_F_ACK_TLVS) != 0);
  for_each_attribute(extack, [&](const Attribute& attribute) {
    require(attribute.type != NLMSGERR_ATTR_OFFS ||
            load<uint32_t>(attribute.payload) < acknowledgement.msg.nlmsg_len);
  });
}

void check_message(Bytes message) {
  const auto header = load<nlmsghdr>(message);
  if (header.nlmsg_type == NLMSG_ERROR) {
    check_acknowledgement(header, message);
  } else if (header.nlmsg_type == NLMSG_DONE) {
    require(message.size() == NLMSG_HDRLEN + sizeof(int));
  } else {
    require(message.size() >= NLMSG_HDRLEN + GENL_HDRLEN);
    for_each_attribute(AttributeReader(message), check_attribute);
  }
}

/// Whole messages and nothing after them.
void check_answer(Bytes datagram) {
  require(!datagram.empty());
  while (const std::optional<Bytes> message = tavik_wlan::take_message(datagram)) {
    check_message(*message);
  }
  require(datagram.empty());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider input(data, size);
  tavik_wlan::Kernel kernel({});
  while (input.remaining_bytes() > 0) {
    const size_t length = input.ConsumeIntegral<uint16_t>();
    // In a block of its own exact size, so that a read beyond it is seen.
    const auto request = input.ConsumeBytes<uint8_t>(length);
    for (const tavik_wlan::Datagram& datagram : kernel.receive(request).datagrams) {
      check_answer(datagram);
    }
  }
  return 0;
}
