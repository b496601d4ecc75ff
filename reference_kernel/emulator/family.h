// The family TAVIK_WLAN.
#ifndef REFERENCE_KERNEL_EMULATOR_FAMILY_H_
#define REFERENCE_KERNEL_EMULATOR_FAMILY_H_

#include <cstdint>
#include <string>

#include "reference_kernel/emulator/controller.h"
#include "reference_kernel/emulator/netlink.h"
#include "reference_kernel/emulator/state.h"

namespace tavik_wlan {

/// What the controller tells about the family when it has the id `id`.
FamilyDescription describe_family(uint16_t id);

/// Handles a message to the family: the nlmsghdr and what follows. One that fails leaves `state` as
/// it is. Unless `description` is null it becomes the command and its arguments, such as
/// "ADD_TUPLES ipv4 tcp 443, ipv6 udp 4500"; it is unspecified after a failure.
Outcome handle_family_request(Bytes message, State& state, std::string* description);

}  // namespace tavik_wlan

#endif  // REFERENCE_KERNEL_EMULATOR_FAMILY_H_
