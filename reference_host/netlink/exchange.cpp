#include "reference_host/netlink/exchange.h"

#include <libmnl/libmnl.h>
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

#include "reference_host/netlink/deadline.h"
#include "reference_host/netlink/dry_run.h"
#include "reference_host/netlink/last_error.h"
#include "reference_host/netlink/netlink_socket.h"
#include "reference_host/netlink/trace.h"

namespace corvil::netlink {
namespace {

/// An interrupted dump is asked for once more, this many times.
constexpr int kDumpRetries = 3;

/// The kernel's errors end here.
constexpr int kMaxErrno = 4095;

/// A host sets its environment before it starts threads.
const char* emulator_setting() {
  const char* value = secure_getenv("CORVIL_NETLINK_EMULATOR");
  return value != nullptr ? value : "";
}

uint32_t sequence_seed() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return static_cast<uint32_t>(std::chrono::duration_cast<std::chrono::microseconds>(now).count());
}

/// What a thread keeps from one exchange to the next.
struct Connection {
  NetlinkSocket socket;
  /// Outlives the sockets, so that a late reply finds its number used for nothing else.
  uint32_t sequence = sequence_seed();
  bool busy = false;
};

std::optional<pthread_key_t> create_connection_key() {
  pthread_key_t key{};
  const auto destroy = [](void* connection) { delete static_cast<Connection*>(connection); };
  return pthread_key_create(&key, destroy) == 0 ? std::optional(key) : std::nullopt;
}

/// Null with no memory. The C++ runtime would end the process where it has none to note that a
/// thread_local object is to be destroyed.
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

/// Whether the lengths in a datagram hold together, to its last byte.
bool is_well_formed(std::span<const std::byte> datagram) {
  const auto* message = reinterpret_cast<const nlmsghdr*>(datagram.data());
  int left = static_cast<int>(datagram.size());
  while (mnl_nlmsg_ok(message, left)) {
    // mnl_nlmsg_ok() takes a length of 2^31 and more for a negative one.
    if (message->nlmsg_len > datagram.size()) {
      return false;
    }
    if (message->nlmsg_type == NLMSG_ERROR &&
        mnl_nlmsg_get_payload_len(message) < sizeof(nlmsgerr)) {
      return false;
    }
    message = mnl_nlmsg_next(message, &left);
  }
  return left <= 0;
}

enum class Progress { kPending, kDone, kInterrupted, kFailed };

/// The header of a request as it is sent.
nlmsghdr header_of(const Request& request, uint32_t sequence) {
  nlmsghdr header = *request.message;
  header.nlmsg_seq = sequence;
  if (request.dump) {
    header.nlmsg_flags |= NLM_F_DUMP;
  }
  return header;
}

/// Shows the request in one piece, as the peer will see it.
int trace_request(const nlmsghdr& header, const Request& request) {
  if (!tracing()) {
    return 0;
  }
  const std::unique_ptr<std::byte[]> copy(new (std::nothrow) std::byte[header.nlmsg_len]);
  if (copy == nullptr) {
    return fail(ENOMEM, "no memory to trace the request");
  }
  memcpy(copy.get(), request.message, header.nlmsg_len);
  memcpy(copy.get(), &header, sizeof(header));
  trace(CORVIL_NETLINK_SENT, request.protocol, copy.get(), header.nlmsg_len);
  return 0;
}

class Exchange {
 public:
  Exchange(const Request& request, Connection& connection, int* refusal)
      : request_(request),
        socket_(connection.socket),
        connection_(connection),
        refusal_(refusal),
        endpoint_{request.protocol, emulator_setting()} {
    connection_.busy = true;
  }
  ~Exchange() { connection_.busy = false; }
  Exchange(const Exchange&) = delete;
  Exchange& operator=(const Exchange&) = delete;

  /// Asks once and takes the answer; never returns kPending.
  Progress ask();

 private:
  int send();
  int open();
  Progress take(std::span<const std::byte> datagram);
  Progress take(const nlmsghdr* message);
  Progress finish(int result, const nlmsghdr* answer);
  Progress give_up(int error);

