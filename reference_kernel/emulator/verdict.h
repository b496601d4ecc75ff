// Whether a request is accepted, and if not, why.
#ifndef REFERENCE_KERNEL_EMULATOR_VERDICT_H_
#define REFERENCE_KERNEL_EMULATOR_VERDICT_H_

#include <cstdint>
#include <optional>

namespace tavik_wlan {

struct AttributePolicy;

/// What an acknowledgement says about a request that is refused.
struct Refusal {
  int error;                                  // a negative errno
  const char* message = nullptr;              // a literal; null where the kernel says no more
  std::optional<uint32_t> offset = {};        // of the bad attribute's header in the request
  const AttributePolicy* policy = nullptr;    // that the bad attribute fails; null: not told
  std::optional<uint32_t> missing_type = {};  // of the top-level attribute that is missing
};

/// Empty when the request is accepted.
using Verdict = std::optional<Refusal>;
inline constexpr Verdict kAccepted = std::nullopt;

}  // namespace tavik_wlan

#endif  // REFERENCE_KERNEL_EMULATOR_VERDICT_H_
