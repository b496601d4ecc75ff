// The library alone, around a host that records it: bytes, messages, order, results, and memory.
// Everything holds for a host whose log sinks are off too (FAKE_HOST_SILENT), messages excepted.
// Wire images are those of a little-endian machine.

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <functional>
#include <map>
#include <ostream>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "datapath_proxy/include/corvil_datapath_proxy.h"
#include "tests/support/fake_host.h"

namespace {

using fake_host::Events;
using fake_host::host;

const std::string kPrefix = "corvil_datapath_proxy_";
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

/// The events of a host whose sinks may be off: then without the log messages.
Events logged(Events events) {
  if (fake_host::silent()) {
    std::erase_if(events, [](const std::string& event) {
      const std::string level = event.substr(0, event.find(' '));
      return level == "LOW" || level == "MED" || level == "HIGH" || level == "ERR";
    });
  }
  return events;
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

const std::string kErrorSlot = " error slot";

/// The event of sending a request: its attributes behind headers of their length, in hexadecimal
/// digits, with blanks between groups of four bytes.
std::string send(const std::string& command, const Events& attributes = {}) {
  std::string bytes = "2a000500 00000000 00000000 " + command + "010000";
  for (const std::string& attribute : attributes) {
    bytes += " " + attribute;
  }
  const auto length = static_cast<uint32_t>(4 + (bytes.size() + 1) / 9 * 4);
  return "send " + fake_host::hex(&length, sizeof(length)) + " " + bytes;
}

/// A request as a step of a call: what it does, and what of it is left when it fails.
struct Step {
  std::string name;       // in its messages, without kPrefix
  int size;               // of its allocation
  Events messages = {};   // between the header fill and the send
  std::string send = {};  // the event of its sending
  Events announced = {};  // messages of the call before it
  Events failed = {};     // messages of the call after its failure
  bool late_allocation_message = false;
  bool forgives = false;  // -EEXIST
  bool ends_call = true;  // when it fails
  int failure = -1;       // the call's result then

  [[nodiscard]] std::string allocated() const {
    return "LOW " + kPrefix + name + "(): Allocated " + std::to_string(size) + " bytes for msg";
  }
  [[nodiscard]] Events begun() const {
    return announced + Events{"calloc " + std::to_string(size)};
  }
  [[nodiscard]] Events success() const {
    const Events headers =
        late_allocation_message ? Events{kResolve, allocated()} : Events{allocated(), kResolve};
    return begun() + headers + messages + Events{send, "free"};
  }
  /// A call of one request speaks of a refusal before it frees the request, and of no other
  /// failure; a call of several speaks of each failed step when that is over.
  [[nodiscard]] bool is_step() const { return !announced.empty(); }
  [[nodiscard]] Events refused() const {
    Events events = success();
    events.insert(events.end() - (is_step() ? 0 : 1), failed.begin(), failed.end());
    return events;
  }
  [[nodiscard]] Events without_memory() const {
    return begun() + Events{"ERR " + kPrefix + name + "(): GENL message allocation failure\n"} +
           (is_step() ? failed : Events{});
  }
  [[nodiscard]] Events unresolved() const {
    return begun() + (late_allocation_message ? Events{} : Events{allocated()}) +
           Events{kResolve,
                  "ERR corvil_datapath_proxy_genlmsg_init(): "
                  "Querying GENL for family [TAVIK_WLAN, 1] failed\n",
                  "ERR " + kPrefix + name + "(): GENL message failure\n", "free"} +
           (is_step() ? failed : Events{});
  }
};

struct Call {
  std::string name;
  std::function<int()> call;
  std::vector<Step> steps;
};

std::ostream& operator<<(std::ostream& out, const Call& call) { return out << call.name; }

class CallTest : public LibraryTest, public ::testing::WithParamInterface<Call> {};

TEST_P(CallTest, SendsItsRequestsInOrder) {
  Events expected;
  int result = 0;
  for (const Step& step : GetParam().steps) {
    expected = expected + step.success();
    host().answers.push_back({static_cast<int>(host().answers.size()) + 10});
    result = step.failure == -1 ? host().answers.back().result : result;
  }
  EXPECT_EQ(GetParam().call(), result) << "that of the last request that counts";
  EXPECT_EQ(host().events, logged(expected));
}

TEST_P(CallTest, FailsAtEachPlaceAsItShould) {
  Events before;
  const std::vector<Step>& steps = GetParam().steps;
  for (size_t i = 0; i < steps.size(); ++i) {
    const Step& step = steps[i];
    Events after;
    for (size_t k = i + 1; k < steps.size() && !step.ends_call; ++k) {
      after = after + steps[k].success();
    }
    const auto expect = [&](const std::string& what, int result, const Events& events) {
      EXPECT_EQ(GetParam().call(), result) << step.name << " " << what;
      EXPECT_EQ(host().events, logged(before + events + after)) << step.name << " " << what;
      EXPECT_TRUE(host().live.empty()) << "a request leaked";
      fake_host::reset();
    };

    host().failing_allocation = static_cast<int>(i) + 1;
    expect("without memory", step.failure, step.without_memory());

    host().failing_resolution = static_cast<int>(i) + 1;
    expect("without a family", step.failure, step.unresolved());

    host().answers.assign(i, {0});
    host().answers.push_back({-1, step.forgives ? -EPERM : -EEXIST});
    expect("refused", step.failure, step.refused());

    if (step.forgives) {
      host().answers.assign(i, {0});
      host().answers.push_back({-1, -EEXIST});
      EXPECT_EQ(GetParam().call(), 0);
      EXPECT_EQ(sent().size(), steps.size());
      fake_host::reset();
    }
    before = before + step.success();
  }
}

std::string length_message(const std::string& name, int length) {
  return "LOW " + kPrefix + name + "(): pre corvil_netlink_transact nlmsg_len " +
         std::to_string(length);
}

// Calls of one request

Call encap_call(const std::string& name, int (*call)(uint16_t), const std::string& command,
                const std::string& announcement, const std::string& failure) {
  return {name,
          [call] { return call(htons(4500)); },
          {{.name = name,
            .size = 28,
            .messages = {"HIGH " + kPrefix + name + "(): " + announcement + "\n",
                         length_message(name, 28)},
            .send = send(command, {"06000500 11940000"}),
            .failed = {"ERR " + kPrefix + name + "(): " + failure + "\n"}}}};
}

Call ipsec_call(const std::string& name, int (*call)(const IpsecInfo*, const char*),
                const std::string& command, const std::string& verb, const std::string& element) {
  return {
      name,
      [call] {
        const IpsecInfo info = {{0xaaaaaaaa, 0xbbbbbbbb}, htonl(0x1234)};
        return call(&info, "192.0.2.1");
      },
      {{.name = name,
        .size = 40,
        .messages = {"HIGH " + kPrefix + name + "(): " + verb + " IPSEC information\n",
                     "MED " + kPrefix + element + "(): " + verb + " tuple [0x4, 0x32, 0x1234]\n",
                     length_message(name, 40)},
        .send = send(command, {"14000180",  // TUPLES
                               "10000180",  // ELEMENT
                               "0c000100"   // TUPLE
                               " 00001234 04320000"}),
        .failed = {"ERR " + kPrefix + name + "(): " + verb + " IPSEC information failed\n"}}}};
}

const Call kReset = {
    "flush_config_info",
    corvil_datapath_proxy_flush_config_info,
    {{.name = "flush_config_info",
      .size = 20,
      .messages = {"HIGH corvil_datapath_proxy_flush_config_info(): Resetting datapath state\n",
                   length_message("flush_config_info", 20)},
      .send = send("09"),
      .failed = {"ERR corvil_datapath_proxy_flush_config_info(): "
                 "Resetting datapath state failed\n"}}}};

const Call kAddLowLatency = {
    "add_ll_dst_addr",
    [] {
      return corvil_datapath_proxy_add_ll_dst_addr("10.0.0.1", "10.0.0.2", htons(4500), htons(80));
    },
    {{.name = "add_ll_dst_addr",
      .size = 68,
      .messages = {"MED corvil_datapath_proxy_add_ll_dst_addr(): XOLINK low latency tuple src: "
                   "10.0.0.1 dest: 10.0.0.2 sport: 4500 dport: 80",
                   length_message("add_ll_dst_addr", 68)},
      .send = send("0c", {"0d000700 31302e30 2e302e31 00000000",  // LL_SRC_ADDR
                          "0d000800 31302e30 2e302e32 00000000",  // LL_DST_ADDR
                          "06000900 11940000",                    // LL_SRC_PORT
                          "06000a00 00500000"}) +
              kErrorSlot,
      .forgives = true}}};

const Step kFlushLowLatency = {
    .name = "flush_ll_dst_addr", .size = 20, .send = send("0d") + kErrorSlot, .forgives = true};

INSTANTIATE_TEST_SUITE_P(
    SingleRequest, CallTest,
    ::testing::Values(
        kReset, kAddLowLatency,
        Call{"flush_ll_dst_addr", corvil_datapath_proxy_flush_ll_dst_addr, {kFlushLowLatency}},
        encap_call("set_udp_encap_port", corvil_datapath_proxy_set_udp_encap_port, "07",
                   "Setting UDP encap port to 4500", "Setting UDP encap port failed"),
        encap_call("unset_udp_encap_port", corvil_datapath_proxy_unset_udp_encap_port, "08",
                   "Unsetting UDP encap port from 4500", "Unsetting UDP encap port failed"),
        encap_call("act_encap_port_pass_through", corvil_datapath_proxy_act_encap_port_pass_through,
                   "0a", "Enabling encap port packet pass through for port 4500",
                   "Enabling encap port packet pass through failed"),
        encap_call("act_encap_port_drop", corvil_datapath_proxy_act_encap_port_drop, "0b",
                   "Enabling encap port packet drop for port 4500",
                   "Enabling encap port packet drop failed"),
        ipsec_call("add_ipsec_info", corvil_datapath_proxy_add_ipsec_info, "01", "Adding",
                   "add_tuple"),
        ipsec_call("delete_ipsec_info", corvil_datapath_proxy_delete_ipsec_info, "02", "Removing",
                   "del_tuple")),
    [](const auto& test) { return test.param.name; });

// Calls of several requests

const PortDescriptor kTwoPorts[] = {{4, 6, 443}, {6, 17, 4500}};

Events high(const std::string& call, const std::string& text) {
  return {"HIGH " + kPrefix + call + "(): " + text + "\n"};
}
Events err(const std::string& call, const std::string& text) {
  return {"ERR " + kPrefix + call + "(): " + text + "\n"};
}

/// The addition or removal of kTwoPorts inside a call.
Step ports_step(const std::string& call, bool add, const Events& announcement,
                const std::string& failure) {
  const std::string name = add ? "add_ports" : "del_ports";
  const std::string tuple =
      "MED " + kPrefix + (add ? "add_tuple(): Adding" : "del_tuple(): Removing");
  return {.name = name,
          .size = 56,
          .messages = {tuple + " tuple [0x4, 0x6, 0x1bb]\n", tuple + " tuple [0x6, 0x11, 0x1194]\n",
                       length_message(name, 56) + " port_count 2"},
          .send = send(add ? "01" : "02", {"24000180",                             // TUPLES
                                           "10000180 0c000100 01bb0000 04060000",  // ELEMENT, TUPLE
                                           "10000180 0c000100 11940000 06110000"}),
          .announced = announcement,
          .failed = err(call, failure),
          .late_allocation_message = !add};
}

/// The addition or removal of the pair from "wwan10" to "lan", with selector 0x101.
Step forwarding_step(const std::string& call, bool add) {
  const std::string name = add ? "add_fwd_info" : "del_fwd_info";
  const std::string verb = add ? "Adding" : "Removing";
  return {.name = name,
          .size = 48,
          .messages = {"MED " + kPrefix + name +
                           (add ? "(): Forwarding wwan10 to lan\n"
                                : "(): Stopping forward from wwan10 to lan\n"),
                       length_message(name, 48)},
          .send = send(add ? "05" : "06", {"05000600 01000000",              // SELECTOR
                                           "08000400 6c616e00",              // FWD_TO
                                           "0b000300 7777616e 31300000"}) +  // FWD_FROM
                  (add ? kErrorSlot : ""),
          .announced = high(call, verb + " FWD information"),
          .failed = err(call, verb + " FWD information failed"),
          .forgives = add};
}

Step device_step(const std::string& call, bool set) {
  const std::string name = set ? "set_wlan_device" : "unset_wlan_device";
  const std::string verb = set ? "Adding" : "Removing";
  return {.name = name,
          .size = 40,
          .messages = {"MED " + kPrefix + name +
                           (set ? "(): Setting WLAN device to wlan0\n"
                                : "(): Unsetting WLAN device from wlan0\n"),
                       length_message(name, 40)},
          .send = send(set ? "03" : "04", {"05000600 01000000",             // SELECTOR
                                           "0a000200 776c616e 30000000"}),  // DEV
          .announced = high(call, verb + " WLAN device information"),
          .failed = err(call, verb + " WLAN device information failed")};
}

int set_up(const PortDescriptor* ports, uint32_t count) {
  return corvil_datapath_proxy_set_config_info("wlan0", "lan", "wwan10", ports, count, 0x101);
}

int tear_down(const PortDescriptor* ports, uint32_t count, uint32_t selector) {
  return corvil_datapath_proxy_unset_config_info("wlan0", "lan", "wwan10", ports, count, selector);
}

std::vector<Step> tear_down_steps() {
  const std::string name = "unset_config_info";
  Step ports = ports_step(name, false, high(name, "Removing port information"),
                          "Removing port information failed");
  ports.ends_call = false;
  Step flush = kFlushLowLatency;
  flush.announced = high(name, "Removing low latency address!");
  flush.ends_call = false;
  flush.failure = 0;
  return {device_step(name, false), forwarding_step(name, false), ports, flush};
}

INSTANTIATE_TEST_SUITE_P(
    SeveralRequests, CallTest,
    ::testing::Values(
        Call{
            "set_config_info",
            [] { return set_up(kTwoPorts, 2); },
            {ports_step("set_config_info", true, high("set_config_info", "Adding port information"),
                        "Adding port information failed"),
             forwarding_step("set_config_info", true), device_step("set_config_info", true)}},
        Call{"unset_config_info", [] { return tear_down(kTwoPorts, 2, 1); }, tear_down_steps()},
        Call{"unset_reverse_dev_mapping",
             [] { return corvil_datapath_proxy_unset_reverse_dev_mapping(0x101, "lan", "wwan10"); },
             {forwarding_step("unset_reverse_dev_mapping", false)}},
        Call{"update_config_info",
             [] { return corvil_datapath_proxy_update_config_info(kTwoPorts, 2, kTwoPorts, 2); },
             {ports_step("update_config_info", false,
                         high("update_config_info", "Updating port information") +
                             high("update_config_info", "Removing 2 ports"),
                         "Removing port information failed"),
              ports_step("update_config_info", true, high("update_config_info", "Adding 2 ports"),
                         "Adding new port information failed")}}),
    [](const auto& test) { return test.param.name; });

TEST_F(LibraryTest, RefusesNullArguments) {
  const IpsecInfo info{};
  const auto expect_refused = [](const std::string& name, int result, bool allocates = false) {
    Events allocated;
    if (allocates) {
      allocated = {"calloc 40", "LOW " + kPrefix + name + "(): Allocated 40 bytes for msg"};
    }
    EXPECT_EQ(result, -1) << name;
    EXPECT_EQ(host().events, logged(allocated + err(name, "Invalid parameters") +
                                    (allocates ? Events{"free"} : Events{})));
    fake_host::reset();
  };
  for (size_t missing = 0; missing < 3; ++missing) {
    std::array<const char*, 3> names = {"a", "b", "c"};
    names.at(missing) = nullptr;
    const auto [a, b, c] = names;
    expect_refused("set_config_info",
                   corvil_datapath_proxy_set_config_info(a, b, c, kTwoPorts, 2, 1));
    expect_refused("unset_config_info",
                   corvil_datapath_proxy_unset_config_info(a, b, c, kTwoPorts, 2, 1));
    if (missing == 2) {
      continue;
    }
    expect_refused("unset_reverse_dev_mapping",
                   corvil_datapath_proxy_unset_reverse_dev_mapping(1, a, b));
    expect_refused("add_ll_dst_addr", corvil_datapath_proxy_add_ll_dst_addr(a, b, 1, 2));
    // The IPsec calls allocate before they look.
    const IpsecInfo* flow = a == nullptr ? nullptr : &info;
    expect_refused("add_ipsec_info", corvil_datapath_proxy_add_ipsec_info(flow, b), true);
    expect_refused("delete_ipsec_info", corvil_datapath_proxy_delete_ipsec_info(flow, b), true);
  }
  expect_refused("update_config_info",
                 corvil_datapath_proxy_update_config_info(nullptr, 2, kTwoPorts, 0));
  expect_refused("update_config_info",
                 corvil_datapath_proxy_update_config_info(kTwoPorts, 0, nullptr, 2));
}

/// The command bytes of the requests sent, such as "05 03".
std::string commands_sent() {
  std::string commands;
  for (const std::string& request : sent()) {
    commands += (commands.empty() ? "" : " ") + request.substr(5 + 36, 2);
  }
  return commands;
}

TEST_F(LibraryTest, LeavesOutWhatIsAbsent) {
  const std::vector<std::pair<std::function<int()>, std::string>> cases = {
      {[] { return set_up(nullptr, 5); }, "05 03"},
      {[] { return set_up(kTwoPorts, 0); }, "05 03"},
      {[] { return tear_down(nullptr, 5, 2); }, "04 06"},
      {[] { return tear_down(kTwoPorts, 0, 1); }, "04 06 0d"},
      {[] { return tear_down(kTwoPorts, 2, 0); }, "04 06 02"},
      {[] { return tear_down(kTwoPorts, 2, 257); }, "04 06 02"},
      {[] { return corvil_datapath_proxy_update_config_info(nullptr, 2, kTwoPorts, 2); }, "02"},
      {[] { return corvil_datapath_proxy_update_config_info(kTwoPorts, 2, kTwoPorts, 0); }, "01"},
  };
  for (const auto& [call, commands] : cases) {
    fake_host::reset();
    EXPECT_EQ(call(), 0);
    EXPECT_EQ(commands_sent(), commands);
  }
}

TEST_F(LibraryTest, SendsEmptyStringsAndTheLowByteOfASelector) {
  EXPECT_EQ(corvil_datapath_proxy_set_config_info("", "", "", nullptr, 0, 0x200), 0);
  EXPECT_EQ(corvil_datapath_proxy_add_ll_dst_addr("", "abc", 0, 0), 0);
  const std::string selector = "05000600 00000000";
  EXPECT_EQ(sent(),
            (Events{send("05", {selector, "05000400 00000000", "05000300 00000000"}) + kErrorSlot,
                    send("03", {selector, "05000200 00000000"}),
                    send("0c", {"05000700 00000000", "08000800 61626300", "06000900 00000000",
                                "06000a00 00000000"}) +
                        kErrorSlot}));
}

TEST_F(LibraryTest, TakesAnyAddressWithAColonForIpv6) {
  const IpsecInfo info{};
  for (const auto& [address, version] :
       {std::pair{"2001:db8::1", "06"}, {"x:", "06"}, {"", "04"}, {"10.0.0.1", "04"}}) {
    fake_host::reset();
    EXPECT_EQ(corvil_datapath_proxy_add_ipsec_info(&info, address), 0);
    ASSERT_EQ(sent().size(), 1U);
    EXPECT_TRUE(sent()[0].ends_with(std::string("00000000 ") + version + "320000")) << address;
  }
}

// Port lists

TEST_F(LibraryTest, RefusesAnInvalidPort) {
  const std::vector<std::pair<PortDescriptor, std::string>> cases = {
      {{5, 6, 80}, "Invalid IP protocol 5"},
      {{4, 50, 500}, "Invalid transport protocol 50"},
      {{7, 99, 1}, "Invalid IP protocol 7"}};
  for (const auto& [invalid, reason] : cases) {
    const PortDescriptor ports[] = {{6, 17, 0}, invalid, {9, 9, 9}};
    fake_host::reset();
    EXPECT_EQ(set_up(ports, 3), -1);
    EXPECT_EQ(host().events,
              logged((high("set_config_info", "Adding port information") +
                      Events{"calloc 72",
                             "LOW corvil_datapath_proxy_add_ports(): "
                             "Allocated 72 bytes for msg",
                             kResolve,
                             "MED corvil_datapath_proxy_add_tuple(): "
                             "Adding tuple [0x6, 0x11, 0x0]\n"} +
                      err("validate_port", reason) + err("add_ports", "Port 1 is invalid") +
                      Events{"free"} + err("set_config_info", "Adding port information failed"))));
    fake_host::reset();
    EXPECT_EQ(tear_down(ports, 3, 1), -1);
    EXPECT_EQ(commands_sent(), "04 06 0d") << "the flush still runs";
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
  EXPECT_EQ(host().events, logged(high("set_config_info", "Adding port information") +
                                  err("add_ports", "Too many ports: 4096") +
                                  err("set_config_info", "Adding port information failed")));
  fake_host::reset();
  EXPECT_EQ(corvil_datapath_proxy_update_config_info(nullptr, 0, ports.data(), 4096), -1);
  EXPECT_EQ(sent(), Events{});
}

// Port tuple query

const std::string kQuery = "get_port_tuple";

Events query_events(const Events& replies, const Events& failed = {}) {
  return Events{"calloc 20",
                "LOW corvil_datapath_proxy_get_port_tuple(): Allocated 20 bytes for msg", kResolve,
                "LOW corvil_datapath_proxy_get_port_tuple(): Querying ports!",
                "query 14000000 2a000500 00000000 00000000 0e010000"} +
         replies + failed +
         Events{"LOW corvil_datapath_proxy_get_port_tuple(): Finished getting ports!", "free"};
}

TEST_F(LibraryTest, QueryFailsOnlyBeforeItsRequestIsSent) {
  host().failing_allocation = 1;
  EXPECT_EQ(corvil_datapath_proxy_get_port_tuple(), -1);
  EXPECT_EQ(host().events,
            logged(Events{"calloc 20"} + err(kQuery, "GENL message allocation failure")));

  fake_host::reset();
  host().failing_resolution = 1;
  EXPECT_EQ(corvil_datapath_proxy_get_port_tuple(), -1);
  EXPECT_EQ(host().events.back(), "free");

  fake_host::reset();
  host().answers = {{-1, -EPERM}};
  EXPECT_EQ(corvil_datapath_proxy_get_port_tuple(), 0);
  EXPECT_EQ(host().events,
            logged(query_events(
                {}, {"ERR corvil_datapath_proxy_get_port_tuple(): Error in netlink query!"})));
}

/// The bytes of hexadecimal digits, behind the headers of a reply of their length.
std::vector<uint8_t> reply(const std::string& attributes) {
  std::vector<uint8_t> bytes = {0, 0, 0, 0, 0x2a, 0, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 14, 1, 0, 0};
  for (size_t i = 0; i < attributes.size();) {
    if (attributes[i] == ' ') {
      ++i;
    } else {
      bytes.push_back(static_cast<uint8_t>(std::stoi(attributes.substr(i, 2), nullptr, 16)));
      i += 2;
    }
  }
  bytes[0] = static_cast<uint8_t>(bytes.size());
  return bytes;
}

Events port_events(unsigned port, const std::string& protocols) {
  return {"LOW Adding tavik_wlan_tuple_query_cb:Port:" + std::to_string(port) +
              " ip_proto:" + protocols.substr(0, 1) + " trans_proto:" + protocols.substr(2) + " ",
          "port " + std::to_string(port) + " " + protocols};
}

TEST_F(LibraryTest, HandsTheTuplesOfEachReplyToThePortTree) {
  const std::string https = "10000180 0c000100 01bb0000 04060000 ";
  // The element's type is free; padding follows it.
  const std::string nat = "0e000000 0a000100 11940000 06110000 ";
  const std::string esp = "10000180 0c000100 00001001 06320000";
  const Events full = {"ERR tavik_wlan_tuple_query_cb(): Failed to add port to tree!"};
  host().replies = {reply("34000180" + https + nat + esp), reply("34000180" + https + nat + esp),
                    reply("24000180" + https + nat)};
  host().port_results = {-1, 5, 0, 0, 0, 1, 0, 0};
  EXPECT_EQ(corvil_datapath_proxy_get_port_tuple(), 0);
  const Events one = port_events(443, "4 6");
  const Events two = port_events(4500, "6 17");
  const Events three = port_events(0, "6 50");
  EXPECT_EQ(host().events,
            logged(query_events(one + full + two + full + three + Events{"reply 1"} +  //
                                one + two + three + full + Events{"reply 0"} +         //
                                one + two + Events{"reply 1"})));
}

TEST_F(LibraryTest, SurvivesMalformedReplies) {
  const std::string good = "10000180 0c000100 01bb0000 04060000 ";
  const Events port = port_events(443, "4 6");
  const Events no_header = {"ERR tavik_wlan_tuple_query_cb(): Invalid netlink header!"};
  const Events no_tuples = {"ERR tavik_wlan_tuple_query_cb(): Invalid Outer Tuples NLA!"};
  std::vector<uint8_t> shorter_than_headers = reply("");
  shorter_than_headers[0] = 16;
  shorter_than_headers.resize(16);
  const std::vector<std::pair<std::vector<uint8_t>, Events>> cases = {
      {{}, no_header + Events{"reply 0"}},
      {shorter_than_headers, no_tuples + Events{"reply 0"}},
      {reply(""), no_tuples + Events{"reply 0"}},
      {reply("08000280 00000000"), no_tuples + Events{"reply 0"}},
      // A container that is empty, has too little for a child, or claims more than the message.
      {reply("04000180"), {"reply 0"}},
      {reply("06000180 0000"), {"reply 0"}},
      {reply("18000180" + good), {"reply 0"}},
      // A first child that is too short or longer than its container.
      {reply("14000180 03000180 0c000100 01bb0000 04060000"), {"reply 0"}},
      {reply("14000180 11000180 0c000100 01bb0000 04060000"), {"reply 0"}},
      // The same behind a good child ends the walk.
      {reply("18000180" + good + "03000180"), port + Events{"reply 1"}},
      {reply("1c000180" + good + "09000180 00000000"), port + Events{"reply 1"}},
      {reply("16000180" + good + "0500"), port + Events{"reply 1"}},
      // A child without a tuple, after a good one.
      {reply("18000180" + good + "04000180"), port + no_tuples + Events{"reply 0"}},
      {reply("1c000180" + good + "08000180 04000000"), port + no_tuples + Events{"reply 0"}},
      // A tuple of 5 bytes, which ends the walk, one of 6 without its padding, one that claims more
      // than its child.
      {reply("24000180 0d000180 09000100 01bb0000 04000000" + good), {"reply 0"}},
      {reply("12000180 0e000180 0a000100 01bb0000 0406"), port + Events{"reply 1"}},
      {reply("14000180 10000180 0d000100 01bb0000 04060000"), {"reply 0"}},
  };
  for (size_t i = 0; i < cases.size(); ++i) {
    fake_host::reset();
    host().replies = {cases[i].first};
    EXPECT_EQ(corvil_datapath_proxy_get_port_tuple(), 0);
    EXPECT_EQ(host().events, logged(query_events(cases[i].second))) << "case " << i;
  }
}

// Log statements

/// What all tests together have seen of the log.
class StatementsTest : public ::testing::Environment {
  void TearDown() override {
    const auto* run = ::testing::UnitTest::GetInstance();
    if (fake_host::silent() || run->test_to_run_count() != run->total_test_count()) {
      return;
    }
    std::map<uint16_t, std::string> text_of_line;
    for (const auto& [site, texts] : fake_host::statements()) {
      EXPECT_EQ(texts.size(), 1U) << "line " << site->line << " has several texts";
      EXPECT_TRUE(text_of_line.emplace(site->line, *texts.begin()).second)
          << "line " << site->line << " has another statement";
      EXPECT_EQ(fake_host::permissions_of(site), "r--p");
    }
    EXPECT_EQ(text_of_line.size(), 58U) << "statements reached; a new one needs a test above";
  }
};
const auto* const kStatementsTest =
    ::testing::AddGlobalTestEnvironment(new StatementsTest);  // GoogleTest's from here on.

}  // namespace
