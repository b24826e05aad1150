#include "platform/socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/posix/errno_map.h"
#include "platform/posix/unix_listen_socket.h"
#include "platform/sync.h"
#include "platform/thread.h"

namespace orlenda::platform {
namespace {

uint32_t MapSocketErrno(int error) {
  switch (error) {
    case EINTR: return kErrorInterrupted;
    case EAGAIN:
#if EWOULDBLOCK != EAGAIN
    case EWOULDBLOCK:
#endif
    case EINPROGRESS:
      return kErrorWouldBlock;
    case EADDRINUSE: return kErrorAddressInUse;
    case ECONNRESET:
    case EPIPE:
      return kErrorConnectionReset;
    case ENOTCONN: return kErrorNotConnected;
    case ETIMEDOUT: return kErrorTimedOut;
    case ECONNREFUSED: return kErrorConnectionRefused;
    default: return MapErrno(error);
  }
}

uint32_t LastSocketErrno() { return MapSocketErrno(errno); }

int Fd(const Socket& socket) { return static_cast<int>(socket.handle()); }

}  // namespace

uint32_t SocketStartup() { return kErrorSuccess; }

void Socket::Close() {
  if (handle_ != kNoSocket) close(static_cast<int>(handle_));
  handle_ = kNoSocket;
}

void Socket::ShutdownBoth() const {
  if (handle_ != kNoSocket) shutdown(static_cast<int>(handle_), SHUT_RDWR);
}

uint32_t OpenTcpSocket(Socket* out) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return LastSocketErrno();
  *out = Socket(static_cast<SocketHandle>(fd));
  return kErrorSuccess;
}

uint32_t SetNonBlocking(const Socket& socket) {
  const int flags = fcntl(Fd(socket), F_GETFL, 0);
  if (flags < 0 || fcntl(Fd(socket), F_SETFL, flags | O_NONBLOCK) != 0) return LastSocketErrno();
  return kErrorSuccess;
}

uint32_t SetNoDelay(const Socket& socket) {
  const int on = 1;
  if (setsockopt(Fd(socket), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on)) != 0) return LastSocketErrno();
  return kErrorSuccess;
}

uint32_t BindIpv4(const Socket& socket, uint32_t address, uint16_t port) {
  const int on = 1;
  setsockopt(Fd(socket), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  sockaddr_in where{};
  where.sin_family = AF_INET;
  where.sin_addr.s_addr = htonl(address);
  where.sin_port = htons(port);
  if (bind(Fd(socket), reinterpret_cast<const sockaddr*>(&where), sizeof(where)) != 0) return LastSocketErrno();
  return kErrorSuccess;
}

uint32_t ListenOn(const Socket& socket) {
  if (listen(Fd(socket), SOMAXCONN) != 0) return LastSocketErrno();
  return kErrorSuccess;
}

uint32_t LocalPort(const Socket& socket, uint16_t* port) {
  sockaddr_in where{};
  socklen_t length = sizeof(where);
  if (getsockname(Fd(socket), reinterpret_cast<sockaddr*>(&where), &length) != 0) return LastSocketErrno();
  *port = ntohs(where.sin_port);
  return kErrorSuccess;
}

uint32_t AcceptClient(const Socket& listener, Socket* client, uint32_t* peer) {
  sockaddr_storage from{};
  socklen_t length = sizeof(from);
  const int fd = accept4(Fd(listener), reinterpret_cast<sockaddr*>(&from), &length, SOCK_CLOEXEC);
  if (fd < 0) return LastSocketErrno();
  *client = Socket(static_cast<SocketHandle>(fd));
  *peer = from.ss_family == AF_INET ? ntohl(reinterpret_cast<const sockaddr_in*>(&from)->sin_addr.s_addr) : 0;
  return kErrorSuccess;
}

uint32_t Receive(const Socket& socket, void* buffer, std::size_t size, std::size_t* got) {
  *got = 0;
  for (;;) {
    const ssize_t n = recv(Fd(socket), buffer, size, 0);
    if (n >= 0) {
      *got = static_cast<std::size_t>(n);
      return kErrorSuccess;
    }
    if (errno != EINTR) return LastSocketErrno();
  }
}

uint32_t SendSome(const Socket& socket, const void* data, std::size_t size, std::size_t* sent) {
  *sent = 0;
  for (;;) {
    const ssize_t n = send(Fd(socket), data, size, MSG_NOSIGNAL);
    if (n >= 0) {
      *sent = static_cast<std::size_t>(n);
      return kErrorSuccess;
    }
    if (errno != EINTR) return LastSocketErrno();
  }
}

uint32_t ConnectTcp(const char* host, uint16_t port, uint32_t timeout_ms, Socket* out, const char* from) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(host, nullptr, &hints, &found) != 0 || found == nullptr) return kErrorHostNotFound;
  sockaddr_in where = *reinterpret_cast<const sockaddr_in*>(found->ai_addr);
  freeaddrinfo(found);
  where.sin_port = htons(port);

  Socket socket;
  uint32_t error = OpenTcpSocket(&socket);
  if (error == kErrorSuccess) error = SetNonBlocking(socket);
  if (error == kErrorSuccess && from != nullptr) {
    in_addr local{};
    if (inet_pton(AF_INET, from, &local) != 1) return kErrorHostNotFound;
    error = BindIpv4(socket, ntohl(local.s_addr), 0);
  }
  if (error != kErrorSuccess) return error;
  if (connect(Fd(socket), reinterpret_cast<const sockaddr*>(&where), sizeof(where)) != 0) {
    if (errno != EINPROGRESS) return LastSocketErrno();
    SocketWait wait{socket.handle(), false, true, false, false};
    std::size_t ready = 0;
    error = WaitSockets(&wait, 1, timeout_ms, &ready);
    if (error != kErrorSuccess) return error;
    if (ready == 0) return kErrorTimedOut;
    int result = 0;
    socklen_t length = sizeof(result);
    if (getsockopt(Fd(socket), SOL_SOCKET, SO_ERROR, &result, &length) != 0) return LastSocketErrno();
    if (result != 0) return MapSocketErrno(result);
  }
  const int flags = fcntl(Fd(socket), F_GETFL, 0);
  if (flags < 0 || fcntl(Fd(socket), F_SETFL, flags & ~O_NONBLOCK) != 0) return LastSocketErrno();
  SetNoDelay(socket);
  *out = std::move(socket);
  return kErrorSuccess;
}

