#include "datapathctl/line_printer.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

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

}  // namespace

struct LinePrinter::Queue {
  std::mutex mutex;  // of all that follows
  std::condition_variable changed;
  std::string waiting{};
  size_t lost = 0;  // lines that came after what is waiting
  bool is_writing = false;
  bool has_failed = false;
};

LinePrinter::LinePrinter() : queue_(std::make_shared<Queue>()) {
  std::thread([queue = queue_] { write_lines(*queue); }).detach();
}

void LinePrinter::print(std::string_view line) {
  const std::lock_guard lock(queue_->mutex);
  if (queue_->waiting.size() > kMaxWaiting) {
    ++queue_->lost;
    return;
  }
  queue_->waiting.append(line).push_back('\n');
  queue_->changed.notify_all();
}

bool LinePrinter::finish() {
  std::unique_lock lock(queue_->mutex);
  const auto is_idle = [this] { return queue_->waiting.empty() && !queue_->is_writing; };
  return queue_->changed.wait_for(lock, kPatience, is_idle) && !queue_->has_failed;
}

void LinePrinter::write_lines(Queue& queue) {
  std::unique_lock lock(queue.mutex);
  for (;;) {
    queue.changed.wait(lock, [&] { return !queue.waiting.empty(); });
    std::string text = std::exchange(queue.waiting, {});
    if (const size_t lost = std::exchange(queue.lost, 0); lost > 0) {
      text += '(' + std::to_string(lost) + " lines were lost: nobody read them)\n";
    }
    queue.is_writing = true;
    lock.unlock();
    const bool written = write_all(text);
    lock.lock();
    queue.has_failed |= !written;
    queue.is_writing = false;
    queue.changed.notify_all();
  }
}

}  // namespace datapathctl
