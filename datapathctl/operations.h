// Every command there is: how it is written, and what it does.
#ifndef DATAPATHCTL_OPERATIONS_H_
#define DATAPATHCTL_OPERATIONS_H_

#include <CLI/CLI.hpp>
#include <span>
#include <string>

#include "datapathctl/command.h"
#include "datapathctl/session.h"

namespace datapathctl {

struct Operation {
  const char* name;  // "object verb" or, without a verb, "object"
  const char* help;
  /// Has the parser fill a command with the arguments; null: there are none.
  void (*add_arguments)(CLI::App& parser, Command& command);
  Result (*run)(Session& session, const Command& command);
  bool in_batch = true;  // whether a line of a batch may be one
};

std::span<const Operation> operations();

/// Runs the commands of a file, "-" for standard input, one a line, up to the first that fails;
/// empty lines and those of '#' are skipped.
Result run_batch(Session& session, const std::string& path);

/// Serves an emulated kernel at a path until SIGINT or SIGTERM, and prints each request and what
/// became of it. Throws std::system_error when it can't listen there.
Result serve_emulator(const std::string& path, const Faults& faults);

/// Runs a parsed command. What its parts throw becomes a failure.
Result run(Session& session, const Command& command);

}  // namespace datapathctl

#endif  // DATAPATHCTL_OPERATIONS_H_
