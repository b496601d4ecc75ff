// What went wrong with a command, and why it may have.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "datapathctl/command.h"
#include "reference_host/netlink/corvil_netlink_control.h"

namespace datapathctl {

/// Explains the failure that the netlink library recorded last, and that ended the exchange of a
/// request; the emulator is the path of the one that it went to, empty when it went to the kernel.
/// The members are "errno", "from_kernel", "request", "attribute", "value" and "missing", as far as
/// they are known; "request" names the command that the family has refused.
Result explain(const CorvilNetlinkError& error, std::span<const uint8_t> request,
               const std::string& emulator);

/// "EPERM" and so on, or the number of an errno without a name.
std::string error_name(int error);

/// "EPERM" and so on, or the number of an errno without a name.
std::string error_name(int error);

/// Why a socket of an emulator can't be connected to, by the errno; empty where that tells nothing.
std::string emulator_hint(int error, const std::string& path);

}  // namespace datapathctl
