// Every command there is: how it is written, and what it does.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "datapathctl/command.h"
#include "datapathctl/session.h"

namespace CLI {
class App;
}

namespace datapathctl {

struct Operation {
  const char* name;  // "object verb" or, without a verb, "object"
  const char* help;
  /// Has the parser fill a command with the arguments; null: there are none.
  void (*add_arguments)(CLI::App& parser, Command& command);
  Result (*run)(Session& session, const Command& command);
  bool stands_alone = false;  // It prints for itself while it runs, and is no line of a batch.
};

std::span<const Operation> operations();

/// Has a parser fill the settings.
void add_options(CLI::App& app, Settings& settings);

/// Fills the command from words, or tells in one line what is wrong with them; the command's
/// operation is set as soon as it is known. The words of a command line have options, which go to
/// the settings; those of a line of a batch have none, and the settings are null.
Result parse(std::vector<std::string> words, Settings* settings, Command* command);

// The operations that are more than one call of the library, or none. They may throw what
// execute() makes a failure.

// The four that take the proxy through its life. Of a failure after the first step, the result says
// which steps are done, and which command takes them back.
Result run_proxy_up(Session& session, const Command& command);
Result run_proxy_down(Session& session, const Command& command);
Result run_proxy_update(Session& session, const Command& command);
Result run_proxy_unmap(Session& session, const Command& command);

// What can be read back.
Result run_ports(Session& session, const Command& command);
Result run_state(Session& session, const Command& command);

// Those that stand alone.
Result run_batch(Session& session, const Command& command);
Result run_emulator(Session& session, const Command& command);
Result run_monitor(Session& session, const Command& command);
Result run_decode(Session& session, const Command& command);

}  // namespace datapathctl
