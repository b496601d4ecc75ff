// A descriptor that the library keeps from one call of its host to the next.
#ifndef REFERENCE_HOST_NETLINK_DESCRIPTOR_H_
#define REFERENCE_HOST_NETLINK_DESCRIPTOR_H_

#include <sys/types.h>

namespace corvil::netlink {

/// A daemon may close every descriptor of its process, this one included, and then open files of
/// its own that get the same number. Device and inode tell what was opened here from such a file,
/// which is left alone. The destructor closes nothing.
class Descriptor {
 public:
  /// Closes the descriptor held so far and holds `fd`, the result of a system call that opens one.
  /// Returns 0, or that call's errno when it failed.
  [[nodiscard]] int adopt(int fd);

  /// Whether the number still refers to what was adopted.
  [[nodiscard]] bool is_open() const;

  void close();

  [[nodiscard]] int number() const { return number_; }

 private:
  int number_ = -1;
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

}  // namespace corvil::netlink

#endif  // REFERENCE_HOST_NETLINK_DESCRIPTOR_H_
