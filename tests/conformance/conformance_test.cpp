// conformance_test [--target=emulator|kernel]: what the family TAVIK_WLAN of the emulated kernel,
// or of the machine's own, answers to literal bytes and to the library, and what it holds then.
// That of the machine takes root and loses what it holds.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/genetlink.h>
#include <linux/netlink.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "datapath_proxy/include/corvil_datapath_proxy.h"
#include "host_interfaces/corvil_netlink.h"
#include "kernel_interface/protocol.h"
#include "reference_host/netlink/corvil_netlink_control.h"
#include "reference_host/port_utils/corvil_port_tree.h"
#include "reference_kernel/emulator/emulator.h"
#include "tests/support/netlink_bytes.h"

namespace {

using namespace std::string_literals;
using netlink_bytes::attribute;
using netlink_bytes::generic;
using netlink_bytes::raw;
using netlink_bytes::text;

bool targets_kernel = false;

// Messages are strings of bytes, little-endian but for ports, SPIs and addresses.

std::string message(uint16_t type, const std::string& payload, uint16_t flags = 5) {
  return netlink_bytes::message(type, flags, 0, payload);
}
std::string attribute(std::string_view name, const std::string& payload) {
  return attribute(
      std::ranges::find(tavik_wlan::kAttributes, name, &tavik_wlan::AttributeInfo::name)->type,
      payload);
}
std::string text(std::string_view name, const std::string& value) {
  return attribute(name, value + '\0');
}
std::string nested(const std::string& payload) { return attribute(0x8001, payload); }
std::string element(const std::string& tuple) { return nested(attribute(1, tuple)); }
std::string flow(const std::string& source, const std::string& destination) {
  return text("LL_SRC_ADDR", source) + text("LL_DST_ADDR", destination) +
         attribute("LL_SRC_PORT", "\x13\x88") + attribute("LL_DST_PORT", "\x13\x89");
}

const std::string kTcp443 = element("\x01\xbb\0\0\x04\x06\0\0"s);
const std::string kUdp4500 = element("\x11\x94\0\0\x06\x11\0\0"s);
const std::string kEsp = element("\x00\x00\x10\x01\x04\x32\0\0"s);
const std::string kBoth = nested(kUdp4500 + kTcp443);
const std::string kSelector1 = attribute("SELECTOR", "\1");
const std::string kWlan0 = text("DEV", "wlan0");
const std::string kPair = text("FWD_FROM", "wwan0") + text("FWD_TO", "wlan0");
const std::string kPort500 = attribute("ENCAP_PORT", "\x01\xf4");

/// How a request ends: "" where it is accepted, or such as "EINVAL @20 lacks 5: what the kernel
/// says" with the offset of the bad attribute and the type of a missing one.
std::string outcome(const std::string& request) {
  if (corvil_netlink_transact(reinterpret_cast<const nlmsghdr*>(request.data()), NETLINK_GENERIC,
                              nullptr) == 0) {
    return "";
  }
  const CorvilNetlinkError& last = *corvil_netlink_last_error();
  const auto number = [](const char* label, uint32_t value) {
    return value != 0 ? label + std::to_string(value) : "";
  };
  return strerrorname_np(last.error) + number(" @", last.attribute_offset) +
         number(" lacks ", last.missing_attribute) + (last.message[0] != '\0' ? ": " : "") +
         last.message + (last.from_kernel == 1 ? "" : " (not by the kernel)");
}

/// What a query gives behind the generic headers of its replies.
std::string query(const std::string& request, bool dump) {
  const auto append = [](const nlmsghdr* reply, void* context) {
    constexpr size_t kHeaders = NLMSG_HDRLEN + GENL_HDRLEN;
    static_cast<std::string*>(context)->append(reinterpret_cast<const char*>(reply) + kHeaders,
                                               reply->nlmsg_len - kHeaders);
    return 1;
  };
  std::string replies;
  EXPECT_EQ(corvil_netlink_query(reinterpret_cast<const nlmsghdr*>(request.data()), NETLINK_GENERIC,
                                 append, &replies, dump),
            0);
  return replies;
}

class ConformanceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    corvil_netlink_set_timeout(20000);
    if (!targets_kernel) {
      emulator_.emplace("@conformance." + std::to_string(getpid()));
      corvil_netlink_set_emulator(emulator_->path().c_str());
    }
    ASSERT_EQ(corvil_netlink_query_genl("TAVIK_WLAN", 1, &family_), 0) << "no such family";
    accept("RESET", "", "");
  }

  [[nodiscard]] std::string state() const {
    std::ifstream file("/proc/net/tavik_wlan");
    return emulator_ ? emulator_->state() : std::string(std::istreambuf_iterator<char>(file), {});
  }

  [[nodiscard]] std::string request(std::string_view command, const std::string& attributes) const {
    const auto* info =
        std::ranges::find(tavik_wlan::kCommands, command, &tavik_wlan::CommandInfo::name);
    return message(family_, generic(info->command, attributes));
  }

  /// Expects how a request ends, and the state to be what it should be.
  void expect(const std::string& request, const std::string& expected) const {
    SCOPED_TRACE(::testing::PrintToString(request.substr(16, 200)));
    EXPECT_EQ(outcome(request), expected);
    const std::string found = state();
    EXPECT_TRUE(found == state_) << found.substr(0, 500) << "not:\n" << state_.substr(0, 500);
  }

  /// Expects that a request is accepted, and the state after it.
  void accept(std::string_view command, const std::string& attributes, const std::string& state) {
    state_ = state;
    expect(request(command, attributes), "");
  }

  /// Expects that a request is refused and changes nothing.
  void refuse(std::string_view command, const std::string& attributes,
              const std::string& reason) const {
    expect(request(command, attributes), reason);
  }

  std::optional<tavik_wlan::Emulator> emulator_;
  uint16_t family_ = 0;  // its id
  std::string state_;    // as it should be
};

