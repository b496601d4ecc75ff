// fault_test [--target=emulator|kernel]: has every operation fail that a call of the library
// depends on, and checks that the call comes to what its header says, that nothing leaks or hangs,
// and that the next call succeeds.
//
// Each operation fails in every way that it can, once and from then on, on a new connection and on
// a kept one, against an emulated kernel or the machine's own, which takes root and loses what the
// family holds.

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <functional>
#include <iterator>
#include <optional>
#include <ostream>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "host_interfaces/corvil_log_services.h"
#include "host_interfaces/corvil_netlink.h"
#include "reference_host/log/corvil_log_control.h"
#include "reference_host/netlink/corvil_netlink_control.h"
#include "reference_host/port_utils/corvil_port_tree.h"
#include "reference_kernel/emulator/emulator.h"
#include "tests/faults/injector.h"
#include "tests/support/calls.h"

namespace {

using faults::Fault;
using faults::injector;
using faults::Operation;

bool targets_kernel = false;
int survived = 0;

/// How operations fail, and whether a call is to succeed all the same when one does so once.
const struct Way {
  Operation operation;
  std::vector<int> errors;
  bool harmless = false;
} kWays[] = {
    {"calloc", {ENOMEM}},
    {"malloc", {ENOMEM}},
    {"socket", {EMFILE, ENFILE, ENOBUFS, ENOMEM, EPERM, EAFNOSUPPORT}},
    {"bind", {ENOMEM, EADDRINUSE, EPERM, EBADF}},
    {"setsockopt", {ENOMEM, ENOPROTOOPT, EPERM, EBADF}, true},
    {"connect", {EINTR}, true},
    {"connect", {EAGAIN, ECONNREFUSED, ENOENT, ENOMEM, EPERM, EBADF}},
    {"sendmsg", {EINTR, EAGAIN}, true},
    {"sendmsg", {EPIPE, ECONNRESET, ENOBUFS, ENOMEM, EMSGSIZE, ECONNREFUSED, EPERM, EBADF}},
    {"recvfrom", {EINTR, EAGAIN, faults::kStale}, true},
    {"recvfrom", {ENOBUFS, ENOMEM, ECONNREFUSED, ECONNRESET, EPERM, EBADF}},
    {"recvfrom", {faults::kTruncated, faults::kShort, faults::kEnd}},
    {"ppoll", {EINTR, faults::kPollError}, true},
    {"ppoll", {faults::kTimeout, ENOMEM, EINVAL}},
    {"localtime", {EOVERFLOW}, true},
    {"fflush", {EIO, ENOSPC}, true},
};

int nothing() { return 0; }
int look_up_controller() {
  uint16_t id = 0;
  return corvil_netlink_query_genl("nlctrl", 2, &id);
}

/// A call, and what the kernel holds before.
struct Scenario {
  const char* name;
  int (*prepare)();
  int (*call)();
  int result = 0;             // of the call, and
  int error = 0;              // the host's last error, when nothing fails
  bool only_netlink = false;  // Whatever the target is, it asks the machine's kernel.
};

std::ostream& operator<<(std::ostream& out, const Scenario& scenario) {
  return out << scenario.name;
}

const Scenario kScenarios[] = {
    {"Up", nothing, calls::up},
    {"UpAgain", calls::up, calls::up, -1,
     EEXIST},  // A pair that is held is forgiven, a device not.
    {"Down", [] { return calls::up() + calls::add_flow(); }, calls::down},
    {"Update", calls::up, calls::update},
    {"Unmap", calls::up, calls::unmap},
    {"Reset", calls::up, calls::reset},
    {"AddIpsec", nothing, calls::add_ipsec},
    {"DeleteIpsec", calls::add_ipsec, calls::delete_ipsec},
    {"SetEncap", nothing, calls::set_encap},
    {"UnsetEncap", calls::set_encap, calls::unset_encap},
    {"PassEncap", calls::set_encap, calls::pass_encap},
    {"DropEncap", calls::set_encap, calls::drop_encap},
    {"AddFlow", nothing, calls::add_flow},
    {"AddFlowAgain", calls::add_flow, calls::add_flow, 0, EEXIST},
    {"FlushFlows", calls::add_flow, calls::flush_flows},
    {"GetPorts", calls::up, calls::get_ports},
    {"LookUpController", look_up_controller, look_up_controller, 0, 0, true},
};

/// What a run came to. States are hashes, which a run holds without memory.
struct Outcome {
  int result;         // of the call
  int error;          // the host's last error
  int sockets;        // open behind the call
  size_t ports;       // in the port tree
  size_t state;       // of the kernel
  int next_result;    // of the calls that prepare the next run
  size_t next_state;  // of the kernel then
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
    check(control_, true);
    operations_.assign(injector.operations.begin(), injector.operations.begin() + injector.count);
  }

  /// Brings an empty kernel to where the call begins.
  [[nodiscard]] int prepare() const {
    corvil_port_tree_clear();
    const int emptied = scenario_.only_netlink ? 0 : calls::reset();
    return emptied + scenario_.prepare();
  }

  [[nodiscard]] size_t state() const {
    std::ifstream file("/proc/net/tavik_wlan");
    return std::hash<std::string>{}(emulator_ ? emulator_->state()
                                              : std::string(std::istreambuf_iterator(file), {}));
  }

  [[nodiscard]] Outcome run(const Fault& fault) const;
  void check(const Outcome& outcome, bool must_succeed) const;

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
    outcome.ports = corvil_port_tree_count();
    outcome.state = state();
    outcome.next_result = prepare();
    outcome.next_state = state();
  }).join();
  return outcome;
}

void FaultTest::check(const Outcome& outcome, bool must_succeed) const {
  const bool succeeded = outcome.result == scenario_.result && outcome.error == scenario_.error;
  ASSERT_TRUE(succeeded || !must_succeed) << outcome.error;
  ASSERT_TRUE(outcome.result == -1 || outcome.result == scenario_.result) << outcome.result;
  // Of memory that the library lacks the host knows nothing, and the flush of flows may lack it.
  if (injector.fault.operation != "calloc") {
    ASSERT_TRUE(succeeded || outcome.result == -1 || outcome.error != 0);
    ASSERT_TRUE(!succeeded || outcome.state == control_.state) << "done in part";
    const bool tree_full = injector.fault.operation == "malloc";
    ASSERT_TRUE(!succeeded || tree_full || outcome.ports == control_.ports) << outcome.ports;
  }
  ASSERT_LE(outcome.sockets, 1);
  ASSERT_LT(injector.count, injector.operations.size()) << "never ends";
  ASSERT_EQ(outcome.next_result, 0);
  ASSERT_EQ(outcome.next_state, control_.next_state);
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
        ASSERT_NO_FATAL_FAILURE(check(outcome, way.harmless && !fault.forever));
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
