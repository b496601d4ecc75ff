#include "reference_kernel/emulator/datagram_writer.h"

#include "reference_kernel/emulator/attribute_policy.h"

namespace tavik_wlan {
namespace {

using Type = AttributePolicy::Type;

void put_policy(DatagramWriter& writer, const AttributePolicy& policy) {
  if (policy.type == Type::kUnsupported || policy.type == Type::kBe16) {
    return;  // The kernel has no words for these.
  }
  const size_t nest = writer.begin_nest(NLMSGERR_ATTR_POLICY | NLA_F_NESTED);
  uint32_t type = NL_ATTR_TYPE_BINARY;
  if (policy.type == Type::kU8) {
    writer.put(NL_POLICY_TYPE_ATTR_MIN_VALUE_U, uint64_t{0});
    writer.put(NL_POLICY_TYPE_ATTR_MAX_VALUE_U, uint64_t{UINT8_MAX});
    type = NL_ATTR_TYPE_U8;
  } else if (policy.type == Type::kString) {
    writer.put(NL_POLICY_TYPE_ATTR_MAX_LENGTH, policy.max_length);
    type = NL_ATTR_TYPE_NUL_STRING;
  } else if (policy.type == Type::kNested) {
    type = NL_ATTR_TYPE_NESTED;
  }
  writer.put(NL_POLICY_TYPE_ATTR_TYPE, type);
  writer.end_nest(nest);
}

void put_reason(DatagramWriter& writer, const Refusal& refusal) {
  writer.put_string(NLMSGERR_ATTR_MSG, refusal.message);
  if (refusal.offset) {
    writer.put(NLMSGERR_ATTR_OFFS, *refusal.offset);
  }
  if (refusal.policy != nullptr) {
    put_policy(writer, *refusal.policy);
  }
  if (refusal.missing_type) {
    writer.put(NLMSGERR_ATTR_MISS_TYPE, *refusal.missing_type);
  }
}

}  // namespace

void DatagramWriter::begin_message(const nlmsghdr& request, uint16_t type, uint16_t flags) {
  message_ = bytes_.size();
  append(nlmsghdr{.nlmsg_len = 0,
                  .nlmsg_type = type,
                  .nlmsg_flags = flags,
                  .nlmsg_seq = request.nlmsg_seq,
                  .nlmsg_pid = request.nlmsg_pid});
}

void DatagramWriter::end_message() {
  write(message_ + offsetof(nlmsghdr, nlmsg_len), static_cast<uint32_t>(bytes_.size() - message_));
}

size_t DatagramWriter::begin_nest(uint16_t type) {
  const size_t nest = bytes_.size();
  append(nlattr{.nla_len = 0, .nla_type = type});
  return nest;
}

void DatagramWriter::end_nest(size_t nest) {
  write(nest + offsetof(nlattr, nla_len), static_cast<uint16_t>(bytes_.size() - nest));
}

void DatagramWriter::put_string(uint16_t type, std::string_view text) {
  const size_t nest = begin_nest(type);
  append_bytes(std::as_bytes(std::span(text)));
  // The NUL may be in the padding already.
  bytes_.resize(nest + NLA_ALIGN(NLA_HDRLEN + text.size() + 1));
  write(nest + offsetof(nlattr, nla_len), static_cast<uint16_t>(NLA_HDRLEN + text.size() + 1));
}

void DatagramWriter::append_bytes(Bytes bytes) {
  bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
  bytes_.resize(NLMSG_ALIGN(bytes_.size()));
}

Datagram acknowledgement(const nlmsghdr& request, const Verdict& verdict) {
  DatagramWriter writer;
  // The kernel never gives the rest of a reason without a message.
  const bool has_reason = verdict && verdict->message != nullptr;
  writer.begin_message(request, NLMSG_ERROR,
                       static_cast<uint16_t>(NLM_F_CAPPED | (has_reason ? NLM_F_ACK_TLVS : 0)));
  writer.append(nlmsgerr{.error = verdict ? verdict->error : 0, .msg = request});
  if (has_reason) {
    put_reason(writer, *verdict);
  }
  writer.end_message();
  return writer.take();
}

void append_done(DatagramWriter& writer, const nlmsghdr& request) {
  writer.begin_message(request, NLMSG_DONE, NLM_F_MULTI);
  writer.append(int{0});
  writer.end_message();
}

}  // namespace tavik_wlan
