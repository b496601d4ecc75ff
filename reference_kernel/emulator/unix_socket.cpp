#include "reference_kernel/emulator/unix_socket.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

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

Listener::Listener(const std::string& path, int type) : path_(path), socket_(open_socket(type)) {
  const sockaddr_un address = make_address(path);
  if (!socket_.is_open()) {
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
  if (listen(fd(), SOMAXCONN) == -1) {
    error = errno;
    unlink(path.c_str());
    fail(error, path);
  }
}

Listener::~Listener() { unlink(path_.c_str()); }

FileDescriptor Listener::accept() const {
  return FileDescriptor(accept4(fd(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
}

}  // namespace tavik_wlan
