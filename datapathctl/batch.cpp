// Many commands from one file.

#include <cstdio>
#include <fstream>
#include <iostream>
#include <string_view>
#include <vector>

#include "datapathctl/operations.h"
#include "datapathctl/parser.h"

namespace datapathctl {
namespace {

constexpr std::string_view kBlanks = " \t\r";

/// Splits a line at blanks, except between quotes, single or double.
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

Result run_line(Session& session, Parser& parser, std::string_view line) {
  const Settings& settings = session.settings();
  if ((settings.trace || settings.dry_run) && !settings.json) {
    std::cout << "# " << printable(line) << std::endl;
  }
  std::vector<std::string> words;
  Command command;
  Result result = split(line, &words);
  if (result.ok()) {
    result = parser.parse(std::move(words), &command);
  }
  return result.ok() ? run(session, command) : result;
}

Result run_lines(Session& session, std::istream& input, const std::string& name) {
  Parser parser(nullptr);
  int number = 0;
  for (std::string line; std::getline(input, line);) {
    ++number;
    const size_t start = line.find_first_not_of(kBlanks);
    if (start == std::string::npos || line[start] == '#') {
      continue;
    }
    Result result = run_line(session, parser, std::string_view(line).substr(start));
    if (!result.ok()) {
      result.error.insert(0, name + ":" + std::to_string(number) + ": ");
      return result;
    }
  }
  return {};
}

}  // namespace

Result run_batch(Session& session, const std::string& path) {
  if (path == "-") {
    Result result = run_lines(session, std::cin, "standard input");
    return std::ferror(stdin) == 0 ? result
                                   : usage_error("cannot read the batch from standard input");
  }
  std::ifstream file(path);
  Result result = run_lines(session, file, path);
  // A folder opens, but does not read.
  return file.is_open() && !file.bad() ? result : usage_error("cannot read the batch " + path);
}

}  // namespace datapathctl
