// fault_test [--target=emulator|kernel]: has every operation fail that a call of the library
// depends on, and checks that the call comes to what its header says, that nothing leaks or hangs,
// and that the next call succeeds.
//
// Each operation fails in every way that it can, once and from then on, on a new connection and on
// a kept one, against an emulated kernel or the machine's own, which takes root and loses what the
// family holds.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>
#include <optional>
#include <ostream>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "datapath_proxy/include/corvil_datapath_proxy.h"
#include "host_interfaces/corvil_log_services.h"
#include "host_interfaces/corvil_netlink.h"
#include "reference_host/log/corvil_log_control.h"
#include "reference_host/netlink/corvil_netlink_control.h"
#include "reference_host/port_utils/corvil_port_tree.h"
#include "reference_kernel/emulator/emulator.h"
#include "tests/faults/injector.h"

namespace {

using faults::Fault;
using faults::injector;
using faults::Operation;

bool targets_kernel = false;
int survived = 0;

/// What the exchange comes to in which an operation fails: 0, an errno, or one of these.
enum Effect : int {
  kSurvives = 0,
  kSame = -1,          // the errno of the operation
  kSameIfFresh = -2,   // that, but a connection kept from before is opened anew
  kSameInLookUp = -3,  // that, where a single reply is awaited
  kUntold = -4,        // a failure that the host may not have seen
};

const struct Way {
  Operation operation;
  std::vector<int> errors;
  int once;
  int forever;
} kWays[] = {
    {"calloc", {ENOMEM}, kUntold, kUntold},
    {"malloc", {ENOMEM}, kSameInLookUp, kSameInLookUp},  // elsewhere it is for a port that came
    {"socket", {EMFILE, ENFILE, ENOBUFS, ENOMEM, EPERM, EAFNOSUPPORT}, kSame, kSame},
    {"bind", {ENOMEM, EADDRINUSE, EPERM, EBADF}, kSame, kSame},
    {"setsockopt", {ENOMEM, ENOPROTOOPT, EPERM, EBADF}, kSurvives, kSurvives},
    {"connect", {EINTR}, kSurvives, ETIMEDOUT},
    {"connect", {EAGAIN}, ETIMEDOUT, ETIMEDOUT},
    {"connect", {ECONNREFUSED, ENOENT, ENOMEM, EPERM, EBADF}, kSame, kSame},
    {"sendmsg", {EINTR, EAGAIN}, kSurvives, ETIMEDOUT},
    {"sendmsg", {EPIPE, ECONNRESET}, kSameIfFresh, kSame},
    {"sendmsg", {ENOBUFS, ENOMEM, EMSGSIZE, ECONNREFUSED, EPERM, EBADF}, kSame, kSame},
    {"recvfrom", {EINTR, EAGAIN, faults::kStale}, kSurvives, ETIMEDOUT},
    {"recvfrom", {ENOBUFS}, kSameInLookUp, kSame},
    {"recvfrom", {faults::kTruncated}, EMSGSIZE, EMSGSIZE},
    {"recvfrom", {faults::kShort}, EBADMSG, EBADMSG},
    {"recvfrom", {faults::kEnd}, ECONNRESET, ECONNRESET},
    {"recvfrom", {ENOMEM, ECONNREFUSED, ECONNRESET, EPERM, EBADF}, kSame, kSame},
    {"ppoll", {EINTR}, kSurvives, ETIMEDOUT},
    {"ppoll", {faults::kPollError}, kSurvives, kSurvives},
    {"ppoll", {faults::kTimeout}, ETIMEDOUT, ETIMEDOUT},
    {"ppoll", {ENOMEM, EINVAL}, kSame, kSame},
    {"localtime", {EOVERFLOW}, kSurvives, kSurvives},
    {"fflush", {EIO, ENOSPC}, kSurvives, kSurvives},
};

constexpr std::array<PortDescriptor, 2> kPorts = {{{4, 6, 443}, {6, 17, 4500}}};
constexpr std::array<PortDescriptor, 1> kNewPorts = {{{6, 6, 80}}};
const IpsecInfo kIpsec{{}, htonl(0x1001)};

int nothing() { return 0; }
int up() {
  return corvil_datapath_proxy_set_config_info("wlan0", "wlan0", "wwan0", kPorts.data(), 2, 1);
}
int down() {
  return corvil_datapath_proxy_unset_config_info("wlan0", "wlan0", "wwan0", kPorts.data(), 2, 1);
}
int update() {
  return corvil_datapath_proxy_update_config_info(kNewPorts.data(), 1, kPorts.data(), 2);
}
int unmap() { return corvil_datapath_proxy_unset_reverse_dev_mapping(1, "wlan0", "wwan0"); }
int add_ipsec() { return corvil_datapath_proxy_add_ipsec_info(&kIpsec, "2001:db8::1"); }
int delete_ipsec() { return corvil_datapath_proxy_delete_ipsec_info(&kIpsec, "2001:db8::1"); }
int set_encap() { return corvil_datapath_proxy_set_udp_encap_port(htons(4500)); }
int unset_encap() { return corvil_datapath_proxy_unset_udp_encap_port(htons(4500)); }
int pass_encap() { return corvil_datapath_proxy_act_encap_port_pass_through(htons(4500)); }
int drop_encap() { return corvil_datapath_proxy_act_encap_port_drop(htons(4500)); }
int add_flow() {
  return corvil_datapath_proxy_add_ll_dst_addr("10.0.0.1", "10.0.0.2", htons(5000), htons(5001));
}
int look_up_controller() {
  uint16_t id = 0;
  return corvil_netlink_query_genl("nlctrl", 2, &id);
}

/// A call, and what the kernel holds before. Its exchanges are numbered: the look-up of the family
/// for its first request is 0, the request itself 1, the next look-up 2.
struct Scenario {
  const char* name;
  int (*prepare)();
  int (*call)();
  int result = 0;              // of the call, and
  int error = 0;               // the host's last error, when nothing fails
  size_t forgives = SIZE_MAX;  // From this exchange on a failure doesn't change the result.
  bool only_netlink = false;   // Whatever the target is, it asks the machine's kernel.
};

std::ostream& operator<<(std::ostream& out, const Scenario& scenario) {
  return out << scenario.name;
}

const Scenario kScenarios[] = {
    {"Up", nothing, up},
    {"UpAgain", up, up, -1, EEXIST},  // A pair that is held is forgiven, a device is not.
    {"Down", [] { return up() + add_flow(); }, down, 0, 0, 6},
    {"Update", up, update},
    {"Unmap", up, unmap},
    {"Reset", up, corvil_datapath_proxy_flush_config_info},
    {"AddIpsec", nothing, add_ipsec},
    {"DeleteIpsec", add_ipsec, delete_ipsec},
    {"SetEncap", nothing, set_encap},
    {"UnsetEncap", set_encap, unset_encap},
    {"PassEncap", set_encap, pass_encap},
    {"DropEncap", set_encap, drop_encap},
    {"AddFlow", nothing, add_flow},
    {"AddFlowAgain", add_flow, add_flow, 0, EEXIST},
    {"FlushFlows", add_flow, corvil_datapath_proxy_flush_ll_dst_addr},
    {"GetPorts", up, corvil_datapath_proxy_get_port_tuple, 0, 0, 1},
    {"LookUpController", look_up_controller, look_up_controller, 0, 0, SIZE_MAX, true},
};

/// What a run came to.
struct Outcome {
  int result;         // of the call
  int error;          // the host's last error
  int sockets;        // open behind the call
  size_t sent;        // messages of the call
  size_t ports;       // in the port tree
  int next_result;    // of the calls that prepare the next run
  std::string state;  // of the kernel then
};

class FaultTest : public ::testing::TestWithParam<std::tuple<Scenario, bool>> {
 protected:
  void SetUp() override {
    if (targets_kernel || scenario_.only_netlink) {
      unsetenv("CORVIL_NETLINK_EMULATOR");
    } else {
      emulator_.emplace(::testing::TempDir() + "fault_test." + std::to_string(getpid()));
      setenv("CORVIL_NETLINK_EMULATOR", emulator_->path().c_str(), 1);
    }
    if (scenario_.only_netlink && prepare() == -1) {
      GTEST_SKIP() << "no netlink sockets here";
    }
    ASSERT_EQ(prepare(), 0) << "no such family";
    control_ = run({});  // What a process allocates but once is allocated from here on.
    control_ = run({});
    blocks_ = injector.blocks;
    check(control_, 0);
    operations_.assign(injector.operations.begin(), injector.operations.begin() + injector.count);
  }

