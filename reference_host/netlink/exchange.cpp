// Exchanges: a request and the whole answer to it, on a connection that each thread keeps.
#include <linux/netlink.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <span>

#include "host_interfaces/corvil_netlink.h"
#include "reference_host/corvil_export.h"
#include "reference_host/netlink/internal.h"

namespace corvil::netlink {
namespace {

/// Holds any request, and several times the largest datagram that the kernel sends in a dump.
constexpr size_t kBufferSize = size_t{128} * 1024;

/// How often a dump is asked for while changes interrupt it.
constexpr int kDumpAttempts = 4;

constexpr int kDefaultTimeoutMs = 3000;

// What the host has set in place of the environment's settings; null or 0: nothing.
constinit const char* chosen_emulator = nullptr;
constinit int chosen_timeout_ms = 0;

using Clock = std::chrono::steady_clock;

/// A socket to the kernel or to an emulator of it. What returns an int returns 0 or a positive
/// errno, which is ETIMEDOUT when it would have had to wait beyond its deadline.
class Connection {
 public:
  Connection() = default;
  ~Connection() { close(); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  /// Whether requests of a netlink protocol to an emulator, or to the kernel where its path is
  /// empty, can go through this socket. Not in a forked child, because the parent still uses it,
  /// and not once the host has closed the descriptor.
  [[nodiscard]] bool is_open_to(int protocol, const char* emulator) const {
    return protocol_ == protocol && process_ == getpid() && strcmp(emulator_, emulator) == 0 &&
           socket_.is_open();
  }

  /// Closes the socket and opens one to there.
  [[nodiscard]] int open(int protocol, const char* emulator, Clock::time_point deadline) {
    sockaddr_nl kernel_address{};
    kernel_address.nl_family = AF_NETLINK;
    sockaddr_un emulator_address{AF_UNIX, {}};
    const size_t path_length = strlen(emulator);
    if (path_length >= sizeof(emulator_)) {
      return ENAMETOOLONG;
    }
    memcpy(emulator_, emulator, path_length + 1);
    memcpy(emulator_address.sun_path, emulator, path_length);
    if (emulator[0] == '@') {
      emulator_address.sun_path[0] = '\0';  // An abstract address begins so.
    }
    const auto* address = reinterpret_cast<const sockaddr*>(&kernel_address);
    socklen_t length = sizeof(kernel_address);
    if (path_length > 0) {
      address = reinterpret_cast<const sockaddr*>(&emulator_address);
      length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path_length);
    }
    protocol_ = protocol;
    process_ = getpid();
    const int type = path_length > 0 ? SOCK_SEQPACKET : SOCK_RAW;
    if (const int error = socket_.adopt(
            socket(address->sa_family, type | SOCK_CLOEXEC, path_length > 0 ? 0 : protocol))) {
      return error;
    }

    // Emulators and old kernels lack these options. Such a kernel gives less detail.
    const int on = 1;
    setsockopt(socket_.number(), SOL_NETLINK, NETLINK_EXT_ACK, &on, sizeof(on));
    setsockopt(socket_.number(), SOL_NETLINK, NETLINK_CAP_ACK, &on, sizeof(on));
    // The kernel lets no other process send to a socket that is connected to it. An emulator keeps
    // this waiting while its backlog is full.
    return complete(SO_SNDTIMEO, deadline,
                    [&] { return connect(socket_.number(), address, length); });
  }

  void close() { socket_.close(); }

  /// Numbers never come back when the socket is replaced, so that a late answer never bears that of
  /// a later request.
  uint32_t next_sequence() { return ++sequence_; }

  /// Where a request is put together, kBufferSize bytes. What is received takes its place.
  nlmsghdr* buffer() { return reinterpret_cast<nlmsghdr*>(buffer_); }

  /// Sends the request in the buffer. EPIPE or ECONNRESET when the peer has closed the connection.
  [[nodiscard]] int send(Clock::time_point deadline) {
    return complete(SO_SNDTIMEO, deadline, [this] {
      return ::send(socket_.number(), buffer_, buffer()->nlmsg_len, MSG_NOSIGNAL);
    });
  }

  /// Receives the next datagram into the buffer, 4-byte aligned. ECONNRESET when the peer has
  /// closed the connection.
  [[nodiscard]] int receive(Clock::time_point deadline, std::span<const std::byte>* datagram) {
    ssize_t size = 0;
    const auto receive_once = [&] {
      return size = recv(socket_.number(), buffer_, kBufferSize, 0);
    };
    if (const int error = complete(SO_RCVTIMEO, deadline, receive_once)) {
      return error;
    }
    if (size == 0) {
      return ECONNRESET;
    }
    *datagram = {buffer_, static_cast<size_t>(size)};
    show(CORVIL_NETLINK_RECEIVED, protocol_, *datagram);
    return 0;
  }

