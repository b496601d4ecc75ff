// A host process made for tests: it records in one list, in order, everything that the data-path
// library does to it, and fails on demand.
#ifndef TESTS_SUPPORT_FAKE_HOST_H_
#define TESTS_SUPPORT_FAKE_HOST_H_

#include <linux/netlink.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "host_interfaces/corvil_log_services.h"
#include "host_interfaces/corvil_netlink.h"

namespace fake_host {

using Events = std::vector<std::string>;

struct Answer {
  int result = 0;
  int error = 0;  // stored in the error slot, if there is one, when result is -1
};

struct Host {
  /// "calloc 20", "free", "resolve TAVIK_WLAN 1", "send 14000000 2a00...", with " error slot" where
  /// one was passed, "query 14000000...", "reply 1" with the callback's result, "port 443 4 6",
  /// "ERR name(): text" from the diagnostic sink and "android 6 tag name(): text".
  Events events;

  uint16_t family_id = 0x2a;
  /// Answers of the transact and dump operations, first to last; success when there are none left.
  std::deque<Answer> answers;
  /// Replies to a query, as the bytes from the netlink header on.
  std::vector<std::vector<uint8_t>> replies;
  /// Results of the port tree, first to last; success when there are none left.
  std::deque<int> port_results;
  /// Which allocation and which resolution of the family fails, counted from 1; 0: none.
  int failing_allocation = 0;
  int failing_resolution = 0;
  /// Time of day; gettimeofday() fails and writes nothing when there is none.
  bool clock_works = true;
  int64_t clock_seconds = 0;
  int64_t clock_microseconds = 0;
  /// What the sinks were given, apart from `events`.
  std::vector<const LogSiteDescriptor*> descriptors;
  /// Runs before each recorded call of a log sink, with the call's name.
  std::function<void(const std::string&)> on_log_call;

  std::string last_format;  // of the diagnostic sink
  int allocations = 0;
  int resolutions = 0;
  std::map<const void*, size_t> live;  // allocations of the library and their sizes
};

/// The one host of the process.
Host& host();

/// The formats of the messages that have come with each descriptor, in all tests so far.
using Statements = std::map<const LogSiteDescriptor*, std::set<std::string>>;
Statements& statements();

/// Whether the environment variable FAKE_HOST_SILENT is set.
bool silent();

/// A fresh host whose only sink is the diagnostic service, which tells all four levels apart; with
/// no sink at all where the host is to be silent.
void reset();

/// Permissions of the mapping that an address lies in, such as "r--p".
std::string permissions_of(const void* address);

/// "28000000 2a00 0500" as the bytes of a message; blanks do not matter.
std::string hex(const void* bytes, size_t length);

}  // namespace fake_host

#endif  // TESTS_SUPPORT_FAKE_HOST_H_
