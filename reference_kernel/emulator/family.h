// The family TAVIK_WLAN.
#pragma once

#include <cstdint>

#include "reference_kernel/emulator/controller.h"
#include "reference_kernel/emulator/netlink.h"
#include "reference_kernel/emulator/state.h"

namespace tavik_wlan {

/// What the controller tells about the family when it has the id `id`.
FamilyDescription describe_family(uint16_t id);

/// Handles a message to the family: the nlmsghdr and what follows. One that fails leaves `state` as
/// it is.
Outcome handle_family_request(Bytes message, State& state);

}  // namespace tavik_wlan
