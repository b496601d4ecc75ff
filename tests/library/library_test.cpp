// The library alone, around a host that records it: bytes, messages, order, results, and memory.
// Wire images are those of a little-endian machine.

#include <android/log.h>
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <sys/time.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <functional>
#include <limits>
#include <optional>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "datapath_proxy/include/corvil_datapath_proxy.h"
#include "datapath_proxy/src/datapath_log.h"
#include "host_interfaces/corvil_netlink.h"
#include "host_interfaces/corvil_port_utils.h"
#include "tests/support/calls.h"

namespace {

// The host

struct Host {
  /// What was done to it, a line each: "calloc 20", "free", "resolve TAVIK_WLAN 1", "send 14000000
  /// 2a00...", with " error slot" where one was passed, "query 14000000...", "reply 1" with the
  /// callback's result, "port 443 4 6"; of the log "ERR name(): text" from the diagnostic sink and
  /// "android 6 tag name(): text". A newline inside a line is written as \n.
  std::string transcript = {};

  /// What its operations come to, first to last: of an allocation, a resolution of the family, an
  /// exchange, a port for the tree. A negative one is a failure, and the errno of a refusal. All is
  /// well when there are none left.
  std::deque<int> results = {};
  /// Replies to a query, as the bytes from the netlink header on; no bytes are a null reply.
  std::vector<std::vector<uint8_t>> replies = {};
  int exchanges = 0;  // An exchange that is well has its number for a result.
  timeval clock = {};
  /// What zu_log_mask becomes while the diagnostic sink is at work.
  std::optional<uint32_t> next_log_mask = {};
};

Host host;

int next_result() {
  int result = 0;
  if (!host.results.empty()) {
    result = host.results.front();
    host.results.pop_front();
  }
  return result;
}

/// The text with `by` wherever it has had `what`.
std::string replace(std::string text, const std::string& what, const std::string& by) {
  for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += by.size()) {
    text.replace(at, what.size(), by);
  }
  return text;
}

void record(const std::string& line) { host.transcript += replace(line, "\n", "\\n") + '\n'; }

/// The bytes of a message in hexadecimal digits, with a blank between groups of four.
std::string hex(const nlmsghdr* message) {
  std::string text;
  for (uint32_t i = 0; i < message->nlmsg_len; ++i) {
    char digits[4];
    snprintf(digits, sizeof(digits), i % 4 == 0 && i != 0 ? " %02x" : "%02x",
             reinterpret_cast<const uint8_t*>(message)[i]);
    text += digits;
  }
  return text;
}

}  // namespace

