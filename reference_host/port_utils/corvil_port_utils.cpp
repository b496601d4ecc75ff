#include "host_interfaces/corvil_port_utils.h"

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <new>
#include <optional>
#include <set>
#include <tuple>

#include "reference_host/corvil_export.h"
#include "reference_host/port_utils/corvil_port_tree.h"

namespace {

struct TreeOrder {
  bool operator()(const CorvilPort& left, const CorvilPort& right) const {
    return key(left) < key(right);
  }

 private:
  static std::tuple<uint8_t, uint8_t, uint16_t> key(const CorvilPort& port) {
    return {port.ip_proto, port.trans_proto, port.port};
  }
};

class PortTree {
 public:
  /// Throws std::bad_alloc.
  void add(const CorvilPort& port) {
    const std::lock_guard lock(mutex_);
    ports_.insert(port);
  }

  size_t count() {
    const std::lock_guard lock(mutex_);
    return ports_.size();
  }

  void clear() {
    const std::lock_guard lock(mutex_);
    ports_.clear();
  }

  /// The first port behind `port`, or the very first one without it.
  std::optional<CorvilPort> next(const std::optional<CorvilPort>& port) {
    const std::lock_guard lock(mutex_);
    const auto found = port ? ports_.upper_bound(*port) : ports_.begin();
    return found != ports_.end() ? std::optional(*found) : std::nullopt;
  }

 private:
  std::mutex mutex_;
  std::set<CorvilPort, TreeOrder> ports_;
};

PortTree& tree() {
  static PortTree the_tree;
  return the_tree;
}

bool is_known(const CorvilPort& port) {
  return (port.ip_proto == 4 || port.ip_proto == 6) &&
         (port.trans_proto == IPPROTO_TCP || port.trans_proto == IPPROTO_UDP ||
          port.trans_proto == IPPROTO_ESP);
}

}  // namespace

CORVIL_EXPORT int corvil_port_utils_add_port_from_kernel(uint16_t port, uint8_t ip_proto,
                                                         uint8_t trans_proto) {
  const CorvilPort added{port, ip_proto, trans_proto};
  if (!is_known(added)) {
    return -1;
  }
  try {
    tree().add(added);
  } catch (const std::bad_alloc&) {
    return -1;
  }
  return 0;
}

CORVIL_EXPORT size_t corvil_port_tree_count() { return tree().count(); }

CORVIL_EXPORT void corvil_port_tree_clear() { tree().clear(); }

CORVIL_EXPORT void corvil_port_tree_visit(corvil_port_visitor visitor, void* context) {
  for (auto port = tree().next(std::nullopt); port; port = tree().next(port)) {
    visitor(&*port, context);
  }
}
