// What a person asked for, as plain values, and how it ended: parsing fills the one, running gives
// the other, and reporting prints that.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "datapath_proxy/include/corvil_datapath_proxy.h"

namespace datapathctl {

/// How much of each message is shown.
enum class Trace { kOff, kCompact, kFull };

/// The options that are not a command's own.
struct Settings {
  std::string library;   // empty: the installed one
  std::string socket;    // of an emulator in another process; empty: the environment's
  bool emulate = false;  // an emulator in this process
  bool dry_run = false;  // no kernel at all: requests are only shown
  std::string faults;    // of the emulator, words as of tavik_wlan::parse_faults(); empty: none
  std::string log_file;  // empty: none; "-": standard output
  bool log_diagnostic = false;
  bool log_android = false;
  Trace trace = Trace::kOff;
  bool time = false;  // before each message
  bool hex = false;
  std::string pcap;  // capture file; empty: none, or the environment's; "-": standard output
  bool json = false;
  int timeout_ms = 0;  // 0: the netlink library's own

  /// Whether a command's own messages are shown.
  [[nodiscard]] bool shows_messages() const { return trace != Trace::kOff || dry_run; }
};

struct PortList {
  std::vector<std::string> words{};  // as a person wrote them
  std::vector<PortDescriptor> ports{};

  [[nodiscard]] const PortDescriptor* data() const { return ports.data(); }
  [[nodiscard]] uint32_t size() const { return static_cast<uint32_t>(ports.size()); }
};

struct Operation;

/// A command with its arguments; each operation has its own of them. Ports are in host byte order.
struct Command {
  const Operation* operation = nullptr;  // null: the words did not tell
  std::string device{};
  std::string from{};
  std::string to{};
  uint32_t selector = 0;
  PortList ports{};
  PortList old_ports{};
  IpsecInfo ipsec{};
  std::string address{};  // of a low-latency flow its source
  uint16_t port = 0;
  std::string destination{};
  uint16_t destination_port = 0;
  std::string faults{};  // as of the settings
  std::string path{};
  bool force = false;
  std::string text{};  // the help
};

/// How a command, or a step of it, ended. Bytes of the kernel are in the texts as they are.
struct [[nodiscard]] Result {
  int status = 0;                    // the exit status
  std::string error{};               // one line; empty of a failure that is reported already
  std::string hint{};                // at the likely cause of the failure, in one line
  std::vector<std::string> notes{};  // what else a person should know, one line each
  std::string text{};                // what a person asked for
  nlohmann::ordered_json members = nlohmann::ordered_json::object();  // the same for a program

  [[nodiscard]] bool ok() const { return status == 0; }
};

/// Bad usage or input.
inline Result usage_error(std::string error) { return {1, std::move(error)}; }

/// Refused by the kernel, or failed.
inline Result failure(std::string error, std::string hint = "") {
  return {2, std::move(error), std::move(hint)};
}

}  // namespace datapathctl
