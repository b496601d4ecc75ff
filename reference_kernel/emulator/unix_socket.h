// Sockets of AF_UNIX.
#ifndef REFERENCE_KERNEL_EMULATOR_UNIX_SOCKET_H_
#define REFERENCE_KERNEL_EMULATOR_UNIX_SOCKET_H_

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

/// A listening socket, non-blocking and close-on-exec, and its file.
class Listener {
 public:
  /// Listens at `path`; `type` is SOCK_SEQPACKET or SOCK_STREAM. Replaces the file of a socket
  /// nobody listens at. Throws std::system_error, with EADDRINUSE when there is another file.
  Listener(const std::string& path, int type);
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;
  /// Removes the file.
  ~Listener();

  /// The next waiting connection, non-blocking and close-on-exec; not open, with errno, when none
  /// can be had.
  [[nodiscard]] FileDescriptor accept() const;

  [[nodiscard]] int fd() const { return socket_.get(); }

 private:
  std::string path_;
  FileDescriptor socket_;
};

}  // namespace tavik_wlan

#endif  // REFERENCE_KERNEL_EMULATOR_UNIX_SOCKET_H_
