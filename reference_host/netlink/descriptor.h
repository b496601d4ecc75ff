// A descriptor that the library keeps from one call of its host to the next.
#ifndef REFERENCE_HOST_NETLINK_DESCRIPTOR_H_
#define REFERENCE_HOST_NETLINK_DESCRIPTOR_H_

#include <sys/types.h>

namespace corvil::netlink {

/// A daemon may close all descriptors, those that it doesn't know among them, and then open files
/// of its own under the same numbers. So what was opened is recognised by its device and inode, and
/// whatever else has the number is left alone. Its destruction closes nothing.
class Descriptor {
 public:
  /// Takes over what a system call has just opened, in place of the one before, which is closed.
  /// Returns 0, or errno when that call failed.
  [[nodiscard]] int adopt(int fd);

  /// Whether the number still stands for what was adopted.
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