extern "C" {

uint8_t log_to_file = 0;
FILE* logging_fd = nullptr;
uint32_t zu_log_mask = 0;

int corvil_netlink_query_genl(const char* family_name, uint32_t version, uint16_t* family_id) {
  EXPECT_EQ(*family_id, 0);
  record("resolve " + std::string(family_name) + " " + std::to_string(version));
  const int result = next_result();
  *family_id = result == 0 ? 0x2a : 0;
  return result;
}

/// Whether the attribute has room is seen when the request is sent: by its length.
int corvil_nla_put(nlmsghdr* message, uint16_t type, uint32_t length, const void* payload) {
  const uint32_t start = NLA_ALIGN(message->nlmsg_len);
  auto* attribute = reinterpret_cast<nlattr*>(reinterpret_cast<char*>(message) + start);
  *attribute = {static_cast<uint16_t>(NLA_HDRLEN + length), type};
  std::copy_n(static_cast<const char*>(payload), length, reinterpret_cast<char*>(attribute + 1));
  message->nlmsg_len = start + NLA_HDRLEN + NLA_ALIGN(length);
  return 0;
}

int corvil_netlink_transact(const nlmsghdr* request, int protocol, int* error) {
  EXPECT_EQ(protocol, NETLINK_GENERIC);
  EXPECT_TRUE(error == nullptr || *error == 0);
  record("send " + hex(request) + (error != nullptr ? " error slot" : ""));
  ++host.exchanges;
  const int result = next_result();
  if (error != nullptr) {
    *error = result;
  }
  return result < 0 ? -1 : host.exchanges;
}

int corvil_netlink_query(const nlmsghdr* request, int protocol,
                         corvil_netlink_reply_callback callback, void* context, int dump) {
  EXPECT_EQ(protocol, NETLINK_GENERIC);
  EXPECT_EQ(context, nullptr);
  EXPECT_EQ(dump, 1);
  record("query " + hex(request));
  for (const std::vector<uint8_t>& reply : host.replies) {
    const auto* message = reply.empty() ? nullptr : reply.data();
    const int result = callback(reinterpret_cast<const nlmsghdr*>(message), nullptr);
    record("reply " + std::to_string(result));
  }
  return next_result();
}

int corvil_nla_parse(const nlattr* first, const nlattr** table, uint32_t length,
                     uint16_t max_type) {
  EXPECT_NE(first, nullptr);
  std::fill_n(table, max_type + 1, nullptr);
  const auto* start = reinterpret_cast<const uint8_t*>(first);
  for (uint32_t at = 0; at + NLA_HDRLEN <= length;) {
    const auto* attribute = reinterpret_cast<const nlattr*>(start + at);
    // Like a host that trusts the kernel, it lets an attribute claim more than there is.
    if (attribute->nla_len < NLA_HDRLEN) {
      return -1;
    }
    if (const uint16_t type = attribute->nla_type & NLA_TYPE_MASK; type <= max_type) {
      table[type] = attribute;
    }
    at += NLA_ALIGN(attribute->nla_len);
  }
  return 0;
}

int corvil_port_utils_add_port_from_kernel(uint16_t port, uint8_t ip_proto, uint8_t trans_proto) {
  record("port " + std::to_string(port) + " " + std::to_string(ip_proto) + " " +
         std::to_string(trans_proto));
  return next_result();
}

int zu_format_log_msg(char* buffer, size_t size, const char* format, ...) {
  EXPECT_EQ(size, 512U);
  va_list arguments;
  va_start(arguments, format);
  const int length = vsnprintf(buffer, size, format, arguments);
  va_end(arguments);
  return length;
}

void msg_sprintf(const LogSiteDescriptor* descriptor, ...) {
  constexpr std::array<const char*, 4> kLevels = {"LOW ", "MED ", "HIGH ", "ERR "};
  EXPECT_STREQ(descriptor->format, "%s");
  EXPECT_STREQ(descriptor->file, "datapath_proxy/src/corvil_datapath_proxy");
  EXPECT_EQ(descriptor->subsystem, 65);
  va_list arguments;
  va_start(arguments, descriptor);
  record(std::string(kLevels.at(static_cast<size_t>(std::countr_zero(descriptor->level_mask)))) +
         va_arg(arguments, const char*));
  va_end(arguments);
  zu_log_mask = host.next_log_mask.value_or(zu_log_mask);
}

int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
  char text[1024];
  va_list arguments;
  va_start(arguments, fmt);
  vsnprintf(text, sizeof(text), fmt, arguments);
  va_end(arguments);
  record("android " + std::to_string(prio) + " " + tag + " " + text);
  return 1;
}

// The linker sends the calls of these libc functions here (--wrap).
// NOLINTBEGIN(bugprone-reserved-identifier): the linker names them.

void* __real_calloc(size_t count, size_t size);
void __real_free(void* memory);

void* __wrap_calloc(size_t count, size_t size) {
  EXPECT_EQ(count, 1U);
  record("calloc " + std::to_string(size));
  return next_result() < 0 ? nullptr : __real_calloc(count, size);
}

void __wrap_free(void* memory) {
  record("free");
  __real_free(memory);
}

int __wrap_gettimeofday(timeval* now, void* zone) {
  EXPECT_EQ(zone, nullptr);
  *now = host.clock;
  return 0;
}

// NOLINTEND(bugprone-reserved-identifier)
}

