#include "datapathctl/session.h"

#ifdef CORVIL_LIBRARY
#include <dlfcn.h>

#include <filesystem>
#include <string>
#include <system_error>
#endif

namespace datapathctl {

#ifdef CORVIL_LIBRARY

static constinit void* library = nullptr;

/// The library beside this program, or else the installed one.
static std::string default_library() {
  std::error_code error;
  const auto program = std::filesystem::read_symlink("/proc/self/exe", error);
  const auto beside = program.parent_path() / CORVIL_LIBRARY;
  return std::filesystem::exists(beside, error) ? beside.string() : CORVIL_LIBRARY;
}

Result load_library(const Settings& settings) {
  const std::string path = settings.library.empty() ? default_library() : settings.library;
  library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  return library != nullptr ? Result{}
                            : usage_error(std::string("cannot load the library: ") + dlerror());
}

Result find_function(const char* name, void** address) {
  *address = dlsym(library, name);
  return *address != nullptr ? Result{}
                             : usage_error(std::string("not in the library: ") + dlerror());
}

#else

Result load_library(const Settings& settings) {
  if (!settings.library.empty()) {
    return usage_error("--library: this build has the library inside");
  }
  return settings.log_android ? usage_error("--log-android: this build has no Android log")
                              : Result{};
}

Result find_function(const char*, void**) { return {}; }

#endif

}  // namespace datapathctl
