/* net_socket.h on Windows: Winsock 2. The waker is an event, which select() cannot watch, so waits
 * run in short slices and look at the waker between them. */
#include <winsock2.h>
#include <ws2tcpip.h>
#include <mstcpip.h>
#include <stdio.h>
#include <string.h>

#include "net_socket.h"

/* The longest a blocked call goes without looking at the waker. */
#define SLICE_MS 50u

int NetStartup(void) {
  WSADATA data;
  return WSAStartup(MAKEWORD(2, 2), &data) == 0;
}

void NetCleanup(void) { WSACleanup(); }
uint32_t NetLastError(void) { return (uint32_t)WSAGetLastError(); }

static int MakeNonBlocking(SOCKET s) {
  u_long on = 1;
  return ioctlsocket(s, FIONBIO, &on) == 0;
}

/* One select() of at most `ms`: 1 ready, 0 not, -1 failed. Failure and readiness both count for a
 * connecting socket (its error shows in SO_ERROR). */
static int SelectOnce(SOCKET s, int for_write, uint32_t ms) {
  fd_set wanted, failed;
  struct timeval wait;
  int n;
  FD_ZERO(&wanted);
  FD_ZERO(&failed);
  FD_SET(s, &wanted);
  FD_SET(s, &failed);
  wait.tv_sec = (long)(ms / 1000);
  wait.tv_usec = (long)(ms % 1000) * 1000;
  n = select(0, for_write ? NULL : &wanted, for_write ? &wanted : NULL, &failed, &wait);
  return n < 0 ? -1 : n > 0;
}

NetWaitResult NetWait(NetSocket socket, int for_write, uint32_t ms, DevWaker* waker) {
  const uint64_t until = ms == DEV_FOREVER ? 0 : DevNowMs() + ms;
  for (;;) {
    uint32_t slice = SLICE_MS;
    int ready;
    if (waker != NULL && DevWakerIsSet(waker)) return NET_WOKEN;
    if (ms != DEV_FOREVER) {
      const uint64_t now = DevNowMs();
      if (now >= until) return NET_IDLE;
      if (until - now < slice) slice = (uint32_t)(until - now);
    }
    ready = SelectOnce((SOCKET)socket, for_write, slice);
    if (ready < 0) return NET_FAILED;
    if (ready > 0) return NET_READY;
  }
}

/* One attempt at one address; 0 on success, else the error. */
static int ConnectOne(const struct addrinfo* address, uint64_t until, DevWaker* waker, SOCKET* out) {
  const SOCKET s = socket(address->ai_family, address->ai_socktype, address->ai_protocol);
  int error = 0, length = sizeof error;
  NetWaitResult waited;
  uint64_t now;
  if (s == INVALID_SOCKET) return WSAGetLastError();
  SetHandleInformation((HANDLE)s, HANDLE_FLAG_INHERIT, 0);
  if (!MakeNonBlocking(s)) {
    error = WSAGetLastError();
    closesocket(s);
    return error;
  }
  if (connect(s, address->ai_addr, (int)address->ai_addrlen) == 0) {
    *out = s;
    return 0;
  }
  error = WSAGetLastError();
  if (error != WSAEWOULDBLOCK) {
    closesocket(s);
    return error;
  }
  now = DevNowMs();
  waited = now >= until ? NET_IDLE : NetWait((NetSocket)s, 1, (uint32_t)(until - now), waker);
  if (waited != NET_READY) {
    error = waited == NET_IDLE ? WSAETIMEDOUT : waited == NET_WOKEN ? WSAEINTR : WSAGetLastError();
    closesocket(s);
    return error;
  }
  if (getsockopt(s, SOL_SOCKET, SO_ERROR, (char*)&error, &length) != 0) error = WSAGetLastError();
  if (error != 0) {
    closesocket(s);
    return error;
  }
  *out = s;
  return 0;
}

