// Values of the attributes that corvil_nla_parse() has found.
#pragma once

#include <linux/netlink.h>

#include <cstring>
#include <optional>

namespace corvil::netlink {

/// The T that an attribute holds; nothing where it is null or too short.
template <typename T>
std::optional<T> value_of(const nlattr* attribute) {
  if (attribute == nullptr || attribute->nla_len < NLA_HDRLEN + sizeof(T)) {
    return {};
  }
  T value;
  memcpy(&value, attribute + 1, sizeof(value));
  return value;
}

}  // namespace corvil::netlink
