// Pipes on POSIX: Unix stream sockets in the run directory. The listener's Accept polls the socket
// together with an eventfd that Shutdown makes readable for good, so a waiting Accept wakes and every
// later one returns at once.
#include "platform/pipe.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <new>

#include "platform/errors.h"
#include "platform/heap.h"
#include "platform/posix/errno_map.h"
#include "platform/posix/run_dir.h"
#include "platform/posix/unix_listen_socket.h"
#include "platform/sync.h"
#include "platform/thread.h"

namespace orlenda::platform {
namespace {

constexpr uint32_t kExistencePollMs = 10;

}  // namespace

uint32_t PipeStream::Write(const void* data, uint32_t size, uint32_t* written) {
  *written = 0;
  if (!is_open()) return kErrorInvalidHandle;
  for (;;) {
    // MSG_NOSIGNAL: a reader that went away is an error to return, not a SIGPIPE that ends us.
    ssize_t sent = send(static_cast<int>(handle_), data, size, MSG_NOSIGNAL);
    if (sent >= 0) {
      *written = static_cast<uint32_t>(sent);
      return kErrorSuccess;
    }
    if (errno != EINTR) return LastErrno();
  }
}

uint32_t PipeStream::Read(void* buffer, uint32_t size, uint32_t* got) {
  *got = 0;
  if (!is_open()) return kErrorInvalidHandle;
  for (;;) {
    ssize_t received = recv(static_cast<int>(handle_), buffer, size, 0);
    if (received >= 0) {
      *got = static_cast<uint32_t>(received);
      return kErrorSuccess;
    }
    if (errno == ECONNRESET) return kErrorSuccess;  // the other end went away: end of stream
    if (errno != EINTR) return LastErrno();
  }
}

void PipeStream::Close() {
  if (!is_open()) return;
  close(static_cast<int>(handle_));
  handle_ = kClosed;
  server_side_ = false;
}

uint32_t PipeStream::Open(const char16_t* name, bool /*read_access*/) {
  Close();
  sockaddr_un address;
  uint32_t error = PipeAddress(name, &address);
  if (error != kErrorSuccess) return error;
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return LastErrno();
  int result;
  do {
    result = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
  } while (result != 0 && errno == EINTR);
  if (result != 0) {
    // ENOENT / ECONNREFUSED: no listener. EAGAIN: its backlog is full, the "all instances busy".
    error = LastErrno();
    close(fd);
    return error;
  }
  handle_ = fd;
  server_side_ = false;
  return kErrorSuccess;
}

uint32_t PipeStream::SetReadMode(PipeMode /*mode*/) {
  // A stream socket has one mode; the call only checks that there is a pipe to set it on.
  return is_open() ? kErrorSuccess : kErrorInvalidHandle;
}

uint32_t WaitForPipe(const char16_t* name, uint32_t timeout_ms) {
  sockaddr_un address;
  uint32_t error = PipeAddress(name, &address);
  if (error != kErrorSuccess) return error;
  const uint32_t start = TickCountMs();
  for (;;) {
    struct stat info;
    if (stat(address.sun_path, &info) == 0 && S_ISSOCK(info.st_mode)) return kErrorSuccess;
    uint32_t elapsed = TickCountMs() - start;
    if (timeout_ms != kInfinite && elapsed >= timeout_ms) return kErrorFileNotFound;
    uint32_t rest = timeout_ms == kInfinite ? kExistencePollMs : timeout_ms - elapsed;
    SleepMs(rest < kExistencePollMs ? rest : kExistencePollMs);
  }
}

struct PipeListener::Impl : UnixListener {};

PipeListener::~PipeListener() {
  DeleteHeapObject(impl_);
  impl_ = nullptr;
}

uint32_t PipeListener::Listen(const char16_t* name, PipeMode /*mode*/) {
  if (impl_ != nullptr) return kErrorInvalidParameter;  // one pipe per listener
  Impl* impl = NewHeapObject<Impl>();
  if (impl == nullptr) return kErrorNotEnoughMemory;
  const uint32_t error = impl->Open(name);
  if (error != kErrorSuccess) {
    DeleteHeapObject(impl);
    return error;
  }
  impl_ = impl;
  return kErrorSuccess;
}

uint32_t PipeListener::Accept(PipeStream* client) {
  if (impl_ == nullptr) return kErrorInvalidHandle;
  for (;;) {
    if (impl_->shut_down()) {
      // Clients that connected before the shutdown are still handed out, one per call, so that
      // what they sent is not lost; then the listener is done.
      int fd = accept4(impl_->socket().fd(), nullptr, nullptr, SOCK_CLOEXEC);
      if (fd < 0) return kErrorOperationAborted;
      client->Close();
      client->handle_ = fd;
      client->server_side_ = true;
      return kErrorSuccess;
    }
    pollfd fds[2] = {{impl_->socket().fd(), POLLIN, 0}, {impl_->wake_fd(), POLLIN, 0}};
    int ready = poll(fds, 2, -1);
    if (ready < 0) {
      if (errno == EINTR) continue;
      return LastErrno();
    }
    if (fds[1].revents != 0) continue;  // Shutdown: the flag is already set
    int fd = accept4(impl_->socket().fd(), nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
      // The listening socket is non-blocking: a client that gave up between poll and accept leaves
      // nothing to take, and the wait starts over.
      if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR || errno == ECONNABORTED) {
        continue;
      }
      return LastErrno();
    }
    client->Close();
    client->handle_ = fd;
    client->server_side_ = true;
    return kErrorSuccess;
  }
}

void PipeListener::Shutdown() {
  if (impl_ != nullptr) impl_->Shutdown();
}

}  // namespace orlenda::platform