namespace {

using Function = std::function<int()>;

/// A transcript as the host writes it: without empty lines, with the prefix of the library's names
/// for "@", and without log messages where no sink takes them.
std::string expand(const std::string& transcript, bool with_log) {
  std::string expanded;
  std::istringstream lines(replace(transcript, "@", "corvil_datapath_proxy_"));
  for (std::string line; std::getline(lines, line);) {
    const std::string word = line.substr(0, line.find(' '));
    const bool is_log = word == "LOW" || word == "MED" || word == "HIGH" || word == "ERR";
    expanded += line.empty() || (is_log && !with_log) ? "" : line + '\n';
  }
  return expanded;
}

/// Expects a result and a transcript of a call from a host: with log messages, and with every sink
/// off without them.
void expect(const Function& call, int result, const std::string& transcript,
            const Host& prepared = {}) {
  for (const bool with_log : {true, false}) {
    host = prepared;
    zu_log_mask = with_log ? ZU_LOG_MASK_DIAGNOSTIC : 0;
    EXPECT_EQ(call(), result);
    EXPECT_EQ(host.transcript, expand(transcript, with_log));
  }
}

// Requests, and the calls that consist of them

/// The host's operation that fails of the three for a request, if any does.
enum Failure : uint8_t { kNoMemory, kNoFamily, kRefused, kNone };

/// A request as a part of a call. STEP in its messages is the name that it goes by, SIZE its size.
struct Request {
  std::string step;
  std::string bytes;          // as sent, from the generic netlink header on
  std::string messages = {};  // before it is sent
  std::string refused = {};   // when the kernel has refused it, before it is freed
  std::string length_message = "LOW STEP(): pre corvil_netlink_transact nlmsg_len SIZE";
  std::string announced = {};  // by the call
  std::string failed = {};     // by the call, after that
  bool ends_call = true;       // when it fails

  [[nodiscard]] std::string transcript(Failure failure = kNone) const {
    const size_t size = 16 + (replace(bytes, " error slot", "").size() + 1) / 9 * 4;
    char length[9];
    snprintf(length, sizeof(length), "%02x000000", static_cast<uint8_t>(size));
    const std::string allocated = "LOW STEP(): Allocated SIZE bytes for msg\n";
    const bool late = step == "del_ports";
    std::string text = announced + "\ncalloc SIZE\n";
    if (failure == kNoMemory) {
      text += "ERR STEP(): GENL message allocation failure\\n\n";
    } else if (failure == kNoFamily) {
      text += (late ? "" : allocated) + R"(resolve TAVIK_WLAN 1
ERR @genlmsg_init(): Querying GENL for family [TAVIK_WLAN, 1] failed\n
ERR STEP(): GENL message failure\n
free
)";
    } else {
      text += (late ? "" : allocated) + "resolve TAVIK_WLAN 1\n" + (late ? allocated : "") +
              messages + "\n" + length_message + "\nsend " + length +
              " 2a000500 00000000 00000000 " + bytes + "\n" + (failure == kRefused ? refused : "") +
              "\nfree\n";
    }
    text += failure == kNone ? "" : failed + "\n";
    return replace(replace(text, "STEP", "@" + step), "SIZE", std::to_string(size));
  }
};

/// A request that says what it is about to do, with what, and that it has failed.
Request telling(const std::string& step, const std::string& bytes, const std::string& deed,
                const std::string& rest = "\\n") {
  return {step, bytes, "HIGH STEP(): " + deed + rest, "ERR STEP(): " + deed + " failed\\n"};
}

/// A request in a call that says the same of it, or something else of its failure.
Request part(const std::string& call, const std::string& deed, Request request,
             const std::string& failure = "", bool ends_call = true) {
  request.announced = "HIGH @" + call + "(): " + deed + "\\n";
  request.failed = "ERR @" + call + "(): " + (failure.empty() ? deed : failure) + " failed\\n";
  request.ends_call = ends_call;
  return request;
}

Request ports(const std::string& step, const std::string& command,
              const std::string& tuple_message) {
  return {.step = step,
          .bytes = command +
                   " 24000180 10000180 0c000100 01bb0000 04060000"
                   " 10000180 0c000100 11940000 06110000",
          .messages = "MED @" + tuple_message + " tuple [0x4, 0x6, 0x1bb]\\n\n" + "MED @" +
                      tuple_message + " tuple [0x6, 0x11, 0x1194]\\n",
          .length_message = "LOW STEP(): pre corvil_netlink_transact nlmsg_len SIZE port_count 2"};
}

const std::string kPair = " 05000600 01000000 08000400 6c616e00 0b000300 7777616e 31300000";
const std::string kDevice = " 05000600 01000000 0a000200 776c616e 30000000";
const std::string kEspTuple = " 14000180 10000180 0c000100 00001001 06320000";
const std::string kEncapPort = " 06000500 11940000";

const Request kAddPorts = ports("add_ports", "01010000", "add_tuple(): Adding");
const Request kDeletePorts = ports("del_ports", "02010000", "del_tuple(): Removing");
const Request kAddForwarding = {"add_fwd_info", "05010000" + kPair + " error slot",
                                "MED STEP(): Forwarding wwan10 to lan\\n"};
const Request kDeleteForwarding = {"del_fwd_info", "06010000" + kPair,
                                   "MED STEP(): Stopping forward from wwan10 to lan\\n"};
