// Whether a request is accepted, and if not, why.
#ifndef REFERENCE_KERNEL_EMULATOR_STATUS_H_
#define REFERENCE_KERNEL_EMULATOR_STATUS_H_

#include <cstdint>
#include <optional>

#include "kernel_interface/protocol.h"

namespace tavik_wlan {

/// What the acknowledgement of a request says: its errno, and the extack that explains it.
struct [[nodiscard]] Status {
  int error = 0;                              // a negative errno
  const char* message = nullptr;              // a literal; null: there is no extack
  std::optional<uint32_t> offset = {};        // of the bad attribute's header in the request
  std::optional<Kind> policy = {};            // that the bad attribute fails
  std::optional<uint32_t> missing_type = {};  // of the top-level attribute that is missing

  [[nodiscard]] bool ok() const { return error == 0; }
};

}  // namespace tavik_wlan

#endif  // REFERENCE_KERNEL_EMULATOR_STATUS_H_