TEST_F(ConformanceTest, ChangesItsStateByTheRulesOfEachCommand) {
  const std::string udp = "tuple ipv6 udp 4500\n";
  const std::string port4500 = attribute(0x4005, "\x11\x94");  // The flag has no effect.
  const std::string wlan1 = kSelector1 + text("DEV", "wlan1");
  const std::string selector2 = attribute("SELECTOR", "\2");
  accept("ADD_TUPLES", kBoth, "tuple ipv4 tcp 443\n" + udp);
  // Of two containers the last counts; of the first not even that each element has a tuple.
  accept("ADD_TUPLES", nested("\4\0\1\x80"s) + nested(kTcp443 + kEsp),
         "tuple ipv4 tcp 443\ntuple ipv4 esp 0x00001001\n" + udp);
  accept("DEL_TUPLES", nested(kTcp443 + kTcp443 + kEsp), udp);
  accept("ADD_TUPLES", nested(kTcp443) + nested(""), udp);
  refuse("DEL_TUPLES", kBoth, "ENOENT @44: no such tuple");
  accept("LL_ADDR_ADD", flow("::1", "::2"), udp + "lowlat ::1 5000 ::2 5001\n");
  refuse("LL_ADDR_ADD", flow("0:0::1", "::2"), "EEXIST @32: the flow exists already");
  refuse("LL_ADDR_ADD", flow("1.2.3.4", "::"), "EINVAL @32: addresses of different families");
  accept("LL_ADDR_ADD", flow("10.0.0.1", "10.0.0.2"),
         udp + "lowlat 10.0.0.1 5000 10.0.0.2 5001\nlowlat ::1 5000 ::2 5001\n");
  accept("LL_ADDR_FLUSH", "", udp);
  refuse("UNSET_ENCAP_PORT", kPort500, "ENOENT @20: the encapsulation port is not set");
  accept("SET_ENCAP_PORT", kPort500, udp + "encap 500\n");
  accept("ENCAP_PORT_ACT_PASS_THROUGH", kPort500, udp + "encap 500 pass-through\n");
  refuse("UNSET_ENCAP_PORT", port4500, "ENOENT @20: the encapsulation port is not set");
  refuse("ENCAP_PORT_ACT_DROP", port4500, "ENOENT @20: the encapsulation port is not set");
  accept("ENCAP_PORT_ACT_DROP", port4500 + kPort500, udp + "encap 500 drop\n");
  accept("SET_ENCAP_PORT", port4500, udp + "encap 4500\n");
  accept("UNSET_ENCAP_PORT", port4500, udp);
  refuse("ENCAP_PORT_ACT_DROP", port4500, "ENOENT @20: the encapsulation port is not set");
  accept("SET_DEV", selector2 + kWlan0, udp + "device 2 wlan0\n");
  accept("SET_DEV", wlan1, udp + "device 1 wlan1\ndevice 2 wlan0\n");
  refuse("SET_DEV", wlan1, "EEXIST @28: the device is set already");
  refuse("SET_DEV", kSelector1 + kWlan0, "EBUSY @28: another device is set");
  refuse("UNSET_DEV", kSelector1 + kWlan0, "ENOENT @28: the device is not set");
  refuse("UNSET_DEV", kWlan0 + attribute("SELECTOR", "\3"), "ENOENT @20: the device is not set");
  accept("UNSET_DEV", wlan1, udp + "device 2 wlan0\n");
  accept("ADD_FWD_INFO", kSelector1 + kPair, udp + "device 2 wlan0\nforward 1 wwan0 wlan0\n");
  refuse("ADD_FWD_INFO", kSelector1 + text("FWD_FROM", "wwan0\0x"s) + text("FWD_TO", "wlan0"),
         "EEXIST @40: the forwarding exists already");
  refuse("DEL_FWD_INFO", selector2 + kPair, "ENOENT @40: no such forwarding");
  accept("DEL_FWD_INFO", kSelector1 + kPair, udp + "device 2 wlan0\n");
  accept("SET_ENCAP_PORT", kPort500, udp + "device 2 wlan0\nencap 500\n");
  state_ = "";
  expect(message(family_, generic(9, ""), NLM_F_REQUEST | NLM_F_ACK | NLM_F_ECHO), "");
}