const Request kSetDevice = {"set_wlan_device", "03010000" + kDevice,
                            "MED STEP(): Setting WLAN device to wlan0\\n"};
const Request kUnsetDevice = {"unset_wlan_device", "04010000" + kDevice,
                              "MED STEP(): Unsetting WLAN device from wlan0\\n"};
const Request kAddIpsec =
    telling("add_ipsec_info", "01010000" + kEspTuple, "Adding IPSEC information",
            "\\n\nMED @add_tuple(): Adding tuple [0x6, 0x32, 0x1001]\\n");
const Request kAddFlow = {"add_ll_dst_addr",
                          "0c010000 0d000700 31302e30 2e302e31 00000000"
                          " 0d000800 31302e30 2e302e32 00000000"
                          " 06000900 13880000 06000a00 13890000 error slot",
                          "MED STEP(): XOLINK low latency tuple src: 10.0.0.1 dest: 10.0.0.2"
                          " sport: 5000 dport: 5001"};
const Request kFlushFlows = {
    .step = "flush_ll_dst_addr", .bytes = "0d010000 error slot", .length_message = ""};
const Request kGetPorts = {.step = "get_port_tuple",
                           .bytes = "0e010000",
                           .messages = "LOW STEP(): Querying ports!",
                           .refused = "ERR STEP(): Error in netlink query!",
                           .length_message = ""};

int set_up(const PortDescriptor* ports, uint32_t count) {
  return corvil_datapath_proxy_set_config_info("wlan0", "lan", "wwan10", ports, count, 0x101);
}
int tear_down(const PortDescriptor* ports, uint32_t count, uint32_t selector) {
  return corvil_datapath_proxy_unset_config_info("wlan0", "lan", "wwan10", ports, count, selector);
}
constexpr auto& kUpdate = corvil_datapath_proxy_update_config_info;
constexpr auto& kPorts = calls::kPorts;

using Requests = std::vector<Request>;

/// The flush that ends the tear-down. It has no say in the result.
Request ignored_flush() {
  Request request = kFlushFlows;
  request.announced = R"(HIGH @unset_config_info(): Removing low latency address!\n)";
  return request;
}

const std::vector<std::pair<Function, Requests>> kCalls = {
    {[] { return set_up(kPorts, 2); },
     {part("set_config_info", "Adding port information", kAddPorts),
      part("set_config_info", "Adding FWD information", kAddForwarding),
      part("set_config_info", "Adding WLAN device information", kSetDevice)}},
    {[] { return tear_down(kPorts, 2, 1); },
     {part("unset_config_info", "Removing WLAN device information", kUnsetDevice),
      part("unset_config_info", "Removing FWD information", kDeleteForwarding),
      part("unset_config_info", "Removing port information", kDeletePorts, "", false),
      ignored_flush()}},
    {[] { return kUpdate(kPorts, 2, kPorts, 2); },
     {part("update_config_info", R"(Updating port information\n
HIGH @update_config_info(): Removing 2 ports)",
           kDeletePorts, "Removing port information"),
      part("update_config_info", "Adding 2 ports", kAddPorts, "Adding new port information")}},
    {[] { return corvil_datapath_proxy_unset_reverse_dev_mapping(0x101, "lan", "wwan10"); },
     {part("unset_reverse_dev_mapping", "Removing FWD information", kDeleteForwarding)}},
    {calls::reset, {telling("flush_config_info", "09010000", "Resetting datapath state")}},
    {calls::add_ipsec, {kAddIpsec}},
    {calls::delete_ipsec,
     {telling("delete_ipsec_info", "02010000" + kEspTuple, "Removing IPSEC information",
              "\\n\nMED @del_tuple(): Removing tuple [0x6, 0x32, 0x1001]\\n")}},
    {calls::set_encap,
     {telling("set_udp_encap_port", "07010000" + kEncapPort, "Setting UDP encap port",
              " to 4500\\n")}},
    {calls::unset_encap,
     {telling("unset_udp_encap_port", "08010000" + kEncapPort, "Unsetting UDP encap port",
              " from 4500\\n")}},
    {calls::pass_encap,
     {telling("act_encap_port_pass_through", "0a010000" + kEncapPort,
              "Enabling encap port packet pass through", " for port 4500\\n")}},
    {calls::drop_encap,
     {telling("act_encap_port_drop", "0b010000" + kEncapPort, "Enabling encap port packet drop",
              " for port 4500\\n")}},
    {calls::add_flow, {kAddFlow}},
    {calls::flush_flows, {kFlushFlows}},
};

