// The client end of a connection to the service: the local pipe (Windows: the named pipe
// "\\.\pipe\<name>" opened for overlapped I/O in message read mode; POSIX: the Unix stream socket
// "<run dir>/<name>") or TCP (a socket on both platforms).
//
// One reader thread calls Receive; any number of threads call Send at once, each message going out
// whole (senders take turns). Wake and Shutdown may be called from any thread. Errors are the
// platform's numbers (errors.h, socket.h).
#pragma once

#include <cstddef>
#include <cstdint>

namespace orlenda::platform {

class ClientChannel {
 public:
  // What one Receive call saw.
  enum class Received { kBytes, kNothing, kClosed };

  // The channel's body for one transport (the platform's; see client_channel.cpp).
  class Impl;

  ClientChannel() = default;
  ~ClientChannel();
  ClientChannel(const ClientChannel&) = delete;
  ClientChannel& operator=(const ClientChannel&) = delete;

  // Connects to the local pipe `name` (without the system's prefix). While every instance of the
  // pipe is busy it waits, up to `timeout_ms`. kErrorFileNotFound (Windows) or
  // kErrorConnectionRefused / kErrorFileNotFound (POSIX) when no service listens.
  uint32_t ConnectLocal(const char16_t* name, uint32_t timeout_ms);
  // Connects over TCP to `host` (a name or a dotted IPv4 address) and `port`, within `timeout_ms`.
  uint32_t ConnectTcp(const char* host, uint16_t port, uint32_t timeout_ms);
  bool is_open() const { return impl_ != nullptr; }
  bool is_tcp() const { return tcp_; }

  // Sends the whole message. Waits for its turn and for room, but gives up when no byte could go
  // out for `limit_ms` (kErrorTimedOut): part of the message may have left then, so the stream is
  // out of step and the caller must treat the connection as lost. When `only_if_idle` is set and
  // another sender is busy, returns kErrorWouldBlock at once with nothing sent.
  uint32_t Send(const void* data, std::size_t size, uint32_t limit_ms, bool only_if_idle = false);

  // Reader thread only. Waits up to `timeout_ms` (kInfinite: no limit) for bytes; `*bytes` then
  // points into the channel's own buffer, valid until the next Receive. kNothing after the
  // time-out or a Wake; kClosed when the peer has gone, the connection failed or after Shutdown.
  Received Receive(uint32_t timeout_ms, const uint8_t** bytes, std::size_t* size);

  // Makes a waiting (or the next) Receive return kNothing at once.
  void Wake();
  // Ends the connection in both directions: Receive returns kClosed, Send fails. The handles stay
  // until the channel is destroyed, which must not happen while a call of it is running.
  void Shutdown();

 private:
  Impl* impl_ = nullptr;
  bool tcp_ = false;
};

// The most one Receive returns.
constexpr std::size_t kClientChannelBuffer = 65536;

}  // namespace orlenda::platform
