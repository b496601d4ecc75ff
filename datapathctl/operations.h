// Every command there is: how it is written, and what it does.
#pragma once

#include <span>
#include <string>

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

// The operations that are more than one call of the library, or none. They may throw what
// execute() makes a failure.

// The four that take the proxy through its life. Of a failure after the first step, the result says
// which steps are done, and which command takes them back.
Result run_proxy_up(Session& session, const Command& command);
/// With force it goes on where something is not there.
Result run_proxy_down(Session& session, const Command& command);
Result run_proxy_update(Session& session, const Command& command);
Result run_proxy_unmap(Session& session, const Command& command);

/// Lists what the library reads back into the host's port tree, which it clears before.
Result run_ports(Session& session, const Command& command);

/// Tells what the kernel holds, or of a kernel that shows only its tuples, those.
Result run_state(Session& session, const Command& command);

/// Runs the commands of a file, "-" for standard input, one a line, up to the first that fails or,
/// with force, all.
Result run_batch(Session& session, const Command& command);

/// Serves an emulated kernel at a path, and shows what its clients say and hear, until SIGINT or
/// SIGTERM.
Result run_emulator(Session& session, const Command& command);

/// Shows what clients of the kernel in this network namespace, or of the emulator that the settings
/// name, say to the family and hear, until SIGINT or SIGTERM.
Result run_monitor(Session& session, const Command& command);

/// Shows the messages of a file, "-" for standard input: a capture, or bytes in hexadecimal.
Result run_decode(Session& session, const Command& command);

}  // namespace datapathctl
