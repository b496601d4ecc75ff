// A host process made for tests: it writes down, line by line, everything that the data-path
// library does to it, and fails on demand.
#pragma once

#include <sys/time.h>

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "host_interfaces/corvil_log_services.h"

namespace fake_host {

struct Answer {
  int result = 0;
  int error = 0;  // stored in the error slot, if there is one, when result is -1
};

struct Host {
  /// What was done to the host, a line each: "calloc 20", "free", "resolve TAVIK_WLAN 1", "send
  /// 14000000 2a00...", with " error slot" where one was passed, "query 14000000...", "reply 1"
  /// with the callback's result, "port 443 4 6"; of the log "ERR name(): text" from the diagnostic
  /// sink and "android 6 tag name(): text". A newline inside a line is written as \n.
  std::string transcript;

  /// Answers of the transact and dump operations, first to last; success when there are none left.
  std::deque<Answer> answers;
  /// Replies to a query, as the bytes from the netlink header on; no bytes are a null reply.
  std::vector<std::vector<uint8_t>> replies;
  /// Results of the port tree, first to last; success when there are none left.
  std::deque<int> port_results;
  /// Which allocation and which resolution of the family from here on fails; 0: none.
  int failing_allocation = 0;
  int failing_resolution = 0;
  timeval clock = {};
  /// What zu_log_mask becomes while the diagnostic sink is at work.
  std::optional<uint32_t> next_log_mask;

  std::map<const void*, size_t> live;  // allocations of the library and their sizes
};

/// The one host of the process.
Host& host();

/// Makes it a fresh host whose only sink is the diagnostic service.
void reset();

/// Switches the file sink on, with a new log file.
void open_log_file();

/// What has been flushed to the log file.
std::string log_file();

/// The text with `by` wherever it has had `what`.
std::string replace(std::string text, const std::string& what, const std::string& by);

}  // namespace fake_host
