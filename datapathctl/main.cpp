// datapathctl: a host process of the data-path library for a person at a terminal.

#include <fcntl.h>
#include <unistd.h>

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
  datapathctl::hold_closed_descriptors();
  std::signal(SIGPIPE, SIG_IGN);  // A closed output shows in std::cout instead.
  std::setlocale(LC_CTYPE, "");   // for printable()
  try {
    return datapathctl::run_command_line({argv + (argc > 0 ? 1 : 0), argv + argc});
  } catch (...) {  // Nothing but want of memory comes so far.
    return 2;
  }
}
