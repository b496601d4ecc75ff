#include "torture/faults.h"

#include <linux/netlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstring>
#include <ctime>
#include <initializer_list>

namespace torture {
namespace {

constexpr int64_t kSecond = 1'000'000'000;

/// What a fault after which the host tries again costs; the third one exceeds the time-out of 3 s.
constexpr int64_t kDelay = kSecond * 5 / 4;

/// Faults of one effect; the first is used in pairs.
const struct {
  Op op;
  Effect effect;
  std::initializer_list<int> errors;
} kKinds[] = {
    {Op::kMemory, Effect::kFails, {ENOMEM}},
    {Op::kSocket, Effect::kFails, {EMFILE, ENFILE, ENOBUFS, ENOMEM, EPERM, EAFNOSUPPORT}},
    {Op::kBind, Effect::kFails, {ENOMEM, EADDRINUSE, EPERM, EBADF}},
    {Op::kSetsockopt, Effect::kNone, {ENOMEM, ENOPROTOOPT, EPERM, EBADF}},
    {Op::kConnect, Effect::kTriesAgain, {EINTR}},
    {Op::kConnect, Effect::kTimesOut, {EAGAIN}},
    {Op::kConnect, Effect::kFails, {ECONNREFUSED, ENOENT, ENOMEM, EPERM, EBADF}},
    {Op::kSend, Effect::kTriesAgain, {EINTR, EAGAIN}},
    {Op::kSend, Effect::kReconnects, {EPIPE, ECONNRESET}},
    {Op::kSend, Effect::kFails, {ENOBUFS, ENOMEM, EMSGSIZE, ECONNREFUSED, EPERM, EBADF}},
    {Op::kReceive, Effect::kTriesAgain, {EINTR, EAGAIN}},
    {Op::kReceive, Effect::kTriesAgain, {kForeign}},
    {Op::kReceive, Effect::kLoses, {ENOBUFS}},
    {Op::kReceive, Effect::kFails, {kTruncated, kShort, kEnd, ENOMEM, EMSGSIZE, ECONNREFUSED}},
    {Op::kReceive, Effect::kFails, {ECONNRESET, EPERM, EBADF}},
    {Op::kPoll, Effect::kTriesAgain, {EINTR, kPollError}},
    {Op::kPoll, Effect::kTimesOut, {kTimeout}},
    {Op::kPoll, Effect::kFails, {ENOMEM, EINVAL}},
    {Op::kClock, Effect::kPassesAnHour, {kHour}},
    {Op::kTimeOfDay, Effect::kNone, {EPERM}},
    {Op::kLocalTime, Effect::kNone, {EOVERFLOW}},
    {Op::kLogWrite, Effect::kNone, {EIO, ENOSPC, kShort}},
};

constinit thread_local bool tracked = false;

/// The tracked thread's blocks; the slots behind `slots_used` have never been used.
constinit std::array<std::atomic<void*>, 1024> blocks{};
constinit std::atomic<size_t> slots_used = 0;

void* keep(void* block) {
  if (tracked && block != nullptr) {
    auto* const slot = std::ranges::find(blocks, nullptr, [](auto& b) { return b.load(); });
    if (slot == blocks.end()) {
      die("too many live blocks");
    }
    slot->store(block);
    slots_used = std::max<size_t>(slots_used, static_cast<size_t>(slot - blocks.begin()) + 1);
  }
  return block;
}

void forget(const void* block) {
  for (size_t i = 0; block != nullptr && i < slots_used.load(std::memory_order_relaxed); ++i) {
    if (blocks[i].load(std::memory_order_relaxed) == block) {
      blocks[i].store(nullptr);
      return;
    }
  }
}

/// A system call that fails with an errno only.
template <typename... Arguments>
int counted(Op op, long number, Arguments... arguments) {
  if (const Fault* fault = injector.next(op)) {
    errno = fault->error;
    return -1;
  }
  return static_cast<int>(syscall(number, arguments...));
}

/// Waits as long as it takes, so that a busy machine changes nothing.
int wait_for(pollfd* fds, nfds_t count) {
  int ready = -1;
  while (ready == -1) {
    ready = poll(fds, count, -1);
  }
  return ready;
}

}  // namespace

constinit Injector injector;
constinit thread_local bool armed = false;
constinit std::array<char, 512> doing{};

const std::vector<Fault>& all_faults() {
  static const std::vector<Fault> kFaults = [] {
    std::vector<Fault> faults;
    for (const auto& kind : kKinds) {
      for (const int& error : kind.errors) {
        faults.push_back({kind.op, error, kind.effect, &error == kind.errors.begin()});
      }
    }
    return faults;
  }();
  return kFaults;
}

std::string describe(const Fault& fault) {
  static constexpr const char* kSpecials[] = {
      "",         "short",   "truncated",     "end of connection", "foreign answer",
      "time-out", "POLLERR", "an hour passes"};
  return std::string(kOpNames.at(static_cast<size_t>(fault.op))) + ": " +
         (fault.error > 0 ? strerrorname_np(fault.error) : kSpecials[-fault.error]);
}

size_t live_blocks() {
  return static_cast<size_t>(std::ranges::count_if(blocks, [](auto& b) { return b != nullptr; }));
}

void die(const char* reason) {
  for (const char* part : {reason, ": ", static_cast<const char*>(doing.data()), "\n"}) {
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, part, strlen(part));
  }
  _exit(1);
}

