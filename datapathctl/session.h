// What the commands of one run work with: the library, and the kernel behind it.
#pragma once

#include <cstdint>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "datapathctl/command.h"
#include "datapathctl/message_decoder.h"
#include "host_interfaces/corvil_log_services.h"
#include "reference_kernel/emulator/control.h"
#include "reference_kernel/emulator/emulator.h"

namespace datapathctl {

/// One at a time in a process, since the settings of the host's log and of its netlink library are
/// the process's.
class Session {
 public:
  /// Keeps the settings; nothing happens before the first use.
  explicit Session(const Settings& settings) : settings_(settings) {}
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  /// Forgets what the command before has shown, and opens the capture that is asked for. One on
  /// standard output takes that over; what is printed goes to standard error instead.
  Result begin_command();

  /// Makes the library and the kernel ready, once, as the settings say.
  Result start();

  /// Calls an exported function of the library, by the type of its prototype and its name, or by
  /// its address where that is known. It fails when the function returns -1, and when the library
  /// has logged an error: the query of ports returns 0 whatever became of it.
  template <typename Function, typename... Arguments>
  Result call(const char* name, void* address, Arguments... arguments) {
    if (Result begun = begin_call(name, &address); !begun.ok()) {
      return begun;
    }
    return end_call(reinterpret_cast<Function*>(address)(arguments...));
  }

  /// The requests of this command to the family that were acknowledged without an error, by the
  /// names of their commands.
  [[nodiscard]] const std::vector<std::string>& acknowledged() const { return acknowledged_; }

  /// The tuples of its last dump.
  [[nodiscard]] const std::vector<nlohmann::ordered_json>& tuples() const { return tuples_; }

  [[nodiscard]] const Settings& settings() const { return settings_; }

 private:
  Result start_kernel();
  Result start_logging();
  Result begin_call(const char* name, void** address);
  Result end_call(int result);
  [[nodiscard]] Result last_failure() const;
  void on_datagram(bool is_sent, std::span<const uint8_t> datagram);
  void on_request(const Message& message);
  void on_answer(const Message& message);
  void on_log_message(const LogSiteDescriptor& site, const char* line, const char* text);

  const Settings& settings_;
  std::optional<tavik_wlan::Emulator> emulator_;  // in this process
  bool started_ = false;
  MessageDecoder decoder_;
  std::vector<std::string> acknowledged_;
  std::vector<nlohmann::ordered_json> tuples_;
  nlohmann::ordered_json sequence_;  // the number of the last request
  nlohmann::ordered_json refusal_ = nlohmann::ordered_json::object();  // the last answer of failure
  std::optional<Result> failure_;  // the first of the current call
};

/// Calls a function of the library, which is loaded at run time or inside, by its prototype.
#ifdef CORVIL_LIBRARY
#define CALL_LIBRARY(session, function, ...) \
  (session).call<decltype(function)>(#function, nullptr, ##__VA_ARGS__)
#else
#define CALL_LIBRARY(session, function, ...) \
  (session).call<decltype(function)>(#function, reinterpret_cast<void*>(function), ##__VA_ARGS__)
#endif

/// Asks the emulator that serves at a path. A failure to, which is a std::system_error, is told
/// with a hint at its cause.
Result ask_emulator(const std::string& path,
                    const std::function<Result(tavik_wlan::ControlClient&)>& ask);

}  // namespace datapathctl
