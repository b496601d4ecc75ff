#include <CLI/CLI.hpp>
#include <algorithm>
#include <iterator>
#include <memory>
#include <string_view>
#include <utility>

#include "datapathctl/operations.h"

namespace datapathctl {
namespace {

const Operation* find_operation(std::string_view name) {
  return &*std::ranges::find(operations(), name, &Operation::name);
}

/// The verbs of an object; of none, every object.
std::vector<std::string> names_below(const std::string& object) {
  std::vector<std::string> names;
  for (const Operation& operation : operations()) {
    const std::string name = operation.name;
    const size_t end = std::min(name.find(' '), name.size());
    if (object.empty() && (names.empty() || names.back() != name.substr(0, end))) {
      names.push_back(name.substr(0, end));
    } else if (name.starts_with(object + " ")) {
      names.push_back(name.substr(end + 1));
    }
  }
  return names;
}

[[noreturn]] void refuse(const std::string& error) { throw CLI::ValidationError(error); }

/// Takes the name of an object, or of a verb of one, off the words; it may be abbreviated.
std::string take_name(const std::string& object, std::vector<std::string>* words) {
  const std::string word = words->empty() ? "" : words->front();
  const std::vector<std::string> names = names_below(object);
  std::vector<std::string> fitting;
  std::ranges::copy_if(names, std::back_inserter(fitting),
                       [&word](const std::string& known) { return known.starts_with(word); });
  if (fitting.size() == 1 || std::ranges::find(fitting, word) != fitting.end()) {
    words->erase(words->begin());
    return fitting.size() == 1 ? fitting[0] : word;
  }
  const std::string kind = word.starts_with('-') ? "option" : object.empty() ? "object" : "verb";
  const std::string problem = words->empty()    ? "no " + kind
                              : fitting.empty() ? "unknown " + kind + " '" + word + "'"
                                                : "ambiguous " + kind + " '" + word + "'";
  const std::string choice = CLI::detail::join(fitting.empty() ? names : fitting, ", ");
  refuse(problem + (kind == "option" ? "" : "; one of " + choice) + ", see datapathctl " + object +
         (object.empty() ? "" : " ") + "help");
}

void check(const Settings& settings, const Operation& operation) {
  if (settings.json && settings.log_file == "-") {
    refuse("--json excludes --log-file -");
  }
  if (settings.emulate && !settings.socket.empty()) {
    refuse("--emulate excludes --socket");
  }
  const bool shows =
      settings.shows_messages() || (operation.stands_alone && operation.run != run_batch);
  if ((settings.hex || settings.time) && !shows) {
    refuse(std::string(settings.hex ? "--hex" : "--time") +
           " has no messages to show; it goes with --trace or --dry-run");
  }
}

/// Every object with its verbs, in lines.
std::string list_operations() {
  constexpr size_t kWidth = 80;
  std::string text = "OBJECT [VERB]:";
  size_t width = text.size();
  for (const std::string& object : names_below("")) {
    const std::string verbs = CLI::detail::join(names_below(object), "|");
    const std::string word = " " + object + (verbs.empty() ? "," : " " + verbs + ",");
    width += word.size();
    text += width > kWidth ? "\n " : "";
    width = width > kWidth ? word.size() + 1 : width;
    text += word;
  }
  text.back() = '.';
  return text + "\nMore: datapathctl OBJECT help, datapathctl help, datapathctl(1)";
}

/// What parses the options, wherever they stand, into settings.
std::unique_ptr<CLI::App> options_of(Settings* settings) {
  auto app = std::make_unique<CLI::App>("", "datapathctl OBJECT [VERB] [ARGUMENT]...");
  app->set_help_flag();
  app->add_flag("-h,--help")->description("Print this help message and exit");
  app->add_flag("-V,--version")->description("print the version and exit");
  add_options(*app, *settings);
  app->footer(list_operations());
  app->allow_extras();
  return app;
}

std::string help_on_options() {
  Settings settings;
  return options_of(&settings)->help();
}

/// What parses the arguments of an operation into a command.
std::unique_ptr<CLI::App> arguments_of(const Operation& operation, Command* command) {
  auto app =
      std::make_unique<CLI::App>(operation.help, std::string("datapathctl ") + operation.name);
  if (operation.add_arguments != nullptr) {
    operation.add_arguments(*app, *command);
  }
  return app;
}

/// The help on an operation, on those of an object, or where the topic is empty, on all.
std::string help_on(const std::string& topic) {
  std::string text;
  Command command;
  for (const Operation& operation : operations()) {
    const std::string name = operation.name;
    if (topic.empty() || name == topic || name.starts_with(topic + " ")) {
      text += arguments_of(operation, &command)->help();
    }
  }
  return text;
}

/// Takes the name of an operation off the words, which may be abbreviated; of help, all words.
void take_operation(std::vector<std::string>* words, Command* command) {
  if (!words->empty() && words->front() == "--help") {
    *command = {.operation = find_operation("help"), .text = help_on_options()};
    words->clear();
    return;
  }
  std::string name = take_name("", words);
  const bool asks = !words->empty() && (words->front() == "help" || words->front() == "--help");
  if (!asks && !names_below(name).empty()) {
    name += " " + take_name(name, words);
  }
  command->operation = find_operation(asks ? "help" : name);
  if (asks) {
    words->clear();
    command->text = help_on(name);
  } else if (name == "help") {
    command->text = help_on_options() + "\n" + help_on("");
  }
}

void take_arguments(std::vector<std::string> words, bool in_batch, Command* command) {
  if (in_batch && command->operation->stands_alone) {
    refuse("not in a batch");
  }
  const auto app = arguments_of(*command->operation, command);
  try {
    std::ranges::reverse(words);  // CLI11 takes them from the back.
    app->parse(words);
  } catch (const CLI::CallForHelp&) {
    *command = {.operation = find_operation("help"), .text = app->help()};
  } catch (const CLI::ParseError&) {
    const std::vector<std::string> strangers = app->remaining();
    if (strangers.empty()) {
      throw;
    }
    const bool is_option = in_batch && strangers.front().starts_with('-');
    refuse("not understood: " + CLI::detail::join(strangers, " ") +
           (is_option ? "; options of datapathctl stand on its command line" : ""));
  }
}

}  // namespace

Result parse(std::vector<std::string> words, Settings* settings, Command* command) try {
  const auto has_nul = [](const std::string& word) { return word.find('\0') != word.npos; };
  if (std::ranges::any_of(words, has_nul)) {
    refuse("a NUL byte is in a word");
  }
  if (settings != nullptr) {
    const auto options = options_of(settings);
    std::ranges::reverse(words);
    options->parse(words);
    words = options->count("-V") > 0 ? std::vector<std::string>{"version"} : options->remaining();
    words.resize(words.size() + options->count("-h"), "--help");
  }
  take_operation(&words, command);
  take_arguments(std::move(words), settings == nullptr, command);
  if (settings != nullptr) {
    check(*settings, *command->operation);
  }
  return {};
} catch (const CLI::ParseError& error) {
  return usage_error(error.what());
}

}  // namespace datapathctl
