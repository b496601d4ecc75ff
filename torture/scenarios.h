// What is tortured: calls of the library, written as datapathctl's commands.
#ifndef TORTURE_SCENARIOS_H_
#define TORTURE_SCENARIOS_H_

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace torture {

/// One request of a call, as the library's header tells.
struct Step {
  /// What its failure does to the call.
  enum class Failure : uint8_t {
    kEnds,      // the call fails at once
    kCounts,    // the call goes on and fails in the end
    kIgnored,   // it changes nothing
    kOnlyBuilt  // it ends the call before the request is sent, and changes nothing after
  };

  Failure failure = Failure::kEnds;
  bool forgives_existing = false;  // -EEXIST is a success
  bool quiet = false;              // a failure of the exchange isn't logged
};

struct Call {
  std::function<int()> run;  // allocates nothing of its own
  std::vector<Step> steps;
};

struct Scenario {
  std::string name;
  std::vector<Call> before;  // brings an empty kernel to where the calls begin
  std::vector<Call> calls;
  int result;  // of each call, when nothing fails
};

/// Each of the fourteen calls, and each block of commands of a file in the manner of
/// scripts/demo.batch, whose options stand in the order used there. Throws std::exception.
std::vector<Scenario> make_scenarios(const std::string& batch_path);

}  // namespace torture

#endif  // TORTURE_SCENARIOS_H_
