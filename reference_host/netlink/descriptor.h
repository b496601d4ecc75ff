// A descriptor that the library keeps from one call of its host to the next.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace corvil::netlink {

/// A daemon may close every descriptor of its process, this one included, and then open files of
/// its own that get the same number. Device and inode tell what was opened here from such a file,
/// which is left alone. The destructor closes nothing.
class Descriptor {
 public:
  /// Holds `fd`, the result of a system call that opens one, in place of the descriptor held so
  /// far, which is closed. Returns 0, or that call's errno when it failed.
  [[nodiscard]] int adopt(int fd) {
    if (fd == -1) {
      return errno;
    }
    close();
    number_ = fd;
    return fstat(fd, &opened_) == 0 ? 0 : errno;
  }

  /// Whether the number still refers to what was adopted.
  [[nodiscard]] bool is_open() const {
    struct stat status {};
    return number_ != -1 && fstat(number_, &status) == 0 && status.st_dev == opened_.st_dev &&
           status.st_ino == opened_.st_ino;
  }

  void close() {
    if (is_open()) {
      ::close(number_);
    }
    number_ = -1;
  }

  [[nodiscard]] int number() const { return number_; }

 private:
  int number_ = -1;
  struct stat opened_ {};
};

}  // namespace corvil::netlink