  const Request& request_;
  NetlinkSocket& socket_;
  Connection& connection_;
  int* refusal_;
  Endpoint endpoint_;
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
  // What comes without being waited for may never end.
  do {
    std::span<const std::byte> datagram;
    const int error = socket_.receive(deadline_, &datagram);
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
  const bool kept = socket_.is_open_to(endpoint_);
  if ((!kept && open() == -1) || trace_request(header, request_) == -1) {
    return -1;
  }
  int error = socket_.send(header, request_.message);
  if (kept && (error == EPIPE || error == ECONNRESET)) {
    // The peer has gone since the last exchange, and perhaps come back.
    if (open() == -1) {
      return -1;
    }
    error = socket_.send(header, request_.message);
  }
  if (error != 0) {
    socket_.close();
    return fail(error, "cannot send the request: %m");
  }
  return 0;
}

int Exchange::open() {
  const int error = socket_.open(endpoint_);
  if (error == 0) {
    return 0;
  }
  return endpoint_.emulator[0] != '\0'
             ? fail(error, "cannot reach the emulator: %m: %s", endpoint_.emulator)
             : fail(error, "cannot open a socket of netlink protocol %d: %m", endpoint_.protocol);
}

Progress Exchange::take(std::span<const std::byte> datagram) {
  if (!is_well_formed(datagram)) {
    return give_up(EBADMSG);
  }
  const auto* message = reinterpret_cast<const nlmsghdr*>(datagram.data());
  int left = static_cast<int>(datagram.size());
  while (mnl_nlmsg_ok(message, left)) {
    if (message->nlmsg_seq == sequence_) {
      const Progress progress = take(message);
      if (progress != Progress::kPending) {
        return progress;
      }
    }
    message = mnl_nlmsg_next(message, &left);
  }
  return Progress::kPending;
}

Progress Exchange::take(const nlmsghdr* message) {
  interrupted_ |= (message->nlmsg_flags & NLM_F_DUMP_INTR) != 0;
  const void* payload = mnl_nlmsg_get_payload(message);
  if (message->nlmsg_type == NLMSG_ERROR) {
    const int result = static_cast<const nlmsgerr*>(payload)->error;
    return request_.dump && result == 0 ? Progress::kPending : finish(result, message);
  }
  if (message->nlmsg_type == NLMSG_DONE && request_.dump) {
    return mnl_nlmsg_get_payload_len(message) < sizeof(int)
               ? give_up(EBADMSG)
               : finish(*static_cast<const int*>(payload), message);
  }
  if (message->nlmsg_type == request_.message->nlmsg_type && request_.callback != nullptr) {
    request_.callback(message, request_.context);
    // The rest of the answer has all the time again, and the callback has cost it none.
    deadline_ = {};
    const bool more = request_.dump || (request_.message->nlmsg_flags & NLM_F_ACK) != 0;
    return more ? Progress::kPending : finish(0, message);
  }
  return Progress::kPending;
}

/// The answer is complete: 0 or the kernel's negative errno.
Progress Exchange::finish(int result, const nlmsghdr* answer) {
  if (result > 0 || result < -kMaxErrno) {
    return give_up(EBADMSG);
  }
  if (result != 0) {
    record_refusal(-result, answer);
    if (refusal_ != nullptr) {
      *refusal_ = result;
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

Progress Exchange::give_up(int error) {
  if (error == ETIMEDOUT && lost_) {
    error = ENOBUFS;
  }
  // Sequence numbers tell late answers apart, but nothing ends a dump that the kernel still feeds.
  if (request_.dump || (error != ETIMEDOUT && error != ENOBUFS)) {
    socket_.close();
  }
  switch (error) {
    case ETIMEDOUT:
      fail(error, "no answer within %lld ms", static_cast<long long>(deadline_.timeout().count()));
      break;
    case ENOBUFS:
      fail(error, "an answer was lost: the socket's receive buffer overflowed");
      break;
    case EMSGSIZE:
      fail(error, "the answer is longer than the receive buffer");
      break;
    case EBADMSG:
      fail(error, "the answer is malformed");
      break;
    case ECONNRESET:
      fail(error, "the peer closed the connection before its answer");
      break;
    default:
      fail(error, "cannot receive the answer: %m");
      break;
  }
  return Progress::kFailed;
}

}  // namespace

int exchange(const Request& request, int* refusal) {
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
  if (is_dry_run()) {
    clear_last_error();
    return trace_request(header_of(request, 0), request);
  }
  Exchange current(request, *connection, refusal);
  for (int attempt = 0; attempt <= kDumpRetries; ++attempt) {
    const Progress progress = current.ask();
    if (progress == Progress::kDone) {
      clear_last_error();
      return 0;
    }
    if (progress == Progress::kFailed) {
      return -1;
    }
  }
  return fail(EINTR, "the dump was interrupted by changes %d times in a row", kDumpRetries + 1);
}

}  // namespace corvil::netlink
