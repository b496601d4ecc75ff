#include "reference_kernel/emulator/address.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdio>

#include "kernel_interface/protocol.h"

namespace tavik_wlan {
namespace {

std::string without_leading_zeros(const std::string& address) {
  std::string result;
  size_t number = 0;  // where the one being read starts in the result
  for (const char character : address) {
    const bool is_digit = std::isxdigit(static_cast<unsigned char>(character)) != 0;
    if (is_digit && result.substr(number) == "0") {
      result.pop_back();
    }
    result += character;
    number = is_digit ? number : result.size();
  }
  return result;
}

std::string libc_text(int family, const uint8_t* address) {
  std::array<char, INET6_ADDRSTRLEN> text{};
  return inet_ntop(family, address, text.data(), text.size());
}

/// Whether the address starts with as many zero bytes, and no more.
bool has_zeros(const Address& address, ptrdiff_t count) {
  const auto end = std::ranges::find_if(address.bytes, [](uint8_t byte) { return byte != 0; });
  return end - address.bytes.begin() == count;
}

}  // namespace

std::optional<Address> parse_address(const std::string& written) {
  const std::string text = without_leading_zeros(written);
  Address address;
  if (inet_pton(AF_INET, text.c_str(), address.bytes.data()) == 1) {
    return address;
  }
  address = {.ip_proto = TAVIK_WLAN_IP_PROTO_IPV6, .bytes = {}};
  if (inet_pton(AF_INET6, text.c_str(), address.bytes.data()) == 1) {
    return address;
  }
  return std::nullopt;
}

std::string to_text(const Address& address) {
  if (address.ip_proto == TAVIK_WLAN_IP_PROTO_IPV4) {
    return libc_text(AF_INET, address.bytes.data());
  }
  std::array<uint16_t, 8> words{};
  std::ranges::transform(load<decltype(words)>(address.bytes), words.begin(), ntohs);
  if (has_zeros(address, 12) || has_zeros(address, 13)) {
    std::array<char, sizeof("::ffff:ffff")> text{};
    snprintf(text.data(), text.size(), "::%x:%x", words[6], words[7]);
    return text.data();
  }
  if ((words[4] & ~0x0200) == 0 && words[5] == 0x5efe) {
    Address other = address;
    std::fill(other.bytes.begin() + 12, other.bytes.end(), UINT8_MAX);
    const std::string text = libc_text(AF_INET6, other.bytes.data());
    return text.substr(0, text.size() - std::string("ffff:ffff").size()) +
           libc_text(AF_INET, address.bytes.data() + 12);
  }
  return libc_text(AF_INET6, address.bytes.data());
}

}  // namespace tavik_wlan
