// What received attributes must look like, and their validation in the kernel's manner.
#ifndef REFERENCE_KERNEL_EMULATOR_ATTRIBUTE_POLICY_H_
#define REFERENCE_KERNEL_EMULATOR_ATTRIBUTE_POLICY_H_

#include <cerrno>
#include <cstdint>
#include <optional>
#include <span>

#include "reference_kernel/emulator/attribute_reader.h"
#include "reference_kernel/emulator/message.h"
#include "reference_kernel/emulator/verdict.h"

namespace tavik_wlan {

/// What attributes of one type must look like; by default they are not supported.
struct AttributePolicy {
  enum class Type { kUnsupported, kU8, kBe16, kString, kBinary, kNested };
  Type type = Type::kUnsupported;
  uint32_t max_length = 0;                             // of a string, without its NUL
  std::span<const AttributePolicy> nested{};           // of what it holds, indexed by type
  const char* (*find_fault)(Bytes payload) = nullptr;  // the last check; null: none found
};

/// Validates an attribute, and what it holds, as strictly as the kernel does for new families. The
/// refusal may point to `policy` or to one of those nested in it.
Verdict validate(const Attribute& attribute, const AttributePolicy& policy);

/// Validates a run of attributes by the policies of their types, one after the other, and hands
/// each attribute to `take` where it is well.
template <typename Take>
Verdict validate_run(AttributeReader run, std::span<const AttributePolicy> policies, Take take) {
  while (const std::optional<Attribute> attribute = run.next()) {
    if (attribute->type == 0 || attribute->type >= policies.size()) {
      return Refusal{-EINVAL, "Unknown attribute type", attribute->offset};
    }
    if (const Verdict verdict = validate(*attribute, policies[attribute->type])) {
      return verdict;
    }
    take(*attribute);
  }
  if (run.has_leftover()) {
    return Refusal{-EINVAL, "bytes leftover after parsing attributes"};
  }
  return kAccepted;
}

}  // namespace tavik_wlan

#endif  // REFERENCE_KERNEL_EMULATOR_ATTRIBUTE_POLICY_H_
