// The emulated kernel: what it answers to literal bytes, and how it serves its clients.

#include "reference_kernel/emulator/emulator.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "reference_kernel/emulator/kernel.h"
#include "reference_kernel/emulator/unix_socket.h"

namespace {

using tavik_wlan::Bytes;
using tavik_wlan::Datagram;
using tavik_wlan::FileDescriptor;
using tavik_wlan::Kernel;

// Messages are written in hexadecimal, where white space doesn't count. All of this is
// little-endian, but for ports, SPIs and addresses.

std::string without_spaces(std::string text) {
  std::erase(text, ' ');
  return text;
}

Datagram bytes(const std::string& hex) {
  Datagram result;
  const std::string digits = without_spaces(hex);
  for (size_t i = 0; i < digits.size(); i += 2) {
    result.push_back(static_cast<std::byte>(std::stoul(digits.substr(i, 2), nullptr, 16)));
  }
  return result;
}

std::string hex(Bytes data) {
  std::string result;
  for (const std::byte byte : data) {
    result += "0123456789abcdef"[static_cast<size_t>(byte) >> 4];
    result += "0123456789abcdef"[static_cast<size_t>(byte) & 15];
  }
  return result;
}

template <typename T>
std::string hex_of(T number) {
  return hex(std::as_bytes(std::span(&number, 1)));
}

/// Throws when the datagram is too short.
template <typename T>
T at(const Datagram& datagram, size_t offset) {
  static_cast<void>(datagram.at(offset + sizeof(T) - 1));
  return tavik_wlan::load<T>(Bytes(datagram).subspan(offset));
}

// NOLINTBEGIN(cert-err58-cpp): a test that can't start says so.

// Of the messages here: sequence number, port id.
const std::string kNumbers = "7856341221436587";

/// A message from its nlmsg_type and nlmsg_flags and what follows its nlmsghdr.
std::string message(const std::string& type_and_flags, const std::string& rest) {
  const std::string unsized = without_spaces(type_and_flags + kNumbers + rest);
  return hex_of(static_cast<uint32_t>(4 + unsized.size() / 2)) + unsized;
}

/// A request to the family that wants an acknowledgement.
std::string request(const std::string& command, const std::string& attributes = "") {
  return message("1c00 0500", command + "010000" + attributes);
}

/// A container of tuples.
std::string tuples(const std::string& elements) {
  const size_t digits = without_spaces(elements).size();
  return hex_of(static_cast<uint16_t>(4 + digits / 2)) + "0180" + elements;
}

const std::string kDump = message("1c00 0103", "0e010000");
const std::string kDone = message("0300 0200", "00000000");
const std::string kReset = request("09");
const std::string kLookUp = message("1000 0500", "03010000 0f00 0200 544156494b5f574c414e00 00");

const std::string kTcp443 = "1000 0180 0c00 0100 01bb0000 04 06 0000 ";
const std::string kUdp4500 = "1000 0180 0c00 0100 11940000 06 11 0000 ";
const std::string kEsp = "1000 0180 0c00 0100 00001001 04 32 0000 ";
const std::string kSelector1 = "0500 0600 01 000000 ";
const std::string kSelector2 = "0500 0600 02 000000 ";
const std::string kWlan0 = "0a00 0200 776c616e3000 0000 ";
const std::string kWlan1 = "0a00 0200 776c616e3100 0000 ";
const std::string kForward = "0a00 0300 7777616e3000 0000 0a00 0400 776c616e3000 0000 ";
const std::string kPort4500 = "0600 0500 1194 0000 ";
const std::string kPort500 = "0600 0500 01f4 0000 ";
const std::string kFlowPorts = "0600 0900 1388 0000 0600 0a00 1389 0000 ";
const std::string kIpv4 =  // 10.0.0.1, 10.0.0.2
    "0d00 0700 31302e302e302e3100 000000 0d00 0800 31302e302e302e3200 000000 ";
const std::string kToIpv6 = "0800 0800 3a3a3200";  // ::2
const std::string kBoth = tuples(kUdp4500 + kTcp443);

// NOLINTEND(cert-err58-cpp)

/// The error of the only datagram of an answer.
int error_of(Kernel& kernel, const std::string& datagram) {
  const std::vector<Datagram> answer = kernel.receive(bytes(datagram)).datagrams;
  EXPECT_EQ(answer.size(), 1U);
  return answer.empty() ? 1 : at<int>(answer.front(), 16);
}

TEST(FamilyTest, ChangesItsStateByTheRulesOfEachCommand) {
  std::string observed;
  Kernel kernel([&](std::string_view line) { observed = line; });
  struct Step {
    std::string command;
    std::string attributes;
    int error;
    std::string state;
    std::string observed;  // how it begins, when accepted
  };
  const std::string tcp = "tuple ipv4 tcp 443\n";
  const std::string udp = "tuple ipv6 udp 4500\n";
  const std::string tcp_esp_udp = tcp + "tuple ipv4 esp 0x00001001\n" + udp;
  const std::string flow = "lowlat 10.0.0.1 5000 10.0.0.2 5001\n";
  const std::string udp_flows = udp + flow + "lowlat ::1 5000 ::2 5001\n";
  const std::string drop = "encap 4500 drop\n" + flow;
  const std::string device = udp + "device 2 wlan0\n" + drop;
  const std::string devices = udp + "device 1 wlan1\ndevice 2 wlan0\n" + drop;
  const std::string forward = udp + "device 2 wlan0\nforward 1 wwan0 wlan0\n" + drop;
  const std::vector<Step> steps = {
      {"01", kBoth, 0, tcp + udp, "ADD_TUPLES ipv6 udp 4500, ipv4 tcp 443"},
      {"01", tuples(kTcp443 + kEsp), 0, tcp_esp_udp,
       "ADD_TUPLES ipv4 tcp 443, ipv4 esp 0x00001001"},
      // Of two containers the last counts.
      {"02", tuples(kUdp4500) + tuples(""), 0, tcp_esp_udp, "DEL_TUPLES"},
      {"02", tuples(kTcp443 + kTcp443 + kEsp), 0, udp, "DEL_TUPLES ipv4 tcp 443, ipv4 tcp 443"},
      {"02", kBoth, -ENOENT, udp, ""},
      {"0c", kIpv4 + kFlowPorts, 0, udp + flow, "LL_ADDR_ADD 10.0.0.1 5000 10.0.0.2 5001"},
      // ::1 to ::2, then the same flow in other words.
      {"0c", "0800 0700 3a3a3100" + kToIpv6 + kFlowPorts, 0, udp_flows, "LL_ADDR_ADD ::1 5000 ::2"},
      {"0c", "0b00 0700 303a303a3a3100 00" + kToIpv6 + kFlowPorts, -EEXIST, udp_flows, ""},
      {"0d", "", 0, udp, "LL_ADDR_FLUSH"},
      {"0c", kIpv4 + kFlowPorts, 0, udp + flow, "LL_ADDR_ADD"},
      {"07", kPort500, 0, udp + "encap 500\n" + flow, "SET_ENCAP_PORT 500"},
      {"0a", kPort500, 0, udp + "encap 500 pass-through\n" + flow, "ENCAP_PORT_ACT_PASS_THROUGH"},
      {"07", kPort4500, 0, udp + "encap 4500\n" + flow, "SET_ENCAP_PORT 4500"},
      {"08", kPort500, -ENOENT, udp + "encap 4500\n" + flow, ""},
      {"08", kPort4500, 0, udp + flow, "UNSET_ENCAP_PORT 4500"},
      {"07", kPort4500, 0, udp + "encap 4500\n" + flow, "SET_ENCAP_PORT"},
      {"0b", kPort500, -ENOENT, udp + "encap 4500\n" + flow, ""},
      {"0b", kPort4500, 0, udp + drop, "ENCAP_PORT_ACT_DROP 4500"},
      {"03", kSelector2 + kWlan0, 0, device, "SET_DEV 2 wlan0"},
      {"03", kWlan1 + kSelector1, 0, devices, "SET_DEV 1 wlan1"},
      {"03", kSelector1 + kWlan1, -EEXIST, devices, ""},
      {"03", kSelector1 + kWlan0, -EBUSY, devices, ""},
      {"04", kSelector1 + kWlan0, -ENOENT, devices, ""},
      {"04", kSelector1 + kWlan1, 0, device, "UNSET_DEV 1 wlan1"},
      {"05", kSelector1 + kForward, 0, forward, "ADD_FWD_INFO 1 wwan0 wlan0"},
      {"05", kSelector1 + kForward, -EEXIST, forward, ""},
      {"06", kSelector2 + kForward, -ENOENT, forward, ""},
      {"06", kSelector1 + kForward, 0, device, "DEL_FWD_INFO 1 wwan0 wlan0"},
      {"05", kSelector1 + kForward, 0, forward, "ADD_FWD_INFO"},
      {"09", "", 0, "", "RESET"},
  };
  for (const Step& step : steps) {
    SCOPED_TRACE("command 0x" + step.command + ", to have " + step.state);
    observed.clear();
    EXPECT_EQ(error_of(kernel, request(step.command, step.attributes)), step.error);
    EXPECT_EQ(kernel.state(), step.state);
    EXPECT_EQ(observed.empty(), step.observed.empty());
    EXPECT_TRUE(observed.starts_with(step.observed)) << observed;
  }
}

/// The extended part of a refusal: its message, then "@" and the offset or "-" and the missing
/// type.
std::string reason_of(const Datagram& refusal) {
  const size_t second = 36 + ((at<uint16_t>(refusal, 36) + 3U) & ~3U);
  std::string reason = reinterpret_cast<const char*>(refusal.data() + 40);
  if (second < refusal.size()) {
    reason += at<uint16_t>(refusal, second + 2) == NLMSGERR_ATTR_OFFS ? " @" : " -";
    reason += std::to_string(at<uint32_t>(refusal, second + 4));
  }
  return reason;
}

TEST(FamilyTest, SaysWhyItRefuses) {
  struct Case {
    std::string datagram;
    std::string reason;
    int error = -EINVAL;
  };
  const std::string policy = "Attribute failed policy validation @28";
  const std::string leftover = "bytes leftover after parsing attributes";
  const std::vector<Case> cases = {
      {message("1b00 0500", "09010000"), "unknown message type", -ENOENT},
      {message("1c00 0500", "090100"), "message shorter than its headers"},
      {message("1c00 0501", "09010000"), "ambiguous or reserved bits set in nlmsg_flags"},
      {request("0f"), "unknown command", -EOPNOTSUPP},
      {request("0e"), "the command is a dump", -EOPNOTSUPP},
      {message("1c00 0103", "09010000"), "the command is no dump", -EOPNOTSUPP},
      {message("1000 0100", "03010000 0600 0200 6100 0000"), "no such family", -ENOENT},
      {request("03", kWlan0), "missing attribute -6"},
      {request("03", kSelector1 + kWlan0 + "0400 0b00"), "Unknown attribute type @40"},
      {request("03", kSelector1 + kWlan0 + kPort500), "Unsupported attribute @40"},
      {request("07", "0600 0580 1194 0000"), "NLA_F_NESTED not expected @20"},
      {request("07", kPort500 + "0900 0500 11940000"), leftover},
      // Names: unterminated, of sixteen letters, "", "a/b".
      {request("03", kSelector1 + "0900 0200 776c616e30 000000"), policy},
      {request("03", kSelector1 + "1500 0200" + std::string(32, '6') + "00 000000"), policy},
      {request("03", kSelector1 + "0500 0200 00 000000"), "invalid device name @28"},
      {request("03", kSelector1 + "0800 0200 612f6200"), "invalid device name @28"},
      {request("0c", "0800 0700 3a3a6700"), "invalid address @20"},
      {request("0c", kIpv4 + kFlowPorts + kToIpv6), "addresses of different families"},
      {request("01", "1400 0100" + kTcp443), "NLA_F_NESTED is missing @20"},
      {request("01", tuples("1000 0180 0d00 0100 01bb0000 04060000")), leftover},
      {request("01", tuples("0c00 0180 0800 0100 01bb0000")), "invalid attribute length @28"},
      {request("01", tuples("0400 0180")), "no tuple in an element @24"},
      {request("01", tuples(kTcp443 + "1000 0180 0c00 0100 01bb0000 05060000")),
       "unknown IP version @44"},
  };
  Kernel kernel({});
  for (const Case& refused : cases) {
    SCOPED_TRACE(refused.datagram);
    EXPECT_EQ(error_of(kernel, refused.datagram), refused.error);
    EXPECT_EQ(reason_of(kernel.receive(bytes(refused.datagram)).datagrams.at(0)), refused.reason);
    EXPECT_EQ(kernel.state(), "");
  }
}

/// The datagrams that answer `datagram`, each preceded by '|'.
std::string answer_to(Kernel& kernel, const std::string& datagram) {
  std::string result;
  for (const Datagram& reply : kernel.receive(bytes(datagram)).datagrams) {
    result += '|' + hex(reply);
  }
  return result;
}

/// That of the request alone, accepted.
std::string acknowledgement(const std::string& request) {
  return '|' + message("0200 0001", "00000000" + request.substr(0, 32));
}

TEST(KernelTest, AnswersAsNetlinkDoes) {
  std::string family =
      "01020000 0f00 0200 544156494b5f574c414e00 00 0600 0100 1c00 0000 "
      "0800 0300 01000000 0800 0400 00000000 0800 0500 0a000000 1c01 0600 ";
  for (uint16_t command = 1; command <= 14; ++command) {
    const char* flags = command == 14                   ? "04000000"   // dumps
                        : command == 9 || command == 13 ? "12000000"   // for admins
                                                        : "1a000000";  // with attributes too
    family +=
        "1400" + hex_of(command) + "0800 0100" + hex_of(uint32_t{command}) + "0800 0200" + flags;
  }
  const std::string controller =
      "01020000 0b00 0200 6e6c6374726c00 00 0600 0100 1000 0000 0800 0300 02000000 "
      "0800 0400 00000000 0800 0500 0a000000 1800 0600 1400 0100 0800 0100 03000000 "
      "0800 0200 0e000000";
  const std::string unpadded = message("1c00 0500", "07010000 0600 0500 1194");
  const std::string no_request = message("1c00 0400", "07010000");
  const std::string incomplete = message("1c00 0100", "07010000");  // no acknowledgement wanted
  const std::string missing =
      "1600 0100 6d697373696e6720617474726962757465 00 0000 0800 0500 05000000";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {kReset, acknowledgement(kReset)},
      {message("1c00 0100", "09010000"), ""},
      {incomplete, '|' + message("0200 0003", "eaffffff" + incomplete.substr(0, 32) + missing)},
      {no_request, acknowledgement(no_request)},
      {unpadded + "0000" + kReset, acknowledgement(unpadded) + acknowledgement(kReset)},
      // What follows a length that cannot be is passed over.
      {kReset + "0f000000" + kReset.substr(8) + kReset, acknowledgement(kReset)},
      {kReset + "15000000" + kReset.substr(8), acknowledgement(kReset)},
      {kLookUp, '|' + message("1000 0000", family) + acknowledgement(kLookUp)},
      {message("1000 0100", "03010000 06000100 10000000"), '|' + message("1000 0000", controller)},
      {message("1000 0103", "03010000"),
       '|' + message("1000 0200", controller) + message("1000 0200", family) + kDone},
  };
  for (const auto& [datagram, answer] : cases) {
    Kernel kernel({});
    EXPECT_EQ(answer_to(kernel, datagram), answer) << datagram;
  }
}

