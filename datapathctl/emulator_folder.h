// Where the emulator of this process has its sockets.
#ifndef DATAPATHCTL_EMULATOR_FOLDER_H_
#define DATAPATHCTL_EMULATOR_FOLDER_H_

#include <string>

namespace datapathctl {

/// A folder of its own under the one for temporary files, with room for one emulator. It is removed
/// when this ends, and also when SIGHUP, SIGINT or SIGTERM ends the process. One at a time in a
/// process.
class EmulatorFolder {
 public:
  /// Throws std::system_error when the folder can't be made.
  EmulatorFolder();
  EmulatorFolder(const EmulatorFolder&) = delete;
  EmulatorFolder& operator=(const EmulatorFolder&) = delete;
  ~EmulatorFolder();

  /// Where the emulator is to serve.
  [[nodiscard]] static std::string socket_path();
};

}  // namespace datapathctl

#endif  // DATAPATHCTL_EMULATOR_FOLDER_H_
