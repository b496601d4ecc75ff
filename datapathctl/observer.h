// What the exchanges of a command have shown, as they were sent and answered.
#pragma once

#include <cstdint>
#include <vector>

#include "kernel_interface/protocol.h"

namespace datapathctl {

struct Observer {
  std::vector<uint8_t> request{};       // the last one, to the family or to the controller
  std::vector<uint8_t> sent{};          // commands of the family
  std::vector<uint8_t> acknowledged{};  // those of them that were, without an error
  std::vector<DatapathTuple> tuples{};  // of the last dump

  /// Takes a request, which is a whole message.
  void on_sent(tavik_wlan::Bytes message);

  /// Takes a datagram that answers it, whatever it holds.
  void on_received(tavik_wlan::Bytes datagram);
};

}  // namespace datapathctl
