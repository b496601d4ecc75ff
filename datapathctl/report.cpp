#include "datapathctl/report.h"

#include <iostream>
#include <string_view>

#include "datapathctl/message_decoder.h"
#include "datapathctl/operations.h"

namespace datapathctl {
namespace {

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

}  // namespace

void print_json(const nlohmann::ordered_json& object) {
  std::cout << json_text(object) << std::endl;
}

void report(const Settings& settings, const Command& command, const Result& result,
            const Place& place) {
  const bool reported = result.ok() ? command.operation->stands_alone : result.error.empty();
  if (settings.json && !reported) {
    print_json(to_json(command, result, place));
  } else if (!settings.json) {
    std::cout << result.text << std::flush;
  }
  std::string where = place.line == 0 ? "" : place.file + ":" + std::to_string(place.line) + ": ";
  if (command.operation != nullptr) {
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

}  // namespace datapathctl
