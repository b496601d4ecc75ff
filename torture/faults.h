// Makes chosen operations of a thread fail, and records how its requests take it.
//
// The executable defines the C library's functions that the data-path library and its host call, so
// that every shared library finds these instead. Only an armed thread is counted and harmed.
#ifndef TORTURE_FAULTS_H_
#define TORTURE_FAULTS_H_

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace torture {

/// What can fail.
enum class Op : uint8_t {
  kMemory,
  kSocket,
  kBind,
  kSetsockopt,
  kConnect,
  kSend,
  kReceive,
  kPoll,
  kClock,
  kTimeOfDay,
  kLocalTime,
  kLogWrite,
};
inline constexpr std::array<const char*, 12> kOpNames = {
    "allocation", "socket", "bind",  "setsockopt",  "connect",    "send",
    "receive",    "poll",   "clock", "time of day", "local time", "log write"};

/// What a fault does to the exchange in which it strikes, as the host's headers tell.
enum class Effect : uint8_t {
  kNone,
  kFails,
  kTriesAgain,  // until the time-out of the wait
  kReconnects,  // on a connection kept from before; on a new one it fails
  kLoses,       // answers are lost: a dump is asked for again, an awaited reply is missed
  kTimesOut,
  kPassesAnHour,  // times out a wait whose time is running
};

/// Faults that are not errnos are negative numbers in their place.
enum Special : int {
  kShort = -1,      // a part is missing
  kTruncated = -2,  // the datagram is longer than the buffer
  kEnd = -3,        // the peer has hung up
  kForeign = -4,    // the answer to another request comes
  kTimeout = -5,    // nothing comes in time
  kPollError = -6,  // poll() says that an error pends, and then there is none
  kHour = -7,       // the clock jumps forward
};

struct Fault {
  Op op;
  int error;  // errno or Special
  Effect effect;
  bool in_pairs;  // stands for its like where two operations fail
};

/// Every fault of every operation.
const std::vector<Fault>& all_faults();
std::string describe(const Fault& fault);

/// The operation of this number fails, the first being 0; `forever`: and all later ones of its
/// kind.
struct Injection {
  size_t operation;
  const Fault* fault;
  bool forever;
};

/// One step of a request, and the faults that struck in it.
struct Record {
  enum class Step : uint8_t { kAllocate, kResolve, kExchange };
  struct Struck {
    const Fault* fault;
    bool connected;  // in this exchange, before the fault
    bool begun;      // the time of its wait was running
    int waits;       // how many waits had been over
    int sent;        // how often the request had gone out
  };

  Step step;
  bool dump = false;
  bool connected = false;
  bool begun = false;  // with the first look at the clock in a wait
  int waits = 0;       // to connect, to send, for the first message of an answer and for each other
  bool consistent = true;    // result, last error and error slot agree
  bool from_kernel = false;  // the kernel has refused
  bool tree_struck = false;  // no memory for a port that came
  int sent = 0;
  int error = 0;    // the last error
  int sockets = 0;  // open after it
  std::array<Struck, 32> struck{};
  size_t struck_count = 0;

  /// The next wait has a time-out of its own.
  void end_wait() {
    begun = false;
    ++waits;
  }
};

/// A run of one thread. It allocates nothing.
struct Injector {
  std::span<const Injection> injections;
  std::array<Op, 1 << 16> ops{};
  size_t op_count = 0;
  std::array<Record, 64> records{};
  size_t record_count = 0;
  Record* current = nullptr;  // the step in which faults strike
  bool in_tree = false;
  bool late = false;  // Every datagram is: it is there once it has been waited for.
  int sockets = 0;    // that the tracked thread has open
  int64_t clock = 0;  // the armed thread's, in nanoseconds

  /// Starts a run on the calling thread, whose memory and sockets are tracked from here to its end.
  void track(std::span<const Injection> chosen);
  /// Counts an operation of an armed thread; returns how it is to fail, or null.
  const Fault* next(Op op);
  Record* begin(Record::Step step);
  void strike(const Fault& fault);
};
extern Injector injector;

/// Whether the calling thread's operations are counted.
extern constinit thread_local bool armed;

/// Blocks of memory that the tracked thread has not given back.
size_t live_blocks();

/// What the process is at, for the line that it prints when it crashes or hangs.
extern std::array<char, 512> doing;
[[noreturn]] void die(const char* reason);

/// The write function of the log file, whose context is a bool: something has been written.
long write_log_file(void* written, const char* text, size_t size);

}  // namespace torture

#endif  // TORTURE_FAULTS_H_
