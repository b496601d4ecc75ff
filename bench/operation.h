// What is measured: operations, each by one rival.
#ifndef BENCH_OPERATION_H_
#define BENCH_OPERATION_H_

#include <cstdint>
#include <string>
#include <vector>

namespace bench {

struct Operation {
  std::string name;           // group/case/rival
  uint32_t size;              // what `run` gets: ports of a list, or tuples held
  void (*prepare)(uint32_t);  // before a series of runs
  int (*run)(uint32_t size);  // -1: failed
};

/// Building requests on a host that does nothing.
std::vector<Operation> build_operations();

/// One log statement, with no sink on and with each.
std::vector<Operation> log_operations();

/// Whole calls and reading back, against the peer that a name stands for: "emulator" or "kernel".
std::vector<Operation> call_operations(const std::string& peer);

/// Asking the controller of the machine's own kernel for a family.
std::vector<Operation> controller_operations();

}  // namespace bench

#endif  // BENCH_OPERATION_H_
