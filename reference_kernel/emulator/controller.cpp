#include "reference_kernel/emulator/controller.h"

#include <linux/genetlink.h>
#include <linux/netlink.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <optional>
#include <string>

namespace tavik_wlan {
namespace {

constexpr uint8_t kControllerVersion = 2;
constexpr AttributeInfo kFamilyName{CTRL_ATTR_FAMILY_NAME, "FAMILY_NAME", Kind::kString};

constexpr CommandInfo kCommandsOfController[] = {
    {CTRL_CMD_GETFAMILY, "GETFAMILY", {}, GENL_CMD_CAP_DO | GENL_CMD_CAP_DUMP},
};

/// Which family a request asks about.
struct Query {
  std::optional<uint16_t> id;
  std::optional<std::string> name;
};

/// Passes over attributes that it does not know, as the kernel's controller does.
Status parse_query(Bytes message, Query& query) {
  AttributeReader reader(message);
  while (std::optional<Attribute> attribute = reader.next()) {
    attribute->nested = false;  // The controller is older than the flag.
    if (attribute->type == CTRL_ATTR_FAMILY_ID) {
      if (attribute->payload.size() < sizeof(uint16_t)) {
        return {-ERANGE, "Attribute failed policy validation", attribute->offset};
      }
      query.id = load<uint16_t>(attribute->payload);
    } else if (attribute->type == CTRL_ATTR_FAMILY_NAME) {
      if (Status status = validate(*attribute, kFamilyName); !status.ok()) {
        return status;
      }
      query.name = string_in(*attribute);
    }
  }
  return query.id || query.name ? Status{} : Status{-EINVAL};
}

void append_family(DatagramWriter& writer, const nlmsghdr& request, uint16_t flags,
                   const FamilyDescription& family) {
  writer.begin_message(request, GENL_ID_CTRL, flags);
  writer.append(genlmsghdr{CTRL_CMD_NEWFAMILY, kControllerVersion, 0});
  writer.put_string(CTRL_ATTR_FAMILY_NAME, family.name);
  writer.put(CTRL_ATTR_FAMILY_ID, family.id);
  writer.put(CTRL_ATTR_VERSION, family.version);
  writer.put(CTRL_ATTR_HDRSIZE, uint32_t{0});
  writer.put(CTRL_ATTR_MAXATTR, family.max_attribute);
  // An array: the elements' types are their positions from 1. The controller's containers are
  // older than NLA_F_NESTED.
  const size_t operations = writer.begin_nest(CTRL_ATTR_OPS);
  uint16_t position = 0;
  for (const CommandInfo& command : family.commands) {
    const size_t operation = writer.begin_nest(++position);
    writer.put(CTRL_ATTR_OP_ID, uint32_t{command.command});
    // A command without attributes has a policy, too: that there be none.
    writer.put(CTRL_ATTR_OP_FLAGS, command.flags | GENL_CMD_CAP_HASPOL);
    writer.end_nest(operation);
  }
  writer.end_nest(operations);
  writer.end_message();
}

}  // namespace

FamilyDescription describe_controller() {
  return {.id = GENL_ID_CTRL,
          .name = "nlctrl",
          .version = kControllerVersion,
          .max_attribute = CTRL_ATTR_MAX,
          .commands = kCommandsOfController};
}

Outcome handle_controller_request(Bytes message, std::span<const FamilyDescription> families) {
  if (message.size() < NLMSG_HDRLEN + GENL_HDRLEN) {
    return {.status = {-EINVAL}};
  }
  const auto header = load<nlmsghdr>(message);
  if (load<genlmsghdr>(message.subspan(NLMSG_HDRLEN)).cmd != CTRL_CMD_GETFAMILY) {
    return {.status = {-EOPNOTSUPP}};
  }
  DatagramWriter writer;
  if (is_dump(header)) {
    for (const FamilyDescription& family : families) {
      append_family(writer, header, NLM_F_MULTI, family);
    }
    append_done(writer, header);
    return {.replies = {writer.take()}};
  }
  Query query;
  if (Status status = parse_query(message, query); !status.ok()) {
    return {.status = status};
  }
  // As with the kernel's, a name counts more than an id.
  const auto found = std::ranges::find_if(families, [&](const auto& family) {
    return query.name ? family.name == *query.name : family.id == *query.id;
  });
  if (found == families.end()) {
    return {.status = {-ENOENT}};
  }
  append_family(writer, header, 0, *found);
  return {.replies = {writer.take()}};
}

}  // namespace tavik_wlan
