// Makes a chosen operation of a thread fail.
//
// The executable defines the C library's functions that the data-path library and its host call, so
// that every shared library finds these instead. Only an armed thread's calls are counted and fail.
#ifndef TESTS_FAULTS_INJECTOR_H_
#define TESTS_FAULTS_INJECTOR_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace faults {

/// The function's name.
using Operation = std::string_view;

/// What is no errno but happens in its place.
enum Special : int {
  kShort = -1,      // a part is missing
  kTruncated = -2,  // the datagram is longer than the buffer
  kEnd = -3,        // the peer has hung up
  kStale = -4,      // the refusal of another request comes
  kTimeout = -5,    // nothing comes in time
  kPollError = -6,  // ppoll() says that an error pends, and then there is none
};

/// The operation of this number fails, the first being 0; `forever`: and all later ones like it.
struct Fault {
  size_t number = SIZE_MAX;
  Operation operation{};
  int error = 0;  // an errno or a Special
  bool forever = false;
};

/// A run of one thread. It allocates nothing.
struct Injector {
  Fault fault;
  std::array<Operation, 4096> operations{};
  size_t count = 0;   // of operations
  bool late = false;  // Every datagram is: it is there once it has been waited for.
  int64_t clock = 0;  // in nanoseconds; it only goes on by what a fault costs

  // What the tracked thread has got and not given back.
  int blocks = 0;
  int sockets = 0;

  /// Starts a run on the calling thread, which is tracked from here to its end.
  void track(const Fault& chosen);
  /// Counts an operation of an armed thread; returns how it is to fail, or 0. When the operations
  /// never seem to end, the thread is disarmed.
  int next(Operation operation);
};
extern constinit Injector injector;

/// Whether the calling thread's operations are counted.
extern constinit thread_local bool armed;

}  // namespace faults

#endif  // TESTS_FAULTS_INJECTOR_H_
