#include "reference_kernel/emulator/attribute_policy.h"

#include <algorithm>
#include <cstddef>

namespace tavik_wlan {
namespace {

using Type = AttributePolicy::Type;

/// 0 when the payload of such an attribute has no fixed length.
size_t fixed_length(Type type) {
  switch (type) {
    case Type::kU8:
      return sizeof(uint8_t);
    case Type::kBe16:
      return sizeof(uint16_t);
    default:
      return 0;
  }
}

/// Whatever a string has after its first NUL counts as part of it, but for a NUL at its end.
int check_string(Bytes payload, size_t max_length) {
  const Bytes start = payload.first(std::min(payload.size(), max_length + 1));
  if (std::find(start.begin(), start.end(), std::byte{0}) == start.end()) {
    return -EINVAL;
  }
  const size_t length = payload.size() - (payload.back() == std::byte{0} ? 1 : 0);
  return length > max_length ? -ERANGE : 0;
}

/// Returns the error of an attribute that cannot even be looked into.
int check_payload(Bytes payload, const AttributePolicy& policy) {
  switch (policy.type) {
    case Type::kString:
      return check_string(payload, policy.max_length);
    case Type::kNested:
      return !payload.empty() && payload.size() < sizeof(nlattr) ? -ERANGE : 0;
    default:
      return 0;
  }
}

}  // namespace

Verdict validate(const Attribute& attribute, const AttributePolicy& policy) {
  const auto refusal = [&](int error, const char* message) {
    return Refusal{error, message, attribute.offset, &policy};
  };
  const size_t length = fixed_length(policy.type);
  if (length != 0 && attribute.payload.size() != length) {
    return refusal(-EINVAL, "invalid attribute length");
  }
  if (policy.type == Type::kUnsupported) {
    return refusal(-EINVAL, "Unsupported attribute");
  }
  if (attribute.nested != (policy.type == Type::kNested)) {
    return refusal(-EINVAL,
                   attribute.nested ? "NLA_F_NESTED not expected" : "NLA_F_NESTED is missing");
  }
  if (const int error = check_payload(attribute.payload, policy)) {
    return refusal(error, "Attribute failed policy validation");
  }
  if (policy.type == Type::kNested) {
    return validate_run(AttributeReader(attribute), policy.nested, [](const Attribute&) {});
  }
  const char* fault = policy.find_fault != nullptr ? policy.find_fault(attribute.payload) : nullptr;
  return fault == nullptr ? kAccepted : Refusal{-EINVAL, fault, attribute.offset};
}

}  // namespace tavik_wlan
