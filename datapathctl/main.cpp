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

#include "datapathctl/operations.h"
#include "datapathctl/parser.h"
#include "datapathctl/report.h"
#include "reference_host/netlink/corvil_netlink_control.h"

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

/// Gives standard output to the capture; what is printed goes to standard error instead.
Result capture_to_output() {
  if (corvil_netlink_open_capture("-") == -1) {
    return failure(corvil_netlink_last_error()->message);
  }
  dup2(STDERR_FILENO, STDOUT_FILENO);
  return {};
}

int run_command_line(const std::vector<std::string>& words) {
  Settings settings;
  Command command;
  Result result = Parser(&settings).parse(words, &command);
  if (!result.ok()) {
    // What can't be parsed may have come before.
    settings.json = std::ranges::any_of(
        words, [](const std::string& word) { return word == "-j" || word == "--json"; });
  } else if (settings.pcap == "-" && command.operation->run != run_monitor &&
             command.operation->run != run_decode) {  // They write their own.
    result = capture_to_output();
  }
  Session session(settings);
  if (result.ok()) {
    result = run(session, command);
  }
  report(settings, command, result);
  // The library writes its log to stdout, beside std::cout.
  if (std::cout.flush() && std::ferror(stdout) == 0) {
    return result.status;
  }
  settings.json = false;
  report(settings, {}, failure("cannot write the output"));
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
