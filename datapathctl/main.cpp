// datapathctl: a host process of the data-path library for a person at a terminal.

#include <fcntl.h>
#include <unistd.h>

#include <clocale>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include "datapathctl/operations.h"
#include "datapathctl/parser.h"

namespace datapathctl {
namespace {

/// Prints what went wrong; returns the exit status.
int complain(const Result& result) {
  std::cout.flush();
  std::cerr << "datapathctl: " << printable(result.error) << "\n";
  if (!result.hint.empty()) {
    std::cerr << "datapathctl: hint: " << printable(result.hint) << "\n";
  }
  return result.status;
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

int run_command_line(int argc, char** argv) {
  Settings settings;
  Command command;
  Result result = Parser(&settings).parse({argv + (argc > 0 ? 1 : 0), argv + argc}, &command);
  Session session(settings);
  if (result.ok()) {
    result = run(session, command);
  }
  const int status = result.ok() ? 0 : complain(result);
  // The library writes its log to stdout, beside std::cout.
  return std::cout.flush() && std::ferror(stdout) == 0
             ? status
             : complain(failure("cannot write the output"));
}

}  // namespace
}  // namespace datapathctl

int main(int argc, char** argv) {
  datapathctl::hold_closed_descriptors();
  std::signal(SIGPIPE, SIG_IGN);  // A closed output shows in std::cout instead.
  std::setlocale(LC_CTYPE, "");   // for printable()
  try {
    return datapathctl::run_command_line(argc, argv);
  } catch (...) {  // Nothing but want of memory comes so far.
    return 2;
  }
}
