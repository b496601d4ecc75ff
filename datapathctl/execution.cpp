#include "datapathctl/execution.h"

#include <exception>
#include <iostream>
#include <string_view>
#include <utility>

#include "datapathctl/message_decoder.h"
#include "datapathctl/operations.h"

namespace datapathctl {
namespace {

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

}  // namespace

int execute(Session& session, Parser& parser, std::vector<std::string> words, const Place& place) {
  Command command;
  Result result = parser.parse(std::move(words), &command);
  if (result.ok()) {
    result = run(session, command);
  }
  report(session.settings(), command, result, place);
  return result.status;
}

}  // namespace datapathctl
