#include "datapathctl/failure.h"

#include <linux/genetlink.h>
#include <linux/netlink.h>

#include <cerrno>
#include <cstring>
#include <system_error>

#include "datapathctl/message_decoder.h"
#include "kernel_interface/tavik_wlan.h"

namespace datapathctl {
namespace {

/// Says what the kernel refused, and which attribute it complained of.
void explain_refusal(const CorvilNetlinkError& error, std::span<const uint8_t> request,
                     Result* failed) {
  const uint16_t type = reinterpret_cast<const nlmsghdr*>(request.data())->nlmsg_type;
  if (type == GENL_ID_CTRL && error.error == ENOENT) {
    failed->error = "the kernel has no family " TAVIK_WLAN_FAMILY_NAME;
    failed->hint = "is the module tavik_wlan loaded?";
    return;
  }
  // What the library does not send to the controller, it sends to the family.
  MessageDecoder decoder(type == GENL_ID_CTRL ? 0 : type);
  const std::string name = decoder.decode(request)[0].json["message"];
  if (type != GENL_ID_CTRL) {
    failed->members["request"] = name.substr(name.find(' ') + 1);  // without the family's name
  }
  std::string& reason = failed->error;
  reason = "the kernel refused " + name + ": " + std::generic_category().message(error.error) +
           " (" + error_name(error.error) + ")";
  if (error.message[0] != '\0') {
    reason.append(": ").append(error.message);
  }
  if (error.attribute_offset != 0) {
    const auto [attribute, value] = decoder.attribute_at(request, error.attribute_offset);
    if (!attribute.empty()) {
      failed->members["attribute"] = attribute;
      failed->members["value"] = value;
      reason.append(": ").append(attribute).append(value.is_null() ? "" : " " + value_text(value));
    }
  }
  if (error.missing_attribute != 0) {
    const std::string missing =
        decoder.missing_attribute(request, error.missing_attribute, error.missing_nest_offset);
    failed->members["missing"] = missing;
    reason.append(": missing ").append(missing);
  }
  if (error.error == EPERM) {
    failed->hint = "it takes CAP_NET_ADMIN in the user namespace of the network namespace";
  }
}

}  // namespace

std::string error_name(int error) {
  const char* name = strerrorname_np(error);
  return name != nullptr ? name : std::to_string(error);
}

std::string emulator_hint(int error, const std::string& path) {
  return error == ENOENT || error == ECONNREFUSED
             ? "is 'datapathctl emulator " + path + "' running?"
             : "";
}

Result explain(const CorvilNetlinkError& error, std::span<const uint8_t> request,
               const std::string& emulator) {
  Result failed = failure(error.message);
  failed.members = {{"errno", error_name(error.error)}, {"from_kernel", error.from_kernel != 0}};
  if (error.from_kernel != 0) {
    explain_refusal(error, request, &failed);
  } else if (!emulator.empty()) {
    failed.hint = emulator_hint(error.error, emulator);
  }
  return failed;
}

}  // namespace datapathctl
