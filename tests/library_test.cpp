// The library alone, around a host that records it: bytes, messages, order, results, and memory.
// Wire images are those of a little-endian machine.

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "datapath_proxy/include/corvil_datapath_proxy.h"
#include "tests/fake_host.h"

namespace {

using fake_host::Events;
using fake_host::host;

const std::string kResolve = "resolve TAVIK_WLAN 1";

class LibraryTest : public ::testing::Test {
 protected:
  void SetUp() override { fake_host::reset(); }
  void TearDown() override { EXPECT_TRUE(host().live.empty()) << "a request leaked"; }
};

Events operator+(Events a, const Events& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

/// Requests sent so far, without the rest.
Events sent() {
  Events requests;
  for (const std::string& event : host().events) {
    if (event.starts_with("send ")) {
      requests.push_back(event);
    }
  }
  return requests;
}

/// Messages of a request's failure before it is sent, under the name of its step.
Events allocation_failure(const std::string& name) {
  return {"ERR " + name + "(): GENL message allocation failure\n"};
}
Events resolution_failure(const std::string& name) {
  return {
      "ERR corvil_datapath_proxy_genlmsg_init(): "
      "Querying GENL for family [TAVIK_WLAN, 1] failed\n",
      "ERR " + name + "(): GENL message failure\n"};
}

// Calls of one request

struct SingleRequestCall {
  std::string name;
  std::function<int()> call;
  int size;
  Events before_send;  // messages between the header fill and the send
  std::string request;
  std::string failure;  // message of a refused request
};

std::ostream& operator<<(std::ostream& out, const SingleRequestCall& call) {
  return out << call.name;
}

class SingleRequestTest : public LibraryTest,
                          public ::testing::WithParamInterface<SingleRequestCall> {
 protected:
  [[nodiscard]] static std::string allocated() {
    return "LOW " + GetParam().name + "(): Allocated " + std::to_string(GetParam().size) +
           " bytes for msg";
  }
  [[nodiscard]] static std::string calloc_event() {
    return "calloc " + std::to_string(GetParam().size);
  }
};

TEST_P(SingleRequestTest, SendsItsBytes) {
  const SingleRequestCall& call = GetParam();
  for (const int result : {0, 7}) {
    fake_host::reset();
    host().answers = {{result}};
    EXPECT_EQ(call.call(), result);
    EXPECT_EQ(host().events, (Events{calloc_event(), allocated(), kResolve} + call.before_send +
                              Events{"send " + call.request, "free"}));
  }
}

TEST_P(SingleRequestTest, FailsWithTheReasonInTheLog) {
  const SingleRequestCall& call = GetParam();
  host().failing_allocation = 1;
  EXPECT_EQ(call.call(), -1);
  EXPECT_EQ(host().events, (Events{calloc_event()} + allocation_failure(call.name)));

  fake_host::reset();
  host().resolve_result = -1;
  EXPECT_EQ(call.call(), -1);
  EXPECT_EQ(host().events, (Events{calloc_event(), allocated(), kResolve} +
                            resolution_failure(call.name) + Events{"free"}));

  fake_host::reset();
  host().answers = {{-1, -EEXIST}};
  EXPECT_EQ(call.call(), -1);
  EXPECT_EQ(host().events,
            (Events{calloc_event(), allocated(), kResolve} + call.before_send +
             Events{"send " + call.request, "ERR " + call.name + call.failure, "free"}));
}

SingleRequestCall encap_call(const std::string& name, int (*call)(uint16_t), const char* command,
                             const std::string& announcement, const std::string& failure) {
  return {
      name,
      [call] { return call(htons(4500)); },
      28,
      {"HIGH " + name + announcement,
       "LOW " + name + "(): pre corvil_netlink_transact nlmsg_len 28"},
      std::string("1c000000 2a000500 00000000 00000000 ") + command + "010000 06000500 11940000",
      failure};
}

INSTANTIATE_TEST_SUITE_P(
    Calls, SingleRequestTest,
    ::testing::Values(
        SingleRequestCall{
            "corvil_datapath_proxy_flush_config_info",
            corvil_datapath_proxy_flush_config_info,
            20,
            {"HIGH corvil_datapath_proxy_flush_config_info(): Resetting datapath state\n",
             "LOW corvil_datapath_proxy_flush_config_info(): "
             "pre corvil_netlink_transact nlmsg_len 20"},
            "14000000 2a000500 00000000 00000000 09010000",
            "(): Resetting datapath state failed\n"},
        encap_call("corvil_datapath_proxy_set_udp_encap_port",
                   corvil_datapath_proxy_set_udp_encap_port, "07",
                   "(): Setting UDP encap port to 4500\n", "(): Setting UDP encap port failed\n"),
        encap_call("corvil_datapath_proxy_unset_udp_encap_port",
                   corvil_datapath_proxy_unset_udp_encap_port, "08",
                   "(): Unsetting UDP encap port from 4500\n",
                   "(): Unsetting UDP encap port failed\n")));

TEST_F(LibraryTest, ResolvesTheFamilyForEveryRequest) {
  EXPECT_EQ(corvil_datapath_proxy_flush_config_info(), 0);
  host().family_id = 0x1234;
  EXPECT_EQ(corvil_datapath_proxy_flush_config_info(), 0);
  EXPECT_EQ(sent(), (Events{"send 14000000 2a000500 00000000 00000000 09010000",
                            "send 14000000 34120500 00000000 00000000 09010000"}));
}

// Configuration set-up

const PortDescriptor kTwoPorts[] = {{4, 6, 443}, {6, 17, 4500}};

int set_up(const PortDescriptor* ports = kTwoPorts, uint32_t count = 2) {
  return corvil_datapath_proxy_set_config_info("wlan0", "lan", "wwan10", ports, count, 0x101);
}

const std::string kAddPorts = "corvil_datapath_proxy_add_ports";
const std::string kAddFwd = "corvil_datapath_proxy_add_fwd_info";
const std::string kSetDevice = "corvil_datapath_proxy_set_wlan_device";
const std::string kSetUp = "corvil_datapath_proxy_set_config_info";

// The set-up's events, step by step; each step splits where a failure cuts it short.
const Events kPortsAnnounced = {"HIGH " + kSetUp + "(): Adding port information\n", "calloc 56"};
const Events kPortsSent = {
    "LOW " + kAddPorts + "(): Allocated 56 bytes for msg",
    kResolve,
    "MED corvil_datapath_proxy_add_tuple(): Adding tuple [0x4, 0x6, 0x1bb]\n",
    "MED corvil_datapath_proxy_add_tuple(): Adding tuple [0x6, 0x11, 0x1194]\n",
    "LOW " + kAddPorts + "(): pre corvil_netlink_transact nlmsg_len 56 port_count 2",
    "send 38000000 2a000500 00000000 00000000 01010000 24000180 10000180 0c000100 01bb0000 "
    "04060000 10000180 0c000100 11940000 06110000",
    "free"};
const Events kFwdAnnounced = {"HIGH " + kSetUp + "(): Adding FWD information\n", "calloc 48"};
const Events kFwdSent = {
    "LOW " + kAddFwd + "(): Allocated 48 bytes for msg",
    kResolve,
    "MED " + kAddFwd + "(): Forwarding wwan10 to lan\n",
    "LOW " + kAddFwd + "(): pre corvil_netlink_transact nlmsg_len 48",
    "send 30000000 2a000500 00000000 00000000 05010000 05000600 01000000 08000400 6c616e00 "
    "0b000300 7777616e 31300000 error slot",
    "free"};
const Events kDeviceAnnounced = {"HIGH " + kSetUp + "(): Adding WLAN device information\n",
                                 "calloc 40"};
const Events kDeviceSent = {
    "LOW " + kSetDevice + "(): Allocated 40 bytes for msg",
    kResolve,
    "MED " + kSetDevice + "(): Setting WLAN device to wlan0\n",
    "LOW " + kSetDevice + "(): pre corvil_netlink_transact nlmsg_len 40",
    "send 28000000 2a000500 00000000 00000000 03010000 05000600 01000000 0a000200 776c616e "
    "30000000",
    "free"};

TEST_F(LibraryTest, SetUpSendsPortsForwardingPairAndDevice) {
  host().answers = {{1}, {2}, {3}};
  EXPECT_EQ(set_up(), 3) << "the last request's result";
  EXPECT_EQ(host().events, kPortsAnnounced + kPortsSent + kFwdAnnounced + kFwdSent +
                               kDeviceAnnounced + kDeviceSent);
}

TEST_F(LibraryTest, SetUpWithoutPortsSendsNone) {
  for (const auto& [ports, count] :
       {std::pair<const PortDescriptor*, uint32_t>{nullptr, 5}, {kTwoPorts, 0}}) {
    fake_host::reset();
    EXPECT_EQ(set_up(ports, count), 0);
    EXPECT_EQ(host().events, kFwdAnnounced + kFwdSent + kDeviceAnnounced + kDeviceSent);
  }
}

TEST_F(LibraryTest, SetUpRefusesNullNames) {
  const char* names[] = {"a", "b", "c"};
  for (const char*& missing : names) {
    fake_host::reset();
    missing = nullptr;
    EXPECT_EQ(corvil_datapath_proxy_set_config_info(names[0], names[1], names[2], kTwoPorts, 2, 1),
              -1);
    EXPECT_EQ(host().events, Events{"ERR " + kSetUp + "(): Invalid parameters\n"});
    missing = "x";
  }
}

TEST_F(LibraryTest, SetUpStopsAtTheFirstFailure) {
  struct Step {
    std::string name;
    Events announced;
    Events sent;
    std::string failure;
  };
  const std::vector<Step> steps = {
      {kAddPorts, kPortsAnnounced, kPortsSent, "(): Adding port information failed\n"},
      {kAddFwd, kFwdAnnounced, kFwdSent, "(): Adding FWD information failed\n"},
      {kSetDevice, kDeviceAnnounced, kDeviceSent, "(): Adding WLAN device information failed\n"}};
  Events before;
  for (size_t i = 0; i < steps.size(); ++i) {
    SCOPED_TRACE(steps[i].name);
    const Events failure = {"ERR " + kSetUp + steps[i].failure};

    fake_host::reset();
    host().failing_allocation = static_cast<int>(i) + 1;
    EXPECT_EQ(set_up(), -1);
    EXPECT_EQ(host().events,
              before + steps[i].announced + allocation_failure(steps[i].name) + failure);

    // The device step does not forgive a device that is set already.
    fake_host::reset();
    host().answers.assign(i, {0});
    host().answers.push_back({-1, steps[i].name == kAddFwd ? -EPERM : -EEXIST});
    EXPECT_EQ(set_up(), -1);
    EXPECT_EQ(host().events, before + steps[i].announced + steps[i].sent + failure);

    before = before + steps[i].announced + steps[i].sent;
  }
  fake_host::reset();
  host().resolve_result = -1;
  EXPECT_EQ(set_up(nullptr, 0), -1);
  EXPECT_EQ(host().events,
            (kFwdAnnounced + Events{kFwdSent[0], kResolve} + resolution_failure(kAddFwd) +
             Events{"free", "ERR " + kSetUp + "(): Adding FWD information failed\n"}));
}

TEST_F(LibraryTest, SetUpForgivesAnExistingForwardingPair) {
  host().answers = {{0}, {-1, -EEXIST}, {0}};
  EXPECT_EQ(set_up(), 0);
  EXPECT_EQ(sent().size(), 3U);
}

TEST_F(LibraryTest, SendsEmptyNames) {
  EXPECT_EQ(corvil_datapath_proxy_set_config_info("", "", "", nullptr, 0, 0x200), 0);
  EXPECT_EQ(sent(), (Events{"send 2c000000 2a000500 00000000 00000000 05010000 05000600 00000000 "
                            "05000400 00000000 05000300 00000000 error slot",
                            "send 24000000 2a000500 00000000 00000000 03010000 05000600 00000000 "
                            "05000200 00000000"}));
}

// Port lists

TEST_F(LibraryTest, RefusesAnInvalidPort) {
  struct Case {
    PortDescriptor port;
    std::string reason;
  };
  const std::vector<Case> cases = {{{5, 6, 80}, "(): Invalid IP protocol 5\n"},
                                   {{4, 50, 500}, "(): Invalid transport protocol 50\n"},
                                   {{7, 99, 1}, "(): Invalid IP protocol 7\n"}};
  for (const Case& invalid : cases) {
    fake_host::reset();
    const PortDescriptor ports[] = {{6, 17, 0}, invalid.port, {9, 9, 9}};
    EXPECT_EQ(set_up(ports, 3), -1);
    EXPECT_EQ(host().events,
              (Events{kPortsAnnounced[0], "calloc 72",
                      "LOW " + kAddPorts + "(): Allocated 72 bytes for msg", kResolve,
                      "MED corvil_datapath_proxy_add_tuple(): Adding tuple [0x6, 0x11, 0x0]\n",
                      "ERR corvil_datapath_proxy_validate_port" + invalid.reason,
                      "ERR " + kAddPorts + "(): Port 1 is invalid\n", "free",
                      "ERR " + kSetUp + "(): Adding port information failed\n"}));
  }
}

TEST_F(LibraryTest, LimitsAListToWhatOneRequestHolds) {
  zu_log_mask = 0;
  const std::vector<PortDescriptor> ports(4096, PortDescriptor{4, 6, 1});
  EXPECT_EQ(set_up(ports.data(), 4095), 0);
  ASSERT_EQ(sent().size(), 3U);
  // 65,544 bytes, a container of 65,524, and 16 bytes an element.
  EXPECT_TRUE(sent()[0].starts_with(
      "send 08000100 2a000500 00000000 00000000 01010000 f4ff0180 10000180 0c000100 00010000"));
  EXPECT_EQ(sent()[0].size(), 5 + 65544 / 4 * 9 - 1U);

  fake_host::reset();
  EXPECT_EQ(set_up(ports.data(), 4096), -1);
  EXPECT_EQ(host().events,
            (Events{kPortsAnnounced[0], "ERR " + kAddPorts + "(): Too many ports: 4096\n",
                    "ERR " + kSetUp + "(): Adding port information failed\n"}));
}

TEST_F(LibraryTest, DoesNotDependOnThePaddingOfTheLength) {
  EXPECT_EQ(set_up(), 0);
  const Events padded = sent();
  fake_host::reset();
  host().unpadded_length = true;
  EXPECT_EQ(set_up(), 0);
  const Events unpadded = sent();
  ASSERT_EQ(unpadded.size(), 3U);
  EXPECT_EQ(unpadded[0], padded[0]);
  // The last string ends 1 and 2 bytes before the end of its request.
  EXPECT_EQ(unpadded[1].substr(0, 13), "send 2f000000");
  EXPECT_EQ(unpadded[2].substr(0, 13), "send 26000000");
}

TEST_F(LibraryTest, LogsEveryLineToTheFileInColumns) {
  char* text = nullptr;
  size_t size = 0;
  FILE* stream = open_memstream(&text, &size);
  zu_log_mask = 0;
  log_to_file = 1;
  logging_fd = stream;
  setenv("TZ", "UTC", 1);
  host().clock_seconds = 36942;
  host().clock_microseconds = 120000;
  EXPECT_EQ(corvil_datapath_proxy_flush_config_info(), 0);
  fclose(stream);
  // Only the statements' line numbers, three columns wide, are not literals here.
  std::string log(text, size);
  for (size_t at = 0; (at = log.find("():", at)) != std::string::npos; at += 3) {
    if (log.substr(at + 6, 2) == " (") {
      log.replace(at + 3, 3, "###");
    }
  }
  std::free(text);
  const std::string head =
      "             10:15:42.120                               "
      "datapath_proxy/src/corvil_datapath_proxy  corvil_datapath_proxy_flush_config_info():### ";
  const std::string name = "corvil_datapath_proxy_flush_config_info";
  EXPECT_EQ(log, head + "(LOW):" + name + "(): Allocated 20 bytes for msg\n" +  //
                     head + "(HIGH):" + name + "(): Resetting datapath state\n\n" + head +
                     "(LOW):" + name + "(): pre corvil_netlink_transact nlmsg_len 20\n");
}

}  // namespace