/// Result and transcript of a call of which one request fails.
std::pair<int, std::string> outcome(const Requests& requests, size_t failing = 0,
                                    Failure failure = kNone) {
  int result = 0;
  std::string transcript;
  for (size_t i = 0; i < requests.size(); ++i) {
    const Request& request = requests[i];
    const bool fails = i == failing && failure != kNone;
    transcript += request.transcript(fails ? failure : kNone);
    if (request.announced.empty() || !request.failed.empty()) {
      result = fails ? -1 : static_cast<int>(i) + 1;
    }
    if (fails && request.ends_call) {
      break;
    }
  }
  return {result, transcript};
}

TEST(LibraryTest, SendsItsRequestsAndFailsAtEachPlaceAsItShould) {
  const std::pair<Failure, int> ways[] = {
      {kNone, 0}, {kNoMemory, -1}, {kNoFamily, -1}, {kRefused, -EPERM}, {kRefused, -EEXIST}};
  for (const auto& [call, requests] : kCalls) {
    for (size_t i = 0; i < requests.size(); ++i) {
      for (const auto& [failure, error] : ways) {
        const bool forgiven = error == -EEXIST && requests[i].bytes.ends_with("error slot");
        const auto [result, transcript] = outcome(requests, i, forgiven ? kNone : failure);
        std::deque<int> results(3 * i + failure);
        results.push_back(error);
        expect(call, forgiven && requests.size() == 1 ? 0 : result, transcript,
               {.results = results});
      }
    }
  }
}

TEST(LibraryTest, RefusesNullArguments) {
  const auto expect_refusal = [](const std::string& name, auto* call, auto... arguments) {
    const std::string refusal = "ERR @" + name + "(): Invalid parameters\\n\n";
    // The IPsec calls allocate before they look.
    const std::string allocated = "calloc 40\nLOW @" + name + "(): Allocated 40 bytes for msg\n";
    expect([=] { return call(arguments...); }, -1,
           name.ends_with("ipsec_info") ? allocated + refusal + "free\n" : refusal);
  };
  const PortDescriptor* none = nullptr;
  expect_refusal("update_config_info", kUpdate, none, 2U, kPorts, 0U);
  expect_refusal("update_config_info", kUpdate, kPorts, 0U, none, 2U);
  for (int missing = 0; missing < 3; ++missing) {
    const char* a = missing == 0 ? nullptr : "a";
    const char* b = missing == 1 ? nullptr : "b";
    const char* c = missing == 2 ? nullptr : "c";
    expect_refusal("set_config_info", corvil_datapath_proxy_set_config_info, a, b, c, kPorts, 2U,
                   1U);
    expect_refusal("unset_config_info", corvil_datapath_proxy_unset_config_info, a, b, c, kPorts,
                   2U, 1U);
    if (missing == 2) {
      continue;
    }
    const uint16_t port = 80;
    const IpsecInfo* flow = missing == 0 ? nullptr : &calls::kFlow;
    expect_refusal("unset_reverse_dev_mapping", corvil_datapath_proxy_unset_reverse_dev_mapping, 1U,
                   a, b);
    expect_refusal("add_ll_dst_addr", corvil_datapath_proxy_add_ll_dst_addr, a, b, port, port);
    expect_refusal("add_ipsec_info", corvil_datapath_proxy_add_ipsec_info, flow, b);
    expect_refusal("delete_ipsec_info", corvil_datapath_proxy_delete_ipsec_info, flow, b);
  }
}

