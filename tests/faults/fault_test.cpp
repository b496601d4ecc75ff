// fault_test [--target=kernel]: has every operation fail that a call of the library depends on, and
// checks that the call comes to what its header says, that nothing leaks or hangs, and that the
// next call succeeds.
//
// Each operation fails in every way that it can, once and from then on, on a new connection and on
// a kept one, against an emulated kernel or the machine's own, which takes root and loses what the
// family holds.
//
// The program defines the C library's functions that the data-path library and its host call, so
// that every shared library finds these instead.

#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <thread>
#include <type_traits>
#include <vector>

#include "host_interfaces/corvil_netlink.h"
#include "reference_host/netlink/corvil_netlink_control.h"
#include "reference_host/port_utils/corvil_port_tree.h"
#include "reference_kernel/emulator/emulator.h"
#include "tests/support/calls.h"

namespace {

struct Fault {
  std::string_view operation{};  // the name of the function that fails
  long result = 0;               // a negative errno, or what the function returns
  int number = 0;                // of the call that fails among those of the function, from 0 on
  bool forever = false;          // All later ones fail, too.
};

/// A run of the library's call on one thread. It allocates nothing.
struct Run {
  Fault fault;
  int operations = 0;  // of the fault's name
  long failures = 0;
  int blocks = 0;   // that the thread has got and not given back
  int sockets = 0;  // the same
};
constinit Run run;
constinit thread_local bool tracked = false;  // whether the thread's blocks and sockets are counted
constinit thread_local bool armed = false;    // whether its operations fail

/// Counts an operation; returns whether it is to fail.
bool fails(std::string_view operation) {
  if (!armed || operation != run.fault.operation) {
    return false;
  }
  const int number = run.operations++;
  const bool failing =
      number == run.fault.number || (run.fault.forever && number > run.fault.number);
  run.failures += failing ? 1 : 0;
  return failing;
}

/// Does an operation, or fails in its place.
template <typename Real, typename... Arguments>
auto attempt(std::string_view operation, Real real, Arguments... arguments) {
  using Result = decltype(real(arguments...));
  if (!fails(operation)) {
    return real(arguments...);
  }
  const long result = run.fault.result;
  errno = result < 0 ? static_cast<int>(-result) : errno;
  if constexpr (std::is_pointer_v<Result>) {
    return Result{nullptr};
  } else {
    return result < 0 ? Result{-1} : static_cast<Result>(result);
  }
}

template <typename... Arguments>
int attempt_call(std::string_view operation, long number, Arguments... arguments) {
  return static_cast<int>(attempt(operation, syscall, number, arguments...));
}

void track(int& held, bool changes, int by) {
  if (tracked && changes) {
    held += by;
  }
}

void* keep(void* block) {
  track(run.blocks, block != nullptr, 1);
  return block;
}

/// The refusal of another request.
constexpr struct {
  nlmsghdr header{sizeof(header) + sizeof(refusal), NLMSG_ERROR, NLM_F_CAPPED, 0, 0};
  nlmsgerr refusal{-EIO, {}};
} kStale;

}  // namespace

// The C library's functions

