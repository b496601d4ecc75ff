// How results reach the user.
#pragma once

#include <string>

#include "datapathctl/command.h"

namespace datapathctl {

/// Prints an object as one line of JSON.
void print_json(const nlohmann::ordered_json& object);

/// A line of a batch.
struct Place {
  std::string file{};
  int line = 0;  // 0: none, the command is on the command line
};

/// Prints how a command ended: what was asked for, or its one JSON object, on standard output; an
/// error, with its hint, and the notes on standard error.
void report(const Settings& settings, const Command& command, const Result& result,
            const Place& place = {});

}  // namespace datapathctl