 private:
  /// Does a system call on the socket, which waits as the socket's option `limit` says.
  template <typename Call>
  int complete(int limit, Clock::time_point deadline, Call call) {
    do {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
      if (left.count() <= 0) {
        return ETIMEDOUT;
      }
      const auto milliseconds = static_cast<int>(left.count());
      const timeval time{milliseconds / 1000, milliseconds % 1000 * 1000L};
      setsockopt(socket_.number(), SOL_SOCKET, limit, &time, sizeof(time));
      if (call() != -1) {
        return 0;
      }
    } while (errno == EINTR);
    return errno == EAGAIN ? ETIMEDOUT : errno;
  }

  Descriptor socket_;
  int protocol_ = 0;
  pid_t process_ = 0;
  char emulator_[sizeof(sockaddr_un::sun_path)] = "";  // Without a path: the kernel.
  uint32_t sequence_ = 0;
  alignas(nlmsghdr) std::byte buffer_[kBufferSize];
};

/// The calling thread's connection, or null without memory. It is no thread_local object, because
/// the C++ runtime ends the process when it has no memory to register the destructor of one.
Connection* thread_connection() {
  static pthread_key_t key;
  static const bool kCreated =
      pthread_key_create(&key, [](void* kept) { delete static_cast<Connection*>(kept); }) == 0;
  if (!kCreated) {
    return nullptr;
  }
  if (void* kept = pthread_getspecific(key)) {
    return static_cast<Connection*>(kept);
  }
  std::unique_ptr<Connection> created(new (std::nothrow) Connection);
  return pthread_setspecific(key, created.get()) == 0 ? created.release() : nullptr;
}

struct Request {
  const nlmsghdr* message;
  int protocol;
  corvil_netlink_reply_callback callback;  // null: only the acknowledgement counts
  void* context;
  bool dump;
  int* kernel_error;  // receives an error of the kernel as a negative errno, unless null
};

/// How far the answer has come. A dump that is interrupted can be asked for again.
enum class Progress { kPending, kDone, kInterrupted, kFailed };

class Exchange {
 public:
  Exchange(const Request& request, Connection& connection)
      : request_(request), connection_(connection) {}

  /// Puts the request together in the connection's buffer, and shows it.
  void compose(uint32_t sequence) {
    nlmsghdr* message = connection_.buffer();
    memcpy(message, request_.message, request_.message->nlmsg_len);
    message->nlmsg_seq = sequence;
    if (request_.dump) {
      message->nlmsg_flags |= NLM_F_DUMP;
    }
    show(CORVIL_NETLINK_SENT, request_.protocol,
         {reinterpret_cast<const std::byte*>(message), message->nlmsg_len});
  }

  /// Sends the request once and takes its answer; never returns kPending.
  Progress ask() {
    sequence_ = connection_.next_sequence();
    interrupted_ = false;
    if (timeout_ms_ == -1 || send() == -1) {
      return Progress::kFailed;
    }
    deadline_ = next_deadline();
    Progress progress = Progress::kPending;
    while (progress == Progress::kPending) {
      std::span<const std::byte> datagram;
      const int error = connection_.receive(deadline_, &datagram);
      progress = error == 0 ? take(datagram) : give_up(error);
    }
    return progress;
  }

 private:
  int send() {
    const bool kept = connection_.is_open_to(request_.protocol, emulator_);
    if (!kept && open() == -1) {
      return -1;
    }
    compose(sequence_);
    int error = connection_.send(next_deadline());
    if (kept && (error == EPIPE || error == ECONNRESET)) {
      // The peer has closed the kept connection since then. It may have been restarted.
      if (open() == -1) {
        return -1;
      }
      error = connection_.send(next_deadline());
    }
    if (error != 0) {
      connection_.close();
      return fail(error, "cannot send the request: %m");
    }
    return 0;
  }

  int open() {
    const int error = connection_.open(request_.protocol, emulator_, next_deadline());
    if (error == 0) {
      return 0;
    }
    connection_.close();
    return emulator_[0] != '\0'
               ? fail(error, "cannot reach the emulator: %m: %s", emulator_)
               : fail(error, "cannot open a socket of netlink protocol %d: %m", request_.protocol);
  }

  Progress take(std::span<const std::byte> datagram) {
    const auto* message = reinterpret_cast<const nlmsghdr*>(datagram.data());
    auto left = static_cast<int64_t>(datagram.size());  // below 0 where padding is missing
    while (NLMSG_OK(message, left)) {
      const Progress progress =
          message->nlmsg_seq == sequence_ ? take(message) : Progress::kPending;
      if (progress != Progress::kPending) {
        return progress;
      }
      message = NLMSG_NEXT(message, left);
    }
    return left > 0 ? give_up(EBADMSG) : Progress::kPending;
  }

