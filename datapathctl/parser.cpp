#include "datapathctl/parser.h"

#include <algorithm>
#include <sstream>
#include <utility>

#include "datapathctl/operations.h"
#include "datapathctl/values.h"

namespace datapathctl {
namespace {

/// What the verbs of an object have in common.
constexpr std::pair<const char*, const char*> kObjects[] = {
    {"proxy", "ports, forwarding pair and WLAN device"},
    {"ipsec", "tuples of IPsec flows"},
    {"encap", "UDP port of encapsulated IPsec traffic"},
    {"lowlat", "low-latency flows"},
};

/// Why a path can't be one; empty for others. The settings know an empty one as none at all.
std::string empty_path(const std::string& path) { return path.empty() ? "the path is empty" : ""; }

void define_options(CLI::App& app, Settings& settings) {
  const auto add_path = [&app](const char* name, std::string& path, const char* help) {
    return app.add_option(name, path, help)->type_name("PATH")->check(empty_path);
  };
  app.set_version_flag("--version", "datapathctl " CORVIL_VERSION);
  add_path("--library", settings.library,
           "the library to load; default: the one beside this program, or the installed one");
  auto* emulate = app.add_flag("--emulate", settings.emulate, "run an emulated kernel inside");
  add_path("--socket", settings.socket, "talk to the emulator that is serving there")
      ->excludes(emulate);
  app.add_option_function<std::vector<std::string>>(
         "--misbehave",
         [&settings](const std::vector<std::string>& words) {
           settings.faults = parse_faults(words);
         },
         "have the emulated kernel misbehave, repeatable: " + fault_words())
      ->type_name("WORD")
      ->allow_extra_args(false);
  add_value(app, "--timeout", settings.timeout_ms, parse_timeout,
            "how long the kernel may take to answer")
      ->type_name("MS");
  app.add_flag("--trace", settings.trace, "print every netlink message, decoded");
  app.add_flag("--dry-run", settings.dry_run,
               "only print the netlink requests, decoded, as if each succeeded; family id and "
               "sequence number, not known then, stand as 65535 and 0");
  app.add_flag("--hex", settings.hex, "with --trace or --dry-run, print the bytes too");
  add_path("--pcap", settings.pcap, "capture every netlink message there, for Wireshark")
      ->type_name("FILE");
  app.add_flag("--json", settings.json,
               "print results, state and trace as JSON, one object a line");
  add_path("--log-file", settings.log_file, "append the library's log there; -: print it");
  app.add_flag("--log-diag", settings.log_diagnostic, "print the diagnostic sink on stderr");
  app.add_flag("--log-android", settings.log_android, "switch the Android log on (here: stderr)");
}

/// The help on every command below one.
std::string help_on_commands(const CLI::App& app, const std::string& name) {
  std::string text;
  for (const CLI::App* command : app.get_subcommands({})) {
    text += command->get_subcommands({}).empty()
                ? "\n" + command->help(name)
                : help_on_commands(*command, name + " " + command->get_name());
  }
  return text;
}

}  // namespace

Parser::Parser(Settings* settings)
    : app_("Drives the data-path library as its host, one command or a batch of them.",
           "datapathctl"),
      settings_(settings) {
  app_.require_subcommand(1);
  if (settings == nullptr) {
    app_.set_help_flag();
  } else {
    define_options(app_, *settings);
  }
  for (const auto& [object, help] : kObjects) {
    app_.add_subcommand(object, help)->require_subcommand(1);
  }
  for (const Operation& operation : operations()) {
    if (settings != nullptr || operation.in_batch) {
      add(operation);
    }
  }
  if (settings != nullptr) {
    app_.get_subcommand("emulator")->excludes(app_.get_option("--dry-run"));
    app_.add_subcommand("help", "print the help on everything");
    app_.footer(  // last, since commands would inherit it
        "Exit status: 0 done, 1 bad usage or input, 2 refused by the kernel or failed.\n"
        "Without --emulate or --socket the commands reach the kernel of this machine.");
  }
}

void Parser::add(const Operation& operation) {
  const std::string name = operation.name;
  const size_t blank = name.find(' ');
  CLI::App* verb = blank == std::string::npos
                       ? app_.add_subcommand(name, operation.help)
                       : app_.get_subcommand(name.substr(0, blank))
                             ->add_subcommand(name.substr(blank + 1), operation.help);
  if (operation.add_arguments != nullptr) {
    operation.add_arguments(*verb, command_);
  }
  verb->callback([this, &operation] { command_.operation = &operation; });
}

Result Parser::parse(std::vector<std::string> words, Command* command) {
  command_ = {};
  std::ranges::reverse(words);  // CLI11 takes them from the back.
  try {
    app_.parse(words);
    if (settings_ != nullptr && app_.got_subcommand("help")) {
      command_.text =
          app_.get_formatter()->make_help(&app_, "datapathctl", CLI::AppFormatMode::Normal) +
          help_on_commands(app_, "datapathctl");
    }
  } catch (const CLI::Success& asked) {  // for help, or for the version
    std::ostringstream text;
    app_.exit(asked, text, text);
    command_.text = text.str();
  } catch (const CLI::ParseError& error) {
    const std::vector<std::string> strangers = app_.remaining(true);
    return usage_error(strangers.empty() ? error.what()
                                         : "not understood: " + CLI::detail::join(strangers, " "));
  }
  if (settings_ != nullptr && settings_->json && settings_->log_file == "-") {
    return usage_error("--json excludes --log-file -");
  }
  *command = std::move(command_);
  return {};
}

}  // namespace datapathctl
