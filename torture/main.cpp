// torture [--short] [--target=emulator|kernel] BATCH: has every operation fail on which the library
// and the reference host depend, one after the other, and checks after each that the call came to
// what its header says, that nothing leaked, and that the next call succeeds.
//
// Each operation of each scenario fails in every way that it can, once and from then on; without
// --short, so does then every later operation of the run in which it has failed once, each in the
// ways that stand for their like. Scenarios run on a new connection and on a kept one, against an
// emulated kernel or the machine's own, which takes root and loses what the family holds.

#include <android/log.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <new>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "datapath_proxy/include/corvil_datapath_proxy.h"
#include "host_interfaces/corvil_log_services.h"
#include "reference_host/log/corvil_log_control.h"
#include "reference_host/port_utils/corvil_port_tree.h"
#include "reference_kernel/emulator/emulator.h"
#include "torture/faults.h"
#include "torture/oracle.h"
#include "torture/scenarios.h"

namespace {

using torture::Call;
using torture::Fault;
using torture::Injection;
using torture::injector;
using torture::Op;
using Injections = std::vector<Injection>;

constexpr size_t kMaxComplaints = 20;

/// What the processes share.
struct Totals {
  std::atomic<size_t> next_unit;
  std::atomic<size_t> single;
  std::atomic<size_t> persistent;
  std::atomic<size_t> pairs;
  std::atomic<size_t> complaints;
  std::array<std::atomic<size_t>, torture::kOpNames.size()> struck;
};

/// What the sinks of the log got.
struct Messages {
  bool file;
  int diagnostic;
  int android;
  int errors;  // diagnostic ones of the level ERR
} messages{};

void take_diagnostic(const LogSiteDescriptor* descriptor, const char* /*line*/,
                     const char* /*text*/, void* /*context*/) {
  ++messages.diagnostic;
  messages.errors += descriptor->level_mask == 8 ? 1 : 0;
}

FILE* open_log() {
  static std::array<char, 1 << 14> buffer;
  messages = {};
  FILE* log =
      fopencookie(&messages.file, "w", {nullptr, torture::write_log_file, nullptr, nullptr});
  if (log == nullptr) {
    torture::die("cannot open a log");
  }
  setvbuf(log, buffer.data(), _IOFBF, buffer.size());
  return log;
}

void switch_logs(bool on) {
  log_to_file = on ? 1 : 0;
  zu_log_mask = on ? ZU_LOG_MASK_DIAGNOSTIC | ZU_LOG_MASK_ANDROID : 0;
}

size_t open_descriptors() {
  const std::filesystem::directory_iterator entries("/proc/self/fd");
  return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

/// Tortures one scenario, on new connections or on kept ones.
class Torturer {
 public:
  Torturer(const torture::Scenario& scenario, bool kept, const tavik_wlan::Emulator* emulator,
           Totals& totals)
      : scenario_(scenario),
        kept_(kept),
        emulator_(emulator),
        totals_(totals),
        available_(corvil_datapath_proxy_flush_config_info() == 0),
        result_(available_ ? scenario.result : -1) {}

  void torture(bool pairs) {
    const size_t descriptors = open_descriptors();
    run({});
    const std::vector<Op> operations = operations_;
    for (size_t i = 0; i < operations.size(); ++i) {
      for (const Fault* fault : faults_of(operations[i])) {
        run({{i, fault, true}});
        run({{i, fault, false}});
        if (pairs && fault->in_pairs) {
          torture_after({i, fault, false});
        }
      }
    }
    // The emulator closes its ends when it gets to it.
    for (int i = 0; i < 1000 && open_descriptors() != descriptors; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    require(open_descriptors() == descriptors, "descriptors leak");
  }

 private:
  /// The ways in which an operation can fail. Netlink knows no connections that end.
  [[nodiscard]] std::vector<const Fault*> faults_of(Op op) const {
    std::vector<const Fault*> faults;
    for (const Fault& fault : torture::all_faults()) {
      if (fault.op == op && (emulator_ != nullptr || fault.error != torture::kEnd)) {
        faults.push_back(&fault);
      }
    }
    return faults;
  }

  /// The operations behind a first fault may be others than without it.
  void torture_after(const Injection& first) {
    const std::vector<Op> operations = operations_;
    for (size_t j = first.operation + 1; j < operations.size(); ++j) {
      for (const Fault* fault : faults_of(operations[j])) {
        if (fault->in_pairs) {
          run({first, {j, fault, false}});
        }
      }
    }
  }

  void run(const Injections& injections) {
    describe(injections);
    alarm(60);
    logging_fd = open_log();
    if (!kept_) {
      prepare();
    }
    std::thread([&] {
      injector.track(injections);
      if (kept_) {
        prepare();
      }
      call_armed();
      call_again();
    }).join();
    fclose(logging_fd);
    operations_.assign(injector.ops.begin(),
                       injector.ops.begin() + static_cast<ptrdiff_t>(injector.op_count));
    count(injections);
    judge(injections.empty());
  }

  void prepare() const {
    corvil_datapath_proxy_flush_config_info();
    for (const Call& call : scenario_.before) {
      call.run();
    }
    corvil_port_tree_clear();
  }

  void call_armed() {
    switch_logs(true);
    size_t i = 0;
    for (const Call& call : scenario_.calls) {
      const int errors_before = messages.errors;
      torture::armed = true;
      const int result = call.run();
      torture::armed = false;
      outcomes_.at(i++) = {result, messages.errors - errors_before, injector.record_count};
    }
    switch_logs(false);
  }

  /// Without faults, on the same thread.
  void call_again() {
    recovered_ = corvil_datapath_proxy_flush_config_info() == (available_ ? 0 : -1);
    prepare();
    for (const Call& call : scenario_.calls) {
      recovered_ &= call.run() == result_;
    }
    ports_ = corvil_port_tree_count();
    corvil_port_tree_clear();
  }

  void judge(bool control) {
    torture::Judge judge(std::span(injector.records).first(injector.record_count), &natural_);
    for (size_t i = 0; i < scenario_.calls.size(); ++i) {
      judge.judge(scenario_.calls[i], outcomes_.at(i));
      require(!control || outcomes_.at(i).result == result_, "a call fails without a fault");
    }
    require(judge.complaint().empty(), judge.complaint());
    require(messages.file && messages.diagnostic > 0 && messages.diagnostic == messages.android,
            "not every sink of the log is served");
    require(torture::live_blocks() == 0, "memory leaks");
    require(injector.sockets == 0, "a socket leaks");
    if (control) {
      control_state_ = state();
      control_ports_ = ports_;
    }
    require(recovered_ && state() == control_state_ && ports_ == control_ports_,
            "the same without a fault comes to something else");
  }

  [[nodiscard]] std::string state() const {
    if (emulator_ != nullptr) {
      return emulator_->state();
    }
    std::ifstream file("/proc/net/tavik_wlan");
    return {std::istreambuf_iterator<char>(file), {}};
  }

  void count(const Injections& injections) {
    for (const Injection& injection : injections) {
      const size_t i = injection.operation;
      require(i < operations_.size() && operations_[i] == injection.fault->op,
              "the operations are others than in the run before");
      ++totals_.struck.at(static_cast<size_t>(injection.fault->op));
      messages.file |= injection.fault->op == Op::kLogWrite;
    }
    if (injections.size() == 2) {
      ++totals_.pairs;
    } else if (injections.size() == 1) {
      ++(injections[0].forever ? totals_.persistent : totals_.single);
    }
  }

  void describe(const Injections& injections) const {
    std::string text = scenario_.name + (kept_ ? ", kept connection" : ", new connection");
    for (const Injection& injection : injections) {
      text += ", operation " + std::to_string(injection.operation + 1) + " " +
              torture::describe(*injection.fault) + (injection.forever ? " from then on" : "");
    }
    snprintf(torture::doing.data(), torture::doing.size(), "%s", text.c_str());
  }

  void require(bool condition, const std::string& complaint) {
    if (!condition) {
      fprintf(stderr, "%s: %s\n", complaint.c_str(), torture::doing.data());
      if (++totals_.complaints >= kMaxComplaints) {
        torture::die("too many complaints");
      }
    }
  }

  const torture::Scenario& scenario_;
  bool kept_;
  const tavik_wlan::Emulator* emulator_;
  Totals& totals_;
  bool available_;  // The kernel has the family.
  int result_;      // of each call, when nothing fails
  std::vector<int> natural_;
  std::string control_state_;
  size_t control_ports_ = 0;

  // Of the last run
  std::vector<Op> operations_;
  std::array<torture::Outcome, 16> outcomes_{};
  bool recovered_ = false;
  size_t ports_ = 0;
};

/// Takes one scenario after the other, while there are any.
void work(bool pairs, bool kernel, const std::vector<torture::Scenario>& scenarios,
          Totals& totals) {
  const std::filesystem::path path =
      std::filesystem::temp_directory_path() / ("torture." + std::to_string(getpid()));
  std::unique_ptr<tavik_wlan::Emulator> emulator;
  if (!kernel) {
    emulator = std::make_unique<tavik_wlan::Emulator>(path);
    setenv("CORVIL_NETLINK_EMULATOR", path.c_str(), 1);
  }
  for (size_t i = totals.next_unit++; i < 2 * scenarios.size(); i = totals.next_unit++) {
    Torturer(scenarios[i / 2], i % 2 != 0, emulator.get(), totals).torture(pairs);
  }
}

/// Returns whether every process came to its end. The machine's kernel has one state for them all.
bool work_in_processes(bool pairs, bool kernel, const std::vector<torture::Scenario>& scenarios,
                       Totals& totals) {
  const unsigned jobs = kernel ? 1 : std::max(std::thread::hardware_concurrency(), 1U);
  for (unsigned i = 0; i < jobs; ++i) {
    if (fork() == 0) {
      work(pairs, kernel, scenarios, totals);
      exit(0);
    }
  }
  bool all_well = true;
  int status = 0;
  while (wait(&status) != -1) {
    all_well &= status == 0;
  }
  return all_well;
}

/// Whether each kind of operation was hit, so that none goes past the replaced functions.
bool print_coverage(bool kernel, const Totals& totals) {
  bool all = true;
  for (size_t i = 0; i < totals.struck.size(); ++i) {
    const auto op = static_cast<Op>(i);
    const bool possible = kernel ? op != Op::kConnect : op != Op::kBind;
    printf("%-12s %9zu\n", torture::kOpNames.at(i), totals.struck.at(i).load());
    all &= !possible || totals.struck.at(i) > 0;
  }
  return all;
}

void set_up() {
  for (const int number : {SIGSEGV, SIGBUS, SIGABRT, SIGFPE, SIGILL}) {
    signal(number, [](int) { torture::die("crashes"); });
  }
  signal(SIGALRM, [](int) { torture::die("hangs"); });
  corvil_log_set_diagnostic_handler(take_diagnostic, nullptr);
  // The time zone is read before memory runs out.
  tzset();
}

}  // namespace

/// In place of Android's.
extern "C" int __android_log_print(int /*priority*/, const char* /*tag*/, const char* /*format*/,
                                   ...) {
  ++messages.android;
  return 0;
}

int main(int argc, char** argv) {
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  const bool pairs = std::ranges::count(arguments, "--short") == 0;
  const bool kernel = std::ranges::count(arguments, "--target=kernel") != 0;
  if (arguments.empty() || arguments.back().starts_with("-")) {
    fputs("usage: torture [--short] [--target=emulator|kernel] BATCH\n", stderr);
    return 1;
  }
  const auto start = std::chrono::steady_clock::now();
  const std::vector<torture::Scenario> scenarios = torture::make_scenarios(arguments.back());
  void* shared =
      mmap(nullptr, sizeof(Totals), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (shared == MAP_FAILED) {
    torture::die("cannot share memory");
  }
  auto& totals = *new (shared) Totals();
  set_up();
  const bool ended = work_in_processes(pairs, kernel, scenarios, totals);
  const bool covered = print_coverage(kernel, totals);
  const bool survived = ended && covered && totals.complaints == 0;
  const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
  printf("%s %zu faults of the %s: %zu single, %zu persistent, %zu pairs, in %.1f s\n",
         survived ? "survived" : "DID NOT SURVIVE",
         totals.single + totals.persistent + totals.pairs, kernel ? "kernel" : "emulator",
         totals.single.load(), totals.persistent.load(), totals.pairs.load(), seconds.count());
  return survived ? 0 : 1;
}
