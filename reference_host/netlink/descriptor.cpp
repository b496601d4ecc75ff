#include "reference_host/netlink/descriptor.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace corvil::netlink {

int Descriptor::adopt(int fd) {
  const int error = errno;
  close();
  struct stat status {};
  if (fd == -1) {
    return error;
  }
  if (fstat(fd, &status) == -1) {
    const int stat_error = errno;
    ::close(fd);
    return stat_error;
  }
  number_ = fd;
  device_ = status.st_dev;
  inode_ = status.st_ino;
  return 0;
}

bool Descriptor::is_open() const {
  struct stat status {};
  return number_ != -1 && fstat(number_, &status) == 0 && status.st_dev == device_ &&
         status.st_ino == inode_;
}

void Descriptor::close() {
  if (is_open()) {
    ::close(number_);
  }
  number_ = -1;
}

}  // namespace corvil::netlink
