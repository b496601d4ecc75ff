// The emulated kernel: what it answers to literal bytes, and how it serves its clients.

#include "reference_kernel/emulator/emulator.h"

#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "reference_kernel/emulator/kernel.h"

namespace {

using namespace std::chrono_literals;
using tavik_wlan::Datagram;
using tavik_wlan::Kernel;

// All of this is little-endian, but for ports, SPIs and addresses.

/// The bytes that hexadecimal digits stand for; white space is passed over.
Datagram bytes(const std::string& hex) {
  Datagram result;
  std::string digits = hex;
  std::erase(digits, ' ');
  for (size_t i = 0; i < digits.size(); i += 2) {
    result.push_back(static_cast<std::byte>(std::stoul(digits.substr(i, 2), nullptr, 16)));
  }
  return result;
}

std::string hex(tavik_wlan::Bytes data) {
  std::string result;
  for (const std::byte byte : data) {
    result += "0123456789abcdef"[static_cast<size_t>(byte) >> 4];
    result += "0123456789abcdef"[static_cast<size_t>(byte) & 15];
  }
  return result;
}

std::string without_spaces(std::string text) {
  std::erase(text, ' ');
  return text;
}

template <typename T>
T at(const Datagram& datagram, size_t offset) {
  T value{};
  if (offset + sizeof(T) <= datagram.size()) {
    memcpy(&value, datagram.data() + offset, sizeof(T));
  } else {
    ADD_FAILURE() << "no " << sizeof(T) << " bytes at " << offset << " of " << hex(datagram);
  }
  return value;
}

// NOLINTBEGIN(cert-err58-cpp): a test that can't start says so.

// Of the messages here: sequence number, port id.
const std::string kNumbers = "78563412 21436587";

/// A message from its nlmsg_type and nlmsg_flags and what follows its nlmsghdr.
Datagram message(const std::string& type_and_flags, const std::string& rest) {
  Datagram result = bytes("00000000" + type_and_flags + kNumbers + rest);
  const auto length = static_cast<uint32_t>(result.size());
  memcpy(result.data(), &length, sizeof(length));
  return result;
}

/// A request to the family that wants an acknowledgement.
Datagram request(const std::string& command, const std::string& attributes = "") {
  return message("1c00 0500", command + "010000" + attributes);
}

const Datagram kDumpRequest = message("1c00 0103", "0e010000");
const Datagram kLookUp = message("1000 0500", "03010000 0f00 0200 544156494b5f574c414e00 00");

const std::string kTcp443 = "1000 0180 0c00 0100 01bb0000 04 06 0000 ";
const std::string kUdp4500 = "1000 0180 0c00 0100 11940000 06 11 0000 ";
const std::string kEsp = "1000 0180 0c00 0100 00001001 04 32 0000 ";
const std::string kSelector1 = "0500 0600 01 000000 ";
const std::string kSelector2 = "0500 0600 02 000000 ";
const std::string kWlan0 = "0a00 0200 776c616e3000 0000 ";
const std::string kWlan1 = "0a00 0200 776c616e3100 0000 ";
const std::string kFromWwan0 = "0a00 0300 7777616e3000 0000 ";
const std::string kToWlan0 = "0a00 0400 776c616e3000 0000 ";
const std::string kPort4500 = "0600 0500 1194 0000 ";
const std::string kPort500 = "0600 0500 01f4 0000 ";
const std::string kFlowPorts = "0600 0900 1388 0000 0600 0a00 1389 0000 ";
const std::string kSourceAndTarget =  // 10.0.0.1, 10.0.0.2
    "0d00 0700 31302e302e302e3100 000000 0d00 0800 31302e302e302e3200 000000 ";

const std::string kPolicy = "Attribute failed policy validation";
const std::string kLeftover = "bytes leftover after parsing attributes";

// NOLINTEND(cert-err58-cpp)

/// The error of the only datagram of an answer.
int error_of(const tavik_wlan::Answer& answer) {
  EXPECT_EQ(answer.datagrams.size(), 1U);
  return answer.datagrams.empty() ? 1 : at<int>(answer.datagrams.front(), 16);
}

TEST(FamilyTest, ChangesItsStateByTheRulesOfEachCommand) {
  std::string observed;
  Kernel kernel([&](std::string_view line) { observed = line; });
  struct Step {
    std::string command;
    std::string attributes;
    int error;
    std::string state;
    std::string observed;  // when accepted
  };
  const std::string tcp = "tuple ipv4 tcp 443\n";
  const std::string udp = "tuple ipv6 udp 4500\n";
  const std::string esp = "tuple ipv4 esp 0x00001001\n";
  const std::string flow = "lowlat 10.0.0.1 5000 10.0.0.2 5001\n";
  const std::string flow6 = "lowlat ::1 5000 ::2 5001\n";
  const std::vector<Step> steps = {
      {"01", "2400 0180" + kUdp4500 + kTcp443, 0, tcp + udp,
       "ADD_TUPLES ipv6 udp 4500, ipv4 tcp 443"},
      {"01", "2400 0180" + kTcp443 + kEsp, 0, tcp + esp + udp,
       "ADD_TUPLES ipv4 tcp 443, ipv4 esp 0x00001001"},
      {"01", "0400 0180", 0, tcp + esp + udp, "ADD_TUPLES"},
      // Of two containers the last counts.
      {"02", "1400 0180" + kUdp4500 + "0400 0180", 0, tcp + esp + udp, "DEL_TUPLES"},
      {"02", "3400 0180" + kTcp443 + kTcp443 + kEsp, 0, udp,
       "DEL_TUPLES ipv4 tcp 443, ipv4 tcp 443, ipv4 esp 0x00001001"},
      {"02", "2400 0180" + kUdp4500 + kTcp443, -ENOENT, udp, ""},
      {"09", "", 0, "", "RESET"},

      {"03", kSelector2 + kWlan0, 0, "device 2 wlan0\n", "SET_DEV 2 wlan0"},
      {"03", kWlan1 + kSelector1, 0, "device 1 wlan1\ndevice 2 wlan0\n", "SET_DEV 1 wlan1"},
      {"03", kSelector1 + kWlan1, -EEXIST, "device 1 wlan1\ndevice 2 wlan0\n", ""},
      {"03", kSelector1 + kWlan0, -EBUSY, "device 1 wlan1\ndevice 2 wlan0\n", ""},
      {"04", kSelector1 + kWlan0, -ENOENT, "device 1 wlan1\ndevice 2 wlan0\n", ""},
      {"04", kSelector1 + kWlan1, 0, "device 2 wlan0\n", "UNSET_DEV 1 wlan1"},
      {"04", kSelector1 + kWlan1, -ENOENT, "device 2 wlan0\n", ""},
      {"09", "", 0, "", "RESET"},

      {"05", kSelector1 + kToWlan0 + kFromWwan0, 0, "forward 1 wwan0 wlan0\n",
       "ADD_FWD_INFO 1 wwan0 wlan0"},
      {"05", kSelector1 + kFromWwan0 + kToWlan0, -EEXIST, "forward 1 wwan0 wlan0\n", ""},
      {"06", kSelector2 + kFromWwan0 + kToWlan0, -ENOENT, "forward 1 wwan0 wlan0\n", ""},
      {"06", kSelector1 + kFromWwan0 + kToWlan0, 0, "", "DEL_FWD_INFO 1 wwan0 wlan0"},

      {"08", kPort4500, -ENOENT, "", ""},
      {"07", kPort500, 0, "encap 500\n", "SET_ENCAP_PORT 500"},
      {"0b", kPort500, 0, "encap 500 drop\n", "ENCAP_PORT_ACT_DROP 500"},
      {"07", kPort4500, 0, "encap 4500\n", "SET_ENCAP_PORT 4500"},
      {"0a", kPort4500, 0, "encap 4500 pass-through\n", "ENCAP_PORT_ACT_PASS_THROUGH 4500"},
      {"0b", kPort500, -ENOENT, "encap 4500 pass-through\n", ""},
      {"08", kPort500, -ENOENT, "encap 4500 pass-through\n", ""},
      {"08", kPort4500, 0, "", "UNSET_ENCAP_PORT 4500"},
      {"0a", kPort4500, -ENOENT, "", ""},

      // ::1 to ::2, then the same flow in other words.
      {"0c", "0800 0700 3a3a3100 0800 0800 3a3a3200" + kFlowPorts, 0, flow6,
       "LL_ADDR_ADD ::1 5000 ::2 5001"},
      {"0c", "0b00 0700 303a303a3a3100 00 0800 0800 3a3a3200" + kFlowPorts, -EEXIST, flow6, ""},
      {"0c", kSourceAndTarget + kFlowPorts, 0, flow + flow6,
       "LL_ADDR_ADD 10.0.0.1 5000 10.0.0.2 5001"},
      {"01", "1400 0180" + kTcp443, 0, tcp + flow + flow6, "ADD_TUPLES ipv4 tcp 443"},
      {"0d", "", 0, tcp, "LL_ADDR_FLUSH"},
      {"0d", "", 0, tcp, "LL_ADDR_FLUSH"},
      {"09", "", 0, "", "RESET"},
  };
  for (size_t i = 0; i < steps.size(); ++i) {
    const Step& step = steps[i];
    SCOPED_TRACE("step " + std::to_string(i) + ", command 0x" + step.command);
    observed.clear();
    EXPECT_EQ(error_of(kernel.receive(request(step.command, step.attributes))), step.error);
    EXPECT_EQ(kernel.state(), step.state);
    EXPECT_EQ(observed, step.observed);
  }
}

/// The extended part of a refusal: its message, "@" and the offset, "-" and the missing type.
std::string reason_of(const Datagram& refusal) {
  std::string reason;
  for (size_t attribute = 36; attribute < refusal.size();
       attribute += (at<uint16_t>(refusal, attribute) + 3U) & ~3U) {
    const auto type = at<uint16_t>(refusal, attribute + 2);
    if (type == NLMSGERR_ATTR_MSG) {
      reason += reinterpret_cast<const char*>(refusal.data() + attribute + 4);
    } else {
      reason += type == NLMSGERR_ATTR_OFFS ? " @" : type == NLMSGERR_ATTR_MISS_TYPE ? " -" : " ?";
      reason += std::to_string(at<uint32_t>(refusal, attribute + 4));
    }
  }
  return reason;
}

TEST(FamilyTest, SaysWhyItRefuses) {
  struct Case {
    Datagram datagram;
    std::string reason;
    int error = -EINVAL;
  };
  const auto add_tuple = [](const std::string& tuple) {
    return request("01", "1400 0180 1000 0180 0c00 0100" + tuple);
  };
  const std::vector<Case> cases = {
      // Messages.
      {message("1b00 0500", "09010000"), "unknown message type", -ENOENT},
      {message("1c00 0500", "090100"), "message shorter than its headers"},
      {message("1c00 0500", "09010100"), "genlmsghdr.reserved field is not 0"},
      {message("1c00 0501", "09010000"), "ambiguous or reserved bits set in nlmsg_flags"},
      {request("00"), "unknown command", -EOPNOTSUPP},
      {request("0f"), "unknown command", -EOPNOTSUPP},
      {request("0e"), "the command is a dump", -EOPNOTSUPP},
      {message("1c00 0103", "09010000"), "the command is no dump", -EOPNOTSUPP},
      // Attributes.
      {request("03", kWlan0), "missing attribute -6"},
      {request("0c", kSourceAndTarget), "missing attribute -9"},
      {request("03", kSelector1 + kWlan0 + "0400 0b00"), "Unknown attribute type @40"},
      {request("03", kSelector1 + kWlan0 + "0400 0000"), "Unknown attribute type @40"},
      {request("03", kSelector1 + kWlan0 + kPort500), "Unsupported attribute @40"},
      {request("09", kSelector1), "Unsupported attribute @20"},
      {message("1c00 0103", "0e010000" + kSelector1), "Unsupported attribute @20"},
      {request("07", "0600 0580 1194 0000"), "NLA_F_NESTED not expected @20"},
      {request("07", "0500 0500 11 000000"), "invalid attribute length @20"},
      {request("07", "0800 0500 11940000"), "invalid attribute length @20"},
      {request("07", kPort500 + "000000"), kLeftover},
      {request("07", kPort500 + "0300 0500"), kLeftover},
      {request("07", kPort500 + "0900 0500 11940000"), kLeftover},
      // Names: unterminated, of sixteen letters, and what no interface may be called.
      {request("03", kSelector1 + "0900 0200 776c616e30 000000"), kPolicy + " @28"},
      {request("03", kSelector1 + "1500 0200" + std::string(32, '6') + "00 000000"),
       kPolicy + " @28"},
      {request("03", kSelector1 + "0400 0200"), kPolicy + " @28"},
      {request("03", kSelector1 + "0500 0200 00 000000"), "invalid device name @28"},
      {request("03", kSelector1 + "0600 0200 2e00 0000"), "invalid device name @28"},
      {request("03", kSelector1 + "0700 0200 2e2e00 00"), "invalid device name @28"},
      {request("05", kSelector1 + kFromWwan0 + "0800 0400 612f6200"), "invalid device name @40"},
      {request("05", kSelector1 + kFromWwan0 + "0800 0400 61206200"), "invalid device name @40"},
      {request("05", kSelector1 + kToWlan0 + "0800 0300 613a6200"), "invalid device name @40"},
      {request("05", kSelector1 + kToWlan0 + "0800 0300 61a06200"), "invalid device name @40"},
      // Addresses: "::g", and one of each family.
      {request("0c", "0800 0700 3a3a6700"), "invalid address @20"},
      {request("0c", kSourceAndTarget + kFlowPorts + "0800 0700 3a3a3100"),
       "addresses of different families"},
      // Tuples: containers, elements, tuples.
      {request("01", "1400 0100" + kTcp443), "NLA_F_NESTED is missing @20"},
      {request("01", "0600 0180 0000 0000"), kLeftover},
      {request("01", "1400 0180 1000 0100 0c00 0100 01bb0000 04060000"),
       "NLA_F_NESTED is missing @24"},
      {request("01", "2400 0180" + kTcp443 + "1000 0280 0c00 0100 01bb0000 04060000"),
       "Unknown attribute type @40"},
      {request("01", "1400 0180 1000 0180 0c00 0200 01bb0000 04060000"),
       "Unknown attribute type @28"},
      {request("01", "1400 0180 1000 0180 0c00 0180 01bb0000 04060000"),
       "NLA_F_NESTED not expected @28"},
      {request("01", "1000 0180 0c00 0180 0800 0100 01bb0000"), "invalid attribute length @28"},
      {request("01", "1400 0180 1000 0180 0d00 0100 01bb0000 04060000"), kLeftover},
      {request("01", "0800 0180 0400 0180"), "no tuple in an element @24"},
      {request("01", "2000 0180 1c00 0180 0c00 0100 01bb0000 04060000 0c00 0100 01bb0000 04060000"),
       "more than one tuple in an element @40"},
      {request("01", "2400 0180" + kTcp443 + "1000 0180 0c00 0100 01bb0000 05060000"),
       "unknown IP version @44"},
      {add_tuple("01bb0000 04010000"), "unknown transport protocol @28"},
      {add_tuple("01bb0001 04060000"), "bytes after the port of a tuple are not 0 @28"},
      {add_tuple("00001001 04320001"), "reserved bytes of a tuple are not 0 @28"},
  };
  Kernel kernel({});
  for (const Case& refused : cases) {
    SCOPED_TRACE(hex(refused.datagram));
    const tavik_wlan::Answer answer = kernel.receive(refused.datagram);
    EXPECT_EQ(error_of(answer), refused.error);
    EXPECT_EQ(reason_of(answer.datagrams.front()), refused.reason);
    EXPECT_EQ(kernel.state(), "");
  }
}

/// The datagrams that answer `datagram`, in hexadecimal.
std::vector<std::string> answer_to(Kernel& kernel, const std::string& datagram) {
  std::vector<std::string> result;
  for (const Datagram& reply : kernel.receive(bytes(datagram)).datagrams) {
    result.push_back(hex(reply));
  }
  return result;
}

TEST(KernelTest, AcknowledgesAsNetlinkDoes) {
  struct Case {
    std::string what;
    std::string datagram;
    std::vector<std::string> answer;
  };
  const std::string reset = "14000000 1c00 0500 " + kNumbers + "09010000 ";
  const std::string reset_ack =
      "24000000 0200 0001 " + kNumbers + "00000000 14000000 1c00 0500 " + kNumbers;
  const std::vector<Case> cases = {
      {"accepted", reset, {reset_ack}},
      {"no acknowledgement wanted", "14000000 1c00 0100 " + kNumbers + "09010000", {}},
      {"refused, no acknowledgement wanted",
       "14000000 1c00 0100 " + kNumbers + "07010000",
       {"44000000 0200 0003 " + kNumbers + "eaffffff 14000000 1c00 0100 " + kNumbers +
        // "missing attribute", 5
        "1600 0100 6d697373696e6720617474726962757465 00 0000 0800 0500 05000000"}},
      {"no request",
       "14000000 1c00 0400 " + kNumbers + "07010000",
       {"24000000 0200 0001 " + kNumbers + "00000000 14000000 1c00 0400 " + kNumbers}},
      {"control message",
       "10000000 0300 0500 " + kNumbers,
       {"24000000 0200 0001 " + kNumbers + "00000000 10000000 0300 0500 " + kNumbers}},
      {"several, the first padded",
       "1a000000 1c00 0500 " + kNumbers + "07010000 0600 0500 1194 0000" + reset,
       {"24000000 0200 0001 " + kNumbers + "00000000 1a000000 1c00 0500 " + kNumbers, reset_ack}},
      {"a length below the header's ends the datagram",
       reset + "0f000000 1c00 0500 " + kNumbers + reset,
       {reset_ack}},
      {"so does one beyond its end",
       reset + "15000000 1c00 0500 " + kNumbers + "09010000",
       {reset_ack}},
      {"shorter than a header", "10000000", {}},
      {"empty dump",
       "14000000 1c00 0503 " + kNumbers + "0e010000",
       {"14000000 0300 0200 " + kNumbers + "00000000"}},
      {"one dump at a time",
       "14000000 1c00 0103 " + kNumbers + "0e010000 14000000 1c00 0103 " + kNumbers + "0e010000",
       {"14000000 0300 0200 " + kNumbers + "00000000",
        "40000000 0200 0003 " + kNumbers + "f0ffffff 14000000 1c00 0103 " + kNumbers +
            // "a dump is in progress"
            "1a00 0100 612064756d7020697320696e2070726f6772657373 00 0000"}},
  };
  for (const Case& exchange : cases) {
    SCOPED_TRACE(exchange.what);
    Kernel kernel({});
    std::vector<std::string> expected = exchange.answer;
    std::transform(expected.begin(), expected.end(), expected.begin(), without_spaces);
    EXPECT_EQ(answer_to(kernel, exchange.datagram), expected);
  }
}

TEST(KernelTest, TellsAboutFamilies) {
  Kernel kernel({});
  const std::string family =
      " 1000 0000 " + kNumbers +
      "01020000 0f00 0200 544156494b5f574c414e00 00 0600 0100 1c00 0000 "
      "0800 0300 01000000 0800 0400 00000000 0800 0500 0a000000 1c01 0600 "
      "1400 0100 0800 0100 01000000 0800 0200 1a000000 "  // ADD_TUPLES: attributes, for admins
      "1400 0200 0800 0100 02000000 0800 0200 1a000000 ";
  const std::string controller =
      "0b00 0200 6e6c6374726c00 00 0600 0100 1000 0000 0800 0300 02000000 0800 0400 00000000 "
      "0800 0500 0a000000 1800 0600 1400 0100 0800 0100 03000000 0800 0200 0e000000";
  const std::string get_tuples = "1400 0e00 0800 0100 0e000000 0800 0200 04000000";
  const std::string reset = "1400 0900 0800 0100 09000000 0800 0200 12000000";

  const std::string by_name = hex(kLookUp);
  std::vector<std::string> answer = answer_to(kernel, by_name);
  ASSERT_EQ(answer.size(), 2U);
  EXPECT_TRUE(answer[0].starts_with(without_spaces("60010000" + family))) << answer[0];
  EXPECT_NE(answer[0].find(without_spaces(reset)), std::string::npos);
  EXPECT_TRUE(answer[0].ends_with(without_spaces(get_tuples))) << answer[0];
  EXPECT_EQ(answer[0].size(), 2U * 0x160);
  EXPECT_EQ(answer[1].substr(32, 8), "00000000");

  const std::string by_id = "1c000000 1000 0100 " + kNumbers + "03010000 0600 0100 1000 0000";
  answer = answer_to(kernel, by_id);
  ASSERT_EQ(answer.size(), 1U);
  EXPECT_EQ(answer[0], without_spaces("58000000 1000 0000 " + kNumbers + "01020000" + controller));

  answer = answer_to(kernel, "14000000 1000 0103 " + kNumbers + "03010000");
  ASSERT_EQ(answer.size(), 1U);
  EXPECT_TRUE(answer[0].starts_with(without_spaces("58000000 1000 0200 " + kNumbers + "01020000" +
                                                   controller + "60010000 1000")));
  EXPECT_TRUE(answer[0].ends_with(
      without_spaces(get_tuples + "14000000 0300 0200 " + kNumbers + "00000000")));

  const auto error_for = [&](const std::string& rest) {
    return error_of(kernel.receive(message("1000 0100", rest)));
  };
  EXPECT_EQ(error_for("03010000 0600 0200 6100 0000"), -ENOENT);
  EXPECT_EQ(error_for("03010000 0600 0100 1d00 0000"), -ENOENT);
  EXPECT_EQ(error_for("03010000 0500 0200 61 000000"), -EINVAL) << "unterminated";
  EXPECT_EQ(error_for("03010000"), -EINVAL);
  EXPECT_EQ(error_for("0a010000"), -EOPNOTSUPP);
  EXPECT_EQ(error_for("0301"), -EINVAL);
}

/// One element of a container: a TCP port.
Datagram port_element(uint8_t ip_version, uint32_t port) {
  static const Datagram zero = bytes("1000 0180 0c00 0100 0000 0000 00 06 0000");
  Datagram element = zero;
  element[8] = static_cast<std::byte>(port >> 8);
  element[9] = static_cast<std::byte>(port);
  element[12] = static_cast<std::byte>(ip_version);
  return element;
}

/// A request that adds the TCP ports from `first` to `end`, excluding; at most 4095.
Datagram add_ports(uint8_t ip_version, uint32_t first, uint32_t end) {
  Datagram datagram = request("01", "0000 0180");
  const auto container = static_cast<uint16_t>(4 + (end - first) * 16);
  for (; first < end; ++first) {
    const Datagram element = port_element(ip_version, first);
    datagram.insert(datagram.end(), element.begin(), element.end());
  }
  const auto length = static_cast<uint32_t>(datagram.size());
  memcpy(datagram.data(), &length, sizeof(length));
  memcpy(datagram.data() + 20, &container, sizeof(container));
  return datagram;
}

/// Has the kernel hold the first `count` TCP ports of IPv4.
void fill(Kernel& kernel, uint32_t count) {
  for (uint32_t first = 0; first < count; first += 4095) {
    ASSERT_EQ(error_of(kernel.receive(add_ports(4, first, std::min(first + 4095, count)))), 0);
  }
}

TEST(FamilyTest, DumpsManyTuples) {
  Kernel kernel({});
  fill(kernel, 60000);
  const std::vector<Datagram> datagrams = kernel.receive(kDumpRequest).datagrams;
  EXPECT_GT(datagrams.size(), 2U);
  uint32_t port = 0;
  bool done = false;
  for (const Datagram& datagram : datagrams) {
    EXPECT_LE(datagram.size(), 32768U);
    for (size_t start = 0; start < datagram.size(); start += at<uint32_t>(datagram, start)) {
      ASSERT_FALSE(done);
      const auto length = at<uint32_t>(datagram, start);
      EXPECT_EQ(at<uint16_t>(datagram, start + 6), NLM_F_MULTI);
      done = at<uint16_t>(datagram, start + 4) == NLMSG_DONE;
      if (done) {
        continue;
      }
      EXPECT_EQ(hex(tavik_wlan::Bytes(datagram).subspan(start + 16, 4)), "0e010000");
      ASSERT_EQ(at<uint16_t>(datagram, start + 20), length - 20);
      for (size_t element = start + 24; element < start + length; element += 16, ++port) {
        const Datagram expected = port_element(4, port);
        ASSERT_TRUE(std::equal(expected.begin(), expected.end(), datagram.data() + element));
      }
    }
  }
  EXPECT_TRUE(done);
  EXPECT_EQ(port, 60000U);
}

TEST(FamilyTest, HoldsALimitedNumberOfTuples) {
  Kernel kernel({});
  fill(kernel, 65535);
  const std::string almost_full = kernel.state();
  EXPECT_EQ(error_of(kernel.receive(add_ports(6, 0, 2))), -ENOSPC);
  EXPECT_EQ(kernel.state(), almost_full) << "all or nothing";
  EXPECT_EQ(error_of(kernel.receive(add_ports(4, 65530, 65536))), 0) << "only one of them is new";
}

TEST(KernelTest, MisbehavesWhenTold) {
  Kernel kernel({});
  const Datagram reset = request("09");

  kernel.misbehave({.silent = true});
  EXPECT_TRUE(kernel.receive(request("07", kPort500)).datagrams.empty());
  EXPECT_TRUE(kernel.receive(kLookUp).datagrams.empty());
  EXPECT_EQ(kernel.state(), "encap 500\n") << "takes effect all the same";

  kernel.misbehave({.delay_ms = 20});
  EXPECT_EQ(kernel.receive(reset).delay, 20ms);

  kernel.misbehave({.truncate = 18});
  EXPECT_EQ(kernel.receive(reset).datagrams.at(0).size(), 18U);
  EXPECT_EQ(kernel.receive(kLookUp).datagrams.at(0).size(), 18U);

  kernel.misbehave({.garbage = true});
  const Datagram garbage = kernel.receive(reset).datagrams.at(0);
  EXPECT_EQ(garbage.size(), 36U);
  EXPECT_NE(kernel.receive(reset).datagrams.at(0), garbage);

  kernel.misbehave({.stale = true});
  std::vector<Datagram> answer = kernel.receive(reset).datagrams;
  ASSERT_EQ(answer.size(), 2U);
  EXPECT_EQ(at<uint32_t>(answer[0], 8), 0x12345677U);
  EXPECT_EQ(at<int>(answer[0], 16), -EIO);
  EXPECT_EQ(at<uint32_t>(answer[1], 8), 0x12345678U);
  EXPECT_EQ(at<int>(answer[1], 16), 0);

  kernel.misbehave({.refuse_nth = 2, .refuse_error = EPERM});
  EXPECT_EQ(kernel.receive(kLookUp).datagrams.size(), 2U) << "a look-up doesn't count";
  EXPECT_EQ(error_of(kernel.receive(reset)), 0);
  EXPECT_EQ(error_of(kernel.receive(reset)), -EPERM);
  EXPECT_EQ(error_of(kernel.receive(reset)), 0);

  kernel.misbehave({.interrupted_dumps = 1});
  fill(kernel, 1);
  answer = kernel.receive(kDumpRequest).datagrams;
  EXPECT_EQ(at<uint16_t>(answer.at(0), 6), NLM_F_MULTI | NLM_F_DUMP_INTR);
  EXPECT_EQ(at<uint16_t>(answer.at(0), 46), NLM_F_MULTI | NLM_F_DUMP_INTR) << "NLMSG_DONE";
  EXPECT_EQ(at<uint16_t>(kernel.receive(kDumpRequest).datagrams.at(0), 6), NLM_F_MULTI);

  kernel.misbehave({.family_id = 999});
  EXPECT_EQ(error_of(kernel.receive(reset)), -ENOENT);
  EXPECT_EQ(error_of(kernel.receive(message("e703 0500", "09010000"))), 0);
  EXPECT_EQ(at<uint16_t>(kernel.receive(kLookUp).datagrams.at(0), 40), 999);

  kernel.misbehave({.absent = true});
  EXPECT_EQ(error_of(kernel.receive(kLookUp)), -ENOENT);
  EXPECT_EQ(error_of(kernel.receive(reset)), -ENOENT);

  kernel.misbehave({});
  EXPECT_EQ(error_of(kernel.receive(reset)), 0);
}

/// A connection to an emulator.
class Connection {
 public:
  explicit Connection(const std::string& path, int type = SOCK_SEQPACKET)
      : fd_(socket(AF_UNIX, type | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    EXPECT_EQ(connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0) << path;
    const timeval patience{.tv_sec = 10, .tv_usec = 0};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection() { close(fd_); }

  void send(const Datagram& datagram) const {
    EXPECT_EQ(::send(fd_, datagram.data(), datagram.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(datagram.size()));
  }

  /// Empty at the end of the connection.
  [[nodiscard]] Datagram receive() const {
    Datagram datagram(65536);
    const ssize_t size = recv(fd_, datagram.data(), datagram.size(), 0);
    EXPECT_NE(size, -1) << strerror(errno);  // NOLINT(concurrency-mt-unsafe): one thread.
    datagram.resize(static_cast<size_t>(std::max<ssize_t>(size, 0)));
    return datagram;
  }

  [[nodiscard]] int ask(const Datagram& request) const {
    send(request);
    return at<int>(receive(), 16);
  }

 private:
  int fd_;
};

class EmulatorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string folder = ::testing::TempDir() + "emulator_test.XXXXXX";
    ASSERT_NE(mkdtemp(folder.data()), nullptr);
    folder_ = folder;
    path_ = folder_ + "/kernel";
  }
  void TearDown() override { std::filesystem::remove_all(folder_); }

  std::string folder_;
  std::string path_;
};

TEST_F(EmulatorTest, ServesItsStateAsText) {
  tavik_wlan::Emulator emulator(path_);
  const Connection client(path_);
  for (const bool held : {false, true}) {
    const Datagram text = Connection(path_ + ".state", SOCK_STREAM).receive();
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(text.data()), text.size()),
              held ? "encap 500\n" : "");
    EXPECT_EQ(client.ask(request("07", kPort500)), 0);
  }
}

