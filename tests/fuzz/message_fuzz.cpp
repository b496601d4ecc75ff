// The emulated kernel, given any datagrams one after the other, and the decoder of datapathctl,
// given the same and what the kernel answers. Most are requests of the library with a change.

#include <fuzzer/FuzzedDataProvider.h>
#include <linux/genetlink.h>
#include <linux/netlink.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "datapathctl/message_decoder.h"
#include "reference_host/netlink/corvil_netlink_control.h"
#include "reference_kernel/emulator/kernel.h"
#include "tests/fuzz/any_message.h"
#include "tests/support/calls.h"
#include "tests/support/netlink_bytes.h"

namespace {

using datapathctl::MessageDecoder;
using fuzz::require;

constexpr uint16_t kFamilyId = 28;

/// What the library sends.
std::vector<std::string> requests() {
  std::vector<std::string> sent;
  corvil_netlink_set_dry_run(kFamilyId);
  corvil_netlink_set_trace(
      [](CorvilNetlinkDirection, const void* bytes, size_t size, void* list) {
        static_cast<std::vector<std::string>*>(list)->emplace_back(static_cast<const char*>(bytes),
                                                                   size);
      },
      &sent);
  for (const auto& call : calls::kAll) {
    call();
  }
  return sent;
}

std::string any_request(FuzzedDataProvider& input) {
  static const std::vector<std::string> sent = requests();
  std::string request = sent.at(input.ConsumeIntegralInRange<size_t>(0, sent.size() - 1));
  if (input.ConsumeBool()) {
    const auto place = input.ConsumeIntegralInRange<size_t>(0, request.size());
    const auto length = input.ConsumeIntegralInRange<size_t>(0, 8);
    request.replace(place, length, fuzz::any_bytes(input));
    request.replace(0, sizeof(uint32_t), netlink_bytes::raw(static_cast<uint32_t>(request.size())));
  }
  return request;
}

bool is_printable(std::string_view text) {
  return std::ranges::all_of(text, [](char c) { return (c >= ' ' && c <= '~') || c == '\n'; });
}

/// Each byte belongs to one message, or to a rest that is none.
nlohmann::ordered_json decode(MessageDecoder& decoder, std::span<const uint8_t> datagram) {
  nlohmann::ordered_json messages = decoder.decode(datagram);
  size_t decoded = 0;
  for (const auto& message : messages) {
    require(is_printable(datapathctl::to_text(message)));
    decoded += NLMSG_ALIGN(message["length"].get<size_t>());
  }
  require(NLMSG_ALIGN(decoded) == NLMSG_ALIGN(datagram.size()));
  return messages;
}

/// Whole messages, which point at nothing outside the request.
void check_answer(const nlohmann::ordered_json& messages, size_t request_size) {
  require(!messages.empty());
  for (const auto& message : messages) {
    require(message["message"] != "MALFORMED");
    if (message.contains("attributes") && message["attributes"].contains("OFFS")) {
      require(message["attributes"]["OFFS"].get<uint32_t>() < request_size);
    }
  }
}

/// What the decoder finds in a request that a kernel complains of, wherever that points.
void look_up(const MessageDecoder& decoder, std::span<const uint8_t> request, uint32_t offset) {
  nlmsghdr header;
  if (request.size() < sizeof(header)) {
    return;
  }
  memcpy(&header, request.data(), sizeof(header));
  if (header.nlmsg_len == request.size()) {
    const auto value = decoder.attribute_at(request, offset).value;
    require(is_printable(datapathctl::printable(datapathctl::value_text(value))));
    require(!decoder.missing_attribute(request, offset % 16, offset).empty());
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider input(data, size);
  tavik_wlan::Kernel kernel;
  MessageDecoder decoder(input.ConsumeBool() ? kFamilyId : 0);
  while (input.remaining_bytes() > 0) {
    const auto offset = input.ConsumeIntegral<uint32_t>();
    std::string request;
    do {
      request += input.ConsumeIntegralInRange(0, 3) == 0
                     ? fuzz::any_message(input, kFamilyId, GENL_ID_CTRL, 0)
                     : any_request(input);
    } while (input.ConsumeBool());
    // In a block of its own exact size, so that a read beyond it is seen.
    const std::vector<uint8_t> datagram(request.begin(), request.end());
    decode(decoder, datagram);
    look_up(decoder, datagram, offset);
    for (const auto& answer : kernel.receive(datagram).datagrams) {
      check_answer(decode(decoder, answer), datagram.size());
    }
  }
  return 0;
}
