// datapath_bench: measures the library against rivals that do the same.
//
//   datapath_bench [--target=kernel] [--count] [options of Google Benchmark]
//
// Whole calls go to an emulator in a process of its own or, with --target=kernel, to the machine's
// kernel, and nothing else is measured then. --count runs every operation some times under
// callgrind, which gets a dump for each, and prints "operation TAB runs TAB heap allocations".
#include <benchmark/benchmark.h>
#include <sys/prctl.h>
#include <unistd.h>
#include <valgrind/callgrind.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "bench/host.h"
#include "bench/operation.h"
#include "reference_kernel/emulator/emulator.h"

namespace {

using bench::Operation;

/// An emulated kernel in a child process, which the environment leads the reference host to.
class EmulatorProcess {
 public:
  EmulatorProcess() {
    char name[] = "/tmp/datapath_bench.XXXXXX";
    folder_ = mkdtemp(name);
    const std::string path = folder_ / "kernel";
    int ready[2];
    if (pipe(ready) == -1 || (pid_ = fork()) == -1) {
      perror("datapath_bench");
      exit(1);
    }
    if (pid_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      const tavik_wlan::Emulator emulator(path);
      close(ready[0]);
      close(ready[1]);
      for (;;) {
        pause();
      }
    }
    close(ready[1]);
    char nothing = 0;
    [[maybe_unused]] const ssize_t end = read(ready[0], &nothing, 1);
    close(ready[0]);
    setenv("CORVIL_NETLINK_EMULATOR", path.c_str(), 1);
  }
  EmulatorProcess(const EmulatorProcess&) = delete;
  EmulatorProcess& operator=(const EmulatorProcess&) = delete;
  ~EmulatorProcess() {
    kill(pid_, SIGKILL);
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
  }

 private:
  std::filesystem::path folder_;
  pid_t pid_ = -1;
};

/// Takes an option of this program's own off the command line.
bool take_option(int* argc, char** argv, const char* option) {
  for (int i = 1; i < *argc; ++i) {
    if (strcmp(argv[i], option) == 0) {
      memmove(argv + i, argv + i + 1, static_cast<size_t>(*argc - i) * sizeof(*argv));
      --*argc;
      return true;
    }
  }
  return false;
}

void append(std::vector<Operation>* all, const std::vector<Operation>& more) {
  all->insert(all->end(), more.begin(), more.end());
}

void prepare(const Operation& operation) {
  bench::reset_host();
  operation.prepare(operation.size);
}

void measure(benchmark::State& state, const Operation& operation) {
  prepare(operation);
  for ([[maybe_unused]] auto iteration : state) {
    if (operation.run(operation.size) == -1) {
      state.SkipWithError("failed");
      break;
    }
  }
}

void count(const Operation& operation) {
  const int runs = operation.size > 1000 ? 2 : 100;
  prepare(operation);
  for (int i = 0; i < 2; ++i) {
    operation.run(operation.size);
  }
  const size_t before = bench::allocations();
  CALLGRIND_ZERO_STATS;
  for (int i = 0; i < runs; ++i) {
    operation.run(operation.size);
  }
  CALLGRIND_DUMP_STATS_AT(operation.name.c_str());
  printf("%s\t%d\t%g\n", operation.name.c_str(), runs,
         static_cast<double>(bench::allocations() - before) / runs);
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<Operation> operations;
  if (take_option(&argc, argv, "--target=kernel")) {
    operations = bench::call_operations("kernel");
  } else {
    static const EmulatorProcess emulator;
    operations = bench::build_operations();
    append(&operations, bench::log_operations());
    append(&operations, bench::call_operations("emulator"));
    append(&operations, bench::controller_operations());
  }

  if (take_option(&argc, argv, "--count")) {
    for (const Operation& operation : operations) {
      count(operation);
    }
    return 0;
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 1;
  }
  for (const Operation& operation : operations) {
    auto* registered = benchmark::RegisterBenchmark(operation.name.c_str(), measure, operation);
    if (operation.name.starts_with("emulator/")) {
      registered->UseRealTime();  // Another process answers.
    }
  }
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
