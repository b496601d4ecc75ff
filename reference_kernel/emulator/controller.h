// The generic netlink controller, which tells about families.
#ifndef REFERENCE_KERNEL_EMULATOR_CONTROLLER_H_
#define REFERENCE_KERNEL_EMULATOR_CONTROLLER_H_

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "reference_kernel/emulator/netlink.h"

namespace tavik_wlan {

/// What the controller tells about a family.
struct FamilyDescription {
  struct Operation {
    uint32_t command;
    uint32_t flags;  // GENL_CMD_CAP_* and GENL_UNS_ADMIN_PERM
  };
  uint16_t id;
  std::string name;
  uint32_t version;
  uint32_t max_attribute;
  std::vector<Operation> operations;
};

/// The controller itself.
FamilyDescription describe_controller();

/// Handles a message to the controller: the nlmsghdr and what follows. `families` are the
/// registered ones, the controller among them.
Outcome handle_controller_request(Bytes message, std::span<const FamilyDescription> families);

}  // namespace tavik_wlan

#endif  // REFERENCE_KERNEL_EMULATOR_CONTROLLER_H_
