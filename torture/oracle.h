// What must come of a run, from what the public headers promise and the faults that struck.
#ifndef TORTURE_ORACLE_H_
#define TORTURE_ORACLE_H_

#include <cstddef>
#include <span>
#include <string>
#include <vector>

#include "torture/faults.h"
#include "torture/scenarios.h"

namespace torture {

/// How a call of a run ended.
struct Outcome {
  int result;
  int errors;          // messages of the level ERR
  size_t records_end;  // the run's records up to here are the call's or earlier ones'
};

/// Judges one run, call by call.
class Judge {
 public:
  /// `natural` holds what comes of each request's resolution and of its exchange when nothing
  /// fails, 0 or an errno. It is empty at first and filled from a run without faults.
  Judge(std::span<const Record> records, std::vector<int>* natural)
      : records_(records), natural_(natural), learns_(natural->empty()) {}

  void judge(const Call& call, const Outcome& outcome);

  /// What was wrong first; empty: nothing.
  [[nodiscard]] const std::string& complaint() const { return complaint_; }

 private:
  enum class Result { kDone, kNotBuilt, kRefused };

  Result judge(const Step& step, size_t number);
  const Record* take(Record::Step step, int* natural);
  void check(const Record& record, int& natural);
  void require(bool condition, const std::string& complaint);

  std::span<const Record> records_;
  std::vector<int>* natural_;
  bool learns_;
  size_t taken_ = 0;
  size_t steps_ = 0;
  bool tainted_ = false;  // a request has failed, so that the kernel may answer otherwise
  bool logged_ = false;   // the call has to log an error
  std::string complaint_;
};

}  // namespace torture

#endif  // TORTURE_ORACLE_H_
