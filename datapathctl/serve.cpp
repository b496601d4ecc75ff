// An emulated kernel for other processes.

#include <linux/genetlink.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstddef>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "datapathctl/message_decoder.h"
#include "datapathctl/operations.h"
#include "datapathctl/trace.h"
#include "reference_kernel/emulator/emulator.h"

namespace datapathctl {
namespace {

using tavik_wlan::Bytes;
using tavik_wlan::Peer;
using tavik_wlan::Status;

constexpr size_t kMaxWaiting = size_t{1} << 20;
constexpr std::chrono::seconds kPatience{1};

/// Returns whether all was written. Not by std::cout: its lock, held by a write without end, would
/// keep the process from ending.
bool write_all(std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(STDOUT_FILENO, text.data(), text.size());
    if (written >= 0) {
      text.remove_prefix(static_cast<size_t>(written));
    } else if (errno == EAGAIN) {
      pollfd output{.fd = STDOUT_FILENO, .events = POLLOUT, .revents = 0};
      poll(&output, 1, -1);
    } else if (errno != EINTR) {
      return false;
    }
  }
  return true;
}

/// Standard output for one who must not wait for its reader. While more than 1 MiB of lines waits
/// to be read, lines are lost; a line in their place tells how many.
class LinePrinter {
 public:
  /// Whether the lines are JSON.
  explicit LinePrinter(bool json) : json_(json) {}

  /// Never blocks. Thread-safe.
  void print(std::string_view line) {
    const std::lock_guard lock(mutex_);
    if (waiting_.size() > kMaxWaiting) {
      ++lost_;
      return;
    }
    waiting_.append(line).push_back('\n');
    changed_.notify_all();
  }

  /// Writes what is printed, for ever.
  [[noreturn]] void write_lines() {
    std::unique_lock lock(mutex_);
    for (;;) {
      changed_.wait(lock, [this] { return !waiting_.empty(); });
      std::string text = std::exchange(waiting_, {});
      if (const size_t lost = std::exchange(lost_, 0); lost > 0) {
        text += json_ ? "{\"lost\":" + std::to_string(lost) + "}\n"
                      : '(' + std::to_string(lost) + " lines were lost: nobody read them)\n";
      }
      is_writing_ = true;
      lock.unlock();
      const bool written = write_all(text);
      lock.lock();
      has_failed_ |= !written;
      is_writing_ = false;
      changed_.notify_all();
    }
  }

  /// To be called last: waits until all is written, but not longer than a second for a reader who
  /// doesn't read. Returns whether all is.
  [[nodiscard]] bool finish() {
    std::unique_lock lock(mutex_);
    const auto is_idle = [this] { return waiting_.empty() && !is_writing_; };
    return changed_.wait_for(lock, kPatience, is_idle) && !has_failed_;
  }

 private:
  const bool json_;
  std::mutex mutex_;  // of all that follows
  std::condition_variable changed_;
  std::string waiting_;
  size_t lost_ = 0;  // lines that came after what is waiting
  bool is_writing_ = false;
  bool has_failed_ = false;
};

/// The request, decoded, and what became of it.
nlohmann::ordered_json describe(const Peer& peer, Bytes message, const Status& status) {
  const auto header = tavik_wlan::load<nlmsghdr>(message);
  // To the family goes what is neither to the controller nor refused because there is no such
  // family.
  const bool is_unknown = status.error == -ENOENT && status.message == nullptr;
  const bool is_to_family = header.nlmsg_type != GENL_ID_CTRL && !is_unknown;
  nlohmann::ordered_json object = {{"time", time_text(std::chrono::system_clock::now(), true)},
                                   {"client", peer.port_id},
                                   {"pid", peer.pid}};
  object.update(MessageDecoder(is_to_family ? header.nlmsg_type : 0).decode(message)[0].json);
  object["result"] = status.ok() ? 0 : -1;
  if (!status.ok()) {
    object["errno"] = error_name(-status.error);
  }
  if (status.message != nullptr) {
    object["reason"] = status.message;
  }
  if (status.offset) {
    object["attribute"] =
        tavik_wlan::attribute_at(message, tavik_wlan::kAttributes, *status.offset).name;
  }
  return object;
}

/// Such as
///
///     12:00:00.123456 client 1 (pid 4711) TAVIK_WLAN UNSET_ENCAP_PORT ENCAP_PORT 5: refused:
///     ENOENT: the encapsulation port is not set: ENCAP_PORT
///
/// in one line.
std::string to_line(const nlohmann::ordered_json& request) {
  std::ostringstream line;
  line << time_text(std::chrono::system_clock::now(), false) << " client " << request["client"]
       << " (pid " << request["pid"] << ") " << request["message"].get<std::string>();
  if (request.contains("attributes")) {
    for (const auto& [name, value] : request["attributes"].items()) {
      line << ' ' << name << ' ' << value_text(value);
    }
  }
  line << (request["result"] == 0 ? ": accepted" : ": refused");
  for (const char* detail : {"errno", "reason", "attribute"}) {
    if (request.contains(detail)) {
      line << ": " << request[detail].get<std::string>();
    }
  }
  return line.str();
}

}  // namespace

Result run_emulator(Session& session, const Command& command) {
  const Settings& settings = session.settings();
  sigset_t ends;
  sigemptyset(&ends);
  sigaddset(&ends, SIGINT);
  sigaddset(&ends, SIGTERM);
  // Before other threads start, so that they inherit the mask.
  pthread_sigmask(SIG_BLOCK, &ends, nullptr);
  // The thread, which may never end, has a share.
  const auto printer = std::make_shared<LinePrinter>(settings.json);
  std::thread([printer] { printer->write_lines(); }).detach();
  {
    const auto observer = [&](const Peer& peer, Bytes message, const Status& status) {
      // Each request is preceded by a look-up of the family.
      if (!status.ok() || tavik_wlan::load<nlmsghdr>(message).nlmsg_type != GENL_ID_CTRL) {
        const nlohmann::ordered_json request = describe(peer, message, status);
        printer->print(settings.json ? json_text(request) : printable(to_line(request)));
      }
    };
    tavik_wlan::Emulator emulator(command.path, observer);
    emulator.inject(tavik_wlan::parse_faults(settings.faults.value_or(Faults{})));
    printer->print(settings.json ? json_text({{"serving", command.path}})
                                 : "serving TAVIK_WLAN at " + printable(command.path));
    int signal = 0;
    sigwait(&ends, &signal);
  }
  return printer->finish() ? Result{} : failure("cannot write the output");
}

}  // namespace datapathctl
