#include "reference_kernel/emulator/kernel.h"

#include <linux/genetlink.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <optional>
#include <utility>

namespace tavik_wlan {
namespace {

/// Whether a look-up is for the family: by its name, or where that is not given by its id.
bool asks_for_family(Bytes message, uint16_t id) {
  bool asks = false;
  AttributeReader reader(message);
  while (const std::optional<Attribute> attribute = reader.next()) {
    const Bytes payload = attribute->payload;
    if (attribute->type == CTRL_ATTR_FAMILY_NAME) {
      const std::string name(payload.begin(), payload.end());
      return strcmp(name.c_str(), TAVIK_WLAN_FAMILY_NAME) == 0;
    }
    if (attribute->type == CTRL_ATTR_FAMILY_ID && payload.size() >= sizeof(id)) {
      asks = load<uint16_t>(payload) == id;
    }
  }
  return asks;
}

/// What the controller tells about the family. Its containers are older than NLA_F_NESTED.
Datagram describe_family(const nlmsghdr& request, uint16_t id) {
  constexpr uint8_t kControllerVersion = 2;
  MessageWriter writer(request, GENL_ID_CTRL, 0);
  writer.append(genlmsghdr{CTRL_CMD_NEWFAMILY, kControllerVersion, 0});
  writer.put_string(CTRL_ATTR_FAMILY_NAME, TAVIK_WLAN_FAMILY_NAME);
  writer.put(CTRL_ATTR_FAMILY_ID, id);
  writer.put(CTRL_ATTR_VERSION, uint32_t{TAVIK_WLAN_FAMILY_VERSION});
  writer.put(CTRL_ATTR_HDRSIZE, uint32_t{0});
  writer.put(CTRL_ATTR_MAXATTR, uint32_t{TAVIK_WLAN_ATTR_MAX});
  // An array: the elements' types are their positions from 1.
  const size_t operations = writer.begin_nest(CTRL_ATTR_OPS);
  uint16_t position = 0;
  for (const CommandInfo& command : kCommands) {
    const size_t operation = writer.begin_nest(++position);
    writer.put(CTRL_ATTR_OP_ID, uint32_t{command.command});
    // A command without attributes has a policy, too: that there be none.
    writer.put(CTRL_ATTR_OP_FLAGS, command.flags | GENL_CMD_CAP_HASPOL);
    writer.end_nest(operation);
  }
  writer.end_nest(operations);
  return writer.take();
}

Datagram stale_error(nlmsghdr request) {
  --request.nlmsg_seq;
  return acknowledgement(request, {-EIO, "refused an earlier request"});
}

void mark_interrupted(Datagram& datagram) {
  auto header = load<nlmsghdr>(datagram);
  header.nlmsg_flags |= NLM_F_DUMP_INTR;
  memcpy(datagram.data(), &header, sizeof(header));
}

}  // namespace

Answer Kernel::receive(Bytes datagram) {
  const std::lock_guard lock(mutex_);
  answer_.clear();
  has_dumped_ = false;
  while (const std::optional<Bytes> message = take_message(datagram)) {
    receive_message(*message);
  }
  spoil_answer();
  return {std::move(answer_), std::chrono::milliseconds(faults_.delay_ms)};
}

std::string Kernel::state() const {
  const std::lock_guard lock(mutex_);
  return state_.text();
}

void Kernel::inject(const std::string& words) {
  const Faults faults = parse_faults(words);
  const std::lock_guard lock(mutex_);
  faults_ = faults;
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
  if (faults_.stale && !replies.empty()) {
    replies.insert(replies.begin(), stale_error(header));
  }
  std::move(replies.begin(), replies.end(), std::back_inserter(answer_));
}

Outcome Kernel::handle(Bytes message) {
  const auto header = load<nlmsghdr>(message);
  if (header.nlmsg_type == GENL_ID_CTRL) {
    return look_up(message);
  }
  if (faults_.absent || header.nlmsg_type != faults_.family_id) {
    return {.status = {-ENOENT}};
  }
  if (is_dump(header) && has_dumped_) {
    // The kernel allows a socket one dump at a time. That also bounds the answer to one datagram.
    return {.status = {-EBUSY}};
  }
  if (faults_.refuse_nth > 0 && --faults_.refuse_nth == 0) {
    return {.status = {-faults_.refuse_error, "refused on demand"}};
  }
  Outcome outcome = handle_family_request(message, state_);
  if (outcome.status.ok() && is_dump(header) && faults_.interrupted_dumps > 0) {
    --faults_.interrupted_dumps;
    std::ranges::for_each(outcome.replies, mark_interrupted);
  }
  return outcome;
}

/// Handles a message to the controller, which tells about the family and nothing else.
Outcome Kernel::look_up(Bytes message) const {
  if (message.size() < NLMSG_HDRLEN + GENL_HDRLEN) {
    return {.status = {-EINVAL}};
  }
  const auto header = load<nlmsghdr>(message);
  const auto generic = load<genlmsghdr>(message.subspan(NLMSG_HDRLEN));
  if (generic.cmd != CTRL_CMD_GETFAMILY || is_dump(header)) {
    return {.status = {-EOPNOTSUPP}};
  }
  if (faults_.absent || !asks_for_family(message, faults_.family_id)) {
    return {.status = {-ENOENT}};
  }
  return {.replies = {describe_family(header, faults_.family_id)}};
}

/// Has the whole answer to the messages of one datagram get lost or spoilt.
void Kernel::spoil_answer() {
  if (faults_.silent) {
    answer_.clear();
  }
  for (Datagram& datagram : answer_) {
    if (faults_.garbage) {
      std::ranges::generate(datagram, [this] { return static_cast<uint8_t>(random_()); });
    }
    if (faults_.truncate != 0 && faults_.truncate < datagram.size()) {
      datagram.resize(faults_.truncate);
    }
  }
}

}  // namespace tavik_wlan
