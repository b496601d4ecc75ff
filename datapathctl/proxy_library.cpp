#include "datapathctl/proxy_library.h"

#include <dlfcn.h>

#include <filesystem>
#include <system_error>

#include "datapathctl/values.h"

namespace datapathctl {
namespace {

constexpr char kLibraryName[] = CORVIL_LIBRARY;

std::string default_path() {
  std::error_code error;
  const auto program = std::filesystem::read_symlink("/proc/self/exe", error);
  const auto beside = program.parent_path() / kLibraryName;
  return std::filesystem::exists(beside, error) ? beside.string() : kLibraryName;
}

std::string loader_error() {
  const char* text = dlerror();
  return text != nullptr ? text : "unknown loader error";
}

}  // namespace

ProxyLibrary::ProxyLibrary(const std::string& path)
    : handle_(dlopen((path.empty() ? default_path() : path).c_str(), RTLD_NOW | RTLD_LOCAL)) {
  if (handle_ == nullptr) {
    throw UsageError("cannot load the library: " + loader_error());
  }
}

ProxyLibrary::~ProxyLibrary() { dlclose(handle_); }

void* ProxyLibrary::address(const char* name) const {
  void* found = dlsym(handle_, name);
  if (found == nullptr) {
    throw UsageError("not in the library: " + loader_error());
  }
  return found;
}

}  // namespace datapathctl
