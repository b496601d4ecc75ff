#include "bench/host.h"

#include <benchmark/benchmark.h>
#include <dlfcn.h>

#include <cstdint>

#include "host_interfaces/corvil_log_services.h"
#include "host_interfaces/corvil_netlink.h"
#include "host_interfaces/corvil_port_utils.h"

namespace bench {

bool null_host = false;
std::string* recorded = nullptr;
bool null_tree = false;
size_t counted_ports = 0;

namespace {

size_t allocation_count = 0;

/// The reference host's operation behind the one that takes its place here.
template <typename Operation>
Operation* next(Operation* /*type*/, const char* name) {
  return reinterpret_cast<Operation*>(dlsym(RTLD_NEXT, name));
}

const auto kHostQueryGenl = next(corvil_netlink_query_genl, "corvil_netlink_query_genl");
const auto kHostTransact = next(corvil_netlink_transact, "corvil_netlink_transact");
const auto kHostQuery = next(corvil_netlink_query, "corvil_netlink_query");
const auto kHostAddPort =
    next(corvil_port_utils_add_port_from_kernel, "corvil_port_utils_add_port_from_kernel");

int swallow(const nlmsghdr* request) {
  benchmark::DoNotOptimize(request);
  benchmark::ClobberMemory();
  if (recorded != nullptr) {
    recorded->append(reinterpret_cast<const char*>(request), request->nlmsg_len);
  }
  return 0;
}

}  // namespace

void reset_host() {
  null_host = false;
  null_tree = false;
  log_to_file = 0;
  zu_log_mask = 0;
}

size_t allocations() { return allocation_count; }

}  // namespace bench

// The program comes before its libraries: what it defines takes the place of theirs.
#pragma GCC visibility push(default)
extern "C" {

int corvil_netlink_query_genl(const char* family_name, uint32_t version, uint16_t* family_id) {
  if (bench::null_host) {
    *family_id = bench::kNullFamily;
    return 0;
  }
  return bench::kHostQueryGenl(family_name, version, family_id);
}

int corvil_netlink_transact(const nlmsghdr* request, int protocol, int* error) {
  return bench::null_host ? bench::swallow(request)
                          : bench::kHostTransact(request, protocol, error);
}

int corvil_netlink_query(const nlmsghdr* request, int protocol,
                         corvil_netlink_reply_callback callback, void* context, int dump) {
  return bench::null_host ? bench::swallow(request)
                          : bench::kHostQuery(request, protocol, callback, context, dump);
}

int corvil_port_utils_add_port_from_kernel(uint16_t port, uint8_t ip_proto, uint8_t trans_proto) {
  if (bench::null_tree) {
    ++bench::counted_ports;
    return 0;
  }
  return bench::kHostAddPort(port, ip_proto, trans_proto);
}

// NOLINTBEGIN(bugprone-reserved-identifier): glibc's names.
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t nmemb, size_t size);
void* __libc_realloc(void* ptr, size_t size);
// NOLINTEND(bugprone-reserved-identifier)

void* malloc(size_t size) {
  ++bench::allocation_count;
  return __libc_malloc(size);
}

void* calloc(size_t nmemb, size_t size) {
  ++bench::allocation_count;
  return __libc_calloc(nmemb, size);
}

void* realloc(void* ptr, size_t size) {
  ++bench::allocation_count;
  return __libc_realloc(ptr, size);
}

}  // extern "C"
#pragma GCC visibility pop
