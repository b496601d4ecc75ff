// An emulated kernel for other processes.

#include <linux/genetlink.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstddef>
#include <ctime>
#include <iomanip>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "datapathctl/failure.h"
#include "datapathctl/message_decoder.h"
#include "datapathctl/operations.h"
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
        text += '(' + std::to_string(lost) + " lines were lost: nobody read them)\n";
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
  std::mutex mutex_;  // of all that follows
  std::condition_variable changed_;
  std::string waiting_;
  size_t lost_ = 0;  // lines that came after what is waiting
  bool is_writing_ = false;
  bool has_failed_ = false;
};

std::string time_of_day() {
  const auto now = std::chrono::system_clock::now();
  const time_t seconds = std::chrono::system_clock::to_time_t(now);
  tm local{};
  localtime_r(&seconds, &local);
  const auto since = now - std::chrono::system_clock::from_time_t(seconds);
  const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(since).count();
  std::ostringstream text;
  text << std::put_time(&local, "%T.") << std::setw(6) << std::setfill('0') << micros;
  return text.str();
}

/// The family's id where the request got as far as the family.
uint16_t family_id(const nlmsghdr& header, const Status& status) {
  const bool is_unknown = status.error == -ENOENT && status.message == nullptr;
  return header.nlmsg_type == GENL_ID_CTRL || is_unknown ? 0 : header.nlmsg_type;
}

/// What the emulator says of a request, such as
///
///     12:00:00.123456 client 1 (pid 4711) accepted TAVIK_WLAN SET_DEV SELECTOR 1 DEV "wlan0"
///
/// and where it refuses one, why.
std::string describe(const Peer& peer, Bytes message, const Status& status) {
  const uint16_t family = family_id(tavik_wlan::load<nlmsghdr>(message), status);
  const nlohmann::ordered_json decoded = MessageDecoder(family).decode(message)[0];
  std::string line = time_of_day() + " client " + std::to_string(peer.port_id) + " (pid " +
                     std::to_string(peer.pid) + (status.ok() ? ") accepted " : ") refused ") +
                     decoded["message"].get<std::string>();
  if (decoded.contains("attributes")) {
    for (const auto& [name, value] : decoded["attributes"].items()) {
      line.append(" ").append(name).append(" ").append(value_text(value));
    }
  }
  if (!status.ok()) {
    line.append(": ").append(error_name(-status.error));
    line.append(status.message != nullptr ? ": " : "")
        .append(status.message != nullptr ? status.message : "");
  }
  return line;
}

}  // namespace

Result run_emulator(Session& session, const Command& command) {
  const std::string& path = command.path;
  sigset_t ends;
  sigemptyset(&ends);
  sigaddset(&ends, SIGINT);
  sigaddset(&ends, SIGTERM);
  // Before other threads start, so that they inherit the mask.
  pthread_sigmask(SIG_BLOCK, &ends, nullptr);
  // The thread, which may never end, has a share.
  const auto printer = std::make_shared<LinePrinter>();
  std::thread([printer] { printer->write_lines(); }).detach();
  {
    const auto observer = [&](const Peer& peer, Bytes message, const Status& status) {
      // Each request is preceded by a look-up of the family.
      if (!status.ok() || tavik_wlan::load<nlmsghdr>(message).nlmsg_type != GENL_ID_CTRL) {
        printer->print(printable(describe(peer, message, status)));
      }
    };
    tavik_wlan::Emulator emulator(path, observer);
    emulator.inject(tavik_wlan::parse_faults(session.settings().faults.value_or(Faults{})));
    printer->print("serving TAVIK_WLAN at " + printable(path));
    int signal = 0;
    sigwait(&ends, &signal);
  }
  return printer->finish() ? Result{} : failure("cannot write the output");
}

}  // namespace datapathctl
