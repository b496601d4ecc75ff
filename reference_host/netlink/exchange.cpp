// Exchanges: a request and the whole answer to it, on a connection that each thread keeps.
#include <linux/netlink.h>
#include <pthread.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <span>

#include "host_interfaces/corvil_netlink.h"
#include "reference_host/corvil_export.h"
#include "reference_host/netlink/corvil_netlink_control.h"
#include "reference_host/netlink/last_error.h"
#include "reference_host/netlink/netlink_socket.h"
#include "reference_host/netlink/observers.h"

namespace corvil::netlink {
namespace {

/// How often a dump is asked for while changes interrupt it.
constexpr int kDumpAttempts = 4;

/// The largest errno of the kernel.
constexpr int kMaxErrno = 4095;

struct Request {
  const nlmsghdr* message;
  int protocol;
  corvil_netlink_reply_callback callback;  // null: only the acknowledgement counts
  void* context;
  bool dump;
};

/// The path that the host has set in place of the environment's; null: none.
constinit const char* chosen_emulator = nullptr;

const char* emulator_setting() {
  if (chosen_emulator != nullptr) {
    return chosen_emulator;
  }
  const char* value = secure_getenv("CORVIL_NETLINK_EMULATOR");
  return value != nullptr ? value : "";
}

/// What a thread keeps from one exchange to the next.
struct Connection {
  NetlinkSocket socket;
  /// Goes on counting when the socket is replaced, so that a late reply never bears the number of a
  /// later request.
  uint32_t sequence = 0;
  bool busy = false;
};

std::optional<pthread_key_t> create_connection_key() {
  pthread_key_t key{};
  const auto destroy = [](void* connection) { delete static_cast<Connection*>(connection); };
  return pthread_key_create(&key, destroy) == 0 ? std::optional(key) : std::nullopt;
}

/// The calling thread's connection, or null without memory. It is no thread_local object, because
/// the C++ runtime ends the process when it has no memory to register the destructor of one.
Connection* thread_connection() {
  static const std::optional<pthread_key_t> kKey = create_connection_key();
  if (!kKey) {
    return nullptr;
  }
  if (void* kept = pthread_getspecific(*kKey)) {
    return static_cast<Connection*>(kept);
  }
  std::unique_ptr<Connection> created(new (std::nothrow) Connection);
  return pthread_setspecific(*kKey, created.get()) == 0 ? created.release() : nullptr;
}

/// The header of a request as it is sent.
nlmsghdr header_of(const Request& request, uint32_t sequence) {
  nlmsghdr header = *request.message;
  header.nlmsg_seq = sequence;
  if (request.dump) {
    header.nlmsg_flags |= NLM_F_DUMP;
  }
  return header;
}

/// How far the answer has come. A dump that is interrupted can be asked for again.
enum class Progress { kPending, kDone, kInterrupted, kFailed };

/// Records why no whole answer was received. Returns -1.
int fail_to_receive(int error, std::chrono::milliseconds timeout) {
  switch (error) {
    case ETIMEDOUT:
      return fail(error, "no answer within %lld ms", static_cast<long long>(timeout.count()));
    case ENOBUFS:
      return fail(error, "an answer was lost: the socket's receive buffer overflowed");
    case EMSGSIZE:
      return fail(error, "the answer is longer than the receive buffer");
    case EBADMSG:
      return fail(error, "the answer is malformed");
    case ECONNRESET:
      return fail(error, "the peer closed the connection before its answer");
    default:
      return fail(error, "cannot receive the answer: %m");
  }
}

class Exchange {
 public:
  Exchange(const Request& request, Connection& connection, int* kernel_error)
      : request_(request),
        connection_(connection),
        kernel_error_(kernel_error),
        emulator_(emulator_setting()) {
    connection_.busy = true;
  }
  ~Exchange() { connection_.busy = false; }
  Exchange(const Exchange&) = delete;
  Exchange& operator=(const Exchange&) = delete;

  /// Sends the request once and takes its answer; never returns kPending.
  Progress ask();

 private:
  int send();
  int open();
  Progress take(std::span<const std::byte> datagram);
  Progress take(const nlmsghdr* message);
  Progress finish(int result, const nlmsghdr* answer);
  Progress give_up(int error);

