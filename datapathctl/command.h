// What a person asked for, as plain values: parsing fills them, running takes them.
#ifndef DATAPATHCTL_COMMAND_H_
#define DATAPATHCTL_COMMAND_H_

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "datapath_proxy/include/corvil_datapath_proxy.h"
#include "datapathctl/faults.h"

namespace datapathctl {

/// The options that stand before the command.
struct Settings {
  std::string library;           // empty: the one beside this program
  std::string socket;            // of an emulator in another process; empty: the environment's
  bool emulate = false;          // an emulator in this process
  bool dry_run = false;          // no kernel at all: requests are only shown
  std::optional<Faults> faults;  // of the emulator
  std::string log_file;          // empty: none; "-": standard output
  bool log_diagnostic = false;
  bool log_android = false;
  bool trace = false;
  bool hex = false;
  std::string pcap;  // capture file; empty: none, or the environment's
  bool json = false;
  int timeout_ms = 0;  // 0: the netlink library's own
};

struct Operation;

/// A command with its arguments; each operation has its own of them. Ports are in network byte
/// order outside descriptors, as the library takes them.
struct Command {
  const Operation* operation = nullptr;  // null: there is only the text to print
  std::string text{};                    // help or version
  std::string device{};
  std::string from{};
  std::string to{};
  uint32_t selector = 0;
  std::vector<PortDescriptor> ports{};
  std::vector<PortDescriptor> old_ports{};
  IpsecInfo ipsec{};
  std::string address{};  // of a low-latency flow its source
  uint16_t port = 0;
  std::string destination{};
  uint16_t destination_port = 0;
  Faults faults{};
  std::string path{};
};

/// How a step ended: the exit status, and where it is not 0 one line for the user, perhaps with a
/// second one that hints at the likely cause. Bytes of the kernel are in them as they are.
struct [[nodiscard]] Result {
  int status = 0;
  std::string error{};
  std::string hint{};

  [[nodiscard]] bool ok() const { return status == 0; }
};

/// Bad usage or input.
inline Result usage_error(std::string error) { return {1, std::move(error)}; }

/// Refused by the kernel, or failed.
inline Result failure(std::string error, std::string hint = "") {
  return {2, std::move(error), std::move(hint)};
}

}  // namespace datapathctl

#endif  // DATAPATHCTL_COMMAND_H_
