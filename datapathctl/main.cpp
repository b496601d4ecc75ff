// datapathctl: a host process of the data-path library for a person at a terminal.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <exception>
#include <fstream>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

#include "datapathctl/commands.h"
#include "datapathctl/completion.h"
#include "datapathctl/line_printer.h"
#include "datapathctl/misbehaviour.h"
#include "datapathctl/session.h"
#include "datapathctl/usage.h"
#include "datapathctl/values.h"

namespace datapathctl {
namespace {

constexpr int kDone = 0;
constexpr int kUsage = 1;
constexpr int kFailed = 2;

constexpr std::string_view kBlanks = " \t\r";

int complain(std::string_view what, int status, std::string_view hint = "") {
  std::cout.flush();
  std::cerr << "datapathctl: " << printable(what) << "\n";
  if (!hint.empty()) {
    std::cerr << "datapathctl: hint: " << printable(hint) << "\n";
  }
  return status;
}

/// Runs a step, with its errors as one line, a hint perhaps after it, and an exit status; `place`
/// stands before the line.
template <typename Step>
int run(const std::string& place, Step step) {
  try {
    step();
    return kDone;
  } catch (const CLI::Success&) {
    throw;  // help was asked for
  } catch (const CLI::ParseError& error) {
    return complain(place + error.what(), kUsage);
  } catch (const UsageError& error) {
    return complain(place + error.what(), kUsage);
  } catch (const CallFailed& error) {
    return complain(place + error.what(), kFailed, error.hint());
  } catch (const std::exception& error) {
    return complain(place + error.what(), kFailed);
  }
}

/// Parses and so runs a command; words that no command has are named.
template <typename... Arguments>
void parse(CLI::App& app, Arguments... arguments) {
  try {
    app.parse(arguments...);
  } catch (const CLI::Success&) {
    throw;
  } catch (const CLI::ParseError&) {
    const std::vector<std::string> strangers = app.remaining(true);
    if (strangers.empty()) {
      throw;
    }
    throw UsageError("not understood: " + CLI::detail::join(strangers, " "));
  }
}

/// The words of a line: blanks part them, except between quotes, single or double.
std::vector<std::string> words_of(std::string_view line) {
  std::vector<std::string> words;
  bool in_word = false;  // perhaps in one that is empty so far
  char quote = '\0';
  for (const char c : line) {
    if (c == '\0') {
      throw UsageError("a NUL byte is in the line");
    }
    if (quote == '\0' && kBlanks.find(c) != std::string_view::npos) {
      in_word = false;
      continue;
    }
    if (!in_word) {
      words.emplace_back();
      in_word = true;
    }
    if (quote == '\0' && (c == '"' || c == '\'')) {
      quote = c;
    } else if (c == quote) {
      quote = '\0';
    } else {
      words.back() += c;
    }
  }
  if (quote != '\0') {
    throw UsageError("unclosed quote");
  }
  return words;
}

/// Runs commands, one a line, up to the first that fails; empty lines and those of '#' are skipped.
int run_batch(std::istream& input, const std::string& name, Session& session) {
  int number = 0;
  for (std::string line; std::getline(input, line);) {
    ++number;
    const size_t start = line.find_first_not_of(kBlanks);
    if (start == std::string::npos || line[start] == '#') {
      continue;
    }
    CLI::App app;
    app.set_help_flag();
    app.require_subcommand(1);
    define_commands(app, session);
    const Settings& settings = session.settings();
    if ((settings.trace || settings.dry_run) && !settings.json) {
      std::cout << "# " << printable(line.substr(start)) << std::endl;
    }
    const int status = run(name + ":" + std::to_string(number) + ": ", [&] {
      std::vector<std::string> words = words_of(line);
      std::ranges::reverse(words);  // as the parser wants them
      parse(app, words);
    });
    if (status != kDone) {
      return status;
    }
  }
  return kDone;
}

int run_batch_file(const std::string& path, Session& session) {
  if (path == "-") {
    const int status = run_batch(std::cin, "standard input", session);
    if (std::ferror(stdin) != 0) {
      throw UsageError("cannot read the batch from standard input");
    }
    return status;
  }
  std::ifstream file(path);
  const int status = run_batch(file, path, session);
  // A folder opens, but does not read.
  if (!file.is_open() || file.bad()) {
    throw UsageError("cannot read the batch " + path);
  }
  return status;
}

/// Serves an emulated kernel until SIGINT or SIGTERM.
void serve_emulator(const std::string& path, const Settings& settings) {
  sigset_t ends;
  sigemptyset(&ends);
  sigaddset(&ends, SIGINT);
  sigaddset(&ends, SIGTERM);
  // Before other threads start, so that they inherit the mask.
  pthread_sigmask(SIG_BLOCK, &ends, nullptr);
  LinePrinter printer;
  {
    tavik_wlan::Emulator emulator(path,
                                  [&](std::string_view line) { printer.print(printable(line)); });
    emulator.inject(parse_misbehaviour(settings.misbehaviour));
    printer.print("serving TAVIK_WLAN at " + printable(path));
    int signal = 0;
    sigwait(&ends, &signal);
  }
  if (!printer.finish()) {
    throw CallFailed("cannot write the output");
  }
}

/// Why a path can't be one; empty for others. The settings know an empty one as none at all.
std::string empty_path(const std::string& path) { return path.empty() ? "the path is empty" : ""; }

void define_options(CLI::App& app, Settings& settings) {
  app.set_version_flag("--version", "datapathctl " CORVIL_VERSION);
  app.add_option("--library", settings.library,
                 "the library to load; default: the one beside this program, or the installed one")
      ->type_name("PATH")
      ->check(empty_path);
  auto* emulate = app.add_flag("--emulate", settings.emulate, "run an emulated kernel inside");
  app.add_option("--socket", settings.socket, "talk to the emulator that is serving there")
      ->type_name("PATH")
      ->check(empty_path)
      ->excludes(emulate);
  app.add_option(
         "--misbehave", settings.misbehaviour,
         "have the emulated kernel misbehave, repeatable; the command 'help' lists the words")
      ->type_name("WORD")
      ->allow_extra_args(false);
  app.add_option_function<std::string>(
         "--timeout",
         [&settings](const std::string& text) {
           settings.timeout_ms = parse_number(text, 3600000, "timeout", 1);
         },
         "how long the kernel may take to answer")
      ->type_name("MS");
  app.add_flag("--trace", settings.trace, "print every netlink message, decoded");
  app.add_flag("--dry-run", settings.dry_run,
               "only print the netlink requests, decoded, as if each succeeded; family id and "
               "sequence number, not known then, stand as 65535 and 0");
  app.add_flag("--hex", settings.hex, "with --trace or --dry-run, print the bytes too");
  app.add_option("--pcap", settings.pcap, "capture every netlink message there, for Wireshark")
      ->type_name("FILE")
      ->check(empty_path);
  app.add_flag("--json", settings.json,
               "print results, state and trace as JSON, one object a line");
  app.add_option("--log-file", settings.log_file, "append the library's log there; -: print it")
      ->type_name("PATH")
      ->check(empty_path);
  app.add_flag("--log-diag", settings.log_diagnostic, "print the diagnostic sink on stderr");
  app.add_flag("--log-android", settings.log_android, "switch the Android log on (here: stderr)");
}

/// Prints all that may be written.
void print_help(const CLI::App& app, bool json) {
  const struct {
    const char* key;
    const char* title;
    std::vector<Usage> usages;
  } sections[] = {
      {"options", "Options, before the command", option_usages(app)},
      {"commands", "Commands", command_usages(app)},
      {"misbehaviours", "Words of --misbehave", misbehaviour_usages()},
  };
  nlohmann::ordered_json object;
  std::string text;
  for (const auto& [key, title, usages] : sections) {
    for (const Usage& usage : usages) {
      object[key].push_back({{"form", usage.form}, {"help", usage.help}});
    }
    text += std::string(text.empty() ? "" : "\n") + title + ":\n" + to_text(usages);
  }
  if (json) {
    print_json(object);
  } else {
    std::cout << text;
  }
}

int run_command_line(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);  // a closed output shows in std::cout instead
  Settings settings;
  Session session(settings);
  CLI::App app("Drives the data-path library as its host, one command or a batch of them.",
               "datapathctl");
  app.require_subcommand(1);
  define_options(app, settings);
  define_commands(app, session);