TEST(LibraryTest, SendsWhatItsArgumentsAskFor) {
  const std::vector<std::pair<Function, Requests>> cases = {
      {[] { return set_up(nullptr, 5); }, {kAddForwarding, kSetDevice}},
      {[] { return set_up(kPorts, 0); }, {kAddForwarding, kSetDevice}},
      {[] { return tear_down(nullptr, 5, 0x201); }, {kUnsetDevice, kDeleteForwarding}},
      {[] { return tear_down(kPorts, 0, 1); }, {kUnsetDevice, kDeleteForwarding, kFlushFlows}},
      {[] { return tear_down(kPorts, 2, 0x101); }, {kUnsetDevice, kDeleteForwarding, kDeletePorts}},
      {[] { return kUpdate(nullptr, 2, kPorts, 2); }, {kDeletePorts}},
      {[] { return kUpdate(kPorts, 2, kPorts, 0); }, {kAddPorts}},
      {[] { return corvil_datapath_proxy_set_config_info("", "", "", nullptr, 0, 0x200); },
       {{"", "05010000 05000600 00000000 05000400 00000000 05000300 00000000 error slot"},
        {"", "03010000 05000600 00000000 05000200 00000000"}}},
      // Any address with a colon is one of IPv6.
      {[] { return corvil_datapath_proxy_add_ipsec_info(&calls::kFlow, "x:"); }, {kAddIpsec}},
      {[] { return corvil_datapath_proxy_add_ipsec_info(&calls::kFlow, "10.0.0.1"); },
       {{"", "01010000 14000180 10000180 0c000100 00001001 04320000"}}},
  };
  for (const auto& [call, requests] : cases) {
    host = {};
    zu_log_mask = 0;
    EXPECT_GT(call(), 0);
    EXPECT_EQ(host.transcript, expand(outcome(requests).second, false));
  }
}

TEST(LibraryTest, RefusesAnInvalidPort) {
  const std::vector<std::pair<PortDescriptor, std::string>> cases = {
      {{5, 6, 80}, "Invalid IP protocol 5"},
      {{4, 50, 500}, "Invalid transport protocol 50"},
      {{7, 99, 1}, "Invalid IP protocol 7"}};
  for (const auto& [invalid, reason] : cases) {
    const PortDescriptor ports[] = {{6, 17, 0}, invalid, {9, 9, 9}};
    expect([&] { return kUpdate(ports, 3, nullptr, 0); }, -1,
           replace(R"(
HIGH @update_config_info(): Updating port information\n
HIGH @update_config_info(): Adding 3 ports\n
calloc 72
LOW @add_ports(): Allocated 72 bytes for msg
resolve TAVIK_WLAN 1
MED @add_tuple(): Adding tuple [0x6, 0x11, 0x0]\n
ERR @validate_port(): REASON\n
ERR @add_ports(): Port 1 is invalid\n
free
ERR @update_config_info(): Adding new port information failed\n
)",
                   "REASON", reason));
  }
}

TEST(LibraryTest, LimitsAListToWhatOneRequestHolds) {
  const std::vector<PortDescriptor> ports(4096, PortDescriptor{4, 6, 0});
  host = {};
  zu_log_mask = 0;
  EXPECT_EQ(kUpdate(ports.data(), 4095, nullptr, 0), 1);
  // 65,544 bytes in all, 65,524 of them the container, and 16 an element.
  const std::string begin =
      "calloc 65544\nresolve TAVIK_WLAN 1\nsend 08000100 2a000500 00000000 00000000 01010000 "
      "f4ff0180 10000180 0c000100 00000000 04060000 1000";
  EXPECT_EQ(host.transcript.substr(0, begin.size()), begin);
  expect([&] { return kUpdate(nullptr, 0, ports.data(), 4096); }, -1, R"(
HIGH @update_config_info(): Updating port information\n
HIGH @update_config_info(): Removing 4096 ports\n
ERR @del_ports(): Too many ports: 4096\n
ERR @update_config_info(): Removing port information failed\n
)");
}

// Port tuple query

std::string query_transcript(Failure failure, const std::string& replies = "") {
  const std::string finished = "\nLOW @get_port_tuple(): Finished getting ports!\nfree\n";
  const bool sent = failure == kNone || failure == kRefused;
  std::string text = replace(kGetPorts.transcript(failure), "send", "query");
  return sent ? replace(text, "\nfree\n", replies + finished) : text;
}

TEST(LibraryTest, QueryFailsOnlyBeforeItsRequestIsSent) {
  expect(calls::get_ports, -1, query_transcript(kNoMemory), {.results = {-1}});
  expect(calls::get_ports, -1, query_transcript(kNoFamily), {.results = {0, -1}});
  expect(calls::get_ports, 0, query_transcript(kRefused), {.results = {0, 0, -1}});
}

/// A reply: the bytes of hexadecimal digits behind a netlink header, or a null one.
std::vector<uint8_t> reply(const std::string& text) {
  if (text == "null") {
    return {};
  }
  const std::string digits = replace(text, " ", "");
  std::vector<uint8_t> bytes(NLMSG_HDRLEN + digits.size() / 2);
  for (size_t i = 0; i < digits.size(); i += 2) {
    bytes[NLMSG_HDRLEN + i / 2] = static_cast<uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16));
  }
  bytes[0] = static_cast<uint8_t>(bytes.size());
  return bytes;
}

