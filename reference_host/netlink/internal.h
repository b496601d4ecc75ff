// What the sources of the netlink library share.
#pragma once

#include <linux/netlink.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <span>

#include "reference_host/netlink/corvil_netlink_control.h"

namespace corvil::netlink {

/// How the calling thread's last exchange ended.
extern constinit thread_local CorvilNetlinkError last_error;

/// Records that the exchange itself failed: a positive errno, and a printf text in which %m stands
/// for that errno's text. Returns -1.
int fail(int error, const char* format, ...) __attribute__((__format__(__printf__, 2, 3)));

/// Records an error of the kernel, a positive errno, with what the extended acknowledgement
/// (extack) of its answer says. The answer is an NLMSG_ERROR or NLMSG_DONE, long enough for its
/// type.
void record_kernel_error(int error, const nlmsghdr* answer);

/// The id that every family has in a dry run; 0 when this is none and requests are sent.
uint16_t dry_run_family_id();

/// Shows a request before it is sent, or a datagram that has been received, to the process's trace
/// callback and its capture.
void show(CorvilNetlinkDirection direction, int protocol, std::span<const std::byte> bytes);

/// A descriptor that the library keeps from one call of its host to the next. A daemon may close
/// every descriptor of its process, this one included, and then open files of its own that get the
/// same number. Device and inode tell what was opened here from such a file, which is left alone.
/// The destructor closes nothing.
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