  int status = kDone;
  std::string file;
  CLI::App* batch = app.add_subcommand("batch", "run the commands of a file, one a line");
  batch->add_option("FILE", file, "the file; -: standard input")->required();
  batch->callback([&] { status = run_batch_file(file, session); });

  std::string path;
  CLI::App* emulator =
      app.add_subcommand("emulator", "serve an emulated kernel until SIGINT or SIGTERM");
  emulator->add_option("PATH", path, "the socket to serve at")->required();
  emulator->excludes(app.get_option("--dry-run"));
  emulator->callback([&] { serve_emulator(path, settings); });

  app.add_subcommand("help", "print all options, commands and words of --misbehave")->callback([&] {
    print_help(app, settings.json);
  });

  std::vector<std::string> words;
  CLI::App* completion = app.add_subcommand("complete", "complete a command line, for a shell");
  completion->group("");  // hidden: for the scripts in datapathctl/completion
  completion->add_option("WORDS", words);
  completion->callback([&] {
    for (const std::string& line : complete(app, words)) {
      std::cout << line << "\n";
    }
  });

  app.footer("Commands:\n" + to_text(command_usages(app)) +
             "\nExit status: 0 done, 1 bad usage or input, 2 refused by the kernel or failed.\n"
             "Without --emulate or --socket the commands reach the kernel of this machine.");

  try {
    const int run_status = run("", [&] { parse(app, argc, argv); });
    status = run_status != kDone ? run_status : status;
  } catch (const CLI::Success& success) {
    status = app.exit(success);
  }
  // The library writes its log to stdout, beside std::cout.
  if (!std::cout.flush() || std::ferror(stdout) != 0) {
    return complain("cannot write the output", kFailed);
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

}  // namespace
}  // namespace datapathctl

int main(int argc, char** argv) {
  datapathctl::hold_closed_descriptors();
  std::setlocale(LC_CTYPE, "");  // for printable()
  try {
    return datapathctl::run_command_line(argc, argv);
  } catch (...) {  // nothing but want of memory comes so far
    return datapathctl::kFailed;
  }
}
