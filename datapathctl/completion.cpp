#include "datapathctl/completion.h"

#include <algorithm>
#include <utility>

#include "datapathctl/misbehaviour.h"
#include "datapathctl/usage.h"
#include "datapathctl/values.h"

namespace datapathctl {
namespace {

/// Where the words before the last one have led.
struct Place {
  const CLI::App* command;              // null: to no command
  const CLI::Option* option = nullptr;  // the one whose value comes next
  size_t arguments = 0;                 // of the command, given already
};

const CLI::Option* option_named(const CLI::App& command, const std::string& name) {
  return name.starts_with("--") ? command.get_option_no_throw(name) : nullptr;
}

const CLI::App* command_named(const CLI::App& object, const std::string& name) {
  const auto commands = visible_commands(object);
  const auto found = std::ranges::find(commands, name, &CLI::App::get_name);
  return found != commands.end() ? *found : nullptr;
}

void step(Place* place, const std::string& word) {
  if (word.starts_with("--")) {
    const CLI::Option* option = option_named(*place->command, word);
    place->option = option != nullptr && !value_name(*option).empty() ? option : nullptr;
  } else if (place->option != nullptr) {
    place->option = takes_list(*place->option) ? place->option : nullptr;
  } else if (const CLI::App* command = command_named(*place->command, word)) {
    *place = {command};
  } else if (visible_commands(*place->command).empty()) {
    ++place->arguments;
  } else {
    place->command = nullptr;
  }
}

/// The argument of a command that comes next; the last one may be a list.
const CLI::Option* next_argument(const Place& place) {
  size_t left = place.arguments;
  for (const CLI::Option* option : place.command->get_options()) {
    if (option->get_positional() && (left-- == 0 || takes_list(*option))) {
      return option;
    }
  }
  return nullptr;
}

class Candidates {
 public:
  /// Those that begin like `word`.
  explicit Candidates(std::string word) : word_(std::move(word)) {}

  void add(const std::string& candidate, const std::string& help) {
    if (candidate.starts_with(word_)) {
      lines_.push_back(candidate + "\t" + help);
    }
  }

  /// Values of an option or argument, each behind a prefix such as "--misbehave=".
  void add_values(const CLI::Option& option, const std::string& prefix = "") {
    const std::string name = value_name(option);
    if (name == "PATH" || name == "FILE") {
      lines_.emplace_back(kFileCompletion);
    } else if (name == "WORD") {
      for (const Usage& word : misbehaviour_usages()) {
        const size_t equals = word.form.find('=');
        add(prefix + word.form.substr(0, equals == std::string::npos ? equals : equals + 1),
            word.help);
      }
    } else if (name == "PORTS") {
      for (const std::string& protocol : port_protocols()) {
        add(prefix + protocol + "/", "port or range of ports");
      }
    }
  }

  void add_options(const CLI::App& command) {
    for (const CLI::Option* option : command.get_options()) {
      if (!option->get_positional()) {
        add("--" + option->get_lnames().front(), option->get_description());
      }
    }
  }

  void add_commands(const CLI::App& object) {
    for (const CLI::App* each : visible_commands(object)) {
      add(each->get_name(), each->get_description());
    }
  }

  [[nodiscard]] std::vector<std::string> take() { return std::move(lines_); }

 private:
  std::string word_;
  std::vector<std::string> lines_;
};

}  // namespace

std::vector<std::string> complete(const CLI::App& app, const std::vector<std::string>& words) {
  const std::string last = words.empty() ? "" : words.back();
  Place place{&app};
  for (size_t i = 0; i + 1 < words.size(); ++i) {
    step(&place, words[i]);
    if (place.command == nullptr) {
      return {};
    }
  }
  Candidates candidates(last);
  const size_t equals = last.find('=');
  if (last.starts_with("--") && equals != std::string::npos) {
    if (const CLI::Option* option = option_named(*place.command, last.substr(0, equals))) {
      candidates.add_values(*option, last.substr(0, equals + 1));
    }
  } else if (place.option != nullptr && !last.starts_with("-")) {
    candidates.add_values(*place.option);
  } else {
    candidates.add_commands(*place.command);
    if (const CLI::Option* argument = next_argument(place)) {
      candidates.add_values(*argument);
    }
    if (last.starts_with("-")) {
      candidates.add_options(*place.command);
    }
  }
  return candidates.take();
}

}  // namespace datapathctl
