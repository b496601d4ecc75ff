// A walk over a run of received attributes.
#ifndef REFERENCE_KERNEL_EMULATOR_ATTRIBUTE_READER_H_
#define REFERENCE_KERNEL_EMULATOR_ATTRIBUTE_READER_H_

#include <cstddef>
#include <cstdint>
#include <optional>

#include "reference_kernel/emulator/message.h"

namespace tavik_wlan {

struct Attribute {
  uint16_t type;    // without its flags
  bool nested;      // has NLA_F_NESTED
  uint32_t offset;  // of its header from the start of the message, in bytes
  Bytes payload;
};

class AttributeReader {
 public:
  /// Reads `run`, which lies `offset` bytes into its message.
  AttributeReader(Bytes run, uint32_t offset) : left_(run), offset_(offset) {}

  /// Reads what `container` holds.
  explicit AttributeReader(const Attribute& container);

  /// The next attribute; nothing at the end of the run and before an attribute whose length is
  /// below that of its header or exceeds what is left.
  std::optional<Attribute> next();

  /// After next() gave nothing: whether it stopped before the end of the run.
  [[nodiscard]] bool has_leftover() const { return !left_.empty(); }

 private:
  Bytes left_;
  uint32_t offset_;
};

}  // namespace tavik_wlan

#endif  // REFERENCE_KERNEL_EMULATOR_ATTRIBUTE_READER_H_
