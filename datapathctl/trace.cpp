#include "datapathctl/trace.h"

#include <linux/genetlink.h>

#include <cstdio>
#include <ctime>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>

#include "datapathctl/operations.h"
#include "kernel_interface/protocol.h"
#include "reference_host/netlink/corvil_netlink_control.h"

namespace datapathctl {
namespace {

using std::chrono::system_clock;

timespec to_timespec(system_clock::time_point time) {
  const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
  return {.tv_sec = system_clock::to_time_t(seconds),
          .tv_nsec = static_cast<long>(std::chrono::nanoseconds(time - seconds).count())};
}

nlohmann::ordered_json to_json(const Message& message, const Origin& origin, bool hex) {
  nlohmann::ordered_json object = message.json;
  object["direction"] = origin.is_sent ? "sent" : "received";
  if (origin.time) {
    object["time"] = time_text(*origin.time, true);
  }
  if (origin.client) {
    object["client"] = *origin.client;
  }
  if (origin.pid != 0) {
    object["pid"] = origin.pid;
  }
  if (hex) {
    object["bytes"] = to_hex(message.bytes);
  }
  return object;
}

std::string to_text(const Message& message, const Origin& origin, const Settings& settings) {
  std::string text = origin.time ? time_text(*origin.time, false) + " " : "";
  if (origin.client) {
    text += "client " + (*origin.client != 0 ? std::to_string(*origin.client) : "-") + " ";
  }
  if (origin.pid != 0) {
    text += "(pid " + std::to_string(origin.pid) + ") ";
  }
  text += origin.is_sent ? "> " : "< ";
  text += to_text(message, settings.trace == Trace::kFull) + "\n";
  return settings.hex ? text + "    bytes " + to_hex(message.bytes) + "\n" : text;
}

/// The family's id as the first answer of the controller tells it; otherwise, of bytes in
/// hexadecimal, which have no time, the type of the first message that is not the controller's.
uint16_t find_family(const std::vector<Packet>& packets) {
  MessageDecoder decoder;
  uint16_t first = 0;
  for (const Packet& packet : packets) {
    decoder.decode(packet.datagram);
    if (decoder.family_id() != 0) {
      return decoder.family_id();
    }
    if (!packet.time && first <= GENL_ID_CTRL && packet.datagram.size() >= sizeof(nlmsghdr)) {
      first = tavik_wlan::load<nlmsghdr>(packet.datagram).nlmsg_type;
    }
  }
  return first > GENL_ID_CTRL ? first : uint16_t{0};
}

}  // namespace

std::string time_text(system_clock::time_point time, bool for_program) {
  const timespec parts = to_timespec(time);
  tm date{};
  for_program ? gmtime_r(&parts.tv_sec, &date) : localtime_r(&parts.tv_sec, &date);
  char seconds[32];
  strftime(seconds, sizeof(seconds), for_program ? "%FT%T" : "%T", &date);
  char text[64];
  snprintf(text, sizeof(text), "%s.%06ld%s", seconds, parts.tv_nsec / 1000, for_program ? "Z" : "");
  return text;
}

void print(const Settings& settings, const std::vector<Message>& messages, const Origin& origin) {
  for (const Message& message : messages) {
    const bool is_plain_look_up = message.subject == Subject::kLookUp && !message.is_failure;
    if (settings.trace == Trace::kFull || !is_plain_look_up) {
      std::cout << (settings.json ? json_text(to_json(message, origin, settings.hex)) + "\n"
                                  : to_text(message, origin, settings));
    }
  }
  std::cout.flush();
}

void Viewer::show(std::span<const uint8_t> datagram, Origin origin) {
  std::vector<Message> messages = decoder_.decode(datagram);
  std::erase_if(messages,
                [](const Message& message) { return message.subject == Subject::kOther; });
  if (messages.empty()) {
    return;
  }
  has_shown_ = true;
  origin.is_sent = messages.front().is_request;
  if (const uint32_t port_id = messages.front().json["port_id"]; !origin.client && port_id != 0) {
    origin.client = port_id;
  }
  const timespec time = to_timespec(origin.time.value_or(system_clock::now()));
  if (corvil_netlink_capture(origin.is_sent ? CORVIL_NETLINK_SENT : CORVIL_NETLINK_RECEIVED,
                             NETLINK_GENERIC, datagram.data(), datagram.size(), &time) == -1) {
    throw std::runtime_error(corvil_netlink_last_error()->message);
  }
  print(settings_, messages, origin);
}

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
  std::vector<Packet> packets;
  Result result = read_packets(read.str(), &packets);
  Viewer viewer(session.settings(), find_family(packets));
  for (const Packet& packet : packets) {
    viewer.show(packet.datagram, {.time = packet.time});
  }
  if (!viewer.has_shown() && result.ok()) {
    result = usage_error("nothing of TAVIK_WLAN in it");
  }
  return result.ok() ? result : Result{result.status, name + ": " + result.error};
}

}  // namespace datapathctl
