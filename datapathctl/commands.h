// The commands, of the command line and of a batch alike.
#ifndef DATAPATHCTL_COMMANDS_H_
#define DATAPATHCTL_COMMANDS_H_

#include <CLI/CLI.hpp>

#include "datapathctl/session.h"

namespace datapathctl {

/// Adds every command to a command line. A parsed command runs from its callback, which throws
/// UsageError or CallFailed. The session outlives the command line.
void define_commands(CLI::App& app, Session& session);

}  // namespace datapathctl

#endif  // DATAPATHCTL_COMMANDS_H_
