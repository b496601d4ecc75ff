#include "reference_kernel/emulator/unix_socket.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <system_error>

namespace tavik_wlan {
namespace {

[[noreturn]] void fail(int error, const std::string& what) {
  throw std::system_error(error, std::generic_category(), what);
}

[[noreturn]] void fail_to_listen(int error, const std::string& path) {
  fail(error, "cannot listen at " + path);
}

bool is_abstract(const std::string& path) { return path.starts_with('@'); }

/// Applies bind() or connect() to a path. Returns 0 or the errno.
int at_path(int (*use)(int, const sockaddr*, socklen_t), const FileDescriptor& socket,
            const std::string& path) {
  sockaddr_un address{AF_UNIX, {}};
  socklen_t length = sizeof(address);
  if (path.empty()) {
    return EINVAL;
  }
  if (path.size() >= sizeof(address.sun_path)) {
    return ENAMETOOLONG;
  }
  path.copy(address.sun_path, path.size());
  if (is_abstract(path)) {
    // Such an address begins with a NUL, and ends where its length says.
    address.sun_path[0] = '\0';
    length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
  }
  const int result = use(socket.get(), reinterpret_cast<const sockaddr*>(&address), length);
  return result == 0 ? 0 : errno;
}

FileDescriptor open_socket(int flags) {
  return FileDescriptor(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | flags, 0));
}

/// Whether a socket's file is there, but nobody who listens at it.
bool is_stale(const std::string& path) {
  struct stat file {};
  return lstat(path.c_str(), &file) == 0 && S_ISSOCK(file.st_mode) &&
         at_path(connect, open_socket(SOCK_NONBLOCK), path) == ECONNREFUSED;
}

/// Keeps others from listening at the paths of a folder, or from ceasing to, while it is open.
FileDescriptor lock_folder(const std::string& path) {
  if (is_abstract(path)) {
    return FileDescriptor(-1);  // The kernel gives such an address to one at a time.
  }
  const std::string folder = std::filesystem::path(path).parent_path();
  FileDescriptor lock(open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_CLOEXEC));
  flock(lock.get(), LOCK_EX);
  return lock;
}

}  // namespace

FileDescriptor::~FileDescriptor() {
  if (is_open()) {
    close(fd_);
  }
}

Listener::Listener(std::string path) : path_(std::move(path)), socket_(open_socket(SOCK_NONBLOCK)) {
  const FileDescriptor lock = lock_folder(path_);
  // The file gets the socket's mode.
  if (!socket_.is_open() || fchmod(fd(), S_IRUSR | S_IWUSR) == -1) {
    fail_to_listen(errno, path_);
  }
  int error = at_path(bind, socket_, path_);
  if (error == EADDRINUSE && !is_abstract(path_) && is_stale(path_)) {
    unlink(path_.c_str());
    error = at_path(bind, socket_, path_);
  }
  if (error != 0) {
    fail_to_listen(error, path_);
  }
  if (!is_abstract(path_)) {
    lstat(path_.c_str(), &file_);
  }
  if (listen(fd(), SOMAXCONN) == -1) {
    fail_to_listen(errno, path_);
  }
}

Listener::~Listener() {
  const FileDescriptor lock = lock_folder(path_);
  struct stat file {};
  if (lstat(path_.c_str(), &file) == 0 && file.st_dev == file_.st_dev &&
      file.st_ino == file_.st_ino) {
    unlink(path_.c_str());
  }
}

FileDescriptor Listener::accept() const {
  FileDescriptor client(accept4(fd(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
  if (client.is_open() && is_abstract(path_)) {
    const uid_t user = peer_of(client).uid;
    if (user != geteuid() && user != 0) {  // A file's mode would settle this.
      errno = EPERM;
      return FileDescriptor(-1);
    }
  }
  return client;
}

ucred peer_of(const FileDescriptor& connection) {
  ucred peer{.pid = 0, .uid = static_cast<uid_t>(-1), .gid = static_cast<gid_t>(-1)};
  socklen_t size = sizeof(peer);
  getsockopt(connection.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size);
  return peer;
}

FileDescriptor connect_to(const std::string& path, std::chrono::milliseconds patience) {
  FileDescriptor connection = open_socket(0);
  const timeval limit{static_cast<time_t>(patience.count() / 1000),
                      static_cast<suseconds_t>(patience.count() % 1000 * 1000)};
  setsockopt(connection.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
  setsockopt(connection.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
  if (const int error = at_path(connect, connection, path); error != 0) {
    fail(error, "cannot connect to " + path);
  }
  return connection;
}

}  // namespace tavik_wlan