void expect_state_soon(const tavik_wlan::Emulator& emulator, const std::string& state) {
  const auto deadline = std::chrono::steady_clock::now() + 10s;
  while (emulator.state() != state && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(1ms);
  }
  EXPECT_EQ(emulator.state(), state);
}

TEST_F(EmulatorTest, NoClientWaitsForAnother) {
  tavik_wlan::Emulator emulator(path_);
  const Connection fast(path_);
  for (uint32_t first = 0; first < 60000; first += 4000) {
    ASSERT_EQ(fast.ask(add_ports(4, first, first + 4000)), 0);
  }
  const Connection slow(path_);
  slow.send(kDumpRequest);  // 1 MB, which no socket buffer takes.
  slow.send(kDumpRequest);
  size_t tuples = slow.receive().size() / 16 - 1;
  emulator.misbehave({.delay_ms = 3600000});
  const Connection delayed(path_);
  delayed.send(request("09"));
  expect_state_soon(emulator, "");
  emulator.misbehave({});
  for (int i = 0; i < 100; ++i) {
    ASSERT_EQ(fast.ask(request("09")), 0);
  }
  for (int dumps = 0; dumps < 2;) {
    const Datagram datagram = slow.receive();
    ASSERT_FALSE(datagram.empty());
    tuples += datagram.size() / 16 - 1;
    // NLMSG_DONE is the last message of its datagram.
    dumps += at<uint16_t>(datagram, datagram.size() - 16) == NLMSG_DONE ? 1 : 0;
  }
  EXPECT_GE(tuples, 60000U) << "a snapshot";
}

