#include "datapathctl/parser.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iterator>
#include <memory>
#include <string_view>

#include "datapathctl/operations.h"
#include "datapathctl/values.h"

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

/// Takes the name of an object, or of a verb of one, off the words; it may be abbreviated.
Result take_name(const std::string& object, std::vector<std::string>* words, std::string* name) {
  const std::string word = words->empty() ? "" : words->front();
  const std::vector<std::string> names = names_below(object);
  std::vector<std::string> fitting;
  std::ranges::copy_if(names, std::back_inserter(fitting),
                       [&word](const std::string& known) { return known.starts_with(word); });
  const auto exact = std::ranges::find(fitting, word);
  if (fitting.size() == 1 || exact != fitting.end()) {
    *name = fitting.size() == 1 ? fitting[0] : *exact;
    words->erase(words->begin());
    return {};
  }
  const std::string kind = word.starts_with('-') ? "option" : object.empty() ? "object" : "verb";
  const std::string problem = words->empty()    ? "no " + kind
                              : fitting.empty() ? "unknown " + kind + " '" + word + "'"
                                                : "ambiguous " + kind + " '" + word + "'";
  const std::string choice = CLI::detail::join(fitting.empty() ? names : fitting, ", ");
  return usage_error(problem + (kind == "option" ? "" : "; one of " + choice) +
                     ", see datapathctl " + object + (object.empty() ? "" : " ") + "help");
}

/// Why a path can't be one; empty for others. The settings know an empty one as none at all.
std::string empty_path(const std::string& path) { return path.empty() ? "the path is empty" : ""; }

/// The number of a Trace.
std::string parse_trace(const std::string& word) {
  if (word == "true" || word == "compact" || word == "full") {
    return std::to_string(static_cast<int>(word == "full" ? Trace::kFull : Trace::kCompact));
  }
  throw CLI::ValidationError("'" + word + "' is neither compact nor full");
}

void define_options(CLI::App& app, Settings& settings) {
  const auto add_path = [&app](const char* name, std::string& path, const char* help) {
    return app.add_option(name, path, help)->type_name("PATH")->check(empty_path);
  };
  add_path("--library", settings.library, "load this library, not the one beside this program");
  app.add_flag("--emulate", settings.emulate, "run an emulated kernel inside");
  add_path("--socket", settings.socket, "talk to the emulator that serves there");
  add_value(app, "--misbehave", settings.faults, parse_faults,
            "have the emulated kernel misbehave, repeatable")
      ->type_name("WORD")
      ->allow_extra_args(false);
  add_number(app, "--timeout", settings.timeout_ms, "timeout",
             "how long the kernel may take to answer", 3600000, 1)
      ->type_name("MS");
  app.add_flag("--trace", settings.trace, "print every netlink message; =full: all of it")
      ->transform(parse_trace);
  app.add_flag("--time", settings.time, "print the time of each message");
  app.add_flag("--dry-run", settings.dry_run, "print the requests, and send nothing");
  app.add_flag("--hex", settings.hex, "print the bytes of each message");
  add_path("--pcap", settings.pcap, "capture every message; -: on standard output")
      ->type_name("FILE");
  app.add_flag("-j,--json", settings.json, "print results, state and messages as JSON");
  add_path("--log-file", settings.log_file, "append the library's log there; -: print it");
  app.add_flag("--log-diag", settings.log_diagnostic, "print the diagnostic sink on stderr");
  app.add_flag("--log-android", settings.log_android, "switch the Android log on");
}

Result check(const Settings& settings, const Operation& operation) {
  if (settings.json && settings.log_file == "-") {
    return usage_error("--json excludes --log-file -");
  }
  if (settings.emulate && !settings.socket.empty()) {
    return usage_error("--emulate excludes --socket");
  }
  const bool shows =
      settings.shows_messages() || (operation.stands_alone && operation.run != run_batch);
  if ((settings.hex || settings.time) && !shows) {
    return usage_error(std::string(settings.hex ? "--hex" : "--time") +
                       " has no messages to show; it goes with --trace or --dry-run");
  }
  return {};
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

}  // namespace

Parser::Parser(Settings* settings)
    : settings_(settings), options_("", "datapathctl OBJECT [VERB] [ARGUMENT]...") {
  options_.set_help_flag();
  options_.add_flag("-h,--help")->description("Print this help message and exit");
  if (settings != nullptr) {
    options_.add_flag("-V,--version")->description("print the version and exit");
    define_options(options_, *settings);
    options_.footer(list_operations());
    options_.allow_extras();
  }
}

Result Parser::parse(std::vector<std::string> words, Command* command) {
  const auto has_nul = [](const std::string& word) { return word.find('\0') != word.npos; };
  if (std::ranges::any_of(words, has_nul)) {
    return usage_error("a NUL byte is in a word");
  }
  command_ = {};
  Result result;
  try {
    take_options(&words);
    result = take_operation(&words);
    result = result.ok() ? take_arguments(&words) : result;
  } catch (const CLI::ParseError& error) {
    result = usage_error(error.what());
  }
  *command = command_;
  return result;
}

void Parser::take_options(std::vector<std::string>* words) {
  if (settings_ == nullptr) {
    return;
  }
  std::ranges::reverse(*words);  // CLI11 takes them from the back.
  options_.parse(*words);
  *words = options_.count("-V") > 0 ? std::vector<std::string>{"version"} : options_.remaining();
}

Result Parser::take_operation(std::vector<std::string>* words) {
  const bool asks = options_.count("-h") > 0;
  if (asks && words->empty()) {
    command_ = {.operation = find_operation("help"), .text = options_.help()};
    return {};
  }
  std::string name;
  if (Result taken = take_name("", words, &name); !taken.ok()) {
    return taken;
  }
  const bool asks_here = words->empty() ? asks : words->front() == "help";
  if (!asks_here && !names_below(name).empty()) {
    std::string verb;
    if (Result taken = take_name(name, words, &verb); !taken.ok()) {
      return taken;
    }
    name.append(" ").append(verb);
  }
  command_.operation = find_operation(asks || asks_here ? "help" : name);
  if (asks || asks_here) {
    words->clear();
    command_.text = help_on(name);
  } else if (name == "help") {
    command_.text = options_.help() + "\n" + help_on("");
  }
  return {};
}

Result Parser::take_arguments(std::vector<std::string>* words) {
  const Operation& operation = *command_.operation;
  if (settings_ == nullptr && operation.stands_alone) {
    return usage_error("not in a batch");
  }
  std::unique_ptr<CLI::App>& app = arguments_[&operation];
  if (app == nullptr) {
    app = arguments_of(operation, &command_);
  }
  try {
    std::ranges::reverse(*words);
    app->parse(*words);
  } catch (const CLI::CallForHelp&) {  // in a batch
    command_ = {.operation = find_operation("help"), .text = app->help()};
  } catch (const CLI::ParseError&) {
    const std::vector<std::string> strangers = app->remaining();
    if (strangers.empty()) {
      throw;
    }
    const bool is_option = settings_ == nullptr && strangers.front().starts_with('-');
    return usage_error("not understood: " + CLI::detail::join(strangers, " ") +
                       (is_option ? "; options of datapathctl stand on its command line" : ""));
  }
  return settings_ != nullptr ? check(*settings_, operation) : Result{};
}

}  // namespace datapathctl
