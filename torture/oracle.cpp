#include "torture/oracle.h"

#include <dlfcn.h>

#include <cerrno>
#include <utility>

#include "host_interfaces/corvil_netlink.h"
#include "host_interfaces/corvil_port_utils.h"
#include "reference_host/netlink/corvil_netlink_control.h"

namespace torture {
namespace {

/// After three of them the time-out is over.
constexpr int kTriesInTime = 3;

/// The errno in the host's last error after a fault that fails the exchange.
int reported(const Fault& fault) {
  switch (fault.error) {
    case kShort:
      return EBADMSG;
    case kTruncated:
      return EMSGSIZE;
    case kEnd:
      return ECONNRESET;
    default:
      return fault.error;
  }
}

/// The errno with which the faults let an exchange fail; 0: they don't. `natural` is what the
/// kernel says.
int expected_error(const Record& record, int natural) {
  int tries = 0;
  int waits = 0;
  int lost_at = -1;  // the request that answers were lost of
  int sent = 0;
  const auto timed_out = [&] { return lost_at == sent ? ENOBUFS : ETIMEDOUT; };
  for (const Record::Struck& struck : std::span(record.struck).first(record.struck_count)) {
    const Effect effect = struck.fault->effect;
    sent = struck.sent;
    tries = struck.waits == waits ? tries : 0;
    waits = struck.waits;
    if (effect == Effect::kFails || (effect == Effect::kReconnects && struck.connected)) {
      return reported(*struck.fault);
    }
    if (effect == Effect::kTimesOut) {
      return timed_out();
    }
    const bool late = effect == Effect::kPassesAnHour && struck.begun;
    const bool again = effect == Effect::kTriesAgain || effect == Effect::kLoses;
    tries += again && struck.begun ? 1 : 0;
    lost_at = effect == Effect::kLoses ? sent : lost_at;
    if (late || tries >= kTriesInTime) {
      return timed_out();
    }
  }
  const bool missed = lost_at != -1 && record.step == Record::Step::kResolve && natural == 0;
  return missed ? ENOBUFS : 0;
}

/// A connection is kept but for a request that wasn't sent, an answer that can't be trusted, and a
/// dump that goes on.
int expected_sockets(const Record& record) {
  const bool only_late = record.error == ETIMEDOUT || record.error == ENOBUFS;
  const bool waits = record.sent > 0 && !record.dump && only_late;
  return record.error == 0 || record.from_kernel || waits ? 1 : 0;
}

}  // namespace

void Judge::require(bool condition, const std::string& complaint) {
  if (!condition && complaint_.empty()) {
    complaint_ = complaint;
  }
}

void Judge::check(const Record& record, int& natural) {
  const std::string what = "request with error " + std::to_string(record.error) +
                           (record.from_kernel ? " of the kernel" : "");
  natural = learns_ ? record.error : natural;
  const int expected = expected_error(record, natural);
  if (expected != 0) {
    require(record.error == expected && !record.from_kernel,
            what + " instead of " + std::to_string(expected));
  } else {
    require(record.from_kernel == (record.error != 0) && (tainted_ || record.error == natural),
            what + " instead of the kernel's " + std::to_string(natural));
  }
  require(record.consistent, what + ": its result, last error and error slot disagree");
  require(record.sockets == expected_sockets(record),
          what + ": leaves " + std::to_string(record.sockets) + " sockets open");
}

/// The next record, if it is of the step.
const Record* Judge::take(Record::Step step, int* natural) {
  if (taken_ == records_.size() || records_[taken_].step != step) {
    require(false, "part of a request is missing");
    return nullptr;
  }
  const Record& record = records_[taken_++];
  if (natural != nullptr) {
    check(record, *natural);
  }
  tainted_ |= record.error != 0;
  return &record;
}

Judge::Result Judge::judge(const Step& step, size_t number) {
  const Record* allocation = take(Record::Step::kAllocate, nullptr);
  const Record* resolution = allocation != nullptr && allocation->error == 0
                                 ? take(Record::Step::kResolve, &natural_->at(2 * number))
                                 : nullptr;
  const Record* exchange = resolution != nullptr && resolution->error == 0
                               ? take(Record::Step::kExchange, &natural_->at(2 * number + 1))
                               : nullptr;
  if (exchange == nullptr) {
    logged_ = true;
    return Result::kNotBuilt;
  }
  const bool exists = exchange->from_kernel && exchange->error == EEXIST;
  const bool done = exchange->error == 0 || (step.forgives_existing && exists);
  logged_ |= exchange->tree_struck || (!done && !step.quiet);
  return done ? Result::kDone : Result::kRefused;
}

void Judge::judge(const Call& call, const Outcome& outcome) {
  int expected = 0;
  bool ended = false;
  logged_ = false;
  for (const Step& step : call.steps) {
    const size_t number = steps_++;
    natural_->resize(std::max(natural_->size(), 2 * steps_));
    if (ended) {
      continue;
    }
    const Result result = judge(step, number);
    const bool fails = step.failure == Step::Failure::kOnlyBuilt
                           ? result == Result::kNotBuilt
                           : result != Result::kDone && step.failure != Step::Failure::kIgnored;
    expected = fails ? -1 : expected;
    ended = fails && step.failure != Step::Failure::kCounts;
  }
  require(taken_ == outcome.records_end, "a call sends more than it should");
  require(outcome.result == expected, "a call returns " + std::to_string(outcome.result) +
                                          " instead of " + std::to_string(expected));
  require((outcome.errors > 0) == logged_,
          logged_ ? "a failure is not logged" : "an error is logged, but nothing failed");
}

}  // namespace torture

