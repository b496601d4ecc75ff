// Writes the first inputs of the fuzz targets into folders named after them: what the library and
// an emulated kernel say to each other while every command is given once. The formats are those
// that the targets document.
//
//   write_seeds FOLDER

#include <arpa/inet.h>
#include <linux/genetlink.h>
#include <linux/netlink.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

#include "datapath_proxy/include/corvil_datapath_proxy.h"
#include "kernel_interface/tavik_wlan.h"
#include "reference_host/netlink/corvil_netlink_control.h"
#include "reference_kernel/emulator/emulator.h"

namespace {

using Message = std::vector<uint8_t>;

struct Traffic {
  std::vector<Message> requests;
  std::vector<Message> replies;
};

/// Keeps the first message of a datagram.
void record(CorvilNetlinkDirection direction, const void* bytes, size_t /*length*/, void* context) {
  auto* traffic = static_cast<Traffic*>(context);
  const auto* start = static_cast<const uint8_t*>(bytes);
  const size_t length = static_cast<const nlmsghdr*>(bytes)->nlmsg_len;
  (direction == CORVIL_NETLINK_SENT ? traffic->requests : traffic->replies)
      .emplace_back(start, start + length);
}

/// Gives every command to the kernel. Returns whether it accepted them all.
bool give_commands() {
  constexpr PortDescriptor kPorts[] = {{4, 6, 443}, {6, 17, 4500}};
  const IpsecInfo flow = {{}, htonl(0x1001)};
  const uint16_t port = htons(4500);
  return corvil_datapath_proxy_set_config_info("wlan0", "wlan0", "wwan0", kPorts, 2, 1) == 0 &&
         corvil_datapath_proxy_add_ipsec_info(&flow, "192.0.2.1") == 0 &&
         corvil_datapath_proxy_get_port_tuple() == 0 &&
         corvil_datapath_proxy_set_udp_encap_port(port) == 0 &&
         corvil_datapath_proxy_act_encap_port_pass_through(port) == 0 &&
         corvil_datapath_proxy_act_encap_port_drop(port) == 0 &&
         corvil_datapath_proxy_unset_udp_encap_port(port) == 0 &&
         corvil_datapath_proxy_add_ll_dst_addr("2001:db8::1", "2001:db8::2", port, port) == 0 &&
         corvil_datapath_proxy_unset_config_info("wlan0", "wlan0", "wwan0", kPorts, 2, 1) == 0 &&
         corvil_datapath_proxy_flush_config_info() == 0;
}

Traffic record_traffic(const std::filesystem::path& folder) {
  const tavik_wlan::Emulator emulator(folder / "kernel");
  setenv("CORVIL_NETLINK_EMULATOR", emulator.path().c_str(), 1);
  Traffic traffic;
  corvil_netlink_set_trace(record, &traffic);
  const bool accepted = give_commands();
  corvil_netlink_set_trace(nullptr, nullptr);
  if (!accepted) {
    std::cerr << "write_seeds: a command was refused: " << corvil_netlink_last_error()->message
              << '\n';
    exit(EXIT_FAILURE);
  }
  return traffic;
}

/// The inputs of one target.
class Corpus {
 public:
  explicit Corpus(std::filesystem::path folder) : folder_(std::move(folder)) {
    std::filesystem::create_directories(folder_);
  }

  void add(Message input, const Message& tail) {
    input.insert(input.end(), tail.begin(), tail.end());
    std::ofstream file(folder_ / std::to_string(++count_), std::ios::binary);
    file.exceptions(std::ios::failbit | std::ios::badbit);
    file.write(reinterpret_cast<const char*>(input.data()),
               static_cast<std::streamsize>(input.size()));
  }

 private:
  std::filesystem::path folder_;
  int count_ = 0;
};

Message little_endian(size_t value) {
  return {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8)};
}

void write_requests(const Traffic& traffic, Corpus corpus) {
  Message all;
  Message lengths;
  for (const Message& request : traffic.requests) {
    const Message length = little_endian(request.size());
    corpus.add(request, length);
    all.insert(all.end(), request.begin(), request.end());
    lengths.insert(lengths.begin(), length.begin(), length.end());
  }
  corpus.add(all, lengths);
}

void write_replies(const Traffic& traffic, Corpus corpus) {
  uint8_t settings = 0;
  for (const Message& reply : traffic.replies) {
    corpus.add(reply, {settings++});
  }
}

void write_messages(const Traffic& traffic, Corpus corpus) {
  const Message tail = {24, 0, 0, 0, TAVIK_WLAN_ATTR_DEV, 0, 0, 0, 1};
  for (const auto& messages : {traffic.requests, traffic.replies}) {
    for (const Message& message : messages) {
      corpus.add(message, tail);
    }
  }
}

void write_attributes(const Traffic& traffic, Corpus corpus) {
  for (const Message& request : traffic.requests) {
    corpus.add({request.begin() + NLMSG_HDRLEN + GENL_HDRLEN, request.end()},
               {TAVIK_WLAN_ATTR_MAX});
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: write_seeds FOLDER\n";
    return EXIT_FAILURE;
  }
  const std::filesystem::path folder = argv[1];
  std::filesystem::create_directories(folder);
  const Traffic traffic = record_traffic(folder);
  write_requests(traffic, Corpus(folder / "emulator_request_fuzz"));
  write_replies(traffic, Corpus(folder / "reply_callback_fuzz"));
  write_replies(traffic, Corpus(folder / "hostile_kernel_fuzz"));
  write_messages(traffic, Corpus(folder / "decoder_fuzz"));
  write_attributes(traffic, Corpus(folder / "nla_parse_fuzz"));
  return EXIT_SUCCESS;
}
