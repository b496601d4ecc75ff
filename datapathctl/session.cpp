#include "datapathctl/session.h"

#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <random>
#include <system_error>

#include "datapathctl/trace.h"
#include "reference_host/log/corvil_log_control.h"
#include "reference_host/netlink/corvil_netlink_control.h"

namespace datapathctl {
namespace {

using Json = nlohmann::ordered_json;

/// What stands for the family's id in a dry run: beyond those that a kernel gives.
constexpr uint16_t kDryRunFamilyId = 65535;

#ifdef CORVIL_LIBRARY

constinit void* library = nullptr;

/// The library beside this program, or else where the loader finds it. Under a sanitizer, which has
/// a dlopen() of its own, the loader does not know whose search path counts.
std::string default_library() {
  std::error_code error;
  const auto program = std::filesystem::read_symlink("/proc/self/exe", error);
  const auto beside = program.parent_path() / CORVIL_LIBRARY;
  return std::filesystem::exists(beside, error) ? beside.string() : CORVIL_LIBRARY;
}

Result load_library(const Settings& settings) {
  const std::string path = settings.library.empty() ? default_library() : settings.library;
  library = dlopen(path.c_str(), RTLD_NOW);
  return library != nullptr ? Result{}
                            : usage_error(std::string("cannot load the library: ") + dlerror());
}

Result find_function(const char* name, void** address) {
  *address = dlsym(library, name);
  return *address != nullptr ? Result{}
                             : usage_error(std::string("not in the library: ") + dlerror());
}

#else

Result load_library(const Settings& settings) {
  if (!settings.library.empty()) {
    return usage_error("--library: this build has the library inside");
  }
  return settings.log_android ? usage_error("--log-android: this build has no Android log")
                              : Result{};
}

Result find_function(const char*, void**) { return {}; }

#endif

/// Why a socket of an emulator can't be connected to, by the errno; empty where that tells nothing.
std::string emulator_hint(int error, const std::string& path) {
  return error == ENOENT || error == ECONNREFUSED
             ? "is 'datapathctl emulator " + path + "' running?"
             : "";
}

/// "name(): text" without the name.
std::string without_name(const char* text) {
  const char* colon = strstr(text, "(): ");
  return colon != nullptr ? colon + strlen("(): ") : text;
}

/// Says what the kernel refused, by its decoded answer, and which attribute it complained of.
void explain_refusal(const CorvilNetlinkError& error, const Json& answer, Result* failed) {
  const std::string request = answer.value("request", "a request");
  const bool is_look_up = request.starts_with("nlctrl ");
  if (is_look_up && error.error == ENOENT) {
    failed->error = "the kernel has no family " TAVIK_WLAN_FAMILY_NAME;
    failed->hint = "is the module tavik_wlan loaded?";
    return;
  }
  for (const char* name : {"request", "attribute", "value", "missing"}) {
    if (answer.contains(name)) {
      failed->members[name] = answer[name];
    }
  }
  failed->error =
      "the kernel refused " + (is_look_up ? request : TAVIK_WLAN_FAMILY_NAME " " + request) + ": " +
      std::generic_category().message(error.error) + " (" + error_name(error.error) + ")";
  for (const std::string& detail : {std::string(error.message), complaint_of(answer)}) {
    failed->error.append(detail.empty() ? "" : ": ").append(detail);
  }
  if (error.error == EPERM) {
    failed->hint = "it takes CAP_NET_ADMIN in the user namespace of the network namespace";
  }
}

}  // namespace

Result ask_emulator(const std::string& path,
                    const std::function<Result(tavik_wlan::ControlClient&)>& ask) {
  try {
    tavik_wlan::ControlClient client(path, std::chrono::milliseconds(corvil_netlink_timeout()));
    return ask(client);
  } catch (const std::system_error& error) {
    return failure("cannot ask the emulator at " + path + ": " + error.code().message(),
                   emulator_hint(error.code().value(), path));
  }
}

Result Session::begin_command() {
  acknowledged_.clear();
  tuples_.clear();
  const int opened = settings_.pcap.empty() ? corvil_netlink_check_capture()
                                            : corvil_netlink_open_capture(settings_.pcap.c_str());
  if (opened == -1) {
    return failure(corvil_netlink_last_error()->message);
  }
  if (settings_.pcap == "-") {
    dup2(STDERR_FILENO, STDOUT_FILENO);  // The capture has its own descriptor of the output.
  }
  return {};
}

Result Session::start() {
  if (started_) {
    return {};
  }
  Result result = load_library(settings_);
  result = result.ok() ? start_kernel() : result;
  result = result.ok() ? start_logging() : result;
  started_ = result.ok();
  return result;
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
  if (!settings_.faults.empty() && !settings_.dry_run) {
    if (!emulator_) {
      return usage_error("--misbehave is for an emulator that is started here");
    }
    emulator_->inject(settings_.faults);
  }
  corvil_netlink_set_timeout(settings_.timeout_ms);
  if (corvil_netlink_timeout() == -1) {
    return usage_error(corvil_netlink_last_error()->message);
  }
  corvil_netlink_set_trace(
      [](CorvilNetlinkDirection direction, const void* bytes, size_t length, void* session) {
        static_cast<Session*>(session)->on_datagram(direction == CORVIL_NETLINK_SENT,
                                                    {static_cast<const uint8_t*>(bytes), length});
      },
      this);
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

void Session::on_datagram(bool is_sent, std::span<const uint8_t> datagram) {
  const std::vector<Message> messages = decoder_.decode(datagram);
  for (const Message& message : messages) {
    if (is_sent) {
      on_request(message);
    } else {
      on_answer(message);
    }
  }
  if (settings_.shows_messages()) {
    Origin origin{.is_sent = is_sent};
    if (settings_.time) {
      origin.time = std::chrono::system_clock::now();
    }
    print(settings_, messages, origin);
  }
}

void Session::on_request(const Message& message) {
  sequence_ = message.json["seq"];
  refusal_ = Json::object();
  tuples_.clear();  // A dump that a change has interrupted is asked for again.
}

void Session::on_answer(const Message& message) {
  const Json& json = message.json;
  if (json.value("seq", Json()) != sequence_) {
    return;
  }
  if (message.is_failure) {
    refusal_ = json;
  } else if (message.subject == Subject::kFamily && json.contains("request")) {
    acknowledged_.push_back(json["request"]);
  } else if (message.subject == Subject::kFamily) {
    const Json attributes = json.value("attributes", Json::object());
    std::ranges::copy_if(attributes.value("TUPLES", Json::array()), std::back_inserter(tuples_),
                         [](const Json& tuple) { return tuple.is_object(); });
  }
}

Result Session::last_failure() const {
  const CorvilNetlinkError& error = *corvil_netlink_last_error();
  const std::string emulator = corvil_netlink_emulator();
  Result failed = failure(error.message);
  failed.members = {{"errno", error_name(error.error)}, {"from_kernel", error.from_kernel != 0}};
  if (error.from_kernel != 0) {
    explain_refusal(error, refusal_, &failed);
  } else if (!emulator.empty()) {
    failed.hint = emulator_hint(error.error, emulator);
  }
  return failed;
}

Result Session::begin_call(const char* name, void** address) {
  Result result = start();
  if (result.ok()) {
    result = find_function(name, address);
  }
  corvil_netlink_clear_last_error();
  failure_.reset();
  return result;
}

Result Session::end_call(int result) {
  if (!failure_ && (result == -1 || corvil_netlink_check_capture() == -1)) {
    failure_ = last_failure();
  }
  if (!failure_ && logging_fd != nullptr && ferror(logging_fd) != 0) {
    failure_ = failure("cannot write the log file " + settings_.log_file);
  }
  return failure_.value_or(Result{});
}

}  // namespace datapathctl
