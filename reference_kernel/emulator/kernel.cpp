#include "reference_kernel/emulator/kernel.h"

#include <linux/genetlink.h>

#include <cerrno>
#include <iterator>
#include <optional>
#include <utility>

#include "reference_kernel/emulator/controller.h"
#include "reference_kernel/emulator/family.h"

namespace tavik_wlan {
namespace {

Datagram stale_error(nlmsghdr request) {
  --request.nlmsg_seq;
  return acknowledgement(request, {-EIO, "refused an earlier request"});
}

}  // namespace

Answer Kernel::receive(Bytes datagram) {
  const std::lock_guard lock(mutex_);
  answer_.clear();
  has_dumped_ = false;
  while (const std::optional<Bytes> message = take_message(datagram)) {
    receive_message(*message);
  }
  injector_.spoil(answer_);
  return {std::move(answer_), std::chrono::milliseconds(injector_.faults().delay_ms)};
}

std::string Kernel::state() const {
  const std::lock_guard lock(mutex_);
  return state_.text();
}

void Kernel::inject(const std::string& words) {
  const Faults faults = parse_faults(words);
  const std::lock_guard lock(mutex_);
  injector_.set(faults);
}

void Kernel::receive_message(Bytes message) {
  const auto header = load<nlmsghdr>(message);
  const bool is_request =
      (header.nlmsg_flags & NLM_F_REQUEST) != 0 && header.nlmsg_type >= NLMSG_MIN_TYPE;
  auto [status, replies] = is_request ? handle(message) : Outcome{};
  // NLMSG_DONE takes the place of an accepted dump's acknowledgement.
  const bool has_dumped = is_request && is_dump(header) && status.ok();
  has_dumped_ |= has_dumped;
  if (!status.ok() || ((header.nlmsg_flags & NLM_F_ACK) != 0 && !has_dumped)) {
    replies.push_back(acknowledgement(header, status));
  }
  if (injector_.faults().stale && !replies.empty()) {
    replies.insert(replies.begin(), stale_error(header));
  }
  std::move(replies.begin(), replies.end(), std::back_inserter(answer_));
}

Outcome Kernel::handle(Bytes message) {
  const auto header = load<nlmsghdr>(message);
  const bool is_absent = injector_.faults().absent;
  const bool is_controller = header.nlmsg_type == GENL_ID_CTRL;
  if (!is_controller && (is_absent || header.nlmsg_type != family_id())) {
    return {.status = {-ENOENT}};
  }
  if (is_dump(header) && has_dumped_) {
    // The kernel allows a socket one dump at a time. That also bounds the answer to one datagram.
    return {.status = {-EBUSY}};
  }
  if (!is_controller) {
    return handle_for_family(message);
  }
  std::vector<FamilyDescription> families{describe_controller()};
  if (!is_absent) {
    families.push_back(describe_family(family_id()));
  }
  return handle_controller_request(message, families);
}

Outcome Kernel::handle_for_family(Bytes message) {
  if (Status status = injector_.before_request(); !status.ok()) {
    return {.status = status};
  }
  Outcome outcome = handle_family_request(message, state_);
  if (outcome.status.ok() && is_dump(load<nlmsghdr>(message))) {
    injector_.after_dump(outcome.replies);
  }
  return outcome;
}

uint16_t Kernel::family_id() const {
  return injector_.faults().family_id != 0 ? injector_.faults().family_id : kFamilyId;
}

}  // namespace tavik_wlan
