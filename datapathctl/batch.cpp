// Many commands from one file.

#include <CLI/StringTools.hpp>
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

#include "datapathctl/execution.h"
#include "datapathctl/operations.h"

namespace datapathctl {
namespace {

/// Runs the command of a line, if there is one, and reports how it ended. Returns its exit status.
int run_line(Session& session, Parser& parser, const std::string& line, const Place& place) {
  const Settings& settings = session.settings();
  std::vector<std::string> words = CLI::detail::split_up(line);
  words.erase(std::ranges::find_if(words, [](const auto& word) { return word.starts_with('#'); }),
              words.end());
  if (words.empty()) {
    return 0;
  }
  if (settings.shows_messages() && !settings.json) {
    std::cout << "# " << printable(CLI::detail::trim_copy(line)) << std::endl;
  }
  return execute(session, parser, std::move(words), place);
}

/// Returns the exit status of the batch: that of the worst line.
int run_lines(Session& session, std::istream& input, Place place, bool force) {
  Parser parser(nullptr);
  int status = 0;
  for (std::string line; (status == 0 || force) && std::getline(input, line);) {
    ++place.line;
    status = std::max(status, run_line(session, parser, line, place));
  }
  return status;
}

}  // namespace

Result run_batch(Session& session, const Command& c) {
  if (c.path == "-") {
    const int status = run_lines(session, std::cin, {"standard input"}, c.force);
    return std::ferror(stdin) == 0 ? Result{.status = status}
                                   : usage_error("cannot read the batch from standard input");
  }
  std::ifstream file(c.path);
  const int status = run_lines(session, file, {c.path}, c.force);
  // A folder opens, but does not read.
  return file.is_open() && !file.bad() ? Result{.status = status}
                                       : usage_error("cannot read the batch " + c.path);
}

}  // namespace datapathctl
