#include "reference_kernel/emulator/attribute_reader.h"

#include <linux/netlink.h>

#include <algorithm>

namespace tavik_wlan {

AttributeReader::AttributeReader(const Attribute& container)
    : AttributeReader(container.payload, container.offset + NLA_HDRLEN) {}

std::optional<Attribute> AttributeReader::next() {
  if (left_.size() < sizeof(nlattr)) {
    return std::nullopt;
  }
  const auto header = load<nlattr>(left_);
  const size_t length = header.nla_len;
  if (length < sizeof(nlattr) || length > left_.size()) {
    return std::nullopt;
  }
  const Attribute attribute{
      .type = static_cast<uint16_t>(header.nla_type & NLA_TYPE_MASK),
      .nested = (header.nla_type & NLA_F_NESTED) != 0,
      .offset = offset_,
      .payload = left_.first(length).subspan(sizeof(nlattr)),
  };
  // The last attribute may come without its padding.
  const size_t step = std::min<size_t>(NLA_ALIGN(length), left_.size());
  left_ = left_.subspan(step);
  offset_ += static_cast<uint32_t>(step);
  return attribute;
}

}  // namespace tavik_wlan
