// How a fuzz target reports a finding of its own.
#ifndef TESTS_FUZZ_REQUIRE_H_
#define TESTS_FUZZ_REQUIRE_H_

#include <cstdlib>

namespace fuzz {

/// Ends the process unless the condition holds; libFuzzer then reports the input and the stack.
inline void require(bool condition) {
  if (!condition) {
    abort();
  }
}

}  // namespace fuzz

#endif  // TESTS_FUZZ_REQUIRE_H_