uint32_t ConnectLocal(const char16_t* name, Socket* out) {
  sockaddr_un where{};
  uint32_t error = PipeAddress(name, &where);
  if (error != kErrorSuccess) return error;
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return LastSocketErrno();
  Socket socket(static_cast<SocketHandle>(fd));
  if (connect(fd, reinterpret_cast<const sockaddr*>(&where), sizeof(where)) != 0) return LastSocketErrno();
  *out = std::move(socket);
  return kErrorSuccess;
}

uint32_t WaitSockets(SocketWait* entries, std::size_t count, uint32_t timeout_ms, std::size_t* ready) {
  *ready = 0;
  if (count > kMaxWaitSockets) return kErrorInvalidParameter;
  pollfd fds[kMaxWaitSockets];
  for (std::size_t i = 0; i < count; ++i) {
    fds[i].fd = static_cast<int>(entries[i].socket);
    fds[i].events = static_cast<short>((entries[i].want_read ? POLLIN : 0) | (entries[i].want_write ? POLLOUT : 0));
    fds[i].revents = 0;
    entries[i].readable = entries[i].writable = false;
  }
  const int timeout = timeout_ms == kInfinite ? -1 : static_cast<int>(timeout_ms > 0x7FFFFFFFu ? 0x7FFFFFFF : timeout_ms);
  const int n = poll(fds, static_cast<nfds_t>(count), timeout);
  if (n < 0) return errno == EINTR ? kErrorSuccess : LastSocketErrno();
  for (std::size_t i = 0; i < count; ++i) {
    const short got = fds[i].revents;
    entries[i].readable = entries[i].want_read && (got & (POLLIN | POLLHUP | POLLERR | POLLNVAL)) != 0;
    entries[i].writable = entries[i].want_write && (got & (POLLOUT | POLLHUP | POLLERR | POLLNVAL)) != 0;
    if (entries[i].readable || entries[i].writable) ++*ready;
  }
  return kErrorSuccess;
}

WakeSocket::~WakeSocket() = default;

uint32_t WakeSocket::Open() {
  int fds[2];
  if (pipe2(fds, O_NONBLOCK | O_CLOEXEC) != 0) return LastSocketErrno();
  read_ = Socket(static_cast<SocketHandle>(fds[0]));
  write_ = Socket(static_cast<SocketHandle>(fds[1]));
  return kErrorSuccess;
}

void WakeSocket::Wake() {
  const char one = 1;
  // A full pipe already wakes the waiter: a failed write changes nothing.
  if (write(static_cast<int>(write_.handle()), &one, 1) < 0) return;
}

void WakeSocket::Drain() {
  char sink[64];
  while (read(static_cast<int>(read_.handle()), sink, sizeof(sink)) > 0) {
  }
}

}  // namespace orlenda::platform