TEST_F(EmulatorTest, HeedsWhatAClientSentBeforeItLeft) {
  tavik_wlan::Emulator emulator(path_);
  {
    // It leaves with one answer unread, one not sent yet and one request not received.
    const Connection hasty(path_);
    hasty.send(request("07", kPort500));
    expect_state_soon(emulator, "encap 500\n");
    emulator.misbehave({.delay_ms = 3600000});
    hasty.send(request("0a", kPort500));
    hasty.send(request("0b", kPort500));
    expect_state_soon(emulator, "encap 500 pass-through\n");
  }
  expect_state_soon(emulator, "encap 500 drop\n");
}

TEST_F(EmulatorTest, HangsUpOnRequestsTooLong) {
  tavik_wlan::Emulator emulator(path_);
  const Connection client(path_);
  Datagram longest = request("07", kPort500);
  longest.resize(131072);
  EXPECT_EQ(client.ask(longest), 0);
  longest.resize(131073);
  client.send(longest);
  EXPECT_TRUE(client.receive().empty());
  EXPECT_EQ(Connection(path_).ask(request("09")), 0);
}

/// The error of serving at a path.
std::error_code error_at(const std::string& path) {
  try {
    const tavik_wlan::Emulator emulator(path);
  } catch (const std::system_error& error) {
    EXPECT_NE(std::string(error.what()).find("cannot listen at "), std::string::npos);
    return error.code();
  }
  return {};
}

