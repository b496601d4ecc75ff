#include "datapathctl/observer.h"

#include <linux/genetlink.h>
#include <linux/netlink.h>

#include <optional>

namespace datapathctl {

using tavik_wlan::Attribute;
using tavik_wlan::AttributeReader;
using tavik_wlan::Bytes;
using tavik_wlan::load;

static void append_tuples(Bytes message, std::vector<DatapathTuple>* tuples) {
  AttributeReader run(message);
  while (const std::optional<Attribute> container = run.next()) {
    if (container->type != TAVIK_WLAN_ATTR_TUPLES) {
      continue;
    }
    AttributeReader elements(*container);
    while (const std::optional<Attribute> element = elements.next()) {
      const std::optional<Attribute> tuple = AttributeReader(*element).next();
      if (tuple && tuple->payload.size() == sizeof(DatapathTuple)) {
        tuples->push_back(load<DatapathTuple>(tuple->payload));
      }
    }
  }
}

void Observer::on_sent(Bytes message) {
  request.assign(message.begin(), message.end());
  tuples.clear();  // A dump that a change has interrupted is asked for again.
  if (load<nlmsghdr>(message).nlmsg_type != GENL_ID_CTRL) {
    sent.push_back(load<genlmsghdr>(message.subspan(NLMSG_HDRLEN)).cmd);
  }
}

void Observer::on_received(Bytes datagram) {
  const auto asked = load<nlmsghdr>(request);
  while (const std::optional<Bytes> message = tavik_wlan::take_message(datagram)) {
    const auto header = load<nlmsghdr>(*message);
    const Bytes payload = message->subspan(NLMSG_HDRLEN);
    if (header.nlmsg_seq != asked.nlmsg_seq || asked.nlmsg_type == GENL_ID_CTRL) {
      continue;
    }
    if (header.nlmsg_type == asked.nlmsg_type) {
      append_tuples(*message, &tuples);
    } else if (header.nlmsg_type == NLMSG_ERROR && payload.size() >= sizeof(nlmsgerr) &&
               load<nlmsgerr>(payload).error == 0) {
      acknowledged.push_back(sent.back());
    }
  }
}

}  // namespace datapathctl
