#include "reference_kernel/emulator/unix_socket.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <system_error>
#include <utility>

namespace tavik_wlan {
namespace {

[[noreturn]] void fail(int error, const std::string& path) {
  throw std::system_error(error, std::generic_category(), "cannot listen at " + path);
}

struct Address {
  sockaddr_un name{};
  socklen_t length = sizeof(name);
};

bool is_abstract(const std::string& path) { return path.starts_with('@'); }

Address make_address(const std::string& path) {
  Address address;
  address.name.sun_family = AF_UNIX;
  if (path.empty()) {
    fail(EINVAL, "an empty path");
  }
  if (path.size() >= sizeof(address.name.sun_path)) {
    fail(ENAMETOOLONG, path);
  }
  path.copy(address.name.sun_path, path.size());
  if (is_abstract(path)) {
    // Such an address begins with a NUL, and ends where its length says.
    address.name.sun_path[0] = '\0';
    address.length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
  }
  return address;
}

FileDescriptor open_socket(int type) {
  return FileDescriptor(socket(AF_UNIX, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
}

const sockaddr* generic(const Address& address) {
  return reinterpret_cast<const sockaddr*>(&address.name);
}

/// Whether a socket's file is there, but nobody who listens at it.
bool is_stale(const Address& address, int type) {
  struct stat file {};
  if (lstat(address.name.sun_path, &file) != 0 || !S_ISSOCK(file.st_mode)) {
    return false;
  }
  const FileDescriptor probe = open_socket(type);
  return probe.is_open() && connect(probe.get(), generic(address), address.length) == -1 &&
         errno == ECONNREFUSED;
}

/// Whether a client runs as this process's user or as root: what a file's mode would settle.
bool is_trusted(const FileDescriptor& client) {
  ucred peer{};
  socklen_t size = sizeof(peer);
  return getsockopt(client.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 &&
         (peer.uid == geteuid() || peer.uid == 0);
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

PathLock::PathLock(const std::string& path) {
  if (is_abstract(path)) {
    return;  // The kernel gives the name to one at a time, and takes it back.
  }
  lock_ = FileDescriptor(
      open((path + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR));
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

Listener::Listener(const std::string& path, int type)
    : socket_(open_socket(type)), is_abstract_(is_abstract(path)) {
  const Address address = make_address(path);
  // The file gets the socket's mode.
  if (!socket_.is_open() || fchmod(fd(), S_IRUSR | S_IWUSR) == -1) {
    fail(errno, path);
  }
  const auto bind_socket = [&] {
    return bind(fd(), generic(address), address.length) == 0 ? 0 : errno;
  };
  int error = bind_socket();
  if (error == EADDRINUSE && !is_abstract_ && is_stale(address, type)) {
    unlink(path.c_str());
    error = bind_socket();
  }
  if (error != 0) {
    fail(error, path);
  }
  if (!is_abstract_) {
    file_.emplace(path);
  }
  if (listen(fd(), SOMAXCONN) == -1) {
    fail(errno, path);
  }
}

FileDescriptor Listener::accept() const {
  FileDescriptor client(accept4(fd(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
  if (client.is_open() && is_abstract_ && !is_trusted(client)) {
    errno = EPERM;
    return FileDescriptor(-1);
  }
  return client;
}

std::string read_stream(const std::string& path, std::chrono::milliseconds patience) {
  const Address address = make_address(path);
  const FileDescriptor stream(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  // A wait that takes longer, that of connect() too, ends with EAGAIN.
  const timeval limit{patience.count() / 1000, patience.count() % 1000 * 1000};
  setsockopt(stream.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
  setsockopt(stream.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
  std::string text;
  ssize_t length = connect(stream.get(), generic(address), address.length);
  if (length == 0) {
    char buffer[65536];
    while ((length = read(stream.get(), buffer, sizeof(buffer))) > 0) {
      text.append(buffer, static_cast<size_t>(length));
    }
  }
  if (length == -1) {
    throw std::system_error(errno == EAGAIN ? ETIMEDOUT : errno, std::generic_category());
  }
  return text;
}

}  // namespace tavik_wlan
