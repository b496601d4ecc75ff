// Many commands from one file.

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "datapathctl/execution.h"
#include "datapathctl/operations.h"

namespace datapathctl {
namespace {

constexpr std::string_view kBlanks = " \t\r";

/// Splits a line at blanks, except between quotes, single or double, up to a word that begins with
/// '#'.
Result split(std::string_view line, std::vector<std::string>* words) {
  bool in_word = false;  // perhaps in one that is empty so far
  char quote = '\0';
  for (const char c : line) {
    if (c == '\0') {
      return usage_error("a NUL byte is in the line");
    }
    if (quote == '\0' && kBlanks.find(c) != std::string_view::npos) {
      in_word = false;
      continue;
    }
    if (!in_word && c == '#') {
      break;
    }
    if (!in_word) {
      words->emplace_back();
      in_word = true;
    }
    if (quote == '\0' && (c == '"' || c == '\'')) {
      quote = c;
    } else if (c == quote) {
      quote = '\0';
    } else {
      words->back() += c;
    }
  }
  return quote == '\0' ? Result{} : usage_error("unclosed quote");
}

/// Runs the command of a line, if there is one, and reports how it ended. Returns its exit status.
int run_line(Session& session, Parser& parser, const std::string& line, const Place& place) {
  const Settings& settings = session.settings();
  std::vector<std::string> words;
  const Result result = split(line, &words);
  if (result.ok() && words.empty()) {
    return 0;
  }
  if ((settings.trace != Trace::kOff || settings.dry_run) && !settings.json) {
    std::cout << "# " << printable(line.substr(line.find_first_not_of(kBlanks))) << std::endl;
  }
  return execute(session, parser, std::move(words), place, result);
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