extern "C" {

// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name): theirs are reserved names.

void* libc_malloc(size_t size) __asm__("__libc_malloc");
void* libc_calloc(size_t count, size_t size) __asm__("__libc_calloc");
void libc_free(void* block) __asm__("__libc_free");

void* malloc(size_t size) noexcept { return keep(attempt("malloc", libc_malloc, size)); }
void* calloc(size_t count, size_t size) noexcept {
  return keep(attempt("calloc", libc_calloc, count, size));
}
void free(void* block) noexcept {
  track(run.blocks, block != nullptr, -1);
  libc_free(block);
}

int socket(int domain, int type, int protocol) noexcept {
  const int fd = attempt_call("socket", SYS_socket, domain, type, protocol);
  track(run.sockets, fd != -1, 1);
  return fd;
}
int close(int fd) {
  const long result = syscall(SYS_close, fd);
  track(run.sockets, result == 0, -1);
  return static_cast<int>(result);
}

int setsockopt(int fd, int level, int name, const void* value, socklen_t size) noexcept {
  return attempt_call("setsockopt", SYS_setsockopt, fd, level, name, value, size);
}
int connect(int fd, const sockaddr* address, socklen_t size) {
  return attempt_call("connect", SYS_connect, fd, address, size);
}
ssize_t send(int fd, const void* bytes, size_t size, int flags) {
  return attempt_call("send", SYS_sendto, fd, bytes, size, flags, nullptr, 0);
}

ssize_t recv(int fd, void* buffer, size_t size, int flags) {
  memcpy(buffer, &kStale, sizeof(kStale));  // What a fault gives a size is this, or a part of it.
  return attempt_call("recv", SYS_recvfrom, fd, buffer, size, flags, nullptr, nullptr);
}

/// The time of an armed thread goes on with each failure: the second exceeds the time-out of 3 s.
int clock_gettime(clockid_t clock, timespec* time) noexcept {
  if (clock != CLOCK_MONOTONIC || !armed) {
    return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
  }
  *time = {2 * run.failures, 0};
  return 0;
}

// NOLINTEND(readability-inconsistent-declaration-parameter-name)

}  // extern "C"

namespace {

bool targets_kernel = false;
int survived = 0;

/// How operations fail, and whether a call is to succeed all the same when one does so once.
const struct Way {
  const char* operation;
  std::vector<long> results;  // negative errnos, or what the function returns
  bool harmless = false;
} kWays[] = {
    {"calloc", {-ENOMEM}},
    {"malloc", {-ENOMEM}},
    {"socket", {-EMFILE, -ENFILE, -ENOBUFS, -ENOMEM, -EPERM, -EAFNOSUPPORT}},
    {"setsockopt", {-ENOMEM, -ENOPROTOOPT, -EPERM, -EBADF}, true},
    {"connect", {-EINTR}, true},
    {"connect", {-EAGAIN, -ECONNREFUSED, -ENOENT, -ENOMEM, -EPERM, -EBADF}},
    {"send", {-EINTR}, true},
    {"send",
     {-EAGAIN, -EPIPE, -ECONNRESET, -ENOBUFS, -ENOMEM, -EMSGSIZE, -ECONNREFUSED, -EPERM, -EBADF}},
    {"recv", {-EINTR, sizeof(kStale)}, true},
    {"recv", {-EAGAIN, -ENOBUFS, -ENOMEM, -ECONNREFUSED, -ECONNRESET, -EPERM, -EBADF}},
    // A datagram that is cut, and the end of the connection.
    {"recv", {sizeof(kStale) - 1, 0}},
};

int nothing() { return 0; }

/// A call, and what the kernel holds before.
struct Scenario {
  const char* name;
  int (*prepare)();
  int (*call)();
  int result = 0;  // of the call, and
  int error = 0;   // the host's last error, when nothing fails
};

std::ostream& operator<<(std::ostream& out, const Scenario& scenario) {
  return out << scenario.name;
}

const Scenario kScenarios[] = {
    {"Up", nothing, calls::up},
    // A pair that is held is forgiven, a device not.
    {"UpAgain", calls::up, calls::up, -1, EEXIST},
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
};

class FaultTest : public ::testing::TestWithParam<Scenario> {
 protected:
  void SetUp() override {
    if (!targets_kernel) {
      emulator_.emplace("@fault_test." + std::to_string(getpid()));
    }
    corvil_netlink_set_emulator(emulator_ ? emulator_->path().c_str() : "");
    ASSERT_EQ(prepare(), 0) << "no such family";
  }

  /// Brings an empty kernel to where the call begins.
  [[nodiscard]] int prepare() const {
    corvil_port_tree_clear();
    return calls::reset() + scenario_.prepare();
  }

  /// Has the call run with a fault, on a thread of its own.
  void inject(const Fault& fault, bool must_succeed) {
    std::thread([&] {
      run = {.fault = fault};
      tracked = true;
      survive(fault, must_succeed);
    }).join();
  }

