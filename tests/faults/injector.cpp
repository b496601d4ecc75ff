#include "tests/faults/injector.h"

#include <linux/netlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace faults {
namespace {

constexpr int64_t kSecond = 1'000'000'000;

/// What a fault costs that may be answered by another try: three exceed the time-out of 3 s.
constexpr int64_t kDelay = kSecond * 5 / 4;

constinit thread_local bool tracked = false;

void track(int& held, bool changes, int by) {
  if (tracked && changes) {
    held += by;
  }
}

void* keep(void* block) {
  track(injector.blocks, block != nullptr, 1);
  return block;
}

bool fails(Operation operation) {
  const int error = injector.next(operation);
  errno = error != 0 ? error : errno;
  return error != 0;
}

template <typename... Arguments>
int counted(Operation operation, long number, Arguments... arguments) {
  return fails(operation) ? -1 : static_cast<int>(syscall(number, arguments...));
}

}  // namespace

constinit Injector injector;
constinit thread_local bool armed = false;

void Injector::track(const Fault& chosen) {
  injector = {};
  injector.fault = chosen;
  tracked = true;
}

int Injector::next(Operation operation) {
  if (!armed) {
    return 0;
  }
  const size_t number = count++;
  operations[number] = operation;
  armed = count < operations.size();
  const bool strikes = number == fault.number ||
                       (fault.forever && number > fault.number && operation == fault.operation);
  if (!strikes) {
    return 0;
  }
  const bool is_tried_again = operation == "sendmsg" || operation == "connect" ||
                              operation == "recvfrom" || operation == "ppoll";
  clock += is_tried_again ? kDelay : 0;
  return fault.error;
}

}  // namespace faults

// The C library's functions

using namespace faults;

extern "C" {

// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name): theirs are reserved names.

void* libc_malloc(size_t size) __asm__("__libc_malloc");
void* libc_calloc(size_t count, size_t size) __asm__("__libc_calloc");
void libc_free(void* block) __asm__("__libc_free");

void* malloc(size_t size) noexcept { return fails("malloc") ? nullptr : keep(libc_malloc(size)); }
void* calloc(size_t count, size_t size) noexcept {
  return fails("calloc") ? nullptr : keep(libc_calloc(count, size));
}

void free(void* block) noexcept {
  track(injector.blocks, block != nullptr, -1);
  libc_free(block);
}

int socket(int domain, int type, int protocol) noexcept {
  const int fd = counted("socket", SYS_socket, domain, type, protocol);
  track(injector.sockets, fd != -1, 1);
  return fd;
}

int close(int fd) {
  const long result = syscall(SYS_close, fd);
  track(injector.sockets, result == 0, -1);
  return static_cast<int>(result);
}

int bind(int fd, const sockaddr* address, socklen_t size) noexcept {
  return counted("bind", SYS_bind, fd, address, size);
}
int setsockopt(int fd, int level, int name, const void* value, socklen_t size) noexcept {
  return counted("setsockopt", SYS_setsockopt, fd, level, name, value, size);
}
int connect(int fd, const sockaddr* address, socklen_t size) {
  return counted("connect", SYS_connect, fd, address, size);
}
ssize_t sendmsg(int fd, const msghdr* message, int flags) {
  return counted("sendmsg", SYS_sendmsg, fd, message, flags);
}

ssize_t recvfrom(int fd, void* buffer, size_t size, int flags, sockaddr* sender,
                 socklen_t* sender_size) {
  const int error = injector.next("recvfrom");
  if (error > 0 || (armed && error == 0 && (injector.late = !injector.late))) {
    errno = error > 0 ? error : EAGAIN;
    return -1;
  }
  if (error == kStale) {
    const struct {  // Without memory, unlike a string.
      nlmsghdr header{sizeof(*this), NLMSG_ERROR, NLM_F_CAPPED, 0, 0};
      nlmsgerr refusal{-EIO, {}};
    } answer;
    memcpy(buffer, &answer, sizeof(answer));
    return sizeof(answer);
  }
  if (armed) {
    pollfd watched{fd, POLLIN, 0};
    poll(&watched, 1, -1);
  }
  const ssize_t received = syscall(SYS_recvfrom, fd, buffer, size, flags, sender, sender_size);
  switch (error) {
    case kEnd:
      return 0;
    case kTruncated:
      return static_cast<ssize_t>(size) + 1;
    default:
      return received - (error == kShort ? 1 : 0);
  }
}

int ppoll(pollfd* fds, nfds_t count, const timespec* timeout, const sigset_t* mask) {
  if (!armed) {
    timespec left = *timeout;
    return static_cast<int>(syscall(SYS_ppoll, fds, count, &left, mask, _NSIG / 8));
  }
  const int error = injector.next("ppoll");
  if (error == 0) {
    return poll(fds, count, -1);
  }
  errno = std::max(error, 0);
  return error == kTimeout ? 0 : error == kPollError ? 1 : -1;
}

int clock_gettime(clockid_t clock, timespec* time) noexcept {
  if (clock != CLOCK_MONOTONIC || !armed) {
    return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
  }
  *time = {injector.clock / kSecond, injector.clock % kSecond};
  return 0;
}

tm* localtime(const time_t* time) noexcept {
  static thread_local tm result;
  return fails("localtime") ? nullptr : localtime_r(time, &result);
}

int fflush(FILE* stream) { return fails("fflush") ? EOF : fflush_unlocked(stream); }

// NOLINTEND(readability-inconsistent-declaration-parameter-name)

}  // extern "C"
