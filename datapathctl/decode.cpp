// Messages from a file.

#include <linux/genetlink.h>

#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "datapathctl/capture.h"
#include "datapathctl/operations.h"
#include "datapathctl/trace.h"
#include "kernel_interface/protocol.h"

namespace datapathctl {
namespace {

/// The family's id as the first answer of the controller tells it; otherwise, of bytes in
/// hexadecimal, the type of the first message that is not the controller's.
uint16_t find_family(const std::vector<Packet>& packets, bool is_hex) {
  MessageDecoder decoder;
  uint16_t first = 0;
  for (const Packet& packet : packets) {
    decoder.decode(packet.datagram);
    if (decoder.family_id() != 0) {
      return decoder.family_id();
    }
    if (is_hex && first <= GENL_ID_CTRL && packet.datagram.size() >= sizeof(nlmsghdr)) {
      first = tavik_wlan::load<nlmsghdr>(packet.datagram).nlmsg_type;
    }
  }
  return first > GENL_ID_CTRL ? first : uint16_t{0};
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
  const bool is_hex = !is_capture(contents);
  std::vector<Packet> packets;
  Result result;
  if (is_hex) {
    packets = read_hex(contents);
  } else {
    result = read_capture(contents, &packets);
  }
  Viewer viewer(session.settings(), find_family(packets, is_hex));
  for (const Packet& packet : packets) {
    viewer.show(packet.datagram, {.time = packet.time});
  }
  if (!viewer.has_shown() && result.ok()) {
    result = usage_error("nothing of TAVIK_WLAN in it");
  }
  return result.ok() ? result : Result{result.status, name + ": " + result.error};
}

}  // namespace datapathctl
