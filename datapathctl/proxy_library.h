// The data-path library, loaded at run time as a daemon loads it.
#ifndef DATAPATHCTL_PROXY_LIBRARY_H_
#define DATAPATHCTL_PROXY_LIBRARY_H_

#include <string>

namespace datapathctl {

class ProxyLibrary {
 public:
  /// Loads the library at a path; an empty path stands for the one beside this program or else the
  /// installed one. Throws UsageError with the loader's reason.
  explicit ProxyLibrary(const std::string& path);
  ProxyLibrary(const ProxyLibrary&) = delete;
  ProxyLibrary& operator=(const ProxyLibrary&) = delete;
  ~ProxyLibrary();

  /// An exported function, such as symbol<int(uint16_t)>("name"). Throws UsageError when the
  /// library lacks it.
  template <typename Function>
  [[nodiscard]] Function* symbol(const char* name) const {
    return reinterpret_cast<Function*>(address(name));
  }

 private:
  [[nodiscard]] void* address(const char* name) const;

  void* handle_;
};

}  // namespace datapathctl

#endif  // DATAPATHCTL_PROXY_LIBRARY_H_
