// What the commands of one run work with: the library and the kernel behind it, and the way results
// reach the user.
#ifndef DATAPATHCTL_SESSION_H_
#define DATAPATHCTL_SESSION_H_

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "datapathctl/emulator_folder.h"
#include "datapathctl/failure.h"
#include "datapathctl/message_decoder.h"
#include "datapathctl/proxy_library.h"
#include "host_interfaces/corvil_log_services.h"
#include "reference_host/netlink/corvil_netlink_control.h"
#include "reference_kernel/emulator/emulator.h"

namespace datapathctl {

/// The options that stand before the command.
struct Settings {
  std::string library;   // empty: the one beside this program
  std::string socket;    // of an emulator in another process; empty: the real kernel
  bool emulate = false;  // an emulator in this process
  bool dry_run = false;  // no kernel at all: requests are only shown
  std::vector<std::string> misbehaviour;
  std::string log_file;  // empty: none; "-": standard output
  bool log_diagnostic = false;
  bool log_android = false;
  bool trace = false;
  bool hex = false;
  std::string pcap;  // capture file; empty: none, or the environment's
  bool json = false;
  uint32_t timeout_ms = 0;  // 0: the netlink library's own
};

/// What stands for the family's id in a dry run: beyond those that a kernel gives.
inline constexpr uint16_t kDryRunFamilyId = 65535;

/// An exported function of the library, by the type of its prototype and its name.
template <typename Function>
struct LibraryFunction {
  const char* name;
};
#define LIBRARY_FUNCTION(function) \
  ::datapathctl::LibraryFunction<decltype(function)> { #function }

/// Prints an object as one line of JSON.
void print_json(const nlohmann::ordered_json& object);

/// One at a time in a process, since the host's log settings and trace hook are the process's.
class Session {
 public:
  /// Keeps the settings, which may still be parsed into; nothing happens before the first use.
  explicit Session(const Settings& settings) : settings_(settings) {}
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;
  ~Session();

  /// Calls an exported function of the library and reports its result under the command's name.
  /// Throws CallFailed with the reason when that is -1 or an error was logged.
  template <typename Function, typename... Arguments>
  void call(const char* command, LibraryFunction<Function> function, Arguments... arguments) {
    start();
    begin_call();
    report(command, library_->symbol<Function>(function.name)(arguments...));
  }

  /// What the kernel holds, one line a thing. When it can't be read, reports that under the
  /// command's name and throws CallFailed.
  std::string kernel_state(const char* command);

  /// Makes the emulator of this process misbehave; nothing in a dry run. Throws UsageError on bad
  /// words and when there is no emulator.
  void misbehave(const std::vector<std::string>& words);

  [[nodiscard]] const Settings& settings() const { return settings_; }

 private:
  void start();
  void start_kernel();
  void start_logging();
  void start_capture();
  void begin_call();
  void report(const char* command, int result);
  [[nodiscard]] Failure make_failure(std::string message) const;
  void on_message(CorvilNetlinkDirection direction, std::span<const uint8_t> datagram);
  void on_log_message(const LogSiteDescriptor& site, const char* line, const char* text);

  const Settings& settings_;
  std::string emulator_path_;  // empty: the real kernel
  std::optional<EmulatorFolder> emulator_folder_;
  std::optional<tavik_wlan::Emulator> emulator_;  // in this process
  std::optional<ProxyLibrary> library_;
  MessageDecoder decoder_;
  std::string last_request_;
  std::vector<uint8_t> last_request_bytes_;
  std::optional<Failure> failure_;  // the first of the current call
};

}  // namespace datapathctl

#endif  // DATAPATHCTL_SESSION_H_