long write_log_file(void* written, const char* /*text*/, size_t size) {
  if (const Fault* fault = injector.next(Op::kLogWrite)) {
    errno = std::max(fault->error, 0);
    return fault->error == kShort ? static_cast<long>(size / 2) : 0;
  }
  *static_cast<bool*>(written) = true;
  return static_cast<long>(size);
}

void Injector::track(std::span<const Injection> chosen) {
  injections = chosen;
  op_count = 0;
  record_count = 0;
  sockets = 0;
  late = false;
  tracked = true;
}

const Fault* Injector::next(Op op) {
  if (!armed) {
    return nullptr;
  }
  const size_t number = op_count++;
  if (op_count > ops.size()) {
    die("hangs");
  }
  ops[number] = op;
  // A send that follows a poll is the same one as before.
  const bool waits_anew =
      op == Op::kSocket || (op == Op::kSend && number > 0 && ops[number - 1] != Op::kPoll);
  if (current != nullptr && waits_anew) {
    current->end_wait();
  }
  const auto hit = std::ranges::find_if(injections, [&](const Injection& i) {
    return number == i.operation || (i.forever && number > i.operation && op == i.fault->op);
  });
  const Fault* fault = hit != injections.end() ? hit->fault : nullptr;
  if (fault != nullptr) {
    strike(*fault);
  } else if (current != nullptr) {
    current->connected |= op == Op::kConnect || op == Op::kBind;
    if (op == Op::kSend) {
      ++current->sent;
      current->end_wait();
    }
  }
  if (current != nullptr) {
    current->begun |= op == Op::kClock;
  }
  return fault;
}

void Injector::strike(const Fault& fault) {
  if (fault.effect == Effect::kTriesAgain || fault.effect == Effect::kLoses) {
    clock += kDelay;
  } else if (fault.error == kHour) {
    clock += 3600 * kSecond;
  }
  if (current == nullptr || fault.effect == Effect::kNone) {
    return;
  }
  if (in_tree) {
    current->tree_struck = true;
  } else if (current->struck_count == current->struck.size()) {
    die("tries again and again");
  } else {
    current->struck[current->struck_count++] = {&fault, current->connected, current->begun,
                                                current->waits, current->sent};
  }
}

Record* Injector::begin(Record::Step step) {
  if (record_count == records.size()) {
    die("too many requests");
  }
  current = &records[record_count++];
  *current = {.step = step};
  return current;
}

}  // namespace torture

// The C library's functions

using torture::armed;
using torture::counted;
using torture::Fault;
using torture::injector;
using torture::Op;
using torture::Record;

