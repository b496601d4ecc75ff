#include "datapathctl/session.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <system_error>
#include <utility>

#include "datapathctl/misbehaviour.h"
#include "datapathctl/values.h"
#include "reference_host/log/corvil_log_control.h"

namespace datapathctl {
namespace {

constexpr char kEmulatorVariable[] = "CORVIL_NETLINK_EMULATOR";
constexpr char kTimeoutVariable[] = "CORVIL_NETLINK_TIMEOUT_MS";
constexpr char kCaptureVariable[] = "CORVIL_NETLINK_PCAP";
constexpr char kKernelState[] = "/proc/net/tavik_wlan";

/// How long an answer may take, in milliseconds, as the netlink library reads it.
int timeout_ms() {
  constexpr int kDefault = 3000;
  const char* setting = getenv(kTimeoutVariable);
  const std::string_view text = setting != nullptr ? setting : "";
  const char* end = text.data() + text.size();
  int value = 0;
  const auto [rest, error] = std::from_chars(text.data(), end, value);
  return error == std::errc() && rest == end && value > 0 ? value : kDefault;
}

/// Limits each wait, that of connect() too; it ends with EAGAIN then.
void limit_waits(int socket_fd, int milliseconds) {
  const timeval limit{milliseconds / 1000, milliseconds % 1000 * 1000L};
  setsockopt(socket_fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
  setsockopt(socket_fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
}

/// Reads the state of the emulator at a path to the end, as a file.
std::string read_socket(const std::string& emulator) {
  const std::string path = emulator + ".state";
  sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
  if (path.size() >= sizeof(address.sun_path)) {
    throw CallFailed("cannot read the emulator's state: path too long: " + path);
  }
  path.copy(address.sun_path, path.size());
  const int socket_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int patience = timeout_ms();
  limit_waits(socket_fd, patience);
  std::string text;
  ssize_t length = connect(socket_fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
  if (length == 0) {
    char buffer[65536];
    while ((length = read(socket_fd, buffer, sizeof(buffer))) > 0) {
      text.append(buffer, static_cast<size_t>(length));
    }
  }
  const int error = errno;
  close(socket_fd);
  if (length < 0) {
    throw CallFailed("cannot read the emulator's state at " + path + ": " +
                         (error == EAGAIN ? "no answer within " + std::to_string(patience) + " ms"
                                          : std::generic_category().message(error)),
                     emulator_hint(error, emulator));
  }
  return text;
}

std::string read_file(const char* path) {
  std::ifstream file(path);
  if (!file) {
    throw CallFailed(std::string("cannot read ") + path, kModuleHint);
  }
  return {std::istreambuf_iterator<char>(file), {}};
}

/// Prints the JSON of a command that is done or has failed, with a hint if there is one.
void print_outcome(nlohmann::ordered_json outcome, const std::string& hint) {
  if (!hint.empty()) {
    outcome["hint"] = hint;
  }
  print_json(outcome);
}

/// "name(): text" without the name.
std::string without_name(const char* text) {
  const char* colon = strstr(text, "(): ");
  return colon != nullptr ? colon + strlen("(): ") : text;
}

}  // namespace

void print_json(const nlohmann::ordered_json& object) {
  // Names need not be UTF-8, and may hold controls beyond ASCII.
  std::cout << object.dump(-1, ' ', true, nlohmann::json::error_handler_t::replace) << std::endl;
}

Session::~Session() {
  corvil_netlink_set_trace(nullptr, nullptr);
  corvil_netlink_set_dry_run(0);
  corvil_log_set_diagnostic_handler(nullptr, nullptr);
  log_to_file = 0;
  if (logging_fd != nullptr && logging_fd != stdout) {
    fclose(logging_fd);
  }
  logging_fd = nullptr;
}

void Session::start() {
  if (library_) {
    return;
  }
  library_.emplace(settings_.library);
  if (settings_.dry_run) {
    corvil_netlink_set_dry_run(kDryRunFamilyId);
    decoder_ = MessageDecoder(kDryRunFamilyId);
  } else {
    start_kernel();
  }
  misbehave(settings_.misbehaviour);
  start_logging();
  start_capture();
  if (settings_.timeout_ms != 0) {
    setenv(kTimeoutVariable, std::to_string(settings_.timeout_ms).c_str(), 1);
  }
  corvil_netlink_set_trace(
      [](CorvilNetlinkDirection direction, const void* bytes, size_t length, void* session) {
        static_cast<Session*>(session)->on_message(direction,
                                                   {static_cast<const uint8_t*>(bytes), length});
      },
      this);
}

void Session::start_kernel() {
  if (settings_.emulate) {
    emulator_path_ = emulator_folder_.emplace().socket_path();
    emulator_.emplace(emulator_path_);
  } else if (!settings_.socket.empty()) {
    emulator_path_ = settings_.socket;
  } else if (const char* path = getenv(kEmulatorVariable)) {
    emulator_path_ = path;
  }
  if (!emulator_path_.empty()) {
    setenv(kEmulatorVariable, emulator_path_.c_str(), 1);
  }
}

void Session::start_logging() {
  if (settings_.json && settings_.log_file == "-") {
    throw UsageError("--json excludes --log-file -");
  }
  if (!settings_.log_file.empty()) {
    logging_fd = settings_.log_file == "-" ? stdout : fopen(settings_.log_file.c_str(), "ae");
    if (logging_fd == nullptr) {
      throw UsageError("cannot write the log file " + settings_.log_file + ": " +
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
}

void Session::start_capture() {
  if (!settings_.pcap.empty()) {
    setenv(kCaptureVariable, settings_.pcap.c_str(), 1);
  }
  if (corvil_netlink_check_capture() == -1) {
    throw CallFailed(corvil_netlink_last_error()->message);
  }
}

void Session::on_log_message(const LogSiteDescriptor& site, const char* line, const char* text) {
  if (site.level_mask == LOG_LEVEL_MASK_ERR && !failure_) {
    failure_ = make_failure(without_name(text));
  }
  if (settings_.log_diagnostic) {
    std::cerr << printable(line) << "\n";
  }
}

void Session::on_message(CorvilNetlinkDirection direction, std::span<const uint8_t> datagram) {
  const bool sent = direction == CORVIL_NETLINK_SENT;
  const bool shown = settings_.trace || settings_.dry_run;
  for (nlohmann::ordered_json& message : decoder_.decode(datagram)) {
    if (sent) {
      last_request_ = message["message"];
      last_request_bytes_.assign(datagram.begin(), datagram.end());
    }
    if (shown && settings_.json) {
      message["direction"] = sent ? "sent" : "received";
      print_json(message);
    } else if (shown) {
      std::cout << (sent ? "> " : "< ") << to_text(message);
    }
  }
  if (shown && settings_.hex) {
    if (settings_.json) {
      print_json({{"bytes", to_hex(datagram)}});
    } else {
      std::cout << "    bytes " << to_hex(datagram) << "\n";
    }
  }
  std::cout.flush();
}

Failure Session::make_failure(std::string message) const {
  Failure failure{*corvil_netlink_last_error(), last_request_, std::move(message)};
  const CorvilNetlinkError& error = failure.error;
  if (error.from_kernel != 0 && error.attribute_offset != 0) {
    failure.attribute = decoder_.attribute_at(last_request_bytes_, error.attribute_offset);
  }
  if (error.from_kernel != 0 && error.missing_attribute != 0) {
    failure.missing = decoder_.missing_attribute(last_request_bytes_, error.missing_attribute,
                                                 error.missing_nest_offset);
  }
  return failure;
}

void Session::begin_call() {
  corvil_netlink_clear_last_error();
  failure_.reset();
}

void Session::report(const char* command, int result) {
  if (result == -1 && !failure_) {
    failure_ = make_failure("");
  }
  if (!failure_ && corvil_netlink_check_capture() == -1) {
    failure_ = Failure{*corvil_netlink_last_error(), "", ""};
  }
  if (!failure_ && logging_fd != nullptr && ferror(logging_fd) != 0) {
    failure_ = Failure{{}, "", "cannot write the log file " + settings_.log_file};
  }
  nlohmann::ordered_json outcome = {{"command", command}, {"result", result}};
  std::string hint;
  // The query of ports returns 0 whatever became of it: what it logged tells.
  if (failure_) {
    failure_->describe(&outcome);
    hint = failure_->hint(emulator_path_);
  }
  if (settings_.json && (failure_ || !settings_.dry_run)) {
    print_outcome(outcome, hint);
  }
  if (failure_) {
    throw CallFailed(std::string(command) + ": " + failure_->reason(), hint);
  }
}

std::string Session::kernel_state(const char* command) {
  start();
  try {
    return emulator_path_.empty() ? read_file(kKernelState) : read_socket(emulator_path_);
  } catch (const CallFailed& failure) {
    if (settings_.json) {
      print_outcome({{"command", command}, {"result", -1}, {"reason", failure.what()}},
                    failure.hint());
    }
    throw;
  }
}

void Session::misbehave(const std::vector<std::string>& words) {
  if (words.empty()) {
    return;
  }
  const tavik_wlan::Faults faults = parse_misbehaviour(words);
  start();
  if (settings_.dry_run) {
    return;
  }
  if (!emulator_) {
    throw UsageError("only the emulator of --emulate can be told to misbehave");
  }
  emulator_->inject(faults);
}

}  // namespace datapathctl
