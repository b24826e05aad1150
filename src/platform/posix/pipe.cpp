// Pipe clients on POSIX: Unix stream sockets in the run directory, connected to the listening
// socket of a PipeReadLoop or a LocalServer.
#include "platform/pipe.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>

#include "platform/errors.h"
#include "platform/posix/errno_map.h"
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

void PipeStream::Close() {
  if (!is_open()) return;
  close(static_cast<int>(handle_));
  handle_ = kClosed;
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

}  // namespace orlenda::platform
