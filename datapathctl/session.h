// What the commands of one run work with: the library, and the kernel behind it.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "datapathctl/command.h"
#include "datapathctl/message_decoder.h"
#include "datapathctl/observer.h"
#include "datapathctl/trace.h"
#include "host_interfaces/corvil_log_services.h"
#include "reference_host/netlink/corvil_netlink_control.h"
#include "reference_kernel/emulator/emulator.h"

namespace datapathctl {

/// One at a time in a process, since the settings of the host's log and of its netlink library are
/// the process's.
class Session {
 public:
  /// Keeps the settings; nothing happens before the first use.
  explicit Session(const Settings& settings) : settings_(settings), printer_(settings) {}
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  /// Forgets what the command before has shown.
  void begin_command() { observer_ = {}; }

  /// Calls an exported function of the library, by the type of its prototype and its name. It fails
  /// when the function returns -1, and when the library has logged an error: the query of ports
  /// returns 0 whatever became of it.
  template <typename Function, typename... Arguments>
  Result call(const char* function, Arguments... arguments) {
    void* address = nullptr;
    if (Result begun = begin_call(function, &address); !begun.ok()) {
      return begun;
    }
    return end_call(reinterpret_cast<Function*>(address)(arguments...));
  }

  /// What the exchanges of this command have shown.
  [[nodiscard]] const Observer& observer() const { return observer_; }

  /// Reads what the kernel holds, one line a thing; nothing of a kernel that does not tell, and in
  /// a dry run.
  Result read_state(std::optional<std::string>* state);

  /// Injects faults into the emulator, in this process or in another, in place of those before;
  /// nothing in a dry run.
  Result inject(const Faults& faults);

  [[nodiscard]] const Settings& settings() const { return settings_; }

 private:
  Result start();
  Result start_kernel();
  Result start_logging();
  Result start_netlink();
  Result begin_call(const char* function, void** address);
  Result end_call(int result);
  [[nodiscard]] Result last_failure() const;
  void on_message(CorvilNetlinkDirection direction, std::span<const uint8_t> datagram);
  void show(CorvilNetlinkDirection direction, std::span<const uint8_t> datagram);
  void on_log_message(const LogSiteDescriptor& site, const char* line, const char* text);

  const Settings& settings_;
  std::optional<tavik_wlan::Emulator> emulator_;  // in this process
  bool started_ = false;
  MessageDecoder decoder_;  // of what is shown
  MessagePrinter printer_;
  Observer observer_;
  std::optional<Result> failure_;  // the first of the current call
};

/// Calls a function of the library by its prototype.
#define CALL_LIBRARY(session, function, ...) \
  (session).call<decltype(function)>(#function, ##__VA_ARGS__)

}  // namespace datapathctl
