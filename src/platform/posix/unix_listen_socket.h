// The listening side of a pipe on POSIX: a non-blocking Unix stream socket bound to
// "<run dir>/<name>", mode 0666, and an eventfd that Shutdown makes readable for good, so that a
// poll waiting on both wakes, and every later one returns at once. PipeReadLoop listens with both;
// the local server with the socket alone, and the pipe clients find the socket by PipeAddress.
#pragma once

#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "platform/errors.h"
#include "platform/posix/errno_map.h"
#include "platform/posix/run_dir.h"

namespace orlenda::platform {

// The socket address of the pipe `name`; kErrorInvalidParameter when its path is too long.
inline uint32_t PipeAddress(const char16_t* name, sockaddr_un* address) {
  char path[kRunPathBytes];
  uint32_t error = RunDirPath(name, path, sizeof(path));
  if (error != kErrorSuccess) return error;
  std::size_t length = std::strlen(path);
  if (length >= sizeof(address->sun_path)) return kErrorInvalidParameter;
  std::memset(address, 0, sizeof(*address));
  address->sun_family = AF_UNIX;
  std::memcpy(address->sun_path, path, length + 1);
  return kErrorSuccess;
}

class UnixListenSocket {
 public:
  UnixListenSocket() = default;
  ~UnixListenSocket() {
    RemoveFile();
    Close();
  }
  UnixListenSocket(const UnixListenSocket&) = delete;
  UnixListenSocket& operator=(const UnixListenSocket&) = delete;

  int fd() const { return fd_; }

  // Binds and listens. A file left behind by a listener that died would make bind fail, and this
  // name is ours to serve, so a stale file of the name is replaced; the run directory is created
  // when missing.
  uint32_t Open(const char16_t* name) {
    uint32_t error = PipeAddress(name, &address_);
    if (error != kErrorSuccess) return error;
    error = CreateRunDirectory();
    if (error != kErrorSuccess) return error;
    if (unlink(address_.sun_path) != 0 && errno != ENOENT) return LastErrno();
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return LastErrno();
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address_), sizeof(address_)) != 0) {
      error = LastErrno();
      close(fd);
      return error;
    }
    // Every local user may connect, as any user may open the Windows pipe.
    struct stat info;
    if (chmod(address_.sun_path, 0666) != 0 || stat(address_.sun_path, &info) != 0 ||
        listen(fd, SOMAXCONN) != 0) {
      error = LastErrno();
      unlink(address_.sun_path);  // bound just now: the file is ours whatever its state
      close(fd);
      return error;
    }
    fd_ = fd;
    device_ = info.st_dev;
    inode_ = info.st_ino;
    return kErrorSuccess;
  }

  // Removes the socket file as this listener created it, not one a newer listener of the same name
  // has put in its place. New clients then find no pipe.
  void RemoveFile() {
    if (fd_ < 0) return;
    struct stat info;
    if (stat(address_.sun_path, &info) == 0 && info.st_dev == device_ && info.st_ino == inode_) {
      unlink(address_.sun_path);
    }
  }

  void Close() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }

 private:
  int fd_ = -1;
  sockaddr_un address_{};
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

class UnixListener {
 public:
  UnixListener() = default;
  ~UnixListener() {
    if (wake_fd_ >= 0) close(wake_fd_);
  }
  UnixListener(const UnixListener&) = delete;
  UnixListener& operator=(const UnixListener&) = delete;

  uint32_t Open(const char16_t* name) {
    wake_fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    return wake_fd_ < 0 ? LastErrno() : socket_.Open(name);
  }

  // The name goes first, so that new clients find no pipe rather than a listener that is leaving.
  void Shutdown() {
    socket_.RemoveFile();
    shut_down_.store(true, std::memory_order_release);
    uint64_t one = 1;
    // Never read back: the eventfd stays readable.
    const ssize_t ignored = write(wake_fd_, &one, sizeof(one));
    (void)ignored;
  }

  bool shut_down() const { return shut_down_.load(std::memory_order_acquire); }
  int wake_fd() const { return wake_fd_; }
  UnixListenSocket& socket() { return socket_; }

 private:
  UnixListenSocket socket_;
  int wake_fd_ = -1;
  std::atomic<bool> shut_down_{false};
};

}  // namespace orlenda::platform