  void survive(const Fault& fault, bool must_succeed);
  void check(const Fault& fault, int result, bool must_succeed);
  /// A hash of what an emulated kernel holds, which takes no memory to keep.
  [[nodiscard]] size_t state() const {
    return emulator_ ? std::hash<std::string>{}(emulator_->state()) : 0;
  }

  const Scenario scenario_ = GetParam();
  bool kept_ = false;  // whether the call finds a connection
  std::optional<tavik_wlan::Emulator> emulator_;

  // What a run without a fault comes to.
  int blocks_ = 0;    // left behind; less than 0 with what the call was given
  size_t state_ = 0;  // of the kernel
  size_t ports_ = 0;  // in the port tree
};

void FaultTest::survive(const Fault& fault, bool must_succeed) {
  SCOPED_TRACE(std::string(fault.operation) + " " + std::to_string(fault.number) + " comes to " +
               std::to_string(fault.result) + (fault.forever ? " from then on" : " once") +
               (kept_ ? " on a kept connection" : " on a new one"));
  uint16_t id = 0;
  if (kept_) {
    corvil_netlink_query_genl("nlctrl", 2, &id);
  }
  corvil_netlink_query_genl("SIXTEEN_LETTERS_", 1, &id);  // an error for a success to clear
  armed = true;
  const int result = scenario_.call();
  armed = false;
  check(fault, result, must_succeed);
  ASSERT_EQ(prepare(), 0);
}

/// Checks what a call has come to.
void FaultTest::check(const Fault& fault, int result, bool must_succeed) {
  const CorvilNetlinkError& last = *corvil_netlink_last_error();
  const bool succeeded = result == scenario_.result && last.error == scenario_.error;
  ASSERT_TRUE(succeeded || !must_succeed) << last.message;
  ASSERT_TRUE(result == -1 || result == scenario_.result) << result;
  if (fault.operation.empty()) {
    state_ = state();
    ports_ = corvil_port_tree_count();
  }
  // Of memory that the library lacks the host knows nothing, and the flush of flows may lack it.
  if (fault.operation == "calloc") {
    return;
  }
  ASSERT_TRUE(succeeded || result == -1 || last.error != 0);
  ASSERT_TRUE(!succeeded || state() == state_) << "done in part";
  ASSERT_TRUE(!succeeded || fault.operation == "malloc" || corvil_port_tree_count() == ports_);
  const bool is_trusted =
      last.error == 0 || last.from_kernel != 0 || last.error == ETIMEDOUT || last.error == ENOBUFS;
  ASSERT_LE(run.sockets, is_trusted ? 1 : 0) << "what is left of an answer may be read";
}

TEST_P(FaultTest, EveryOperationFails) {
  for (const bool kept : {false, true}) {
    kept_ = kept;
    inject({}, true);  // What a process allocates but once is allocated from here on.
    inject({}, true);
    blocks_ = run.blocks;
    for (const Way& way : kWays) {
      for (size_t i = 0; i < 2 * way.results.size(); ++i) {
        Fault fault{way.operation, way.results[i / 2], 0, i % 2 != 0};
        for (;; ++fault.number) {
          inject(fault, way.harmless && !fault.forever);
          ASSERT_FALSE(HasFailure());
          ASSERT_EQ(run.blocks, blocks_) << "memory leaks";
          ASSERT_EQ(run.sockets, 0) << "a socket leaks";
          if (run.failures == 0) {
            break;
          }
          ++survived;
        }
        ASSERT_TRUE(fault.number > 0 || kept) << way.operation << " is not replaced here";
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(, FaultTest, ::testing::ValuesIn(kScenarios),
                         [](const auto& test) { return std::string(test.param.name); });

}  // namespace

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  targets_kernel = argc > 1 && argv[1] == std::string_view("--target=kernel");
  if (argc > 1 && !targets_kernel) {
    return EXIT_FAILURE;
  }
  const int result = RUN_ALL_TESTS();
  printf("%d faults survived\n", survived);
  return result;
}
