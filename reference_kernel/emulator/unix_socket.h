// Listening sockets of AF_UNIX, and who may have them.
#ifndef REFERENCE_KERNEL_EMULATOR_UNIX_SOCKET_H_
#define REFERENCE_KERNEL_EMULATOR_UNIX_SOCKET_H_

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <utility>

namespace tavik_wlan {

/// Owns a file descriptor.
class FileDescriptor {
 public:
  /// -1: none.
  explicit FileDescriptor(int fd) : fd_(fd) {}
  FileDescriptor(FileDescriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  ~FileDescriptor();

  [[nodiscard]] int get() const { return fd_; }
  [[nodiscard]] bool is_open() const { return fd_ != -1; }

 private:
  int fd_;
};

/// A file that this process made at a path. It is removed in the end, unless another has taken its
/// place.
class OwnFile {
 public:
  /// Throws std::system_error when there is no file.
  explicit OwnFile(std::string path);
  OwnFile(const OwnFile&) = delete;
  OwnFile& operator=(const OwnFile&) = delete;
  ~OwnFile();

 private:
  std::string path_;
  dev_t device_;
  ino_t inode_;
};

/// The right to listen at a path, which one at a time has: a lock on the file at the path with
/// ".lock" added. A process that dies leaves the file, but not the lock. An abstract address needs
/// no file.
class PathLock {
 public:
  /// Throws std::system_error, with EADDRINUSE when another has the right or when the file isn't
  /// one of these.
  explicit PathLock(const std::string& path);

 private:
  FileDescriptor lock_{-1};
  std::optional<OwnFile> file_;
};

/// A listening socket, non-blocking and close-on-exec, and its file, which only its user may
/// connect to. A path that begins with '@' is an abstract address, which has no file: there clients
/// of other users than the process's own and root are turned away.
class Listener {
 public:
  /// Listens at `path`, to which the caller has the right; `type` is SOCK_SEQPACKET or SOCK_STREAM.
  /// Replaces the file of a socket nobody listens at. Throws std::system_error, with EADDRINUSE
  /// when there is another file.
  Listener(const std::string& path, int type);

  /// The next waiting connection, non-blocking and close-on-exec; not open, with errno, when none
  /// can be had.
  [[nodiscard]] FileDescriptor accept() const;

  [[nodiscard]] int fd() const { return socket_.get(); }

 private:
  FileDescriptor socket_;
  bool is_abstract_;
  std::optional<OwnFile> file_;
};

/// Reads to its end what a Listener of type SOCK_STREAM gives at a path. Throws std::system_error,
/// with ETIMEDOUT when nothing comes for as long as the reader's patience.
std::string read_stream(const std::string& path, std::chrono::milliseconds patience);

}  // namespace tavik_wlan

#endif  // REFERENCE_KERNEL_EMULATOR_UNIX_SOCKET_H_
