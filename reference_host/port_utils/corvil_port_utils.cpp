#include "host_interfaces/corvil_port_utils.h"

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <new>
#include <set>
#include <tuple>

#include "reference_host/corvil_export.h"
#include "reference_host/port_utils/corvil_port_tree.h"

namespace {

/// ip_proto, trans_proto, port: in the order in which ports are visited.
using Port = std::tuple<uint8_t, uint8_t, uint16_t>;

constinit std::mutex mutex;  // of the tree
std::set<Port> tree;

}  // namespace

CORVIL_EXPORT int corvil_port_utils_add_port_from_kernel(uint16_t port, uint8_t ip_proto,
                                                         uint8_t trans_proto) {
  if ((ip_proto != 4 && ip_proto != 6) ||
      (trans_proto != IPPROTO_TCP && trans_proto != IPPROTO_UDP && trans_proto != IPPROTO_ESP)) {
    return -1;
  }
  const std::lock_guard lock(mutex);
  try {
    tree.emplace(ip_proto, trans_proto, port);
  } catch (const std::bad_alloc&) {
    return -1;
  }
  return 0;
}

CORVIL_EXPORT size_t corvil_port_tree_count() {
  const std::lock_guard lock(mutex);
  return tree.size();
}

CORVIL_EXPORT void corvil_port_tree_clear() {
  const std::lock_guard lock(mutex);
  tree.clear();
}

CORVIL_EXPORT void corvil_port_tree_visit(corvil_port_visitor visitor, void* context) {
  std::unique_lock lock(mutex);
  const std::set<Port> ports = tree;  // The visitor may change the tree.
  lock.unlock();
  for (const auto& [ip_proto, trans_proto, port] : ports) {
    const CorvilPort visited{port, ip_proto, trans_proto};
    visitor(&visited, context);
  }
}
