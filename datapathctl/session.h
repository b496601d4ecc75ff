// What the commands of one run work with: the library and the kernel behind it, and the way results
// reach the user.
#ifndef DATAPATHCTL_SESSION_H_
#define DATAPATHCTL_SESSION_H_

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "datapathctl/command.h"
#include "datapathctl/failure.h"
#include "datapathctl/message_decoder.h"
#include "host_interfaces/corvil_log_services.h"
#include "reference_host/netlink/corvil_netlink_control.h"
#include "reference_kernel/emulator/emulator.h"

namespace datapathctl {

/// Prints an object as one line of JSON.
void print_json(const nlohmann::ordered_json& object);

/// One at a time in a process, since the settings of the host's log and of its netlink library are
/// the process's.
class Session {
 public:
  /// Keeps the settings; nothing happens before the first use.
  explicit Session(const Settings& settings) : settings_(settings) {}
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;
  ~Session();

  /// Calls an exported function of the library, by the type of its prototype and its name, and
  /// reports under the command's name what it returned. It fails when that is -1, and when the
  /// library has logged an error: the query of ports returns 0 whatever became of it.
  template <typename Function, typename... Arguments>
  Result call(const char* command, const char* function, Arguments... arguments) {
    void* address = nullptr;
    if (Result begun = begin_call(function, &address); !begun.ok()) {
      return begun;
    }
    return end_call(command, reinterpret_cast<Function*>(address)(arguments...));
  }

  /// Reads what the kernel holds, one line a thing. A failure is reported under the command's name.
  Result read_state(const char* command, std::string* state);

  /// Injects faults into the emulator of this process, in place of those before; nothing in a dry
  /// run.
  Result inject(const Faults& faults);

  [[nodiscard]] const Settings& settings() const { return settings_; }

 private:
  Result start();
  Result load_library();
  Result start_kernel();
  Result start_logging();
  Result start_netlink();
  Result begin_call(const char* function, void** address);
  Result end_call(const char* command, int result);
  Result report(const char* command, int result) const;
  [[nodiscard]] Failure last_failure() const;
  void on_message(CorvilNetlinkDirection direction, std::span<const uint8_t> datagram);
  void on_log_message(const LogSiteDescriptor& site, const char* line, const char* text);

  const Settings& settings_;
  std::optional<tavik_wlan::Emulator> emulator_;  // in this process
  void* library_ = nullptr;                       // of dlopen(); null: not started yet
  MessageDecoder decoder_;                        // of what is shown
  std::vector<uint8_t> last_request_;
  std::optional<Failure> failure_;  // the first of the current call
};

}  // namespace datapathctl

#endif  // DATAPATHCTL_SESSION_H_
