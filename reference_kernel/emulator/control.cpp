#include "reference_kernel/emulator/control.h"

#include <linux/netlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <system_error>

namespace tavik_wlan {
namespace {

/// Longer than any datagram of an emulator.
constexpr size_t kBufferSize = size_t{256} * 1024;

[[noreturn]] void fail(int error) {
  throw std::system_error(error == EAGAIN ? ETIMEDOUT : error, std::generic_category());
}

}  // namespace

Datagram control_message(uint16_t type, std::string_view payload) {
  const nlmsghdr header{.nlmsg_len = static_cast<uint32_t>(NLMSG_HDRLEN + payload.size()),
                        .nlmsg_type = type,
                        .nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK,
                        .nlmsg_seq = 0,
                        .nlmsg_pid = 0};
  Datagram message(header.nlmsg_len);
  memcpy(message.data(), &header, sizeof(header));
  std::ranges::copy(payload, message.begin() + NLMSG_HDRLEN);
  return message;
}

Datagram control_copy(const CopyHeader& header, Bytes bytes) {
  std::string payload(reinterpret_cast<const char*>(&header), sizeof(header));
  payload.append(bytes.begin(), bytes.end());
  return control_message(kControlMonitor, payload);
}

ControlClient::ControlClient(const std::string& path, std::chrono::milliseconds patience)
    : socket_(connect_to(path, patience)), buffer_(kBufferSize) {}

std::string ControlClient::state() { return ask(kControlState, ""); }

void ControlClient::set_faults(const std::string& words) { ask(kControlFaults, words); }

void ControlClient::monitor() {
  ask(kControlMonitor, "");
  const timeval unlimited{};
  setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &unlimited, sizeof(unlimited));
}

std::optional<MonitoredDatagram> ControlClient::next() {
  Bytes datagram = receive();
  if (datagram.empty()) {
    return std::nullopt;
  }
  const std::optional<Bytes> message = take_message(datagram);
  if (!message || message->size() < NLMSG_HDRLEN + sizeof(CopyHeader)) {
    fail(EBADMSG);
  }
  const Bytes payload = control_payload(*message);
  return MonitoredDatagram{load<CopyHeader>(payload), payload.subspan(sizeof(CopyHeader))};
}

/// Returns the text of the answer.
std::string ControlClient::ask(uint16_t type, const std::string& text) {
  const Datagram request = control_message(type, text);
  if (send(socket_.get(), request.data(), request.size(), MSG_NOSIGNAL) == -1) {
    fail(errno);
  }
  std::string answer;
  for (;;) {
    Bytes datagram = receive();
    const std::optional<Bytes> message = take_message(datagram);
    if (!message) {
      fail(ECONNRESET);
    }
    const Bytes payload = control_payload(*message);
    const uint16_t answered = load<nlmsghdr>(*message).nlmsg_type;
    if (answered == NLMSG_ERROR && payload.size() >= sizeof(nlmsgerr)) {
      const int error = load<nlmsgerr>(payload).error;
      return error == 0 ? answer : (fail(-error), "");
    }
    if (answered == type) {
      answer.append(payload.begin(), payload.end());
    }
  }
}

/// The next datagram; empty when the emulator has ended.
Bytes ControlClient::receive() {
  ssize_t size = 0;
  do {
    size = recv(socket_.get(), buffer_.data(), buffer_.size(), 0);
  } while (size == -1 && errno == EINTR);
  if (size == -1) {
    fail(errno);
  }
  return Bytes(buffer_).first(static_cast<size_t>(size));
}

}  // namespace tavik_wlan
