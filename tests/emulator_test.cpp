// The emulated kernel: what it answers to literal bytes, and how it serves its clients.

#include "reference_kernel/emulator/emulator.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
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

Datagram bytes(const std::string& digits) {
  Datagram result;
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

/// A message from its nlmsg_type and nlmsg_flags and what follows its nlmsghdr.
std::string message(const std::string& type_and_flags, const std::string& rest) {
  const std::string unsized = without_spaces(type_and_flags + "78563412 21436587" + rest);
  return hex_of(static_cast<uint32_t>(4 + unsized.size() / 2)) + unsized;
}

/// A request to the family that wants an acknowledgement.
std::string request(const std::string& command, const std::string& attributes = "") {
  return message("1c00 0500", command + "010000" + attributes);
}

std::string attribute(uint16_t type, const std::string& payload) {
  const std::string digits = without_spaces(payload);
  return hex_of(static_cast<uint16_t>(4 + digits.size() / 2)) + hex_of(type) + digits +
         std::string((8 - digits.size() % 8) % 8, '0');
}

std::string text(uint16_t type, const std::string& characters) {
  return attribute(type, hex(std::as_bytes(std::span(characters.c_str(), characters.size() + 1))));
}

std::string tuples(const std::string& elements) { return attribute(0x8001, elements); }

const std::string kDump = message("1c00 0103", "0e010000");
const std::string kDone = message("0300 0200", "00000000");
const std::string kReset = request("09");

const std::string kTcp443 = "1000 0180 0c00 0100 01bb0000 04 06 0000 ";
const std::string kUdp4500 = "1000 0180 0c00 0100 11940000 06 11 0000 ";
const std::string kEsp = "1000 0180 0c00 0100 00001001 04 32 0000 ";
const std::string kBoth = tuples(kUdp4500 + kTcp443);
const std::string kSelector1 = attribute(6, "01");
const std::string kWlan0 = text(2, "wlan0");
const std::string kPort500 = attribute(5, "01f4");
const std::string kFlowPorts = attribute(9, "1388") + attribute(10, "1389");
const std::string kIpv4Flow = text(7, "10.0.0.1") + text(8, "10.0.0.2") + kFlowPorts;

/// The datagrams that answer `datagram`, each preceded by '|'.
std::string answer_to(Kernel& kernel, const std::string& datagram) {
  std::string result;
  for (const Datagram& reply : kernel.receive(bytes(datagram)).datagrams) {
    result += '|' + hex(reply);
  }
  return result;
}

/// With an error, `details` are the attributes that say why.
std::string acknowledgement(const std::string& request, int error = 0,
                            const std::string& details = "") {
  const std::string type_and_flags = error == 0 ? "0200 0001" : "0200 0003";
  return '|' + message(type_and_flags, hex_of(error) + request.substr(0, 32) + details);
}

TEST(FamilyTest, ChangesItsStateByTheRulesOfEachCommand) {
  const std::string udp = "tuple ipv6 udp 4500\n";
  const std::string flow = "lowlat 10.0.0.1 5000 10.0.0.2 5001\n";
  const std::string drop = "encap 4500 drop\n" + flow;
  const std::string device = udp + "device 2 wlan0\n" + drop;
  const std::string devices = udp + "device 1 wlan1\ndevice 2 wlan0\n" + drop;
  const std::string forward = udp + "device 2 wlan0\nforward 1 wwan0 wlan0\n" + drop;
  const std::string interfaces = text(3, "wwan0") + text(4, "wlan0");
  const std::string port4500 = attribute(5, "1194");
  const std::string to_ipv6 = text(8, "::2") + kFlowPorts;
  std::string observed;
  Kernel kernel([&](std::string_view line) { observed = line; });
  const auto step = [&](const std::string& command, const std::string& attributes, int error,
                        const std::string& state) {
    observed.clear();
    EXPECT_EQ(answer_to(kernel, request(command, attributes)).substr(33, 8), hex_of(error))
        << state;
    EXPECT_EQ(kernel.state(), state);
    EXPECT_EQ(observed.empty(), error != 0);
  };
  step("01", kBoth, 0, "tuple ipv4 tcp 443\n" + udp);
  step("01", tuples(kTcp443 + kEsp), 0, "tuple ipv4 tcp 443\ntuple ipv4 esp 0x00001001\n" + udp);
  // Of two containers the last counts.
  step("02", tuples(kUdp4500) + tuples(kTcp443 + kTcp443 + kEsp), 0, udp);
  step("02", kBoth, -ENOENT, udp);
  step("0c", text(7, "::1") + to_ipv6, 0, udp + "lowlat ::1 5000 ::2 5001\n");
  step("0c", text(7, "0:0::1") + to_ipv6, -EEXIST, udp + "lowlat ::1 5000 ::2 5001\n");
  step("0d", "", 0, udp);
  step("0c", kIpv4Flow, 0, udp + flow);
  step("07", kPort500, 0, udp + "encap 500\n" + flow);
  step("0a", kPort500, 0, udp + "encap 500 pass-through\n" + flow);
  step("08", kPort500, 0, udp + flow);
  step("07", port4500, 0, udp + "encap 4500\n" + flow);
  step("0b", kPort500, -ENOENT, udp + "encap 4500\n" + flow);
  step("0b", port4500, 0, udp + drop);
  step("03", attribute(6, "02") + kWlan0, 0, device);
  step("03", text(2, "wlan1") + kSelector1, 0, devices);
  step("03", kSelector1 + text(2, "wlan1"), -EEXIST, devices);
  step("03", kSelector1 + kWlan0, -EBUSY, devices);
  step("04", kSelector1 + text(2, "wlan1"), 0, device);
  step("05", kSelector1 + interfaces, 0, forward);
  step("06", attribute(6, "02") + interfaces, -ENOENT, forward);
  step("06", kSelector1 + interfaces, 0, device);
  step("05", kSelector1 + interfaces, 0, forward);
  step("09", "", 0, "");
}

TEST(FamilyTest, SaysWhyItRefuses) {
  Kernel kernel({});
  const auto expect = [&](const std::string& datagram, const std::string& reason,
                          const std::string& where = "", int error = -EINVAL) {
    const std::string details = text(1, reason) + where;
    EXPECT_EQ(answer_to(kernel, datagram), acknowledgement(datagram, error, details)) << reason;
    EXPECT_EQ(kernel.state(), "");
  };
  const auto at = [](uint32_t offset) { return attribute(2, hex_of(offset)); };
  expect(message("1b00 0500", "09010000"), "unknown message type", "", -ENOENT);
  expect(request("0f"), "unknown command", "", -EOPNOTSUPP);
  expect(message("1c00 0103", "09010000"), "the command is no dump", "", -EOPNOTSUPP);
  expect(message("1000 0100", "03010000" + text(2, "a")), "no such family", "", -ENOENT);
  expect(request("03", kWlan0), "missing attribute", attribute(5, "06000000"));
  expect(request("03", kSelector1 + kWlan0 + "04000b00"), "Unknown attribute type", at(40));
  expect(request("03", kSelector1 + kWlan0 + kPort500), "Unsupported attribute", at(40));
  expect(request("07", kPort500 + "09000500"), "bytes leftover after parsing attributes");
  expect(request("04", attribute(2, "776c616e30")), "Attribute failed policy validation", at(20));
  expect(request("03", kSelector1 + text(2, "a/b")), "invalid device name", at(28));
  expect(request("0c", text(7, "::g")), "invalid address", at(20));
  expect(request("0c", kIpv4Flow + text(8, "::2")), "addresses of different families");
  expect(request("01", attribute(1, kTcp443)), "NLA_F_NESTED is missing", at(20));
  expect(request("01", tuples("0c000180 08000100 01bb0000")), "invalid attribute length", at(28));
  expect(request("01", tuples("04000180")), "no tuple in an element", at(24));
}

TEST(KernelTest, AnswersAsNetlinkDoes) {
  std::string commands;
  for (uint16_t command = 1; command <= 14; ++command) {
    const char* flags = command == 14 ? "04" : command == 9 || command == 13 ? "12" : "1a";
    commands += attribute(command, attribute(1, hex_of(uint32_t{command})) +
                                       attribute(2, std::string(flags) + "000000"));
  }
  const std::string family = text(2, "TAVIK_WLAN") + attribute(1, "1c00") +
                             attribute(3, "01000000") + attribute(4, "00000000") +
                             attribute(5, "0a000000") + attribute(6, commands);
  const std::string look_up = message("1000 0500", "03010000" + text(2, "TAVIK_WLAN"));
  const std::string add = message("1c00 0500", "07010000 0600 0500 1194");  // unpadded

  Kernel kernel({});
  EXPECT_EQ(answer_to(kernel, look_up),
            '|' + message("1000 0000", "01020000" + family) + acknowledgement(look_up));
  // What follows a length that cannot be is passed over.
  EXPECT_EQ(answer_to(kernel, add + "0000" + kReset + "0f000000" + kReset.substr(8)),
            acknowledgement(add) + acknowledgement(kReset));
  EXPECT_EQ(answer_to(kernel, message("1c00 0100", "01010000" + kBoth)), "");
  const std::string part = "0e010000" + tuples(kTcp443 + kUdp4500);
  kernel.misbehave({.interrupted_dumps = 1});
  EXPECT_EQ(answer_to(kernel, kDump),
            '|' + message("1c00 1200", part) + message("0300 1200", "00000000"));
  EXPECT_EQ(answer_to(kernel, kDump), '|' + message("1c00 0200", part) + kDone);
}

FileDescriptor connect_to(const tavik_wlan::Emulator& emulator) {
  FileDescriptor client(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  sockaddr_un address{AF_UNIX, {}};
  emulator.path().copy(address.sun_path, sizeof(address.sun_path) - 1);
  EXPECT_EQ(connect(client.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  const timeval patience{.tv_sec = 10, .tv_usec = 0};
  setsockopt(client.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
  return client;
}

/// Empty at the end of the connection, or when nothing comes for long.
std::string receive_at(const FileDescriptor& client) {
  Datagram datagram(65536);
  const ssize_t size = recv(client.get(), datagram.data(), datagram.size(), 0);
  return size > 0 ? hex(Bytes(datagram).first(static_cast<size_t>(size))) : "";
}

std::string ask(const FileDescriptor& client, const std::string& request) {
  const Datagram datagram = bytes(request);
  send(client.get(), datagram.data(), datagram.size(), MSG_NOSIGNAL);
  return receive_at(client);
}

TEST(EmulatorTest, DumpsManyTuplesWhileOthersGoOn) {
  tavik_wlan::Emulator emulator(::testing::TempDir() + "emulator_test." + std::to_string(getpid()));
  const FileDescriptor fast = connect_to(emulator);
  std::string elements;  // As many as there may be.
  for (uint32_t port = 0; port < 65535; ++port) {
    elements += "100001800c000100" + hex_of(htons(static_cast<uint16_t>(port))) + "000004060000";
  }
  constexpr size_t kPart = size_t{3855} * 32;
  for (size_t at = 0; at < elements.size(); at += kPart) {
    const std::string add = request("01", tuples(elements.substr(at, kPart)));
    ASSERT_EQ('|' + ask(fast, add), acknowledgement(add));
  }
  EXPECT_EQ(ask(fast, request("01", tuples(kEsp + kUdp4500))).substr(32, 8), hex_of(-ENOSPC));
  ask(fast, request("01", kBoth));  // One of them is new.

  const FileDescriptor slow = connect_to(emulator);
  std::string part = ask(slow, kDump);  // Of 1 MB, which no socket buffer takes.
  for (int i = 0; i < 100; ++i) {
    ASSERT_EQ('|' + ask(fast, kReset), acknowledgement(kReset));
  }
  EXPECT_EQ(emulator.state(), "");

  // The rest of what there was before the reset. NLMSG_DONE comes with the last tuples.
  std::string dumped;
  while (!part.empty()) {
    EXPECT_LE(part.size(), 2 * 32768U);
    const std::string end = part.ends_with(kDone) ? kDone : "";
    const std::string found = part.substr(48, part.size() - 48 - end.size());
    ASSERT_EQ(part, message("1c00 0200", "0e010000" + tuples(found)) + end);
    dumped += found;
    part = end.empty() ? receive_at(slow) : "";
  }
  EXPECT_TRUE(dumped == elements + without_spaces(kUdp4500));
}

}  // namespace
