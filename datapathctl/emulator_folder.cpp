#include "datapathctl/emulator_folder.h"

#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace datapathctl {
namespace {

// What the handler removes, as arrays: it may neither allocate nor format.
char folder[PATH_MAX];
char socket_file[PATH_MAX + 16];
char state_file[PATH_MAX + 16];
char lock_file[PATH_MAX + 16];

void remove_folder() {
  unlink(socket_file);
  unlink(state_file);
  unlink(lock_file);
  rmdir(folder);
}

/// Ends the process by the signal after all, which has its default handling again.
void remove_and_end(int signal) {
  remove_folder();
  raise(signal);
}

void handle_signals() {
  struct sigaction action {};
  action.sa_handler = remove_and_end;
  action.sa_flags = static_cast<int>(SA_RESETHAND);
  for (const int signal : {SIGHUP, SIGINT, SIGTERM}) {
    struct sigaction before {};
    sigaction(signal, nullptr, &before);
    if (before.sa_handler == SIG_DFL) {  // an ignored one stays so, as nohup wants it
      sigaction(signal, &action, nullptr);
    }
  }
}

}  // namespace

EmulatorFolder::EmulatorFolder() {
  const auto wanted = std::filesystem::temp_directory_path() / "datapathctl.XXXXXX";
  snprintf(folder, sizeof(folder), "%s", wanted.c_str());
  handle_signals();
  if (mkdtemp(folder) == nullptr) {
    throw std::system_error(errno, std::generic_category(), "cannot create " + wanted.string());
  }
  snprintf(socket_file, sizeof(socket_file), "%s/kernel", folder);
  snprintf(state_file, sizeof(state_file), "%s/kernel.state", folder);
  snprintf(lock_file, sizeof(lock_file), "%s/kernel.lock", folder);
}

EmulatorFolder::~EmulatorFolder() { remove_folder(); }

std::string EmulatorFolder::socket_path() { return socket_file; }

}  // namespace datapathctl