TEST_F(ConformanceTest, SaysWhyItRefuses) {
  const std::string unwrapped = kTcp443.substr(4);  // what is in an element
  const auto refuse_tuple = [this](const std::string& payload, const std::string& reason) {
    refuse("ADD_TUPLES", nested(element(payload)), "EINVAL @28: " + reason);
  };
  expect(message(0x3ff, generic(9, "")), "ENOENT");
  expect(message(0x10, generic(3, text(2, "nobody"))), "ENOENT");
  expect(message(family_, ""), "EINVAL");
  expect(message(family_, "\x0f\1\1\0"s, 0x105), "EINVAL: genlmsghdr.reserved field is not 0");
  expect(message(family_, generic(15, ""), 0x105),
         "EINVAL: ambiguous or reserved bits set in nlmsg_flags");
  expect(message(family_, generic(9, ""), 0x305), "EOPNOTSUPP");
  expect(message(family_, generic(15, "")), "EOPNOTSUPP");
  expect(message(family_, generic(14, kWlan0), 0x301), "EINVAL @20: Unsupported attribute");
  refuse("GET_TUPLES", "", "EOPNOTSUPP");
  refuse("ADD_TUPLES", "", "EINVAL lacks 1: missing attribute");
  refuse("SET_DEV", "", "EINVAL lacks 2: missing attribute");
  refuse("LL_ADDR_ADD", text("LL_SRC_ADDR", "::"), "EINVAL lacks 8: missing attribute");
  refuse("SET_DEV", kSelector1 + kWlan0 + kPort500, "EINVAL @40: Unsupported attribute");
  refuse("SET_DEV", kSelector1 + attribute(11, ""), "EINVAL @28: Unknown attribute type");
  refuse("ADD_TUPLES", nested(nested("\4\0\2\0"s)), "EINVAL @28: Unknown attribute type");
  for (const std::string& leftover : {"\5\0\5\0"s, "\3\0\5\0"s}) {
    const std::string reason = "EINVAL: bytes leftover after parsing attributes";
    refuse("SET_ENCAP_PORT", kPort500 + leftover, reason);
    refuse("ADD_TUPLES", nested(kTcp443 + leftover), reason);
    refuse("ADD_TUPLES", nested(nested(unwrapped + leftover)), reason);
  }
  refuse("SET_DEV", attribute("SELECTOR", ""), "EINVAL @20: invalid attribute length");
  refuse("SET_DEV", attribute(0x8006, "\0\1"s), "EINVAL @20: invalid attribute length");
  refuse("SET_ENCAP_PORT", attribute(0x8005, "\1\1\1"), "EINVAL @20: invalid attribute length");
  refuse("ADD_TUPLES", kBoth + nested(element("")) + kBoth, "EINVAL @64: invalid attribute length");
  refuse_tuple("\0\0\0\0\7\7\0\1\0"s, "invalid attribute length");
  refuse("SET_DEV", attribute(0x8006, "\1"), "EINVAL @20: NLA_F_NESTED not expected");
  refuse("SET_ENCAP_PORT", attribute(0x8005, "\1\1"), "EINVAL @20: NLA_F_NESTED not expected");
  refuse("ADD_TUPLES", nested(nested(nested(""))), "EINVAL @28: NLA_F_NESTED not expected");
  refuse("DEL_TUPLES", nested("\4\0\1\0"s), "EINVAL @24: NLA_F_NESTED is missing");
  const std::string policy = " @20: Attribute failed policy validation";
  refuse("SET_DEV", attribute("DEV", "wlan0"), "EINVAL" + policy);
  refuse("SET_DEV", text("DEV", "sixteen_letters_"), "EINVAL" + policy);
  refuse("ADD_FWD_INFO", attribute("FWD_FROM", "ends\0not_here_16"s), "ERANGE" + policy);
  refuse("LL_ADDR_ADD", text("LL_SRC_ADDR", std::string(46, ':')), "EINVAL" + policy);
  refuse("LL_ADDR_ADD", text("LL_DST_ADDR", "::\0"s + std::string(43, ':')), "ERANGE" + policy);
  refuse("ADD_TUPLES", nested("\0\0\0"s), "ERANGE" + policy);
  refuse_tuple("\0\0\0\1\5\7\1\0"s, "unknown IP version");
  refuse_tuple("\0\0\0\1\4\7\1\0"s, "unknown transport protocol");
  refuse_tuple("\0\0\0\1\4\x32\0\1"s, "reserved bytes of a tuple are not 0");
  refuse_tuple("\0\0\1\0\4\6\0\0"s, "bytes after the port of a tuple are not 0");
  refuse("ADD_TUPLES", nested(kTcp443 + "\4\0\1\x80"s), "EINVAL @40: no tuple in an element");
  refuse("ADD_TUPLES", nested(nested(unwrapped + unwrapped)),
         "EINVAL @40: more than one tuple in an element");
}