// What a library notices of misbehaviour is tested with the library.
TEST(KernelTest, MisbehavesWhenTold) {
  Kernel kernel({});
  kernel.misbehave({.silent = true});
  EXPECT_EQ(answer_to(kernel, request("01", tuples(kTcp443))), "");
  EXPECT_EQ(kernel.state(), "tuple ipv4 tcp 443\n") << "takes effect all the same";

  kernel.misbehave({.interrupted_dumps = 1});
  std::vector<Datagram> answer = kernel.receive(bytes(kDump)).datagrams;
  EXPECT_EQ(at<uint16_t>(answer.at(0), 6), NLM_F_MULTI | NLM_F_DUMP_INTR);
  EXPECT_EQ(at<uint16_t>(answer.at(0), 46), NLM_F_MULTI | NLM_F_DUMP_INTR) << "NLMSG_DONE";
  EXPECT_EQ(at<uint16_t>(kernel.receive(bytes(kDump)).datagrams.at(0), 6), NLM_F_MULTI);

  kernel.misbehave({.stale = true});
  answer = kernel.receive(bytes(kReset)).datagrams;
  ASSERT_EQ(answer.size(), 2U);
  EXPECT_EQ(at<uint32_t>(answer[0], 8), 0x12345677U);
  EXPECT_EQ(at<int>(answer[0], 16), -EIO);
  EXPECT_EQ('|' + hex(answer[1]), acknowledgement(kReset));

  kernel.misbehave({.refuse_nth = 2, .refuse_error = EPERM});
  EXPECT_EQ(kernel.receive(bytes(kLookUp)).datagrams.size(), 2U) << "a look-up doesn't count";
  EXPECT_EQ(error_of(kernel, kReset), 0);
  EXPECT_EQ(error_of(kernel, kReset), -EPERM);
}