  Progress take(const nlmsghdr* message) {
    interrupted_ |= (message->nlmsg_flags & NLM_F_DUMP_INTR) != 0;
    const bool is_error = message->nlmsg_type == NLMSG_ERROR;
    if (is_error || (message->nlmsg_type == NLMSG_DONE && request_.dump)) {
      if (NLMSG_PAYLOAD(message, 0) < (is_error ? sizeof(nlmsgerr) : sizeof(int))) {
        return give_up(EBADMSG);
      }
      // Both begin with the result. The acknowledgement of a dump is followed by the dump.
      const int result = *static_cast<const int*>(NLMSG_DATA(message));
      return is_error && request_.dump && result == 0 ? Progress::kPending
                                                      : finish(result, message);
    }
    if (message->nlmsg_type == request_.message->nlmsg_type && request_.callback != nullptr) {
      request_.callback(message, request_.context);
      deadline_ = next_deadline();  // The time that the callback took does not count.
      const bool more = request_.dump || (request_.message->nlmsg_flags & NLM_F_ACK) != 0;
      return more ? Progress::kPending : finish(0, message);
    }
    return Progress::kPending;
  }

  /// Judges a complete answer by its result: 0 or the kernel's negative errno.
  Progress finish(int result, const nlmsghdr* answer) {
    if (result > 0) {
      return give_up(EBADMSG);
    }
    if (result == 0) {
      return request_.dump && interrupted_ ? Progress::kInterrupted : Progress::kDone;
    }
    record_kernel_error(-result, answer);
    if (request_.kernel_error != nullptr) {
      *request_.kernel_error = result;
    }
    return Progress::kFailed;
  }

  /// Ends the exchange without a whole answer, of which more may come.
  Progress give_up(int error) {
    connection_.close();
    if (error == ETIMEDOUT) {
      fail(error, "no answer within %d ms", timeout_ms_);
    } else if (error == EBADMSG) {
      fail(error, "the answer is malformed");
    } else {
      fail(error, "cannot receive the answer: %m");
    }
    return Progress::kFailed;
  }

  /// Until when the next step of the exchange may take.
  [[nodiscard]] Clock::time_point next_deadline() const {
    return Clock::now() + std::chrono::milliseconds{timeout_ms_};
  }

  const Request& request_;
  Connection& connection_;
  const char* emulator_ = corvil_netlink_emulator();
  const int timeout_ms_ = corvil_netlink_timeout();
  Clock::time_point deadline_;  // of what is received next
  uint32_t sequence_ = 0;
  bool interrupted_ = false;  // The kernel says that the dump is inconsistent.
};

/// Sends a request and takes its answer. Returns 0, or -1 with the thread's last error recorded.
int exchange(const Request& request) {
  Connection* connection = thread_connection();
  if (connection == nullptr) {
    return fail(ENOMEM, "no memory for a connection");
  }
  const uint32_t length = request.message->nlmsg_len;
  if (length < sizeof(nlmsghdr) || length > kBufferSize) {
    return fail(EMSGSIZE, "a request has at least 16 and at most %zu bytes, not %u", kBufferSize,
                length);
  }
  Exchange current(request, *connection);
  if (dry_run_family_id() != 0) {
    current.compose(0);
    last_error = {};
    return 0;
  }
  for (int attempt = 0; attempt < kDumpAttempts; ++attempt) {
    const Progress progress = current.ask();
    if (progress == Progress::kDone) {
      last_error = {};
      return 0;
    }
    if (progress == Progress::kFailed) {
      return -1;
    }
  }
  return fail(EINTR, "the dump was interrupted by changes %d times in a row", kDumpAttempts);
}

}  // namespace
}  // namespace corvil::netlink

CORVIL_EXPORT int corvil_netlink_transact(const struct nlmsghdr* request, int protocol,
                                          int* error) {
  return corvil::netlink::exchange({request, protocol, nullptr, nullptr, false, error});
}

CORVIL_EXPORT int corvil_netlink_query(const struct nlmsghdr* request, int protocol,
                                       corvil_netlink_reply_callback callback, void* context,
                                       int dump) {
  return corvil::netlink::exchange({request, protocol, callback, context, dump != 0, nullptr});
}

CORVIL_EXPORT void corvil_netlink_set_emulator(const char* path) {
  corvil::netlink::chosen_emulator = path;
}

CORVIL_EXPORT const char* corvil_netlink_emulator() {
  if (corvil::netlink::chosen_emulator != nullptr) {
    return corvil::netlink::chosen_emulator;
  }
  const char* value = secure_getenv("CORVIL_NETLINK_EMULATOR");
  return value != nullptr ? value : "";
}

CORVIL_EXPORT void corvil_netlink_set_timeout(int milliseconds) {
  corvil::netlink::chosen_timeout_ms = milliseconds;
}

CORVIL_EXPORT int corvil_netlink_timeout() {
  if (corvil::netlink::chosen_timeout_ms != 0) {
    return corvil::netlink::chosen_timeout_ms;
  }
  const char* text = secure_getenv("CORVIL_NETLINK_TIMEOUT_MS");
  if (text == nullptr || text[0] == '\0') {
    return corvil::netlink::kDefaultTimeoutMs;
  }
  int milliseconds = 0;
  const char* end = text + strlen(text);
  const auto [rest, error] = std::from_chars(text, end, milliseconds);
  if (error == std::errc{} && rest == end && milliseconds > 0) {
    return milliseconds;
  }
  return corvil::netlink::fail(
      EINVAL, "CORVIL_NETLINK_TIMEOUT_MS: '%s' is not a positive number of milliseconds", text);
}
