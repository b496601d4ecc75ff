#include "reference_kernel/emulator/faults.h"

#include <algorithm>
#include <cstring>
#include <optional>

namespace tavik_wlan {
namespace {

void mark_interrupted(Datagram& datagram) {
  Bytes left = datagram;
  while (const std::optional<Bytes> message = take_message(left)) {
    auto header = load<nlmsghdr>(*message);
    header.nlmsg_flags |= NLM_F_DUMP_INTR;
    memcpy(datagram.data() + (message->data() - datagram.data()), &header, sizeof(header));
  }
}

}  // namespace

Status FaultInjector::before_request() {
  const bool refuses = faults_.refuse_nth > 0 && --faults_.refuse_nth == 0;
  return refuses ? Status{-faults_.refuse_error, "refused on demand"} : Status{};
}

void FaultInjector::after_dump(std::vector<Datagram>& replies) {
  if (faults_.interrupted_dumps > 0) {
    --faults_.interrupted_dumps;
    std::ranges::for_each(replies, mark_interrupted);
  }
}

void FaultInjector::spoil(std::vector<Datagram>& answer) {
  if (faults_.silent) {
    answer.clear();
  }
  for (Datagram& datagram : answer) {
    if (faults_.garbage) {
      std::ranges::generate(datagram, [this] { return static_cast<uint8_t>(random_()); });
    }
    if (faults_.truncate != 0 && faults_.truncate < datagram.size()) {
      datagram.resize(faults_.truncate);
    }
  }
}

}  // namespace tavik_wlan
