// Stream sockets: TCP on both platforms (Windows Sockets 2 / BSD sockets), and on POSIX also the
// Unix stream sockets of the local pipe, which share every call below but the opening ones.
//
// Errors are the Windows Sockets numbers (WSAGetLastError); the POSIX bodies map errno to them
// (kErrorWouldBlock for EAGAIN, and so on), any other errno as kErrorPosixBase + errno.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/errors.h"

namespace orlenda::platform {

constexpr uint32_t kErrorInterrupted = 10004;    // WSAEINTR
constexpr uint32_t kErrorWouldBlock = 10035;     // WSAEWOULDBLOCK
constexpr uint32_t kErrorAddressInUse = 10048;   // WSAEADDRINUSE
constexpr uint32_t kErrorConnectionReset = 10054;  // WSAECONNRESET
constexpr uint32_t kErrorNotConnected = 10057;   // WSAENOTCONN
constexpr uint32_t kErrorTimedOut = 10060;       // WSAETIMEDOUT
constexpr uint32_t kErrorConnectionRefused = 10061;  // WSAECONNREFUSED
constexpr uint32_t kErrorHostNotFound = 11001;   // WSAHOST_NOT_FOUND

using SocketHandle = uintptr_t;
constexpr SocketHandle kNoSocket = ~static_cast<SocketHandle>(0);

// Starts Windows Sockets (version 2.0) once per process; later calls return the first result.
// Nothing to do on POSIX.
uint32_t SocketStartup();

// An owned socket; closes on destruction.
class Socket {
 public:
  Socket() = default;
  explicit Socket(SocketHandle handle) : handle_(handle) {}
  ~Socket() { Close(); }
  Socket(Socket&& other) noexcept : handle_(other.handle_) { other.handle_ = kNoSocket; }
  Socket& operator=(Socket&& other) noexcept {
    if (this != &other) {
      Close();
      handle_ = other.handle_;
      other.handle_ = kNoSocket;
    }
    return *this;
  }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  SocketHandle handle() const { return handle_; }
  bool is_open() const { return handle_ != kNoSocket; }
  void Close();
  // Ends both directions at once (a blocked receive on another thread wakes with the end of the
  // stream); the handle stays open until Close.
  void ShutdownBoth() const;

 private:
  SocketHandle handle_ = kNoSocket;
};

// socket(AF_INET, SOCK_STREAM, 0).
uint32_t OpenTcpSocket(Socket* out);
// ioctlsocket(FIONBIO, 1) / O_NONBLOCK.
uint32_t SetNonBlocking(const Socket& socket);
// TCP_NODELAY on.
uint32_t SetNoDelay(const Socket& socket);
// Binds to an IPv4 address (host byte order; 0 is every address) and port. On POSIX the address is
// made reusable first, so that a restarted listener is not refused while old connections linger.
uint32_t BindIpv4(const Socket& socket, uint32_t address, uint16_t port);
// listen(SOMAXCONN).
uint32_t ListenOn(const Socket& socket);
// The local port a socket is bound to.
uint32_t LocalPort(const Socket& socket, uint16_t* port);
// Takes one waiting client; `peer` gets its IPv4 address (host order), 0 for a local socket.
// kErrorWouldBlock when none waits on a non-blocking listener.
uint32_t AcceptClient(const Socket& listener, Socket* client, uint32_t* peer);

// One recv: `*got` bytes; at the end of the stream 0 with *got == 0.
uint32_t Receive(const Socket& socket, void* buffer, std::size_t size, std::size_t* got);
// One send: `*sent` bytes (never a signal on POSIX when the peer has gone).
uint32_t SendSome(const Socket& socket, const void* data, std::size_t size, std::size_t* sent);

// Connects a new blocking TCP socket to `host` (a name or a dotted address) and `port`, giving up
// after `timeout_ms`, from the local address `from` (dotted; null: the system's choice). TCP_NODELAY
// is set on it.
uint32_t ConnectTcp(const char* host, uint16_t port, uint32_t timeout_ms, Socket* out, const char* from = nullptr);

// Connects a new blocking socket to the local pipe `name` of this machine. POSIX only (the pipe is
// a Unix socket there); on Windows the pipe is no socket and this fails with
// kErrorInvalidParameter.
uint32_t ConnectLocal(const char16_t* name, Socket* out);

// Readiness of several sockets at once: poll on POSIX, select on Windows (so at most
// kMaxWaitSockets there). Each entry says what it waits for and gets what is ready; an error or
// hang-up on a socket shows as readable (the next receive tells which).
struct SocketWait {
  SocketHandle socket;
  bool want_read;
  bool want_write;
  bool readable;
  bool writable;
};
constexpr std::size_t kMaxWaitSockets = 128;
// Waits up to `timeout_ms` (kInfinite: no limit) until at least one entry is ready. `*ready` is the
// number of ready entries (0 after the time-out).
uint32_t WaitSockets(SocketWait* entries, std::size_t count, uint32_t timeout_ms, std::size_t* ready);

// Sends all of `size` bytes on a non-blocking socket, waiting for room while the peer does not
// read. When no byte could go out for `limit_ms`, kErrorTimedOut, with `*sent` telling how much
// went out.
uint32_t SendAll(const Socket& socket, const void* data, std::size_t size, uint32_t limit_ms, std::size_t* sent);

// Wakes a thread that waits in WaitSockets: its handle goes into the wait as a readable entry.
class WakeSocket {
 public:
  WakeSocket() = default;
  ~WakeSocket();
  WakeSocket(const WakeSocket&) = delete;
  WakeSocket& operator=(const WakeSocket&) = delete;

  uint32_t Open();
  SocketHandle handle() const { return read_.handle(); }
  // Makes the handle readable; any thread.
  void Wake();
  // Takes the wake-ups back, after the handle was seen readable.
  void Drain();

 private:
  Socket read_;
  Socket write_;
};

}  // namespace orlenda::platform
