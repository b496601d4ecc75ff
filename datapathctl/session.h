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

/// What the exchanges of a command have shown.
struct Observed {
  std::vector<std::string> sent{};               // requests to the family, by the names of commands
  std::vector<std::string> acknowledged{};       // those of them that were, without an error
  std::vector<nlohmann::ordered_json> tuples{};  // of the last dump
};

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

  [[nodiscard]] const Observed& observed() const { return observed_; }

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
  Observed observed_;
  nlohmann::ordered_json sequence_;  // the number of the last request
  nlohmann::ordered_json refusal_ = nlohmann::ordered_json::object();  // the last answer of failure
  std::optional<Result> failure_;  // the first of the current call
};

/// Makes the library ready for find_function(). It fails when it cannot be had, and when the
/// settings ask for what it lacks here.
Result load_library(const Settings& settings);

/// Finds an exported function of the library by its name, unless the library is inside.
Result find_function(const char* name, void** address);

/// Calls a function of the library by its prototype.
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