NetSocket NetConnect(const char* host, uint16_t port, uint32_t timeout_ms, DevWaker* waker, const DevText* name,
                     DevText* reason) {
  const uint64_t until = DevNowMs() + timeout_ms;
  struct addrinfo hints, *found = NULL, *address;
  char service[8];
  SOCKET s = INVALID_SOCKET;
  int error = WSAHOST_NOT_FOUND, status;
  memset(&hints, 0, sizeof hints);
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_protocol = IPPROTO_TCP;
  snprintf(service, sizeof service, "%u", (unsigned)port);
  status = getaddrinfo(host, service, &hints, &found);
  if (status != 0) {
    DevTextReason(reason, name, "cannot resolve the host name", (uint32_t)status);
    return NET_NO_SOCKET;
  }
  for (address = found; address != NULL && s == INVALID_SOCKET; address = address->ai_next) {
    error = ConnectOne(address, until, waker, &s);
    if (error == WSAEINTR || error == WSAETIMEDOUT) break;
  }
  freeaddrinfo(found);
  if (s == INVALID_SOCKET) {
    DevTextReason(reason, name, "cannot connect", (uint32_t)error);
    return NET_NO_SOCKET;
  }
  {
    const BOOL on = TRUE;
    setsockopt(s, IPPROTO_TCP, TCP_NODELAY, (const char*)&on, sizeof on);
  }
  return (NetSocket)s;
}

void NetKeepAlive(NetSocket socket, uint32_t idle_ms) {
  struct tcp_keepalive values;
  DWORD returned = 0;
  values.onoff = 1;
  values.keepalivetime = idle_ms;
  values.keepaliveinterval = 1000; /* the system sends up to ten probes (three and up in Wine) */
  WSAIoctl((SOCKET)socket, SIO_KEEPALIVE_VALS, &values, sizeof values, NULL, 0, &returned, NULL, NULL);
}

long NetSend(NetSocket socket, const void* data, size_t size) {
  const int n = send((SOCKET)socket, (const char*)data, size > 0x7FFFFFFF ? 0x7FFFFFFF : (int)size, 0);
  if (n == SOCKET_ERROR) return WSAGetLastError() == WSAEWOULDBLOCK ? 0 : -1;
  return (long)n;
}

long NetReceive(NetSocket socket, void* buffer, size_t size) {
  const int n = recv((SOCKET)socket, (char*)buffer, size > 0x7FFFFFFF ? 0x7FFFFFFF : (int)size, 0);
  if (n == 0) return -2;
  if (n == SOCKET_ERROR) return WSAGetLastError() == WSAEWOULDBLOCK ? 0 : -1;
  return (long)n;
}

void NetClose(NetSocket socket) {
  if (socket != NET_NO_SOCKET) closesocket((SOCKET)socket);
}

NetSocket NetListenLoopback(uint16_t* port) {
  struct sockaddr_in address;
  int length = sizeof address;
  const BOOL on = TRUE;
  const SOCKET s = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  if (s == INVALID_SOCKET) return NET_NO_SOCKET;
  setsockopt(s, SOL_SOCKET, SO_REUSEADDR, (const char*)&on, sizeof on);
  memset(&address, 0, sizeof address);
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(*port);
  if (bind(s, (struct sockaddr*)&address, sizeof address) != 0 || listen(s, 8) != 0 || !MakeNonBlocking(s) ||
      getsockname(s, (struct sockaddr*)&address, &length) != 0) {
    closesocket(s);
    return NET_NO_SOCKET;
  }
  *port = ntohs(address.sin_port);
  return (NetSocket)s;
}

NetSocket NetAccept(NetSocket listener, uint32_t ms) {
  SOCKET s;
  if (NetWait(listener, 0, ms, NULL) != NET_READY) return NET_NO_SOCKET;
  s = accept((SOCKET)listener, NULL, NULL);
  if (s == INVALID_SOCKET) return NET_NO_SOCKET;
  if (!MakeNonBlocking(s)) {
    closesocket(s);
    return NET_NO_SOCKET;
  }
  return (NetSocket)s;
}