TEST(LibraryTest, HandsTheTuplesOfAReplyToThePortTree) {
  const std::string https = "10000180 0c000100 01bb0000 04060000 ";
  // The element's type is free; padding follows it.
  const std::string nat = "0e000000 0a000100 11940000 06110000 ";
  const std::string esp = "10000180 0c000100 00001001 06320000";
  const std::string https_port =
      "LOW Adding CALLBACK:Port:443 ip_proto:4 trans_proto:6 \nport 443 4 6\n";
  const std::string nat_port =
      "LOW Adding CALLBACK:Port:4500 ip_proto:6 trans_proto:17 \nport 4500 6 17\n";
  const std::string esp_port =
      "LOW Adding CALLBACK:Port:0 ip_proto:6 trans_proto:50 \nport 0 6 50\n";
  const std::string full = "ERR CALLBACK(): Failed to add port to tree!\n";
  const std::string no_tuples = "ERR CALLBACK(): Invalid Outer Tuples NLA!\n";
  struct Case {
    std::string reply;
    std::string events;
    std::deque<int> results = {};
  };
  const std::vector<Case> cases = {
      {"0e010000 34000180" + https + nat + esp,
       https_port + full + nat_port + full + esp_port + "reply 1",
       {0, 0, -1, 5}},
      {"0e010000 34000180" + https + nat + esp,
       https_port + nat_port + esp_port + full + "reply 0",
       {0, 0, 0, 0, 1}},
      // Malformed: no message, no generic header, no attribute, no container.
      {"null", "ERR CALLBACK(): Invalid netlink header!\nreply 0"},
      {"", no_tuples + "reply 0"},
      {"0e010000", no_tuples + "reply 0"},
      {"0e010000 08000280 00000000", no_tuples + "reply 0"},
      // A container that is empty, has too little for a child, or claims more than the message.
      {"0e010000 04000180", "reply 0"},
      {"0e010000 06000180 0000", "reply 0"},
      {"0e010000 18000180" + https, "reply 0"},
      // A first child that is too short or longer than its container.
      {"0e010000 14000180 03000180 0c000100 01bb0000 04060000", "reply 0"},
      {"0e010000 14000180 11000180 0c000100 01bb0000 04060000", "reply 0"},
      // The same behind a good child ends the walk.
      {"0e010000 18000180" + https + "03000180", https_port + "reply 1"},
      {"0e010000 1c000180" + https + "09000180 00000000", https_port + "reply 1"},
      {"0e010000 16000180" + https + "0500", https_port + "reply 1"},
      // A child without a tuple, after a good one.
      {"0e010000 18000180" + https + "04000180", https_port + no_tuples + "reply 0"},
      {"0e010000 1c000180" + https + "08000180 04000000", https_port + no_tuples + "reply 0"},
      // A tuple of 5 bytes, which ends the walk, one of 6 without its padding, one that claims more
      // than its child.
      {"0e010000 24000180 0d000180 09000100 01bb0000 04000000" + https, "reply 0"},
      {"0e010000 12000180 0e000180 0a000100 01bb0000 0406", https_port + "reply 1"},
      {"0e010000 14000180 10000180 0d000100 01bb0000 04060000", "reply 0"},
  };
  for (const Case& each : cases) {
    const auto events = replace(each.events, "CALLBACK", "tavik_wlan_tuple_query_cb");
    expect(calls::get_ports, 0, query_transcript(kNone, events),
           {.results = each.results, .replies = {reply(each.reply)}});
  }
}

// The log statement alone: which sinks it reaches, with what

class LogTest : public ::testing::Test {
 protected:
  LogTest() {
    setenv("TZ", "UTC", 1);
    host = {};
    zu_log_mask = 0;
    log_to_file = 1;
    logging_fd = open_memstream(&text_, &size_);
  }
  ~LogTest() override {
    log_to_file = 0;
    fclose(std::exchange(logging_fd, nullptr));
    free(text_);
  }

  /// What has been flushed to the log file.
  [[nodiscard]] std::string file() const { return {text_, size_}; }

 private:
  char* text_ = nullptr;
  size_t size_ = 0;
};