TEST_F(ConformanceTest, TakesNamesAndAddressesAsTheKernelDoes) {
  for (const std::string& name : {"fifteen_letters"s, "..."s, "\x1b%\\\xc3\xa4"s, "cut\0/"s}) {
    accept("SET_DEV", text("DEV", name) + kSelector1,
           "device 1 " + name.substr(0, name.find('\0')) + '\n');
    accept("RESET", "", "");
  }
  std::istringstream bad_names("|.|..|a/b|:|a b|\t|a\n|\v|\f|\r|\xa0");
  for (std::string name; std::getline(bad_names, name, '|');) {
    refuse("SET_DEV", kSelector1 + text("DEV", name), "EINVAL @28: invalid device name");
    refuse("ADD_FWD_INFO", text("FWD_FROM", name) + kWlan0, "EINVAL @20: invalid device name");
    refuse("DEL_FWD_INFO", text("FWD_TO", name) + kPort500, "EINVAL @20: invalid device name");
  }
  // What is written differently than it was given comes after '='.
  std::istringstream good_addresses(
      "1.2.3.4|255.255.255.255|::|1::|1:0:2:0:3:0:4:0|::ffff:1.2.3.4|::ffff:102:304=::ffff:1.2.3.4|"
      "2001:DB8:0:0:1:0:0:1=2001:db8::1:0:0:1|1:2:3:4:5:6:7::=1:2:3:4:5:6:7:0|"
      "::2:3:4:5:6:7:8=0:2:3:4:5:6:7:8|1:2:3:4:5:6:1.2.3.4=1:2:3:4:5:6:102:304|"
      "0000:0000:0000:0000:0000:ffff:255.255.255.255=::ffff:255.255.255.255");
  for (std::string address; std::getline(good_addresses, address, '|');) {
    const std::string other = address.find(':') == std::string::npos ? "10.0.0.2" : "::2";
    accept("LL_ADDR_ADD", flow(address.substr(0, address.find('=')), other),
           "lowlat " + address.substr(address.find('=') + 1) + " 5000 " + other + " 5001\n");
    accept("LL_ADDR_FLUSH", "", "");
  }
  std::istringstream bad_addresses(
      "|1.2.3.256|1.2.3|1.2.3.4.5|1.2.3.4 |16909060|:::|1::2::3|1::2:|::12345|1:2:3:4:5:6:7:8:9|"
      "::1.2.3|::1.2.3.4:5|fe80::1%eth0|[::1]|::1/128| ::1");
  for (std::string address; std::getline(bad_addresses, address, '|');) {
    refuse("LL_ADDR_ADD", text("LL_SRC_ADDR", address), "EINVAL @20: invalid address");
    refuse("LL_ADDR_ADD", text("LL_DST_ADDR", address), "EINVAL @20: invalid address");
  }
}

