/* net_socket.h on POSIX: BSD sockets, poll() on the socket and the waker's pipe. */
#define _DEFAULT_SOURCE /* getaddrinfo, TCP_KEEPIDLE and friends */

#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "net_socket.h"

int NetStartup(void) { return 1; }
void NetCleanup(void) {}
uint32_t NetLastError(void) { return (uint32_t)errno; }

static int MakeNonBlocking(int fd) {
  const int flags = fcntl(fd, F_GETFL);
  return flags >= 0 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0;
}

NetWaitResult NetWait(NetSocket socket, int for_write, uint32_t ms, DevWaker* waker) {
  struct pollfd fds[2];
  int n;
  fds[0].fd = (int)socket;
  fds[0].events = for_write ? POLLOUT : POLLIN;
  fds[0].revents = 0;
  fds[1].fd = waker != NULL ? waker->fds[0] : -1;
  fds[1].events = POLLIN;
  fds[1].revents = 0;
  do {
    n = poll(fds, 2, ms == DEV_FOREVER ? -1 : (int)ms);
  } while (n < 0 && errno == EINTR);
  if (n < 0) return NET_FAILED;
  if (fds[1].revents & POLLIN) return NET_WOKEN;
  return n == 0 ? NET_IDLE : NET_READY;
}

/* One attempt at one address; 0 on success, else the error (ETIMEDOUT, ECANCELED, errno). */
static int ConnectOne(const struct addrinfo* address, uint64_t until, DevWaker* waker, int* out) {
  const int fd = socket(address->ai_family, address->ai_socktype | SOCK_CLOEXEC, address->ai_protocol);
  int error = 0;
  socklen_t length = sizeof error;
  if (fd < 0) return errno;
  if (!MakeNonBlocking(fd)) {
    error = errno;
    close(fd);
    return error;
  }
  if (connect(fd, address->ai_addr, address->ai_addrlen) != 0) {
    const uint64_t now = DevNowMs();
    NetWaitResult waited;
    if (errno != EINPROGRESS) {
      error = errno;
      close(fd);
      return error;
    }
    waited = now >= until ? NET_IDLE : NetWait(fd, 1, (uint32_t)(until - now), waker);
    if (waited != NET_READY) {
      error = waited == NET_IDLE ? ETIMEDOUT : waited == NET_WOKEN ? ECANCELED : errno;
      close(fd);
      return error;
    }
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0) error = errno;
    if (error != 0) {
      close(fd);
      return error;
    }
  }
  *out = fd;
  return 0;
}

NetSocket NetConnect(const char* host, uint16_t port, uint32_t timeout_ms, DevWaker* waker, const DevText* name,
                     DevText* reason) {
  const uint64_t until = DevNowMs() + timeout_ms;
  struct addrinfo hints, *found = NULL, *address;
  char service[8];
  int fd = -1, error = ENOENT, status;
  memset(&hints, 0, sizeof hints);
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  snprintf(service, sizeof service, "%u", (unsigned)port);
  status = getaddrinfo(host, service, &hints, &found);
  if (status != 0) {
    DevTextClear(reason);
    DevTextAppend(reason, name);
    DevTextAscii(reason, ": cannot resolve the host name: ");
    DevTextAscii(reason, gai_strerror(status));
    return NET_NO_SOCKET;
  }
  for (address = found; address != NULL && fd < 0; address = address->ai_next) {
    error = ConnectOne(address, until, waker, &fd);
    if (error == ECANCELED || error == ETIMEDOUT) break;
  }
  freeaddrinfo(found);
  if (fd < 0) {
    DevTextReason(reason, name, "cannot connect", (uint32_t)error);
    return NET_NO_SOCKET;
  }
  {
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  }
  return fd;
}

void NetKeepAlive(NetSocket socket, uint32_t idle_ms) {
  const int fd = (int)socket;
  const int on = 1, idle = (int)((idle_ms + 999) / 1000), interval = 1, count = 3;
  /* Data a switched-off printer never acknowledges ends the connection in the same time. */
  const unsigned user_timeout = idle_ms + 3000;
  setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
  setsockopt(fd, IPPROTO_TCP, TCP_KEEPIDLE, &idle, sizeof idle);
  setsockopt(fd, IPPROTO_TCP, TCP_KEEPINTVL, &interval, sizeof interval);
  setsockopt(fd, IPPROTO_TCP, TCP_KEEPCNT, &count, sizeof count);
  setsockopt(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, &user_timeout, sizeof user_timeout);
}

long NetSend(NetSocket socket, const void* data, size_t size) {
  ssize_t n;
  do {
    n = send((int)socket, data, size, MSG_NOSIGNAL);
  } while (n < 0 && errno == EINTR);
  if (n < 0) return errno == EAGAIN || errno == EWOULDBLOCK ? 0 : -1;
  return (long)n;
}

long NetReceive(NetSocket socket, void* buffer, size_t size) {
  ssize_t n;
  do {
    n = recv((int)socket, buffer, size, 0);
  } while (n < 0 && errno == EINTR);
  if (n == 0) return -2;
  if (n < 0) return errno == EAGAIN || errno == EWOULDBLOCK ? 0 : -1;
  return (long)n;
}

void NetClose(NetSocket socket) {
  if (socket != NET_NO_SOCKET) close((int)socket);
}

NetSocket NetListenLoopback(uint16_t* port) {
  struct sockaddr_in address;
  socklen_t length = sizeof address;
  const int on = 1;
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return NET_NO_SOCKET;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  memset(&address, 0, sizeof address);
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(*port);
  if (bind(fd, (struct sockaddr*)&address, sizeof address) != 0 || listen(fd, 8) != 0 || !MakeNonBlocking(fd) ||
      getsockname(fd, (struct sockaddr*)&address, &length) != 0) {
    close(fd);
    return NET_NO_SOCKET;
  }
  *port = ntohs(address.sin_port);
  return fd;
}

NetSocket NetAccept(NetSocket listener, uint32_t ms) {
  int fd;
  if (NetWait(listener, 0, ms, NULL) != NET_READY) return NET_NO_SOCKET;
  fd = accept((int)listener, NULL, NULL);
  if (fd < 0) return NET_NO_SOCKET;
  if (!MakeNonBlocking(fd)) {
    close(fd);
    return NET_NO_SOCKET;
  }
  return fd;
}
