// Windows Sockets 2. The read sets of select hold up to kMaxWaitSockets sockets (FD_SETSIZE is
// raised for that before the first Winsock header).
#define FD_SETSIZE 128
#include <winsock2.h>
#include <ws2tcpip.h>

#include <utility>

#include "platform/socket.h"
#include "platform/sync.h"
#include "platform/thread.h"
#include "platform/win32/windows.h"

namespace orlenda::platform {
namespace {

static_assert(FD_SETSIZE >= kMaxWaitSockets, "select's sets must hold every socket of a wait");

SOCKET Raw(const Socket& socket) { return static_cast<SOCKET>(socket.handle()); }

uint32_t LastSocketError() { return static_cast<uint32_t>(WSAGetLastError()); }

}  // namespace

uint32_t SocketStartup() {
  static const uint32_t result = [] {
    WSADATA data;
    return static_cast<uint32_t>(WSAStartup(MAKEWORD(2, 0), &data));
  }();
  return result;
}

void Socket::Close() {
  if (handle_ != kNoSocket) closesocket(static_cast<SOCKET>(handle_));
  handle_ = kNoSocket;
}

void Socket::ShutdownBoth() const {
  if (handle_ != kNoSocket) shutdown(static_cast<SOCKET>(handle_), SD_BOTH);
}

uint32_t OpenTcpSocket(Socket* out) {
  SocketStartup();
  const SOCKET s = socket(AF_INET, SOCK_STREAM, 0);
  if (s == INVALID_SOCKET) return LastSocketError();
  *out = Socket(static_cast<SocketHandle>(s));
  return kErrorSuccess;
}

uint32_t SetNonBlocking(const Socket& socket) {
  u_long on = 1;
  if (ioctlsocket(Raw(socket), FIONBIO, &on) != 0) return LastSocketError();
  return kErrorSuccess;
}

uint32_t SetNoDelay(const Socket& socket) {
  const BOOL on = TRUE;
  if (setsockopt(Raw(socket), IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&on), sizeof(on)) != 0) {
    return LastSocketError();
  }
  return kErrorSuccess;
}

uint32_t BindIpv4(const Socket& socket, uint32_t address, uint16_t port) {
  // No SO_REUSEADDR here: on Windows it would let another program take the port over.
  sockaddr_in where{};
  where.sin_family = AF_INET;
  where.sin_addr.s_addr = htonl(address);
  where.sin_port = htons(port);
  if (bind(Raw(socket), reinterpret_cast<const sockaddr*>(&where), sizeof(where)) != 0) return LastSocketError();
  return kErrorSuccess;
}

uint32_t ListenOn(const Socket& socket) {
  if (listen(Raw(socket), SOMAXCONN) != 0) return LastSocketError();
  return kErrorSuccess;
}

uint32_t LocalPort(const Socket& socket, uint16_t* port) {
  sockaddr_in where{};
  int length = sizeof(where);
  if (getsockname(Raw(socket), reinterpret_cast<sockaddr*>(&where), &length) != 0) return LastSocketError();
  *port = ntohs(where.sin_port);
  return kErrorSuccess;
}

uint32_t AcceptClient(const Socket& listener, Socket* client, uint32_t* peer) {
  sockaddr_in from{};
  int length = sizeof(from);
  const SOCKET s = accept(Raw(listener), reinterpret_cast<sockaddr*>(&from), &length);
  if (s == INVALID_SOCKET) return LastSocketError();
  *client = Socket(static_cast<SocketHandle>(s));
  *peer = from.sin_family == AF_INET ? ntohl(from.sin_addr.s_addr) : 0;
  return kErrorSuccess;
}

uint32_t Receive(const Socket& socket, void* buffer, std::size_t size, std::size_t* got) {
  *got = 0;
  const int n = recv(Raw(socket), static_cast<char*>(buffer), size > 0x7FFFFFFF ? 0x7FFFFFFF : static_cast<int>(size), 0);
  if (n == SOCKET_ERROR) return LastSocketError();
  *got = static_cast<std::size_t>(n);
  return kErrorSuccess;
}

uint32_t SendSome(const Socket& socket, const void* data, std::size_t size, std::size_t* sent) {
  *sent = 0;
  const int n = send(Raw(socket), static_cast<const char*>(data), size > 0x7FFFFFFF ? 0x7FFFFFFF : static_cast<int>(size), 0);
  if (n == SOCKET_ERROR) return LastSocketError();
  *sent = static_cast<std::size_t>(n);
  return kErrorSuccess;
}

