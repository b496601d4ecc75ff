#include "reference_kernel/emulator/state.h"

#include <sstream>

#include "kernel_interface/protocol.h"

namespace tavik_wlan {

std::optional<Address> Address::parse(const std::string& text) {
  Address address;
  if (inet_pton(AF_INET, text.c_str(), address.bytes.data()) == 1) {
    return address;
  }
  address.ip_proto = TAVIK_WLAN_IP_PROTO_IPV6;
  if (inet_pton(AF_INET6, text.c_str(), address.bytes.data()) == 1) {
    return address;
  }
  return std::nullopt;
}

std::string Address::text() const {
  std::array<char, INET6_ADDRSTRLEN> text{};
  return inet_ntop(ip_proto == TAVIK_WLAN_IP_PROTO_IPV4 ? AF_INET : AF_INET6, bytes.data(),
                   text.data(), text.size());
}

std::string State::text() const {
  std::ostringstream text;
  for (const DatapathTuple& tuple : tuples) {
    text << "tuple " << tuple_text(tuple) << '\n';
  }
  for (const auto& [selector, device] : devices) {
    text << "device " << +selector << ' ' << device << '\n';
  }
  for (const auto& [selector, from, to] : forwardings) {
    text << "forward " << +selector << ' ' << from << ' ' << to << '\n';
  }
  if (encapsulation) {
    text << "encap " << encapsulation->port << encapsulation->action << '\n';
  }
  for (const Flow& flow : flows) {
    text << "lowlat " << flow.source.text() << ' ' << flow.source_port << ' '
         << flow.destination.text() << ' ' << flow.destination_port << '\n';
  }
  return text.str();
}

}  // namespace tavik_wlan
