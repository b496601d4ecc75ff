// datapathctl: a host process of the data-path library for a person at a terminal. A command goes
// from its words, of a command line or of a line of a batch, to a report of how it ended.

#include <fcntl.h>
#include <unistd.h>

#include <CLI/StringTools.hpp>
#include <algorithm>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <exception>
#include <fstream>
#include <iostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "datapathctl/message_decoder.h"
#include "datapathctl/operations.h"
#include "datapathctl/session.h"

namespace datapathctl {
namespace {

/// A line of a batch.
struct Place {
  std::string file{};
  int line = 0;  // 0: none, the command is on the command line
};

/// What its parts throw becomes a failure.
Result run(Session& session, const Command& command) {
  try {
    Result result = session.begin_command();
    return result.ok() ? command.operation->run(session, command) : result;
  } catch (const std::exception& error) {
    return failure(error.what());
  }
}

nlohmann::ordered_json to_json(const Command& command, const Result& result, const Place& place) {
  nlohmann::ordered_json object = {{"command", nullptr}, {"result", result.ok() ? 0 : -1}};
  if (command.operation != nullptr) {
    object["command"] = command.operation->name;
  }
  if (place.line != 0) {
    object["line"] = place.line;
  }
  if (!result.ok()) {
    object["status"] = result.status;
    object["reason"] = result.error;
  }
  object.update(result.members);
  if (!result.hint.empty()) {
    object["hint"] = result.hint;
  }
  return object;
}

void print_line(std::string_view kind, std::string_view text) {
  std::cerr << "datapathctl: " << kind << printable(text) << "\n";
}

void report(const Settings& settings, const Command& command, const Result& result,
            const Place& place) {
  const bool is_known = command.operation != nullptr;
  const bool reported =
      result.ok() ? is_known && command.operation->stands_alone : result.error.empty();
  if (settings.json && !reported) {
    std::cout << json_text(to_json(command, result, place)) << std::endl;
  } else if (!settings.json) {
    std::cout << result.text << std::flush;
  }
  std::string where = place.line == 0 ? "" : place.file + ":" + std::to_string(place.line) + ": ";
  if (is_known) {
    where.append(command.operation->name).append(": ");
  }
  if (!result.error.empty()) {
    print_line("", where + result.error);
  }
  for (const std::string& note : result.notes) {
    print_line("note: ", note);
  }
  if (!result.hint.empty()) {
    print_line("hint: ", result.hint);
  }
}

/// Parses words, with options where the settings are given, runs their command, and prints how it
/// ended: what was asked for, or its one JSON object, on standard output; an error, with its hint,
/// and the notes on standard error. Returns the exit status.
int execute(Session& session, std::vector<std::string> words, Settings* settings,
            const Place& place = {}) {
  Command command;
  Result result = parse(std::move(words), settings, &command);
  if (result.ok()) {
    result = run(session, command);
  }
  report(session.settings(), command, result, place);
  return result.status;
}

/// Runs the command of a line, if there is one, and reports how it ended. Returns its exit status.
int run_line(Session& session, const std::string& line, const Place& place) {
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
  return execute(session, std::move(words), nullptr, place);
}

/// Returns the exit status of the batch: that of the worst line.
int run_lines(Session& session, std::istream& input, Place place, bool force) {
  int status = 0;
  for (std::string line; (status == 0 || force) && std::getline(input, line);) {
    ++place.line;
    status = std::max(status, run_line(session, line, place));
  }
  return status;
}

/// Keeps the numbers of closed standard descriptors from the sockets and files that are opened
/// next, which would get the output as input; to use one still fails.
void hold_closed_descriptors() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    if (fcntl(fd, F_GETFD) == -1) {
      open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);
    }
  }
}

int run_command_line(const std::vector<std::string>& words) {
  Settings settings;
  // Words that can't be parsed may stand before it.
  settings.json = std::ranges::any_of(
      words, [](const std::string& word) { return word == "-j" || word == "--json"; });
  Session session(settings);
  const int status = execute(session, words, &settings);
  // The library writes its log to stdout, beside std::cout.
  if (std::cout.flush() && std::ferror(stdout) == 0) {
    return status;
  }
  std::cerr << "datapathctl: cannot write the output\n";
  return 2;
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

int main(int argc, char** argv) {
  datapathctl::hold_closed_descriptors();
  std::signal(SIGPIPE, SIG_IGN);  // A closed output shows in std::cout instead.
  std::setlocale(LC_CTYPE, "");   // for printable()
  try {
    return datapathctl::run_command_line({argv + (argc > 0 ? 1 : 0), argv + argc});
  } catch (...) {  // Nothing but want of memory comes so far.
    return 2;
  }
}
