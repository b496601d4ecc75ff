// What went wrong with a command, and why it may have.
#ifndef DATAPATHCTL_FAILURE_H_
#define DATAPATHCTL_FAILURE_H_

#include <stdexcept>
#include <string>
#include <utility>

#include "datapathctl/message_decoder.h"
#include "reference_host/netlink/corvil_netlink_control.h"

namespace datapathctl {

/// A call that the kernel refused or that did not reach it; what() is one line for the user, with
/// the kernel's bytes as they are.
class CallFailed : public std::runtime_error {
 public:
  explicit CallFailed(const std::string& what, std::string hint = "")
      : std::runtime_error(what), hint_(std::move(hint)) {}

  /// The likely cause in one line; empty where none is known.
  [[nodiscard]] const std::string& hint() const { return hint_; }

 private:
  std::string hint_;
};

/// A failed call of the library, as things stood when it failed.
struct Failure {
  CorvilNetlinkError error{};  // of the netlink library; its errno is 0 where that had no part
  std::string request;         // the last one sent
  std::string message;         // the library's own, at level ERR
  NamedAttribute attribute{};  // the one of the request that the kernel complained of
  std::string missing{};       // the name of the one that the kernel missed

  /// One line for the user, with the kernel's bytes as they are.
  [[nodiscard]] std::string reason() const;

  /// The likely cause in one line; empty where none is known. The emulator is the path of the one
  /// that the request went to, empty when it went to the kernel.
  [[nodiscard]] std::string hint(const std::string& emulator) const;

  /// Adds what is known to a JSON object: "reason", "errno", "from_kernel", "attribute", "value",
  /// "missing".
  void describe(nlohmann::ordered_json* object) const;

 private:
  [[nodiscard]] bool is_unknown_family() const;
};

/// Why a socket of an emulator can't be connected to, by the errno; empty where that tells nothing.
std::string emulator_hint(int error, const std::string& path);

/// Where there is no trace of the kernel module.
extern const char kModuleHint[];

}  // namespace datapathctl

#endif  // DATAPATHCTL_FAILURE_H_
