#include "datapathctl/session.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <system_error>

#include "datapathctl/misbehaviour.h"
#include "datapathctl/values.h"
#include "kernel_interface/tavik_wlan.h"
#include "reference_host/log/corvil_log_control.h"

namespace datapathctl {
namespace {

constexpr char kEmulatorVariable[] = "CORVIL_NETLINK_EMULATOR";
constexpr char kTimeoutVariable[] = "CORVIL_NETLINK_TIMEOUT_MS";
constexpr char kKernelState[] = "/proc/net/tavik_wlan";
constexpr uint32_t kErrorLevelMask = 8;

std::string error_name(int error) {
  const char* name = strerrorname_np(error);
  return name != nullptr ? name : std::to_string(error);
}

/// Reads to the end of a stream socket, as of a file.
std::string read_socket(const std::string& path) {
  sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
  if (path.size() >= sizeof(address.sun_path)) {
    throw CallFailed("cannot read the emulator's state: path too long: " + path);
  }
  path.copy(address.sun_path, path.size());
  const int socket_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
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
                     std::generic_category().message(error));
  }
  return text;
}

std::string read_file(const char* path) {
  std::ifstream file(path);
  if (!file) {
    throw CallFailed(std::string("cannot read ") + path + " (is the kernel module loaded?)");
  }
  return {std::istreambuf_iterator<char>(file), {}};
}

/// "name(): text" without the name.
std::string without_name(const char* text) {
  const char* colon = strstr(text, "(): ");
  return colon != nullptr ? colon + strlen("(): ") : text;
}

}  // namespace

void print_json(const nlohmann::ordered_json& object) {
  // Names need not be UTF-8.
  std::cout << object.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << std::endl;
}

Session::~Session() {
  corvil_netlink_set_trace(nullptr, nullptr);
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
  start_kernel();
  misbehave(settings_.misbehaviour);
  start_logging();
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

void Session::on_log_message(const LogSiteDescriptor& site, const char* line, const char* text) {
  if (site.level_mask == kErrorLevelMask && !failure_) {
    failure_ = Failure{*corvil_netlink_last_error(), last_request_, without_name(text)};
  }
  if (settings_.log_diagnostic) {
    std::cerr << line << "\n";
  }
}

void Session::on_message(CorvilNetlinkDirection direction, std::span<const uint8_t> datagram) {
  const bool sent = direction == CORVIL_NETLINK_SENT;
  for (nlohmann::ordered_json& message : decoder_.decode(datagram)) {
    if (sent) {
      last_request_ = message["message"];
    }
    if (settings_.trace && settings_.json) {
      message["direction"] = sent ? "sent" : "received";
      print_json(message);
    } else if (settings_.trace) {
      std::cout << (sent ? "> " : "< ") << to_text(message);
    }
  }
  if (settings_.trace && settings_.hex) {
    if (settings_.json) {
      print_json({{"bytes", to_hex(datagram)}});
    } else {
      std::cout << "    bytes " << to_hex(datagram) << "\n";
    }
  }
  std::cout.flush();
}

std::string Session::Failure::reason() const {
  if (error.error == 0) {
    return message;
  }
  if (error.from_kernel == 0) {
    return error.message;
  }
  if (error.error == ENOENT && request.starts_with("nlctrl ")) {
    return "the kernel has no family " TAVIK_WLAN_FAMILY_NAME " (is its module loaded?)";
  }
  std::string text = "the kernel refused " + request + ": " +
                     std::generic_category().message(error.error) + " (" + error_name(error.error) +
                     ")";
  if (error.message[0] != '\0') {
    text += std::string(": ") + error.message;
  }
  return text;
}

void Session::begin_call() {
  corvil_netlink_clear_last_error();
  last_request_.clear();
  failure_.reset();
}

void Session::report(const char* command, int result) {
  if (result == -1 && !failure_) {
    failure_ = Failure{*corvil_netlink_last_error(), last_request_, ""};
  }
  nlohmann::ordered_json outcome = {{"command", command}, {"result", result}};
  // The query of ports returns 0 whatever became of it: what it logged tells.
  if (failure_) {
    outcome["reason"] = failure_->reason();
    if (failure_->error.error != 0) {
      outcome["errno"] = error_name(failure_->error.error);
      outcome["from_kernel"] = failure_->error.from_kernel != 0;
    }
  }
  if (settings_.json) {
    print_json(outcome);
  }
  if (failure_) {
    throw CallFailed(std::string(command) + ": " + failure_->reason());
  }
}

std::string Session::kernel_state() {
  start();
  return emulator_path_.empty() ? read_file(kKernelState) : read_socket(emulator_path_ + ".state");
}

void Session::misbehave(const std::vector<std::string>& words) {
  if (words.empty()) {
    return;
  }
  start();
  if (!emulator_) {
    throw UsageError("only the emulator of --emulate can be told to misbehave");
  }
  emulator_->misbehave(parse_misbehaviour(words));
}

}  // namespace datapathctl