TEST_F(ConformanceTest, TellsItsOperations) {
  std::string operations;
  for (uint16_t command = 1; command <= 14; ++command) {
    const int flags = command == 14 ? 0x0c : 0x1a;
    operations += attribute(command, attribute(1, raw(int{command})) + attribute(2, raw(flags)));
  }
  const std::string description = text(2, "TAVIK_WLAN") + attribute(1, raw(family_)) +
                                  attribute(3, raw(1)) + attribute(4, raw(0)) +
                                  attribute(5, raw(10)) + attribute(6, operations);
  EXPECT_EQ(query(message(0x10, generic(3, text(2, "TAVIK_WLAN"))), false), description);
  EXPECT_EQ(query(message(0x10, generic(3, attribute(1, raw(family_)))), false), description);
}

TEST_F(ConformanceTest, HoldsAndDumpsAsManyTuplesAsItMay) {
  EXPECT_EQ(query(request("GET_TUPLES", ""), true), "");
  std::string elements;
  std::string lines;
  for (int i = 0; i < 65535; ++i) {
    elements += element(raw(htons(static_cast<uint16_t>(i))) + "\0\0\4\6\0\0"s);
    lines += "tuple ipv4 tcp " + std::to_string(i) + '\n';
  }
  constexpr size_t kContainer = size_t{4095} * 16;               // a full one
  for (size_t i = elements.size() / kContainer + 1; i-- > 0;) {  // The highest come first.
    EXPECT_EQ(outcome(request("ADD_TUPLES", nested(elements.substr(i * kContainer, kContainer)))),
              "");
  }
  accept("ADD_TUPLES", nested(kTcp443), lines);
  refuse("ADD_TUPLES", nested(kEsp + kUdp4500), "ENOSPC @20: too many tuples");
  accept("ADD_TUPLES", nested(kTcp443 + kEsp + kEsp), lines + "tuple ipv4 esp 0x00001001\n");
  refuse("ADD_TUPLES", kBoth, "ENOSPC @20: too many tuples");
  refuse("DEL_TUPLES", nested(kTcp443 + kEsp + kUdp4500), "ENOENT @60: no such tuple");
  std::string dumped = query(request("GET_TUPLES", ""), true);
  for (size_t at = 0; at < dumped.size();) {  // Takes off the headers of the containers.
    uint16_t length = 0;
    memcpy(&length, &dumped[at], sizeof(length));
    dumped.erase(at, 4);
    at += length - size_t{4};
  }
  EXPECT_TRUE(dumped == elements + kEsp);
  EXPECT_EQ(corvil_datapath_proxy_get_port_tuple(), 0);
  EXPECT_EQ(corvil_port_tree_count(), 65536U);
}

