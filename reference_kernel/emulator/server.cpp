#include "reference_kernel/emulator/server.h"

#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <system_error>
#include <utility>

namespace tavik_wlan {
namespace {

/// Longest datagram of requests; who sends a longer one is hung up on.
constexpr size_t kMaxRequest = 131072;

/// Most clients at a time; descriptors may set a lower bound.
constexpr size_t kMaxClients = 1024;

/// Most bytes that wait for all clients together; the longest answer takes less than 4 MiB.
constexpr size_t kMaxQueued = size_t{64} << 20;

/// How long a client has to be quiet before it is hung up on to make room for another.
constexpr std::chrono::seconds kPatience{1};

/// How long no connection is accepted when there is no room.
constexpr std::chrono::milliseconds kAcceptPause{100};

/// The positions of what poll() waits for.
enum Watched : size_t { kStopped, kRequests, kState, kFirstClient };

}  // namespace

short Server::Client::awaited(Clock::time_point now) const {
  if (unsent.empty()) {
    return POLLIN;
  }
  return unsent.front().due <= now ? POLLOUT : 0;
}

void Server::Client::flush() {
  const Clock::time_point now = Clock::now();
  while (!unsent.empty() && unsent.front().due <= now) {
    Outgoing& next = unsent.front();
    const Bytes left = Bytes(next.bytes).subspan(next.sent);
    const ssize_t sent = send(socket.get(), left.data(), left.size(), MSG_NOSIGNAL);
    if (sent == -1) {
      if (errno != EAGAIN && errno != EINTR) {
        // Nobody is there to take it. What the client sent before it left still counts.
        unsent.clear();
      }
      return;
    }
    active = now;
    next.sent += static_cast<size_t>(sent);
    if (next.sent == next.bytes.size()) {
      unsent.pop_front();
    }
  }
}

void Server::Client::hang_up() {
  unsent.clear();
  socket = FileDescriptor(-1);
}

Server::Server(const std::string& path, Kernel& kernel)
    : kernel_(kernel),
      lock_(path),
      requests_(path, SOCK_SEQPACKET),
      state_(path + ".state", SOCK_STREAM),
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
    if (polled[kRequests].revents != 0) {
      accept_client(requests_, false);
    }
    if (polled[kState].revents != 0) {
      accept_client(state_, true);
    }
    clients_.remove_if([](const Client& client) { return !client.socket.is_open(); });
  }
}

void Server::stop() const { eventfd_write(stopped_.get(), 1); }

std::vector<pollfd> Server::watched() const {
  const Clock::time_point now = Clock::now();
  const short accepting = accept_again_ <= now ? POLLIN : 0;
  std::vector<pollfd> polled{
      {.fd = stopped_.get(), .events = POLLIN, .revents = 0},
      {.fd = requests_.fd(), .events = accepting, .revents = 0},
      {.fd = state_.fd(), .events = accepting, .revents = 0},
  };
  for (const Client& client : clients_) {
    polled.push_back({.fd = client.socket.get(), .events = client.awaited(now), .revents = 0});
  }
  return polled;
}

/// Milliseconds up to the next thing to do without an event; -1 when there is none.
int Server::poll_timeout() const {
  const Clock::time_point now = Clock::now();
  Clock::time_point next = accept_again_ > now ? accept_again_ : Clock::time_point::max();
  for (const Client& client : clients_) {
    if (!client.unsent.empty() && client.unsent.front().due > now) {
      next = std::min(next, client.unsent.front().due);
    }
  }
  if (next == Clock::time_point::max()) {
    return -1;
  }
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(next - now).count();
  return static_cast<int>(std::min<int64_t>(left, INT32_MAX));
}

void Server::accept_client(const Listener& listener, bool reads_state) {
  if (clients_.size() >= kMaxClients) {
    make_room_for_client();
    return;
  }
  FileDescriptor socket = listener.accept();
  if (!socket.is_open()) {
    if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
      make_room_for_client();
    }
    return;
  }
  Client client{std::move(socket), reads_state};
  if (reads_state) {
    const std::string text = kernel_.state();
    client.unsent.push_back({.bytes = {text.begin(), text.end()}, .sent = 0, .due = {}});
  }
  clients_.push_back(std::move(client));
  make_room_for_answers();
}

/// The waiting connection is accepted at the next turn, or after a pause.
void Server::make_room_for_client() {
  const Clock::time_point now = Clock::now();
  const auto quietest = std::ranges::min_element(clients_, {}, &Client::active);
  if (quietest != clients_.end() && quietest->active + kPatience <= now) {
    quietest->hang_up();
  } else {
    accept_again_ = now + kAcceptPause;
  }
}

/// Bytes that wait for all clients.
size_t Server::queued() const {
  size_t bytes = 0;
  for (const Client& client : clients_) {
    for (const Outgoing& outgoing : client.unsent) {
      bytes += outgoing.bytes.size();
    }
  }
  return bytes;
}

void Server::make_room_for_answers() {
  const auto last_took = [](const Client& client) {
    return client.unsent.empty() ? Clock::time_point::max() : client.active;
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
    client.unsent.clear();
  }
  if (client.unsent.empty() && !client.reads_state) {
    receive(client);
  }
  client.flush();
  if (!client.unsent.empty()) {
    make_room_for_answers();
  } else if (client.reads_state) {
    client.hang_up();
  }
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
  Answer answer = kernel_.receive(Bytes(buffer_).first(size));
  client.active = Clock::now();
  const Clock::time_point due = client.active + answer.delay;
  for (Datagram& datagram : answer.datagrams) {
    client.unsent.push_back({.bytes = std::move(datagram), .sent = 0, .due = due});
  }
}

}  // namespace tavik_wlan
