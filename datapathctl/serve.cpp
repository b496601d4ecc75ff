// An emulated kernel for other processes.

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "datapathctl/operations.h"
#include "reference_kernel/emulator/emulator.h"

namespace datapathctl {
namespace {

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

}  // namespace

Result serve_emulator(const std::string& path, const Faults& faults) {
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
    tavik_wlan::Emulator emulator(path,
                                  [&](std::string_view line) { printer->print(printable(line)); });
    emulator.inject(faults);
    printer->print("serving TAVIK_WLAN at " + printable(path));
    int signal = 0;
    sigwait(&ends, &signal);
  }
  return printer->finish() ? Result{} : failure("cannot write the output");
}

}  // namespace datapathctl
