// The decoder of datapathctl, given any datagram of a kernel, which then also stands for a request
// that the kernel complains of. Input: the datagram, the offset and the type of the complaint, four
// bytes each, and one byte: whether the family's id is known before.

#include <fuzzer/FuzzedDataProvider.h>
#include <linux/genetlink.h>
#include <linux/netlink.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "datapathctl/message_decoder.h"
#include "tests/fuzz/require.h"

namespace {

using datapathctl::printable;
using datapathctl::to_text;
using datapathctl::value_text;
using fuzz::require;

bool is_printable(std::string_view text) {
  return std::ranges::all_of(text, [](char c) { return (c >= ' ' && c <= '~') || c == '\n'; });
}

/// Each byte belongs to one message, or to a rest that is none.
void require_whole(const nlohmann::ordered_json& messages, size_t size) {
  size_t decoded = 0;
  for (const auto& message : messages) {
    require(is_printable(to_text(message)));
    decoded += NLMSG_ALIGN(message["length"].get<size_t>());
  }
  require(NLMSG_ALIGN(decoded) == NLMSG_ALIGN(size));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider input(data, size);
  datapathctl::MessageDecoder decoder(input.ConsumeBool() ? NLMSG_MIN_TYPE : 0);
  const auto type = input.ConsumeIntegral<uint32_t>();
  const auto offset = input.ConsumeIntegral<uint32_t>();
  // In a block of its own exact size, so that a read beyond it is seen.
  const auto datagram = input.ConsumeRemainingBytes<uint8_t>();
  require_whole(decoder.decode(datagram), datagram.size());

  nlmsghdr header;
  if (datagram.size() < sizeof(header)) {
    return 0;
  }
  memcpy(&header, datagram.data(), sizeof(header));
  if (header.nlmsg_len == datagram.size()) {
    require(is_printable(printable(value_text(decoder.attribute_at(datagram, offset).value))));
    require(!decoder.missing_attribute(datagram, type, offset).empty());
  }
  return 0;
}