TEST_F(ConformanceTest, HoldsAsManyForwardingsAndFlowsAsItMay) {
  std::string flows;
  for (int i = 0; i < 4096; ++i) {
    const std::string name = "wlan" + std::to_string(1000 + i);
    state_ += "forward 1 wwan0 " + name + '\n';
    EXPECT_EQ(outcome(request("ADD_FWD_INFO",
                              kSelector1 + text("FWD_FROM", "wwan0") + text("FWD_TO", name))),
              "");
    const std::string source = "10.0." + std::to_string(i / 256) + "." + std::to_string(i % 256);
    flows += "lowlat " + source + " 5000 10.0.0.2 5001\n";
    EXPECT_EQ(outcome(request("LL_ADDR_ADD", flow(source, "10.0.0.2"))), "");
  }
  state_ += flows;
  refuse("ADD_FWD_INFO", kSelector1 + kPair, "ENOSPC @40: too many forwardings");
  refuse("LL_ADDR_ADD", flow("1.2.3.4", "1.2.3.4"), "ENOSPC @32: too many flows");
  refuse("LL_ADDR_ADD", flow("10.0.0.1", "10.0.0.2"), "EEXIST @36: the flow exists already");
  accept("LL_ADDR_FLUSH", "", state_.substr(0, state_.size() - flows.size()));
  accept("LL_ADDR_ADD", flow("::1", "::2"), state_ + "lowlat ::1 5000 ::2 5001\n");
}

TEST_F(ConformanceTest, ServesEightThreadsAtOnce) {
  const auto drive = [](uint8_t number) {
    const PortDescriptor port = {4, 6, number};
    for (int i = 0; i < 20; ++i) {
      EXPECT_EQ(corvil_datapath_proxy_set_config_info("wlan", "a", "b", &port, 1, number), 0);
      EXPECT_EQ(corvil_datapath_proxy_add_ll_dst_addr("::1", "::2", number, 0), 0);
      EXPECT_EQ(corvil_datapath_proxy_get_port_tuple(), 0);
      EXPECT_EQ(corvil_datapath_proxy_unset_config_info("wlan", "a", "b", &port, 1, number), 0);
      EXPECT_EQ(corvil_datapath_proxy_flush_ll_dst_addr(), 0);
    }
  };
  {
    std::vector<std::jthread> threads;
    for (uint8_t number = 1; number <= 8; ++number) {
      threads.emplace_back(drive, number);
    }
  }
  EXPECT_EQ(state(), "");
}

}  // namespace

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  const std::string target = argc > 1 ? argv[1] : "--target=emulator";
  targets_kernel = target == "--target=kernel";
  return targets_kernel || target == "--target=emulator" ? RUN_ALL_TESTS() : EXIT_FAILURE;
}
