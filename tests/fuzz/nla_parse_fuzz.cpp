// The reference host's attribute parser, given any bytes. Input: the run of attributes, then the
// highest type in one byte.

#include <fuzzer/FuzzedDataProvider.h>
#include <linux/netlink.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "host_interfaces/corvil_netlink.h"
#include "tests/fuzz/require.h"

namespace {

using fuzz::require;

/// Whether an attribute, its padding aside, lies within the run at a place where one may start.
bool lies_within(const nlattr* attribute, const std::vector<uint8_t>& run) {
  const auto address = reinterpret_cast<uintptr_t>(attribute);
  const auto start = reinterpret_cast<uintptr_t>(run.data());
  if (address < start || address - start + NLA_HDRLEN > run.size()) {
    return false;
  }
  const size_t offset = address - start;
  return offset % NLA_ALIGNTO == 0 && attribute->nla_len >= NLA_HDRLEN &&
         attribute->nla_len <= run.size() - offset;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider input(data, size);
  const auto max_type = input.ConsumeIntegral<uint8_t>();
  const auto run = input.ConsumeRemainingBytes<uint8_t>();
  // What the table held before must be gone after.
  static constexpr nlattr kLeftover{};
  std::vector<const nlattr*> table(size_t{max_type} + 1, &kLeftover);

  const int result = corvil_nla_parse(reinterpret_cast<const nlattr*>(run.data()), table.data(),
                                      static_cast<uint32_t>(run.size()), max_type);

  require(result == 0 || result == -1);
  for (size_t type = 0; type < table.size(); ++type) {
    const nlattr* attribute = table[type];
    require(attribute == nullptr ||
            (lies_within(attribute, run) && (attribute->nla_type & NLA_TYPE_MASK) == type));
  }
  return 0;
}
