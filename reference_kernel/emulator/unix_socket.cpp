#include "reference_kernel/emulator/unix_socket.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace tavik_wlan {
namespace {

[[noreturn]] void fail(int error, const std::string& path) {
  throw std::system_error(error, std::generic_category(), "cannot listen at " + path);
}

sockaddr_un make_address(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty()) {
    fail(EINVAL, "an empty path");
  }
  if (path.size() >= sizeof(address.sun_path)) {
    fail(ENAMETOOLONG, path);
  }
  path.copy(address.sun_path, path.size());
  return address;
}

FileDescriptor open_socket(int type) {
  return FileDescriptor(socket(AF_UNIX, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
}

const sockaddr* generic(const sockaddr_un& address) {
  return reinterpret_cast<const sockaddr*>(&address);
}

/// Whether a socket's file is there, but nobody who listens at it.
bool is_stale(const sockaddr_un& address, int type) {
  struct stat file {};
  if (lstat(address.sun_path, &file) != 0 || !S_ISSOCK(file.st_mode)) {
    return false;
  }
  const FileDescriptor probe = open_socket(type);
  return probe.is_open() && connect(probe.get(), generic(address), sizeof(address)) == -1 &&
         errno == ECONNREFUSED;
}

}  // namespace

FileDescriptor::~FileDescriptor() {
  if (is_open()) {
    close(fd_);
  }
}

OwnFile::OwnFile(std::string path) : path_(std::move(path)) {
  struct stat file {};
  if (lstat(path_.c_str(), &file) == -1) {
    fail(errno, path_);
  }
  device_ = file.st_dev;
  inode_ = file.st_ino;
}

OwnFile::~OwnFile() {
  struct stat file {};
  if (lstat(path_.c_str(), &file) == 0 && file.st_dev == device_ && file.st_ino == inode_) {
    unlink(path_.c_str());
  }
}

PathLock::PathLock(const std::string& path)
    : lock_(open((path + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW,
                 S_IRUSR | S_IWUSR)) {
  if (!lock_.is_open()) {
    fail(errno, path);
  }
  struct stat file {};
  // Whoever had the lock until now has removed the file.
  if (flock(lock_.get(), LOCK_EX | LOCK_NB) == -1 || fstat(lock_.get(), &file) == -1 ||
      file.st_nlink == 0 || file.st_size > 0) {
    fail(EADDRINUSE, path);
  }
  file_.emplace(path + ".lock");
}

Listener::Listener(const std::string& path, int type) : socket_(open_socket(type)) {
  const sockaddr_un address = make_address(path);
  // The file gets the socket's mode.
  if (!socket_.is_open() || fchmod(fd(), S_IRUSR | S_IWUSR) == -1) {
    fail(errno, path);
  }
  const auto bind_socket = [&] {
    return bind(fd(), generic(address), sizeof(address)) == 0 ? 0 : errno;
  };
  int error = bind_socket();
  if (error == EADDRINUSE && is_stale(address, type)) {
    unlink(path.c_str());
    error = bind_socket();
  }
  if (error != 0) {
    fail(error, path);
  }
  file_.emplace(path);
  if (listen(fd(), SOMAXCONN) == -1) {
    fail(errno, path);
  }
}

FileDescriptor Listener::accept() const {
  return FileDescriptor(accept4(fd(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
}

}  // namespace tavik_wlan
