// One log statement, compiled as the library compiles its own.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <vector>

#include "bench/operation.h"
#include "datapath_proxy/src/datapath_log.h"
#include "reference_host/log/corvil_log_control.h"

namespace bench {
namespace {

[[gnu::noinline]] int empty_statement(uint32_t value) {
  benchmark::DoNotOptimize(value);
  return 0;
}

[[gnu::noinline]] int log_statement(uint32_t value) {
  benchmark::DoNotOptimize(value);
  DATAPATH_LOG(LOW, "%s(): Value %u\n", value);
  return 0;
}

void set_sinks(uint8_t file, uint32_t mask) {
  static FILE* const kNowhere = fopen("/dev/null", "w");
  logging_fd = kNowhere;
  log_to_file = file;
  zu_log_mask = mask;
  corvil_log_set_diagnostic_handler([](const LogSiteDescriptor*, const char* line, const char*,
                                       void*) { benchmark::DoNotOptimize(line); },
                                    nullptr);
}

void all_off(uint32_t /*size*/) {}

}  // namespace

std::vector<Operation> log_operations() {
  return {
      {"log/off/nothing", 7, all_off, empty_statement},
      {"log/off/library", 7, all_off, log_statement},
      {"log/file/library", 7, [](uint32_t) { set_sinks(1, 0); }, log_statement},
      {"log/diagnostic/library", 7, [](uint32_t) { set_sinks(0, ZU_LOG_MASK_DIAGNOSTIC); },
       log_statement},
      {"log/android/library", 7, [](uint32_t) { set_sinks(0, ZU_LOG_MASK_ANDROID); },
       log_statement},
  };
}

}  // namespace bench