uint32_t ConnectTcp(const char* host, uint16_t port, uint32_t timeout_ms, Socket* out, const char* from) {
  SocketStartup();
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
  if (connect(Raw(socket), reinterpret_cast<const sockaddr*>(&where), sizeof(where)) != 0) {
    error = LastSocketError();
    if (error != WSAEWOULDBLOCK) return error;
    // Windows reports a refused connection through the exception set, not the write set.
    fd_set writable;
    fd_set failed;
    FD_ZERO(&writable);
    FD_ZERO(&failed);
    FD_SET(Raw(socket), &writable);
    FD_SET(Raw(socket), &failed);
    timeval limit{static_cast<long>(timeout_ms / 1000), static_cast<long>(timeout_ms % 1000) * 1000};
    const int n = select(0, nullptr, &writable, &failed, &limit);
    if (n == SOCKET_ERROR) return LastSocketError();
    if (n == 0) return kErrorTimedOut;
    if (FD_ISSET(Raw(socket), &failed)) {
      int result = 0;
      int length = sizeof(result);
      getsockopt(Raw(socket), SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&result), &length);
      return result != 0 ? static_cast<uint32_t>(result) : static_cast<uint32_t>(kErrorConnectionRefused);
    }
  }
  u_long off = 0;
  if (ioctlsocket(Raw(socket), FIONBIO, &off) != 0) return LastSocketError();
  SetNoDelay(socket);
  *out = std::move(socket);
  return kErrorSuccess;
}

uint32_t ConnectLocal(const char16_t*, Socket*) { return kErrorInvalidParameter; }

uint32_t WaitSockets(SocketWait* entries, std::size_t count, uint32_t timeout_ms, std::size_t* ready) {
  *ready = 0;
  if (count > kMaxWaitSockets) return kErrorInvalidParameter;
  fd_set readable;
  fd_set writable;
  fd_set failed;
  FD_ZERO(&readable);
  FD_ZERO(&writable);
  FD_ZERO(&failed);
  bool any = false;
  for (std::size_t i = 0; i < count; ++i) {
    const SOCKET s = static_cast<SOCKET>(entries[i].socket);
    entries[i].readable = entries[i].writable = false;
    if (entries[i].want_read) FD_SET(s, &readable);
    if (entries[i].want_write) FD_SET(s, &writable);
    if (entries[i].want_read || entries[i].want_write) {
      FD_SET(s, &failed);
      any = true;
    }
  }
  if (!any) {
    // select refuses empty sets: a wait on nothing is a sleep.
    SleepMs(timeout_ms == kInfinite ? 1000 : timeout_ms);
    return kErrorSuccess;
  }
  timeval limit{static_cast<long>(timeout_ms / 1000), static_cast<long>(timeout_ms % 1000) * 1000};
  const int n = select(0, &readable, &writable, &failed, timeout_ms == kInfinite ? nullptr : &limit);
  if (n == SOCKET_ERROR) return LastSocketError();
  for (std::size_t i = 0; i < count; ++i) {
    const SOCKET s = static_cast<SOCKET>(entries[i].socket);
    const bool broken = FD_ISSET(s, &failed) != 0;
    entries[i].readable = entries[i].want_read && (FD_ISSET(s, &readable) != 0 || broken);
    entries[i].writable = entries[i].want_write && (FD_ISSET(s, &writable) != 0 || broken);
    if (entries[i].readable || entries[i].writable) ++*ready;
  }
  return kErrorSuccess;
}

// A pair of UDP sockets on the loopback address: select waits only on sockets.
WakeSocket::~WakeSocket() = default;

uint32_t WakeSocket::Open() {
  SocketStartup();
  const SOCKET reader = socket(AF_INET, SOCK_DGRAM, 0);
  if (reader == INVALID_SOCKET) return LastSocketError();
  read_ = Socket(static_cast<SocketHandle>(reader));
  const SOCKET writer = socket(AF_INET, SOCK_DGRAM, 0);
  if (writer == INVALID_SOCKET) return LastSocketError();
  write_ = Socket(static_cast<SocketHandle>(writer));
  sockaddr_in where{};
  where.sin_family = AF_INET;
  where.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  int length = sizeof(where);
  if (bind(reader, reinterpret_cast<const sockaddr*>(&where), sizeof(where)) != 0 ||
      getsockname(reader, reinterpret_cast<sockaddr*>(&where), &length) != 0 ||
      connect(writer, reinterpret_cast<const sockaddr*>(&where), sizeof(where)) != 0) {
    return LastSocketError();
  }
  u_long on = 1;
  ioctlsocket(reader, FIONBIO, &on);
  ioctlsocket(writer, FIONBIO, &on);
  return kErrorSuccess;
}

void WakeSocket::Wake() {
  const char one = 1;
  send(Raw(write_), &one, 1, 0);
}

void WakeSocket::Drain() {
  char sink[64];
  while (recv(Raw(read_), sink, sizeof(sink), 0) > 0) {
  }
}

}  // namespace orlenda::platform
