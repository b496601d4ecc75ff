#include "datapathctl/failure.h"

#include <cerrno>
#include <cstring>
#include <system_error>

#include "kernel_interface/tavik_wlan.h"

namespace datapathctl {
namespace {

std::string error_name(int error) {
  const char* name = strerrorname_np(error);
  return name != nullptr ? name : std::to_string(error);
}

}  // namespace

const char kModuleHint[] = "is the module tavik_wlan loaded?";

std::string emulator_hint(int error, const std::string& path) {
  return error == ENOENT || error == ECONNREFUSED
             ? "is 'datapathctl emulator " + path + "' running?"
             : "";
}

bool Failure::is_unknown_family() const {
  return error.from_kernel != 0 && error.error == ENOENT && request.starts_with("nlctrl ");
}

std::string Failure::reason() const {
  if (error.error == 0) {
    return message;
  }
  if (error.from_kernel == 0) {
    return error.message;
  }
  if (is_unknown_family()) {
    return "the kernel has no family " TAVIK_WLAN_FAMILY_NAME;
  }
  std::string text = "the kernel refused " + request + ": " +
                     std::generic_category().message(error.error) + " (" + error_name(error.error) +
                     ")";
  if (error.message[0] != '\0') {
    text += std::string(": ") + error.message;
  }
  if (!attribute.name.empty()) {
    text += ": " + attribute.name;
    if (!attribute.value.is_null()) {
      text.append(" ").append(value_text(attribute.value));
    }
  }
  if (!missing.empty()) {
    text += ": missing " + missing;
  }
  return text;
}

std::string Failure::hint(const std::string& emulator) const {
  if (is_unknown_family()) {
    return kModuleHint;
  }
  if (error.from_kernel != 0) {
    return error.error == EPERM
               ? "it takes CAP_NET_ADMIN in the user namespace of the network namespace"
               : "";
  }
  return emulator.empty() ? "" : emulator_hint(error.error, emulator);
}

void Failure::describe(nlohmann::ordered_json* object) const {
  (*object)["reason"] = reason();
  if (error.error != 0) {
    (*object)["errno"] = error_name(error.error);
    (*object)["from_kernel"] = error.from_kernel != 0;
  }
  if (!attribute.name.empty()) {
    (*object)["attribute"] = attribute.name;
    (*object)["value"] = attribute.value;
  }
  if (!missing.empty()) {
    (*object)["missing"] = missing;
  }
}

}  // namespace datapathctl
