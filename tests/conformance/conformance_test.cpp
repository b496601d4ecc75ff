// conformance_test [--target=emulator|kernel]: what the family TAVIK_WLAN of the emulated kernel,
// or of the machine's own, answers to literal bytes and to the library, and what it holds then.
// That of the machine takes root and loses what it holds.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "datapath_proxy/include/corvil_datapath_proxy.h"
#include "reference_host/netlink/corvil_netlink_control.h"
#include "reference_host/port_utils/corvil_port_tree.h"
#include "reference_kernel/emulator/emulator.h"
#include "reference_kernel/emulator/unix_socket.h"
#include "tests/support/netlink_bytes.h"

namespace {

using namespace std::string_literals;

bool targets_kernel = false;
constexpr uint32_t kPortId = 0x87654321;

// Messages are strings of bytes, little-endian but for ports, SPIs and addresses.

using netlink_bytes::attribute;
using netlink_bytes::raw;
using netlink_bytes::text;

std::string message(uint16_t type, uint16_t flags, const std::string& rest) {
  return netlink_bytes::message(type, flags, 0x12345678, rest, kPortId);
}

std::string nested(const std::string& payload) { return attribute(0x8001, payload); }
std::string element(const std::string& tuple) { return nested(attribute(1, tuple)); }

// What an acknowledgement says of a bad attribute: where it is, which is missing, of what kind and
// within which limits it should be.
std::string at(uint32_t offset) { return attribute(2, raw(offset)); }
std::string missing(uint32_t type) { return attribute(5, raw(type)); }
std::string policy(uint32_t kind, const std::string& limits = "") {
  return attribute(0x8004, limits + attribute(1, raw(kind)));
}
const std::string kU8 =
    policy(2, attribute(4, raw(uint64_t{0})) + attribute(5, raw(uint64_t{255})));
const std::string kName = policy(12, attribute(7, raw(15)));
const std::string kAddress = policy(12, attribute(7, raw(45)));
const std::string kNested = policy(13);

std::string acknowledgement(const std::string& request, int error = 0,
                            const std::string& reason = "", const std::string& where = "") {
  const std::string details = reason.empty() ? "" : text(1, reason) + where;
  return message(NLMSG_ERROR, details.empty() ? 0x100 : 0x300,
                 raw(error) + request.substr(0, 16) + details);
}

std::vector<std::string> split(const std::string& joined, char separator) {
  std::istringstream stream(joined);
  std::vector<std::string> parts;
  for (std::string part; std::getline(stream, part, separator);) {
    parts.push_back(part);
  }
  return parts;
}

const std::string kDone = message(NLMSG_DONE, NLM_F_MULTI, "\0\0\0\0"s);
const std::string kLookUp = message(0x10, 5, "\3\1\0\0"s + text(2, "TAVIK_WLAN"));
// The family's numbers, told here once more.
const std::string kAddTuples = "\1";
const std::string kDelTuples = "\2";
const std::string kSetDev = "\3";
const std::string kUnsetDev = "\4";
const std::string kAddFwdInfo = "\5";
const std::string kDelFwdInfo = "\6";
const std::string kSetEncap = "\7";
const std::string kUnsetEncap = "\x08";
const std::string kReset = "\x09";
const std::string kPassEncap = "\x0a";
const std::string kDropEncap = "\x0b";
const std::string kAddFlow = "\x0c";
const std::string kFlushFlows = "\x0d";
const std::string kGetTuples = "\x0e";
enum Attribute : uint16_t {
  kTuples = 1,
  kDev = 2,
  kFwdFrom = 3,
  kFwdTo = 4,
  kEncapPort = 5,
  kSelector = 6,
  kLlSrcAddr = 7,
  kLlDstAddr = 8,
  kLlSrcPort = 9,
  kLlDstPort = 10
};

const std::string kTcp443 = element("\x01\xbb\0\0\x04\x06\0\0"s);
const std::string kUdp4500 = element("\x11\x94\0\0\x06\x11\0\0"s);
const std::string kEsp = element("\x00\x00\x10\x01\x04\x32\0\0"s);
const std::string kBoth = nested(kUdp4500 + kTcp443);
const std::string kSelector1 = attribute(kSelector, "\1");
const std::string kWlan0 = text(kDev, "wlan0");
const std::string kPort500 = attribute(kEncapPort, "\x01\xf4");
const std::string kFlowPorts =
    attribute(kLlSrcPort, "\x13\x88") + attribute(kLlDstPort, "\x13\x89");

/// The command and attributes of a request that is refused, and where its fault is.
using Bad = std::pair<std::string, std::string>;

class ConformanceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("CORVIL_NETLINK_TIMEOUT_MS", "20000", 1);
    targets_kernel ? connect_to_kernel() : connect_to_emulator();
    const timeval patience{.tv_sec = 20, .tv_usec = 0};
    setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
    send(kLookUp);
    const std::string found = receive();
    ASSERT_GT(found.size(), 50U) << "no such family";
    found.copy(reinterpret_cast<char*>(&family_), sizeof(family_), 40);
    accept(kReset, "");
  }

  void connect_to_emulator() {
    emulator_.emplace(path_);
    setenv("CORVIL_NETLINK_EMULATOR", path_.c_str(), 1);
    socket_ = tavik_wlan::FileDescriptor(socket(AF_UNIX, SOCK_SEQPACKET, 0));
    sockaddr_un address{AF_UNIX, {}};
    path_.copy(address.sun_path, sizeof(address.sun_path) - 1);
    EXPECT_EQ(connect(socket_.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  }

  void connect_to_kernel() {
    unsetenv("CORVIL_NETLINK_EMULATOR");
    socket_ = tavik_wlan::FileDescriptor(socket(AF_NETLINK, SOCK_RAW, NETLINK_GENERIC));
    sockaddr_nl address{AF_NETLINK, 0, kPortId, 0};
    EXPECT_EQ(bind(socket_.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    for (const int option : {NETLINK_EXT_ACK, NETLINK_CAP_ACK, NETLINK_GET_STRICT_CHK}) {
      const int on = 1;
      EXPECT_EQ(setsockopt(socket_.get(), SOL_NETLINK, option, &on, sizeof(on)), 0);
    }
  }

  [[nodiscard]] std::string state() const {
    std::ifstream file("/proc/net/tavik_wlan");
    return emulator_ ? emulator_->state() : std::string(std::istreambuf_iterator<char>(file), {});
  }

  void send(const std::string& datagram) const {
    ::send(socket_.get(), datagram.data(), datagram.size(), MSG_NOSIGNAL);
  }

  /// What is received, in however many datagrams, until as many answers have ended.
  [[nodiscard]] std::string receive(int ends = 1) const {
    std::string received;
    for (std::vector<char> buffer(65536); ends > 0;) {
      const ssize_t size = recv(socket_.get(), buffer.data(), buffer.size(), 0);
      if (size <= 0) {
        return received + "and no more";
      }
      received.append(buffer.data(), static_cast<size_t>(size));
      const bool is_acknowledgement = buffer[4] == NLMSG_ERROR && buffer[5] == 0;
      ends -= is_acknowledgement || received.ends_with(kDone) ? 1 : 0;
    }
    return received;
  }

  /// A request that wants an acknowledgement, from its command and attributes.
  [[nodiscard]] std::string request(const std::string& body) const {
    return message(family_, 5, body[0] + "\1\0\0"s + body.substr(1));
  }

  /// Expects an answer, and the state to be what it should be.
  void expect(const std::string& asked, int error, const std::string& reason = "",
              const std::string& where = "") const {
    SCOPED_TRACE(::testing::PrintToString(asked.substr(16, 200)));
    send(asked);
    EXPECT_EQ(receive(), acknowledgement(asked, error, reason, where));
    const std::string found = state();
    EXPECT_TRUE(found == state_) << found.substr(0, 500) << "not:\n" << state_.substr(0, 500);
  }

  /// Expects that a request is accepted, and the state after it.
  void accept(const std::string& body, const std::string& state) {
    state_ = state;
    expect(request(body), 0);
  }

  /// Expects that requests are refused and change nothing.
  template <typename... Bads>
  void refuse(int error, const std::string& reason, const Bads&... bads) const {
    (expect(request(bads.first), error, reason, bads.second), ...);
  }

  const std::string path_ = ::testing::TempDir() + "conformance." + std::to_string(getpid());
  std::optional<tavik_wlan::Emulator> emulator_;
  uint16_t family_ = 0;  // its id
  tavik_wlan::FileDescriptor socket_{-1};
  std::string state_;  // as it should be
};

TEST_F(ConformanceTest, ChangesItsStateByTheRulesOfEachCommand) {
  const std::string udp = "tuple ipv6 udp 4500\n";
  const std::string flow = "lowlat 10.0.0.1 5000 10.0.0.2 5001\n";
  const std::string not_set = "the encapsulation port is not set";
  const std::string port4500 = attribute(0x4005, "\x11\x94");  // The flag has no effect.
  const std::string wlan1 = kSelector1 + text(kDev, "wlan1");
  const std::string pair = kSelector1 + text(kFwdFrom, "wwan0") + text(kFwdTo, "wlan0");
  const std::string flow4 =
      text(kLlSrcAddr, "10.0.0.1") + text(kLlDstAddr, "10.0.0.2") + kFlowPorts;
  const std::string to_ipv6 = text(kLlDstAddr, "::2") + kFlowPorts;
  accept(kAddTuples + kBoth, "tuple ipv4 tcp 443\n" + udp);
  // Of two containers the last counts; of the first not even that each element has a tuple.
  accept(kAddTuples + nested("\4\0\1\x80"s) + nested(kTcp443 + kEsp),
         "tuple ipv4 tcp 443\ntuple ipv4 esp 0x00001001\n" + udp);
  accept(kDelTuples + nested(kTcp443 + kTcp443 + kEsp), udp);
  accept(kAddTuples + nested(kTcp443) + nested(""), udp);
  refuse(-ENOENT, "no such tuple", Bad{kDelTuples + kBoth, at(44)});
  accept(kAddFlow + text(kLlSrcAddr, "::1") + to_ipv6, udp + "lowlat ::1 5000 ::2 5001\n");
  refuse(-EEXIST, "the flow exists already",
         Bad{kAddFlow + text(kLlSrcAddr, "0:0::1") + to_ipv6, at(32)});
  refuse(-EINVAL, "addresses of different families",
         Bad{kAddFlow + flow4 + text(kLlDstAddr, "::"), at(68)});
  accept(kAddFlow + flow4, udp + flow + "lowlat ::1 5000 ::2 5001\n");
  accept(kFlushFlows, udp);
  refuse(-ENOENT, not_set, Bad{kUnsetEncap + kPort500, at(20)}, Bad{kPassEncap + kPort500, at(20)});
  accept(kSetEncap + kPort500, udp + "encap 500\n");
  accept(kPassEncap + kPort500, udp + "encap 500 pass-through\n");
  refuse(-ENOENT, not_set, Bad{kUnsetEncap + port4500, at(20)}, Bad{kDropEncap + port4500, at(20)});
  accept(kDropEncap + port4500 + kPort500, udp + "encap 500 drop\n");
  accept(kSetEncap + port4500, udp + "encap 4500\n");
  accept(kUnsetEncap + port4500, udp);
  accept(kSetDev + attribute(kSelector, "\2") + kWlan0, udp + "device 2 wlan0\n");
  accept(kSetDev + wlan1, udp + "device 1 wlan1\ndevice 2 wlan0\n");
  refuse(-EEXIST, "the device is set already", Bad{kSetDev + wlan1, at(28)});
  refuse(-EBUSY, "another device is set", Bad{kSetDev + kSelector1 + kWlan0, at(28)});
  refuse(-ENOENT, "the device is not set", Bad{kUnsetDev + kSelector1 + kWlan0, at(28)},
         Bad{kUnsetDev + kWlan0 + attribute(kSelector, "\3"), at(20)});
  accept(kUnsetDev + wlan1, udp + "device 2 wlan0\n");
  accept(kAddFwdInfo + pair, udp + "device 2 wlan0\nforward 1 wwan0 wlan0\n");
  refuse(-EEXIST, "the forwarding exists already", Bad{kAddFwdInfo + pair, at(40)});
  refuse(-ENOENT, "no such forwarding",
         Bad{kDelFwdInfo + pair + attribute(kSelector, "\2"), at(40)});
  accept(kAddFlow + flow4, udp + "device 2 wlan0\nforward 1 wwan0 wlan0\n" + flow);
  accept(kDelFwdInfo + pair, udp + "device 2 wlan0\n" + flow);
  accept(kReset, "");
}

TEST_F(ConformanceTest, SaysWhyItRefuses) {
  const std::string flow = text(kLlSrcAddr, "::") + text(kLlDstAddr, "1.2.3.4");
  const std::string unwrapped = kTcp443.substr(4);  // what is in an element
  const auto tuple = [](const std::string& payload) {
    return kAddTuples + nested(element(payload));
  };
  const auto in_element = [](const std::string& run) { return kAddTuples + nested(nested(run)); };
  expect(message(0x3ff, 5, "\x09\1\0\0"s), -ENOENT);
  expect(message(0x10, 5, "\3\1\0\0"s + text(kDev, "nobody")), -ENOENT);
  expect(message(family_, 5, ""), -EINVAL);
  expect(message(family_, 0x105, "\x0f\1\1\0"s), -EINVAL, "genlmsghdr.reserved field is not 0");
  expect(message(family_, 0x105, "\x0f\1\0\0"s), -EINVAL,
         "ambiguous or reserved bits set in nlmsg_flags");
  expect(message(family_, 0x305, "\x09\1\0\0"s), -EOPNOTSUPP);
  refuse(-EOPNOTSUPP, "", Bad{"\0"s, ""}, Bad{"\x0f", ""}, Bad{kGetTuples, ""});
  expect(message(family_, 0x301, "\x0e\1\0\0"s + kWlan0), -EINVAL, "Unsupported attribute", at(20));
  refuse(
      -EINVAL, "missing attribute", Bad{kAddTuples, missing(kTuples)}, Bad{kSetDev, missing(kDev)},
      Bad{kUnsetDev + kWlan0, missing(kSelector)}, Bad{kAddFwdInfo + kSelector1, missing(kFwdFrom)},
      Bad{kDelFwdInfo + text(kFwdFrom, "a"), missing(kFwdTo)}, Bad{kDropEncap, missing(kEncapPort)},
      Bad{kAddFlow + attribute(kLlSrcPort, "\0\0"s), missing(kLlSrcAddr)},
      Bad{kAddFlow + text(kLlSrcAddr, "::"), missing(kLlDstAddr)},
      Bad{kAddFlow + flow, missing(kLlSrcPort)},
      Bad{kAddFlow + flow + attribute(kLlSrcPort, "\0\0"s), missing(kLlDstPort)});
  refuse(-EINVAL, "Unsupported attribute", Bad{kReset + kWlan0, at(20)},
         Bad{kFlushFlows + attribute(0x8002, ""), at(20)},
         Bad{kSetDev + kSelector1 + kWlan0 + kPort500, at(40)});
  refuse(-EINVAL, "Unknown attribute type", Bad{kSetDev + kSelector1 + attribute(11, ""), at(28)},
         Bad{kSetDev + attribute(0, ""), at(20)}, Bad{kAddTuples + nested("\4\0\2\x80"s), at(24)},
         Bad{in_element("\4\0\2\0"s), at(28)});
  refuse(-EINVAL, "bytes leftover after parsing attributes",
         Bad{kSetEncap + kPort500 + "\5\0\5\0"s, ""}, Bad{kSetEncap + kPort500 + "\3\0\5\0"s, ""},
         Bad{in_element(unwrapped + "\0\0\0\0"s), ""},
         Bad{kAddTuples + nested(kTcp443 + "\0\0\0\0"s), ""});
  refuse(-EINVAL, "invalid attribute length", Bad{kSetDev + attribute(kSelector, ""), at(20) + kU8},
         Bad{kSetDev + attribute(0x8006, "\0\1"s), at(20) + kU8},
         Bad{kSetEncap + attribute(kEncapPort, "\1"), at(20)},
         Bad{kSetEncap + attribute(0x8005, "\1\0\0"s), at(20)},
         Bad{kAddFlow + attribute(kLlDstPort, "\1"), at(20)}, Bad{tuple("\0\0\0\0\7\7\1"s), at(28)},
         Bad{tuple("\0\0\0\0\7\7\0\1\0"s), at(28)},
         Bad{kAddTuples + kBoth + nested(element("")) + kBoth, at(64)});
  refuse(-EINVAL, "NLA_F_NESTED not expected", Bad{kSetDev + attribute(0x8006, "\1"), at(20) + kU8},
         Bad{kSetEncap + attribute(0x8005, "\1\1"), at(20)},
         Bad{kSetDev + attribute(0x8002, ""), at(20) + kName},
         Bad{in_element(nested("")), at(28) + policy(10)});
  refuse(-EINVAL, "NLA_F_NESTED is missing",
         Bad{kAddTuples + attribute(1, kTcp443), at(20) + kNested},
         Bad{kDelTuples + nested("\4\0\1\0"s), at(24) + kNested});
  refuse(-EINVAL, "Attribute failed policy validation",
         Bad{kSetDev + attribute(kDev, ""), at(20) + kName},
         Bad{kSetDev + attribute(kDev, "wlan0"), at(20) + kName},
         Bad{kSetDev + text(kDev, "sixteen_letters_"), at(20) + kName},
         Bad{kAddFlow + text(kLlSrcAddr, std::string(46, ':')), at(20) + kAddress});
  refuse(-ERANGE, "Attribute failed policy validation",
         Bad{kAddFwdInfo + attribute(kFwdFrom, "ends\0not_here_16"s), at(20) + kName},
         Bad{kAddFwdInfo + text(kFwdTo, "fifteen_letters\0"s), at(20) + kName},
         Bad{kAddFlow + attribute(kLlDstAddr, "::\0"s + std::string(43, ':')), at(20) + kAddress},
         Bad{kAddTuples + nested("\0\0\0"s), at(20) + kNested},
         Bad{kAddTuples + nested(kTcp443 + nested("\0"s)), at(40) + kNested});
  refuse(-EINVAL, "unknown IP version", Bad{tuple("\0\0\0\1\5\7\1\0"s), at(28)});
  refuse(-EINVAL, "unknown transport protocol", Bad{tuple("\0\0\0\1\4\7\1\0"s), at(28)});
  refuse(-EINVAL, "reserved bytes of a tuple are not 0", Bad{tuple("\0\0\0\1\4\6\1\0"s), at(28)},
         Bad{tuple("\0\0\0\1\4\x32\0\1"s), at(28)});
  refuse(-EINVAL, "bytes after the port of a tuple are not 0",
         Bad{tuple("\0\0\0\1\6\x11\0\0"s), at(28)}, Bad{tuple("\0\0\1\0\4\6\0\0"s), at(28)});
  refuse(-EINVAL, "no tuple in an element",
         Bad{kAddTuples + nested(kTcp443 + "\4\0\1\x80"s), at(40)});
  refuse(-EINVAL, "more than one tuple in an element",
         Bad{in_element(unwrapped + unwrapped), at(40)});
}

TEST_F(ConformanceTest, TakesNamesAndAddressesAsTheKernelDoes) {
  for (const std::string& name : {"fifteen_letters"s, "..."s, "\x1b%\\\xc3\xa4"s, "cut\0/"s}) {
    accept(kSetDev + text(kDev, name) + kSelector1,
           "device 1 " + name.substr(0, name.find('\0')) + '\n');
    accept(kReset, "");
  }
  for (const std::string& name : split("|.|..|a/b|:|a b|\t|a\n|\v|\f|\r|\xa0", '|')) {
    refuse(-EINVAL, "invalid device name", Bad{kSetDev + kSelector1 + text(kDev, name), at(28)},
           Bad{kAddFwdInfo + text(kFwdFrom, name) + kSelector1, at(20)},
           Bad{kDelFwdInfo + text(kFwdTo, name) + kPort500, at(20)});
  }
  // What is written differently than it was given comes after '='.
  const std::string good =
      "1.2.3.4|255.255.255.255|001.02.3.000=1.2.3.0|::|1::|1:0:2:0:3:0:4:0|::ffff:1.2.3.4|"
      "::5efe:1.2.3.4|2001:DB8:0:0:1:0:0:1=2001:db8::1:0:0:1|0001:00002::000000abcd=1:2::abcd|"
      "1:2:3:4:5:6:7::=1:2:3:4:5:6:7:0|::2:3:4:5:6:7:8=0:2:3:4:5:6:7:8|::1.2.3.4=::102:304|"
      "::ffff:102:304=::ffff:1.2.3.4|fe80::200:5EFE:0102:0304=fe80::200:5efe:1.2.3.4|"
      "1:2:3:4:5:6:1.2.3.4=1:2:3:4:5:6:102:304|"
      "0000:0000:0000:0000:0000:ffff:255.255.255.255=::ffff:255.255.255.255";
  for (const std::string& address : split(good, '|')) {
    const std::vector<std::string> texts = split(address, '=');
    const std::string other = address.find(':') == std::string::npos ? "10.0.0.2" : "::2";
    accept(kAddFlow + text(kLlSrcAddr, texts.front()) + text(kLlDstAddr, other) + kFlowPorts,
           "lowlat " + texts.back() + " 5000 " + other + " 5001\n");
    accept(kFlushFlows, "");
  }
  const std::string bad =
      "|1.2.3.256|1.2.3|1.2.3.4.5|1..3.4|1.2.3.4.|1.2.3.4:5|0x1.2.3.4| 1.2.3.4|1.2.3.4 |16909060|:|"
      ":::|1::2::3|:1::2|1::2:|::12345|1:2:3:4:5:6:7|1:2:3:4:5:6:7:8:9|1:2:3:4:5:6:7::8|::1.2.3|"
      "1:2:3:4:5:6::1.2.3.4|::1.2.3.4:5|::1.2.3.4 |fe80::1%eth0|fe80::1%1|[::1]|::1/128| ::1|::g";
  for (const std::string& address : split(bad, '|')) {
    refuse(-EINVAL, "invalid address", Bad{kAddFlow + text(kLlSrcAddr, address), at(20)},
           Bad{kAddFlow + kFlowPorts + text(kLlDstAddr, address), at(36)});
  }
}

TEST_F(ConformanceTest, DealsWithDatagramsAndLookUpsAsNetlinkDoes) {
  std::string commands;
  for (uint16_t command = 1; command <= 14; ++command) {
    const int flags = command == 14 ? 0x0c : 0x1a;
    commands += attribute(command, attribute(1, raw(int{command})) + attribute(2, raw(flags)));
  }
  const std::string description = text(2, "TAVIK_WLAN") + attribute(1, raw(family_)) +
                                  attribute(3, raw(1)) + attribute(4, raw(0)) +
                                  attribute(5, raw(10)) + attribute(6, commands);
  for (const std::string& look_up :
       {kLookUp, message(0x10, 5, "\3\1\0\0"s + attribute(1, raw(family_)))}) {
    send(look_up);
    EXPECT_EQ(receive(), message(0x10, 0, "\1\2\0\0"s + description) + acknowledgement(look_up));
  }
  const std::string silent = message(family_, 1, "\1\1\0\0"s + kBoth);
  const std::string no_request = message(family_, 4, "\2\1\0\0"s + kBoth);
  const std::string unpadded = message(family_, 5, "\7\1\0\0\6\0\5\0\x11\x94"s);
  expect(message(family_, 0x0d, "\x09\1\0\0"s), 0);  // NLM_F_ECHO has no effect.
  // What follows a length that cannot be is passed over.
  send(silent + no_request + unpadded + "\x0f\0\0\0"s + request(kReset).substr(4));
  EXPECT_EQ(receive(2), acknowledgement(no_request) + acknowledgement(unpadded));
  EXPECT_EQ(state(), "tuple ipv4 tcp 443\ntuple ipv6 udp 4500\nencap 4500\n");
}

TEST_F(ConformanceTest, HoldsAndDumpsAsManyTuplesAsItMay) {
  const std::string dump = message(family_, 0x301, "\x0e\1\0\0"s);
  send(dump);
  EXPECT_EQ(receive(), kDone);
  std::vector<PortDescriptor> ports(65535);
  std::string elements;
  std::string lines;
  for (size_t i = 0; i < ports.size(); ++i) {
    ports[ports.size() - 1 - i] = {4, 6, static_cast<uint16_t>(i)};  // The highest comes first.
    elements += element(raw(htons(static_cast<uint16_t>(i))) + "\0\0\4\6\0\0"s);
    lines += "tuple ipv4 tcp " + std::to_string(i) + '\n';
  }
  EXPECT_EQ(corvil_datapath_proxy_update_config_info(ports.data(), 4096, nullptr, 0), -1);
  for (uint32_t i = 0; i < 65535; i += 4095) {  // A full container at a time.
    const uint32_t count = std::min(65535 - i, 4095U);
    ASSERT_EQ(corvil_datapath_proxy_update_config_info(&ports[i], count, nullptr, 0), 0);
  }
  accept(kAddTuples + nested(kTcp443), lines);
  refuse(-ENOSPC, "too many tuples", Bad{kAddTuples + nested(kEsp + kUdp4500), at(20)});
  accept(kAddTuples + nested(kTcp443 + kEsp + kEsp + kTcp443),
         lines + "tuple ipv4 esp 0x00001001\n");
  refuse(-ENOSPC, "too many tuples", Bad{kAddTuples + kBoth, at(20)});
  refuse(-ENOENT, "no such tuple", Bad{kDelTuples + nested(kTcp443 + kEsp + kUdp4500), at(60)});
  send(dump);  // 1 MB, which no socket buffer takes. Meanwhile others go on.
  corvil_port_tree_clear();
  EXPECT_EQ(corvil_datapath_proxy_get_port_tuple(), 0);
  EXPECT_EQ(corvil_netlink_last_error()->error, 0);
  EXPECT_EQ(corvil_port_tree_count(), 65536U);
  std::string dumped = receive();
  elements += kEsp;
  for (uint32_t length = 0; dumped.size() > kDone.size(); dumped.erase(0, length)) {
    dumped.copy(reinterpret_cast<char*>(&length), sizeof(length));
    const std::string part = elements.substr(0, length - 24);
    ASSERT_TRUE(dumped.starts_with(message(family_, 2, "\x0e\1\0\0"s + nested(part))));
    elements.erase(0, part.size());
  }
  EXPECT_EQ(elements + dumped, kDone);
}

TEST_F(ConformanceTest, HoldsAsManyForwardingsAndFlowsAsItMay) {
  const auto forwarding = [](uint16_t i) {
    return attribute(kSelector, {static_cast<char>(i / 16)}) + text(kFwdFrom, "wwan0") +
           text(kFwdTo, {static_cast<char>('a' + i % 16)});
  };
  const auto flow = [](uint16_t i) {
    return text(kLlSrcAddr, "10.0.0.1") + text(kLlDstAddr, "10.0.0.2") +
           attribute(kLlSrcPort, raw(htons(i))) + attribute(kLlDstPort, "\x13\x89");
  };
  std::string forwardings;
  std::string flows;
  for (uint16_t i = 0; i < 4096; ++i) {
    send(message(family_, 1, "\5\1\0\0"s + forwarding(i)));
    send(message(family_, 1, "\x0c\1\0\0"s + flow(i)));
    forwardings +=
        "forward " + std::to_string(i / 16) + " wwan0 " + "abcdefghijklmnop"[i % 16] + '\n';
    flows += "lowlat 10.0.0.1 " + std::to_string(i) + " 10.0.0.2 5001\n";
  }
  state_ = forwardings + flows;
  refuse(-ENOSPC, "too many forwardings",
         Bad{kAddFwdInfo + kSelector1 + text(kFwdFrom, "b") + text(kFwdTo, "a"), at(36)});
  refuse(-EEXIST, "the forwarding exists already", Bad{kAddFwdInfo + forwarding(0), at(40)});
  refuse(-ENOSPC, "too many flows", Bad{kAddFlow + flow(4096), at(36)});
  refuse(-EEXIST, "the flow exists already", Bad{kAddFlow + flow(4095), at(36)});
  accept(kDelFwdInfo + forwarding(0), forwardings.substr(forwardings.find('\n') + 1) + flows);
  accept(kAddFwdInfo + forwarding(0), forwardings + flows);
  accept(kFlushFlows, forwardings);
  accept(kAddFlow + flow(0), forwardings + flows.substr(0, flows.find('\n') + 1));
}

TEST_F(ConformanceTest, IsConfiguredByTheLibrary) {
  constexpr PortDescriptor kPorts[] = {{4, 6, 443}, {6, 17, 4500}, {4, 17, 53}};
  const auto set_up = [&](const std::string& device) {
    return corvil_datapath_proxy_set_config_info(device.c_str(), "wlan0", "wwan0", kPorts, 2, 1);
  };
  const std::string ports = "tuple ipv4 tcp 443\ntuple ipv6 udp 4500\n";
  const std::string device = "device 1 fifteen_letters\n";
  const std::string pair = "forward 1 wwan0 wlan0\n";
  EXPECT_EQ(set_up(std::string(70000, 'x')), -1) << "longer than an attribute";
  EXPECT_EQ(corvil_netlink_last_error()->error, EINVAL);
  EXPECT_EQ(set_up("sixteen_letters_"), -1);
  EXPECT_EQ(set_up(""), -1);
  EXPECT_EQ(set_up("fifteen_letters"), 0);
  EXPECT_EQ(corvil_datapath_proxy_set_udp_encap_port(htons(4500)), 0);
  EXPECT_EQ(corvil_datapath_proxy_act_encap_port_drop(htons(4500)), 0);
  EXPECT_EQ(corvil_datapath_proxy_act_encap_port_pass_through(htons(4500)), 0);
  const IpsecInfo flow = {{}, htonl(0x1001)};
  EXPECT_EQ(corvil_datapath_proxy_add_ipsec_info(&flow, "2001:db8::1"), 0);
  for (int i = 0; i < 2; ++i) {  // the second time it is there already
    EXPECT_EQ(corvil_datapath_proxy_add_ll_dst_addr("10.0.0.1", "10.0.0.2", htons(1), htons(2)), 0);
  }
  EXPECT_EQ(state(), ports + "tuple ipv6 esp 0x00001001\n" + device + pair +
                         "encap 4500 pass-through\nlowlat 10.0.0.1 1 10.0.0.2 2\n");
  EXPECT_EQ(corvil_datapath_proxy_unset_udp_encap_port(htons(500)), -1);
  EXPECT_EQ(corvil_netlink_last_error()->error, ENOENT);
  EXPECT_EQ(corvil_datapath_proxy_unset_udp_encap_port(htons(4500)), 0);
  EXPECT_EQ(corvil_datapath_proxy_delete_ipsec_info(&flow, "::"), 0);
  EXPECT_EQ(corvil_datapath_proxy_flush_ll_dst_addr(), 0);
  // Ports and forwarding pair may be there already, the device may not.
  EXPECT_EQ(set_up("fifteen_letters"), -1);
  EXPECT_EQ(corvil_netlink_last_error()->error, EEXIST);
  EXPECT_EQ(state(), ports + device + pair);
  EXPECT_EQ(corvil_datapath_proxy_update_config_info(&kPorts[2], 1, kPorts, 2), 0);
  EXPECT_EQ(corvil_datapath_proxy_unset_reverse_dev_mapping(1, "wlan0", "wwan0"), 0);
  EXPECT_EQ(state(), "tuple ipv4 udp 53\n" + device);
  EXPECT_EQ(corvil_datapath_proxy_flush_config_info(), 0);
  EXPECT_EQ(set_up("wlan1"), 0);
  EXPECT_EQ(corvil_datapath_proxy_unset_config_info("wlan1", "wlan0", "wwan0", kPorts, 2, 1), 0);
  EXPECT_EQ(state(), "");
}

TEST_F(ConformanceTest, ServesEightThreadsAtOnce) {
  const auto drive = [](uint32_t selector) {
    const std::string name = "wlan" + std::to_string(selector);
    const char* device = name.c_str();
    const PortDescriptor port = {4, 6, static_cast<uint16_t>(selector)};
    const PortDescriptor other = {6, 17, static_cast<uint16_t>(selector)};
    const IpsecInfo flow = {{}, selector};
    for (int i = 0; i < 20; ++i) {
      EXPECT_EQ(corvil_datapath_proxy_set_config_info(device, "a", "b", &port, 1, selector), 0);
      EXPECT_EQ(corvil_datapath_proxy_add_ipsec_info(&flow, "::"), 0);
      EXPECT_EQ(corvil_datapath_proxy_add_ll_dst_addr("::1", "::2", port.port, 0), 0);
      EXPECT_EQ(corvil_datapath_proxy_get_port_tuple(), 0);
      EXPECT_EQ(corvil_datapath_proxy_update_config_info(&other, 1, &port, 1), 0);
      EXPECT_EQ(corvil_datapath_proxy_delete_ipsec_info(&flow, "::"), 0);
      EXPECT_EQ(corvil_datapath_proxy_set_udp_encap_port(port.port), 0);
      corvil_datapath_proxy_unset_udp_encap_port(port.port);  // Whose is set is a matter of luck.
      EXPECT_EQ(corvil_datapath_proxy_unset_config_info(device, "a", "b", &other, 1, selector), 0);
      EXPECT_EQ(corvil_datapath_proxy_flush_ll_dst_addr(), 0);
    }
  };
  {
    std::vector<std::jthread> threads;
    for (uint32_t selector = 1; selector <= 8; ++selector) {
      threads.emplace_back(drive, selector);
    }
  }
  EXPECT_TRUE(state().empty() || state().starts_with("encap ")) << state();
}

}  // namespace

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  const std::string target = argc > 1 ? argv[1] : "--target=emulator";
  targets_kernel = target == "--target=kernel";
  return targets_kernel || target == "--target=emulator" ? RUN_ALL_TESTS() : EXIT_FAILURE;
}
