// The calls that take the proxy through its life are several requests each. Some may be done when
// one fails.

#include <CLI/StringTools.hpp>
#include <algorithm>
#include <string>
#include <utility>

#include "datapath_proxy/include/corvil_datapath_proxy.h"
#include "datapathctl/operations.h"

namespace datapathctl {
namespace {

bool has(const std::vector<std::string>& commands, const char* command) {
  return std::ranges::find(commands, command) != commands.end();
}

std::string ports_of(const PortList& list) { return " " + CLI::detail::join(list.words, " "); }

std::string forwarding_of(const Command& c) {
  return " --from " + c.from + " --to " + c.to +
         (c.selector == 0 ? "" : " --selector " + std::to_string(c.selector));
}

/// The command that takes back what is done of another one; empty when nothing is.
std::string inverse(const Command& c, const std::vector<std::string>& done) {
  if (has(done, "UNSET_DEV")) {
    return "proxy up " + c.device + forwarding_of(c);
  }
  if (has(done, "DEL_TUPLES")) {
    return "proxy update --new" + ports_of(c.old_ports.words.empty() ? c.ports : c.old_ports);
  }
  const bool has_ports = has(done, "ADD_TUPLES");
  if (has(done, "ADD_FWD_INFO")) {
    return "proxy unmap" + forwarding_of(c) + (has_ports ? ports_of(c.ports) : "");
  }
  return has_ports ? "proxy update --old" + ports_of(c.ports) : "";
}

/// Adds to a failure which steps are done, and what takes them back.
Result with_steps(const Session& session, const Command& command, Result result) {
  std::vector<std::string> done = session.acknowledged();
  const std::string undo = inverse(command, done);
  if (result.ok() || undo.empty()) {
    return result;
  }
  done.erase(std::unique(done.begin(), done.end()), done.end());
  const bool flushed = has(done, "LL_ADDR_FLUSH");
  result.members["done"] = done;
  result.members["undo"] = undo;
  result.notes.push_back("done before: " + CLI::detail::join(done, ", ") + "; what takes it back" +
                         (flushed ? ", but for the flows: " : ": ") + undo);
  return result;
}

Result remove_ports(Session& session, const PortDescriptor* ports, uint32_t count) {
  return CALL_LIBRARY(session, corvil_datapath_proxy_update_config_info, nullptr, uint32_t{0},
                      ports, count);
}

Result remove_forwarding(Session& session, const Command& c) {
  return CALL_LIBRARY(session, corvil_datapath_proxy_unset_reverse_dev_mapping, c.selector,
                      c.to.c_str(), c.from.c_str());
}

/// Whether the family refused a request because what it names is not there.
bool is_absent(const Result& result) {
  return result.members.value("errno", "") == "ENOENT" && result.members.contains("request");
}

/// Goes on after a tear-down that ended at something that is not there: takes the steps that are
/// left, and removes the ports one by one, since a list is removed only as a whole. The flows are
/// flushed already where it ended at the ports.
Result finish_tear_down(Session& session, const Command& c, const Result& ended) {
  Result result;
  const auto take = [&result](Result step) {
    if (is_absent(step)) {
      result.notes.push_back("went on: " + step.error);
      result.members["went_on"].push_back(step.members);
    } else if (!step.ok()) {
      step.notes = std::move(result.notes);
      step.members.update(result.members);
      result = std::move(step);
    }
  };
  const std::string end = ended.members["request"];
  if (end != "DEL_TUPLES") {
    take(ended);
  }
  if (end == "UNSET_DEV") {
    take(remove_forwarding(session, c));
  }
  for (size_t i = 0; i < c.ports.size() && result.ok(); ++i) {
    take(remove_ports(session, &c.ports.ports[i], 1));
  }
  if (c.selector == 1 && end != "DEL_TUPLES" && result.ok()) {
    take(CALL_LIBRARY(session, corvil_datapath_proxy_flush_ll_dst_addr));
  }
  return result;
}

}  // namespace

Result run_proxy_up(Session& session, const Command& c) {
  return with_steps(
      session, c,
      CALL_LIBRARY(session, corvil_datapath_proxy_set_config_info, c.device.c_str(), c.to.c_str(),
                   c.from.c_str(), c.ports.data(), c.ports.size(), c.selector));
}

Result run_proxy_down(Session& session, const Command& c) {
  Result result =
      CALL_LIBRARY(session, corvil_datapath_proxy_unset_config_info, c.device.c_str(), c.to.c_str(),
                   c.from.c_str(), c.ports.data(), c.ports.size(), c.selector);
  if (is_absent(result) && c.force) {
    result = finish_tear_down(session, c, result);
  } else if (is_absent(result)) {
    result.hint = "proxy down --force goes on where something is not there";
  }
  return with_steps(session, c, std::move(result));
}

Result run_proxy_update(Session& session, const Command& c) {
  return with_steps(session, c,
                    CALL_LIBRARY(session, corvil_datapath_proxy_update_config_info, c.ports.data(),
                                 c.ports.size(), c.old_ports.data(), c.old_ports.size()));
}

Result run_proxy_unmap(Session& session, const Command& c) {
  Result result;
  if (c.ports.size() != 0) {
    result = remove_ports(session, c.ports.data(), c.ports.size());
  }
  return result.ok() ? with_steps(session, c, remove_forwarding(session, c)) : result;
}

}  // namespace datapathctl
