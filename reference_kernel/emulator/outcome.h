// What becomes of a request.
#ifndef REFERENCE_KERNEL_EMULATOR_OUTCOME_H_
#define REFERENCE_KERNEL_EMULATOR_OUTCOME_H_

#include <string>
#include <vector>

#include "reference_kernel/emulator/message.h"
#include "reference_kernel/emulator/verdict.h"

namespace tavik_wlan {

struct Outcome {
  Verdict verdict{};
  std::vector<Datagram> replies{};  // what an accepted request asked for, its acknowledgement aside
  std::string description{};        // of an accepted command to the family, in one line
};

}  // namespace tavik_wlan

#endif  // REFERENCE_KERNEL_EMULATOR_OUTCOME_H_
