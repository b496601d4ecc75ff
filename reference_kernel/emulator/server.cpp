#include "reference_kernel/emulator/server.h"

#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

#include "reference_kernel/emulator/control.h"

namespace tavik_wlan {
namespace {

/// Longest datagram of requests; who sends a longer one is hung up on.
constexpr size_t kMaxRequest = 131072;

/// Most bytes that wait for all clients together; the longest answer takes less than 4 MiB.
constexpr size_t kMaxQueued = size_t{64} << 20;

/// Most bytes that wait for a monitor. From then on it gets no copies until it has read all of
/// them.
constexpr size_t kMaxCopies = size_t{1} << 20;

/// Longest piece of the state in one message.
constexpr size_t kMaxPiece = 32768;

/// How long to wait when there are no descriptors, and no client to take one from.
constexpr std::chrono::milliseconds kPause{10};

/// The positions of what poll() waits for.
enum Watched : size_t { kStopped, kListener, kFirstClient };

}  // namespace

short Server::Client::awaited(Clock::time_point now) const {
  if (unsent.empty()) {
    return POLLIN;
  }
  return unsent.front().due <= now ? POLLOUT : 0;
}

void Server::Client::queue(Datagram bytes, Clock::time_point due, bool is_answer) {
  unsent_bytes += bytes.size();
  unsent.push_back({std::move(bytes), due, is_answer});
}

void Server::Client::drop_unsent() {
  unsent.clear();
  unsent_bytes = 0;
}

void Server::Client::hang_up() {
  drop_unsent();
  socket = FileDescriptor(-1);
}

Server::Server(const std::string& path, Kernel& kernel, Observer observer)
    : kernel_(kernel),
      observer_(std::move(observer)),
      listener_(path),
      stopped_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      buffer_(kMaxRequest) {
  if (!stopped_.is_open()) {
    throw std::system_error(errno, std::generic_category(), "cannot create an eventfd");
  }
}

void Server::run() {
  for (;;) {
    std::vector<pollfd> polled = watched();
    if (poll(polled.data(), polled.size(), poll_timeout()) == -1) {
      continue;
    }
    if (polled[kStopped].revents != 0) {
      return;
    }
    auto events = polled.begin() + kFirstClient;
    for (Client& client : clients_) {
      serve(client, (events++)->revents);
    }
    if (polled[kListener].revents != 0) {
      accept_client();
    }
    clients_.remove_if([](const Client& client) { return !client.socket.is_open(); });
  }
}

void Server::stop() const { eventfd_write(stopped_.get(), 1); }

std::vector<pollfd> Server::watched() const {
  const Clock::time_point now = Clock::now();
  std::vector<pollfd> polled{
      {.fd = stopped_.get(), .events = POLLIN, .revents = 0},
      {.fd = listener_.fd(), .events = POLLIN, .revents = 0},
  };
  for (const Client& client : clients_) {
    polled.push_back({.fd = client.socket.get(), .events = client.awaited(now), .revents = 0});
  }
  return polled;
}

/// In milliseconds; while answers are kept back, their time is looked at as often.
int Server::poll_timeout() const {
  const Clock::time_point now = Clock::now();
  const auto keeps_back = [now](const Client& client) {
    return !client.unsent.empty() && client.unsent.front().due > now;
  };
  return std::ranges::any_of(clients_, keeps_back) ? 1 : -1;
}

void Server::accept_client() {
  FileDescriptor socket = listener_.accept();
  if (socket.is_open()) {
    const pid_t pid = peer_of(socket).pid;
    clients_.push_back({std::move(socket), {.port_id = ++connections_, .pid = pid}});
  } else if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
    make_room_for_client();
  }
}

/// The waiting connection is accepted at the next turn.
void Server::make_room_for_client() {
  const auto quietest = std::ranges::min_element(clients_, {}, &Client::active);
  if (quietest != clients_.end()) {
    quietest->hang_up();
  } else {
    std::this_thread::sleep_for(kPause);
  }
}

void Server::make_room_for_answers() {
  const auto last_took = [](const Client& client) {
    return client.unsent.empty() ? Clock::time_point::max() : client.active;
  };
  const auto queued = [&] {
    size_t bytes = 0;
    for (const Client& client : clients_) {
      bytes += client.unsent_bytes;
    }
    return bytes;
  };
  while (queued() > kMaxQueued) {
    std::ranges::min_element(clients_, {}, last_took)->hang_up();
  }
}