FileDescriptor connect_to(const tavik_wlan::Emulator& emulator) {
  FileDescriptor client(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  emulator.path().copy(address.sun_path, sizeof(address.sun_path) - 1);
  EXPECT_EQ(connect(client.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  const timeval patience{.tv_sec = 10, .tv_usec = 0};
  setsockopt(client.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
  return client;
}

void send_from(const FileDescriptor& client, const std::string& request) {
  const Datagram datagram = bytes(request);
  EXPECT_EQ(send(client.get(), datagram.data(), datagram.size(), MSG_NOSIGNAL),
            static_cast<ssize_t>(datagram.size()));
}

/// Empty at the end of the connection, or when nothing comes for long.
Datagram receive_at(const FileDescriptor& client) {
  Datagram datagram(65536);
  const ssize_t size = recv(client.get(), datagram.data(), datagram.size(), 0);
  datagram.resize(static_cast<size_t>(std::max<ssize_t>(size, 0)));
  return datagram;
}

int ask(const FileDescriptor& client, const std::string& request) {
  send_from(client, request);
  return at<int>(receive_at(client), 16);
}

/// The elements of the IPv4 TCP ports from `first` to `end`, excluding.
std::string port_elements(uint32_t first, uint32_t end) {
  std::string elements;
  for (; first < end; ++first) {
    elements += "100001800c000100" + hex_of(htons(static_cast<uint16_t>(first))) + "000004060000";
  }
  return elements;
}

TEST(EmulatorTest, DumpsManyTuplesWhileOthersGoOn) {
  tavik_wlan::Emulator emulator(::testing::TempDir() + "emulator_test." + std::to_string(getpid()));
  const FileDescriptor fast = connect_to(emulator);
  for (uint32_t first = 0; first < 65535; first += 3855) {
    ASSERT_EQ(ask(fast, request("01", tuples(port_elements(first, first + 3855)))), 0);
  }
  EXPECT_EQ(ask(fast, request("01", tuples(kEsp + kUdp4500))), -ENOSPC) << "one too many";
  EXPECT_EQ(ask(fast, request("01", kBoth)), 0) << "one of them is new";

  const FileDescriptor slow = connect_to(emulator);
  send_from(slow, kDump);  // 1 MB, which no socket buffer takes.
  std::string text = hex(receive_at(slow));
  emulator.misbehave({.delay_ms = 3600000});
  const FileDescriptor delayed = connect_to(emulator);
  send_from(delayed, kReset);
  for (int i = 0; i < 10000 && !emulator.state().empty(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_EQ(emulator.state(), "");
  emulator.misbehave({});
  for (int i = 0; i < 100; ++i) {
    ASSERT_EQ(ask(fast, kReset), 0);
  }

  // The rest of what there was before the reset. NLMSG_DONE comes with the last tuples.
  std::string elements;
  for (bool done = false; !done;) {
    EXPECT_LE(text.size(), 2 * 32768U);
    done = text.ends_with(kDone);
    const std::string part = text.substr(48, text.size() - 48 - (done ? kDone.size() : 0));
    ASSERT_EQ(text, message("1c00 0200", "0e010000" + tuples(part)) + (done ? kDone : ""));
    elements += part;
    text = done ? "" : hex(receive_at(slow));
  }
  EXPECT_TRUE(elements == port_elements(0, 65535) + without_spaces(kUdp4500));
}

}  // namespace