  /// Brings an empty kernel to where the call begins.
  [[nodiscard]] int prepare() const {
    corvil_port_tree_clear();
    const int emptied = scenario_.only_netlink ? 0 : corvil_datapath_proxy_flush_config_info();
    return emptied + scenario_.prepare();
  }

  [[nodiscard]] Outcome run(const Fault& fault) const;
  void check(const Outcome& outcome, int error) const;

  const Scenario scenario_ = std::get<0>(GetParam());
  const bool kept_ = std::get<1>(GetParam());
  std::optional<tavik_wlan::Emulator> emulator_;
  std::vector<Operation> operations_;  // of a run without a fault
  Outcome control_{};                  // of that run
  int blocks_ = 0;                     // that it leaves behind; less than 0 with what it was given
};

Outcome FaultTest::run(const Fault& fault) const {
  Outcome outcome{};
  std::thread([&] {
    injector.track(fault);
    if (kept_) {
      look_up_controller();
    }
    // What a success has to clear.
    corvil_netlink_query_genl("SIXTEEN_LETTERS_", 1, nullptr);
    zu_log_mask = ZU_LOG_MASK_DIAGNOSTIC;
    log_to_file = 1;
    faults::armed = true;
    outcome.result = scenario_.call();
    faults::armed = false;
    log_to_file = 0;
    zu_log_mask = 0;
    outcome.error = corvil_netlink_last_error()->error;
    outcome.sockets = injector.sockets;
    outcome.sent = injector.sent;
    outcome.ports = corvil_port_tree_count();
    outcome.next_result = prepare();
  }).join();
  std::ifstream file("/proc/net/tavik_wlan");
  outcome.state = emulator_ ? emulator_->state() : std::string(std::istreambuf_iterator(file), {});
  return outcome;
}

/// The errno that a fault leads to, or kUntold.
int resolve(int effect) {
  const bool looks_up = injector.struck_exchange % 2 == 0;
  const bool same = effect == kSame || (effect == kSameIfFresh && injector.struck_fresh) ||
                    (effect == kSameInLookUp && looks_up);
  return same ? injector.fault.error : effect > 0 || effect == kUntold ? effect : 0;
}

void FaultTest::check(const Outcome& outcome, int error) const {
  const size_t struck = injector.struck_exchange;
  ASSERT_EQ(outcome.result, error != 0 && struck < scenario_.forgives ? -1 : scenario_.result);
  // Behind a failed exchange none has succeeded, unless the call went on.
  if (error == 0 || (error != kUntold && outcome.sent <= struck + 1)) {
    ASSERT_EQ(outcome.error, error != 0 ? error : scenario_.error);
    // A connection on which an answer may come late can be kept or not.
    const bool late = error == ETIMEDOUT || error == ENOBUFS;
    ASSERT_TRUE(late || outcome.sockets == (error == 0 ? 1 : 0)) << outcome.sockets << " open";
    const bool tree_full = injector.fault.operation == "malloc";
    ASSERT_TRUE(error != 0 || tree_full || outcome.ports == control_.ports) << outcome.ports;
  }
  ASSERT_LT(injector.count, injector.operations.size()) << "never ends";
  ASSERT_EQ(outcome.next_result, 0);
  ASSERT_EQ(outcome.state, control_.state);
  ASSERT_EQ(injector.blocks, blocks_) << "memory leaks";
  ASSERT_EQ(injector.sockets, 0) << "a socket leaks";
}

TEST_P(FaultTest, EveryOperationFails) {
  std::set<Operation> awaited{"sendmsg", "recvfrom", "ppoll"};
  if (!scenario_.only_netlink) {
    awaited.insert({"calloc", "localtime", "fflush"});
  }
  if (!kept_) {
    awaited.insert({"malloc", "socket", "setsockopt", emulator_ ? "connect" : "bind"});
  }
  for (size_t i = 0; i < operations_.size(); ++i) {
    for (const Way& way : kWays) {
      for (size_t j = 0; way.operation == operations_[i] && j < 2 * way.errors.size(); ++j) {
        const Fault fault{i, way.operation, way.errors[j / 2], j % 2 != 0};
        if (fault.error == faults::kEnd && !emulator_) {
          continue;  // Netlink knows no connections that end.
        }
        SCOPED_TRACE("operation " + std::to_string(i) + ", " + std::string(way.operation) +
                     ", fails with " + std::to_string(fault.error) +
                     (fault.forever ? " from then on" : " once"));
        const Outcome outcome = run(fault);
        ASSERT_EQ(injector.operations.at(i), way.operation) << "others than without a fault";
        ASSERT_NO_FATAL_FAILURE(check(outcome, resolve(fault.forever ? way.forever : way.once)));
        awaited.erase(way.operation);
        ++survived;
      }
    }
  }
  EXPECT_TRUE(awaited.empty()) << *awaited.begin() << " goes past the functions replaced here";
}

INSTANTIATE_TEST_SUITE_P(, FaultTest,
                         ::testing::Combine(::testing::ValuesIn(kScenarios), ::testing::Bool()),
                         [](const auto& test) {
                           return std::string(std::get<0>(test.param).name) +
                                  (std::get<1>(test.param) ? "OnKept" : "OnNew");
                         });

}  // namespace

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  tzset();  // The time zone is read before memory runs out.
  corvil_log_set_diagnostic_handler(
      [](const LogSiteDescriptor*, const char*, const char*, void*) {}, nullptr);
  logging_fd = fopen("/dev/null", "w");
  const std::string target = argc > 1 ? argv[1] : "--target=emulator";
  targets_kernel = target == "--target=kernel";
  if (!targets_kernel && target != "--target=emulator") {
    return EXIT_FAILURE;
  }
  const int result = RUN_ALL_TESTS();
  printf("%d faults survived\n", survived);
  return result;
}
