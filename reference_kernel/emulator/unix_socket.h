// Sockets of AF_UNIX and of type SOCK_SEQPACKET, and who may have them.
#pragma once

#include <sys/socket.h>
#include <sys/stat.h>

#include <chrono>
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

// A path that begins with '@' is an abstract address, which has no file.

/// A listening socket, non-blocking and close-on-exec, and its file, which only its user may
/// connect to. At an abstract address clients of other users than the process's own and root are
/// turned away.
class Listener {
 public:
  /// Replaces the file of a socket nobody listens at. Throws std::system_error, with EADDRINUSE
  /// when there is another file.
  explicit Listener(std::string path);
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;
  /// Removes the file, unless another has taken its place.
  ~Listener();

  /// The next waiting connection, non-blocking and close-on-exec; not open, with errno, when none
  /// can be had.
  [[nodiscard]] FileDescriptor accept() const;

  [[nodiscard]] int fd() const { return socket_.get(); }

 private:
  const std::string path_;
  FileDescriptor socket_;
  struct stat file_ {};  // all zero: none
};

/// The process that opened a connection; its pid is 0 when it is not known here.
ucred peer_of(const FileDescriptor& connection);

/// A connection, close-on-exec, to the listener at a path. To connect, send and receive end with
/// EAGAIN when they have waited for as long as the patience. Throws std::system_error.
FileDescriptor connect_to(const std::string& path, std::chrono::milliseconds patience);

}  // namespace tavik_wlan