void Server::serve(Client& client, short events) {
  if (events == 0) {
    return;
  }
  if ((events & (POLLHUP | POLLERR)) != 0) {
    client.drop_unsent();
  }
  if (client.unsent.empty()) {
    receive(client);
  }
  flush(client);
  make_room_for_answers();
}

/// Receives one datagram and queues its answer, or hangs up at the end of the connection.
void Server::receive(Client& client) {
  const ssize_t received = recv(client.socket.get(), buffer_.data(), buffer_.size(), MSG_TRUNC);
  if (received == -1) {
    // ECONNRESET comes before what the client sent in time.
    if (errno != EAGAIN && errno != EINTR && errno != ECONNRESET) {
      client.hang_up();
    }
    return;
  }
  const auto size = static_cast<size_t>(received);
  if (size == 0 || size > buffer_.size()) {
    client.hang_up();
    return;
  }
  client.active = Clock::now();
  handle(client, Bytes(buffer_).first(size));
}

void Server::handle(Client& client, Bytes datagram) {
  Bytes rest = datagram;
  const std::optional<Bytes> first = take_message(rest);
  if (first && load<nlmsghdr>(*first).nlmsg_type >= kControlState) {
    handle_control(client, *first);
    return;
  }
  copy_to_monitors(client, datagram, true);
  RequestObserver observer;
  if (observer_) {
    observer = [&](Bytes message, const Status& status) {
      observer_(client.peer, message, status);
    };
  }
  Answer answer = kernel_.receive(datagram, observer);
  for (Datagram& bytes : answer.datagrams) {
    client.queue(std::move(bytes), client.active + answer.delay, true);
  }
}

void Server::handle_control(Client& client, Bytes message) {
  const auto header = load<nlmsghdr>(message);
  Status status = apply_control(client, header.nlmsg_type, control_payload(message));
  client.queue(acknowledgement(header, status));
}

Status Server::apply_control(Client& client, uint16_t type, Bytes payload) {
  if (type == kControlState) {
    const std::string state = kernel_.state();
    Bytes left{reinterpret_cast<const uint8_t*>(state.data()), state.size()};
    while (!left.empty()) {
      const Bytes piece = left.first(std::min(left.size(), kMaxPiece));
      client.queue(control_message(kControlState, piece));
      left = left.subspan(piece.size());
    }
    return {};
  }
  if (type == kControlMonitor) {
    client.is_monitor = true;
    return {};
  }
  if (type != kControlFaults) {
    return {-EOPNOTSUPP};
  }
  try {
    kernel_.inject(parse_faults({payload.begin(), payload.end()}));
    return {};
  } catch (const std::invalid_argument&) {
    return {-EINVAL};
  }
}

/// Gives all monitors a copy of what a client has sent or been sent.
void Server::copy_to_monitors(const Client& client, Bytes datagram, bool is_request) {
  for (Client& monitor : clients_) {
    if (!monitor.is_monitor) {
      continue;
    }
    if (monitor.lost > 0 || monitor.unsent_bytes > kMaxCopies) {
      ++monitor.lost;
    } else {
      monitor.queue(control_copy({.port_id = client.peer.port_id,
                                  .pid = client.peer.pid,
                                  .is_request = is_request,
                                  .bytes = datagram}));
    }
  }
}

/// Sends what is due, as far as it is taken.
void Server::flush(Client& client) {
  const Clock::time_point now = Clock::now();
  while (!client.unsent.empty() && client.unsent.front().due <= now) {
    const Datagram& next = client.unsent.front().bytes;
    if (send(client.socket.get(), next.data(), next.size(), MSG_NOSIGNAL) == -1) {
      if (errno != EAGAIN && errno != EINTR) {
        // Nobody is there to take it. What the client sent before it left still counts.
        client.drop_unsent();
      }
      return;
    }
    if (client.unsent.front().is_answer) {
      copy_to_monitors(client, next, false);
    }
    client.active = now;
    client.unsent_bytes -= next.size();
    client.unsent.pop_front();
  }
  if (client.unsent.empty() && client.lost > 0) {
    client.queue(control_copy({.lost = std::exchange(client.lost, 0)}));
  }
}

}  // namespace tavik_wlan