TEST_F(LogTest, SwitchedOffItReadsTheSettingsAndNothingElse) {
  int evaluated = 0;
  FILE* const stream = logging_fd;
  for (const auto& [mask, to_file] : {std::pair{0U, 0}, {4U, 1}, {0xfffffffcU, 0}}) {
    zu_log_mask = mask;
    log_to_file = static_cast<uint8_t>(to_file);
    logging_fd = to_file != 0 ? nullptr : stream;
    DATAPATH_LOG(ERR, "%s(): %d", ++evaluated);
  }
  logging_fd = stream;
  EXPECT_EQ(evaluated, 0);
  EXPECT_EQ(host.transcript + file(), "");
}

void log_each_level() {
  const auto log = [](uint16_t line, uint32_t level, const char* format, auto argument) {
    const LogSiteDescriptor site = {line, datapath::kDiagnosticSubsystem, level, "%s",
                                    datapath::kSourcePath};
    datapath::write_log(site, "name", format, argument);
  };
  log(7, LOG_LEVEL_MASK_LOW, "%s(): low %d", 1);
  log(70, LOG_LEVEL_MASK_MED, "%s(): med %s\n", "two");
  log(700, LOG_LEVEL_MASK_HIGH, "%s(): high %u\n", 3U);
  log(7000, LOG_LEVEL_MASK_ERR, "%s(): err 0x%x", 255U);
}

TEST_F(LogTest, ReachesTheSinksThatAreOn) {
  host.clock = {36942, 7999};  // 10:15:42.007999
  log_each_level();
  const std::string place =
      "               10:15:42.7                               "
      "datapath_proxy/src/corvil_datapath_proxy                                     name():";
  const std::string lines = place + "  7 (LOW):name(): low 1\n" +      //
                            place + " 70 (MED):name(): med two\n\n" +  //
                            place + "700 (HIGH):name(): high 3\n\n" +  //
                            place + "7000 (ERR):name(): err 0xff\n";
  EXPECT_EQ(file(), lines);
  EXPECT_EQ(host.transcript, "");
  log_to_file = 0;
  zu_log_mask = 3;
  log_each_level();
  EXPECT_EQ(file(), lines);
  EXPECT_EQ(host.transcript, R"(LOW name(): low 1
android 3 VX-CORVIL-LIB name(): low 1
MED name(): med two\n
android 4 VX-CORVIL-LIB name(): med two\n
HIGH name(): high 3\n
android 4 VX-CORVIL-LIB name(): high 3\n
ERR name(): err 0xff
android 6 VX-CORVIL-LIB name(): err 0xff
)");
}

TEST_F(LogTest, StampsPlaceAndTimeWithoutLeadingZeros) {
  const std::vector<std::pair<timeval, std::string>> cases = {
      {{36942, 999}, " 10:15:42.0 "},
      {{86399, 999999}, " 23:59:59.999 "},
      {{std::numeric_limits<time_t>::max(), 42000}, ".42 "}};  // in a year that no int holds
  for (const auto& [clock, stamp] : cases) {
    host.clock = clock;
    const size_t before = file().size();
    DATAPATH_LOG(LOW, "%s()");
    const std::string place = "TestBody():" + std::to_string(__LINE__ - 1) + " (LOW):TestBody()\n";
    const std::string line = file().substr(before);
    EXPECT_NE(line.find(stamp), std::string::npos) << line;
    EXPECT_TRUE(line.ends_with(place)) << line;
  }
}

TEST_F(LogTest, ReadsTheMaskAgainAfterTheDiagnosticSink) {
  for (const auto& [before, after, transcript] :
       {std::tuple{1U, 2U, "LOW f()\nandroid 3 VX-CORVIL-LIB f()\n"},
        {3U, 1U, "LOW f()\n"},
        {2U, 1U, "android 3 VX-CORVIL-LIB f()\n"}}) {
    host.transcript.clear();
    host.next_log_mask = after;
    zu_log_mask = before;
    DATAPATH_LOG_AS(LOW, "f", "%s()");
    EXPECT_EQ(host.transcript, transcript);
  }
}

TEST_F(LogTest, CutsALongMessageForTheDiagnosticSinkOnly) {
  zu_log_mask = 3;
  const std::string text(600, 'x');
  DATAPATH_LOG_AS(LOW, "f", "%s:%s", text.c_str());
  EXPECT_TRUE(file().ends_with("f:" + text + "\n"));
  EXPECT_EQ(host.transcript,
            "LOW f:" + text.substr(0, 509) + "\nandroid 3 VX-CORVIL-LIB f:" + text + "\n");
}

}  // namespace