  const Request& request_;
  Connection& connection_;
  int* kernel_error_;
  const char* emulator_;
  Deadline deadline_;
  uint32_t sequence_ = 0;
  bool lost_ = false;         // The receive buffer overflowed.
  bool interrupted_ = false;  // The kernel says that the dump is inconsistent.
};

Progress Exchange::ask() {
  sequence_ = ++connection_.sequence;
  lost_ = false;
  interrupted_ = false;
  if (send() == -1) {
    return Progress::kFailed;
  }
  deadline_ = {};
  // receive() looks at the clock only when it has to wait. Whoever keeps sending messages that are
  // no answer never lets it wait, so the clock is looked at here, too.
  do {
    std::span<const std::byte> datagram;
    const int error = connection_.socket.receive(deadline_, &datagram);
    if (error != 0 && error != ENOBUFS) {
      return give_up(error);
    }
    lost_ |= error == ENOBUFS;
    const Progress progress = error == 0 ? take(datagram) : Progress::kPending;
    if (progress != Progress::kPending) {
      return progress;
    }
  } while (deadline_.remaining().count() > 0);
  return give_up(ETIMEDOUT);
}

int Exchange::send() {
  const nlmsghdr header = header_of(request_, sequence_);
  const bool kept = connection_.socket.is_open_to(request_.protocol, emulator_);
  if ((!kept && open() == -1) || show_request(request_.protocol, header, request_.message) == -1) {
    return -1;
  }
  int error = connection_.socket.send(header, request_.message);
  if (kept && (error == EPIPE || error == ECONNRESET)) {
    // The peer has closed the kept connection since the last exchange. It may have been restarted.
    if (open() == -1) {
      return -1;
    }
    error = connection_.socket.send(header, request_.message);
  }
  if (error != 0) {
    connection_.socket.close();
    return fail(error, "cannot send the request: %m");
  }
  return 0;
}

int Exchange::open() {
  if (corvil_netlink_timeout() == -1) {
    return -1;
  }
  const int error = connection_.socket.open(request_.protocol, emulator_);
  if (error == 0) {
    return 0;
  }
  return emulator_[0] != '\0'
             ? fail(error, "cannot reach the emulator: %m: %s", emulator_)
             : fail(error, "cannot open a socket of netlink protocol %d: %m", request_.protocol);
}

Progress Exchange::take(std::span<const std::byte> datagram) {
  const auto* message = reinterpret_cast<const nlmsghdr*>(datagram.data());
  auto left = static_cast<int64_t>(datagram.size());  // below 0 where padding is missing
  while (NLMSG_OK(message, left)) {
    const Progress progress = message->nlmsg_seq == sequence_ ? take(message) : Progress::kPending;
    if (progress != Progress::kPending) {
      return progress;
    }
    message = NLMSG_NEXT(message, left);
  }
  return left > 0 ? give_up(EBADMSG) : Progress::kPending;
}

Progress Exchange::take(const nlmsghdr* message) {
  interrupted_ |= (message->nlmsg_flags & NLM_F_DUMP_INTR) != 0;
  const bool is_error = message->nlmsg_type == NLMSG_ERROR;
  if (is_error || (message->nlmsg_type == NLMSG_DONE && request_.dump)) {
    if (NLMSG_PAYLOAD(message, 0) < (is_error ? sizeof(nlmsgerr) : sizeof(int))) {
      return give_up(EBADMSG);
    }
    // Both begin with the result. The acknowledgement of a dump is followed by the dump.
    const int result = *static_cast<const int*>(NLMSG_DATA(message));
    return is_error && request_.dump && result == 0 ? Progress::kPending : finish(result, message);
  }
  if (message->nlmsg_type == request_.message->nlmsg_type && request_.callback != nullptr) {
    request_.callback(message, request_.context);
    deadline_ = {};  // Waiting for the rest starts here, after the time that the callback took.
    const bool more = request_.dump || (request_.message->nlmsg_flags & NLM_F_ACK) != 0;
    return more ? Progress::kPending : finish(0, message);
  }
  return Progress::kPending;
}

/// Judges a complete answer by its result: 0 or the kernel's negative errno.
Progress Exchange::finish(int result, const nlmsghdr* answer) {
  if (result > 0 || result < -kMaxErrno) {
    return give_up(EBADMSG);
  }
  if (result != 0) {
    record_kernel_error(-result, answer);
    if (kernel_error_ != nullptr) {
      *kernel_error_ = result;
    }
    return Progress::kFailed;
  }
  if (request_.dump && (lost_ || interrupted_)) {
    return Progress::kInterrupted;
  }
  if (request_.callback != nullptr && lost_) {
    return give_up(ENOBUFS);
  }
  return Progress::kDone;
}

/// Ends the exchange without a whole answer.
Progress Exchange::give_up(int error) {
  if (error == ETIMEDOUT && lost_) {
    error = ENOBUFS;
  }
  // After these two errors the socket can be kept: a late answer is recognised by its number. A
  // dump is no such case, because the kernel has more of it to send and starts no other meanwhile.
  if (request_.dump || (error != ETIMEDOUT && error != ENOBUFS)) {
    connection_.socket.close();
  }
  fail_to_receive(error, deadline_.timeout());
  return Progress::kFailed;
}

/// Sends a request and takes its answer. Returns 0, or -1 with the thread's last error recorded; an
/// error of the kernel is also stored at `kernel_error`, unless null, as a negative errno.
int exchange(const Request& request, int* kernel_error) {
  Connection* connection = thread_connection();
  if (connection == nullptr) {
    return fail(ENOMEM, "no memory for a connection");
  }
  if (connection->busy) {
    return fail(EBUSY, "an exchange of this thread is in progress");
  }
  if (request.message->nlmsg_len < sizeof(nlmsghdr)) {
    return fail(EINVAL, "the request is shorter than its header");
  }
  if (dry_run_family_id() != 0) {
    last_error = {};
    return show_request(request.protocol, header_of(request, 0), request.message);
  }
  Exchange current(request, *connection, kernel_error);
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
  return corvil::netlink::exchange({request, protocol, nullptr, nullptr, false}, error);
}

CORVIL_EXPORT int corvil_netlink_query(const struct nlmsghdr* request, int protocol,
                                       corvil_netlink_reply_callback callback, void* context,
                                       int dump) {
  return corvil::netlink::exchange({request, protocol, callback, context, dump != 0}, nullptr);
}

CORVIL_EXPORT void corvil_netlink_set_emulator(const char* path) {
  corvil::netlink::chosen_emulator = path;
}

CORVIL_EXPORT const char* corvil_netlink_emulator() { return corvil::netlink::emulator_setting(); }
