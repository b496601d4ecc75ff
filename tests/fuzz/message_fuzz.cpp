// Every reader of messages, given any. Input: calls of the library, for each request of theirs what
// becomes of it on its way to the emulated kernel, and what becomes of the answer. Each call
// returns, whatever the reference host receives; the emulated kernel answers whatever it receives
// with whole messages; and datapathctl decodes both, and reads any file that it is given.

#include <fuzzer/FuzzedDataProvider.h>
#include <linux/netlink.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "datapathctl/message_decoder.h"
#include "reference_host/port_utils/corvil_port_tree.h"
#include "reference_kernel/emulator/kernel.h"
#include "tests/support/calls.h"
#include "tests/support/netlink_bytes.h"
#include "tests/support/scripted_kernel.h"

namespace {

using datapathctl::Message;
using datapathctl::MessageDecoder;
using Bytes = std::vector<uint8_t>;  // of exactly its size, so that a read beyond it is seen
using Json = nlohmann::ordered_json;

/// Ends the process unless the condition holds; libFuzzer then reports the input and the stack.
void require(bool condition) {
  if (!condition) {
    abort();
  }
}

/// A datagram with changes, in which any bytes take the place of as many or of others. The length
/// in its first message is then mended or not.
Bytes changed(FuzzedDataProvider& input, std::string datagram) {
  while (input.ConsumeBool()) {
    const auto place = input.ConsumeIntegralInRange<size_t>(0, datagram.size());
    const std::string bytes = input.ConsumeRandomLengthString(64);
    const auto length = input.ConsumeIntegralInRange<size_t>(0, 64);
    datagram.replace(place, input.ConsumeBool() ? bytes.size() : length, bytes);
    if (input.ConsumeBool()) {
      const auto size = static_cast<uint32_t>(datagram.size());
      datagram.replace(0, sizeof(size), netlink_bytes::raw(size));
    }
  }
  return {datagram.begin(), datagram.end()};
}

bool is_printable(std::string_view text) {
  return std::ranges::all_of(text, [](char c) { return (c >= ' ' && c <= '~') || c == '\n'; });
}

/// Each byte belongs to one message, or to a rest that is none.
std::vector<Message> decode(MessageDecoder& decoder, const Bytes& datagram) {
  std::vector<Message> messages = decoder.decode(datagram);
  size_t decoded = 0;
  for (const Message& message : messages) {
    require(is_printable(datapathctl::to_text(message, true)));
    require(is_printable(datapathctl::to_text(message, false)));
    decoded += NLMSG_ALIGN(message.bytes.size());
  }
  require(NLMSG_ALIGN(decoded) == NLMSG_ALIGN(datagram.size()));
  return messages;
}

/// Whole messages, which point at nothing outside the request.
void check_answer(const std::vector<Message>& messages, size_t request_size) {
  require(!messages.empty());
  for (const Message& message : messages) {
    require(message.json["message"] != "MALFORMED");
    const Json attributes = message.json.value("attributes", Json::object());
    require(attributes.value("OFFS", uint32_t{0}) < request_size);
  }
}

/// What comes back for a request. Then the exchange or the connection ends: nobody has to wait. To
/// decode takes most of the time, so not everything is.
std::vector<std::string> answer(FuzzedDataProvider& input, tavik_wlan::Kernel& kernel,
                                MessageDecoder& decoder, const nlmsghdr& header) {
  const bool decodes = input.ConsumeBool();
  const Bytes request = changed(input, {reinterpret_cast<const char*>(&header), header.nlmsg_len});
  if (decodes) {
    decode(decoder, request);
  }
  std::vector<std::string> answers;
  for (const auto& datagram : kernel.receive(request).datagrams) {
    do {
      const Bytes bytes = changed(input, {datagram.begin(), datagram.end()});
      if (decodes) {
        check_answer(decode(decoder, datagram), request.size());
        decode(decoder, bytes);
      }
      answers.emplace_back(bytes.begin(), bytes.end());
    } while (input.ConsumeBool());
  }
  // A dump takes the second message for its end, the others the first.
  const std::string end =
      netlink_bytes::acknowledgement(header.nlmsg_seq) +
      netlink_bytes::message(NLMSG_DONE, 0, header.nlmsg_seq, netlink_bytes::raw(0));
  answers.push_back(input.ConsumeBool() ? "" : end);
  return answers;
}

/// Reads a capture, or bytes in hexadecimal, which can be no more than the file has.
void read_file(std::string_view file) {
  std::vector<datapathctl::Packet> packets;
  static_cast<void>(datapathctl::read_packets(file, &packets));
  size_t size = 0;
  for (const auto& packet : packets) {
    size += packet.datagram.size();
  }
  require(size <= file.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  setenv("CORVIL_NETLINK_TIMEOUT_MS", "1000", 1);
  read_file({reinterpret_cast<const char*>(data), size});
  FuzzedDataProvider input(data, size);
  tavik_wlan::Kernel kernel;
  MessageDecoder decoder;
  const ScriptedKernel peer(
      [&](const nlmsghdr& request) { return answer(input, kernel, decoder, request); });
  for (int count = 0; count < 3; ++count) {
    const int result = input.PickValueInArray(calls::kAll)();
    require(result == 0 || result == -1);
  }
  corvil_port_tree_clear();
  return 0;
}
