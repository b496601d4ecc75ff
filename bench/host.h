// The process around the library: its host's operations can be switched to do nothing, and every
// heap allocation counts.
#ifndef BENCH_HOST_H_
#define BENCH_HOST_H_

#include <cstddef>
#include <string>

namespace bench {

/// While set, every family has the id kNullFamily, and requests go nowhere and succeed. Building is
/// all that is left of a call then. Attributes are still the reference host's, on libmnl.
extern bool null_host;
inline constexpr int kNullFamily = 28;

/// Gets the bytes of the requests that go nowhere, unless null.
extern std::string* recorded;

/// While set, ports read back are only counted instead of kept in the reference host's tree.
extern bool null_tree;
extern size_t counted_ports;

/// The reference host as it starts: nothing above is set, no log sink is on.
void reset_host();

/// Calls of malloc(), calloc() and realloc() so far.
size_t allocations();

}  // namespace bench

#endif  // BENCH_HOST_H_
