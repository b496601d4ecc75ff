#include <string_view>

#include "datapath_proxy/include/corvil_datapath_proxy.h"
#include "datapathctl/library.h"

namespace datapathctl {
namespace {

const struct {
  std::string_view name;
  void* address;
} kFunctions[] = {
#define FUNCTION(name) {#name, reinterpret_cast<void*>(name)},
#include "library_functions.inc"
};

}  // namespace

Result load_library(const Settings& settings) {
  if (!settings.library.empty()) {
    return usage_error("--library: this build has the library inside");
  }
  if (settings.log_android) {
    return usage_error("--log-android: this build has no Android log");
  }
  return {};
}

Result find_function(const char* name, void** address) {
  for (const auto& function : kFunctions) {
    if (function.name == name) {
      *address = function.address;
      return {};
    }
  }
  return usage_error(std::string("not in the library: ") + name);
}

}  // namespace datapathctl
