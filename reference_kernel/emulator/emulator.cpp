#include "reference_kernel/emulator/emulator.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <stdexcept>
#include <utility>

#include "reference_kernel/emulator/control.h"

namespace tavik_wlan {
namespace {

/// Longest datagram of requests; who sends a longer one is hung up on.
constexpr size_t kMaxRequest = 131072;

/// Most bytes that wait for a monitor. From then on it gets no copies until it has read all of
/// them.
constexpr size_t kMaxCopies = size_t{1} << 20;

/// Longest piece of the state in one message.
constexpr size_t kMaxPiece = 32768;

}  // namespace

short Emulator::Client::awaited(Clock::time_point now) const {
  if (unsent.empty()) {
    return POLLIN;
  }
  return unsent.front().due <= now ? POLLOUT : 0;
}

void Emulator::Client::queue(Datagram bytes, Clock::time_point due, bool is_answer) {
  unsent_bytes += bytes.size();
  unsent.push_back({std::move(bytes), due, is_answer});
}

void Emulator::Client::drop_unsent() {
  unsent.clear();
  unsent_bytes = 0;
}

void Emulator::Client::hang_up() {
  drop_unsent();
  socket = FileDescriptor(-1);
}

Emulator::Emulator(std::string path)
    : path_(std::move(path)), listener_(path_), buffer_(kMaxRequest), thread_([this] { run(); }) {}

Emulator::~Emulator() {
  shutdown(listener_.fd(), SHUT_RDWR);  // Ends run().
  thread_.join();
}

void Emulator::run() {
  for (;;) {
    const Clock::time_point now = Clock::now();
    std::vector<pollfd> polled{{.fd = listener_.fd(), .events = POLLIN, .revents = 0}};
    int timeout = -1;
    for (const Client& client : clients_) {
      polled.push_back({.fd = client.socket.get(), .events = client.awaited(now), .revents = 0});
      if (polled.back().events == 0) {
        timeout = 1;  // While an answer is kept back, its time is looked at each millisecond.
      }
    }
    if (poll(polled.data(), polled.size(), timeout) == -1) {
      continue;
    }
    const short listener_events = polled.front().revents;
    if ((listener_events & POLLHUP) != 0) {
      return;
    }
    auto events = polled.begin();
    for (Client& client : clients_) {
      serve(client, (++events)->revents);
    }
    if (listener_events != 0) {
      accept_client();
    }
    clients_.remove_if([](const Client& client) { return !client.socket.is_open(); });
  }
}

/// Where there are no descriptors for another client, hangs up on the one that has been quiet for
/// longest, on a monitor last; the waiting one is accepted at the next turn.
void Emulator::accept_client() {
  FileDescriptor socket = listener_.accept();
  if (socket.is_open()) {
    const pid_t pid = peer_of(socket).pid;
    clients_.push_back({.socket = std::move(socket), .port_id = ++connections_, .pid = pid});
  } else if ((errno == EMFILE || errno == ENFILE) && !clients_.empty()) {
    std::ranges::min_element(clients_, {}, [](const Client& client) {
      return std::pair(client.is_monitor, client.active);
    })->hang_up();
  }
}

void Emulator::serve(Client& client, short events) {
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
}

/// Receives one datagram and queues its answer, or hangs up at the end of the connection.
void Emulator::receive(Client& client) {
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

void Emulator::handle(Client& client, Bytes datagram) {
  Bytes rest = datagram;
  const std::optional<Bytes> first = take_message(rest);
  if (first && load<nlmsghdr>(*first).nlmsg_type >= kControlState) {
    const auto header = load<nlmsghdr>(*first);
    Status status = handle_control(client, header.nlmsg_type, control_payload(*first));
    client.queue(acknowledgement(header, status));
    return;
  }
  copy_to_monitors(client, datagram);
  Answer answer = kernel_.receive(datagram);
  for (Datagram& bytes : answer.datagrams) {
    client.queue(std::move(bytes), client.active + answer.delay, true);
  }
}

Status Emulator::handle_control(Client& client, uint16_t type, Bytes payload) {
  if (type == kControlState) {
    const std::string state = kernel_.state();
    for (size_t start = 0; start < state.size(); start += kMaxPiece) {
      client.queue(control_message(kControlState, state.substr(start, kMaxPiece)));
    }
  } else if (type == kControlFaults) {
    try {
      kernel_.inject({payload.begin(), payload.end()});
    } catch (const std::invalid_argument&) {
      return {-EINVAL};
    }
  } else if (type == kControlMonitor) {
    client.is_monitor = true;
  } else {
    return {-EOPNOTSUPP};
  }
  return {};
}

/// Gives all monitors a copy of what a client has sent or been sent.
void Emulator::copy_to_monitors(const Client& client, Bytes datagram) {
  for (Client& monitor : clients_) {
    if (!monitor.is_monitor) {
      continue;
    }
    if (monitor.lost > 0 || monitor.unsent_bytes > kMaxCopies) {
      ++monitor.lost;
    } else {
      monitor.queue(control_copy({.port_id = client.port_id, .pid = client.pid}, datagram));
    }
  }
}

/// Sends what is due, as far as it is taken.
void Emulator::flush(Client& client) {
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
      copy_to_monitors(client, next);
    }
    client.active = now;
    client.unsent_bytes -= next.size();
    client.unsent.pop_front();
  }
  if (client.unsent.empty() && client.lost > 0) {
    client.queue(control_copy({.lost = std::exchange(client.lost, 0)}, {}));
  }
}

}  // namespace tavik_wlan
