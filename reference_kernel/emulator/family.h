// The family TAVIK_WLAN.
#pragma once

#include "reference_kernel/emulator/netlink.h"
#include "reference_kernel/emulator/state.h"

namespace tavik_wlan {

/// Handles a message to the family: the nlmsghdr and what follows. One that fails leaves `state` as
/// it is.
Outcome handle_family_request(Bytes message, State& state);

}  // namespace tavik_wlan
