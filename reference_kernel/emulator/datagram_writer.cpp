#include "reference_kernel/emulator/datagram_writer.h"

namespace tavik_wlan {

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
  writer.begin_message(request, NLMSG_ERROR,
                       static_cast<uint16_t>(NLM_F_CAPPED | (verdict ? NLM_F_ACK_TLVS : 0)));
  writer.append(nlmsgerr{.error = verdict ? verdict->error : 0, .msg = request});
  if (verdict) {
    writer.put_string(NLMSGERR_ATTR_MSG, verdict->message);
    if (verdict->offset) {
      writer.put(NLMSGERR_ATTR_OFFS, *verdict->offset);
    }
    if (verdict->missing_type) {
      writer.put(NLMSGERR_ATTR_MISS_TYPE, *verdict->missing_type);
    }
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
