// A command from its words to its report.
#pragma once

#include <string>
#include <vector>

#include "datapathctl/parser.h"
#include "datapathctl/session.h"

namespace datapathctl {

/// A line of a batch.
struct Place {
  std::string file{};
  int line = 0;  // 0: none, the command is on the command line
};

/// Parses words, runs their command, and prints how it ended: what was asked for, or its one JSON
/// object, on standard output; an error, with its hint, and the notes on standard error. Returns
/// the exit status.
int execute(Session& session, Parser& parser, std::vector<std::string> words,
            const Place& place = {});

}  // namespace datapathctl