// The operations of the host, each handed on to the library that has it

namespace {

using torture::injector;
using torture::Record;

/// Records an operation of an armed thread, unless it is part of another.
template <typename Real>
int recorded(Record::Step step, bool dump, const int* slot, Real real) {
  if (!torture::armed || injector.current != nullptr) {
    return real();
  }
  Record* record = injector.begin(step);
  record->dump = dump;
  const int result = real();
  injector.current = nullptr;
  const CorvilNetlinkError& last = *corvil_netlink_last_error();
  record->error = last.error;
  record->from_kernel = last.from_kernel != 0;
  record->sockets = injector.sockets;
  record->consistent = result == (last.error != 0 ? -1 : 0) &&
                       (slot == nullptr || *slot == (record->from_kernel ? -last.error : 0));
  return result;
}

/// The next definition of a function of this type and name.
template <typename Function>
Function* next(Function* /*type*/, const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

int corvil_netlink_query_genl(const char* family_name, uint32_t version, uint16_t* family_id) {
  static const auto kNext = next(corvil_netlink_query_genl, "corvil_netlink_query_genl");
  return recorded(Record::Step::kResolve, false, nullptr,
                  [=] { return kNext(family_name, version, family_id); });
}

int corvil_netlink_transact(const nlmsghdr* request, int protocol, int* error) {
  static const auto kNext = next(corvil_netlink_transact, "corvil_netlink_transact");
  return recorded(Record::Step::kExchange, false, error,
                  [=] { return kNext(request, protocol, error); });
}

int corvil_netlink_query(const nlmsghdr* request, int protocol,
                         corvil_netlink_reply_callback callback, void* context, int dump) {
  static const auto kNext = next(corvil_netlink_query, "corvil_netlink_query");
  std::pair replies{callback, context};
  const auto take = [](const nlmsghdr* reply, void* taken_by) {
    const auto& [take_reply, its_context] = *static_cast<decltype(replies)*>(taken_by);
    const int result = take_reply(reply, its_context);
    if (injector.current != nullptr) {
      injector.current->end_wait();
    }
    return result;
  };
  return recorded(Record::Step::kExchange, dump != 0, nullptr,
                  [&] { return kNext(request, protocol, take, &replies, dump); });
}

int corvil_port_utils_add_port_from_kernel(uint16_t port, uint8_t ip_proto, uint8_t trans_proto) {
  static const auto kNext =
      next(corvil_port_utils_add_port_from_kernel, "corvil_port_utils_add_port_from_kernel");
  injector.in_tree = true;
  const int result = kNext(port, ip_proto, trans_proto);
  injector.in_tree = false;
  return result;
}

}  // extern "C"
