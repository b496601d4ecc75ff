// The generic netlink controller, which tells about families.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "reference_kernel/emulator/netlink.h"

namespace tavik_wlan {

/// What the controller tells about a family.
struct FamilyDescription {
  uint16_t id;
  std::string name;
  uint32_t version;
  uint32_t max_attribute;
  std::span<const CommandInfo> commands;
};

/// The controller itself.
FamilyDescription describe_controller();

/// Handles a message to the controller: the nlmsghdr and what follows. `families` are the
/// registered ones, the controller among them.
Outcome handle_controller_request(Bytes message, std::span<const FamilyDescription> families);

}  // namespace tavik_wlan
