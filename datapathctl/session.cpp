#include "datapathctl/session.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <random>
#include <system_error>

#include "datapathctl/failure.h"
#include "datapathctl/library.h"
#include "datapathctl/report.h"
#include "reference_host/log/corvil_log_control.h"
#include "reference_kernel/emulator/control.h"

namespace datapathctl {
namespace {

/// What stands for the family's id in a dry run: beyond those that a kernel gives.
constexpr uint16_t kDryRunFamilyId = 65535;

Result read_emulator_state(const std::string& emulator, std::optional<std::string>* state) {
  const std::chrono::milliseconds patience{corvil_netlink_timeout()};
  try {
    *state = tavik_wlan::ControlClient(emulator, patience).state();
    return {};
  } catch (const std::system_error& error) {
    const int number = error.code().value();
    return failure(
        "cannot read the emulator's state at " + emulator + ": " +
            (number == ETIMEDOUT ? "no answer within " + std::to_string(patience.count()) + " ms"
                                 : error.code().message()),
        emulator_hint(number, emulator));
  }
}

/// "name(): text" without the name.
std::string without_name(const char* text) {
  const char* colon = strstr(text, "(): ");
  return colon != nullptr ? colon + strlen("(): ") : text;
}

}  // namespace

Result Session::start() {
  if (started_) {
    return {};
  }
  if (Result loaded = load_library(settings_); !loaded.ok()) {
    return loaded;
  }
  started_ = true;
  for (Result (Session::*step)() :
       {&Session::start_kernel, &Session::start_logging, &Session::start_netlink}) {
    if (Result result = (this->*step)(); !result.ok()) {
      return result;
    }
  }
  return {};
}

Result Session::start_netlink() {
  corvil_netlink_set_timeout(settings_.timeout_ms);
  if (corvil_netlink_timeout() == -1) {
    return usage_error(corvil_netlink_last_error()->message);
  }
  corvil_netlink_set_trace(
      [](CorvilNetlinkDirection direction, const void* bytes, size_t length, void* session) {
        static_cast<Session*>(session)->on_message(direction,
                                                   {static_cast<const uint8_t*>(bytes), length});
      },
      this);
  const int result = settings_.pcap.empty() ? corvil_netlink_check_capture()
                                            : corvil_netlink_open_capture(settings_.pcap.c_str());
  return result == 0 ? Result{} : failure(corvil_netlink_last_error()->message);
}

Result Session::start_kernel() {
  if (settings_.dry_run) {
    corvil_netlink_set_dry_run(kDryRunFamilyId);
    decoder_ = MessageDecoder(kDryRunFamilyId);
  } else if (settings_.emulate) {
    // An abstract address leaves no file behind; nobody can guess this one and take it first.
    emulator_.emplace("@datapathctl-" + std::to_string(getpid()) + "-" +
                      std::to_string(std::random_device()()));
    corvil_netlink_set_emulator(emulator_->path().c_str());
  } else if (!settings_.socket.empty()) {
    corvil_netlink_set_emulator(settings_.socket.c_str());
  }
  if (!settings_.faults || settings_.dry_run) {
    return {};
  }
  if (!emulator_) {
    return usage_error("--misbehave is for an emulator that is started here");
  }
  emulator_->inject(tavik_wlan::parse_faults(*settings_.faults));
  return {};
}

Result Session::start_logging() {
  if (!settings_.log_file.empty()) {
    logging_fd = settings_.log_file == "-" ? stdout : fopen(settings_.log_file.c_str(), "ae");
    if (logging_fd == nullptr) {
      return usage_error("cannot write the log file " + settings_.log_file + ": " +
                         std::generic_category().message(errno));
    }
    log_to_file = 1;
  }
  // The diagnostic sink is always on: from it comes the reason of a failure before any request.
  zu_log_mask = ZU_LOG_MASK_DIAGNOSTIC | (settings_.log_android ? ZU_LOG_MASK_ANDROID : 0);
  corvil_log_set_diagnostic_handler(
      [](const LogSiteDescriptor* site, const char* line, const char* text, void* session) {
        static_cast<Session*>(session)->on_log_message(*site, line, text);
      },
      this);
  return {};
}

void Session::on_log_message(const LogSiteDescriptor& site, const char* line, const char* text) {
  if (site.level_mask == LOG_LEVEL_MASK_ERR && !failure_) {
    // Without an exchange that failed, the library itself has found something wrong.
    failure_ =
        corvil_netlink_last_error()->error != 0 ? last_failure() : failure(without_name(text));
  }
  if (settings_.log_diagnostic) {
    std::cerr << printable(line) << "\n";
  }
}

void Session::on_message(CorvilNetlinkDirection direction, std::span<const uint8_t> datagram) {
  if (direction == CORVIL_NETLINK_SENT) {
    observer_.on_sent(datagram);
  } else {
    observer_.on_received(datagram);
  }
  if (settings_.trace != Trace::kOff || settings_.dry_run) {
    show(direction, datagram);
  }
}

void Session::show(CorvilNetlinkDirection direction, std::span<const uint8_t> datagram) {
  const bool sent = direction == CORVIL_NETLINK_SENT;
  Origin origin{.is_sent = sent};
  if (settings_.time) {
    origin.time = std::chrono::system_clock::now();
  }
  printer_.print(decoder_.decode(datagram), origin);
}

Result Session::last_failure() const {
  return explain(*corvil_netlink_last_error(), observer_.request, corvil_netlink_emulator());
}

Result Session::begin_call(const char* function, void** address) {
  if (Result started = start(); !started.ok()) {
    return started;
  }
  if (Result found = find_function(function, address); !found.ok()) {
    return found;
  }
  corvil_netlink_clear_last_error();
  failure_.reset();
  return {};
}

Result Session::end_call(int result) {
  printer_.finish();
  if (!failure_ && (result == -1 || corvil_netlink_check_capture() == -1)) {
    failure_ = last_failure();
  }
  if (!failure_ && logging_fd != nullptr && ferror(logging_fd) != 0) {
    failure_ = failure("cannot write the log file " + settings_.log_file);
  }
  return failure_.value_or(Result{});
}

Result Session::read_state(std::optional<std::string>* state) {
  if (Result started = start(); !started.ok() || settings_.dry_run) {
    return started;
  }
  const std::string emulator = corvil_netlink_emulator();
  if (emulator_) {
    *state = emulator_->state();
  } else if (!emulator.empty()) {
    return read_emulator_state(emulator, state);
  } else if (std::ifstream file("/proc/net/tavik_wlan"); file) {
    state->emplace(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  }
  return {};
}

Result Session::inject(const Faults& faults) {
  if (Result started = start(); !started.ok() || settings_.dry_run) {
    return started;
  }
  const std::string emulator = corvil_netlink_emulator();
  if (emulator.empty()) {
    return usage_error("only an emulator can be told to misbehave");
  }
  try {
    tavik_wlan::ControlClient(emulator, std::chrono::milliseconds{corvil_netlink_timeout()})
        .set_faults(faults);
    return {};
  } catch (const std::system_error& error) {
    return failure(
        "cannot tell the emulator at " + emulator + " to misbehave: " + error.code().message(),
        emulator_hint(error.code().value(), emulator));
  }
}

}  // namespace datapathctl
