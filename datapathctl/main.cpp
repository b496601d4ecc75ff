// datapathctl: a host process of the data-path library for a person at a terminal.

#include <algorithm>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include "datapathctl/execution.h"

namespace datapathctl {
namespace {

int run_command_line(const std::vector<std::string>& words) {
  Settings settings;
  // Words that can't be parsed may stand before it.
  settings.json = std::ranges::any_of(
      words, [](const std::string& word) { return word == "-j" || word == "--json"; });
  Session session(settings);
  Parser parser(&settings);
  const int status = execute(session, parser, words);
  // The library writes its log to stdout, beside std::cout.
  if (std::cout.flush() && std::ferror(stdout) == 0) {
    return status;
  }
  std::cerr << "datapathctl: cannot write the output\n";
  return 2;
}

}  // namespace
}  // namespace datapathctl

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);  // A closed output shows in std::cout instead.
  std::setlocale(LC_CTYPE, "");   // for printable()
  try {
    return datapathctl::run_command_line({argv + (argc > 0 ? 1 : 0), argv + argc});
  } catch (...) {  // Nothing but want of memory comes so far.
    return 2;
  }
}
