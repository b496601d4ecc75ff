// What others say to the family and hear from it.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>

#include "datapathctl/capture.h"
#include "datapathctl/command.h"
#include "datapathctl/message_decoder.h"
#include "datapathctl/trace.h"

namespace datapathctl {

/// Shows, of the datagrams of any clients, what is about the family, and captures it where the
/// settings say so.
class Viewer {
 public:
  /// Takes the family's id, 0 where it is not known. Throws std::system_error when the capture
  /// can't be written.
  Viewer(const Settings& settings, uint16_t family_id);

  /// Shows a datagram, unless the capture takes the standard output. Throws std::system_error when
  /// the capture can't be written.
  void show(std::span<const uint8_t> datagram, Origin origin);

  /// Shows what is held back. Returns whether anything was about the family.
  bool finish();

 private:
  const Settings& settings_;
  MessageDecoder decoder_;
  MessagePrinter printer_;
  std::optional<CaptureWriter> capture_;
  bool has_shown_ = false;
};

}  // namespace datapathctl
