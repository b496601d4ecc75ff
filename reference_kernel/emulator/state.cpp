#include "reference_kernel/emulator/state.h"

#include <sstream>

#include "kernel_interface/protocol.h"

namespace tavik_wlan {

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
    text << "lowlat " << to_text(flow.source) << ' ' << flow.source_port << ' '
         << to_text(flow.destination) << ' ' << flow.destination_port << '\n';
  }
  return text.str();
}

}  // namespace tavik_wlan