TEST_F(EmulatorTest, TakesOverDeadSocketsOnly) {
  {
    const tavik_wlan::Emulator emulator(path_);
    EXPECT_EQ(error_at(path_), std::errc::address_in_use);
    EXPECT_EQ(error_at(path_ + ".state"), std::errc::address_in_use);
    EXPECT_EQ(Connection(path_).ask(request("09")), 0) << "the first serves on";
    // As after a crash: sockets without a listener.
    std::filesystem::rename(path_, folder_ + "/dead");
    std::filesystem::rename(path_ + ".state", folder_ + "/dead.state");
  }
  EXPECT_FALSE(std::filesystem::exists(path_));
  EXPECT_EQ(error_at(folder_ + "/dead"), std::error_code());
  EXPECT_TRUE(std::filesystem::is_empty(folder_)) << "removed when it ends";

  std::ofstream(path_ + ".state") << "no socket";
  EXPECT_EQ(error_at(path_), std::errc::address_in_use);
  EXPECT_FALSE(std::filesystem::exists(path_));
  EXPECT_TRUE(std::filesystem::exists(path_ + ".state"));

  const std::string longest = folder_ + '/' + std::string(100 - folder_.size(), 'p');
  EXPECT_EQ(error_at(longest), std::error_code());
  EXPECT_EQ(error_at(longest + 'p'), std::errc::filename_too_long);
  EXPECT_EQ(error_at(""), std::errc::invalid_argument);
}

}  // namespace
