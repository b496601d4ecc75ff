#include "reference_kernel/emulator/entries.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdio>
#include <span>

#include "kernel_interface/tavik_wlan.h"

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

std::string ipv4_text(std::span<const uint8_t> bytes) {
  return std::to_string(bytes[0]) + '.' + std::to_string(bytes[1]) + '.' +
         std::to_string(bytes[2]) + '.' + std::to_string(bytes[3]);
}

/// Whether the kernel writes the last four bytes as those of an IPv4 address: where it is mapped to
/// IPv6, or in a tunnel's address (ISATAP).
bool ends_in_ipv4(const std::array<uint16_t, 8>& words) {
  const bool is_mapped = words[5] == 0xffff && std::all_of(words.begin(), words.begin() + 5,
                                                           [](uint16_t word) { return word == 0; });
  return is_mapped || ((words[4] & ~0x0200) == 0 && words[5] == 0x5efe);
}

std::string ipv6_text(const std::array<uint8_t, 16>& bytes) {
  std::array<uint16_t, 8> words{};
  for (size_t i = 0; i < words.size(); ++i) {
    words.at(i) = static_cast<uint16_t>(bytes.at(2 * i) << 8 | bytes.at(2 * i + 1));
  }
  const bool dotted = ends_in_ipv4(words);
  const std::span<const uint16_t> written = std::span(words).first(dotted ? 6 : 8);
  // The first of the longest runs of zeros, if of two or more, becomes "::".
  size_t run = written.size();
  size_t longest = 1;
  for (size_t i = 0; i < written.size(); ++i) {
    size_t end = i;
    while (end < written.size() && written[end] == 0) {
      ++end;
    }
    if (end - i > longest) {
      run = i;
      longest = end - i;
    }
  }
  std::string text;
  const auto append = [&](const std::string& part) {
    if (!text.empty() && text.back() != ':') {
      text += ':';
    }
    text += part;
  };
  for (size_t i = 0; i < written.size(); ++i) {
    if (i == run) {
      text += "::";
      i += longest - 1;
      continue;
    }
    std::array<char, sizeof("ffff")> word{};
    snprintf(word.data(), word.size(), "%x", written[i]);
    append(word.data());
  }
  if (dotted) {
    append(ipv4_text(std::span(bytes).last(4)));
  }
  return text;
}

std::string to_text(const Address& address) {
  return address.ip_version == 4 ? ipv4_text(address.bytes) : ipv6_text(address.bytes);
}

}  // namespace

std::optional<Address> parse_address(const std::string& written) {
  const std::string text = without_leading_zeros(written);
  Address address;
  if (inet_pton(AF_INET, text.c_str(), address.bytes.data()) == 1) {
    return address;
  }
  address = {.ip_version = 6, .bytes = {}};
  if (inet_pton(AF_INET6, text.c_str(), address.bytes.data()) == 1) {
    return address;
  }
  return std::nullopt;
}

std::string to_text(const Tuple& tuple) {
  const std::string version = tuple.ip_version == TAVIK_WLAN_IP_PROTO_IPV4 ? "ipv4 " : "ipv6 ";
  if (tuple.trans_proto == TAVIK_WLAN_TRANS_PROTO_ESP) {
    std::array<char, sizeof("0x00000000")> spi{};
    snprintf(spi.data(), spi.size(), "0x%08x", tuple.key);
    return version + "esp " + spi.data();
  }
  const char* protocol = tuple.trans_proto == TAVIK_WLAN_TRANS_PROTO_TCP ? "tcp " : "udp ";
  return version + protocol + std::to_string(tuple.key);
}

std::string to_text(const Forwarding& forwarding) {
  return std::to_string(forwarding.selector) + ' ' + forwarding.from + ' ' + forwarding.to;
}

std::string to_text(const Flow& flow) {
  return to_text(flow.source) + ' ' + std::to_string(flow.source_port) + ' ' +
         to_text(flow.destination) + ' ' + std::to_string(flow.destination_port);
}

}  // namespace tavik_wlan
