// What went wrong with a command, and why it may have.
#ifndef DATAPATHCTL_FAILURE_H_
#define DATAPATHCTL_FAILURE_H_

#include <cstdint>
#include <nlohmann/json.hpp>
#include <span>
#include <string>

#include "reference_host/netlink/corvil_netlink_control.h"

namespace datapathctl {

struct Failure {
  std::string reason;  // one line for the user, with the kernel's bytes as they are
  std::string hint{};  // the likely cause in one line; empty where none is known
  /// "errno", "from_kernel", "attribute", "value" and "missing", as far as they are known.
  nlohmann::ordered_json details = nlohmann::ordered_json::object();
};

/// Explains the failure that the netlink library recorded last, and that ended the exchange of a
/// request; the emulator is the path of the one that it went to, empty when it went to the kernel.
Failure explain(const CorvilNetlinkError& error, std::span<const uint8_t> request,
                const std::string& emulator);

/// "EPERM" and so on, or the number of an errno without a name.
std::string error_name(int error);

/// Why a socket of an emulator can't be connected to, by the errno; empty where that tells nothing.
std::string emulator_hint(int error, const std::string& path);

/// Where there is no trace of the kernel module.
inline constexpr char kModuleHint[] = "is the module tavik_wlan loaded?";

}  // namespace datapathctl

#endif  // DATAPATHCTL_FAILURE_H_