extern "C" {

// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name): theirs are reserved names.

void* libc_malloc(size_t size) __asm__("__libc_malloc");
void* libc_calloc(size_t count, size_t size) __asm__("__libc_calloc");
void libc_free(void* block) __asm__("__libc_free");

void* malloc(size_t size) noexcept {
  if (injector.next(Op::kMemory) != nullptr) {
    errno = ENOMEM;
    return nullptr;
  }
  return torture::keep(libc_malloc(size));
}

/// Outside of the host's operations only the library itself calls it: for a request.
void* calloc(size_t count, size_t size) noexcept {
  const bool for_request = armed && injector.current == nullptr;
  Record* record = for_request ? injector.begin(Record::Step::kAllocate) : nullptr;
  const bool fails = injector.next(Op::kMemory) != nullptr;
  if (for_request) {
    record->error = fails ? ENOMEM : 0;
    injector.current = nullptr;
  }
  if (fails) {
    errno = ENOMEM;
    return nullptr;
  }
  return torture::keep(libc_calloc(count, size));
}

void free(void* block) noexcept {
  torture::forget(block);
  libc_free(block);
}

int socket(int domain, int type, int protocol) noexcept {
  const int fd = counted(Op::kSocket, SYS_socket, domain, type, protocol);
  if (torture::tracked && fd != -1) {
    ++injector.sockets;
  }
  return fd;
}

int close(int fd) {
  const long result = syscall(SYS_close, fd);
  if (torture::tracked && result == 0) {
    --injector.sockets;
  }
  return static_cast<int>(result);
}

int bind(int fd, const sockaddr* address, socklen_t size) noexcept {
  return counted(Op::kBind, SYS_bind, fd, address, size);
}

int setsockopt(int fd, int level, int name, const void* value, socklen_t size) noexcept {
  return counted(Op::kSetsockopt, SYS_setsockopt, fd, level, name, value, size);
}

int connect(int fd, const sockaddr* address, socklen_t size) {
  return counted(Op::kConnect, SYS_connect, fd, address, size);
}

ssize_t sendmsg(int fd, const msghdr* message, int flags) {
  return counted(Op::kSend, SYS_sendmsg, fd, message, flags);
}

ssize_t recvfrom(int fd, void* buffer, size_t size, int flags, sockaddr* sender,
                 socklen_t* sender_size) {
  const Fault* fault = injector.next(Op::kReceive);
  const int error = fault != nullptr ? fault->error : 0;
  if (error > 0 || (armed && fault == nullptr && (injector.late = !injector.late))) {
    errno = error > 0 ? error : EAGAIN;
    return -1;
  }
  if (error == torture::kEnd) {
    return 0;
  }
  if (error == torture::kForeign) {
    const nlmsghdr message = {sizeof(message), NLMSG_NOOP, 0, 0, 0};
    memcpy(buffer, &message, sizeof(message));
    return sizeof(message);
  }
  if (armed) {
    pollfd watched{fd, POLLIN, 0};
    torture::wait_for(&watched, 1);
  }
  const ssize_t received = syscall(SYS_recvfrom, fd, buffer, size, flags, sender, sender_size);
  if (error == torture::kTruncated) {
    return static_cast<ssize_t>(size) + 1;
  }
  return error == torture::kShort ? received - 1 : received;
}

int ppoll(pollfd* fds, nfds_t count, const timespec* timeout, const sigset_t* mask) {
  if (!armed) {
    timespec left = *timeout;
    return static_cast<int>(syscall(SYS_ppoll, fds, count, &left, mask, _NSIG / 8));
  }
  const Fault* fault = injector.next(Op::kPoll);
  if (fault == nullptr) {
    return torture::wait_for(fds, count);
  }
  if (fault->error == torture::kTimeout) {
    injector.clock += timeout->tv_sec * torture::kSecond + timeout->tv_nsec;
    return 0;
  }
  fds->revents = POLLERR;
  errno = std::max(fault->error, 0);
  return fault->error == torture::kPollError ? 1 : -1;
}

/// An armed thread's clock stands still but for what its faults cost.
int clock_gettime(clockid_t clock, timespec* time) noexcept {
  if (clock != CLOCK_MONOTONIC || !armed) {
    return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
  }
  injector.next(Op::kClock);
  *time = {injector.clock / torture::kSecond, injector.clock % torture::kSecond};
  return 0;
}

int gettimeofday(timeval* time, void* zone) noexcept {
  return counted(Op::kTimeOfDay, SYS_gettimeofday, time, zone);
}

tm* localtime(const time_t* time) noexcept {
  static thread_local tm result;
  const Fault* fault = injector.next(Op::kLocalTime);
  errno = fault != nullptr ? fault->error : 0;
  return fault != nullptr ? nullptr : localtime_r(time, &result);
}

// NOLINTEND(readability-inconsistent-declaration-parameter-name)

}  // extern "C"
