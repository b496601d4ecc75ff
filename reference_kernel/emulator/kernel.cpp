#include "reference_kernel/emulator/kernel.h"

#include <linux/genetlink.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <iterator>
#include <optional>
#include <utility>

#include "reference_kernel/emulator/controller.h"
#include "reference_kernel/emulator/datagram_writer.h"
#include "reference_kernel/emulator/family.h"

namespace tavik_wlan {
namespace {

/// Unless it misbehaves. A kernel hands ids out as families come.
constexpr uint16_t kFamilyId = 28;

/// Takes the next message off the datagram; nothing when its length cannot be.
std::optional<Bytes> take_message(Bytes& datagram) {
  if (datagram.size() < sizeof(nlmsghdr)) {
    return std::nullopt;
  }
  const size_t length = load<nlmsghdr>(datagram).nlmsg_len;
  if (length < sizeof(nlmsghdr) || length > datagram.size()) {
    return std::nullopt;
  }
  const Bytes message = datagram.first(length);
  datagram = datagram.subspan(std::min<size_t>(NLMSG_ALIGN(length), datagram.size()));
  return message;
}

void mark_interrupted(Datagram& datagram) {
  Bytes left = datagram;
  while (const std::optional<Bytes> message = take_message(left)) {
    auto header = load<nlmsghdr>(*message);
    header.nlmsg_flags |= NLM_F_DUMP_INTR;
    memcpy(datagram.data() + (message->data() - datagram.data()), &header, sizeof(header));
  }
}

Datagram stale_refusal(nlmsghdr request) {
  --request.nlmsg_seq;
  return acknowledgement(request, Refusal{-EIO, "refused an earlier request"});
}

}  // namespace

// NOLINTNEXTLINE(cert-msc51-cpp): the same seed each time, to repeat a failure.
Kernel::Kernel(std::function<void(std::string_view)> observer) : observer_(std::move(observer)) {}

Answer Kernel::receive(Bytes datagram) {
  Exchange exchange;
  Answer answer;
  {
    const std::lock_guard lock(mutex_);
    while (const std::optional<Bytes> message = take_message(datagram)) {
      receive_message(*message, exchange);
    }
    if (!misbehaviour_.silent) {
      answer.datagrams = std::move(exchange.datagrams);
      for (Datagram& reply : answer.datagrams) {
        distort(reply);
      }
    }
    answer.delay = std::chrono::milliseconds(misbehaviour_.delay_ms);
  }
  if (observer_) {
    for (const std::string& description : exchange.descriptions) {
      observer_(description);
    }
  }
  return answer;
}

std::string Kernel::state() const {
  const std::lock_guard lock(mutex_);
  return state_.text();
}

void Kernel::misbehave(const Misbehaviour& misbehaviour) {
  const std::lock_guard lock(mutex_);
  misbehaviour_ = misbehaviour;
}

void Kernel::receive_message(Bytes message, Exchange& exchange) {
  const auto header = load<nlmsghdr>(message);
  const bool is_request =
      (header.nlmsg_flags & NLM_F_REQUEST) != 0 && header.nlmsg_type >= NLMSG_MIN_TYPE;
  Outcome outcome = is_request ? handle(message, exchange) : Outcome{};
  if (!outcome.description.empty()) {
    exchange.descriptions.push_back(std::move(outcome.description));
  }
  // NLMSG_DONE takes the place of an accepted dump's acknowledgement.
  const bool dumped = is_request && is_dump(header) && !outcome.verdict;
  exchange.dumped |= dumped;
  std::vector<Datagram>& replies = outcome.replies;
  if (outcome.verdict || ((header.nlmsg_flags & NLM_F_ACK) != 0 && !dumped)) {
    replies.push_back(acknowledgement(header, outcome.verdict));
  }
  if (misbehaviour_.stale && !replies.empty()) {
    replies.insert(replies.begin(), stale_refusal(header));
  }
  std::move(replies.begin(), replies.end(), std::back_inserter(exchange.datagrams));
}

Outcome Kernel::handle(Bytes message, const Exchange& exchange) {
  const auto header = load<nlmsghdr>(message);
  const bool is_controller = header.nlmsg_type == GENL_ID_CTRL;
  if (!is_controller && (misbehaviour_.absent || header.nlmsg_type != family_id())) {
    return {.verdict = Refusal{-ENOENT}};
  }
  if (is_dump(header) && exchange.dumped) {
    // A socket has one dump at a time. It bounds what one datagram of requests makes us send, too.
    return {.verdict = Refusal{-EBUSY}};
  }
  if (!is_controller) {
    return handle_for_family(message);
  }
  std::vector<FamilyDescription> families{describe_controller()};
  if (!misbehaviour_.absent) {
    families.push_back(describe_family(family_id()));
  }
  return handle_controller_request(message, families);
}

Outcome Kernel::handle_for_family(Bytes message) {
  if (misbehaviour_.refuse_nth > 0 && --misbehaviour_.refuse_nth == 0) {
    return {.verdict = Refusal{-misbehaviour_.refuse_error, "refused on demand"}};
  }
  Outcome outcome = handle_family_request(message, state_);
  if (!outcome.verdict && is_dump(load<nlmsghdr>(message)) && misbehaviour_.interrupted_dumps > 0) {
    --misbehaviour_.interrupted_dumps;
    std::for_each(outcome.replies.begin(), outcome.replies.end(), mark_interrupted);
  }
  return outcome;
}

uint16_t Kernel::family_id() const {
  return misbehaviour_.family_id != 0 ? misbehaviour_.family_id : kFamilyId;
}

void Kernel::distort(Datagram& datagram) {
  if (misbehaviour_.garbage) {
    std::generate(datagram.begin(), datagram.end(),
                  [this] { return static_cast<std::byte>(random_()); });
  }
  if (misbehaviour_.truncate != 0 && misbehaviour_.truncate < datagram.size()) {
    datagram.resize(misbehaviour_.truncate);
  }
}

}  // namespace tavik_wlan
