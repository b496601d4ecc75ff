// Messages from a file.

#include <linux/genetlink.h>

#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "datapathctl/capture.h"
#include "datapathctl/monitor.h"
#include "datapathctl/operations.h"
#include "kernel_interface/protocol.h"

namespace datapathctl {
namespace {

/// The family's id as the first answer of the controller tells it. Without one it is, in packets
/// that hold nothing but messages of the family, the type of the first.
uint16_t find_family(const std::vector<Packet>& packets, bool is_only_family) {
  MessageDecoder decoder;
  uint16_t first = 0;
  for (const Packet& packet : packets) {
    for (const Message& message : decoder.decode(packet.datagram)) {
      if (decoder.family_id() != 0) {
        return decoder.family_id();
      }
      if (is_only_family && first == 0 && message.bytes.size() >= sizeof(nlmsghdr)) {
        const uint16_t type = tavik_wlan::load<nlmsghdr>(message.bytes).nlmsg_type;
        first = type > GENL_ID_CTRL ? type : 0;
      }
    }
  }
  return first;
}

}  // namespace

Result run_decode(Session& session, const Command& command) {
  const std::string& path = command.path;
  const std::string name = path == "-" ? "standard input" : path;
  std::ifstream file(path, std::ios::binary);
  std::istream& input = path == "-" ? std::cin : file;
  input.peek();
  // A folder opens, but does not read.
  if (input.bad() || (path != "-" && !file.is_open())) {
    return usage_error("cannot read " + name);
  }
  std::ostringstream read;
  read << input.rdbuf();
  const std::string contents = std::move(read).str();
  std::vector<Packet> packets;
  Result result;
  if (is_capture(contents)) {
    result = read_capture(contents, &packets);
  } else {
    packets = read_hex(contents);
  }
  Viewer viewer(session.settings(), find_family(packets, !is_capture(contents)));
  for (const Packet& packet : packets) {
    viewer.show(packet.datagram, {.time = packet.time});
  }
  if (!viewer.finish() && result.ok()) {
    result = usage_error("nothing of TAVIK_WLAN in it");
  }
  return result.ok() ? result : Result{result.status, name + ": " + result.error};
}

}  // namespace datapathctl
